// tracercore_dispatch.cpp -- the road of one trace event, from the interpreter to the function that
// treats its kind (tracercore_events.cpp).
// People leave the debugger on, so an event that cannot matter must cost next to nothing. Each kind
// has a test that says "nothing can come of this" from a few loads; only what it lets through
// builds a context and goes the long way. The tests decide nothing by themselves: taking the long
// way instead is always right and has the same outcome.
#include "tracercore.h"

#include <string.h>

#include "tracercore_internal.h"

// ---- Idle calls ----

int time_for_idle_call(int check_line_count) {
    if (!gSelf.tracing || gSelf.idling || gSelf.idle_period == 0) {
        return 0;
    }
    if (check_line_count && ++gSelf.idle_instruction_count <= gSelf.idle_instruction_threshold) {
        return 0;
    }
    // The server is on its way out, too, once the interpreter is.
    return get_ticks() >= gSelf.idle_time_threshold && gPy._Py_IsFinalizing() == 0;
}

// ---- Calls into the debug server ----

static PyObject* call_with_arguments(PyObject* callback, PyObject* a, PyObject* b) {
    if (a == nullptr) {
        tCoreUnlock unlocked;
        return gPy.PyObject_CallObject(callback, nullptr);
    }
    return b == nullptr ? do_one_arg_call(callback, a) : do_two_arg_call(callback, a, b);
}

bool call_server(const char* failure, PyObject* callback, PyObject* a, PyObject* b) {
    tMaybeSavedErrno keep_errno;
    tRecursionHeadroom room(kRecursionHeadroom);
    tOwnedRef held(new_ref(callback));  // init may replace it meanwhile
    tOwnedRef result(call_with_arguments(callback, a, b));
    if (!result) {
        log_failure(failure);
    }
    return static_cast<bool>(result);
}

// ---- Events of which nothing can come ----

static PyObject* peek_frame_trace(PyFrameObject* frame) {
    return gProbed.frame_trace != -1 ? read_field<PyObject*>(frame, gProbed.frame_trace)
                                     : borrow_frame_trace(frame);
}

// Nobody is stopped, nothing waits to be done, and no log wants to hear of every event.
static bool is_process_quiet() {
    return gDPrintfFile == nullptr && gSelf.tracing && gSelf.mutex_thread_id == -1 &&
           gSelf.pending_exc_count == 0 && !gSelf.sub_language_hooks && gPy.cached_pid == gSelf.pid;
}

static bool is_thread_running_freely(const tThreadData* thread_data) {
    return thread_data->stop_frame == nullptr &&
           (gSelf.debug_thread_cb == nullptr || thread_data->debug_thread_policy > 0);
}

// A line of a watched frame (it holds a breakpoint, or was stopped in) with no breakpoint on it.
static bool is_watched_line_quiet(PyFrameObject* frame) {
    if (!is_process_quiet()) {
        return false;
    }
    const tThreadData* const thread_data = current_thread_data();
    const int line = get_frame_lineno(frame);
    if (thread_data == nullptr || !is_thread_running_freely(thread_data) ||
        !is_line_known_without_bps(&gSelf.bp_ops_data, line, frame)) {
        return false;
    }
    gSelf.stat_instructions++;
    return true;
}

static bool is_line_quiet(PyFrameObject* frame) {
    if (gSelf.pending_exc_count != 0 || time_for_idle_call(1) || gSelf.mutex_thread_id != -1) {
        return false;
    }
    return peek_frame_trace(frame) == nullptr || is_watched_line_quiet(frame);
}

// Functions have fast locals and locals of their own; module and class bodies do not.
static constexpr int kFunctionCodeFlags = 0x0001 | 0x0002;

static bool is_function_code(PyCodeObject* code) {
    return gProbed.code_flags != -1 &&
           (read_field<int>(code, gProbed.code_flags) & kFunctionCodeFlags) == kFunctionCodeFlags;
}

// The code object was met before (its file is known, or known to be none) and holds no breakpoint.
static bool is_known_without_breakpoints(PyCodeObject* code) {
    PyObject* path = nullptr;
    PyObject* any_bps = nullptr;
    PyObject* any_bps_version = nullptr;
    if (!find_code_entry(path_table(), code, &path, &any_bps, &any_bps_version)) {
        return false;
    }
    return gSelf.bp_ops_data.userbps.numEntries == 0 ||
           (any_bps == gPy.Py_False && any_bps_version == path_table()->bp_version);
}

