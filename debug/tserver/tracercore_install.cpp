// tracercore_install.cpp -- switching tracing on and off, and keeping each frame's f_trace and
// f_trace_lines in step with where the program may have to stop. A frame without a trace object is
// one whose lines cost nothing but the fast path of the dispatch.
#include "tracercore.h"

#include "tracercore_internal.h"

// ---- One frame ----

// The trace object that the frame has to have: ours, null for none.
static PyObject* wanted_trace(PyFrameObject* frame, tThreadData* thread_data) {
    if (thread_data->stop_frame == frame || thread_data->stop_frame == none_frame()) {
        return gSelf.trace_function;
    }
    // -1, a failure, means "maybe": better a slow frame than a missed breakpoint.
    if (tracer_any_bps(&gSelf.bp_ops_data, frame) != 0) {
        gPy.PyErr_Clear();
        return gSelf.trace_function;
    }
    if (thread_data->sub_language_hook != nullptr &&
        __tracer_sub_language_get_frame_category(thread_data, frame) >= 0) {
        return gSelf.trace_function;
    }
    return nullptr;
}

static int update_frame_trace_lines(PyFrameObject* frame, tThreadData* thread_data, bool traced) {
    if (!is_frame_trace_lines_supported()) {
        return 0;
    }
    const bool others_stopped = gSelf.mutex_thread_id != -1 && !dbgserver_mutex_held(thread_data);
    return set_frame_trace_lines(frame, are_all_lines_wanted() || others_stopped || traced);
}

int update_f_trace(PyFrameObject* frame, tThreadData* thread_data) {
    PyObject* const trace = wanted_trace(frame, thread_data);
    DPRINTF(kLogCore,
            "Setting f_trace in frame %p to %p -- %s\n",
            static_cast<void*>(frame),
            static_cast<void*>(trace),
            get_dprintf_frame_str1(frame));
    set_frame_trace(frame, trace);
    return update_frame_trace_lines(frame, thread_data, trace != nullptr);
}

// ---- A stack ----

void forget_scheduled_update(tThreadData* thread_data) {
    thread_data->need_f_trace_update = 0;
    if (thread_data->f_trace_update_counted) {
        thread_data->f_trace_update_counted = 0;
        gSelf.thread_f_trace_update_count--;
    }
}

int update_all_f_trace_in_stack(PyFrameObject* frame, tThreadData* thread_data) {
    tHeldThreadData held(thread_data);  // breakpoints may be looked for with the server's help
    int failed = 0;
    tOwnedFrame current(static_cast<PyFrameObject*>(new_ref(frame)));
    while (current) {
        if (update_f_trace(current.borrow(), thread_data) == -1) {
            failed = 1;
            log_failure("Failure in update_all_f_trace_in_stack()\n");
        }
        current.reset(get_frame_back(current.borrow()));
    }
    forget_scheduled_update(thread_data);
    return failed;
}

int update_all_f_trace_in_thread(PyThreadState* tstate, tThreadData* thread_data) {
    tOwnedFrame frame(get_thread_state_frame(tstate));
    return update_all_f_trace_in_stack(frame.borrow(), thread_data);
}

// ---- All stacks ----

// From 3.12 on each interpreter may have a lock of its own, and the interpreter's function makes
// objects even for the frames that others run at this moment, which wrecks the memory of both.
static bool may_others_run() {
    using tGet = PyInterpreterState* (*)();
    if (!version_at_least(3, 12) || gNoInterpreterLock) {  // without the lock it halts all threads
        return false;
    }
    const auto head = reinterpret_cast<tGet>(XPy_LookupPythonFunction("PyInterpreterState_Head"));
    const auto main = reinterpret_cast<tGet>(XPy_LookupPythonFunction("PyInterpreterState_Main"));
    return head != nullptr && main != nullptr && head() != main();  // the head is the newest one
}

