// tracercore_events.cpp -- what each kind of event means to the debugger, once it was let through.
// Each function answers for inner_dispatch: 0, with stop_trace or propagate_exception set in the
// context where tracing must end on this thread or an exception must reach the program.
#include "tracercore.h"

#include <string.h>

#include "tracercore_internal.h"

// Takes tracing off the thread at the end of this dispatch.
static int stop_tracer(tDispatchCtx* ctx, const char* message) {
    DPRINTF(kLogCore, "%s", message);
    ctx->stop_trace = 1;
    return 0;
}

// ---- Line ----

static bool stops_at_breakpoint(tDispatchCtx* ctx, tSavedError* saved) {
    if (are_breakpoints_asked(ctx) ||
        !tracer_maybe_break_here_without_mutex(&gSelf.bp_ops_data, ctx->thread_data, ctx->frame)) {
        return false;
    }
    if (!dispatch_ctx_acquire_mutex(ctx)) {
        saved->abandon();  // deliberate: the exception that was pending is dropped here
        return false;
    }
    if (!__tracer_break_here(&gSelf.bp_ops_data, kStopLine, ctx->thread_data, ctx->frame, 1)) {
        return false;
    }
    DPRINTF(kLogCore, "Stopping here for breakpoint\n");
    return true;
}

int dispatch_line(tDispatchCtx* ctx) {
    if (!gSelf.tracing) {
        return stop_tracer(ctx, "TRACER LINE STOPPED TRACER\n");
    }
    if (!is_frame(ctx->frame)) {
        return 0;
    }
    tSavedError saved;
    if (gDPrintfFile != nullptr) {
        tOwnedRef file(get_frame_filename(ctx->frame));
        do_dprintf(kLogCore,
                   "in dispatch_line: file=%s, lineno=%d\n",
                   dprint_check_pystr(file.borrow()),
                   get_frame_lineno(ctx->frame));
    }
    if (!__tracer_stop_here_without_mutex(ctx, kStopLine) && !stops_at_breakpoint(ctx, &saved)) {
        return 0;
    }
    if (!dispatch_ctx_acquire_mutex(ctx)) {
        return 0;
    }
    if (!call_server("Exception raised by line callback\n", gSelf.line_cb, ctx->frame)) {
        return stop_tracer(ctx, "TRACER LINE STOPPED TRACER\n");
    }
    return 0;
}

// ---- Call ----

enum tCallOutcome : int { kCallDone = 0, kCallFailed = -1, kCallRaises = -2 };

static void log_call(PyFrameObject* frame, PyCodeObject* code, bool is_toplevel, long thread_id) {
    tOwnedRef name(get_code_name(code));
    tOwnedRef file(get_code_filename(code));
    do_dprintf(kLogCore,
               "in call: name = %s, filename = %s, lineno = %zd, is module toplevel = %d, "
               "thread = %ld\n",
               dprint_check_pystr(name.borrow()),
               dprint_check_pystr(file.borrow()),
               static_cast<Py_ssize_t>(get_frame_lineno(frame)),
               is_toplevel ? 1 : 0,
               thread_id);
}

// Sees to it that the code object's file is known. -2 = an exception for the program.
static int ensure_path_of_code(tDispatchCtx* ctx, PyCodeObject* code, bool is_toplevel) {
    if (is_toplevel) {
        tRecursionHeadroom room(kRecursionHeadroom);
        if (__tracer_top_level_call(ctx->frame) == -1) {
            DPRINTF(kLogCore, "Exiting dispatch_call on error in __tracer_top_level_call\n");
            return kCallRaises;
        }
        return kCallDone;
    }
    if (LookupCOPathname(path_table(), code) != nullptr || gPy.PyErr_Occurred() != nullptr) {
        return kCallDone;
    }
    tRecursionHeadroom room(kRecursionHeadroom);
    __resolve_full_path_for_frame(path_table(), ctx->frame, 0);
    if (gPy.PyErr_Occurred() != nullptr) {
        return kCallRaises;
    }
    ensure_code_entry(path_table(), code);  // "<string>" and its like get no path: asked only once
    return kCallDone;
}

static void set_bottom_frame_if_none(tThreadData* thread_data, PyFrameObject* frame) {
    if (thread_data->bot_frame != none_frame()) {
        return;
    }
    set_owned(&thread_data->bot_frame, static_cast<PyFrameObject*>(new_ref(frame)));
    DPRINTF(kLogCore, "********************** SET BOT FRAME = %p\n", static_cast<void*>(frame));
}

