// xpy_c_api_fallbacks.h -- stand-ins for interpreter functions that the running version lacks, so
// that a slot can always be called. A stand-in rebuilds the function from what older versions have,
// or says that the facility is missing and gives the real function's failure result.
// Results and ownership are those of the function it stands in for.
#pragma once

#include "xpy_c_api.h"

// Rebuilt from older facilities.
TDBG_API Py_ssize_t Backup_PyLong_AsSsize_t(PyObject* obj);
TDBG_API PyObject* Backup_PyLong_FromSsize_t(Py_ssize_t value);
TDBG_API int Backup__Py_IsFinalizing();
TDBG_API const char* Backup_PyUnicode_AsString(PyObject* obj);

TDBG_API PyFrameObject* Backup_PyFrame_GetBack(PyFrameObject* frame);
TDBG_API PyObject* Backup_PyFrame_GetBuiltins(PyFrameObject* frame);
TDBG_API PyCodeObject* Backup_PyFrame_GetCode(PyFrameObject* frame);
TDBG_API PyObject* Backup_PyFrame_GetGenerator(PyFrameObject* frame);
TDBG_API PyObject* Backup_PyFrame_GetGlobals(PyFrameObject* frame);
TDBG_API int Backup_PyFrame_GetLineNumber(PyFrameObject* frame);
TDBG_API PyObject* Backup_PyFrame_GetLocals(PyFrameObject* frame);

TDBG_API PyFrameObject* Backup_PyThreadState_GetFrame(PyThreadState* tstate);
TDBG_API PyInterpreterState* Backup_PyThreadState_GetInterpreter(PyThreadState* tstate);
TDBG_API void Backup_PyThreadState_SetCurrent(PyThreadState* tstate);
TDBG_API void Backup_PyThreadState_EnterTracing(PyThreadState* tstate);
TDBG_API void Backup_PyThreadState_LeaveTracing(PyThreadState* tstate);

TDBG_API PyObject* Backup_PyObject_CallNoArgs(PyObject* callable);
TDBG_API PyObject* Backup_PyObject_CallOneArg(PyObject* callable, PyObject* arg);
TDBG_API void* Backup_PyObject_GetTypeData(PyObject* obj, PyTypeObject* type);
TDBG_API int Backup_PyIter_NextItem(PyObject* iter, PyObject** item);
TDBG_API int Backup_PyDict_GetItemRef(PyObject* dict, PyObject* key, PyObject** result);
TDBG_API int Backup_PyDict_Pop(PyObject* dict, PyObject* key, PyObject** result);
TDBG_API void Backup_PyErr_FormatUnraisable(const char* format, ...);

// Look-up that keeps "missing" (null) and "failed" (null with an exception) apart. Borrowed.
PyObject* Backup_PyDict_GetItemWithError(PyObject* dict, PyObject* key);

// Only report.
TDBG_API const char* Backup_PyUnicode_AsUTF8AndSize(PyObject* obj, Py_ssize_t* size);
TDBG_API void* Backup_PyType_GetSlot(PyTypeObject* type, int slot);
TDBG_API void* Backup_PyType_GetModuleState(PyTypeObject* type);
TDBG_API PyObject* Backup_PyType_GetModuleByType(PyTypeObject* type, PyModuleDef* def);
TDBG_API PyObject* Backup_PyType_GetModule(PyTypeObject* type);
TDBG_API PyObject* Backup_PyType_FromModuleAndSpec(PyObject* module,
                                                   PyType_Spec* spec,
                                                   PyObject* bases);
TDBG_API PyObject* Backup_PyType_FromMetaclass(PyTypeObject* meta,
                                               PyObject* module,
                                               PyType_Spec* spec,
                                               PyObject* bases);
TDBG_API PyLockStatus Backup_PyThread_acquire_lock_timed(PyThread_type_lock lock,
                                                         long long microseconds,
                                                         int intr_flag);
TDBG_API void* Backup_PyThread_tss_get(Py_tss_t* key);
TDBG_API int Backup_PyThread_tss_set(Py_tss_t* key, void* value);
TDBG_API void Backup_PyThread_tss_delete(Py_tss_t* key);
TDBG_API int Backup_PyThread_tss_create(Py_tss_t* key);
TDBG_API void Backup_PyThread_tss_free(Py_tss_t* key);
TDBG_API Py_tss_t* Backup_PyThread_tss_alloc();
TDBG_API PyObject* Backup_PyThreadState_GetDict();
TDBG_API PyObject* Backup_PyObject_VectorcallDict(PyObject* callable,
                                                  PyObject* const* args,
                                                  size_t nargs,
                                                  PyObject* kw);
TDBG_API PyObject* Backup_PyObject_CallFunctionObjArgs(PyObject* callable, ...);
TDBG_API void* Backup_PyModule_GetState(PyObject* module);
TDBG_API int Backup__PyEval_SetTrace(PyThreadState* tstate, Py_tracefunc func, PyObject* obj);
TDBG_API void Backup_PyEval_SetTraceAllThreads(Py_tracefunc func, PyObject* obj);
TDBG_API Py_ssize_t Backup_PyUnstable_Eval_RequestCodeExtraIndex(freefunc free_func);
TDBG_API void Backup_PyErr_SetRaisedException(PyObject* exc);
TDBG_API PyObject* Backup_PyErr_GetRaisedException();
TDBG_API void Backup_PyErr_SetHandledException(PyObject* exc);
TDBG_API PyObject* Backup_PyErr_GetHandledException();
TDBG_API int Backup_PyUnstable_Code_SetExtra(PyObject* code, Py_ssize_t index, void* extra);
TDBG_API int Backup_PyUnstable_Code_GetExtra(PyObject* code, Py_ssize_t index, void** extra);
TDBG_API int Backup_PyCapsule_SetDestructor(PyObject* capsule, PyCapsule_Destructor destructor);
TDBG_API PyObject* Backup_PyCapsule_New(void* pointer,
                                        const char* name,
                                        PyCapsule_Destructor destructor);
TDBG_API void* Backup_PyCapsule_GetPointer(PyObject* capsule, const char* name);
TDBG_API PyObject* Backup_PyCMethod_New(PyMethodDef* def,
                                        PyObject* self,
                                        PyObject* module,
                                        PyTypeObject* type);