// What the interpreter's function would say of the threads of this interpreter.
static PyObject* get_frames_of_this_interpreter() {  // new ref or null
    tOwnedRef frames(gPy.PyDict_New());
    for (PyThreadState* tstate = borrow_first_thread_state(); tstate != nullptr && frames;
         tstate = gPy.PyThreadState_Next(tstate)) {
        tOwnedFrame frame(get_thread_state_frame(tstate));
        tOwnedRef number(
            gPy.PyLong_FromLongLong(static_cast<long long>(get_thread_state_thread_id(tstate))));
        if (frame && (!number ||
                      gPy.PyDict_SetItem(frames.borrow(), number.borrow(), frame.borrow()) != 0)) {
            return nullptr;
        }
    }
    return frames.give_away();
}

static PyObject* call_function_for_current_frames() {  // new ref or null
    tOwnedRef function(new_ref(gPy.PySys_GetObject("_current_frames")));
    return function ? gPy.PyObject_CallObject(function.borrow(), nullptr) : nullptr;
}

PyObject* call_sys_current_frames() {
    tOwnedRef frames(may_others_run() ? get_frames_of_this_interpreter()
                                      : call_function_for_current_frames());
    if (!frames || !is_instance_of(frames.borrow(), gPy.PyDict_Type_ptr)) {
        log_failure("Failure in call_sys_current_frame()\n");
        return nullptr;
    }
    return frames.give_away();
}

// Records are known by their addresses there, and looking for breakpoints may reset the tracer.
static bool is_record_in_table(const tThreadData* thread_data) {
    CUt_HashSearch search;
    CUt_HashEntry* entry = CU_FirstHashEntry(&gSelf.thread_data, &search);
    while (entry != nullptr && entry->clientData != thread_data) {
        entry = CU_NextHashEntry(&search);
    }
    return entry != nullptr;
}

int sync_update_f_trace_in_all_threads() {
    if (gNoInterpreterLock) {
        return 0;  // each thread does it in its next line
    }
    tOwnedRef frames(call_sys_current_frames());
    tOwnedRef records(frames ? get_thread_data_by_outer_frame_dict(&gSelf.thread_data) : nullptr);
    if (!records) {
        log_failure("Failure in sync_update_f_trace_in_all_threads()\n");
        return -1;
    }
    Py_ssize_t pos = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    while (gPy.PyDict_Next(frames.borrow(), &pos, &key, &value)) {
        if (!is_frame(value)) {
            continue;
        }
        PyFrameObject* const frame = static_cast<PyFrameObject*>(value);
        tThreadData* const thread_data = find_thread_data_from_frame(frame, records.borrow());
        if (thread_data != nullptr && is_record_in_table(thread_data)) {
            update_all_f_trace_in_stack(frame, thread_data);
        }
    }
    return 0;
}

// Threads whose stacks may change before they look again do it once more at their next line.
static void schedule_update_in_other_threads(const tThreadData* current) {
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&gSelf.thread_data, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        tThreadData* const thread_data = static_cast<tThreadData*>(entry->clientData);
        if (thread_data != current && thread_data->tracing &&
            !thread_data->f_trace_update_counted) {
            thread_data->need_f_trace_update = 1;
            thread_data->f_trace_update_counted = 1;
            gSelf.thread_f_trace_update_count++;
        }
    }
}

int schedule_f_trace_update() {
    if (!gSelf.tracing) {
        return 0;  // start_trace looks at every frame anyway
    }
    // What it could not see it leaves to the threads, which look at their stacks by themselves.
    const int result = sync_update_f_trace_in_all_threads();
    tThreadData* const current = current_thread_data();
    if (current == nullptr) {
        return -1;
    }
    if (current->tracing) {
        update_all_f_trace_in_thread(gPy.PyThreadState_Get(), current);
    }
    schedule_update_in_other_threads(current);
    return result;
}

void update_f_trace_lines_in_other_leaf_frames() {
    if (gNoInterpreterLock) {
        return;  // without the lock all frames send their lines anyway
    }
    tTracingOff quiet(gPy.PyThreadState_Get());
    tSavedError saved;
    tOwnedFrame own(get_thread_state_frame(gPy.PyThreadState_Get()));
    tOwnedRef frames(call_sys_current_frames());
    if (!frames) {
        log_failure("Failure in update_trace_lines_in_other_leaf_frames()\n");
        return;
    }
    const bool stopped = gSelf.mutex_thread_id != -1;
    Py_ssize_t pos = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    while (gPy.PyDict_Next(frames.borrow(), &pos, &key, &value)) {
        PyFrameObject* const frame = static_cast<PyFrameObject*>(value);
        if (frame == own.borrow() || !is_frame(frame)) {
            continue;
        }
        if (set_frame_trace_lines(frame, stopped || borrow_frame_trace(frame) != nullptr) == -1) {
            log_failure("Failure in update_trace_lines_in_other_leaf_frames()\n");
        }
    }
}