static int dispatch_call_without_mutex(tDispatchCtx* ctx, PyCodeObject* code) {
    tThreadData* const thread_data = ctx->thread_data;
    const bool is_toplevel = is_module_toplevel_frame(ctx->frame) != 0;
    if (gDPrintfFile != nullptr) {
        log_call(ctx->frame, code, is_toplevel, thread_data->thread_id);
    }
    name_thread_after_stack(thread_data, ctx->frame);
    const int outcome = ensure_path_of_code(ctx, code, is_toplevel);
    if (outcome != kCallDone) {
        return outcome;
    }
    set_bottom_frame_if_none(thread_data, ctx->frame);
    if (gSelf.sub_language_hooks && sub_language_on_call(ctx) &&
        (!dispatch_ctx_acquire_mutex(ctx) ||
         !call_server("Exception raised by line callback\n", gSelf.line_cb, ctx->frame))) {
        return kCallFailed;
    }
    if (has_our_trace_object(gPy.PyThreadState_Get()) &&
        update_f_trace(ctx->frame, thread_data) == -1) {
        return kCallFailed;
    }
    return kCallDone;
}

int dispatch_call(tDispatchCtx* ctx) {
    if (!gSelf.tracing) {
        return stop_tracer(ctx, "TRACER CALL STOPPED TRACER\n");
    }
    if (!is_frame(ctx->frame)) {
        return 0;
    }
    tOwnedCode code(get_frame_code(ctx->frame));
    const int outcome = code ? dispatch_call_without_mutex(ctx, code.borrow()) : kCallFailed;
    if (outcome == kCallDone) {
        return 0;
    }
    DPRINTF(kLogInternalFailures, "Failure: dispatch_call_without_mutex()\n");
    if (outcome == kCallRaises && gPy.PyErr_Occurred() != nullptr) {
        DPRINTF(kLogCore, "PROPAGATING EXCEPTION INTO USER CODE\n");
        ctx->propagate_exception = 1;
        return 0;
    }
    do_dlogexception();
    gPy.PyErr_Clear();
    return stop_tracer(ctx, "TRACER CALL STOPPED TRACER\n");
}

// ---- Exception ----

static bool matches_exception(PyObject* exc_type, PyObject* types) {
    return types != nullptr && gPy.PyErr_GivenExceptionMatches(exc_type, types) != 0;
}

// Probes of the import system that end in an exception each time they run, and nobody minds.
struct tIgnoredCode {
    const char* co_name;
    bool only_outermost;
    const char* message;
};

static constexpr tIgnoredCode kIgnoredCode[] = {
    {"<frozen zipimport>", true, "  NOT STOPPING - single frame with <frozen zipimport>\n"},
    {"path_hook_for_FileFinder",
     true,
     "  NOT STOPPING - single frame in path_hook_for_FileFinder\n"},
    // deliberate: the message of the line above
    {"execusercustomize", false, "  NOT STOPPING - single frame in path_hook_for_FileFinder\n"},
};

int ignored_top_level_exception(PyFrameObject* frame) {
    DPRINTF(kLogExceptions, "entering ignored_top_level_exception()\n");
    tOwnedRef name(get_frame_code_name(frame));
    const char* const text =
        is_native_string(name.borrow()) ? _pystring_to_c_string(name.borrow()) : nullptr;
    if (text == nullptr) {
        return 0;
    }
    for (const tIgnoredCode& code : kIgnoredCode) {
        if (strcmp(text, code.co_name) == 0 &&
            (!code.only_outermost || is_outermost_frame(frame))) {
            DPRINTF(kLogExceptions, "%s", code.message);
            return 1;
        }
    }
    return 0;
}

static bool asks_who_prints() {
    return gSelf.exception_mode == 4 || gSelf.exception_mode == 5;
}

int stop_at_exception_no_filters(PyFrameObject* frame, PyObject* exc_type) {
    DPRINTF(kLogExceptions, "entering stop_at_exception_no_filters()\n");
    if (gSelf.exc_data.to_be_ignored) {
        return 0;
    }
    if (gSelf.exception_mode == 1) {
        return 1;
    }
    if (matches_exception(exc_type, gSelf.never_stop_excepts)) {
        DPRINTF(kLogExceptions, "  never stop\n");
        return 0;
    }
    tThreadData* const thread_data = current_thread_data();
    if (thread_data != nullptr && frame == thread_data->bot_frame && get_frame_iblock(frame) == 0) {
        DPRINTF(kLogExceptions, "  leaving bottom frame\n");
        thread_data->exiting_on_exception = 1;
        return 1;
    }
    if (matches_exception(exc_type, gSelf.always_stop_excepts)) {
        DPRINTF(kLogExceptions, "  always stop\n");
        return 1;
    }
    if (asks_who_prints() && frame_prints_exc(&gSelf.exc_data, frame)) {
        DPRINTF(kLogExceptions, "  frame prints\n");
        return 1;
    }
    return 0;
}

