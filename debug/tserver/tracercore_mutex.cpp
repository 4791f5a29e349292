// tracercore_mutex.cpp -- the debug-server mutex: who may call into the debug server.
// Recursive per thread through the count in the thread's record. A thread that is stopped at the
// debugger holds it for the whole stop; every other traced thread waits for it in its next event.
#include "tracercore.h"

#include "tracercore_internal.h"

static bool is_only_thread() {
    PyInterpreterState* const interp = borrow_thread_state_interp(gPy.PyThreadState_Get());
    PyThreadState* const head =
        interp != nullptr ? gPy.PyInterpreterState_ThreadHead(interp) : nullptr;
    return head != nullptr && gPy.PyThreadState_Next(head) == nullptr;
}

// While a thread is stopped the others must notice at their next line, so their innermost frames
// send line events again; afterwards those that nobody watches are silent again.
static void refresh_other_threads_lines() {
    if (gSelf.global_idle_thread_data.use_idle_thread != 0 && is_frame_trace_lines_supported() &&
        !is_only_thread()) {
        update_f_trace_lines_in_other_leaf_frames();
    }
}

// How often the holder has it, by whatever record: a reset inside a callback leaves a thread with
// two, the one of the dispatch that is running and a new one.
static constinit int gMutexDepth = 0;

void forget_mutex_depth() {
    gMutexDepth = 0;
}

static bool holds_mutex(const tThreadData* thread_data) {
    return gSelf.mutex_thread_id != -1 && gSelf.mutex_thread_id == thread_data->thread_id;
}

// Up to 3.6 the interpreter tells by a variable alone: the thread state that ends it, else null.
static bool is_interpreter_ending_before_3_7() {
    static constinit PyThreadState* const* ending = nullptr;
    if (ending == nullptr) {
        ending = static_cast<PyThreadState* const*>(lookup_python_function("_Py_Finalizing"));
        gPy.PyErr_Clear();
    }
    return ending != nullptr && *ending != nullptr;
}

// A thread that the interpreter ends with itself, in the middle of a callback, keeps the mutex.
// Python 2 ends no thread.
static bool is_holder_gone_for_good() {
    if (version_at_least(3, 7)) {
        return gPy._Py_IsFinalizing() != 0;
    }
    return gPy.major_version >= 3 && is_interpreter_ending_before_3_7();
}

static bool wait_for_mutex() {
    return acquire_thread_mutex(gSelf.mutex, 0) ||
           (!is_holder_gone_for_good() && acquire_thread_mutex(gSelf.mutex, 1));
}

int acquire_dbgserver_mutex(tThreadData* thread_data) {
    if (thread_data->dbgserver_mutex_acquired_count > 0 || holds_mutex(thread_data)) {
        thread_data->dbgserver_mutex_acquired_count++;
        gMutexDepth++;
        return 1;
    }
    tHeldThreadData held(thread_data);  // while this thread waits another one may reset
    if (!wait_for_mutex()) {
        return 0;
    }
    gSelf.mutex_thread_id = thread_data->thread_id;
    gMutexDepth = 1;
    thread_data->dbgserver_mutex_acquired_count++;
    refresh_other_threads_lines();
    return 1;
}

void release_dbgserver_mutex(tThreadData* thread_data) {
    if (thread_data->dbgserver_mutex_acquired_count > 0) {
        thread_data->dbgserver_mutex_acquired_count--;
    } else if (!holds_mutex(thread_data)) {
        return;  // never acquired: there is nothing to give back
    }
    // A record with a count of 0 gives back what one that a reset removed since had acquired.
    tHeldThreadData held(thread_data);  // frees a removed one at the end
    if (!holds_mutex(thread_data) || --gMutexDepth != 0) {
        return;
    }
    gSelf.mutex_thread_id = -1;
    release_thread_mutex(gSelf.mutex);
    refresh_other_threads_lines();
}

// A child has the lock as it was in its parent: perhaps locked by a thread that does not exist
// here, which need not even have got to writing down that it holds it.
void renew_mutex_after_fork() {
    if (gSelf.mutex_thread_id == get_thread_ident()) {
        return;  // this thread forked in a callback
    }
    gSelf.mutex = allocate_thread_mutex();  // the old one is leaked
    gSelf.mutex_thread_id = -1;
    gMutexDepth = 0;
    gSelf.idling = 0;  // whoever ran these callbacks held it
    gSelf.import_cb_active = 0;
}

int dbgserver_mutex_held(tThreadData* thread_data) {
    return gSelf.mutex_thread_id == thread_data->thread_id;
}

