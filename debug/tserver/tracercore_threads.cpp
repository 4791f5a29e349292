// tracercore_threads.cpp -- how threads come under the debugger, whether they do, and their names.
#include "tracercore.h"

#include <stdlib.h>
#include <string.h>

#include "tracercore_internal.h"

// ---- All thread states ----

static bool is_state_of_idle_thread(const PyThreadState* tstate) {
    const tSingleIdleThreadData* const idle = gSelf.global_idle_thread_data.active_single_data_ptr;
    return idle != nullptr && idle->interrupt_tstate == tstate;
}

static tThreadStates new_list(size_t size) {
    tThreadStates list = {static_cast<PyThreadState**>(malloc(size * sizeof(void*))), 0};
    if (list.states == nullptr) {
        log_failure("Failure in list_thread_states()\n");
    }
    return list;
}

static tThreadStates list_current_thread_state() {
    tThreadStates list = new_list(1);
    if (list.states != nullptr) {
        list.states[list.count++] = gPy.PyThreadState_Get();
    }
    return list;
}

static void count_thread_states(void* arg) {
    size_t* const count = static_cast<size_t*>(arg);
    for (PyThreadState* tstate = borrow_first_thread_state(); tstate != nullptr;
         tstate = gPy.PyThreadState_Next(tstate)) {
        ++*count;
    }
}

struct tStateReader {
    tThreadStates list;
    size_t room;
};

static void read_thread_states(void* arg) {
    tStateReader* const reader = static_cast<tStateReader*>(arg);
    for (PyThreadState* tstate = borrow_first_thread_state();
         tstate != nullptr && reader->list.count < reader->room;
         tstate = gPy.PyThreadState_Next(tstate)) {
        if (!is_state_of_idle_thread(tstate)) {
            reader->list.states[reader->list.count++] = tstate;
        }
    }
}

tThreadStates list_all_thread_states() {
    size_t count = 0;
    call_while_others_halt(count_thread_states, &count);
    tStateReader reader = {new_list(count + 1), count};
    if (reader.list.states != nullptr) {
        call_while_others_halt(read_thread_states, &reader);
    }
    return reader.list;
}

tThreadStates list_thread_states() {
    return gNoInterpreterLock ? list_current_thread_state() : list_all_thread_states();
}

// Without an interpreter lock the list of states may change under the reader. The interpreter has a
// way to tell of its threads that is safe, by their numbers.
static bool has_thread_with_number(PyObject* frames_by_number, long number) {
    tOwnedRef key(
        gPy.PyLong_FromLongLong(static_cast<long long>(static_cast<unsigned long>(number))));
    const bool found = key && gPy.PyDict_Contains(frames_by_number, key.borrow()) == 1;
    gPy.PyErr_Clear();
    return found;
}

static bool is_thread_alive_without_lock(PyThreadState* tstate) {
    const tThreadData* const thread_data = find_thread_data(&gSelf.thread_data, tstate);
    tOwnedRef frames(thread_data != nullptr ? call_sys_current_frames() : nullptr);
    return frames && has_thread_with_number(frames.borrow(), thread_data->thread_id);
}

static tThreadStates list_states_of_records() {
    tThreadStates list = new_list(gSelf.thread_data.numEntries + 1);
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&gSelf.thread_data, &search);
         entry != nullptr && list.states != nullptr;
         entry = CU_NextHashEntry(&search)) {
        const tThreadData* const thread_data = static_cast<tThreadData*>(entry->clientData);
        list.states[list.count++] = reinterpret_cast<PyThreadState*>(thread_data->tstate_id);
    }
    return list;
}

tThreadStates list_known_thread_states() {
    return gNoInterpreterLock ? list_states_of_records() : list_thread_states();
}

bool is_thread_state_alive(PyThreadState* wanted) {
    if (gNoInterpreterLock) {
        return wanted == gPy.PyThreadState_Get() || is_thread_alive_without_lock(wanted);
    }
    PyThreadState* tstate = borrow_first_thread_state();
    while (tstate != nullptr && tstate != wanted) {
        tstate = gPy.PyThreadState_Next(tstate);
    }
    return tstate != nullptr;
}

// ---- Policy ----