// ---- One thread ----

int set_tstate_trace_function(PyThreadState* tstate, tThreadData* thread_data) {
    if (thread_data->tstate_trace_function_set) {
        return 0;
    }
    const int result =
        set_thread_state_trace_cfunc(tstate, dispatch_function(), gSelf.trace_function);
    thread_data->tstate_trace_function_set = result == 0;
    if (result != 0) {
        DPRINTF(kLogCore,
                "Unable to set tracer in tstate %p, current tstate is %p\n",
                static_cast<void*>(tstate),
                static_cast<void*>(gPy.PyThreadState_Get()));
    }
    return result;
}

static PyFrameObject* get_outermost_real_frame(PyFrameObject* innermost) {  // new ref or null
    tOwnedFrame outermost;
    tOwnedFrame frame(static_cast<PyFrameObject*>(new_ref(innermost)));
    while (frame) {
        tOwnedFrame back(get_frame_back(frame.borrow()));
        if (is_frame(frame.borrow())) {
            outermost.reset(frame.give_away());
        }
        frame.reset(back.give_away());
    }
    return outermost.give_away();
}

void install_tracer_into_frames(PyThreadState* tstate) {
    tThreadData* const thread_data = get_other_thread_data(&gSelf.thread_data, tstate);
    if (thread_data == nullptr) {
        log_failure("Failure in install_tracer_into_frames()\n");
        return;
    }
    tHeldThreadData held(thread_data);
    // Taken now: what follows may let the thread run on, and end.
    tOwnedFrame innermost(get_thread_state_frame(tstate));
    PyFrameObject* const bottom = get_outermost_real_frame(innermost.borrow());
    set_owned(&thread_data->curr_frame, static_cast<PyFrameObject*>(new_ref(gPy.Py_None)));
    set_owned(&thread_data->bot_frame,
              bottom != nullptr ? bottom : static_cast<PyFrameObject*>(new_ref(gPy.Py_None)));
    set_owned<PyObject>(&thread_data->thread_name, nullptr);
    forget_unnamed_parents(thread_data);
    DPRINTF(kLogCore,
            "install_tracer_into_frames(): thread_data->bot_frame = %p (Py_None is %p)\n",
            static_cast<void*>(thread_data->bot_frame),
            static_cast<void*>(gPy.Py_None));
    update_all_f_trace_in_stack(innermost.borrow(), thread_data);
    thread_data->tracing = 1;
}

static void remove_tracer_from_frame(PyFrameObject* frame) {
    if (!is_frame(frame)) {
        return;
    }
    if (borrow_frame_trace(frame) == gSelf.trace_function) {
        DPRINTF(kLogCore, "\tremoving from thread state; frame = %p\n", static_cast<void*>(frame));
        set_frame_trace(frame, nullptr);
    }
    // Whoever traces this frame after us gets its lines.
    if (set_frame_trace_lines(frame, 1) == -1) {
        gPy.PyErr_Clear();
    }
}

void remove_tracer_from_frames(PyThreadState* tstate) {
    tOwnedFrame frame(get_thread_state_frame(tstate));
    tThreadData* const thread_data = get_other_thread_data(&gSelf.thread_data, tstate);
    if (thread_data != nullptr) {
        thread_data->tracing = 0;
        DPRINTF(kLogCore, "Setting thread_data->tracing to FALSE\n");
    }
    while (frame) {
        remove_tracer_from_frame(frame.borrow());
        frame.reset(get_frame_back(frame.borrow()));
    }
}

// ---- Start ----

