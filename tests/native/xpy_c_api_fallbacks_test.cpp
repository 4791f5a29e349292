// xpy_c_api_fallbacks_test.cpp -- the stand-ins for missing functions and the eval-frame accessors,
// on records laid out by hand.
#include "xpy_c_api_fallbacks.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/stand_in.h"
#include "xpy_c_api_evalframe.h"

namespace {

struct tCounted {
    Py_ssize_t refcnt;
    void* type;
    PyObject* obj() { return reinterpret_cast<PyObject*>(this); }
};

struct tRecord {  // a frame or thread state
    tCounted head;
    PyObject* object;
    Py_tracefunc func;
    int number;
};

constexpr Py_ssize_t kObjectField = offsetof(tRecord, object);
constexpr Py_ssize_t kFuncField = offsetof(tRecord, func);
constexpr Py_ssize_t kNumberField = offsetof(tRecord, number);

std::string gRaised;
std::vector<PyObject*> gTraced;
tRecord gState = {};
tCounted gNone = {};

// A record in which reference counts are written directly and no offset is known.
class Backup : public testing::Test {
protected:
    void SetUp() override {
        global_XPy_C_API_Data = {};
        memset(&gPy.tstate_offsets, 0xff, sizeof(gPy.tstate_offsets));
        memset(&gPy.frame_offsets, 0xff, sizeof(gPy.frame_offsets));
        memset(&gPy.typeobject_offsets, 0xff, sizeof(gPy.typeobject_offsets));
        gPy.interpreter_state_offsets.eval_frame = -1;
        gPy.max_align = -1;
        gPy.pyobject_offsets.type = offsetof(tCounted, type);
        gPy.can_update_refcount_directly = 1;
        gPy.major_version = 3;
        gPy.minor_version = 8;
        gPy.PyErr_SetString = [](PyObject*, const char* text) { gRaised = text; };
        gPy.PyErr_Occurred = []() -> PyObject* { return gRaised.empty() ? nullptr : gNone.obj(); };
        gPy.PyThreadState_Get = [] { return reinterpret_cast<PyThreadState*>(&gState); };
        gPy.PyEval_SetTrace = [](Py_tracefunc, PyObject* obj) { gTraced.push_back(obj); };
        gPy.Py_None = gNone.obj();
        gNone.refcnt = 100;
        gRaised.clear();
        gTraced.clear();
        gState = {};
    }
    void TearDown() override { global_XPy_C_API_Data = {}; }
    // 3.10 applies the trace function again where the counter leaves 0 or comes back to it.
    void trace_as_on_310() {
        gPy.minor_version = 10;
        gPy.tstate_offsets.tracing = kNumberField;
        gPy.tstate_offsets.c_traceobj = kObjectField;
        gPy.tstate_offsets.c_tracefunc = kFuncField;
    }
};

PyFrameObject* as_frame(tRecord* record) {
    return reinterpret_cast<PyFrameObject*>(record);
}

PyThreadState* as_tstate(tRecord* record) {
    return reinterpret_cast<PyThreadState*>(record);
}

TEST_F(Backup, FrameGetBackReadsTheField) {
    tCounted back = {5, nullptr};
    tRecord frame = {{1, nullptr}, back.obj(), nullptr, 0};
    gPy.frame_offsets.back = kObjectField;
    EXPECT_EQ(Backup_PyFrame_GetBack(as_frame(&frame)), back.obj());
    EXPECT_EQ(back.refcnt, 6);
    frame.object = nullptr;
    EXPECT_EQ(Backup_PyFrame_GetBack(as_frame(&frame)), nullptr);
    EXPECT_EQ(gRaised, "");
}

TEST_F(Backup, FrameGetBackRaisesWithoutTheOffset) {
    tRecord frame = {};
    EXPECT_EQ(Backup_PyFrame_GetBack(as_frame(&frame)), nullptr);
    EXPECT_EQ(gRaised, "PyFrame_GetBack not available and frame_offsets.back not set");
}

TEST_F(Backup, FrameFieldsAreNewReferences) {
    tCounted held = {5, nullptr};
    tRecord frame = {{1, nullptr}, held.obj(), nullptr, 0};
    EXPECT_EQ(Backup_PyFrame_GetCode(as_frame(&frame)), nullptr);
    EXPECT_EQ(Backup_PyFrame_GetLocals(as_frame(&frame)), nullptr);
    EXPECT_EQ(Backup_PyFrame_GetGlobals(as_frame(&frame)), nullptr);
    EXPECT_EQ(Backup_PyFrame_GetBuiltins(as_frame(&frame)), nullptr);
    EXPECT_EQ(held.refcnt, 5);
    gPy.frame_offsets.code = kObjectField;
    gPy.frame_offsets.locals = kObjectField;
    gPy.frame_offsets.globals = kObjectField;
    gPy.frame_offsets.builtins = kObjectField;
    EXPECT_EQ(Backup_PyFrame_GetCode(as_frame(&frame)), held.obj());
    EXPECT_EQ(Backup_PyFrame_GetLocals(as_frame(&frame)), held.obj());
    EXPECT_EQ(Backup_PyFrame_GetGlobals(as_frame(&frame)), held.obj());
    EXPECT_EQ(Backup_PyFrame_GetBuiltins(as_frame(&frame)), held.obj());
    EXPECT_EQ(held.refcnt, 9);
}

TEST_F(Backup, LineNumberKeepsTheProgramsError) {
    static tCounted number = {5, nullptr};
    static PyObject* lineno = nullptr;
    static std::string pending;
    gPy.PyErr_Fetch = [](PyObject** type, PyObject** value, PyObject** traceback) {
        *type = gRaised.empty() ? nullptr : gNone.obj();
        *value = *traceback = nullptr;
        pending = gRaised;
        gRaised.clear();
    };
    gPy.PyErr_Restore = [](PyObject*, PyObject*, PyObject*) { gRaised = pending; };
    gPy.PyErr_Clear = [] { gRaised.clear(); };
    gPy.PyObject_GetAttrString = [](PyObject*, const char*) {
        gRaised += lineno == nullptr ? "no attribute" : "";
        return lineno;
    };
    gPy.PyInt_AsSsize_t = [](PyObject*) { return Py_ssize_t{12}; };
    tRecord frame = {};
    gRaised = "of the program";
    EXPECT_EQ(Backup_PyFrame_GetLineNumber(as_frame(&frame)), -1);
    EXPECT_EQ(gRaised, "of the program");
    lineno = number.obj();
    EXPECT_EQ(Backup_PyFrame_GetLineNumber(as_frame(&frame)), 12);
    EXPECT_EQ(gRaised, "of the program");
}

TEST_F(Backup, EmptyFrameFieldsGiveNoneButNotForCode) {
    tRecord frame = {};
    gPy.frame_offsets.code = kObjectField;
    gPy.frame_offsets.locals = kObjectField;
    gPy.frame_offsets.globals = kObjectField;
    gPy.frame_offsets.builtins = kObjectField;
    EXPECT_EQ(Backup_PyFrame_GetCode(as_frame(&frame)), nullptr);
    EXPECT_EQ(Backup_PyFrame_GetLocals(as_frame(&frame)), gNone.obj());
    EXPECT_EQ(Backup_PyFrame_GetGlobals(as_frame(&frame)), gNone.obj());
    EXPECT_EQ(Backup_PyFrame_GetBuiltins(as_frame(&frame)), gNone.obj());
    EXPECT_EQ(gNone.refcnt, 103);
    EXPECT_EQ(Backup_PyFrame_GetGenerator(as_frame(&frame)), nullptr);
}

TEST_F(Backup, ThreadStateFieldsAreRead) {
    tCounted held = {5, nullptr};
    tRecord state = {{1, nullptr}, held.obj(), nullptr, 0};
    EXPECT_EQ(Backup_PyThreadState_GetFrame(as_tstate(&state)), nullptr);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Backup_PyThreadState_GetInterpreter(as_tstate(&state)), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Backup_PyThreadState_GetInterpreter called\n");
    gPy.tstate_offsets.frame = kObjectField;
    gPy.tstate_offsets.interp = kObjectField;
    EXPECT_EQ(Backup_PyThreadState_GetFrame(as_tstate(&state)), held.obj());
    EXPECT_EQ(held.refcnt, 6);
    EXPECT_EQ(static_cast<void*>(Backup_PyThreadState_GetInterpreter(as_tstate(&state))), &held);
    EXPECT_EQ(held.refcnt, 6);  // not an object
}

TEST_F(Backup, TracingCounterGoesUpAndDown) {
    gPy.tstate_offsets.tracing = kNumberField;
    Backup_PyThreadState_EnterTracing(as_tstate(&gState));
    Backup_PyThreadState_EnterTracing(as_tstate(&gState));
    EXPECT_EQ(gState.number, 2);
    Backup_PyThreadState_LeaveTracing(as_tstate(&gState));
    Backup_PyThreadState_LeaveTracing(as_tstate(&gState));
    EXPECT_EQ(gState.number, 0);
    EXPECT_TRUE(gTraced.empty());
}

TEST_F(Backup, TracingCounterIsLeftAloneWhereItMayNotBeTouched) {
    Backup_PyThreadState_EnterTracing(as_tstate(&gState));  // offset not known
    EXPECT_EQ(gState.number, 0);
    gPy.tstate_offsets.tracing = kNumberField;
    gPy.minor_version = 11;
    Backup_PyThreadState_EnterTracing(as_tstate(&gState));
    Backup_PyThreadState_LeaveTracing(as_tstate(&gState));
    EXPECT_EQ(gState.number, 0);
}

TEST_F(Backup, TraceFunctionIsAppliedAgainOn310) {
    trace_as_on_310();
    tCounted trace_obj = {5, nullptr};
    gState.object = trace_obj.obj();
    Backup_PyThreadState_EnterTracing(as_tstate(&gState));  // from 0
    EXPECT_EQ(gTraced, std::vector<PyObject*>({trace_obj.obj()}));
    Backup_PyThreadState_EnterTracing(as_tstate(&gState));  // from 1
    Backup_PyThreadState_LeaveTracing(as_tstate(&gState));  // from 2
    Backup_PyThreadState_LeaveTracing(as_tstate(&gState));  // from 1
    EXPECT_EQ(gTraced.size(), 1u);
    Backup_PyThreadState_LeaveTracing(as_tstate(&gState));  // from 0
    EXPECT_EQ(gTraced.size(), 2u);
    Backup_PyThreadState_EnterTracing(as_tstate(&gState));  // from -1
    EXPECT_EQ(gTraced.size(), 3u);
    EXPECT_EQ(gState.number, 0);
    EXPECT_EQ(trace_obj.refcnt, 5);
}

TEST_F(Backup, TraceFunctionOfAnotherThreadIsNotApplied) {
    trace_as_on_310();
    tRecord other = {};
    Backup_PyThreadState_EnterTracing(as_tstate(&other));
    EXPECT_EQ(other.number, 1);
    EXPECT_TRUE(gTraced.empty());
}

TEST_F(Backup, SettingTheCurrentThreadStateInitialisesItBefore311) {
    static std::vector<PyThreadState*> initialised;
    initialised.clear();
    gPy._PyThreadState_Init = [](PyThreadState* tstate) { initialised.push_back(tstate); };
    PyThreadState* const tstate = reinterpret_cast<PyThreadState*>(&gState);
    gPy.minor_version = 10;
    Backup_PyThreadState_SetCurrent(tstate);
    EXPECT_EQ(initialised, std::vector<PyThreadState*>{tstate});
    gPy.minor_version = 11;
    Backup_PyThreadState_SetCurrent(tstate);
    EXPECT_EQ(initialised.size(), 1u);
}

TEST_F(Backup, TypeDataFollowsTheBaseInstance) {
    struct tType {
        Py_ssize_t basicsize;
        tType* base;
    };
    tType base = {50, nullptr};
    tType type = {200, &base};
    char obj[256] = {};
    PyObject* const as_object = reinterpret_cast<PyObject*>(obj);
    PyTypeObject* const as_type = reinterpret_cast<PyTypeObject*>(&type);
    EXPECT_EQ(Backup_PyObject_GetTypeData(as_object, as_type), nullptr);
    gPy.typeobject_offsets.tp_basicsize = offsetof(tType, basicsize);
    gPy.typeobject_offsets.tp_base = offsetof(tType, base);
    gPy.max_align = 16;
    EXPECT_EQ(Backup_PyObject_GetTypeData(as_object, as_type), obj + 64);
    gPy.max_align = 12;  // 61 & -12: the formula is kept though 12 is no power of two
    EXPECT_EQ(Backup_PyObject_GetTypeData(as_object, as_type), obj + 52);
}

TEST_F(Backup, IteratorTellsItemEndAndError) {
    static PyObject* next = nullptr;
    gPy.PyIter_Next = [](PyObject*) { return next; };
    tCounted value = {1, nullptr};
    PyObject* item = nullptr;
    next = value.obj();
    EXPECT_EQ(Backup_PyIter_NextItem(nullptr, &item), 1);
    EXPECT_EQ(item, value.obj());
    next = nullptr;
    EXPECT_EQ(Backup_PyIter_NextItem(nullptr, &item), 0);
    EXPECT_EQ(item, nullptr);
    gRaised = "error";
    EXPECT_EQ(Backup_PyIter_NextItem(nullptr, &item), -1);
}

PyObject* gFound = nullptr;
int gDeleted = 0;
int gDeleteResult = 0;

void set_up_dict() {
    gPy.PyDict_GetItemWithError = [](PyObject*, PyObject*) { return gFound; };
    gPy.PyDict_DelItem = [](PyObject*, PyObject*) {
        gDeleted++;
        return gDeleteResult;
    };
    gFound = nullptr;
    gDeleted = 0;
    gDeleteResult = 0;
}

TEST_F(Backup, DictGetItemRefTellsPresentAbsentAndError) {
    set_up_dict();
    tCounted value = {5, nullptr};
    PyObject* result = gNone.obj();
    EXPECT_EQ(Backup_PyDict_GetItemRef(nullptr, nullptr, &result), 0);
    EXPECT_EQ(result, nullptr);
    gFound = value.obj();
    EXPECT_EQ(Backup_PyDict_GetItemRef(nullptr, nullptr, &result), 1);
    EXPECT_EQ(result, value.obj());
    EXPECT_EQ(value.refcnt, 6);
    gFound = nullptr;
    gRaised = "error";
    EXPECT_EQ(Backup_PyDict_GetItemRef(nullptr, nullptr, &result), -1);
    EXPECT_EQ(result, nullptr);
}

TEST_F(Backup, DictPopRemovesAndGivesTheValue) {
    set_up_dict();
    tCounted value = {5, nullptr};
    PyObject* result = gNone.obj();
    EXPECT_EQ(Backup_PyDict_Pop(nullptr, nullptr, &result), 0);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(gDeleted, 0);
    gFound = value.obj();
    EXPECT_EQ(Backup_PyDict_Pop(nullptr, nullptr, &result), 1);
    EXPECT_EQ(result, value.obj());
    EXPECT_EQ(value.refcnt, 6);
    EXPECT_EQ(Backup_PyDict_Pop(nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(value.refcnt, 6);
    EXPECT_EQ(gDeleted, 2);
}

TEST_F(Backup, DictPopReportsFailures) {
    set_up_dict();
    tCounted value = {5, nullptr};
    PyObject* result = gNone.obj();
    gFound = value.obj();
    gDeleteResult = -1;
    EXPECT_EQ(Backup_PyDict_Pop(nullptr, nullptr, &result), -1);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(value.refcnt, 5);
    gFound = nullptr;
    gRaised = "unhashable";
    EXPECT_EQ(Backup_PyDict_Pop(nullptr, nullptr, &result), -1);
}

TEST_F(Backup, DictLookUpTellsMissingFromFailed) {
    static int contains = 0;
    static int asked = 0;
    tCounted value = {5, nullptr};
    gFound = value.obj();
    gPy.PyDict_Contains = [](PyObject*, PyObject*) { return contains; };
    gPy.PyDict_GetItem = [](PyObject*, PyObject*) {
        asked++;
        return gFound;
    };
    EXPECT_EQ(Backup_PyDict_GetItemWithError(nullptr, nullptr), nullptr);
    contains = -1;
    EXPECT_EQ(Backup_PyDict_GetItemWithError(nullptr, nullptr), nullptr);
    EXPECT_EQ(asked, 0);  // which would drop the error
    contains = 1;
    EXPECT_EQ(Backup_PyDict_GetItemWithError(nullptr, nullptr), value.obj());
    EXPECT_EQ(value.refcnt, 5);
}

TEST_F(Backup, FinalizingIsNeverSaid) {
    EXPECT_EQ(Backup__Py_IsFinalizing(), 0);
}

TEST_F(Backup, TextOfSomethingElseIsABadCall) {
    static int bad_calls = 0;
    gPy._PyErr_BadInternalCall = [](const char*, int) { bad_calls++; };
    tCounted type = {};
    tCounted other_type = {};
    tCounted value = {5, &type};
    gPy.PyUnicode_Type_ptr = reinterpret_cast<PyTypeObject*>(&other_type);
    gPy.PyType_IsSubtype = [](PyTypeObject*, PyTypeObject*) { return 0; };
    EXPECT_EQ(Backup_PyUnicode_AsString(value.obj()), nullptr);
    EXPECT_EQ(bad_calls, 1);
}

// Reports: text, whether it is raised too, result.

template <class Call>
void expect_report(const char* text, bool raised, Call call) {
    gRaised.clear();
    testing::internal::CaptureStderr();
    call();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), text);
    EXPECT_EQ(gRaised, raised ? text : "") << text;
}

TEST_F(Backup, MissingFacilitiesAreReportedAndRaised) {
    expect_report("PyUnicode_AsUTF8AndSize not available", true, [] {
        EXPECT_EQ(Backup_PyUnicode_AsUTF8AndSize(nullptr, nullptr), nullptr);
    });
    expect_report("PyType_GetSlot not available", true, [] {
        EXPECT_EQ(Backup_PyType_GetSlot(nullptr, 0), nullptr);
    });
    expect_report("PyThread_tss_get not available", true, [] {
        EXPECT_EQ(Backup_PyThread_tss_get(nullptr), nullptr);
    });
    expect_report("PyThread_tss_set not available", true, [] {
        EXPECT_EQ(Backup_PyThread_tss_set(nullptr, nullptr), -1);
    });
    expect_report("PyThread_tss_create not available", true, [] {
        EXPECT_EQ(Backup_PyThread_tss_create(nullptr), -1);
    });
    expect_report("PyThread_tss_alloc not available", true, [] {
        EXPECT_EQ(Backup_PyThread_tss_alloc(), nullptr);
    });
    expect_report("PyObject_CallFunctionObjArgs not available", true, [] {
        EXPECT_EQ(Backup_PyObject_CallFunctionObjArgs(nullptr), nullptr);
    });
    expect_report("_PyEval_RequestCodeExtraIndex not available", true, [] {
        EXPECT_EQ(Backup_PyUnstable_Eval_RequestCodeExtraIndex(nullptr), -1);
    });
    expect_report("_PyCode_SetExtra not available", true, [] {
        EXPECT_EQ(Backup_PyUnstable_Code_SetExtra(nullptr, 0, nullptr), -1);
    });
    expect_report("_PyCode_GetExtra not available", true, [] {
        EXPECT_EQ(Backup_PyUnstable_Code_GetExtra(nullptr, 0, nullptr), -1);
    });
    expect_report("PyCapsule not available", true, [] {
        EXPECT_EQ(Backup_PyCapsule_SetDestructor(nullptr, nullptr), -1);
    });
    expect_report("PyCapsule not available", true, [] {
        EXPECT_EQ(Backup_PyCapsule_New(nullptr, nullptr, nullptr), nullptr);
    });
    expect_report("PyCapsule not available", true, [] {
        EXPECT_EQ(Backup_PyCapsule_GetPointer(nullptr, nullptr), nullptr);
    });
    expect_report("PyCMethod_New not available", true, [] {
        EXPECT_EQ(Backup_PyCMethod_New(nullptr, nullptr, nullptr, nullptr), nullptr);
    });
}

TEST_F(Backup, MissingFacilitiesAreReported) {
    expect_report("PyType_GetModuleState() not available before 3.9", false, [] {
        EXPECT_EQ(Backup_PyType_GetModuleState(nullptr), nullptr);
    });
    expect_report("PyType_GetModule() not available before 3.9", false, [] {
        EXPECT_EQ(Backup_PyType_GetModuleByType(nullptr, nullptr), nullptr);
    });
    expect_report("PyType_GetModule() not available before 3.9", false, [] {
        EXPECT_EQ(Backup_PyType_GetModule(nullptr), nullptr);
    });
    expect_report("PyType_FromModuleAndSpec() not available before 3.9", false, [] {
        EXPECT_EQ(Backup_PyType_FromModuleAndSpec(nullptr, nullptr, nullptr), nullptr);
    });
    expect_report("PyType_FromMetaclass() not available before 3.12", false, [] {
        EXPECT_EQ(Backup_PyType_FromMetaclass(nullptr, nullptr, nullptr, nullptr), nullptr);
    });
    expect_report("Backup_PyThread_acquire_lock_timed() called\n", false, [] {
        EXPECT_EQ(Backup_PyThread_acquire_lock_timed(nullptr, 0, 0), 0);
    });
    expect_report(
        "PyThread_tss_delete not available", false, [] { Backup_PyThread_tss_delete(nullptr); });
    expect_report(
        "PyThread_tss_free not available", false, [] { Backup_PyThread_tss_free(nullptr); });
    expect_report("Backup_PyThreadState_GetDict called\n", false, [] {
        EXPECT_EQ(Backup_PyThreadState_GetDict(), nullptr);
    });
    expect_report("Backup_PyObject_VectorcallDict called\n", false, [] {
        EXPECT_EQ(Backup_PyObject_VectorcallDict(nullptr, nullptr, 0, nullptr), nullptr);
    });
    expect_report("PyModule_GetState() not available before 3.9", false, [] {
        EXPECT_EQ(Backup_PyModule_GetState(nullptr), nullptr);
    });
    expect_report("Backup__PyEval_SetTrace() called\n", false, [] {
        EXPECT_EQ(Backup__PyEval_SetTrace(nullptr, nullptr, nullptr), -1);
    });
    expect_report("Backup_PyEval_SetTraceAllThreads called\n", false, [] {
        Backup_PyEval_SetTraceAllThreads(nullptr, nullptr);
    });
    expect_report("PyErr_SetRaisedException not available", false, [] {
        Backup_PyErr_SetRaisedException(nullptr);
    });
    expect_report("PyErr_GetRaisedException not available", false, [] {
        EXPECT_EQ(Backup_PyErr_GetRaisedException(), nullptr);
    });
    expect_report("PyErr_SetHandledException not available", false, [] {
        Backup_PyErr_SetHandledException(nullptr);
    });
    expect_report("PyErr_GetHandledException not available", false, [] {
        EXPECT_EQ(Backup_PyErr_GetHandledException(), nullptr);
    });
}

// Eval-frame accessors.

PyObject* evaluate_old(PyFrameObject*, int) {
    return nullptr;
}
PyObject* evaluate_with_tstate(PyThreadState*, PyFrameObject*, int) {
    return nullptr;
}
PyObject* evaluate_interpreter_frame(PyThreadState*, PyInterpreterFrame*, int) {
    return nullptr;
}

void* gEvalFrame = nullptr;

class EvalFrame : public Backup {
protected:
    void SetUp() override {
        Backup::SetUp();
        gPy.tstate_offsets.interp = kObjectField;
        gState.object = reinterpret_cast<PyObject*>(&interp_);
        gPy._PyInterpreterState_GetEvalFrameFunc = [](PyInterpreterState*) { return gEvalFrame; };
        gPy._PyInterpreterState_SetEvalFrameFunc = [](PyInterpreterState*, void* func) {
            gEvalFrame = func;
        };
        gEvalFrame = nullptr;
    }