// Counts the callbacks: the answer of one that was replaced while it was thinking is not kept.
static constinit unsigned gPolicyCallbacks = 0;

void set_debug_thread_cb(PyObject* callback) {
    gPolicyCallbacks++;
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&gSelf.thread_data, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        static_cast<tThreadData*>(entry->clientData)->debug_thread_policy = -1;
    }
    set_owned(&gSelf.debug_thread_cb, new_ref(callback));
}

static int keep_policy(tThreadData* thread_data, unsigned asked_callback, Py_ssize_t policy) {
    if (asked_callback == gPolicyCallbacks) {
        thread_data->debug_thread_policy = policy != 0;
    }
    return static_cast<int>(policy);
}

static int ask_policy_callback(tThreadData* thread_data, PyThreadState* tstate) {
    tMaybeSavedErrno keep_errno;
    tHeldThreadData held(thread_data);
    tRecursionHeadroom room(kRecursionHeadroom);
    tTracingOff quiet(tstate);
    tSavedError saved;
    const unsigned asked_callback = gPolicyCallbacks;
    tOwnedRef callback(new_ref(gSelf.debug_thread_cb));
    tOwnedRef id(id_for_tstate_ptr(tstate));
    tOwnedRef answer(id ? do_one_arg_call(callback.borrow(), id.borrow()) : nullptr);
    const Py_ssize_t policy = answer ? int_from_object(answer.borrow()) : -1;
    if (!answer || gPy.PyErr_Occurred() != nullptr) {
        log_failure("ignoring failure to call debug_thread_cb");
        return keep_policy(thread_data, asked_callback, 1);
    }
    return keep_policy(thread_data, asked_callback, policy);
}

int __should_debug_thread(tThreadData* thread_data) {
    if (thread_data == nullptr) {
        return 0;
    }
    if (gSelf.debug_thread_cb == nullptr) {
        return 1;
    }
    if (thread_data->debug_thread_policy != -1) {
        return thread_data->debug_thread_policy;
    }
    return ask_policy_callback(thread_data,
                               reinterpret_cast<PyThreadState*>(thread_data->tstate_id));
}

// ---- Adoption ----

// A record that ends or starts anew gives up an exception that still waits to be raised.
static void drop_pending_exception(tThreadData* thread_data) {
    if (thread_data != nullptr && thread_data->pending_exc != nullptr) {
        gSelf.pending_exc_count--;
        set_owned<PyObject>(&thread_data->pending_exc, nullptr);
    }
}

// A record in use stays as it is: the server mutex and the dispatch that is running hang on it.
static void start_record_anew(tThreadData* thread_data, PyThreadState* tstate) {
    if (thread_data->dbgserver_mutex_acquired_count != 0 ||
        thread_data->active_dispatch_ctx != nullptr) {
        return;
    }
    forget_scheduled_update(thread_data);
    drop_pending_exception(thread_data);
    reinit_thread_data_for_tstate(thread_data, tstate);
}

bool adopt_current_thread(PyThreadState* tstate) {
    if (borrow_thread_state_traceobj(tstate) != nullptr) {
        return true;
    }
    if (!gSelf.tracing || gPy.cached_pid != gSelf.pid || get_thread_state_tracing(tstate) > 0) {
        return false;
    }
    tSavedError saved;  // a generator may be about to get an exception thrown in
    tThreadData* const thread_data = current_thread_data();
    tHeldThreadData held(thread_data);
    if (thread_data == nullptr) {
        log_failure("Failure in adopt_current_thread()\n");
        return false;
    }
    if (!__should_debug_thread(thread_data) || !gSelf.tracing) {
        return false;
    }
    start_record_anew(thread_data, tstate);
    install_tracer_into_frames(tstate);
    return !thread_data->removed_from_table && set_tstate_trace_function(tstate, thread_data) == 0;
}

PyObject* _tracer_bootstrap_new_thread(PyObject* self, PyObject* args) {
    PyThreadState* const tstate = gPy.PyThreadState_Get();
    tThreadData* const thread_data = current_thread_data();
    tHeldThreadData held(thread_data);
    if (thread_data == nullptr) {
        return gPy.PyErr_Occurred() != nullptr ? nullptr : gPy.PyErr_NoMemory();
    }
    if (gSelf.trace_function == nullptr) {
        return new_ref(gPy.Py_None);
    }
    start_record_anew(thread_data, tstate);
    if (!gSelf.tracing || !__should_debug_thread(thread_data)) {
        gPy.PyEval_SetTrace(nullptr, nullptr);
        return new_ref(gPy.Py_None);
    }
    install_tracer_into_frames(tstate);
    set_tstate_trace_function(tstate, thread_data);
    return _tracer_trace_dispatch(self, args);
}

