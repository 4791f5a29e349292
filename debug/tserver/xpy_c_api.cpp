// Start-up: which interpreter has loaded us, and the record that tells everybody else.
#include "xpy_c_api.h"

#include <stdio.h>
#include <unistd.h>

#include "libc_compat.h"
#include "xpy_c_api_evalframe.h"
#include "xpy_c_api_fallbacks.h"
#include "xpy_c_api_internal.h"
#include "xpy_c_api_layouts.h"

constinit XPy_C_API_Data global_XPy_C_API_Data = {};
constinit int gFailOnImport = 0;

// Step: the module-creation function, which tells the API family and the build.

struct tInitFunction {
    const char* name;
    int family;
    int pydebug_build;
};

// 64-bit Python 2 has names of its own, so that modules built with an int-sized Py_ssize_t fail to
// load.
static constexpr tInitFunction kInitFunctions[] = {
    {"Py_InitModule4", 2, 0},
    {"Py_InitModule4_64", 2, 0},
    {"Py_InitModule4TraceRefs", 2, 1},
    {"Py_InitModule4TraceRefs_64", 2, 1},
    {"PyModule_Create2", 3, 0},
    {"PyModule_Create2TraceRefs", 3, 1},
};

int IsFreeThreadingBuild(void* dll_ptr) {
    void* const c_func_ptr = GetPtrNullOk(dll_ptr, "_Py_GetThreadLocal_Addr");
    trace_start_up("IsFreeThreadingBuild(): c_func_ptr = %p\n", c_func_ptr);
    return c_func_ptr != nullptr;
}

void* FindInitFunction(void* dll_ptr, int* major_version, int* free_t_build, int* pydebug_build) {
    *major_version = 0;
    *free_t_build = 0;
    *pydebug_build = 0;
    for (const tInitFunction& row : kInitFunctions) {
        void* const init_function = GetPtrNullOk(dll_ptr, row.name);
        if (init_function == nullptr) {
            continue;
        }
        *major_version = row.family;
        *pydebug_build = row.pydebug_build;
        *free_t_build = row.family >= 3 ? IsFreeThreadingBuild(dll_ptr) : 0;
        trace_start_up(
            "FindInitFunction() succeeded major_version = %i, free_t_build = %i, pydebug_build = "
            "%i\n",
            *major_version,
            *free_t_build,
            *pydebug_build);
        return init_function;
    }
    return nullptr;
}

struct tBuild {
    int family;  // 2 or 3; later the stored version decides
    int free_t_build;
};

static bool find_build(tBuild* build) {
    void* const init_function =
        FindInitFunction(gPy.dll_ptr, &build->family, &build->free_t_build, &gPy.pydebug_build);
    gPy.can_update_refcount_directly = 0;
    gPy.refcnt_is_32bit = 0;
    if (init_function == nullptr) {
        gPy.failed_to_initialize = 1;
        fputs("Failed to find module init function\n", stderr);
        return false;
    }
    if (build->family < 3) {
        gPy.Py_InitModule = reinterpret_cast<decltype(gPy.Py_InitModule)>(init_function);
    } else {
        gPy.PyModule_Create2 = reinterpret_cast<decltype(gPy.PyModule_Create2)>(init_function);
    }
    return true;
}

// Step: what the detection of the version needs.

template <class Fn>
static bool resolve_needed(Fn** slot, const char* name) {
    *slot = reinterpret_cast<Fn*>(GetPtr(gPy.dll_ptr, name));
    return *slot != nullptr;
}

static void bind_mutex_functions() {
    resolve(&gPy._PyMutex_LockSlow, "_PyMutex_LockSlow");
    resolve(&gPy._PyMutex_UnlockSlow, "_PyMutex_UnlockSlow");
    resolve(&gPy.PyMutex_Lock, "PyMutex_Lock");
    resolve(&gPy.PyMutex_Unlock, "PyMutex_Unlock");
}

static bool bind_version_functions(int family) {
    if (!resolve_needed(&gPy.Py_DecRef, "Py_DecRef") ||
        !resolve_needed(&gPy.PyErr_Occurred, "PyErr_Occurred")) {
        return false;
    }
    if (family < 3 && !resolve_needed(&gPy.PyInt_AsSsize_t, "PyInt_AsSsize_t")) {
        return false;
    }
    if (!resolve(&gPy.PyLong_AsSsize_t, "PyLong_AsSsize_t")) {
        gPy.PyLong_AsSsize_t = Backup_PyLong_AsSsize_t;
    }
    if (!resolve(&gPy.PyLong_FromSsize_t, "PyLong_FromSsize_t")) {
        gPy.PyLong_FromSsize_t = Backup_PyLong_FromSsize_t;
    }
    return resolve_needed(&gPy.PyObject_GetItem, "PyObject_GetItem") &&
           resolve_needed(&gPy.PySys_GetObject, "PySys_GetObject");
}