    void* interp_[4] = {};
};

TEST_F(EvalFrame, FieldIsReadAndWrittenWhereItsOffsetIsKnown) {
    EXPECT_EQ(XPy_SetEvalFrameFunctionNoThreadState(evaluate_old), -1);
    EXPECT_EQ(XPy_GetEvalFrameFunctionNoThreadState(), nullptr);
    gPy.interpreter_state_offsets.eval_frame = 2 * sizeof(void*);
    EXPECT_EQ(XPy_SetEvalFrameFunctionNoThreadState(evaluate_old), 0);
    EXPECT_EQ(interp_[2], reinterpret_cast<void*>(evaluate_old));
    EXPECT_EQ(XPy_GetEvalFrameFunctionNoThreadState(), evaluate_old);
}

TEST_F(EvalFrame, EachGenerationWorksOnItsVersionsOnly) {
    for (int minor = 6; minor <= 14; minor++) {
        gPy.minor_version = minor;
        const bool with_tstate = minor == 9 || minor == 10;
        const bool interpreter_frame = minor == 11;
        EXPECT_EQ(XPy_SetEvalFrameFunctionWithThreadState(evaluate_with_tstate),
                  with_tstate ? 0 : -1);
        EXPECT_EQ(XPy_GetEvalFrameFunctionWithThreadState(),
                  with_tstate ? evaluate_with_tstate : nullptr);
        EXPECT_EQ(XPy_SetEvalFrameFunctionPyInterpreterFrame(evaluate_interpreter_frame),
                  interpreter_frame ? 0 : -1);
        EXPECT_EQ(XPy_GetEvalFrameFunctionPyInterpreterFrame(),
                  interpreter_frame ? evaluate_interpreter_frame : nullptr);
    }
}

TEST_F(EvalFrame, AllSettersFailOn312) {
    gPy.minor_version = 12;
    EXPECT_EQ(XPy_SetEvalFrameFunctionNoThreadState(evaluate_old), -1);
    EXPECT_EQ(XPy_SetEvalFrameFunctionWithThreadState(evaluate_with_tstate), -1);
    EXPECT_EQ(XPy_SetEvalFrameFunctionPyInterpreterFrame(evaluate_interpreter_frame), -1);
}

TEST_F(EvalFrame, MissingFunctionsOrInterpreterFail) {
    gPy.minor_version = 9;
    gState.object = nullptr;
    EXPECT_EQ(XPy_SetEvalFrameFunctionWithThreadState(evaluate_with_tstate), -1);
    EXPECT_EQ(XPy_GetEvalFrameFunctionWithThreadState(), nullptr);
    gPy.PyThreadState_Get = []() -> PyThreadState* { return nullptr; };
    EXPECT_EQ(XPy_GetEvalFrameFunctionWithThreadState(), nullptr);
    gPy._PyInterpreterState_GetEvalFrameFunc = nullptr;
    gPy._PyInterpreterState_SetEvalFrameFunc = nullptr;
    EXPECT_EQ(XPy_GetEvalFrameFunctionWithThreadState(), nullptr);
    EXPECT_EQ(XPy_SetEvalFrameFunctionWithThreadState(evaluate_with_tstate), -1);
}

}  // namespace
