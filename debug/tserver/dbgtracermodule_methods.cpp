// The module functions that are more than a field or a call with one int.
#include <string.h>
#include <unistd.h>

#include "dbgtracermodule_internal.h"
#include "dprintf.h"

static const char kOutOfMemory[] = "Out of memory";

static PyObject* raise(PyObject* type, const char* message) {
    gPy.PyErr_SetString(type, message);
    return nullptr;
}

static PyObject* raise_unless_raised(PyObject* type, const char* message) {
    return gPy.PyErr_Occurred() != nullptr ? nullptr : raise(type, message);
}

static PyObject* result_unless_error(PyObject* result) {
    tOwnedRef owned(result);
    return gPy.PyErr_Occurred() == nullptr ? owned.give_away() : nullptr;
}

// ---- Settings ----

// deliberate: the float's bits go into the low half of the period as they are.
PyObject* _tracer_set_idle_period(PyObject* /*self*/, PyObject* args) {
    float period = 0;
    if (!gPy.PyArg_ParseTuple(args, "f:tracer_set_idle_period", &period)) {
        return nullptr;
    }
    memcpy(&gSelf.idle_period, &period, sizeof(period));
    gSelf.idle_period *= get_ticks_per_second();
    return new_none();
}

PyObject* _tracer_set_debug_thread_cb(PyObject* /*self*/, PyObject* args) {
    PyObject* callback = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "O:set_debug_thread_cb", &callback)) {
        return nullptr;
    }
    set_debug_thread_cb(callback);
    return new_none();
}

void set_dprintf_mask_from_int(int mask) {
    set_dprintf_mask(static_cast<tDPrintfLogMask>(mask));
}

PyObject* _tracer_get_dprintf_mask(PyObject* /*self*/, PyObject* args) {
    return gPy.PyArg_ParseTuple(args, ":get_dprintf_mask") ? new_int(get_dprintf_mask()) : nullptr;
}

PyObject* _tracer_set_dprintf_file(PyObject* /*self*/, PyObject* args) {
    PyObject* file = nullptr;
    Py_ssize_t native_file = -1;
    Py_ssize_t native_handle = 0;
    if (!gPy.PyArg_ParseTuple(args, "Onn:set_dprintf_file", &file, &native_file, &native_handle)) {
        return nullptr;
    }
    set_dprintf_file(file, static_cast<int>(native_file), reinterpret_cast<void*>(native_handle));
    return none_unless_error();
}

// ---- Breakpoints ----

// The frames' trace functions depend on the breakpoints.
static PyObject* finish_breakpoint_change(PyObject* new_result) {
    tOwnedRef result(new_result);
    if (!result) {
        tSavedError saved;  // the change is made nevertheless
        schedule_f_trace_update();
        return nullptr;
    }
    if (schedule_f_trace_update() != 0) {
        return raise_unless_raised(gPy.PyExc_RuntimeError, "Failed to schedule_f_trace_update");
    }
    return gPy.PyErr_Occurred() == nullptr ? result.give_away() : nullptr;
}

static bool check_condition(PyObject* cond) {
    if (cond == gPy.Py_None || is_native_string(cond) ||
        is_instance_of(cond, gPy.PyUnicode_Type_ptr)) {
        return true;
    }
    gPy.PyErr_SetString(gPy.PyExc_TypeError, "condition must be a string or None");
    return false;
}

PyObject* _tracer_set_break(PyObject* /*self*/, PyObject* args) {
    const char* filename = nullptr;
    const char* checksum = nullptr;
    int line = 0;
    int enabled = 0;
    int temporary = 0;
    PyObject* cond = nullptr;
    int ignore_count = 0;
    if (!gPy.PyArg_ParseTuple(args,
                              "ssiiiOi:tracer_set_break",
                              &filename,
                              &checksum,
                              &line,
                              &enabled,
                              &temporary,
                              &cond,
                              &ignore_count) ||
        !check_condition(cond) || !check_initialized()) {
        return nullptr;
    }
    DPRINTF(kLogCore, "SETTING BREAK\n");
    DPRINTF(kLogCore, "  line = %d, filename = %s\n", line, dprint_check_str(filename));
    const int id = __tracer_set_break(
        &gSelf.bp_ops_data, filename, checksum, line, enabled, temporary, cond, ignore_count);
    if (id == -1) {
        return raise_unless_raised(gPy.PyExc_MemoryError, kOutOfMemory);
    }
    return finish_breakpoint_change(new_int(id));
}