static bool is_naming_settled(tThreadData* thread_data, PyFrameObject* frame) {
    if (thread_data->thread_name != nullptr) {
        return true;
    }
    tOwnedFrame parent(gPy.PyFrame_GetBack(frame));
    if (!parent) {
        gPy.PyErr_Clear();  // its object could not be made; no exception is pending at a call
    }
    return parent && *unnamed_parent_slot(thread_data, parent.borrow()) == parent.borrow();
}

// A new frame that needs no trace object and has none; switches its lines off or on as needed.
static bool is_call_quiet(tThreadData* thread_data, PyFrameObject* frame) {
    if (thread_data->bot_frame == none_frame() || !has_our_trace_object(gPy.PyThreadState_Get()) ||
        peek_frame_trace(frame) != nullptr || !is_naming_settled(thread_data, frame)) {
        return false;
    }
    tOwnedCode code(gPy.PyFrame_GetCode(frame));
    if (!code || !is_function_code(code.borrow()) || !is_known_without_breakpoints(code.borrow())) {
        return false;
    }
    if (is_frame_trace_lines_supported()) {
        set_frame_trace_lines(frame, are_all_lines_wanted());
    }
    return true;
}

static bool asks_who_prints() {
    return gSelf.exception_mode == 4 || gSelf.exception_mode == 5;
}

static bool is_return_quiet(tThreadData* thread_data, PyFrameObject* frame) {
    if (frame == thread_data->bot_frame || frame == thread_data->return_frame ||
        gSelf.exc_data.exc_info_for_frame != nullptr || asks_who_prints()) {
        return false;
    }
    forget_unnamed_parent(thread_data, frame);
    return true;
}

static bool is_exception_quiet(const tThreadData* thread_data, PyFrameObject* frame) {
    if (gSelf.exception_mode == 1 || asks_who_prints() || gSelf.always_stop_excepts != nullptr ||
        frame == thread_data->bot_frame) {
        return false;
    }
    gSelf.exc_data.to_be_ignored = ignored_top_level_exception(frame);
    return true;
}

static bool is_event_quiet(PyFrameObject* frame, int what) {
    if (!is_process_quiet()) {
        return false;
    }
    tThreadData* const thread_data = current_thread_data();
    if (thread_data == nullptr || !is_thread_running_freely(thread_data)) {
        return false;
    }
    const bool quiet = what == kTraceCall        ? is_call_quiet(thread_data, frame)
                       : what == kTraceReturn    ? is_return_quiet(thread_data, frame)
                       : what == kTraceException ? is_exception_quiet(thread_data, frame)
                                                 : false;
    if (!quiet || time_for_idle_call(1)) {
        return false;
    }
    gSelf.stat_instructions++;
    return true;
}

// ---- The long way ----

// A breakpoint change elsewhere left this thread to look at its own stack again. 0, or -1.
[[gnu::noinline]] static int update_f_trace_if_scheduled() {
    tThreadData* const thread_data = current_thread_data();
    if (thread_data == nullptr || !thread_data->need_f_trace_update) {
        return 0;
    }
    tRecursionHeadroom room(kRecursionHeadroom);
    return update_all_f_trace_in_thread(gPy.PyThreadState_Get(), thread_data) == 0 ? 0 : -1;
}

static bool raise_pending_exception(tThreadData* thread_data) {
    if (gSelf.pending_exc_count == 0 || thread_data->pending_exc == nullptr) {
        return false;
    }
    tOwnedRef exc(thread_data->pending_exc);
    thread_data->pending_exc = nullptr;
    gSelf.pending_exc_count--;
    DPRINTF(kLogCore, "Raising pending exception: %p\n", static_cast<void*>(exc.borrow()));
    if (!gPy.PyErr_GivenExceptionMatches(exc.borrow(), gPy.PyExc_BaseException)) {
        // Python 2 would take it and then lose its way in the program's handlers.
        gPy.PyErr_SetString(gPy.PyExc_TypeError, "exceptions must derive from BaseException");
    } else if (is_instance_of(exc.borrow(), gPy.PyType_Type_ptr)) {
        gPy.PyErr_SetObject(exc.borrow(), nullptr);  // a class: the interpreter makes the instance
    } else {
        gPy.PyErr_SetObject(borrow_type(exc.borrow()), exc.borrow());
    }
    return true;
}

