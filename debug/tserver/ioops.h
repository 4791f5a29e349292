// ioops.h -- module functions for input and output that Python code cannot reach.
#pragma once

#include "xpy_types.h"

// Bytes that the stdio stream has read and not handed out yet. No GIL.
TDBG_API int GetFileBufferCount(void* stdio_file);

// Module functions (arguments and texts: see the method table).
PyObject* _tracer_PyFile_SetEncoding(PyObject* self, PyObject* args);
PyObject* _tracer_PyFile_WriteObject(PyObject* self, PyObject* args);
PyObject* _tracer_GetFileBufferCount(PyObject* self, PyObject* args);
PyObject* _tracer_CopyIntoBuffer(PyObject* self, PyObject* args);
PyObject* _tracer_PyFrame_LocalsToFast(PyObject* self, PyObject* args);
