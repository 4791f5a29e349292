// tracercore_step.cpp -- does this event stop the program, and the commands that say where it stops
// next. A thread's stepping state is in its record: stop_frame (null = run freely, None = stop at
// the next event anywhere, a frame = stop in it), return_frame (None = none; its return stops), a
// range of lines of stop_frame that does not stop, and stop_when_exited_stop_frame.
#include "tracercore.h"

#include "tracercore_internal.h"

// ---- The decision ----

// A stop that is due anyway still counts the hits of breakpoints on its line.
static void count_breakpoint_hits(tDispatchCtx* ctx, int event_type) {
    if (are_breakpoints_asked(ctx)) {
        return;
    }
    __tracer_break_here(&gSelf.bp_ops_data, event_type, ctx->thread_data, ctx->frame, 1);
}

static bool is_in_step_over_range(tThreadData* thread_data, PyFrameObject* frame) {
    if (thread_data->step_over_lineno_start == -1) {
        return false;
    }
    const int line = get_frame_lineno(frame);
    return thread_data->step_over_lineno_start <= line && line <= thread_data->step_over_lineno_end;
}

// Up to 3.10 a generator that yields passes here as a suspended frame: nothing was left for good.
static bool is_suspended_generator_here(PyFrameObject* frame) {
    return !version_at_least(3, 11) && get_frame_suspended_generator(frame) != 0;
}

static bool stops_after_leaving_stop_frame(tDispatchCtx* ctx, int event_type) {
    tThreadData* const thread_data = ctx->thread_data;
    if (!thread_data->stop_when_exited_stop_frame) {
        return false;
    }
    if (is_suspended_generator_here(ctx->frame)) {
        thread_data->stop_when_exited_stop_frame = 0;
        return false;
    }
    // deliberate: only the event's own frame is looked at, never its callers
    if (ctx->frame == thread_data->stop_frame || ctx->frame != thread_data->bot_frame) {
        return false;
    }
    count_breakpoint_hits(ctx, event_type);
    DPRINTF(kLogCore, "Stopping because bot_frame is found before the stop frame\n");
    return true;
}

static bool stops_by_stepping_state(tDispatchCtx* ctx, int event_type) {
    tThreadData* const thread_data = ctx->thread_data;
    if (thread_data->stop_frame == nullptr) {
        DPRINTF(kLogCore, "Not stopping here because stop_frame == NULL\n");
        return false;
    }
    if (thread_data->stop_frame == none_frame()) {
        count_breakpoint_hits(ctx, event_type);
        DPRINTF(kLogCore, "Stopping here because stop_frame == None\n");
        return true;
    }
    if (ctx->frame == thread_data->stop_frame && !is_in_step_over_range(thread_data, ctx->frame)) {
        count_breakpoint_hits(ctx, event_type);
        DPRINTF(kLogCore, "Stopping here because stop_frame == current frame\n");
        return true;
    }
    return stops_after_leaving_stop_frame(ctx, event_type);
}

// An answer that cannot be had counts as yes; its exception is not the program's.
static bool is_in_implementation(tThreadData* thread_data, PyFrameObject* frame) {
    const long in_impl = __tracer_sub_language_in_impl(thread_data, frame);
    if (in_impl == -1 && gPy.PyErr_Occurred() != nullptr) {
        log_failure("__tracer_sub_language_in_impl failed\n");
    }
    return in_impl != 0;
}

int __tracer_stop_here_without_mutex(tDispatchCtx* ctx, int event_type) {
    if (gSelf.import_cb_active) {
        DPRINTF(kLogCore, "Not stopping here because import callback is active\n");
        return 0;
    }
    if (!gSelf.tracing) {
        DPRINTF(kLogCore, "Not stopping here because no longer tracing\n");
        return 0;
    }
    if (ctx->thread_data == nullptr) {
        DPRINTF(kLogInternalFailures,
                "ERROR: UNEXPECTED thread_data == NULL (while still tracing)!\n");
        return 0;
    }
    if (ctx->thread_data->sub_language_hook != nullptr) {
        if (sub_language_stop_here(ctx, event_type)) {
            DPRINTF(kLogCore, "Stopping here for sub-language\n");
            return 1;
        }
        if (!dispatch_ctx_acquire_mutex(ctx) ||
            is_in_implementation(ctx->thread_data, ctx->frame)) {
            return 0;
        }
    }
    return stops_by_stepping_state(ctx, event_type);
}

// ---- The commands ----

static PyFrameObject* new_frame_ref(PyFrameObject* frame) {
    return static_cast<PyFrameObject*>(new_ref(frame));
}

static PyFrameObject* new_none_frame() {
    return new_frame_ref(none_frame());
}

// Recomputes which frames of the calling thread are watched; the end of every command.
static PyObject* finish_command(tThreadData* thread_data) {
    if (update_all_f_trace_in_thread(gPy.PyThreadState_Get(), thread_data) == 0) {
        return new_ref(gPy.Py_None);
    }
    if (gPy.PyErr_Occurred() == nullptr) {
        gPy.PyErr_SetString(gPy.PyExc_RuntimeError, "Failed to set update_all_f_ftrace_in_thread");
    }
    return nullptr;
}

