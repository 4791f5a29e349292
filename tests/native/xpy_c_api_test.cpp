// xpy_c_api_test.cpp -- start-up against the stand-in interpreter: versions, builds, and every
// name missing in turn; then the record's helpers.
#include "xpy_c_api.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>

#include "dprintf.h"
#include "support/stand_in.h"
#include "xpy_c_api_evalframe.h"
#include "xpy_c_api_fallbacks.h"
#include "xpy_c_api_layouts.h"

namespace {

struct tListedName {
    std::string rule;
    std::string name;
};

const tListedName kSlots[] = {
#define XPY_SLOT(rule, result, name, params, backup) {#rule, #name},
#include "xpy_c_api_slots.inc"
#undef XPY_SLOT
};

const tListedName kTypes[] = {
#define XPY_EXCEPTION(name)
#define XPY_TYPE(rule, name) {#rule, #name},
#include "xpy_c_api_globals.inc"
#undef XPY_EXCEPTION
#undef XPY_TYPE
};

const std::string kExceptions[] = {
#define XPY_EXCEPTION(name) #name,
#define XPY_TYPE(rule, name)
#include "xpy_c_api_globals.inc"
#undef XPY_EXCEPTION
#undef XPY_TYPE
};

bool is_one_of(const std::string& text, const tNames& list) {
    return list.count(text) != 0;
}

// Mandatory names, looked up as they are, for a family.
std::vector<std::string> get_mandatory_names(int family) {
    std::vector<std::string> names = {"Py_DecRef",
                                      "PyErr_Occurred",
                                      "PyObject_GetItem",
                                      "PySys_GetObject",
                                      "Py_FileSystemDefaultEncoding"};
    const std::string for_family = family < 3 ? "kNeededPy2" : "kNeededPy3";
    for (const tListedName& slot : kSlots) {
        if (is_one_of(slot.rule, {"kNeeded", for_family})) {
            names.push_back(slot.name);
        }
    }
    for (const tListedName& type : kTypes) {
        if (is_one_of(type.rule, {"kNeeded", for_family})) {
            names.push_back(type.name);
        }
    }
    names.insert(names.end(), std::begin(kExceptions), std::end(kExceptions));
    return names;
}

tNames get_absent_names(int family) {
    return family < 3 ? absent_in_python_2() : absent_in_python_3();
}

void expect_start_fails_without(int family, const std::string& name, const std::string& message) {
    const tNames absent = get_absent_names(family) + tNames{name};
    tStandIn stand_in(absent);
    stand_in.set_version(family, family < 3 ? 7 : 12);
    const std::string text = start_and_read_stderr(&stand_in, -1);
    EXPECT_EQ(text, message + name + "\n");
    EXPECT_EQ(gPy.initialized, 0) << name;
    EXPECT_EQ(gPy.failed_to_initialize, 0) << name;
}

TEST(StartUp, FailsWithoutEachMandatoryNameOnPython3) {
    for (const std::string& name : get_mandatory_names(3)) {
        expect_start_fails_without(3, name, "GetPtr() failed for ");
    }
    expect_start_fails_without(3, "PyDict_GetItemWithError", "GetPtr() failed for ");
    expect_start_fails_without(3, "PyEval_SetTraceAllThreads", "GetPtr() failed for ");
}

TEST(StartUp, FailsWithoutEachMandatoryNameOnPython2) {
    for (const std::string& name : get_mandatory_names(2)) {
        expect_start_fails_without(2, name, "GetPtr() failed for ");
    }
    expect_start_fails_without(2, "PyInt_AsSsize_t", "GetPtr() failed for ");
}

TEST(StartUp, FailsWithoutEachTextFunctionOnPython3) {
    for (const tListedName& slot : kSlots) {
        if (is_one_of(slot.rule, {"kUnicode", "kUnicodePy3", "kUnicodePy3Only"})) {
            tNames absent = absent_in_python_3() + tNames{slot.name};
            if (slot.name == "PyUnicode_Contains") {
                absent = absent + tNames{"PyUnicodeUCS2_Contains", "PyUnicodeUCS4_Contains"};
            }
            tStandIn stand_in(absent);
            stand_in.set_version(3, 11);
            EXPECT_EQ(
                start_and_read_stderr(&stand_in, -1),
                "GetUnicodeFunction() failed for: " + slot.name.substr(strlen("PyUnicode")) + "\n");
        }
    }
}

TEST(StartUp, LaterTryAfterFailureStartsAgain) {
    tStandIn without(absent_in_python_3() + tNames{"PyList_New"});
    without.set_version(3, 11);
    start_and_read_stderr(&without, -1);
    EXPECT_EQ(start_and_read_stderr(&without, -1), "GetPtr() failed for PyList_New\n");

    tStandIn with;
    with.set_version(3, 11);
    EXPECT_EQ(start_and_read_stderr(&with, 0), "");
    EXPECT_EQ(gPy.initialized, 1);
}

TEST(StartUp, OptionalNamesMayBeMissing) {
    tNames absent = absent_in_python_3();
    for (const tListedName& slot : kSlots) {
        if (is_one_of(slot.rule, {"kOptional", "kBackup", "kUnicodeBackup"}) ||
            slot.name.find("PyMutex") != std::string::npos) {
            absent.insert(slot.name);
        }
    }
    absent = absent + tNames{"_PyUnicode_AsString",
                             "PyUnicode_AsUTF8",
                             "Py_IsFinalizing",
                             "PyUnstable_Code_GetExtra",
                             "PyUnstable_Code_SetExtra",
                             "PyUnstable_Eval_RequestCodeExtraIndex",
                             "PyGen_Type",
                             "PyCoro_Type",
                             "PyLong_AsSsize_t",
                             "PyLong_FromSsize_t"};
    tStandIn stand_in(absent);
    stand_in.set_version(3, 11);
    stand_in.push("PyLong_AsLongLong", 3L);
    start_and_read_stderr(&stand_in, 0);
    EXPECT_EQ(gPy.Py_AddPendingCall, nullptr);
    EXPECT_EQ(gPy.PyModuleDef_Init, nullptr);
    EXPECT_EQ(gPy._PyMutex_LockSlow, nullptr);
    EXPECT_EQ(gPy.PyFrame_GetBack, Backup_PyFrame_GetBack);
    EXPECT_EQ(gPy._Py_IsFinalizing, Backup__Py_IsFinalizing);
    EXPECT_EQ(gPy._PyCode_GetExtra, Backup_PyUnstable_Code_GetExtra);
    EXPECT_EQ(gPy._PyUnicode_AsString, Backup_PyUnicode_AsString);
    EXPECT_EQ(gPy.PyUnicode_AsUTF8AndSize, Backup_PyUnicode_AsUTF8AndSize);
    EXPECT_EQ(gPy.PyLong_AsSsize_t, Backup_PyLong_AsSsize_t);
    EXPECT_EQ(gPy.PyLong_FromSsize_t, Backup_PyLong_FromSsize_t);
    EXPECT_EQ(gPy.PyGen_Type_ptr, nullptr);
}

TEST(StartUp, FillsEverySlotThatTheInterpreterHas) {
    tStandIn stand_in;
    stand_in.set_version(3, 12);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
#define XPY_SLOT(rule, result, name, params, backup)                                   \
    if (!is_one_of(#rule, {"kNeededPy2"}) && kPython2Names.count(#name) == 0 &&        \
        std::string(#name) != "Py_InitModule") {                                       \
        EXPECT_EQ(reinterpret_cast<void*>(gPy.name), stand_in.symbol(#name)) << #name; \
    }
#include "xpy_c_api_slots.inc"
#undef XPY_SLOT
    EXPECT_EQ(gPy.PyFrame_Type_ptr, stand_in.symbol("PyFrame_Type"));
    EXPECT_EQ(gPy.Py_None, stand_in.symbol("_Py_NoneStruct"));
    EXPECT_EQ(gPy.Py_False, stand_in.symbol("_Py_FalseStruct"));
    EXPECT_EQ(gPy.PyExc_ValueError, *static_cast<void**>(stand_in.symbol("PyExc_ValueError")));
    EXPECT_STREQ(gPy.Py_FileSystemDefaultEncoding, "stand-in");
    EXPECT_EQ(gPy.PyCallable_Type_ptr, nullptr);
}

TEST(StartUp, SecondSpellingsAreTried) {
    tStandIn stand_in(absent_in_python_3() + tNames{"_Py_IsFinalizing",
                                                    "_PyCode_GetExtra",
                                                    "_PyCode_SetExtra",
                                                    "_PyEval_RequestCodeExtraIndex",
                                                    "_PyUnicode_AsString",
                                                    "PyUnicode_Contains",
                                                    "PyUnicodeUCS2_Contains"});
    stand_in.set_version(3, 12);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    EXPECT_EQ(reinterpret_cast<void*>(gPy._Py_IsFinalizing), stand_in.symbol("Py_IsFinalizing"));
    EXPECT_EQ(reinterpret_cast<void*>(gPy._PyCode_GetExtra),
              stand_in.symbol("PyUnstable_Code_GetExtra"));
    EXPECT_EQ(reinterpret_cast<void*>(gPy._PyCode_SetExtra),
              stand_in.symbol("PyUnstable_Code_SetExtra"));
    EXPECT_EQ(reinterpret_cast<void*>(gPy._PyEval_RequestCodeExtraIndex),
              stand_in.symbol("PyUnstable_Eval_RequestCodeExtraIndex"));
    EXPECT_EQ(reinterpret_cast<void*>(gPy._PyUnicode_AsString),
              stand_in.symbol("PyUnicode_AsUTF8"));
    EXPECT_EQ(reinterpret_cast<void*>(gPy.PyUnicode_Contains),
              stand_in.symbol("PyUnicodeUCS4_Contains"));
}

TEST(StartUp, Python2CopiesItsByteStringFunctions) {
    tStandIn stand_in(absent_in_python_2());
    stand_in.set_version(2, 7, 18);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    EXPECT_EQ(reinterpret_cast<void*>(gPy.Py_InitModule), stand_in.symbol("Py_InitModule4"));
    EXPECT_EQ(reinterpret_cast<void*>(gPy.PyBytes_AsString), stand_in.symbol("PyString_AsString"));
    EXPECT_EQ(gPy.PyBytes_FromString, gPy.PyString_FromString);
    EXPECT_EQ(gPy.PyBytes_Size, gPy.PyString_Size);
    EXPECT_EQ(gPy.PyBytes_Type_ptr, stand_in.symbol("PyString_Type"));
    EXPECT_EQ(gPy.Py_False, stand_in.symbol("_Py_ZeroStruct"));
    EXPECT_EQ(gPy.PyUnicode_FromFormat, nullptr);  // not looked up there
    EXPECT_EQ(gPy.PyMapping_Values, nullptr);
    EXPECT_EQ(reinterpret_cast<void*>(gPy.PyDict_GetItemWithError),
              stand_in.symbol("_PyDict_GetItemWithError"));
    EXPECT_EQ(XPy_GetMajorVersion(), 2);
    EXPECT_EQ(XPy_GetMinorVersion(), 7);
    EXPECT_EQ(gPy.micro_version, 18);
    EXPECT_EQ(gPy.api_version, 1013);
}

TEST(StartUp, Python2MayLackDictLookUpAndTextMakers) {
    tStandIn stand_in(absent_in_python_2() + tNames{"_PyDict_GetItemWithError",
                                                    "PyUnicode_FromFormatV",
                                                    "PyUnicode_FromString",
                                                    "PyUnicode_FromStringAndSize"});
    stand_in.set_version(2, 6);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    EXPECT_EQ(gPy.PyDict_GetItemWithError, Backup_PyDict_GetItemWithError);
    EXPECT_EQ(gPy.PyUnicode_FromString, nullptr);
}

TEST(StartUp, WideWordPython2NamesAreFound) {
    tStandIn stand_in(absent_in_python_2() + tNames{"Py_InitModule4"});
    stand_in.set_version(2, 7);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    EXPECT_EQ(reinterpret_cast<void*>(gPy.Py_InitModule), stand_in.symbol("Py_InitModule4_64"));
    EXPECT_EQ(gPy.pydebug_build, 0);

    tStandIn debug(absent_in_python_2() +
                   tNames{"Py_InitModule4", "Py_InitModule4_64", "Py_InitModule4TraceRefs"});
    debug.set_version(2, 7);
    EXPECT_EQ(start_and_read_stderr(&debug, 0), "");
    EXPECT_EQ(reinterpret_cast<void*>(gPy.Py_InitModule),
              debug.symbol("Py_InitModule4TraceRefs_64"));
    EXPECT_EQ(gPy.pydebug_build, 1);
}

TEST(StartUp, NoModuleCreationFunctionFailsForGood) {
    tStandIn stand_in(absent_in_python_3() + kPython3Names);
    EXPECT_EQ(start_and_read_stderr(&stand_in, -1), "Failed to find module init function\n");
    EXPECT_EQ(gPy.failed_to_initialize, 1);
    EXPECT_EQ(stand_in.last_error(), "");

    EXPECT_EQ(start_and_read_stderr(&stand_in, -1), "");  // at once: nothing is looked for
    EXPECT_EQ(stand_in.last_error(), "Unable to init XPy");
}

TEST(StartUp, FailOnImportRaisesImportError) {
    tStandIn stand_in;
    stand_in.set_version(3, 11);
    XPy_InitializeDllPtrInGlobalData(stand_in.dll_ptr());
    EXPECT_EQ(XPy_DbgSetFailOnImport(1), 0);
    EXPECT_EQ(XPy_Initialize(), -1);
    EXPECT_EQ(stand_in.last_error(), "Unable to init XPy");
    EXPECT_EQ(gPy.initialized, 0);
    EXPECT_EQ(XPy_DbgSetFailOnImport(0), 1);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
}

TEST(StartUp, PendingErrorIsNotReplacedByImportError) {
    tStandIn stand_in;
    stand_in.push("PyErr_Occurred", stand_in.symbol("PyExc_ValueError"));
    XPy_InitializeDllPtrInGlobalData(stand_in.dll_ptr());
    XPy_TryToRaiseImportError();
    EXPECT_EQ(stand_in.last_error(), "");
}

TEST(StartUp, ImportErrorStepDoesNothingWithoutItsTools) {
    tStandIn stand_in(absent_in_python_3() + tNames{"PyExc_ImportError"});
    XPy_InitializeDllPtrInGlobalData(stand_in.dll_ptr());
    XPy_TryToRaiseImportError();
    EXPECT_EQ(stand_in.last_error(), "");
}

TEST(StartUp, SecondStartLooksNothingUp) {
    tStandIn stand_in;
    stand_in.set_version(3, 11);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    gPy.PyList_New = nullptr;
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    EXPECT_EQ(XPy_Initialize(), 0);
    EXPECT_EQ(gPy.PyList_New, nullptr);
    EXPECT_EQ(stand_in.calls("PySys_GetObject"), 2);
}

TEST(StartUp, TraceRefsBuildShiftsTheHeader) {
    tStandIn stand_in(absent_in_python_3() + tNames{"PyModule_Create2"});
    stand_in.set_version(3, 11);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    EXPECT_EQ(gPy.pydebug_build, 1);
    EXPECT_EQ(gPy.pyobject_offsets.refcnt, Py_ssize_t{2 * sizeof(void*)});
    EXPECT_EQ(gPy.pyobject_offsets.type, Py_ssize_t{3 * sizeof(void*)});
    EXPECT_EQ(gPy.pyobject_offsets.mutex, -1);
    EXPECT_EQ(gPy.can_update_refcount_directly, 0);
}

TEST(StartUp, TraceRefsBuildHasNoListPointersSince313) {
    tStandIn stand_in(absent_in_python_3() + tNames{"PyModule_Create2"});
    stand_in.set_version(3, 13);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    EXPECT_EQ(gPy.pydebug_build, 1);
    EXPECT_EQ(gPy.pyobject_offsets.refcnt, 0);
    EXPECT_EQ(gPy.can_update_refcount_directly, 0);
}

TEST(StartUp, FreeThreadedBuildCountsOnlyThroughTheInterpreter) {
    tStandIn stand_in(absent_in_python_3() - tNames{"_Py_GetThreadLocal_Addr"});
    stand_in.set_version(3, 14);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    EXPECT_EQ(gPy.pyobject_offsets.refcnt, -1);
    EXPECT_EQ(gPy.pyobject_offsets.overflow, -1);
    EXPECT_EQ(gPy.pyobject_offsets.flags, Py_ssize_t{sizeof(void*)});
    EXPECT_EQ(gPy.pyobject_offsets.mutex, Py_ssize_t{sizeof(void*) + 2});
    EXPECT_EQ(gPy.pyobject_offsets.type, sizeof(void*) == 8 ? 24 : 16);
    EXPECT_EQ(gPy.can_update_refcount_directly, 0);
    long words[16] = {};
    PyObject* const obj = reinterpret_cast<PyObject*>(words);
    XPy_DoIncRef(obj);
    XPy_DoDecRef(obj);
    EXPECT_EQ(stand_in.calls("Py_IncRef"), 1);
    EXPECT_EQ(stand_in.calls("Py_DecRef"), 1 + 3 * 2);  // version items and their indices before
    EXPECT_EQ(XPy_GetRefCnt(obj), -1);
    EXPECT_EQ(XPy_IsImmortal(obj), 0);
}

struct tCounting {
    long minor;
    int direct;
    int is_32bit;
};

TEST(StartUp, VersionDecidesHowReferencesAreCounted) {
    const tCounting kExpected[] = {
        {2, 1, 0}, {8, 1, 0}, {11, 1, 0}, {12, 0, 1}, {13, 0, 1}, {14, 1, 1}, {15, 1, 1}};
    for (const tCounting& row : kExpected) {
        tStandIn stand_in;
        stand_in.set_version(3, row.minor);
        start_and_read_stderr(&stand_in, 0);
        EXPECT_EQ(gPy.can_update_refcount_directly, row.direct) << "3." << row.minor;
        EXPECT_EQ(gPy.refcnt_is_32bit, row.is_32bit) << "3." << row.minor;
        EXPECT_EQ(gPy.pyobject_offsets.refcnt, 0) << "3." << row.minor;
    }
}

TEST(StartUp, TotalOfAllReferencesThatCannotBeKeptIsLeftToTheInterpreter) {
    tStandIn stand_in(absent_in_python_3() - tNames{"_Py_NegativeRefcount"});
    stand_in.set_version(3, 11);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    EXPECT_EQ(gPy.pydebug_build, 0);
    EXPECT_EQ(gPy.can_update_refcount_directly, 0);
}

// Three references more and one less, in place.
void count_in_place() {
    Py_ssize_t object[2] = {5, 0};
    PyObject* const obj = reinterpret_cast<PyObject*>(object);
    EXPECT_EQ(gPy.can_update_refcount_directly, 1);
    XPy_DoIncRef(obj);
    XPy_DoIncRef(obj);
    XPy_DoIncRef(obj);
    XPy_DoDecRef(obj);
    EXPECT_EQ(XPy_GetRefCnt(obj), 7);
}

TEST(StartUp, TotalOfAllReferencesIsKeptInItsVariable) {
    tStandIn stand_in(absent_in_python_3() - tNames{"_Py_NegativeRefcount", "_Py_RefTotal"});
    stand_in.set_version(3, 11);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    count_in_place();
    EXPECT_EQ(*static_cast<Py_ssize_t*>(stand_in.symbol("_Py_RefTotal")), 1002);
}

TEST(StartUp, TotalOfAllReferencesIsKeptByItsFunctions) {
    tStandIn stand_in(absent_in_python_3() - tNames{"_Py_NegativeRefcount",
                                                    "_Py_RefTotal",
                                                    "_Py_INCREF_IncRefTotal",
                                                    "_Py_DECREF_DecRefTotal"});
    stand_in.set_version(3, 14);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    count_in_place();
    EXPECT_EQ(stand_in.calls("_Py_INCREF_IncRefTotal"), 3);
    EXPECT_EQ(stand_in.calls("_Py_DECREF_DecRefTotal"), 1);
    EXPECT_EQ(*static_cast<Py_ssize_t*>(stand_in.symbol("_Py_RefTotal")), 1000);
}

TEST(StartUp, TraceSetterForAllThreadsIsNotLookedUpBelow312) {
    tStandIn with;
    with.set_version(3, 11);
    EXPECT_EQ(start_and_read_stderr(&with, 0), "");
    EXPECT_EQ(gPy.PyEval_SetTraceAllThreads, Backup_PyEval_SetTraceAllThreads);

    tStandIn without(absent_in_python_3() + tNames{"PyEval_SetTraceAllThreads"});
    without.set_version(3, 11);
    EXPECT_EQ(start_and_read_stderr(&without, 0), "");
}

TEST(StartUp, TraceSetterForAllThreadsIsMandatoryFromPython4OnToo) {
    tStandIn stand_in(absent_in_python_3() + tNames{"PyEval_SetTraceAllThreads"});
    stand_in.set_version(4, 0);
    EXPECT_EQ(start_and_read_stderr(&stand_in, -1),
              "GetPtr() failed for PyEval_SetTraceAllThreads\n");
}

TEST(StartUp, UnknownVersionIsReportedAndStartUpGoesOn) {
    tStandIn stand_in;
    stand_in.push("PySys_GetObject", 0L);
    const std::string text = start_and_read_stderr(&stand_in, 0);
    EXPECT_EQ(text,
              "Unable to get version numbers\nCannot find tstate fields for this python version\n");
    EXPECT_EQ(gPy.initialized, 1);
    EXPECT_EQ(stand_in.calls("PyErr_Print"), 0);  // nothing pending
}

TEST(StartUp, ErrorInVersionDetectionIsPrinted) {
    tStandIn stand_in;
    stand_in.set_version(3, 11);
    stand_in.push("PyErr_Occurred", 1L);  // after the first item and when printing
    stand_in.push("PyErr_Occurred", 1L);
    stand_in.push("PyErr_Occurred", 1L);
    stand_in.push("PyErr_Occurred", 0L);
    EXPECT_NE(start_and_read_stderr(&stand_in, 0).find("Unable to get version numbers\n"),
              std::string::npos);
    EXPECT_EQ(stand_in.calls("PyErr_Print"), 1);
}

TEST(StartUp, VersionDetectionSurvivesEachFailingCall) {
    for (const char* name : {"PySys_GetObject", "PyObject_GetItem", "PyLong_FromSsize_t"}) {
        for (int n = 0; n < 3; n++) {
            tStandIn stand_in;
            long object[16] = {};
            for (int before = 0; before < n; before++) {
                stand_in.push(name, object);
            }
            stand_in.push(name, 0L);
            stand_in.push(name, object);
            stand_in.set_version(3, 11);
            start_and_read_stderr(&stand_in, 0);
            EXPECT_EQ(gPy.initialized, 1) << name << " " << n;
        }
    }
}

TEST(StartUp, PrintIsSkippedWhenThereIsNoPrinter) {
    tStandIn stand_in(absent_in_python_3() + tNames{"PyErr_Print"});
    stand_in.push("PySys_GetObject", 0L);
    stand_in.push("PyErr_Occurred", 1L);
    EXPECT_EQ(start_and_read_stderr(&stand_in, -1),
              "Unable to get version numbers\nGetPtr() failed for PyErr_Print\n");
}

TEST(StartUp, VersionAfterTheLastKnownHasNoThreadStateOffsets) {
    tStandIn stand_in;
    stand_in.set_version(3, 15);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0),
              "Cannot find tstate fields for this python version\n");
    const Py_ssize_t* const offsets = reinterpret_cast<const Py_ssize_t*>(&gPy.tstate_offsets);
    for (size_t i = 0; i < sizeof(gPy.tstate_offsets) / sizeof(Py_ssize_t); i++) {
        EXPECT_EQ(offsets[i], -1) << i;
    }
}

TEST(StartUp, TraceGoesToTheNativeLog) {
    tStandIn stand_in;
    stand_in.set_version(3, 11);
    int ends[2] = {};
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(XPy_SetDPrintfFile(nullptr, ends[1], nullptr), 0);  // not before start-up
    EXPECT_EQ(XPy_SetDPrintfNativeFile(ends[1], nullptr), 1);
    EXPECT_EQ(XPy_SetDPrintfFile(nullptr, -1, nullptr), 0);
    EXPECT_EQ(stand_in.start(), 0);
    EXPECT_EQ(XPy_SetDPrintfNativeFile(-1, nullptr), 1);
    close(ends[1]);
    char text[4096] = "";
    EXPECT_GT(read(ends[0], text, sizeof(text) - 1), 0);
    close(ends[0]);
    const bool wide = sizeof(void*) == 8;
    EXPECT_EQ(std::string(text),
              "XPy_SetDPrintfFile() called when global_XPy_C_API_Data.initialized is false\n"
              "IsFreeThreadingBuild(): c_func_ptr = (nil)\n"
              "FindInitFunction() succeeded major_version = 3, free_t_build = 0, pydebug_build = "
              "0\n" +
                  std::string(wide ? "pyobject_offsets: refcnt=0 type=8 mutex=-1 overflow=-1 "
                                     "flags=-1\n"
                                     "typeobject: tp_basicsize offset = 32, tp_vectorcall_offset "
                                     "offset = 56, max_align = 16\n"
                                   : "pyobject_offsets: refcnt=0 type=4 mutex=-1 overflow=-1 "
                                     "flags=-1\n"
                                     "typeobject: tp_basicsize offset = 16, tp_vectorcall_offset "
                                     "offset = 28, max_align = 12\n") +
                  "XPy_InitializeGlobalData() succeeded\n");
}

TEST(Log, MaskSetterGivesTheOldMask) {
    const long old_mask = XPy_SetDPrintfMask(3);
    EXPECT_EQ(XPy_SetDPrintfMask(old_mask), 3);
}

TEST(LookUp, LibraryThatCannotBeOpenedHasNoSymbols) {
    char missing[] = "/nonexistent/library.so";
    EXPECT_EQ(GetPtrNullOk(missing, "malloc"), nullptr);
    EXPECT_NE(GetPtrNullOk(nullptr, "malloc"), nullptr);
}

TEST(LookUp, MissIsReportedOnlyWhenMandatory) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(GetPtr(nullptr, "no_such_name"), nullptr);
    EXPECT_EQ(GetPtrNullOk(nullptr, "no_such_name"), nullptr);
    EXPECT_EQ(GetPtrVariableValueNullOk(nullptr, "no_such_name"), nullptr);
    EXPECT_EQ(GetUnicodeFunction(nullptr, "_No", "", 1), nullptr);
    EXPECT_EQ(GetUnicodeFunction(nullptr, "_No", "_", 0), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "GetPtr() failed for no_such_name\nGetUnicodeFunction() failed for: _No\n");
}

TEST(LookUp, VariableValueIsReadFromTheSymbol) {
    tStandIn stand_in;
    EXPECT_EQ(GetPtrVariableValue(stand_in.dll_ptr(), "PyExc_KeyError"),
              *static_cast<void**>(stand_in.symbol("PyExc_KeyError")));
}

TEST(LookUp, OverlongNameIsCutNotOverrun) {
    const std::string name(10000, 'x');
    EXPECT_EQ(GetUnicodeFunction(nullptr, name.c_str(), "", 1), nullptr);
}

TEST(LookUp, PythonFunctionsAreFoundByName) {
    tStandIn stand_in;
    stand_in.set_version(3, 11);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    EXPECT_EQ(XPy_LookupPythonFunction("PyList_New"), stand_in.symbol("PyList_New"));
    EXPECT_EQ(XPy_LookupPythonFunction("PyNoSuch_Function"), nullptr);
}

// Reference counts on a record set by hand.

struct tCountedObject {
    Py_ssize_t refcnt;
    void* type;
    PyObject* obj() { return reinterpret_cast<PyObject*>(this); }
};

int gIncRefs = 0;
int gDecRefs = 0;

struct tCountingRecord {
    tCountingRecord(int direct, int is_32bit) {
        global_XPy_C_API_Data = {};
        gPy.can_update_refcount_directly = direct;
        gPy.refcnt_is_32bit = is_32bit;
        gPy.Py_IncRef = [](PyObject*) { gIncRefs++; };
        gPy.Py_DecRef = [](PyObject*) { gDecRefs++; };
        gIncRefs = 0;
        gDecRefs = 0;
    }
    ~tCountingRecord() { global_XPy_C_API_Data = {}; }
};

TEST(RefCount, IsWrittenInPlace) {
    tCountingRecord record(1, 0);
    tCountedObject counted = {5, nullptr};
    XPy_DoIncRef(counted.obj());
    EXPECT_EQ(counted.refcnt, 6);
    XPy_DoDecRef(counted.obj());
    XPy_DoDecRef(counted.obj());
    EXPECT_EQ(counted.refcnt, 4);
    EXPECT_EQ(XPy_GetRefCnt(counted.obj()), 4);
    EXPECT_EQ(gIncRefs + gDecRefs, 0);
}

TEST(RefCount, LastReferenceIsDroppedByTheInterpreter) {
    for (const int is_32bit : {0, 1}) {
        tCountingRecord record(1, is_32bit);
        tCountedObject counted = {1, nullptr};
        XPy_DoDecRef(counted.obj());
        EXPECT_EQ(counted.refcnt, 1);
        EXPECT_EQ(gDecRefs, 1);
    }
}

TEST(RefCount, CountThatIsWrongAlreadyIsLeftToTheInterpreter) {
    tCountingRecord none(1, 0);
    tCountedObject counted = {0, nullptr};
    XPy_DoDecRef(counted.obj());
    EXPECT_EQ(counted.refcnt, 0);
    counted.refcnt = -7;
    XPy_DoDecRef(counted.obj());
    EXPECT_EQ(counted.refcnt, -7);
    EXPECT_EQ(gDecRefs, 2);

    tCountingRecord immortal(1, 1);  // a decrement in place would make it an immortal one
    counted.refcnt = 0;
    XPy_DoDecRef(counted.obj());
    EXPECT_EQ(counted.refcnt, 0);
    EXPECT_EQ(gDecRefs, 1);
}

TEST(RefCount, GoesThroughTheInterpreterWhenNotDirect) {
    tCountingRecord record(0, 1);
    tCountedObject counted = {5, nullptr};
    XPy_DoIncRef(counted.obj());
    XPy_DoDecRef(counted.obj());
    EXPECT_EQ(counted.refcnt, 5);
    EXPECT_EQ(gIncRefs, 1);
    EXPECT_EQ(gDecRefs, 1);
}

TEST(RefCount, ImmortalObjectsAreLeftAlone) {
    tCountingRecord record(1, 1);
    tCountedObject counted = {};
    const int32_t immortal = -5;
    memcpy(&counted, &immortal, sizeof(immortal));
    const Py_ssize_t before = counted.refcnt;
    EXPECT_EQ(XPy_IsImmortal(counted.obj()), 1);
    XPy_DoIncRef(counted.obj());
    XPy_DoDecRef(counted.obj());
    EXPECT_EQ(counted.refcnt, before);
    EXPECT_EQ(XPy_GetRefCnt(counted.obj()), -5);
    EXPECT_EQ(gIncRefs + gDecRefs, 0);
}

TEST(RefCount, UpperHalfOfTheWordIsNotTouched) {
    if (sizeof(void*) != 8) {
        GTEST_SKIP() << "64-bit headers only";
    }
    tCountingRecord record(1, 1);
    int32_t words[4] = {INT32_MAX - 1, 0x12345678, 0, 0};
    PyObject* const obj = reinterpret_cast<PyObject*>(words);
    XPy_DoIncRef(obj);
    EXPECT_EQ(words[0], INT32_MAX);
    EXPECT_EQ(words[1], 0x12345678);
    XPy_DoDecRef(obj);
    EXPECT_EQ(words[0], INT32_MAX - 1);
    EXPECT_EQ(words[1], 0x12345678);
}

TEST(RefCount, NullIsIgnored) {
    tCountingRecord record(1, 0);
    XPy_DoIncRef(nullptr);
    XPy_DoDecRef(nullptr);
    EXPECT_EQ(gIncRefs + gDecRefs, 0);
}

TEST(RefCount, FieldAddressIsPlainArithmetic) {
    char bytes[8] = {};
    EXPECT_EQ(XPy_GetFieldAddress(bytes, 5), bytes + 5);
}

// Small utilities.

TEST(Utilities, BorrowTypeReleasesItsReference) {
    tStandIn stand_in;
    stand_in.set_version(3, 12);  // counts through the interpreter
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    long type[16] = {};
    stand_in.push("PyObject_Type", type);
    const long before = stand_in.calls("Py_DecRef");
    EXPECT_EQ(XPy_BorrowType(nullptr), reinterpret_cast<void*>(type));
    EXPECT_EQ(stand_in.calls("Py_DecRef"), before + 1);
}

TEST(Utilities, BorrowTypeOfNothing) {
    tStandIn stand_in;
    stand_in.set_version(3, 12);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    const long before = stand_in.calls("Py_DecRef");
    EXPECT_EQ(XPy_BorrowType(nullptr), nullptr);
    EXPECT_EQ(stand_in.calls("Py_DecRef"), before);
}

TEST(Utilities, EqualityByRichComparison) {
    tStandIn stand_in;
    stand_in.set_version(3, 11);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    for (const long answer : {1L, 0L, -1L}) {
        stand_in.push("PyObject_RichCompareBool", answer);
    }
    EXPECT_EQ(XPy_PyObjectsEqual(nullptr, nullptr), 1);
    EXPECT_EQ(XPy_PyObjectsEqual(nullptr, nullptr), 0);
    EXPECT_EQ(XPy_PyObjectsEqual(nullptr, nullptr), -1);
}

TEST(Utilities, EqualityByOrderWhereThereIsNoRichComparison) {
    tStandIn stand_in(absent_in_python_2());
    stand_in.set_version(2, 7);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    gPy.PyObject_RichCompareBool = nullptr;
    for (const long answer : {0L, 1L, -1L}) {
        stand_in.push("PyObject_Compare", answer);
    }
    EXPECT_EQ(XPy_PyObjectsEqual(nullptr, nullptr), 1);
    EXPECT_EQ(XPy_PyObjectsEqual(nullptr, nullptr), 0);
    EXPECT_EQ(XPy_PyObjectsEqual(nullptr, nullptr), 0);  // less, and no error pending
    gPy.PyErr_Occurred = [] { return gPy.Py_None; };
    EXPECT_EQ(XPy_PyObjectsEqual(nullptr, nullptr), -1);
}

// Module definitions.

struct tSlotPair {
    int slot;
    void* value;
};

Py_ssize_t def_offset(const char* name) {
    return FindFieldOffset(name, py3_mod_def_fields);
}

int exec_nothing(PyObject*) {
    return 0;
}

PyObject* create_nothing(PyObject*, PyModuleDef*) {
    return nullptr;
}

// Slots of the image that a version gets; the last one is {0, null}. Empty when there are none.
std::vector<std::pair<int, long>> make_slots(int minor, const XPyModuleDef& def) {
    gPy.minor_version = minor;
    XPyModuleDef copy = def;
    PyModuleDef* const image = XPy_CreatePy3ModuleDef(&copy);
    std::vector<std::pair<int, long>> slots;
    const tSlotPair* slot = read_field<const tSlotPair*>(image, def_offset("m_slots"));
    for (; slot != nullptr; slot++) {
        slots.emplace_back(slot->slot, reinterpret_cast<long>(slot->value));
        if (slot->slot == 0) {
            break;
        }
    }
    return slots;
}

class ModuleDef : public testing::Test {
protected:
    void SetUp() override {
        global_XPy_C_API_Data = {};
        gPy.major_version = 3;
        gPy.pyobject_offsets.type = sizeof(void*);
    }
    void TearDown() override { global_XPy_C_API_Data = {}; }
};

TEST_F(ModuleDef, DescriptionIsCopied) {
    gPy.minor_version = 11;
    PyMethodDef methods[1] = {};
    XPyModuleDef def = {};
    def.m_name = "name";
    def.m_doc = "doc";
    def.m_size = -1;
    def.m_methods = methods;
    def.m_free = [](void*) {};
    PyModuleDef* const image = XPy_CreatePy3ModuleDef(&def);
    EXPECT_STREQ(read_field<const char*>(image, def_offset("m_name")), "name");
    EXPECT_STREQ(read_field<const char*>(image, def_offset("m_doc")), "doc");
    EXPECT_EQ(read_field<Py_ssize_t>(image, def_offset("m_size")), -1);
    EXPECT_EQ(read_field<PyMethodDef*>(image, def_offset("m_methods")), methods);
    EXPECT_EQ(read_field<void*>(image, def_offset("m_slots")), nullptr);
    EXPECT_EQ(read_field<freefunc>(image, def_offset("m_free")), def.m_free);
}

TEST_F(ModuleDef, SlotsFollowTheVersion) {
    XPyModuleDef def = {};
    def.m_name = "name";
    def.m_exec = exec_nothing;
    def.m_no_gil_support_flag = 1;
    def.m_multiple_interp_flag = 2;
    const long exec = reinterpret_cast<long>(exec_nothing);
    using tSlots = std::vector<std::pair<int, long>>;
    EXPECT_EQ(make_slots(11, def), (tSlots{{2, exec}, {0, 0}}));
    EXPECT_EQ(make_slots(12, def), (tSlots{{2, exec}, {3, 2}, {0, 0}}));
    EXPECT_EQ(make_slots(13, def), (tSlots{{2, exec}, {4, 1}, {3, 2}, {0, 0}}));
    def.m_create = create_nothing;
    const long create = reinterpret_cast<long>(create_nothing);
    EXPECT_EQ(make_slots(13, def), (tSlots{{1, create}, {2, exec}, {4, 1}, {3, 2}, {0, 0}}));
}

TEST_F(ModuleDef, MultipleInterpreterSlotNeedsAnotherSlot) {
    XPyModuleDef def = {};
    def.m_multiple_interp_flag = 2;
    EXPECT_TRUE(make_slots(13, def).empty());
}

TEST_F(ModuleDef, CreateFunctionBefore35IsReported) {
    XPyModuleDef def = {};
    def.m_create = create_nothing;
    testing::internal::CaptureStderr();
    EXPECT_TRUE(make_slots(4, def).empty());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Setting multi-phase module loading functions not supported before 3.5");
}

TEST_F(ModuleDef, UnknownHeaderGivesNoDefinition) {
    gPy.minor_version = 11;
    gPy.pyobject_offsets.type = -1;
    XPyModuleDef def = {};
    testing::internal::CaptureStderr();
    EXPECT_EQ(XPy_CreatePy3ModuleDef(&def), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to find field offset for: m_name\n");
}

TEST(Module, IsMadeByTheFamilysFunction) {
    long module[16] = {};
    {
        tStandIn stand_in;
        stand_in.set_version(3, 11);
        EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
        stand_in.push("PyModule_Create2", module);
        EXPECT_EQ(XPy_InitModule("m", nullptr), reinterpret_cast<void*>(module));
        XPyModuleDef def = {};
        stand_in.push("PyModuleDef_Init", module);
        EXPECT_EQ(XPyModuleDef_Init(&def), reinterpret_cast<void*>(module));
    }
    tStandIn stand_in(absent_in_python_2());
    stand_in.set_version(2, 7);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    stand_in.push("Py_InitModule4", module);
    EXPECT_EQ(XPy_InitModule("m", nullptr), reinterpret_cast<void*>(module));
}

TEST(Module, IsNotMadeWhenStartUpFails) {
    tStandIn stand_in;
    stand_in.set_version(3, 11);
    XPy_InitializeDllPtrInGlobalData(stand_in.dll_ptr());
    gFailOnImport = 1;
    XPyModuleDef def = {};
    EXPECT_EQ(XPy_InitModule("m", nullptr), nullptr);
    EXPECT_EQ(XPyModuleDef_Init(&def), nullptr);
    EXPECT_EQ(stand_in.calls("PyModule_Create2"), 0);
}

TEST(Module, MultiPhaseNeedsTheInterpretersFunction) {
    tStandIn stand_in(absent_in_python_3() + tNames{"PyModuleDef_Init"});
    stand_in.set_version(3, 4);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    XPyModuleDef def = {};
    EXPECT_EQ(XPyModuleDef_Init(&def), nullptr);
    EXPECT_EQ(stand_in.calls("PyErr_SetString"), 1);
}

// Fork.

TEST(Fork, ChildKnowsItsOwnProcessId) {
    tStandIn stand_in;
    stand_in.set_version(3, 11);
    EXPECT_EQ(start_and_read_stderr(&stand_in, 0), "");
    EXPECT_EQ(gPy.cached_pid, getpid());
    const pid_t child = fork();
    if (child == 0) {
        _exit(gPy.cached_pid == getpid() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace
