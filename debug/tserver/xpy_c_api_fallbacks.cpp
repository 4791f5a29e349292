#include "xpy_c_api_fallbacks.h"

#include <stdarg.h>
#include <stdio.h>

#include "guards.h"
#include "xpy_c_api_internal.h"

// Numbers. These two may stand in while the version is being detected, before the other slots.

Py_ssize_t Backup_PyLong_AsSsize_t(PyObject* obj) {
    if (gPy.PyLong_AsLongLong == nullptr && !resolve(&gPy.PyLong_AsLongLong, "PyLong_AsLongLong")) {
        return -1;
    }
    return static_cast<Py_ssize_t>(gPy.PyLong_AsLongLong(obj));
}

PyObject* Backup_PyLong_FromSsize_t(Py_ssize_t value) {
    if (gPy.PyInt_FromLong == nullptr && !resolve(&gPy.PyInt_FromLong, "PyInt_FromLong")) {
        return nullptr;
    }
    return gPy.PyInt_FromLong(static_cast<long>(value));
}

int Backup__Py_IsFinalizing() {
    return 0;
}

// Text.

const char* Backup_PyUnicode_AsString(PyObject* obj) {
    if (!is_instance_of(obj, gPy.PyUnicode_Type_ptr)) {
        gPy._PyErr_BadInternalCall("xpy_c_api", 0);
        return nullptr;
    }
    tOwnedRef args(gPy.PyTuple_New(1));
    if (!args || gPy.PyTuple_SetItem(args.borrow(), 0, new_ref(obj)) == -1) {
        return nullptr;
    }
    const char* text = nullptr;  // the string's own buffer, which outlives the tuple
    return gPy.PyArg_ParseTuple(args.borrow(), "s", &text) ? text : nullptr;
}

// Frames.

// Object stored in a field: new ref; null when the field is absent or empty.
template <class T>
static T* get_object_field(const void* record, Py_ssize_t offset) {
    if (offset == -1) {
        return nullptr;
    }
    T* const obj = read_field<T*>(record, offset);
    XPy_DoIncRef(obj);
    return obj;
}

// The same, with None for an empty field.
static PyObject* get_object_field_or_none(const void* record, Py_ssize_t offset) {
    if (offset == -1) {
        return nullptr;
    }
    PyObject* const obj = read_field<PyObject*>(record, offset);
    return new_ref(obj != nullptr ? obj : gPy.Py_None);
}

PyFrameObject* Backup_PyFrame_GetBack(PyFrameObject* frame) {
    if (gPy.frame_offsets.back == -1) {
        gPy.PyErr_SetString(gPy.PyExc_RuntimeError,
                            "PyFrame_GetBack not available and frame_offsets.back not set");
        return nullptr;
    }
    return get_object_field<PyFrameObject>(frame, gPy.frame_offsets.back);
}

PyObject* Backup_PyFrame_GetBuiltins(PyFrameObject* frame) {
    return get_object_field_or_none(frame, gPy.frame_offsets.builtins);
}

PyCodeObject* Backup_PyFrame_GetCode(PyFrameObject* frame) {
    return get_object_field<PyCodeObject>(frame, gPy.frame_offsets.code);
}

PyObject* Backup_PyFrame_GetGenerator(PyFrameObject*) {
    return nullptr;
}

PyObject* Backup_PyFrame_GetGlobals(PyFrameObject* frame) {
    return get_object_field_or_none(frame, gPy.frame_offsets.globals);
}

PyObject* Backup_PyFrame_GetLocals(PyFrameObject* frame) {
    return get_object_field_or_none(frame, gPy.frame_offsets.locals);
}

int Backup_PyFrame_GetLineNumber(PyFrameObject* frame) {
    tSavedError saved;  // the program's, which comes back in place of one of ours
    tOwnedRef lineno(gPy.PyObject_GetAttrString(frame, "f_lineno"));
    if (!lineno) {
        return -1;
    }
    const Py_ssize_t number = gPy.PyInt_AsSsize_t != nullptr
                                  ? gPy.PyInt_AsSsize_t(lineno.borrow())
                                  : gPy.PyLong_AsSsize_t(lineno.borrow());
    return gPy.PyErr_Occurred() == nullptr ? static_cast<int>(number) : -1;
}

// Thread states.

PyFrameObject* Backup_PyThreadState_GetFrame(PyThreadState* tstate) {
    return get_object_field<PyFrameObject>(tstate, gPy.tstate_offsets.frame);
}

PyInterpreterState* Backup_PyThreadState_GetInterpreter(PyThreadState* tstate) {
    if (gPy.tstate_offsets.interp == -1) {
        fputs("Backup_PyThreadState_GetInterpreter called\n", stderr);
        return nullptr;
    }
    return read_field<PyInterpreterState*>(tstate, gPy.tstate_offsets.interp);
}

void Backup_PyThreadState_SetCurrent(PyThreadState* tstate) {
    if (!version_at_least(3, 11)) {
        gPy._PyThreadState_Init(tstate);  // deliberate: makes the thread state known to its thread
    }
}