struct tStep {
    PyFrameObject* stop_frame;    // steals; null = run freely
    PyFrameObject* return_frame;  // steals; null = leave the old one
    int first_line;               // -1 = no range
    int last_line;
    int stop_when_exited;
};

// The old frames are dropped last: what they drag along may run Python code.
static PyObject* start_step(tThreadData* thread_data, const tStep& step) {
    tHeldThreadData held(thread_data);
    tOwnedFrame old_stop_frame(thread_data->stop_frame);
    tOwnedFrame old_return_frame(step.return_frame != nullptr ? thread_data->return_frame
                                                              : nullptr);
    thread_data->stop_frame = step.stop_frame;
    if (step.return_frame != nullptr) {
        thread_data->return_frame = step.return_frame;
    }
    thread_data->step_over_lineno_start = step.first_line;
    thread_data->step_over_lineno_end = step.last_line;
    thread_data->stop_when_exited_stop_frame = step.stop_when_exited;
    return finish_command(thread_data);
}

// Null with an exception set when there is no memory for a record.
static tThreadData* own_record_or_raise() {
    tThreadData* const thread_data = current_thread_data();
    if (thread_data == nullptr && gPy.PyErr_Occurred() == nullptr) {
        gPy.PyErr_SetString(gPy.PyExc_MemoryError, "Out of memory");
    }
    return thread_data;
}

PyObject* _tracer_stop(PyObject* /*self*/, PyObject* /*args*/) {
    tThreadData* const thread_data = own_record_or_raise();
    return thread_data == nullptr ? nullptr
                                  : start_step(thread_data, {new_none_frame(), nullptr, -1, -1, 0});
}

PyObject* _tracer_continue_run(PyObject* /*self*/, PyObject* /*args*/) {
    tThreadData* const thread_data = own_record_or_raise();
    return thread_data == nullptr ? nullptr
                                  : start_step(thread_data, {nullptr, new_none_frame(), -1, -1, 0});
}

PyObject* _tracer_step_into(PyObject* /*self*/, PyObject* args) {
    if (!gPy.PyArg_ParseTuple(args, ":step_into")) {
        return nullptr;
    }
    // deliberate: without a record the caller gets no exception of ours
    tThreadData* const thread_data = current_thread_data();
    return thread_data == nullptr
               ? nullptr
               : start_step(thread_data, {new_none_frame(), new_none_frame(), -1, -1, 0});
}

static PyObject* step_over_lines(tThreadData* thread_data, int first_line, int last_line) {
    PyFrameObject* const current = thread_data->curr_frame;
    return start_step(thread_data,
                      {new_frame_ref(current), new_frame_ref(current), first_line, last_line, 1});
}

PyObject* _tracer_step_over(PyObject* /*self*/, PyObject* /*args*/) {
    tThreadData* const thread_data = own_record_or_raise();
    return thread_data == nullptr ? nullptr : step_over_lines(thread_data, -1, -1);
}

PyObject* _tracer_step_over_line(PyObject* /*self*/, PyObject* /*args*/) {
    tThreadData* const thread_data = own_record_or_raise();
    if (thread_data == nullptr) {
        return nullptr;
    }
    const int line =
        is_frame(thread_data->curr_frame) ? get_frame_lineno(thread_data->curr_frame) : -1;
    return step_over_lines(thread_data, line, line);
}

PyObject* _tracer_step_over_line_range(PyObject* /*self*/, PyObject* args) {
    int first_line = -1;
    int last_line = -1;
    if (!gPy.PyArg_ParseTuple(args, "ii", &first_line, &last_line)) {
        return nullptr;
    }
    tThreadData* const thread_data = own_record_or_raise();
    return thread_data == nullptr ? nullptr : step_over_lines(thread_data, first_line, last_line);
}

static bool is_frame_or_none(PyObject* obj) {
    return is_frame(obj) || obj == gPy.Py_None;
}

// New ref; null with an exception set, its own or that of a bad answer.
static PyFrameObject* ask_hook_for_step_out_frame(PyObject* hook, PyFrameObject* current) {
    tOwnedRef answer(call_method_unlocked(hook, "_GetStepOutFrame", "O", current));
    if (answer && !is_frame_or_none(answer.borrow())) {
        gPy.PyErr_SetString(gPy.PyExc_TypeError, "_GetStepOutFrame must return a frame or None");
        return nullptr;
    }
    return static_cast<PyFrameObject*>(answer.give_away());
}

// Frame that a step out of `current` stops in: new ref, None when there is none; null with an
// exception of the sub-language hook.
static PyFrameObject* get_step_out_frame(tThreadData* thread_data, PyFrameObject* current) {
    if (thread_data->sub_language_hook != nullptr) {
        tOwnedRef hook(new_ref(thread_data->sub_language_hook));
        return ask_hook_for_step_out_frame(hook.borrow(), current);
    }
    PyFrameObject* const parent = is_frame(current) ? get_frame_back(current) : nullptr;
    return parent != nullptr ? parent : new_none_frame();
}