PyObject* _tracer_clear_breaks(PyObject* /*self*/, PyObject* args) {
    const char* filename = nullptr;
    int line = 0;
    if (!gPy.PyArg_ParseTuple(args, "si:tracer_clear_breaks", &filename, &line) ||
        !check_initialized()) {
        return nullptr;
    }
    __tracer_clear_breaks(&gSelf.bp_ops_data, filename, line);
    return finish_breakpoint_change(new_none());
}

PyObject* _tracer_enable_breaks(PyObject* /*self*/, PyObject* args) {
    const char* filename = nullptr;
    int line = 0;
    int enabled = 0;
    if (!gPy.PyArg_ParseTuple(args, "sii:tracer_enable_breaks", &filename, &line, &enabled) ||
        !check_initialized()) {
        return nullptr;
    }
    __tracer_enable_breaks(&gSelf.bp_ops_data, filename, line, enabled);
    return finish_breakpoint_change(new_none());
}

PyObject* _tracer_ignore_breaks(PyObject* /*self*/, PyObject* args) {
    const char* filename = nullptr;
    int line = 0;
    int count = 0;
    if (!gPy.PyArg_ParseTuple(args, "sii:tracer_ignore_breaks", &filename, &line, &count) ||
        !check_initialized()) {
        return nullptr;
    }
    __tracer_ignore_breaks(&gSelf.bp_ops_data, filename, line, count);
    return finish_breakpoint_change(new_none());
}

PyObject* _tracer_set_breaks_cond(PyObject* /*self*/, PyObject* args) {
    const char* filename = nullptr;
    int line = 0;
    PyObject* cond = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "siO:tracer_set_breaks_cond", &filename, &line, &cond) ||
        !check_condition(cond) || !check_initialized()) {
        return nullptr;
    }
    __tracer_set_breaks_cond(&gSelf.bp_ops_data, filename, line, cond);
    return finish_breakpoint_change(new_none());
}

PyObject* _tracer_clear_all_breaks(PyObject* /*self*/, PyObject* /*args*/) {
    if (!check_initialized()) {
        return nullptr;
    }
    __tracer_clear_all_breaks(&gSelf.bp_ops_data);
    return finish_breakpoint_change(new_none());
}

PyObject* _tracer_get_breaks(PyObject* /*self*/, PyObject* args) {
    const char* filename = nullptr;
    int line = 0;
    if (!gPy.PyArg_ParseTuple(args, "si:tracer_get_breaks", &filename, &line) ||
        !check_initialized()) {
        return nullptr;
    }
    return result_unless_error(__tracer_get_breaks(&gSelf.bp_ops_data, filename, line));
}

PyObject* _tracer_get_file_breaks(PyObject* /*self*/, PyObject* args) {
    const char* filename = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "s:tracer_get_file_breaks", &filename) ||
        !check_initialized()) {
        return nullptr;
    }
    return result_unless_error(__tracer_get_file_breaks(&gSelf.bp_ops_data, filename));
}

PyObject* _tracer_get_changed_bps_lists(PyObject* /*self*/, PyObject* args) {
    if (!gPy.PyArg_ParseTuple(args, ":get_changed_bps_lists")) {
        return nullptr;
    }
    return result_unless_error(__tracer_get_changed_bps_lists(&gSelf.bp_ops_data));
}

void enable_checksums(int enable) {
    __tracer_enable_checksums(&gSelf.bp_ops_data, enable);
}

// ---- Exceptions ----

static void ignore_location(const char* filename, PyObject* lineno) {
    tExcFilter* const filter =
        __tracer_add_exc_filter(&gSelf.exception_filters, gSelf.file_ops_data, filename, lineno);
    if (filter == nullptr) {
        raise_unless_raised(gPy.PyExc_MemoryError, kOutOfMemory);
    }
}