static bool is_traceback(PyObject* obj) {
    return is_instance_of(obj, gPy.PyTraceBack_Type_ptr);
}

// Frame in which the traceback ends: new ref. The event's own frame when there is no traceback.
static PyFrameObject* get_innermost_frame(PyObject* traceback, PyFrameObject* frame) {
    tOwnedRef tb(is_traceback(traceback) ? new_ref(traceback) : nullptr);
    while (tb) {
        PyObject* const next = borrow_traceback_next(tb.borrow());
        if (next == nullptr) {
            PyFrameObject* const inner = get_traceback_frame(tb.borrow());
            if (inner != nullptr) {
                return inner;
            }
            break;
        }
        tb.reset(new_ref(next));
    }
    return static_cast<PyFrameObject*>(new_ref(frame));
}

// Where an exception is reported and filtered.
struct tExcPlace {
    PyFrameObject* inner;  // borrowed
    PyObject* lineno;      // owned by the caller's guard
    bool is_translated;    // file and line come from a sub-language hook
    const char* file;      // translated file; valid while `translation` is held
    long line;
};

// Asks the hook whether a key frame's exception counts and where. 1 yes, 0 no (or it failed).
static int translate_key_frame(tThreadData* thread_data, tExcPlace* place, tOwnedRef* translation) {
    tSavedError saved;
    PyObject* const hook = thread_data->sub_language_hook;
    tOwnedRef stops(
        call_method_unlocked(hook, "_StopHere", "Oii", place->inner, kStopException, -1));
    if (!stops) {
        log_failure("Exception from _StopHere in __tracer_sub_language_get_frame_category\n");
        return 0;
    }
    if (gPy.PyObject_IsTrue(stops.borrow()) != 1) {
        return 0;
    }
    translation->reset(call_method_unlocked(hook, "_TranslateFrame", "Oi", place->inner, 1));
    tOwnedRef file(*translation ? gPy.PySequence_GetItem(translation->borrow(), 0) : nullptr);
    tOwnedRef line(file ? gPy.PySequence_GetItem(translation->borrow(), 1) : nullptr);
    place->file = file ? _pystring_to_c_string(file.borrow()) : nullptr;
    translation->reset(file.give_away());  // the answer need not keep it
    place->line = line ? static_cast<long>(int_from_object(line.borrow())) : -1;
    if (place->file == nullptr || gPy.PyErr_Occurred() != nullptr) {
        log_failure("Exception from _TranslateFrame in __tracer_sub_language_get_frame_category\n");
        return 0;
    }
    place->is_translated = true;
    return 1;
}

static bool is_reported_by_category(tThreadData* thread_data,
                                    PyObject* exc_type,
                                    tExcPlace* place,
                                    tOwnedRef* translation) {
    const int category = __tracer_sub_language_get_frame_category(thread_data, place->inner);
    if (category == 0) {
        return false;
    }
    if (category == 1) {
        return translate_key_frame(thread_data, place, translation) == 1;
    }
    return thread_data->stop_when_exited_stop_frame ||
           !matches_exception(exc_type, gPy.PyExc_StopIteration);
}

static PyObject* get_line_of_exception(PyObject* traceback, PyFrameObject* inner) {  // new ref
    PyObject* const line =
        is_traceback(traceback) ? gPy.PyObject_GetAttrString(traceback, "tb_lineno") : nullptr;
    if (line != nullptr) {
        return line;
    }
    gPy.PyErr_Clear();
    return new_int(get_frame_lineno(inner));
}

static bool is_filtered(const tExcPlace& place) {
    if (__tracer_exc_filtered_stack(
            &gSelf.exception_filters, gSelf.file_ops_data, path_table(), place.inner)) {
        return true;
    }
    if (place.is_translated) {
        tOwnedRef line(new_int(place.line));
        if (line && __tracer_exc_filtered(
                        &gSelf.exception_filters, gSelf.file_ops_data, place.file, line.borrow())) {
            return true;
        }
    }
    const char* const file = __tracer_get_full_path(path_table(), place.inner);
    const Py_ssize_t line = place.lineno != nullptr ? int_from_object(place.lineno) : -1;
    gPy.PyErr_Clear();
    return file != nullptr && __tracer_exc_filtered_hack(file, static_cast<int>(line)) != 0;
}