PyObject* _tracer_thread_exiting(PyObject* /*self*/, PyObject* /*args*/) {
    PyThreadState* const tstate = gPy.PyThreadState_Get();
    tThreadData* const thread_data = find_thread_data(&gSelf.thread_data, tstate);
    tHeldThreadData held(thread_data);
    if (thread_data != nullptr) {
        forget_scheduled_update(thread_data);
        drop_pending_exception(thread_data);
    }
    remove_thread_data(&gSelf.thread_data, tstate);
    return new_ref(gPy.Py_None);
}

tThreadData* find_thread_data_by_id(PyObject* id) {
    PyThreadState* const tstate = tstate_ptr_for_id(id);
    if (gPy.PyErr_Occurred() != nullptr || tstate == nullptr) {
        return nullptr;
    }
    // A record may outlive its thread, when tracing ended while the thread did.
    return is_thread_state_alive(tstate) ? find_thread_data(&gSelf.thread_data, tstate) : nullptr;
}

// ---- Internal and top-level frames ----

// Borrowed from the map's point of view: 1 = a file of the debugger itself.
int is_internal_frame(PyFrameObject* frame) {
    if (gSelf.internal_modules_map == nullptr) {
        return 0;
    }
    const char* const path = __tracer_get_full_path(path_table(), frame);
    if (path == nullptr || *path == '\0') {
        return 0;
    }
    char* const pruned = strdup(path);
    if (pruned == nullptr) {
        return 0;
    }
    prune_py_c_or_o(pruned);
    tOwnedRef key(new_native_string(pruned));
    free(pruned);
    const int found = key ? gPy.PyDict_Contains(gSelf.internal_modules_map, key.borrow()) : 0;
    gPy.PyErr_Clear();
    return found == 1;
}

PyObject* _tracer_is_internal_frame(PyObject* /*self*/, PyObject* args) {
    PyObject* frame = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "O!:is_internal_frame", gPy.PyFrame_Type_ptr, &frame)) {
        return nullptr;
    }
    return new_int(is_internal_frame(static_cast<PyFrameObject*>(frame)));
}

// A function's code says so by its flags, which spares making its locals: from 3.13 on that builds
// an object, and before it copies every local variable.
static bool is_frame_of_function(PyFrameObject* frame) {
    static constexpr int kOptimizedNewLocals = 0x0001 | 0x0002;
    tOwnedCode code(gProbed.code_flags != -1 ? get_frame_code(frame) : nullptr);
    return code && (read_field<int>(code.borrow(), gProbed.code_flags) & kOptimizedNewLocals) ==
                       kOptimizedNewLocals;
}

int is_module_toplevel_frame(PyFrameObject* frame) {
    if (is_frame(frame) && is_frame_of_function(frame)) {
        return 0;
    }
    tOwnedRef globals(get_frame_globals(frame));
    tOwnedRef locals(globals ? get_frame_locals(frame) : nullptr);
    if (!locals) {
        log_failure("Failure in is_module_toplevel_frame\n");
        return 0;
    }
    return locals.borrow() == globals.borrow();
}

// ---- Names ----

static constexpr int kAncestorsThatNameAThread = 4;

static bool is_text(PyObject* name, const char* text) {
    const char* const own = is_native_string(name) ? _pystring_to_c_string(name) : nullptr;
    return own != nullptr && strcmp(own, text) == 0;
}

static bool is_code_of_frame_named(PyFrameObject* frame, const char* name) {
    tOwnedRef own(frame != nullptr ? get_frame_code_name(frame) : nullptr);
    return is_text(own.borrow(), name);
}