PyObject* _tracer_ignore_exception_loc(PyObject* /*self*/, PyObject* args) {
    const char* filename = nullptr;
    PyObject* lineno = nullptr;
    int ignore = 0;
    if (!gPy.PyArg_ParseTuple(
            args, "sOi:tracer_ignore_exception_loc", &filename, &lineno, &ignore) ||
        !check_initialized()) {
        return nullptr;
    }
    if (ignore != 0) {
        ignore_location(filename, lineno);
    } else {
        __tracer_del_exc_filter(&gSelf.exception_filters, filename, lineno);
    }
    return none_unless_error();
}

PyObject* _tracer_exception_loc_ignored(PyObject* /*self*/, PyObject* args) {
    const char* filename = nullptr;
    PyObject* lineno = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "sO:tracer_exception_loc_ignored", &filename, &lineno) ||
        !check_initialized()) {
        return nullptr;
    }
    const tExcFilter* const filter =
        __tracer_exc_filtered(&gSelf.exception_filters, gSelf.file_ops_data, filename, lineno);
    if (gPy.PyErr_Occurred() != nullptr) {
        return nullptr;
    }
    return new_int(filter != nullptr);
}

PyObject* _tracer_clear_exception_ignores(PyObject* /*self*/, PyObject* /*args*/) {
    if (!check_initialized()) {
        return nullptr;
    }
    __tracer_clear_exception_filters(&gSelf.exception_filters);
    return none_unless_error();
}

PyObject* _tracer_exiting_on_exception(PyObject* /*self*/, PyObject* args) {
    if (!gPy.PyArg_ParseTuple(args, ":exiting_on_exception")) {
        return nullptr;
    }
    const tThreadData* const td = find_thread_data(&gSelf.thread_data, gPy.PyThreadState_Get());
    return new_int(gSelf.autoquit != 0 && td != nullptr && td->exiting_on_exception != 0);
}

PyObject* _tracer_set_exc_catch_info_list(PyObject* /*self*/, PyObject* args) {
    PyObject* list = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "O!:set_exc_catch_info_list", gListType, &list) ||
        set_catch_info_list(&gSelf.exc_data, list) != 0) {
        return nullptr;
    }
    return none_unless_error();
}

static void log_pending_exception(PyObject* exc) {
    if (exc == gPy.Py_None) {
        DPRINTF(kLogCore, "Clearing pending exception\n");
    } else {
        DPRINTF(kLogCore, "Setting pending exception to %p\n", static_cast<void*>(exc));
    }
}

// The record may go away with what the old exception drags along, so that is dropped last.
static void set_pending_exception(tThreadData* td, PyObject* exc) {
    tOwnedRef old(td->pending_exc);
    if (old) {
        td->pending_exc = nullptr;
        gSelf.pending_exc_count -= 1;
    }
    if (exc != gPy.Py_None) {
        td->pending_exc = new_ref(exc);
        gSelf.pending_exc_count += 1;
    }
}

// deliberate: whatever thread is named, it is the calling one that gets the exception.
PyObject* raise_exception(PyObject* /*self*/, PyObject* args) {
    PyObject* tstate_id = nullptr;
    PyObject* exc = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "OO:raise_exception", &tstate_id, &exc) ||
        !check_initialized()) {
        return nullptr;
    }
    log_pending_exception(exc);  // before the record is at hand: the log's file may reset us
    tThreadData* const td = get_current_thread_data(&gSelf.thread_data);
    if (td == nullptr) {
        return raise_unless_raised(gPy.PyExc_RuntimeError,
                                   "Unable to get debugger per-thread data");
    }
    set_pending_exception(td, exc);
    return none_unless_error();
}

// ---- Threads and frames ----

void add_to_current_tstate_tracing(int value) {
    add_to_thread_state_tracing(gPy.PyThreadState_Get(), value);
}

void set_current_tstate_use_tracing(int value) {
    set_thread_state_use_tracing(gPy.PyThreadState_Get(), value);
}

