// xpy_c_api.h -- the binding to whatever interpreter has loaded this library.
// Nothing is linked against Python: at import the interpreter's functions and objects are found by
// symbol name and its structure layouts are worked out; all of it lands in one process-wide record.
// Every other module calls the interpreter only through gPy and reads interpreter structures only
// through the offsets there; an offset is -1 where the running version has no such field.
// Start-up runs once, with the interpreter lock held, while the module is imported; afterwards the
// record is read-only except cached_pid (refreshed in a forked child).
#pragma once

#include "xpy_types.h"

struct XPyObjectOffsets {
    Py_ssize_t refcnt;
    Py_ssize_t type;
    Py_ssize_t mutex;     // free-threaded builds only
    Py_ssize_t overflow;  // 64-bit 3.14 and later only
    Py_ssize_t flags;     // free-threaded builds and 64-bit 3.14 and later
};

struct XPyThreadStateOffsets {
    Py_ssize_t next;
    Py_ssize_t interp;
    Py_ssize_t frame;  // up to 3.10
    Py_ssize_t c_tracefunc;
    Py_ssize_t c_traceobj;
    Py_ssize_t thread_id;  // unsigned long
    Py_ssize_t tracing;
    Py_ssize_t use_tracing;  // up to 3.9
    Py_ssize_t cframe;       // 3.11, 3.12: pointer to the C frame record; 3.13 on: current_frame
    Py_ssize_t what_event;   // 3.12 on
};

struct XPyFrameOffsets {  // all -1 from 3.11 on
    Py_ssize_t lineno;
    Py_ssize_t code;
    Py_ssize_t builtins;
    Py_ssize_t trace;
    Py_ssize_t iblock;
    Py_ssize_t locals;
    Py_ssize_t globals;
    Py_ssize_t back;
    Py_ssize_t stacktop;  // up to 3.9
    Py_ssize_t state;     // 3.10
};

struct XPyInterpreterStateOffsets {
    Py_ssize_t eval_frame;  // 3.6 - 3.8
};

struct XPyCFrameOffsets {
    Py_ssize_t current_frame;  // 3.10 - 3.12; nothing reads it on 3.10, where it does not exist
};

struct XPyTypeObjectOffsets {  // 3.8 on
    Py_ssize_t tp_basicsize;
    Py_ssize_t tp_vectorcall_offset;
    Py_ssize_t tp_flags;
    Py_ssize_t tp_base;
};

struct XPy_C_API_Data {
    int initialized;           // 1 once start-up has completed
    int failed_to_initialize;  // 1 when no module-creation function was found at all
    int major_version;
    int minor_version;
    int micro_version;
    int api_version;                   // sys.api_version
    int pydebug_build;                 // Py_TRACE_REFS build
    int can_update_refcount_directly;  // counts may be changed in the object header
    int refcnt_is_32bit;               // 3.12 on: 32-bit count, negative = immortal
    pid_t cached_pid;                  // refreshed in a forked child
    void* dll_ptr;                     // library file name to look symbols up in; null = process
    XPyObjectOffsets pyobject_offsets;
    XPyThreadStateOffsets tstate_offsets;
    XPyFrameOffsets frame_offsets;
    XPyInterpreterStateOffsets interpreter_state_offsets;
    XPyCFrameOffsets cframe_offsets;
    XPyTypeObjectOffsets typeobject_offsets;
    Py_ssize_t max_align;  // alignment of a type's instance data; 3.8 on

#define XPY_SLOT(rule, result, name, params, backup) result(*name) params;
#include "xpy_c_api_slots.inc"
#undef XPY_SLOT

    PyObject* Py_None;   // borrowed, immortal for our purposes: the interpreter's own
    PyObject* Py_True;   // borrowed
    PyObject* Py_False;  // borrowed
    const char* Py_FileSystemDefaultEncoding;
#define XPY_EXCEPTION(name) PyObject* name;
#define XPY_TYPE(rule, name) PyTypeObject* name##_ptr;
#include "xpy_c_api_globals.inc"
#undef XPY_EXCEPTION
#undef XPY_TYPE
};

TDBG_API XPy_C_API_Data global_XPy_C_API_Data;
inline constexpr XPy_C_API_Data& gPy = global_XPy_C_API_Data;