static PyObject* get_loaded_modules() {  // new ref: an iterable of modules; null with an exception
    PyObject* const modules = gPy.PySys_GetObject("modules");
    if (modules == nullptr) {
        return nullptr;
    }
    return gPy.PyMapping_Values != nullptr ? gPy.PyMapping_Values(modules)
                                           : gPy.PyObject_CallMethod(modules, "values", nullptr);
}

static void register_each_module(PyObject* modules) {
    tOwnedRef iter(gPy.PyObject_GetIter(modules));
    while (iter) {
        tOwnedRef module(gPy.PyIter_Next(iter.borrow()));
        if (!module) {
            return;
        }
        if (is_instance_of(module.borrow(), gPy.PyModule_Type_ptr)) {
            register_module_direct(module.borrow());
            if (gPy.PyErr_Occurred() != nullptr) {
                log_failure("Failure in initial_module_scan\n");
            }
        }
    }
}

// The script may run as a code object that no loaded module names.
static void resolve_script_name() {
    PyObject* const argv = gPy.PySys_GetObject("argv");
    if (argv == nullptr || !is_instance_of(argv, gPy.PyList_Type_ptr) ||
        gPy.PyList_Size(argv) < 1) {
        return;
    }
    tOwnedRef script(new_ref(gPy.PyList_GetItem(argv, 0)));
    if (!is_native_string(script.borrow())) {
        return;
    }
    const char* const text = _pystring_to_c_string(script.borrow());
    if (text == nullptr || *text == '\0') {
        return;
    }
    const char* const path =
        __resolve_module_full_path(path_table(), nullptr, script.borrow(), nullptr, 0);
    __tracer_resolve_bp_filenames(&gSelf.bp_ops_data, path);
}

static void log_count_of_modules(PyObject* modules) {
    const Py_ssize_t count = gPy.PySequence_Length(modules);
    if (count == -1) {
        gPy.PyErr_Clear();  // the scan, which calls back, is not to begin with an exception pending
    }
    do_dprintf(
        kLogCore, "INITIAL MODULE SCAN: %i PREVIOUSLY LOADED MODULES\n", static_cast<int>(count));
}

void initial_module_scan() {
    tTracingOff quiet(gPy.PyThreadState_Get());
    tOwnedRef modules(get_loaded_modules());
    if (modules) {
        if (gDPrintfFile != nullptr) {
            log_count_of_modules(modules.borrow());
        }
        register_each_module(modules.borrow());
        resolve_script_name();
    }
    if (!modules || gPy.PyErr_Occurred() != nullptr) {
        log_failure("Failure in initial_module_scan\n");
    }
}

// False = failed (logged): the scan ends.
static bool scan_frame(PyFrameObject* frame) {
    if (!is_frame(frame) || is_internal_frame(frame) || !is_module_toplevel_frame(frame)) {
        return true;
    }
    if (__tracer_top_level_call(frame) != -1) {
        return true;
    }
    log_failure("Failure in initial_frame_scan\n");
    return false;
}

void initial_frame_scan() {
    bool going_on = true;
    for_each_thread_state([&going_on](PyThreadState* tstate) {
        tOwnedFrame frame(going_on ? get_thread_state_frame(tstate) : nullptr);
        while (frame && going_on) {
            going_on = scan_frame(frame.borrow());
            frame.reset(get_frame_back(frame.borrow()));
        }
    });
}

static void start_tracing_thread(PyThreadState* tstate) {
    tThreadData* const thread_data = get_other_thread_data(&gSelf.thread_data, tstate);
    if (thread_data == nullptr) {
        log_failure("Failure in start_tracing_thread()\n");
        return;
    }
    if (set_tstate_trace_function(tstate, thread_data) != 0 && is_thread_state_alive(tstate)) {
        thread_data->tstate_trace_function_set =
            move_trace_cfunc_into_thread(tstate, dispatch_function(), gSelf.trace_function);
    }
    if (is_thread_state_alive(tstate)) {
        install_tracer_into_frames(tstate);
    }
}

// 3.12 and later have a function for all threads at once, and offer no other for foreign ones.
// Without an interpreter lock a thread may end while that walks over it, which crashes.
static bool has_function_for_all_threads() {
    return version_at_least(3, 12) && !gNoInterpreterLock;
}