PyObject* _tracer_step_out(PyObject* /*self*/, PyObject* /*args*/) {
    tThreadData* const thread_data = own_record_or_raise();
    if (thread_data == nullptr) {
        return nullptr;
    }
    tHeldThreadData held(thread_data);
    tOwnedFrame current(new_frame_ref(thread_data->curr_frame));
    PyFrameObject* const target = get_step_out_frame(thread_data, current.borrow());
    if (target == nullptr) {
        return nullptr;
    }
    return start_step(thread_data, {target, current.give_away(), -1, -1, 1});
}

PyObject* _tracer_step_out_to_frame(PyObject* /*self*/, PyObject* args) {
    PyObject* frame = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "O:step_out_to_frame", &frame)) {
        return nullptr;
    }
    if (!is_frame_or_none(frame)) {
        gPy.PyErr_SetString(gPy.PyExc_TypeError, "step_out_to_frame needs a frame object");
        return nullptr;
    }
    tThreadData* const thread_data = own_record_or_raise();
    if (thread_data == nullptr) {
        return nullptr;
    }
    return start_step(
        thread_data,
        {new_frame_ref(static_cast<PyFrameObject*>(frame)), new_none_frame(), -1, -1, 1});
}

// ---- A stop that the program asks for ----

static int show_frame_to_server(tThreadData* thread_data, PyFrameObject* frame) {
    tTracingOff quiet(gPy.PyThreadState_Get());
    PyFrameObject* const saved_frame = thread_data->curr_frame;
    thread_data->curr_frame = new_frame_ref(frame);
    tRecursionHeadroom room(kRecursionHeadroom);
    tOwnedRef callback(new_ref(gSelf.line_cb));
    tOwnedRef result(do_one_arg_call(callback.borrow(), frame));
    set_owned(&thread_data->curr_frame, saved_frame);
    return result ? 0 : -1;
}

int tracer_break_at_current_line(int obtain_mutex) {
    if (gPy.cached_pid != gSelf.pid) {
        return 0;  // a forked child that is not to be debugged
    }
    PyThreadState* const tstate = gPy.PyThreadState_Get();
    adopt_current_thread(tstate);
    tThreadData* const thread_data = current_thread_data();
    tHeldThreadData held(thread_data);
    tOwnedFrame frame(get_thread_state_frame(tstate));
    if (thread_data == nullptr || !frame || gSelf.line_cb == nullptr) {
        return gPy.PyErr_Occurred() != nullptr ? -1 : 0;
    }
    if (!obtain_mutex) {
        return show_frame_to_server(thread_data, frame.borrow());
    }
    tServerLock lock(thread_data);
    return lock.held() ? show_frame_to_server(thread_data, frame.borrow()) : -1;
}

// ---- Queries ----

PyObject* _tracer_get_curr_frame(PyObject* /*self*/, PyObject* args) {
    PyObject* const id = gPy.PyTuple_GetItem(args, 0);
    if (id == nullptr) {
        return nullptr;
    }
    tThreadData* const thread_data = find_thread_data_by_id(id);
    if (thread_data != nullptr) {
        return new_ref(thread_data->curr_frame);
    }
    if (gPy.PyErr_Occurred() == nullptr) {
        gPy.PyErr_SetString(gPy.PyExc_IndexError,
                            "get_curr_frame called for unknown or terminated thread");
    }
    return nullptr;
}

PyObject* _tracer_get_thread_name(PyObject* /*self*/, PyObject* args) {
    PyObject* id = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "O:get_thread_name", &id)) {
        return nullptr;
    }
    tThreadData* const thread_data = find_thread_data_by_id(id);
    if (gPy.PyErr_Occurred() != nullptr) {
        return nullptr;
    }
    PyObject* const name = thread_data != nullptr ? thread_data->thread_name : nullptr;
    return new_ref(name != nullptr ? name : gPy.Py_None);
}

PyObject* _tracer_is_botframe(PyObject* /*self*/, PyObject* args) {
    PyObject* const frame = gPy.PyTuple_GetItem(args, 0);
    if (frame == nullptr) {
        return nullptr;
    }
    tThreadData* const thread_data = own_record_or_raise();
    return thread_data == nullptr ? nullptr : new_int(frame == thread_data->bot_frame);
}

static bool append_id(PyObject* list, PyThreadState* tstate) {
    tOwnedRef id(id_for_tstate_ptr(tstate));
    return id && gPy.PyList_Append(list, id.borrow()) == 0;
}

// Records may outlive their threads, so the interpreter's own list decides who is alive.
PyObject* _tracer_get_threads(PyObject* /*self*/, PyObject* /*args*/) {
    tOwnedRef ids(gPy.PyList_New(0));
    bool ok = static_cast<bool>(ids);
    visit_living(list_known_thread_states(), [&](PyThreadState* tstate) {
        if (ok && gSelf.trace_module != nullptr &&
            find_thread_data(&gSelf.thread_data, tstate) != nullptr) {
            ok = append_id(ids.borrow(), tstate);
        }
    });
    return ok ? ids.give_away() : nullptr;
}