static PyObject* call_exception_cb(PyFrameObject* frame, PyObject* exc_info) {
    tMaybeSavedErrno keep_errno;
    tRecursionHeadroom room(kExceptionRecursionHeadroom);
    tOwnedRef callback(new_ref(gSelf.exception_cb));
    return exc_info != nullptr ? do_two_arg_call(callback.borrow(), frame, exc_info)
                               : do_one_arg_call(callback.borrow(), frame);
}

int do_exception_callback_if_not_filtered(PyFrameObject* frame, PyObject* exc_info) {
    tThreadData* const thread_data = current_thread_data();
    if (thread_data == nullptr) {
        return -1;
    }
    const bool has_info =
        is_instance_of(exc_info, gPy.PyTuple_Type_ptr) && gPy.PyTuple_Size(exc_info) >= 3;
    PyObject* const exc_type = has_info ? gPy.PyTuple_GetItem(exc_info, 0) : gPy.Py_None;
    PyObject* const traceback = has_info ? gPy.PyTuple_GetItem(exc_info, 2) : nullptr;
    tOwnedFrame inner(get_innermost_frame(traceback, frame));
    tOwnedRef lineno(get_line_of_exception(traceback, inner.borrow()));
    tOwnedRef translation;
    tExcPlace place = {inner.borrow(), lineno.borrow(), false, nullptr, -1};
    if (!is_reported_by_category(thread_data, exc_type, &place, &translation) ||
        is_filtered(place)) {
        return 0;
    }
    if (gSelf.exception_cb == nullptr) {
        return 0;  // before init
    }
    tOwnedRef result(call_exception_cb(frame, exc_info));
    return result ? 0 : -1;
}

// A failure of the callback ends tracing of the thread; its exception is not the program's.
static int report_exception(tDispatchCtx* ctx, PyObject* exc_info) {
    if (!dispatch_ctx_acquire_mutex(ctx)) {
        return 0;
    }
    DPRINTF(kLogExceptions, "  dispatched=TRUE\n");
    if (do_exception_callback_if_not_filtered(ctx->frame, exc_info) == 0) {
        return 0;
    }
    log_failure("Exception raised by exception callback\n");
    return -1;
}

// What the frame raised, for the moment at which the exception leaves it.
static void record_exception(tDispatchCtx* ctx, bool was_reported) {
    if (gSelf.exc_data.to_be_ignored || !gSelf.tracing) {
        return;  // after the callback has ended tracing nobody would let go of the frame
    }
    const bool is_bottom = ctx->frame == ctx->thread_data->bot_frame;
    const bool prints =
        asks_who_prints() && parent_frame_prints_exc(&gSelf.exc_data, ctx->frame) != 0;
    if (!prints && (!is_bottom || get_frame_iblock(ctx->frame) != -1)) {
        return;
    }
    // None: the user has seen it already, and it is not reported again where it leaves the frame.
    PyObject* const exc_info = was_reported ? gPy.Py_None : ctx->arg;
    if (set_frame_exc_info(&gSelf.exc_data, ctx->frame, exc_info) == -1) {
        log_failure("  set_frame_exc_info failed\n");
    }
}

// A stepped-over generator came to its end: for the user that is the next line, not an exception.
static bool is_end_of_stepped_over_generator(tDispatchCtx* ctx, PyObject* exc_type) {
    return ctx->thread_data->stop_when_exited_stop_frame &&
           matches_exception(exc_type, gPy.PyExc_StopIteration) &&
           !stop_at_exception_no_filters(ctx->frame, exc_type);
}

static int stop_on_stop_iteration(tDispatchCtx* ctx) {
    DPRINTF(kLogExceptions, "  stepping onto StopIteration; reporting normal stop\n");
    if (!dispatch_ctx_acquire_mutex(ctx)) {
        return 0;
    }
    tSavedError saved;
    if (call_server("Exception raised by line callback\n", gSelf.line_cb, ctx->frame)) {
        return 0;
    }
    DPRINTF(kLogExceptions, "  failure\n");
    return -1;
}

enum tExceptionAction { kPassOn, kReport, kShowAsLine };