static void enter_all_threads(void* /*arg*/) {
    for (PyThreadState* tstate = borrow_first_thread_state(); tstate != nullptr;
         tstate = gPy.PyThreadState_Next(tstate)) {
        get_other_thread_data(&gSelf.thread_data, tstate);
    }
}

// Each looks after its own frames in its next event.
static void set_trace_of_others_without_lock(Py_tracefunc func,
                                             PyObject* obj,
                                             const PyObject* from) {
    const tThreadStates list = list_all_thread_states();
    for (size_t i = 0; i < list.count && gSelf.tracing == (func != nullptr); i++) {
        if (!move_trace_cfunc_into_thread(list.states[i], func, obj, from)) {
            continue;
        }
        tThreadData* const thread_data = find_thread_data(&gSelf.thread_data, list.states[i]);
        if (thread_data != nullptr) {
            thread_data->tstate_trace_function_set = func != nullptr;
        }
    }
    free(list.states);
}

static void start_tracing_all_threads() {
    if (gNoInterpreterLock) {
        call_while_others_halt(enter_all_threads, nullptr);
        set_trace_of_others_without_lock(dispatch_function(), gSelf.trace_function, nullptr);
    }
    if (has_function_for_all_threads()) {
        gPy.PyEval_SetTraceAllThreads(c_dispatch, gSelf.trace_function);
        for_each_thread_state([](PyThreadState* tstate) {
            tThreadData* const thread_data = get_other_thread_data(&gSelf.thread_data, tstate);
            if (thread_data != nullptr) {
                thread_data->tstate_trace_function_set = 1;
            }
        });
    }
    for_each_thread_state(start_tracing_thread);
}

void install_start_thread_hooks(int install) {
    if (gSelf.install_thread_hooks_cb == nullptr) {
        return;  // nobody has called init
    }
    tOwnedRef flag(new_int(install));
    if (!flag) {
        gPy.PyErr_SetString(gPy.PyExc_MemoryError, "Out of memory");
        return;
    }
    tTracingOff quiet(gPy.PyThreadState_Get());  // the debug server's own code: nothing to stop in
    tOwnedRef callback(new_ref(gSelf.install_thread_hooks_cb));
    tOwnedRef result(do_one_arg_call(callback.borrow(), flag.borrow()));
    if (!result && gPy.PyErr_Occurred() == nullptr) {
        gPy.PyErr_SetString(gPy.PyExc_MemoryError, "Out of memory");
    }
}

static bool is_interpreter_supported() {
    if (gPy.tstate_offsets.tracing != -1 && gPy.tstate_offsets.c_traceobj != -1) {
        return true;
    }
    gPy.PyErr_Format(gPy.PyExc_RuntimeError,
                     "tracing is not supported on Python %d.%d: the layout of its thread state is "
                     "not known",
                     gPy.major_version,
                     gPy.minor_version);
    return false;
}

int __tracer_start_trace() {
    DPRINTF(kLogCore, "START TRACING\n");
    if (gSelf.tracing) {
        return 1;
    }
    if (!is_interpreter_supported()) {
        return 0;
    }
    update_interpreter_lock();
    gSelf.stat_instructions = 0;
    gSelf.tracing = 1;
    initial_module_scan();
    initial_frame_scan();
    if (!gSelf.tracing) {
        return 1;  // import_cb has thought better of it
    }
    start_tracing_all_threads();
    tThreadData* const thread_data = current_thread_data();
    if (thread_data != nullptr) {
        set_tstate_trace_function(gPy.PyThreadState_Get(), thread_data);
    }
    install_start_thread_hooks(1);
    update_eval_frame();
    if (gSelf.tracing) {
        start_idle_thread(&gSelf.global_idle_thread_data);
    }
    return 1;
}

// ---- Stop ----

static void stop_tracing_thread(PyThreadState* tstate) {
    tThreadData* const thread_data = get_other_thread_data(&gSelf.thread_data, tstate);
    if (thread_data == nullptr) {
        log_failure("Failure in stop_tracing_thread()\n");
        return;
    }
    if (has_function_for_all_threads()) {
        thread_data->tstate_trace_function_set = 0;
    } else if (!gNoInterpreterLock) {
        // deliberate: a thread that runs on gets our function once more, and its next event, which
        // finds tracing off, takes the function out from within.
        set_tstate_trace_function(tstate, thread_data);
    }
    if (is_thread_state_alive(tstate)) {
        remove_tracer_from_frames(tstate);
    }
}