// Step: version.

static Py_ssize_t convert_to_number(PyObject* number) {
    return gPy.PyInt_AsSsize_t != nullptr ? gPy.PyInt_AsSsize_t(number)
                                          : gPy.PyLong_AsSsize_t(number);
}

static int read_item(PyObject* val, PyObject* index) {
    PyObject* const item = gPy.PyObject_GetItem(val, index);
    if (item == nullptr) {
        return -1;
    }
    const Py_ssize_t number = convert_to_number(item);
    gPy.Py_DecRef(item);
    return gPy.PyErr_Occurred() != nullptr ? -1 : static_cast<int>(number);
}

int GetItemAsInt(PyObject* val, int i) {
    PyObject* const index = val != nullptr ? gPy.PyLong_FromSsize_t(i) : nullptr;
    if (index == nullptr) {
        return -1;
    }
    const int number = read_item(val, index);
    gPy.Py_DecRef(index);
    return number;
}

static bool read_version_item(PyObject* version_info, int i, int* number) {
    *number = GetItemAsInt(version_info, i);
    return gPy.PyErr_Occurred() == nullptr;
}

static bool read_version() {
    PyObject* const version_info = gPy.PySys_GetObject("version_info");  // borrowed
    if (version_info == nullptr || !read_version_item(version_info, 0, &gPy.major_version) ||
        !read_version_item(version_info, 1, &gPy.minor_version) ||
        !read_version_item(version_info, 2, &gPy.micro_version)) {
        return false;
    }
    PyObject* const api_version = gPy.PySys_GetObject("api_version");  // borrowed
    if (api_version == nullptr) {
        return false;
    }
    gPy.api_version = static_cast<int>(convert_to_number(api_version));
    return gPy.PyErr_Occurred() == nullptr;
}

// Not the end of start-up: it goes on with the numbers that were stored.
static void report_unknown_version() {
    fputs("Unable to get version numbers\n", stderr);
    const bool can_print = gPy.PyErr_Print != nullptr || resolve(&gPy.PyErr_Print, "PyErr_Print");
    if (can_print && gPy.PyErr_Occurred() != nullptr) {
        gPy.PyErr_Print();
    }
}

// Step: Python 2's byte strings are its native strings.
static void alias_bytes_on_python_2() {
    gPy.PyBytes_AsString = gPy.PyString_AsString;
    gPy.PyBytes_FromString = gPy.PyString_FromString;
    gPy.PyBytes_Size = gPy.PyString_Size;
    gPy.PyBytes_Type_ptr = gPy.PyString_Type_ptr;
}

static bool bind_interpreter() {
    tBuild build = {};
    if (!find_build(&build)) {
        return false;
    }
    bind_mutex_functions();
    if (!bind_version_functions(build.family)) {
        return false;
    }
    if (!read_version()) {
        report_unknown_version();
    }
    discover_header_layout(build.free_t_build);
    discover_type_layout();
    if (!bind_slots(build.family) || !bind_globals(build.family)) {
        return false;
    }
    if (build.family < 3) {
        alias_bytes_on_python_2();
    }
    return true;
}

// Step: a forked child has another process id.
static void register_fork_hook() {
    static constinit bool registered = false;
    if (!registered) {
        registered = libc_atfork_in_child(XPy_OnForkInChild) == 0;
    }
}

// The total of all references that Py_DEBUG builds keep: a variable up to 3.11, then one of each
// interpreter, behind functions.
static constinit Py_ssize_t* total_variable = nullptr;
using tChangeTotal = void (*)();
static constinit tChangeTotal add_to_total = nullptr;
static constinit tChangeTotal take_from_total = nullptr;

static void tell_total_by_variable(int change) {
    *total_variable += change;
}

static void tell_total_by_function(int change) {
    (change > 0 ? add_to_total : take_from_total)();
}

