// xpy_types.h -- the interpreter's types as this library sees them: names without contents.
// Nothing here comes from Python's headers. A pointer to one of these is only ever handed back to
// the interpreter or read through the discovered offsets (xpy_c_api.h). The object types derive
// from PyObject so that a frame or a type can be passed where any object is wanted; the way back
// is an explicit static_cast after a type test.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// Exported under its own name, yet called directly inside the library: a protected symbol skips
// the PLT and cannot be replaced by a foreign one of the same name.
#define TDBG_API extern "C" __attribute__((visibility("protected")))

// Inline in every caller and exported as well.
#define TDBG_API_INLINE \
    extern "C" inline __attribute__((visibility("protected"), used, always_inline))

using Py_ssize_t = ssize_t;
using Py_hash_t = Py_ssize_t;
using boolean = uint16_t;  // the records' small flags: an int given by the server is cut to this

struct PyObject {};
struct PyTypeObject : PyObject {};
struct PyFrameObject : PyObject {};
struct PyCodeObject : PyObject {};
struct PyModuleDef;
struct PyThreadState;
struct PyInterpreterState;
struct PyInterpreterFrame;  // the 3.11+ frame proper (_PyInterpreterFrame)
struct PyMemberDef;
struct PyGetSetDef;
struct PyType_Spec;
struct Py_tss_t;
struct PyCompilerFlags;
struct PyMutex;
struct PyThreadLock;

using PyThread_type_lock = PyThreadLock*;
using PyGILState_STATE = int;
using PyLockStatus = int;
using PyCFunction = PyObject* (*)(PyObject* self, PyObject* args);
using PyCFunctionWithKeywords = PyObject* (*)(PyObject* self, PyObject* args, PyObject* kw);
using Py_tracefunc = int (*)(PyObject* obj, PyFrameObject* frame, int what, PyObject* arg);
using PyCapsule_Destructor = void (*)(PyObject* capsule);
using freefunc = void (*)(void*);
using visitproc = int (*)(PyObject* obj, void* arg);
using traverseproc = int (*)(PyObject* obj, visitproc visit, void* arg);
using inquiry = int (*)(PyObject* obj);

struct PyMethodDef {
    const char* ml_name;
    PyCFunction ml_meth;
    int ml_flags;
    const char* ml_doc;
};

enum tMethodFlags : int { kMethVarArgs = 0x0001, kMethKeywords = 0x0002 };

// Events that a trace function gets (the interpreter's PyTrace_ numbers, the same since 2.2).
enum tTraceEvent : int { kTraceCall = 0, kTraceException = 1, kTraceLine = 2, kTraceReturn = 3 };

// The three generations of the frame-evaluation function.
using tEvalFrameNoThreadState = PyObject* (*)(PyFrameObject* frame, int throw_flag);
using tEvalFrameWithThreadState = PyObject* (*)(PyThreadState* tstate,
                                                PyFrameObject* frame,
                                                int throw_flag);
using tEvalFrameInterpreterFrame = PyObject* (*)(PyThreadState* tstate,
                                                 PyInterpreterFrame* frame,
                                                 int throw_flag);
