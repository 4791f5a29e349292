// dbgtracermodule.h -- the module as Python sees it: entry points and method table.
// The functions of the table are thin: they parse, call the operation's owner, convert the result.
// They return a new reference, or null with an exception set, and never both.
#pragma once

#include "xpy_types.h"

// The module, made once per process. Borrowed: the interpreter keeps it.
TDBG_API PyObject* gModuleSelf;

// The 87 module functions, ended by an all-zero record.
TDBG_API PyMethodDef TracerMethods[];

// Types for argument checks ("O!"), borrowed; set when the module is created.
extern PyTypeObject* gTupleType;
extern PyTypeObject* gFrameType;
extern PyTypeObject* gListType;

// Entry points, called by the interpreter. New module; null with an exception set.
extern "C" __attribute__((visibility("default"))) PyObject* PyInit_tdbgtracer();
extern "C" __attribute__((visibility("default"))) void inittdbgtracer();

// Sets the calling thread's pending exception; None clears it. args: (thread id, exception).
TDBG_API PyObject* raise_exception(PyObject* self, PyObject* args);