static bool is_to_be_dispatched(tThreadData* thread_data) {
    if (gSelf.mutex_thread_id == thread_data->thread_id) {
        DPRINTF(kLogCore, "recursive c_dispatch\n");
        return false;
    }
    if (!gSelf.debug_all_threads && gSelf.mutex_thread_id != -1) {
        DPRINTF(kLogCore, "ignoring thread in c_dispatch\n");
        return false;
    }
    if (!__should_debug_thread(thread_data)) {
        DPRINTF(kLogCore, "ignore thread by policy\n");
        return false;
    }
    return true;
}

static void take_tracer_off_thread(tThreadData* thread_data) {
    PyThreadState* const tstate = gPy.PyThreadState_Get();
    remove_tracer_from_frames(tstate);
    if (!thread_data->tstate_trace_function_set) {
        return;
    }
    const bool was_tracing = gSelf.tracing != 0;
    thread_data->tstate_trace_function_set = 0;
    if (set_thread_state_trace_cfunc(tstate, nullptr, nullptr) != 0) {
        DPRINTF(kLogCore,
                "Unable to set tracer in tstate %p, current tstate is %p\n",
                static_cast<void*>(tstate),
                static_cast<void*>(gPy.PyThreadState_Get()));
    }
    if (gNoInterpreterLock && !was_tracing && gSelf.tracing) {
        // Another thread has started tracing while this one waited for all to halt, and perhaps we
        // have just switched the interpreter's events off again.
        set_tstate_trace_function(tstate, thread_data);
    }
}

static int dispatch_with_curr_frame(tDispatchCtx* ctx) {
    tThreadData* const thread_data = ctx->thread_data;
    PyFrameObject* const saved_frame = thread_data->curr_frame;
    thread_data->curr_frame = static_cast<PyFrameObject*>(new_ref(ctx->frame));
    const int result = inner_dispatch(ctx);
    if (ctx->stop_trace || !gSelf.tracing) {
        take_tracer_off_thread(thread_data);
    }
    set_owned(&thread_data->curr_frame, saved_frame);
    return result;
}

static int dispatch_to_thread(tDispatchCtx* ctx) {
    if (raise_pending_exception(ctx->thread_data)) {
        return -1;
    }
    return is_to_be_dispatched(ctx->thread_data) ? dispatch_with_curr_frame(ctx) : 0;
}

[[gnu::noinline]] static int full_dispatch(PyFrameObject* frame, int what, PyObject* arg) {
    if (gPy.cached_pid != gSelf.pid) {
        return 0;
    }
    tMaybeSavedErrno keep_errno;
    tDispatchCtx ctx = {};
    ctx.frame = frame;
    ctx.what = what;
    ctx.arg = arg;
    ctx.thread_data = current_thread_data();
    if (ctx.thread_data == nullptr) {
        log_failure("Failure in c_dispatch: no thread record\n");
        return 0;
    }
    tDispatchCtx* const outer_ctx = ctx.thread_data->active_dispatch_ctx;
    ctx.thread_data->active_dispatch_ctx = &ctx;
    const int result = dispatch_to_thread(&ctx);
    ctx.thread_data->active_dispatch_ctx = outer_ctx;
    if (are_breakpoints_asked(&ctx)) {
        ctx.thread_data->asked_in = nullptr;  // the next dispatch may be at the same address
    }
    if (ctx.mutex_acquired) {
        release_dbgserver_mutex(ctx.thread_data);  // may free the record
    } else {
        free_thread_data_if_unused(ctx.thread_data);
    }
    return ctx.propagate_exception ? -1 : result;
}

int c_dispatch(PyObject* /*obj*/, PyFrameObject* frame, int what, PyObject* arg) {
    if (what == kTraceLine) {
        if (gSelf.thread_f_trace_update_count != 0 && update_f_trace_if_scheduled() == -1) {
            return -1;
        }
        if (is_line_quiet(frame)) {
            return 0;
        }
    } else if (is_event_quiet(frame, what)) {
        return 0;
    }
    return full_dispatch(frame, what, arg);
}