PyObject* _tracer_get_tstate_tracing(PyObject* /*self*/, PyObject* args) {
    if (!gPy.PyArg_ParseTuple(args, ":get_tstate_tracing")) {
        return nullptr;
    }
    return new_int(get_thread_state_tracing(gPy.PyThreadState_Get()));
}

PyObject* _tracer_get_tstate_use_tracing(PyObject* /*self*/, PyObject* args) {
    if (!gPy.PyArg_ParseTuple(args, ":get_tstate_use_tracing")) {
        return nullptr;
    }
    return new_int(get_thread_state_use_tracing(gPy.PyThreadState_Get()));
}

PyObject* _tracer_get_current_tstate_id(PyObject* /*self*/, PyObject* args) {
    if (!gPy.PyArg_ParseTuple(args, ":get_current_tstate_id")) {
        return nullptr;
    }
    return id_for_tstate_ptr(gPy.PyThreadState_Get());
}

// As the interpreter's own get_ident() shows it: unsigned since 3.7, which in 32 bits is another
// number.
static PyObject* new_thread_ident(long thread_id) {
    if (!version_at_least(3, 7)) {
        return new_int(thread_id);
    }
    return gPy.PyLong_FromLongLong(static_cast<long long>(static_cast<unsigned long>(thread_id)));
}

PyObject* _tracer_get_thread_ident_for_tstate_id(PyObject* /*self*/, PyObject* args) {
    PyObject* tstate_id = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "O:get_thread_ident_for_tstate_id", &tstate_id)) {
        return nullptr;
    }
    PyThreadState* const tstate = tstate_ptr_for_id(tstate_id);
    if (gPy.PyErr_Occurred() != nullptr) {
        return nullptr;
    }
    const tThreadData* const td = find_thread_data(&gSelf.thread_data, tstate);
    return td != nullptr ? new_thread_ident(td->thread_id) : new_none();
}

PyObject* _tracer_get_frame_file(PyObject* /*self*/, PyObject* args) {
    PyObject* frame = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "O!:get_frame_file", gFrameType, &frame)) {
        return nullptr;
    }
    const char* const path =
        __tracer_get_full_path(&gSelf.co_pathname_table, static_cast<PyFrameObject*>(frame));
    if (path == nullptr) {
        return none_unless_error();
    }
    return result_unless_error(new_native_string(path));
}

// ---- Process, hooks, names ----

PyObject* _tracer_fork_ok(PyObject* /*self*/, PyObject* /*args*/) {
    if (is_initialized()) {  // otherwise the process that calls init() is the one to debug
        __tracer_fork_ok();
    }
    return none_unless_error();
}

PyObject* _tracer_getpid(PyObject* /*self*/, PyObject* /*args*/) {
    return new_int(getpid());
}

// It is called from the program, which must not see our errors.
PyObject* _tracer_breakpointhook(PyObject* /*self*/, PyObject* args) {
    if (!gPy.PyArg_ParseTuple(args, ":breakpointhook")) {
        return nullptr;
    }
    if (!check_initialized() || tracer_break_at_current_line(1) != 0) {
        log_failure("Exception in breakpointhook");
    }
    return none_unless_error();
}

PyObject* _tracer_atexit_func(PyObject* /*self*/, PyObject* args) {
    if (!gPy.PyArg_ParseTuple(args, ":atexit_func")) {
        return nullptr;
    }
    idle_thread_atexit_func();
    return none_unless_error();
}

PyObject* _tracer_lookup_canonical_pathname(PyObject* /*self*/, PyObject* args) {
    const char* pathname = nullptr;
    const char* checksum = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "s|z:lookup_canonical_pathname", &pathname, &checksum)) {
        return nullptr;
    }
    return result_unless_error(lookup_canonical_result(gSelf.file_ops_data, pathname, checksum));
}

PyObject* _tracer_register_canonical_pathname(PyObject* /*self*/, PyObject* args) {
    const char* pathname = nullptr;
    const char* checksum = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "s|z:register_canonical_pathname", &pathname, &checksum)) {
        return nullptr;
    }
    return result_unless_error(register_canonical_result(gSelf.file_ops_data, pathname, checksum));
}