static tExceptionAction decide_on_exception(tDispatchCtx* ctx, PyObject* exc_type) {
    if (!__tracer_stop_here_without_mutex(ctx, kStopException)) {
        return stop_at_exception_no_filters(ctx->frame, exc_type) ? kReport : kPassOn;
    }
    return is_end_of_stepped_over_generator(ctx, exc_type) ? kShowAsLine : kReport;
}

static int treat_exception(tDispatchCtx* ctx, tExceptionAction action) {
    return action == kReport       ? report_exception(ctx, ctx->arg)
           : action == kShowAsLine ? stop_on_stop_iteration(ctx)
                                   : 0;
}

int dispatch_exception(tDispatchCtx* ctx) {
    DPRINTF(kLogExceptions, "---EXCEPTION---\n");
    if (!gSelf.tracing) {
        return stop_tracer(ctx, "TRACER EXC STOPPED TRACER\n");
    }
    const bool has_info = ctx->arg != nullptr && borrow_type(ctx->arg) == gPy.PyTuple_Type_ptr &&
                          gPy.PyTuple_Size(ctx->arg) > 0;
    if (!is_frame(ctx->frame) || !has_info) {
        DPRINTF(kLogExceptions, "  exit 0\n");
        return 0;
    }
    gSelf.exc_data.to_be_ignored = ignored_top_level_exception(ctx->frame);
    PyObject* const exc_type = gPy.PyTuple_GetItem(ctx->arg, 0);
    if (gDPrintfFile != nullptr) {
        do_dprintf(kLogExceptions, "exc_type: %s\n", get_dprintf_repr_str1(nullptr, exc_type));
    }
    const tExceptionAction action = decide_on_exception(ctx, exc_type);
    if (treat_exception(ctx, action) != 0) {
        return stop_tracer(ctx, "TRACER EXC STOPPED TRACER\n");
    }
    record_exception(ctx, action == kReport);
    return 0;
}

// ---- Return ----

// On 3.12 alone a frame that an exception leaves gives None instead of null; there the interpreter
// keeps the number of the event that it is dispatching: 2 is a return, 3 a yield, else unwinding.
enum tWhatEvent : int { kWhatReturn = 2, kWhatYield = 3 };

bool is_left_by_exception(const tDispatchCtx* ctx) {
    if (ctx->arg == nullptr) {
        return true;
    }
    if (ctx->arg != gPy.Py_None || gPy.major_version != 3 || gPy.minor_version != 12) {
        return false;
    }
    const int what_event = get_thread_state_what_event(gPy.PyThreadState_Get());
    return what_event > kWhatYield;
}

// The return event is a yield: the frame lives on.
static bool is_suspended_by_yield(PyFrameObject* frame) {
    if (!version_at_least(3, 12)) {
        return get_frame_suspended_generator(frame) != 0;
    }
    const int what_event = get_thread_state_what_event(gPy.PyThreadState_Get());
    if (what_event >= 0) {
        return what_event == kWhatYield;
    }
    DPRINTF(kLogCore, "get_thread_state_what_event() returned %i\n", what_event);
    return get_frame_suspended_generator(frame) != 0;
}

static int call_quit_cb(tDispatchCtx* ctx, const char* message) {
    DPRINTF(kLogCore, "%s", message);
    if (!dispatch_ctx_acquire_mutex(ctx)) {
        return 0;
    }
    return call_server("Exception raised by quit callback\n", gSelf.quit_cb) ? 0 : -1;
}

static void forget_bottom_frame(tThreadData* thread_data) {
    set_owned(&thread_data->bot_frame, static_cast<PyFrameObject*>(new_ref(gPy.Py_None)));
}

static PyObject* new_exc_info_of_pending_error() {  // new ref; null with an exception set
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    gPy.PyErr_Fetch(&type, &value, &traceback);
    PyObject* const info = gPy.Py_BuildValue("OOO",
                                             type != nullptr ? type : gPy.Py_None,
                                             value != nullptr ? value : gPy.Py_None,
                                             traceback != nullptr ? traceback : gPy.Py_None);
    gPy.PyErr_Restore(type, value, traceback);
    return info;
}

// Reported already where it was raised, or of a kind that never stops.
static bool is_settled(PyObject* exc_info) {
    if (exc_info == nullptr) {
        return false;
    }
    return exc_info == gPy.Py_None ||
           matches_exception(gPy.PyTuple_GetItem(exc_info, 0), gSelf.never_stop_excepts);
}