// The wait for the mutex may have been long: tracing may have ended, or the thread with it.
static bool may_call_back(const tThreadData* thread_data) {
    return thread_data->tracing && !thread_data->removed_from_table &&
           thread_data->tstate_id == reinterpret_cast<Py_ssize_t>(gPy.PyThreadState_Get());
}

int dispatch_ctx_acquire_mutex(tDispatchCtx* ctx) {
    if (ctx->mutex_acquired) {
        return 1;
    }
    tThreadData* const thread_data = ctx->thread_data;
    if (!acquire_dbgserver_mutex(thread_data)) {
        DPRINTF(kLogInternalFailures, "acquire_dbgserver_mutex failed: probable OS mutex error\n");
        return 0;
    }
    if (may_call_back(thread_data)) {
        ctx->mutex_acquired = 1;
        return 1;
    }
    DPRINTF(kLogCore,
            "Releasing acquired mutex in dispatch_ctx_acquire_mutex because callback should not be "
            "made\n");
    DPRINTF(kLogCore,
            "  ->tracing = %d, ->removed_from_table = %d\n",
            thread_data->tracing,
            thread_data->removed_from_table);
    release_dbgserver_mutex(thread_data);
    return 0;
}

// The callback's own frames have files, too, whose checksums are not asked for from inside it. The
// mutex is held, so it is this thread's callback that is running.
static constinit bool gIsAskingForChecksum = false;

static PyObject* get_checksum(const char* file_name) {
    if (gIsAskingForChecksum) {
        return new_ref(gPy.Py_None);
    }
    tOwnedRef callback(new_ref(gSelf.get_checksum_cb));
    tOwnedRef name(new_native_string(file_name));
    gIsAskingForChecksum = true;
    tOwnedRef checksum(name ? do_one_arg_call(callback.borrow(), name.borrow()) : nullptr);
    gIsAskingForChecksum = false;
    if (!checksum) {
        log_failure("Failure: get_file_checksum()\n");
        return new_ref(gPy.Py_None);
    }
    return checksum.give_away();
}

PyObject* call_get_checksum_cb(const char* file_name) {
    if (gSelf.get_checksum_cb == nullptr || !gSelf.bp_ops_data.checksums_enabled) {
        return new_ref(gPy.Py_None);
    }
    DPRINTF(kLogBreakpoints, "Getting checksum for %s\n", dprint_check_str(file_name));
    tThreadData* const thread_data = current_thread_data();
    if (thread_data == nullptr) {
        gPy.PyErr_Clear();
        return new_ref(gPy.Py_None);
    }
    if (thread_data->active_dispatch_ctx != nullptr) {
        // The dispatch that is running gives the mutex back at its end.
        if (!dispatch_ctx_acquire_mutex(thread_data->active_dispatch_ctx)) {
            return new_ref(gPy.Py_None);
        }
        tRecursionHeadroom room(kRecursionHeadroom);
        return get_checksum(file_name);
    }
    tServerLock lock(thread_data);
    if (!lock.held()) {
        return new_ref(gPy.Py_None);
    }
    tTracingOff quiet(gPy.PyThreadState_Get());
    return get_checksum(file_name);
}

// ---- Module functions ----

// The calling thread's record; null with an exception set. `format` takes no arguments.
static tThreadData* get_record_of_caller(PyObject* args, const char* format) {
    if (!gPy.PyArg_ParseTuple(args, format)) {
        return nullptr;
    }
    tThreadData* const thread_data = current_thread_data();
    if (thread_data == nullptr) {
        gPy.PyErr_SetString(gPy.PyExc_RuntimeError, "Unable to get debugger per-thread data");
    }
    return thread_data;
}

PyObject* _tracer_acquire_dbgserver_mutex(PyObject* /*self*/, PyObject* args) {
    tThreadData* const record = get_record_of_caller(args, ":acquire_dbgserver_mutex");
    if (record == nullptr) {
        return nullptr;
    }
    const int acquired = acquire_dbgserver_mutex(record);
    PyObject* const answer = new_int(acquired);
    if (answer == nullptr && acquired) {
        release_dbgserver_mutex(record);  // the caller, who gets an exception, would not
    }
    return answer;
}

PyObject* _tracer_release_dbgserver_mutex(PyObject* /*self*/, PyObject* args) {
    tThreadData* const record = get_record_of_caller(args, ":release_dbgserver_mutex");
    if (record == nullptr) {
        return nullptr;
    }
    release_dbgserver_mutex(record);
    return new_ref(gPy.Py_None);
}

PyObject* _tracer_is_dbgserver_mutex_held(PyObject* /*self*/, PyObject* args) {
    tThreadData* const record = get_record_of_caller(args, ":is_dbgserver_mutex_held");
    return record != nullptr ? new_int(dbgserver_mutex_held(record)) : nullptr;
}