// 3.10 keeps its tracing flag in a record on the C stack; installing the same function once more
// makes the interpreter work it out anew. The install works on the running thread, so another
// thread's state is left alone.
static void reapply_trace_function(PyThreadState* tstate) {
    if (gPy.tstate_offsets.c_tracefunc == -1 || gPy.tstate_offsets.c_traceobj == -1 ||
        gPy.PyThreadState_Get() != tstate) {
        return;
    }
    const Py_tracefunc func = read_field<Py_tracefunc>(tstate, gPy.tstate_offsets.c_tracefunc);
    tOwnedRef obj(get_object_field<PyObject>(tstate, gPy.tstate_offsets.c_traceobj));
    gPy.PyEval_SetTrace(func, obj.borrow());
}

static void change_tracing_counter(PyThreadState* tstate, int change) {
    const Py_ssize_t offset = gPy.tstate_offsets.tracing;
    if (offset == -1 || version_at_least(3, 11)) {
        return;
    }
    const int old_value = read_field<int>(tstate, offset);
    write_field<int>(tstate, offset, old_value + change);
    // deliberate: judged by the old value in both directions.
    if (version_at_least(3, 10) && (old_value == 0 || old_value == -1)) {
        reapply_trace_function(tstate);
    }
}

void Backup_PyThreadState_EnterTracing(PyThreadState* tstate) {
    change_tracing_counter(tstate, 1);
}

void Backup_PyThreadState_LeaveTracing(PyThreadState* tstate) {
    change_tracing_counter(tstate, -1);
}

// Calls and containers.

PyObject* Backup_PyObject_CallNoArgs(PyObject* callable) {
    return gPy.PyObject_CallObject(callable, nullptr);
}

PyObject* Backup_PyObject_CallOneArg(PyObject* callable, PyObject* arg) {
    tOwnedRef args(gPy.PyTuple_New(1));
    if (!args || gPy.PyTuple_SetItem(args.borrow(), 0, new_ref(arg)) == -1) {
        return nullptr;
    }
    return gPy.PyObject_CallObject(callable, args.borrow());
}

void* Backup_PyObject_GetTypeData(PyObject* obj, PyTypeObject* type) {
    const XPyTypeObjectOffsets& offsets = gPy.typeobject_offsets;
    if (offsets.tp_base == -1 || offsets.tp_basicsize == -1 || gPy.max_align == -1) {
        return nullptr;
    }
    const PyTypeObject* const base = read_field<PyTypeObject*>(type, offsets.tp_base);
    const Py_ssize_t size = read_field<Py_ssize_t>(base, offsets.tp_basicsize);
    // deliberate: the formula for powers of two, whatever max_align is.
    return XPy_GetFieldAddress(obj, (size + gPy.max_align - 1) & -gPy.max_align);
}

int Backup_PyIter_NextItem(PyObject* iter, PyObject** item) {
    *item = gPy.PyIter_Next(iter);
    if (*item != nullptr) {
        return 1;
    }
    return gPy.PyErr_Occurred() != nullptr ? -1 : 0;
}

PyObject* Backup_PyDict_GetItemWithError(PyObject* dict, PyObject* key) {
    if (gPy.PyDict_Contains(dict, key) != 1) {
        return nullptr;
    }
    return gPy.PyDict_GetItem(dict, key);
}

int Backup_PyDict_GetItemRef(PyObject* dict, PyObject* key, PyObject** result) {
    *result = new_ref(gPy.PyDict_GetItemWithError(dict, key));
    if (*result != nullptr) {
        return 1;
    }
    return gPy.PyErr_Occurred() != nullptr ? -1 : 0;
}

// 1 = removed (new ref in result when that is wanted), 0 = was not there, -1 = failed.
int Backup_PyDict_Pop(PyObject* dict, PyObject* key, PyObject** result) {
    PyObject* found = nullptr;
    const int answer = Backup_PyDict_GetItemRef(dict, key, &found);
    tOwnedRef value(found);
    if (result != nullptr) {
        *result = nullptr;
    }
    if (answer != 1) {
        return answer;
    }
    if (gPy.PyDict_DelItem(dict, key) == -1) {
        return -1;
    }
    if (result != nullptr) {
        *result = value.give_away();
    }
    return 1;
}

void Backup_PyErr_FormatUnraisable(const char* format, ...) {
    PyObject* message = nullptr;
    if (gPy.PyUnicode_FromFormatV != nullptr) {
        tSavedError pending;  // the one to report: formatting must not see it
        va_list args;
        va_start(args, format);
        message = gPy.PyUnicode_FromFormatV(format, args);
        va_end(args);
    }
    gPy.PyErr_WriteUnraisable(message);
    XPy_DoDecRef(message);
}

// The rest only report.

static void report(const char* text) {
    fputs(text, stderr);
}

static void report_and_raise(const char* text) {
    report(text);
    gPy.PyErr_SetString(gPy.PyExc_RuntimeError, text);
}