// What start-up has proven about the running interpreter beyond the record: fields that are read
// on every event and that no public function gives cheaply. Each offset was checked against a live
// object (xpy_c_api_probe.cpp) and is -1 where the check failed; then the slow road is taken.
struct tProbedOffsets {
    Py_ssize_t frame_trace;        // PyObject* f_trace in the frame object
    Py_ssize_t frame_trace_lines;  // char f_trace_lines, 3.7 on
    Py_ssize_t code_flags;         // int co_flags in the code object
};
extern tProbedOffsets gProbed;

// Of the thread state's int py_recursion_remaining (3.12 on, else -1): the levels of Python code
// that are left.
extern Py_ssize_t gRecursionRemainingOffset;

// Version-neutral module description, handed in by a module's own entry code.
struct XPyModuleDef {
    const char* m_name;
    const char* m_doc;
    Py_ssize_t m_size;
    PyMethodDef* m_methods;
    PyObject* (*m_create)(PyObject* spec, PyModuleDef* def);
    int (*m_exec)(PyObject* module);
    int m_multiple_interp_flag;
    int m_no_gil_support_flag;
    traverseproc m_traverse;
    inquiry m_clear;
    freefunc m_free;
};

// Start-up. 0 = bound (also when it already was), -1 = failed with a Python exception set where
// that is possible at all. dll_ptr is a library file name, or null for the process's symbols.
TDBG_API int XPy_Initialize();
TDBG_API int XPy_InitializeWithDllPtr(void* dll_ptr);
TDBG_API void XPy_InitializeDllPtrInGlobalData(void* dll_ptr);
TDBG_API void XPy_TryToRaiseImportError();
TDBG_API int XPy_DbgSetFailOnImport(int fail_on_import);  // returns the old value
TDBG_API int gFailOnImport;

// The stored version numbers; 0 before start-up.
TDBG_API int XPy_GetMajorVersion();
TDBG_API int XPy_GetMinorVersion();

// Address of an interpreter symbol, null when absent. No message.
TDBG_API void* XPy_LookupPythonFunction(const char* name);

// Symbol look-up in a library (null = the process), one open and close per name. GetPtr reports a
// miss on standard error; the ...VariableValue forms read the pointer stored in the symbol.
TDBG_API void* GetPtr(void* dll_ptr, const char* name);
TDBG_API void* GetPtrNullOk(void* dll_ptr, const char* name);
TDBG_API void* GetPtrVariableValue(void* dll_ptr, const char* name);
TDBG_API void* GetPtrVariableValueNullOk(void* dll_ptr, const char* name);
TDBG_API void* GetUnicodeFunction(void* dll_ptr, const char* name, const char* prefix, int null_ok);

// Module-creation function, API family (2 or 3) and build variant; each out parameter is written.
// Null when the library has none of the known functions.
TDBG_API void* FindInitFunction(void* dll_ptr,
                                int* major_version,
                                int* free_t_build,
                                int* pydebug_build);
TDBG_API int IsFreeThreadingBuild(void* dll_ptr);

// Type of an object, borrowed; null with an exception set.
TDBG_API PyTypeObject* XPy_BorrowType(PyObject* obj);
// 1 equal, 0 different, -1 with an exception set.
TDBG_API int XPy_PyObjectsEqual(PyObject* a, PyObject* b);

// Module creation; null with an exception set. A new reference, but on Python 2 a borrowed one:
// there the module belongs to sys.modules.
TDBG_API PyObject* XPy_InitModule(const char* name, PyMethodDef* methods);
TDBG_API PyObject* XPyModuleDef_Init(XPyModuleDef* module_def);
// Interpreter image of a module description; never freed. Null on failure.
TDBG_API PyModuleDef* XPy_CreatePy3ModuleDef(XPyModuleDef* xpy_mod_def);

// The binding layer's own diagnostic log.
struct tDPData;
TDBG_API tDPData gDP;
TDBG_API int XPy_SetDPrintfFile(PyObject* py_file, int fileno, void* win32_handle);
TDBG_API int XPy_SetDPrintfNativeFile(int fileno, void* win32_handle);
TDBG_API long XPy_SetDPrintfMask(long mask);  // returns the old mask

// Reference counts: the only way any module changes one. Null is ignored.

// Address `offset` bytes past `ptr`.
TDBG_API_INLINE void* XPy_GetFieldAddress(void* ptr, Py_ssize_t offset) {
    return static_cast<char*>(ptr) + offset;
}