// False = there is a total, and no way to keep it right.
static bool find_reference_total() {
    gTellReferenceTotal = nullptr;
    if (XPy_LookupPythonFunction("_Py_NegativeRefcount") == nullptr) {
        return true;
    }
    if (resolve(&add_to_total, "_Py_INCREF_IncRefTotal") &&
        resolve(&take_from_total, "_Py_DECREF_DecRefTotal")) {
        gTellReferenceTotal = tell_total_by_function;
        return true;
    }
    total_variable = static_cast<Py_ssize_t*>(XPy_LookupPythonFunction("_Py_RefTotal"));
    if (total_variable != nullptr) {
        gTellReferenceTotal = tell_total_by_variable;
    }
    return total_variable != nullptr;
}

static bool can_write_refcounts() {
    if (gPy.pydebug_build || gPy.pyobject_offsets.refcnt == -1 || !find_reference_total()) {
        return false;
    }
    // deliberate: 3.12 and 3.13 have immortal objects too, yet only 3.14 takes part again.
    return !version_at_least(3, 12) || version_at_least(3, 14);
}

static void decide_refcounting() {
    gPy.refcnt_is_32bit = gPy.major_version == 3 && gPy.minor_version >= 12;
    gPy.can_update_refcount_directly = can_write_refcounts();
}

void XPy_InitializeDllPtrInGlobalData(void* dll_ptr) {
    gPy.dll_ptr = dll_ptr;
}

int XPy_InitializeWithDllPtr(void* dll_ptr) {
    if (gPy.failed_to_initialize) {
        XPy_TryToRaiseImportError();
        return -1;
    }
    if (gPy.initialized) {
        return 0;
    }
    XPy_InitializeDllPtrInGlobalData(dll_ptr);
    if (!bind_interpreter()) {
        trace_start_up("XPy_InitializeGlobalData() failed\n");
        return -1;
    }
    gPy.failed_to_initialize = 0;
    trace_start_up("XPy_InitializeGlobalData() succeeded\n");
    discover_frame_layout();
    discover_cframe_layout();
    discover_thread_state_layout();
    discover_interpreter_state_layout();
    gPy.cached_pid = getpid();
    register_fork_hook();
    gPy.initialized = 1;
    decide_refcounting();
    probe_live_objects();
    return 0;
}

int XPy_Initialize() {
    if (!gFailOnImport && XPy_InitializeWithDllPtr(nullptr) == 0) {
        return 0;
    }
    XPy_TryToRaiseImportError();
    return -1;
}

static bool make_sure_of_import_error() {
    if (gPy.PyExc_ImportError == nullptr) {
        gPy.PyExc_ImportError =
            static_cast<PyObject*>(GetPtrVariableValueNullOk(gPy.dll_ptr, "PyExc_ImportError"));
    }
    return gPy.PyExc_ImportError != nullptr &&
           (gPy.PyErr_Format != nullptr || resolve(&gPy.PyErr_Format, "PyErr_Format"));
}

void XPy_TryToRaiseImportError() {
    if (!make_sure_of_import_error()) {
        return;
    }
    const bool can_ask =
        gPy.PyErr_Occurred != nullptr || resolve(&gPy.PyErr_Occurred, "PyErr_Occurred");
    if (can_ask && gPy.PyErr_Occurred() != nullptr) {
        return;
    }
    gPy.PyErr_Format(gPy.PyExc_ImportError, "Unable to init XPy");
}

int XPy_DbgSetFailOnImport(int fail_on_import) {
    const int old_value = gFailOnImport;
    gFailOnImport = fail_on_import;
    return old_value;
}

int XPy_GetMajorVersion() {
    return gPy.major_version;
}

int XPy_GetMinorVersion() {
    return gPy.minor_version;
}

PyTypeObject* XPy_BorrowType(PyObject* obj) {
    PyObject* const type = gPy.PyObject_Type(obj);
    if (type != nullptr) {
        gPy.Py_DecRef(type);  // the object keeps its type alive
    }
    return static_cast<PyTypeObject*>(type);
}

static int compare_by_order(PyObject* a, PyObject* b) {
    const int order = gPy.PyObject_Compare(a, b);
    if (order == -1) {
        return gPy.PyErr_Occurred() != nullptr ? -1 : 0;
    }
    return order == 0;
}

int XPy_PyObjectsEqual(PyObject* a, PyObject* b) {
    constexpr int kEqual = 2;  // Py_EQ
    if (gPy.PyObject_RichCompareBool != nullptr) {
        return gPy.PyObject_RichCompareBool(a, b, kEqual);
    }
    return compare_by_order(a, b);
}