PyObject* __get_thread_name(PyFrameObject* frame) {
    tOwnedCode code(get_frame_code(frame));
    tOwnedRef name(code ? get_code_name(code.borrow()) : nullptr);
    tOwnedRef globals(name ? get_frame_globals(frame) : nullptr);
    if (!globals) {
        log_failure("Failure in __get_thread_name\n");
        return nullptr;
    }
    tOwnedRef cls(GetContainingClass(code.borrow(), globals.borrow()));
    tOwnedRef class_name(cls ? GetPyClassName(cls.borrow()) : nullptr);
    if (!class_name) {
        gPy.PyErr_Clear();
        return name.give_away();
    }
    PyObject* full_name = nullptr;
    if (gPy.major_version < 3) {
        full_name = gPy.PyString_FromFormat("%s.%s",
                                            gPy.PyString_AsString(class_name.borrow()),
                                            gPy.PyString_AsString(name.borrow()));
    } else {
        full_name = gPy.PyUnicode_FromFormat("%S.%S", class_name.borrow(), name.borrow());
    }
    if (full_name == nullptr) {
        log_failure("Failure in __get_thread_name\n");
    }
    return full_name;
}

static bool is_in_threading_module(PyFrameObject* frame) {
    static constexpr char kThreadingFile[] = "threading.py";
    tOwnedRef file(get_frame_filename(frame));
    const char* const text =
        is_native_string(file.borrow()) ? _pystring_to_c_string(file.borrow()) : nullptr;
    char* const pruned = text != nullptr ? strdup(text) : nullptr;
    if (pruned == nullptr) {
        return false;
    }
    prune_py_c_or_o(pruned);
    const size_t length = strlen(pruned);
    const size_t wanted = sizeof(kThreadingFile) - 1;
    const bool ends = length >= wanted && strcmp(pruned + length - wanted, kThreadingFile) == 0;
    free(pruned);
    return ends;
}

// The function that a threading.Thread runs names the thread: the target, or an own run method.
static PyObject* get_name_of_threading_thread(PyFrameObject* frame, PyFrameObject* parent) {
    const char* const bootstrap = gPy.major_version < 3 ? "__bootstrap_inner" : "_bootstrap_inner";
    if (!is_code_of_frame_named(parent, "run")) {
        return nullptr;
    }
    tOwnedFrame grandparent(get_frame_back(parent));
    if (!is_code_of_frame_named(grandparent.borrow(), bootstrap)) {
        return nullptr;
    }
    return __get_thread_name(is_in_threading_module(parent) ? frame : parent);
}

// Else a deep stack is named after its outermost function that is not the debugger's.
static PyObject* get_name_of_deep_stack(PyFrameObject* frame) {
    tOwnedFrame outermost(static_cast<PyFrameObject*>(new_ref(frame)));
    int count = 1;
    tOwnedFrame ancestor(get_frame_back(frame));
    while (ancestor) {
        tOwnedFrame next(get_frame_back(ancestor.borrow()));
        if (!is_internal_frame(ancestor.borrow())) {
            count++;
            outermost.reset(ancestor.give_away());
        }
        ancestor.reset(next.give_away());
    }
    if (count <= kAncestorsThatNameAThread ||
        is_code_of_frame_named(outermost.borrow(), "_bootstrap") ||
        is_code_of_frame_named(outermost.borrow(), "__bootstrap")) {
        return nullptr;
    }
    return get_frame_code_name(outermost.borrow());
}

void forget_unnamed_parents(tThreadData* thread_data) {
    for (PyFrameObject*& parent : thread_data->unnamed_parents) {
        parent = nullptr;
    }
}

void name_thread_after_stack(tThreadData* thread_data, PyFrameObject* frame) {
    if (thread_data->thread_name != nullptr) {
        return;
    }
    tOwnedFrame parent(get_frame_back(frame));
    PyFrameObject** const unnamed = unnamed_parent_slot(thread_data, parent.borrow());
    if (!parent || parent.borrow() == *unnamed || is_internal_frame(frame)) {
        return;
    }
    PyObject* name = get_name_of_threading_thread(frame, parent.borrow());
    if (name == nullptr) {
        name = get_name_of_deep_stack(frame);
    }
    if (name == nullptr) {
        *unnamed = parent.borrow();
        return;
    }
    thread_data->thread_name = name;
    DPRINTF(kLogThreading, "SET THREAD NAME %s\n", dprint_check_pystr(name));
}