static bool is_exit_reported(tDispatchCtx* ctx, PyObject* exc_info) {
    const bool prints =
        asks_who_prints() && parent_frame_prints_exc(&gSelf.exc_data, ctx->frame) != 0;
    if (ctx->frame != ctx->thread_data->bot_frame || get_frame_iblock(ctx->frame) != -1) {
        return prints && !is_settled(exc_info);
    }
    // From 3.11 on nothing tells at the raise whether the bottom frame will catch it, so here is
    // where the exception that ends the thread is reported.
    ctx->thread_data->exiting_on_exception = 1;
    return !is_settled(exc_info);
}

static int report_exit_by_exception(tDispatchCtx* ctx) {
    tOwnedRef exc_info(new_ref(find_frame_exc_info(&gSelf.exc_data, ctx->frame)));
    if (!is_exit_reported(ctx, exc_info.borrow())) {
        return 0;
    }
    if (!exc_info) {
        exc_info.reset(new_exc_info_of_pending_error());
    }
    return report_exception(ctx, exc_info.borrow());
}

// The bottom frame is gone: the debug server may drop its connection.
static int leave_bottom_frame(tDispatchCtx* ctx, const char* message) {
    tThreadData* const thread_data = ctx->thread_data;
    forget_bottom_frame(thread_data);
    int result = 0;
    if (gSelf.autoquit && !gSelf.exc_data.to_be_ignored) {
        result = call_quit_cb(ctx, message);
    }
    thread_data->debug_thread_policy = -1;
    return result;
}

static int treat_exit_by_exception(tDispatchCtx* ctx) {
    if (report_exit_by_exception(ctx) != 0) {
        return -1;
    }
    return ctx->frame == ctx->thread_data->bot_frame ? leave_bottom_frame(ctx, "QUIT_CB 1\n") : 0;
}

static bool stops_at_return(tDispatchCtx* ctx) {
    tThreadData* const thread_data = ctx->thread_data;
    if (__tracer_sub_language_get_frame_category(thread_data, ctx->frame) == -1 &&
        ctx->frame == thread_data->return_frame) {
        if (!is_suspended_by_yield(ctx->frame)) {
            DPRINTF(kLogCore, "Stopping here because frame is return_frame\n");
            return true;
        }
        thread_data->stop_when_exited_stop_frame = 0;
        return false;
    }
    if (__tracer_stop_here_without_mutex(ctx, kStopReturn)) {
        DPRINTF(kLogCore, "Stopping here on other stopping point\n");
        return true;
    }
    return false;
}

static int stop_at_return(tDispatchCtx* ctx, bool by_exception) {
    if (!dispatch_ctx_acquire_mutex(ctx)) {
        return 0;
    }
    tSavedError saved;
    PyObject* const value = by_exception ? gPy.Py_None : ctx->arg;
    return call_server("Exception raised by return callback\n", gSelf.return_cb, ctx->frame, value)
               ? 0
               : -1;
}

static int treat_return(tDispatchCtx* ctx, bool by_exception) {
    if (stops_at_return(ctx)) {
        // deliberate: a stop leaves the bottom frame as it is
        return stop_at_return(ctx, by_exception);
    }
    if (ctx->frame != ctx->thread_data->bot_frame) {
        return 0;
    }
    const int result = leave_bottom_frame(ctx, "QUIT_CB 2\n");
    gSelf.exc_data.to_be_ignored = 0;
    return result;
}

static bool is_untraced(PyFrameObject* frame) {
    return !gSelf.tracing && borrow_frame_trace(frame) == nullptr;
}

int dispatch_return(tDispatchCtx* ctx) {
    if (gDPrintfFile != nullptr) {
        do_dprintf(
            kLogCore, "entering dispatch_return; frame = %s\n", get_dprintf_frame_str1(ctx->frame));
    }
    forget_unnamed_parent(ctx->thread_data, ctx->frame);
    if (!gSelf.tracing) {
        return stop_tracer(ctx, "TRACER RETURN STOPPED TRACER\n");
    }
    const bool by_exception = is_left_by_exception(ctx);
    if (by_exception && gSelf.exc_data.to_be_ignored) {
        return 0;
    }
    int result = by_exception ? treat_exit_by_exception(ctx) : 0;
    if (result == 0 && !is_untraced(ctx->frame)) {
        result = treat_return(ctx, by_exception);
    }
    forget_frame_exc_info(&gSelf.exc_data, ctx->frame);
    sub_language_on_return(ctx->thread_data, ctx->frame);
    return result == 0 ? 0 : stop_tracer(ctx, "TRACER RETURN STOPPED TRACER\n");
}
