// dbgtracermodule_internal.h -- what the method table and the functions in it share.
#pragma once

#include "dbgcommon.h"
#include "dbgtracermodule.h"
#include "guards.h"
#include "tracercore.h"
#include "xpy_c_api.h"

// An argument format as a template argument.
template <size_t kSize>
struct tFormat {
    char text[kSize];
    consteval tFormat(const char (&format)[kSize]) : text{} {  // implicit: written as a literal
        for (size_t i = 0; i < kSize; i += 1) {
            text[i] = format[i];
        }
    }
};

inline PyObject* new_none() {
    return new_ref(gPy.Py_None);
}

// None, or null when what was called left an exception behind.
inline PyObject* none_unless_error() {
    return gPy.PyErr_Occurred() == nullptr ? new_none() : nullptr;
}

// init() has succeeded.
bool is_initialized();
// The same, with RuntimeError set if it has not.
bool check_initialized();

// Wrong arguments are told of first, as everywhere. Room for what any format here leaves.
inline bool check_arguments(PyObject* args, const char* format) {
    void* values[4] = {};
    return *format == '\0' ||
           gPy.PyArg_ParseTuple(args, format, &values[0], &values[1], &values[2], &values[3]) != 0;
}

// The function, which needs what init() is given, as it goes into the method table. An empty
// format: the arguments are not looked at.
template <PyCFunction kFunction, tFormat kFormat = "">
PyObject* after_init(PyObject* self, PyObject* args) {
    if (is_initialized()) {
        return kFunction(self, args);
    }
    if (check_arguments(args, kFormat.text)) {
        check_initialized();
    }
    return nullptr;
}

// One int into a field of the state, cut to the field's width.
template <tFormat kFormat, class T, T* kField>
PyObject* set_field(PyObject* /*self*/, PyObject* args) {
    int value = 0;
    if (!gPy.PyArg_ParseTuple(args, kFormat.text, &value)) {
        return nullptr;
    }
    *kField = static_cast<T>(value);
    return new_none();
}

// A field as an int. An empty format: the arguments are not looked at.
template <tFormat kFormat, class T, T* kField>
PyObject* get_field(PyObject* /*self*/, PyObject* args) {
    if (kFormat.text[0] != '\0' && !gPy.PyArg_ParseTuple(args, kFormat.text)) {
        return nullptr;
    }
    return new_int(*kField);
}

// One int for an operation that answers with nothing, or with a result the server does not see.
template <tFormat kFormat, class Result, Result (*kOperation)(int)>
PyObject* call_with_int(PyObject* /*self*/, PyObject* args) {
    int value = 0;
    if (!gPy.PyArg_ParseTuple(args, kFormat.text, &value)) {
        return nullptr;
    }
    kOperation(value);
    return none_unless_error();
}

// The exception types of a setting; an empty tuple is kept as null.
template <tFormat kFormat, PyObject** kField>
PyObject* set_types(PyObject* /*self*/, PyObject* args) {
    PyObject* types = nullptr;
    if (!gPy.PyArg_ParseTuple(args, kFormat.text, gTupleType, &types)) {
        return nullptr;
    }
    set_owned(kField, gPy.PyTuple_Size(types) > 0 ? new_ref(types) : nullptr);
    return new_none();
}

template <tFormat kFormat, PyObject** kField>
PyObject* get_types(PyObject* /*self*/, PyObject* args) {
    if (!gPy.PyArg_ParseTuple(args, kFormat.text)) {
        return nullptr;
    }
    return *kField != nullptr ? new_ref(*kField) : gPy.PyTuple_New(0);
}

PyObject* _tracer_init(PyObject* self, PyObject* args);
PyObject* _tracer_set_idle_period(PyObject* self, PyObject* args);
PyObject* _tracer_set_debug_thread_cb(PyObject* self, PyObject* args);
PyObject* _tracer_get_dprintf_mask(PyObject* self, PyObject* args);
PyObject* _tracer_set_dprintf_file(PyObject* self, PyObject* args);
void set_dprintf_mask_from_int(int mask);

PyObject* _tracer_set_break(PyObject* self, PyObject* args);
PyObject* _tracer_clear_breaks(PyObject* self, PyObject* args);
PyObject* _tracer_enable_breaks(PyObject* self, PyObject* args);
PyObject* _tracer_ignore_breaks(PyObject* self, PyObject* args);
PyObject* _tracer_set_breaks_cond(PyObject* self, PyObject* args);
PyObject* _tracer_clear_all_breaks(PyObject* self, PyObject* args);
PyObject* _tracer_get_breaks(PyObject* self, PyObject* args);
PyObject* _tracer_get_file_breaks(PyObject* self, PyObject* args);
PyObject* _tracer_get_changed_bps_lists(PyObject* self, PyObject* args);
void enable_checksums(int enable);

PyObject* _tracer_ignore_exception_loc(PyObject* self, PyObject* args);
PyObject* _tracer_exception_loc_ignored(PyObject* self, PyObject* args);
PyObject* _tracer_clear_exception_ignores(PyObject* self, PyObject* args);
PyObject* _tracer_exiting_on_exception(PyObject* self, PyObject* args);
PyObject* _tracer_set_exc_catch_info_list(PyObject* self, PyObject* args);

void add_to_current_tstate_tracing(int value);
void set_current_tstate_use_tracing(int value);
PyObject* _tracer_get_tstate_tracing(PyObject* self, PyObject* args);
PyObject* _tracer_get_tstate_use_tracing(PyObject* self, PyObject* args);
PyObject* _tracer_get_current_tstate_id(PyObject* self, PyObject* args);
PyObject* _tracer_get_thread_ident_for_tstate_id(PyObject* self, PyObject* args);
PyObject* _tracer_get_frame_file(PyObject* self, PyObject* args);

PyObject* _tracer_fork_ok(PyObject* self, PyObject* args);
PyObject* _tracer_getpid(PyObject* self, PyObject* args);
PyObject* _tracer_breakpointhook(PyObject* self, PyObject* args);
PyObject* _tracer_atexit_func(PyObject* self, PyObject* args);
PyObject* _tracer_lookup_canonical_pathname(PyObject* self, PyObject* args);
PyObject* _tracer_register_canonical_pathname(PyObject* self, PyObject* args);