// Without an interpreter lock start_trace leaves the others' records and stacks to themselves.
static void install_tracer_into_own_frames() {
    tThreadData* const thread_data = current_thread_data();
    PyThreadState* const tstate = gPy.PyThreadState_Get();
    if (thread_data == nullptr || thread_data->tracing || gPy.cached_pid != gSelf.pid ||
        !has_our_trace_object(tstate)) {
        return;
    }
    if (!gSelf.tracing) {
        thread_data->tstate_trace_function_set = 1;  // so that it is taken out, whoever has set it
        return;
    }
    if (!thread_data->tstate_trace_function_set) {
        return;  // the thread is exiting
    }
    tMaybeSavedErrno keep_errno;
    tHeldThreadData held(thread_data);
    tSavedError saved;
    if (!__should_debug_thread(thread_data) || !gSelf.tracing) {
        return;
    }
    initial_frame_scan();
    install_tracer_into_frames(tstate);
}

static int c_dispatch_under_core_lock(PyObject* obj,
                                      PyFrameObject* frame,
                                      int what,
                                      PyObject* arg) {
    tCoreLock lock;
    install_tracer_into_own_frames();
    return c_dispatch(obj, frame, what, arg);
}

Py_tracefunc dispatch_function() {
    return gNoInterpreterLock ? c_dispatch_under_core_lock : c_dispatch;
}

// ---- Inside ----

static void run_idle_callback(tDispatchCtx* ctx) {
    if (!dispatch_ctx_acquire_mutex(ctx)) {
        return;
    }
    gSelf.idling = 1;
    DPRINTF(kLogCore, "Calling idle cb\n");
    call_server("Exception raised by idle callback\n", gSelf.idle_cb);
    gSelf.idling = 0;
    gSelf.idle_instruction_count = 0;
    gSelf.idle_time_threshold = get_ticks() + gSelf.idle_period;
}

using tDispatchEvent = int (*)(tDispatchCtx* ctx);
static constexpr tDispatchEvent kDispatchEvent[] = {
    dispatch_call,       // kTraceCall
    dispatch_exception,  // kTraceException
    dispatch_line,       // kTraceLine
    dispatch_return,     // kTraceReturn
};

int inner_dispatch(tDispatchCtx* ctx) {
    gSelf.stat_instructions++;
    if (gSelf.mutex_thread_id != -1 && !dbgserver_mutex_held(ctx->thread_data)) {
        DPRINTF(kLogCore,
                "Aquiring dbgserver mutex to stop thread %d\n",
                static_cast<int>(ctx->thread_data->thread_id));
        if (!dispatch_ctx_acquire_mutex(ctx)) {
            return 0;
        }
    }
    if (!gSelf.tracing) {
        DPRINTF(kLogCore, "IDLE STOPPED TRACER\n");
        ctx->stop_trace = 1;
        return 0;
    }
    if (time_for_idle_call(1)) {
        run_idle_callback(ctx);
    }
    const bool is_known = ctx->what >= kTraceCall && ctx->what <= kTraceReturn;
    return is_known ? kDispatchEvent[ctx->what](ctx) : 0;
}

// ---- The Python-level protocol ----

// Only the first letter of the event counts, so that every kind of call is one.
static int event_of_text(const char* text) {
    static constexpr char kLetters[] = {'c', 'e', 'l', 'r'};  // in the order of tTraceEvent
    const void* const found = memchr(kLetters, text[0], sizeof(kLetters));
    return found == nullptr ? -1 : static_cast<int>(static_cast<const char*>(found) - kLetters);
}

PyObject* _tracer_trace_dispatch(PyObject* self, PyObject* args) {
    PyObject* frame = nullptr;
    const char* event = nullptr;
    PyObject* arg = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "OsO", &frame, &event, &arg)) {
        return nullptr;
    }
    const int what = event_of_text(event);
    if (what != -1 && is_frame(frame) && gSelf.trace_function != nullptr &&
        c_dispatch(self, static_cast<PyFrameObject*>(frame), what, arg) != 0) {
        return gPy.PyErr_Occurred() != nullptr ? nullptr : new_ref(gPy.Py_None);
    }
    if (gSelf.trace_function == nullptr) {
        return new_ref(gPy.Py_None);
    }
    // Python's own trampoline led here; from now on the interpreter calls us directly.
    if (has_our_trace_object(gPy.PyThreadState_Get())) {
        gPy.PyEval_SetTrace(dispatch_function(), gSelf.trace_function);
    }
    return new_ref(gSelf.trace_function);
}
