// Filling the record's slots and global objects from the lists in xpy_c_api_slots.inc and
// xpy_c_api_globals.inc. The first mandatory name that is missing ends the work; what was filled
// before keeps its value, and a later start-up does everything again.
#include <string.h>

#include <type_traits>

#include "xpy_c_api_fallbacks.h"
#include "xpy_c_api_internal.h"

enum tSlotRule {
    kNeeded,
    kNeededPy2,
    kNeededPy3,
    kOptional,
    kBackup,
    kStartUp,
    kSpecial,
    kUnicode,
    kUnicodePy3,
    kUnicodePy3Only,
    kUnicodeBackup,
};

// Second spellings. A public name took the place of a private one; private names of an older
// version come last.
struct tOtherName {
    const char* name;
    const char* other;
};

static constexpr tOtherName kOtherNames[] = {
    {"_Py_IsFinalizing", "Py_IsFinalizing"},                                     // 3.13
    {"_PyCode_GetExtra", "PyUnstable_Code_GetExtra"},                            // 3.12
    {"_PyCode_SetExtra", "PyUnstable_Code_SetExtra"},                            // 3.12
    {"_PyEval_RequestCodeExtraIndex", "PyUnstable_Eval_RequestCodeExtraIndex"},  // 3.12
};

static void* find_symbol(const char* name) {
    void* const symbol = GetPtrNullOk(gPy.dll_ptr, name);
    if (symbol != nullptr) {
        return symbol;
    }
    for (const tOtherName& row : kOtherNames) {
        if (strcmp(row.name, name) == 0) {
            return GetPtrNullOk(gPy.dll_ptr, row.other);
        }
    }
    return nullptr;
}

// "PyUnicode_Contains" -> the function, whatever text width its name carries.
static void* find_unicode_function(const char* name, int null_ok) {
    return GetUnicodeFunction(gPy.dll_ptr, name + strlen("PyUnicode"), "", null_ok);
}

static bool is_wanted(tSlotRule rule, int family) {
    switch (rule) {
        case kNeededPy2:
            return family < 3;
        case kNeededPy3:
        case kUnicodePy3Only:
            return family >= 3;
        case kStartUp:
        case kSpecial:
            return false;
        default:
            return true;
    }
}

static void* find_by_rule(tSlotRule rule, int family, const char* name) {
    switch (rule) {
        case kOptional:
        case kBackup:
            return find_symbol(name);
        case kUnicode:
        case kUnicodePy3Only:
            return find_unicode_function(name, 0);
        case kUnicodePy3:
            return find_unicode_function(name, family < 3);
        case kUnicodeBackup:
            return find_unicode_function(name, 1);
        default:
            return GetPtr(gPy.dll_ptr, name);
    }
}

static bool may_be_absent(tSlotRule rule, int family) {
    return rule == kOptional || (rule == kUnicodePy3 && family < 3);
}

// Stores what was found, else the replacement. A replacement with another signature than the slot's
// does not compile.
template <class Fn>
static bool bind_slot(
    tSlotRule rule, int family, const char* name, Fn** slot, std::type_identity_t<Fn>* backup) {
    if (!is_wanted(rule, family)) {
        return true;
    }
    Fn* const found = reinterpret_cast<Fn*>(find_by_rule(rule, family, name));
    *slot = found != nullptr ? found : backup;
    return *slot != nullptr || may_be_absent(rule, family);
}

static bool bind_listed_slots(int family) {
#define XPY_SLOT(rule, result, name, params, backup)            \
    if (!bind_slot(rule, family, #name, &gPy.name, (backup))) { \
        return false;                                           \
    }
#include "xpy_c_api_slots.inc"
#undef XPY_SLOT
    return true;
}

// Mandatory on family 3. Family 2 has it under a private name, from 2.7 on.
static bool bind_dict_look_up(int family) {
    if (family >= 3) {
        gPy.PyDict_GetItemWithError = reinterpret_cast<decltype(gPy.PyDict_GetItemWithError)>(
            GetPtr(gPy.dll_ptr, "PyDict_GetItemWithError"));
        return gPy.PyDict_GetItemWithError != nullptr;
    }
    if (!resolve(&gPy.PyDict_GetItemWithError, "_PyDict_GetItemWithError")) {
        gPy.PyDict_GetItemWithError = Backup_PyDict_GetItemWithError;
    }
    return true;
}

// Mandatory from 3.12 on; below, the name is deliberately not even looked up.
static bool bind_trace_setter_for_all_threads() {
    if (!version_at_least(3, 12)) {
        gPy.PyEval_SetTraceAllThreads = Backup_PyEval_SetTraceAllThreads;
        return true;
    }
    gPy.PyEval_SetTraceAllThreads = reinterpret_cast<decltype(gPy.PyEval_SetTraceAllThreads)>(
        GetPtr(gPy.dll_ptr, "PyEval_SetTraceAllThreads"));
    return gPy.PyEval_SetTraceAllThreads != nullptr;
}

// The UTF-8 text of a string, under its old private or its public name.
static void bind_text_of_string(int family) {
    void* found = GetUnicodeFunction(gPy.dll_ptr, "_AsString", "_", 1);
    if (found == nullptr && family >= 3) {
        found = GetUnicodeFunction(gPy.dll_ptr, "_AsUTF8", "", 0);
    }
    gPy._PyUnicode_AsString = found != nullptr
                                  ? reinterpret_cast<decltype(gPy._PyUnicode_AsString)>(found)
                                  : Backup_PyUnicode_AsString;
}

bool bind_slots(int family) {
    if (!bind_listed_slots(family) || !bind_dict_look_up(family) ||
        !bind_trace_setter_for_all_threads()) {
        return false;
    }
    bind_text_of_string(family);
    return true;
}

static PyObject* find_object(const char* name) {
    return static_cast<PyObject*>(GetPtr(gPy.dll_ptr, name));
}

// A miss is reported, but does not stop start-up.
static void bind_singletons(int family) {
    gPy.Py_None = find_object("_Py_NoneStruct");
    gPy.Py_True = find_object("_Py_TrueStruct");
    gPy.Py_False = find_object(family < 3 ? "_Py_ZeroStruct" : "_Py_FalseStruct");
}

static bool bind_exception(const char* name, PyObject** entry) {
    *entry = static_cast<PyObject*>(GetPtrVariableValue(gPy.dll_ptr, name));
    return *entry != nullptr;
}

static bool bind_type(tSlotRule rule, int family, const char* name, PyTypeObject** entry) {
    if (!is_wanted(rule, family)) {
        return true;
    }
    *entry = static_cast<PyTypeObject*>(find_by_rule(rule, family, name));
    return *entry != nullptr || rule == kOptional;
}

static bool bind_listed_globals(int family) {
#define XPY_EXCEPTION(name)                  \
    if (!bind_exception(#name, &gPy.name)) { \
        return false;                        \
    }
#define XPY_TYPE(rule, name)                                \
    if (!bind_type(rule, family, #name, &gPy.name##_ptr)) { \
        return false;                                       \
    }
#include "xpy_c_api_globals.inc"
#undef XPY_EXCEPTION
#undef XPY_TYPE
    return true;
}

bool bind_globals(int family) {
    // The variable itself is mandatory, its value may still be null (it may be set later).
    const char** const encoding =
        static_cast<const char**>(GetPtr(gPy.dll_ptr, "Py_FileSystemDefaultEncoding"));
    if (encoding == nullptr) {
        return false;
    }
    gPy.Py_FileSystemDefaultEncoding = *encoding;
    bind_singletons(family);
    return bind_listed_globals(family);
}