static void stop_tracing_current_thread() {
    PyThreadState* const tstate = gPy.PyThreadState_Get();
    tThreadData* const thread_data = find_thread_data(&gSelf.thread_data, tstate);
    if (thread_data != nullptr && thread_data->tstate_trace_function_set) {
        set_thread_state_trace_cfunc(tstate, nullptr, nullptr);
        thread_data->tstate_trace_function_set = 0;
    }
}

// Each takes the trace function and its frames' trace objects out in its next event.
static void forget_tracing_of_others() {
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&gSelf.thread_data, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        tThreadData* const thread_data = static_cast<tThreadData*>(entry->clientData);
        thread_data->tracing = 0;
    }
}

static bool set_trace_of_other_thread(PyThreadState* tstate, Py_tracefunc func, PyObject* obj) {
    return set_thread_state_trace_cfunc(tstate, func, obj) == 0 ||
           move_trace_cfunc_into_thread(tstate, func, obj);
}

// A thread that runs no Python code, or a loop without calls, would keep our function for long, and
// before 3.10 every thread is slower as long as one has it.
static void take_tracer_off_running_thread(PyThreadState* tstate) {
    tThreadData* const thread_data = find_thread_data(&gSelf.thread_data, tstate);
    if (thread_data != nullptr && thread_data->tstate_trace_function_set &&
        has_our_trace_object(tstate) && set_trace_of_other_thread(tstate, nullptr, nullptr)) {
        thread_data->tstate_trace_function_set = 0;
    }
}

static void stop_tracing_all_threads() {
    const bool was_tracing = gSelf.tracing != 0;
    gSelf.tracing = 0;
    if (!was_tracing && gNoInterpreterLock) {
        set_trace_of_others_without_lock(nullptr, nullptr, gSelf.trace_function);
    }
    if (!was_tracing) {
        for_each_thread_state(take_tracer_off_running_thread);
        return;
    }
    if (has_function_for_all_threads()) {
        gPy.PyEval_SetTraceAllThreads(nullptr, nullptr);
    }
    for_each_thread_state(stop_tracing_thread);
    if (gNoInterpreterLock) {
        forget_tracing_of_others();
    }
    stop_tracing_current_thread();
}

void stop_trace_without_callback() {
    stop_tracing_all_threads();
    stop_idle_thread(&gSelf.global_idle_thread_data);
}

void __tracer_stop_trace() {
    DPRINTF(kLogCore, "in __tracer_stop_trace()\n");
    stop_tracing_all_threads();
    install_start_thread_hooks(0);
    stop_idle_thread(&gSelf.global_idle_thread_data);
}

// ---- Module functions ----

static bool require_init() {
    if (gSelf.trace_module != nullptr) {
        return true;
    }
    gPy.PyErr_SetString(gPy.PyExc_RuntimeError, "init must be called first");
    return false;
}

// None, or null when the operation left an exception pending.
static PyObject* none_unless_error() {
    return gPy.PyErr_Occurred() != nullptr ? nullptr : new_ref(gPy.Py_None);
}

PyObject* _tracer_start_trace(PyObject* /*self*/, PyObject* /*args*/) {
    if (!require_init() || !__tracer_start_trace()) {
        return nullptr;
    }
    return none_unless_error();
}

PyObject* _tracer_stop_trace(PyObject* /*self*/, PyObject* args) {
    if (!gPy.PyArg_ParseTuple(args, ":tracer_stop_trace")) {
        return nullptr;
    }
    if (gSelf.trace_module == nullptr) {
        return new_ref(gPy.Py_None);
    }
    __tracer_stop_trace();
    return none_unless_error();
}

PyObject* _tracer_get_tracing(PyObject* /*self*/, PyObject* args) {
    return gPy.PyArg_ParseTuple(args, ":get_tracing") ? new_int(gSelf.tracing) : nullptr;
}
