#include "ioops.h"

#include <stdio.h>
#include <string.h>

#include "dbgcommon.h"
#include "dbgtracermodule.h"
#include "dprintf.h"
#include "guards.h"
#include "xpy_c_api.h"

static PyObject* new_none() {
    return new_ref(gPy.Py_None);
}

// ---- Files ----

// The interpreter's function takes the fields of a file object without asking what it was given.
static bool is_stdio_file(PyObject* file) {
    return is_instance_of(file,
                          static_cast<PyTypeObject*>(XPy_LookupPythonFunction("PyFile_Type")));
}

PyObject* _tracer_PyFile_SetEncoding(PyObject* /*self*/, PyObject* args) {
    PyObject* file = nullptr;
    const char* encoding = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "Os", &file, &encoding)) {
        return nullptr;
    }
    if (gPy.PyFile_SetEncoding == nullptr) {
        gPy.PyErr_SetString(gPy.PyExc_RuntimeError, "PyFile_SetEncoding not available");
        return nullptr;
    }
    if (!is_stdio_file(file)) {
        gPy.PyErr_SetString(gPy.PyExc_TypeError, "PyFile_SetEncoding: argument 1 must be a file");
        return nullptr;
    }
    return gPy.PyFile_SetEncoding(file, encoding) != 0 ? new_none() : nullptr;
}

PyObject* _tracer_PyFile_WriteObject(PyObject* /*self*/, PyObject* args) {
    PyObject* obj = nullptr;
    PyObject* file = nullptr;
    int flags = 0;
    if (!gPy.PyArg_ParseTuple(args, "OOi", &obj, &file, &flags)) {
        return nullptr;
    }
    return gPy.PyFile_WriteObject(obj, file, flags) == 0 ? new_none() : nullptr;
}

int GetFileBufferCount(void* stdio_file) {
    const FILE* const file = static_cast<const FILE*>(stdio_file);
    return static_cast<int>(file->_IO_read_end - file->_IO_read_ptr);
}

// The stdio stream of a Python 2 file object; null, without an exception, when there is none.
static void* get_stdio_file(PyObject* file) {
    using tAsFile = void* (*)(PyObject*);
    static constinit tAsFile as_file = nullptr;
    if (gPy.major_version >= 3) {
        return nullptr;  // files are not made from stdio streams any more
    }
    if (as_file == nullptr) {
        as_file = reinterpret_cast<tAsFile>(XPy_LookupPythonFunction("PyFile_AsFile"));
    }
    if (as_file == nullptr) {
        gPy.PyErr_SetString(gPy.PyExc_RuntimeError, "Unable to resolve C function: PyFile_AsFile");
        gPy.PyErr_Clear();  // deliberate: the caller gets -1 like for any file without a stream
        return nullptr;
    }
    return as_file(file);
}

PyObject* _tracer_GetFileBufferCount(PyObject* /*self*/, PyObject* args) {
    DPRINTF(kLogCore, "Entering WrapGetFileBufferCount\n");
    PyObject* file = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "O", &file)) {
        return nullptr;
    }
    void* const stdio_file = get_stdio_file(file);
    if (stdio_file == nullptr) {
        gPy.PyErr_Clear();
        return new_int(-1);
    }
    const int count = GetFileBufferCount(stdio_file);
    DPRINTF(kLogCore, "Current file buffer count = %d\n", count);
    return new_int(count);
}

// ---- Buffers ----

// A buffer as the interpreter fills it in. Only the first three fields are ours to know, they are
// the same in all versions; the rest is more than any version needs.
struct tPyBuffer {
    void* buf;
    PyObject* obj;
    Py_ssize_t len;
    void* rest[32];
};

static void release_buffer(tPyBuffer* buffer) {
    using tRelease = void (*)(tPyBuffer*);
    static constinit tRelease release = nullptr;
    if (release == nullptr) {
        release = reinterpret_cast<tRelease>(XPy_LookupPythonFunction("PyBuffer_Release"));
    }
    if (release != nullptr) {
        release(buffer);
    }
}

// Number of bytes copied, as an int; the rest of the data is left out.
static PyObject* copy_into_buffer(
    void* to, Py_ssize_t to_length, int offset, const void* from, Py_ssize_t from_length) {
    if (offset < 0 || offset > to_length) {
        gPy.PyErr_SetString(gPy.PyExc_ValueError, "offset is outside of the buffer");
        return nullptr;
    }
    const Py_ssize_t room = to_length - offset;
    const Py_ssize_t count = from_length < room ? from_length : room;
    memmove(static_cast<char*>(to) + offset, from, static_cast<size_t>(count));
    return new_int(count);
}

// Pinned buffers for both: with "w#is#" Python 2 refuses a bytearray, and Python 3 has no "w#" and
// wants to know of "s#" how its caller was compiled.
PyObject* _tracer_CopyIntoBuffer(PyObject* /*self*/, PyObject* args) {
    tPyBuffer to = {};
    tPyBuffer from = {};
    int offset = 0;
    if (!gPy.PyArg_ParseTuple(args, "w*is*", &to, &offset, &from)) {
        return nullptr;
    }
    PyObject* const result = copy_into_buffer(to.buf, to.len, offset, from.buf, from.len);
    release_buffer(&from);
    release_buffer(&to);
    return result;
}

// ---- Frames ----

PyObject* _tracer_PyFrame_LocalsToFast(PyObject* /*self*/, PyObject* args) {
    PyObject* frame = nullptr;
    int clear = 0;
    if (!gPy.PyArg_ParseTuple(args, "O!i:PyFrame_LocalsToFast", gFrameType, &frame, &clear)) {
        return nullptr;
    }
    gPy.PyFrame_LocalsToFast(static_cast<PyFrameObject*>(frame), clear);
    return gPy.PyErr_Occurred() == nullptr ? new_none() : nullptr;
}