const char* Backup_PyUnicode_AsUTF8AndSize(PyObject*, Py_ssize_t*) {
    report_and_raise("PyUnicode_AsUTF8AndSize not available");
    return nullptr;
}

void* Backup_PyType_GetSlot(PyTypeObject*, int) {
    report_and_raise("PyType_GetSlot not available");
    return nullptr;
}

void* Backup_PyType_GetModuleState(PyTypeObject*) {
    report("PyType_GetModuleState() not available before 3.9");
    return nullptr;
}

PyObject* Backup_PyType_GetModuleByType(PyTypeObject*, PyModuleDef*) {
    report("PyType_GetModule() not available before 3.9");
    return nullptr;
}

PyObject* Backup_PyType_GetModule(PyTypeObject*) {
    report("PyType_GetModule() not available before 3.9");
    return nullptr;
}

PyObject* Backup_PyType_FromModuleAndSpec(PyObject*, PyType_Spec*, PyObject*) {
    report("PyType_FromModuleAndSpec() not available before 3.9");
    return nullptr;
}

PyObject* Backup_PyType_FromMetaclass(PyTypeObject*, PyObject*, PyType_Spec*, PyObject*) {
    report("PyType_FromMetaclass() not available before 3.12");
    return nullptr;
}

PyLockStatus Backup_PyThread_acquire_lock_timed(PyThread_type_lock, long long, int) {
    report("Backup_PyThread_acquire_lock_timed() called\n");
    return 0;  // not acquired
}

void* Backup_PyThread_tss_get(Py_tss_t*) {
    report_and_raise("PyThread_tss_get not available");
    return nullptr;
}

int Backup_PyThread_tss_set(Py_tss_t*, void*) {
    report_and_raise("PyThread_tss_set not available");
    return -1;
}

void Backup_PyThread_tss_delete(Py_tss_t*) {
    report("PyThread_tss_delete not available");
}

int Backup_PyThread_tss_create(Py_tss_t*) {
    report_and_raise("PyThread_tss_create not available");
    return -1;
}

void Backup_PyThread_tss_free(Py_tss_t*) {
    report("PyThread_tss_free not available");
}

Py_tss_t* Backup_PyThread_tss_alloc() {
    report_and_raise("PyThread_tss_alloc not available");
    return nullptr;
}

PyObject* Backup_PyThreadState_GetDict() {
    report("Backup_PyThreadState_GetDict called\n");
    return nullptr;
}

PyObject* Backup_PyObject_VectorcallDict(PyObject*, PyObject* const*, size_t, PyObject*) {
    report("Backup_PyObject_VectorcallDict called\n");
    return nullptr;
}

PyObject* Backup_PyObject_CallFunctionObjArgs(PyObject*, ...) {
    report_and_raise("PyObject_CallFunctionObjArgs not available");
    return nullptr;
}

void* Backup_PyModule_GetState(PyObject*) {
    report("PyModule_GetState() not available before 3.9");
    return nullptr;
}

int Backup__PyEval_SetTrace(PyThreadState*, Py_tracefunc, PyObject*) {
    report("Backup__PyEval_SetTrace() called\n");
    return -1;
}

void Backup_PyEval_SetTraceAllThreads(Py_tracefunc, PyObject*) {
    report("Backup_PyEval_SetTraceAllThreads called\n");
}

Py_ssize_t Backup_PyUnstable_Eval_RequestCodeExtraIndex(freefunc) {
    report_and_raise("_PyEval_RequestCodeExtraIndex not available");
    return -1;
}

void Backup_PyErr_SetRaisedException(PyObject*) {
    report("PyErr_SetRaisedException not available");
}

PyObject* Backup_PyErr_GetRaisedException() {
    report("PyErr_GetRaisedException not available");
    return nullptr;
}

void Backup_PyErr_SetHandledException(PyObject*) {
    report("PyErr_SetHandledException not available");
}

PyObject* Backup_PyErr_GetHandledException() {
    report("PyErr_GetHandledException not available");
    return nullptr;
}

int Backup_PyUnstable_Code_SetExtra(PyObject*, Py_ssize_t, void*) {
    report_and_raise("_PyCode_SetExtra not available");
    return -1;
}

int Backup_PyUnstable_Code_GetExtra(PyObject*, Py_ssize_t, void**) {
    report_and_raise("_PyCode_GetExtra not available");
    return -1;
}

int Backup_PyCapsule_SetDestructor(PyObject*, PyCapsule_Destructor) {
    report_and_raise("PyCapsule not available");
    return -1;
}

PyObject* Backup_PyCapsule_New(void*, const char*, PyCapsule_Destructor) {
    report_and_raise("PyCapsule not available");
    return nullptr;
}

void* Backup_PyCapsule_GetPointer(PyObject*, const char*) {
    report_and_raise("PyCapsule not available");
    return nullptr;
}

PyObject* Backup_PyCMethod_New(PyMethodDef*, PyObject*, PyObject*, PyTypeObject*) {
    report_and_raise("PyCMethod_New not available");
    return nullptr;
}