template <class T>
inline T read_field(const void* ptr, Py_ssize_t offset) {
    return *reinterpret_cast<const T*>(static_cast<const char*>(ptr) + offset);
}

template <class T>
inline void write_field(void* ptr, Py_ssize_t offset, T value) {
    *reinterpret_cast<T*>(static_cast<char*>(ptr) + offset) = value;
}

// The 32-bit reading is right up to the end: from 3.12 on the upper half of a 64-bit word holds
// something else.
TDBG_API_INLINE int XPy_IsImmortal(PyObject* obj) {
    return gPy.refcnt_is_32bit && gPy.pyobject_offsets.refcnt != -1 &&
           read_field<int32_t>(obj, gPy.pyobject_offsets.refcnt) < 0;
}

// The count in the header; -1 where it cannot be read (free-threaded builds).
TDBG_API_INLINE Py_ssize_t XPy_GetRefCnt(PyObject* obj) {
    const Py_ssize_t offset = gPy.pyobject_offsets.refcnt;
    if (offset == -1) {
        return -1;
    }
    return gPy.refcnt_is_32bit ? Py_ssize_t{read_field<int32_t>(obj, offset)}
                               : read_field<Py_ssize_t>(obj, offset);
}

// Called after each change in place by builds that keep a total of all references (Py_DEBUG), so
// that it stays right; null for all others.
using tTellReferenceTotal = void (*)(int change);
__attribute__((visibility("hidden"))) inline constinit tTellReferenceTotal gTellReferenceTotal =
    nullptr;

template <class T>
inline void add_to_refcnt(PyObject* obj, T change) {
    const Py_ssize_t offset = gPy.pyobject_offsets.refcnt;
    write_field<T>(obj, offset, static_cast<T>(read_field<T>(obj, offset) + change));
    if (gTellReferenceTotal != nullptr) [[unlikely]] {
        gTellReferenceTotal(static_cast<int>(change));
    }
}

TDBG_API_INLINE void XPy_CallIncRef(PyObject* obj) {
    if (!gPy.can_update_refcount_directly) {
        gPy.Py_IncRef(obj);
    } else if (!gPy.refcnt_is_32bit) {
        add_to_refcnt<Py_ssize_t>(obj, 1);
    } else if (!XPy_IsImmortal(obj)) {
        add_to_refcnt<int32_t>(obj, 1);
    }
}

TDBG_API_INLINE void XPy_CallDecRef(PyObject* obj) {
    // What the count cannot lose in place, the last reference above all, is the interpreter's task.
    if (!gPy.can_update_refcount_directly || (XPy_GetRefCnt(obj) <= 1 && !XPy_IsImmortal(obj))) {
        gPy.Py_DecRef(obj);
    } else if (!gPy.refcnt_is_32bit) {
        add_to_refcnt<Py_ssize_t>(obj, -1);
    } else if (!XPy_IsImmortal(obj)) {
        add_to_refcnt<int32_t>(obj, -1);
    }
}

TDBG_API_INLINE void XPy_DoIncRef(PyObject* obj) {
    if (obj != nullptr) {
        XPy_CallIncRef(obj);
    }
}

TDBG_API_INLINE void XPy_DoDecRef(PyObject* obj) {
    if (obj != nullptr) {
        XPy_CallDecRef(obj);
    }
}

// Type tests by the header's type field: exact type or subtype. Null is of no type.
inline PyTypeObject* borrow_type(PyObject* obj) {
    return read_field<PyTypeObject*>(obj, gPy.pyobject_offsets.type);
}

inline bool is_instance_of(PyObject* obj, PyTypeObject* type) {
    if (obj == nullptr || type == nullptr) {
        return false;
    }
    PyTypeObject* const own = borrow_type(obj);
    return own == type || gPy.PyType_IsSubtype(own, type) != 0;
}

inline bool is_frame(PyObject* obj) {
    return is_instance_of(obj, gPy.PyFrame_Type_ptr);
}

// `str` of the running version: byte string on Python 2, text on Python 3.
inline bool is_native_string(PyObject* obj) {
    return is_instance_of(obj,
                          gPy.major_version < 3 ? gPy.PyString_Type_ptr : gPy.PyUnicode_Type_ptr);
}

inline bool version_at_least(int major, int minor) {
    return gPy.major_version > major || (gPy.major_version == major && gPy.minor_version >= minor);
}

inline PyObject* new_ref(PyObject* obj) {
    XPy_DoIncRef(obj);
    return obj;
}
