// tracercore_sublanguage.cpp -- languages implemented in Python (templates, for instance) that the
// user steps through as if they were source. The debug server registers a hook object; it becomes
// active on a thread when one of its marker frames is called and until that frame returns. Frames
// then are key frames (code the hook named), hidden (part of the implementation) or ordinary.
#include "tracercore.h"

#include <string.h>

#include "tracercore_internal.h"

// ---- Frame categories ----

// The hook that a code object is a key of, borrowed; null when none (no exception).
static PyObject* borrow_hook_of_code(PyObject* hooks_by_code, PyCodeObject* code) {
    return hooks_by_code != nullptr && code != nullptr ? gPy.PyDict_GetItem(hooks_by_code, code)
                                                       : nullptr;
}

static bool is_key_frame(PyFrameObject* frame) {
    tOwnedCode code(is_frame(frame) ? get_frame_code(frame) : nullptr);
    return borrow_hook_of_code(gSelf.sub_language_code_objects, code.borrow()) != nullptr;
}

// Flag of the first (prefix, flag) pair that the path begins with; 0 when none does, -1 with an
// exception set.
static long find_flag_of_path(PyObject* pairs, const char* path) {
    const Py_ssize_t count = gPy.PySequence_Length(pairs);
    for (Py_ssize_t i = 0; i < count; i++) {
        tOwnedRef pair(gPy.PySequence_GetItem(pairs, i));
        tOwnedRef prefix(pair ? gPy.PySequence_GetItem(pair.borrow(), 0) : nullptr);
        if (!prefix) {
            return -1;
        }
        const char* const text =
            is_native_string(prefix.borrow()) ? _pystring_to_c_string(prefix.borrow()) : nullptr;
        if (text == nullptr || strncmp(path, text, strlen(text)) != 0) {
            continue;
        }
        tOwnedRef flag(gPy.PySequence_GetItem(pair.borrow(), 1));
        return flag ? static_cast<long>(int_from_object(flag.borrow())) : -1;
    }
    return count < 0 ? -1 : 0;
}

static void log_lookup_failure(PyCodeObject* code) {
    if (gDPrintfFile != nullptr) {
        tSavedError saved;
        tOwnedRef name(get_code_name(code));
        tOwnedRef file(get_code_filename(code));
        do_dprintf(kLogInternalFailures,
                   "Could not find code object in __tracer_sub_language_in_impl: %s:%s\n",
                   dprint_check_pystr(name.borrow()),
                   dprint_check_pystr(file.borrow()));
    }
    do_dlogexception();
    gPy.PyErr_Clear();
}

// -2 = not to be cached.
static long work_out_in_impl(PyObject* hook, PyFrameObject* frame, PyCodeObject* code) {
    PyObject* pairs = nullptr;
    const int found = gSelf.sub_language_module_paths != nullptr
                          ? gPy.PyDict_GetItemRef(gSelf.sub_language_module_paths, hook, &pairs)
                          : 0;
    tOwnedRef held(pairs);
    if (found == -1) {
        log_lookup_failure(code);
        return -2;
    }
    if (found == 0) {
        return 0;
    }
    const char* path = LookupCOPathname(path_table(), code);
    if (path == nullptr) {  // a frame from before tracing began
        path = __resolve_full_path_for_frame(path_table(), frame, 0);
    }
    if (path == nullptr) {
        log_lookup_failure(code);
        return -2;
    }
    const long flag = find_flag_of_path(pairs, path);
    return flag == -1 && gPy.PyErr_Occurred() != nullptr ? -2 : flag;
}

long __tracer_sub_language_in_impl(tThreadData* thread_data, PyFrameObject* frame) {
    if (thread_data->sub_language_hook == nullptr) {
        return 0;
    }
    tOwnedCode code(is_frame(frame) ? get_frame_code(frame) : nullptr);
    if (!code) {
        return 0;
    }
    PyCodeObject* const key = code.borrow();
    CUt_HashTable* const cache = &gSelf.sub_language_cache;
    CUt_HashEntry* entry = cache->findProc(cache, &key);
    if (entry != nullptr) {
        return static_cast<long>(reinterpret_cast<intptr_t>(entry->clientData));
    }
    tOwnedRef hook(new_ref(thread_data->sub_language_hook));
    const long answer = work_out_in_impl(hook.borrow(), frame, key);
    if (answer == -2) {
        return -1;
    }
    int is_new = 0;
    entry = cache->createProc(cache, &key, &is_new);
    if (entry != nullptr) {
        if (is_new) {
            XPy_DoIncRef(key);  // for the life of the cache: its address is the key
        }
        entry->clientData = reinterpret_cast<void*>(static_cast<intptr_t>(answer));
    }
    return answer;
}

int __tracer_sub_language_get_frame_category(tThreadData* thread_data, PyFrameObject* frame) {
    if (thread_data->sub_language_hook == nullptr) {
        return -1;
    }
    if (is_key_frame(frame)) {
        return 1;
    }
    const long in_impl = __tracer_sub_language_in_impl(thread_data, frame);
    if (in_impl == -1 && gPy.PyErr_Occurred() != nullptr) {
        log_failure("__tracer_sub_language_get_frame_category failed");
        return -1;
    }
    return in_impl == 0 ? -1 : 0;
}

// ---- Loading hooks ----

static bool store_each_code(PyObject* codes, PyObject* hook, PyObject* hooks_by_code) {
    const Py_ssize_t count = gPy.PySequence_Length(codes);
    for (Py_ssize_t i = 0; i < count; i++) {
        tOwnedRef code(gPy.PySequence_GetItem(codes, i));
        if (!code || gPy.PyDict_SetItem(hooks_by_code, code.borrow(), hook) == -1) {
            return false;
        }
    }
    return count >= 0;
}

static PyObject* ask_hook(PyObject* hook, const char* method) {  // new ref: a non-empty sequence
    tOwnedRef answer(call_method_unlocked(hook, method, nullptr));
    if (!answer || gPy.PySequence_Length(answer.borrow()) < 1) {
        return nullptr;
    }
    return answer.give_away();
}

int __tracer_load_sub_language_frames(PyObject* hook) {
    tSavedError saved;
    tOwnedRef code_objects(new_ref(gSelf.sub_language_code_objects));  // init may drop it meanwhile
    if (!code_objects) {
        saved.abandon();  // deliberate: the exception that was pending is dropped here
        return 0;
    }
    tOwnedRef frames(ask_hook(hook, "_GetSubLanguageFrames"));
    if (!frames || !is_instance_of(frames.borrow(), gPy.PyList_Type_ptr)) {
        log_failure("Exception from _GetSubLanguageFrames in __tracer_load_sub_language_frames\n");
        return 0;
    }
    if (!store_each_code(frames.borrow(), hook, code_objects.borrow())) {
        gPy.PyErr_Clear();
        return 0;
    }
    return 1;
}

static bool load_hook(PyObject* hook) {
    tOwnedRef hooks_by_marker(new_ref(gSelf.sub_language_markers));  // init may drop them meanwhile
    tOwnedRef paths_by_hook(new_ref(gSelf.sub_language_module_paths));
    tOwnedRef markers(hooks_by_marker ? ask_hook(hook, "_GetMarkerFrames") : nullptr);
    if (!markers || !store_each_code(markers.borrow(), hook, hooks_by_marker.borrow())) {
        return false;
    }
    tOwnedRef paths(ask_hook(hook, "_GetModulePaths"));
    if (!paths || gPy.PyDict_SetItem(paths_by_hook.borrow(), hook, paths.borrow()) == -1) {
        return false;
    }
    return __tracer_load_sub_language_frames(hook) != 0;
}

static void load_pending_hooks(tDispatchCtx* ctx) {
    // The wait for the mutex may have been long: another thread may have loaded them.
    tOwnedRef pending(dispatch_ctx_acquire_mutex(ctx) ? new_ref(gSelf.sub_language_pending_hooks)
                                                      : nullptr);
    tOwnedRef still_pending(pending ? gPy.PyList_New(0) : nullptr);
    if (!still_pending) {
        gPy.PyErr_Clear();
        return;
    }
    tRecursionHeadroom room(kRecursionHeadroom);
    // One that is being loaded may register others.
    for (Py_ssize_t i = 0; i < gPy.PyList_Size(pending.borrow()); i++) {
        tOwnedRef hook(new_ref(gPy.PyList_GetItem(pending.borrow(), i)));
        const bool is_loaded = load_hook(hook.borrow());
        gPy.PyErr_Clear();
        if (!is_loaded && gPy.PyList_Append(still_pending.borrow(), hook.borrow()) == -1) {
            gPy.PyErr_Clear();
        }
    }
    if (gSelf.sub_language_pending_hooks != pending.borrow()) {
        return;  // init has begun anew meanwhile
    }
    const bool all_loaded = gPy.PyList_Size(still_pending.borrow()) == 0;
    set_owned(&gSelf.sub_language_pending_hooks, all_loaded ? nullptr : still_pending.give_away());
}

// ---- Events ----

int sub_language_on_call(tDispatchCtx* ctx) {
    if (gSelf.sub_language_pending_hooks != nullptr) {
        load_pending_hooks(ctx);
    }
    tThreadData* const thread_data = ctx->thread_data;
    if (thread_data->sub_language_marker == nullptr) {
        tOwnedCode code(get_frame_code(ctx->frame));
        PyObject* const hook = borrow_hook_of_code(gSelf.sub_language_markers, code.borrow());
        if (hook != nullptr) {
            set_owned(&thread_data->sub_language_marker,
                      static_cast<PyFrameObject*>(new_ref(ctx->frame)));
            set_owned(&thread_data->sub_language_hook, new_ref(hook));
        }
    }
    return thread_data->sub_language_hook != nullptr && sub_language_stop_here(ctx, kStopCall);
}

void sub_language_on_return(tThreadData* thread_data, PyFrameObject* frame) {
    if (frame == nullptr || frame != thread_data->sub_language_marker) {
        return;
    }
    set_owned<PyFrameObject>(&thread_data->sub_language_marker, nullptr);
    set_owned<PyObject>(&thread_data->sub_language_hook, nullptr);
}

// How the thread steps, in the hook's terms.
enum tStepMode : int {
    kModeRun = -1,            // breakpoints only (also: a step in a frame that is no key frame)
    kModeStepInto = 0,        // stop_frame and return_frame are both None
    kModeStepInKeyFrame = 1,  // stop_frame is a key frame
    kModeStepOver = 2,        // a return_frame is set
};

static int get_step_mode(const tThreadData* thread_data) {
    if (thread_data->stop_frame == nullptr) {
        return kModeRun;
    }
    if (thread_data->return_frame != none_frame()) {
        return kModeStepOver;
    }
    if (thread_data->stop_frame == none_frame()) {
        return kModeStepInto;
    }
    return is_key_frame(thread_data->stop_frame) ? kModeStepInKeyFrame : kModeRun;
}

int sub_language_stop_here(tDispatchCtx* ctx, int event_type) {
    tThreadData* const thread_data = ctx->thread_data;
    if (!is_key_frame(ctx->frame) || !dispatch_ctx_acquire_mutex(ctx)) {
        return 0;
    }
    tRecursionHeadroom room(kRecursionHeadroom);
    tSavedError saved;
    tOwnedRef answer(call_method_unlocked(thread_data->sub_language_hook,
                                          "_StopHere",
                                          "Oii",
                                          ctx->frame,
                                          event_type,
                                          get_step_mode(thread_data)));
    if (!answer) {
        log_failure("Exception from _StopHere in sub_language_stop_here\n");
        return 0;
    }
    if (gPy.PyObject_IsTrue(answer.borrow()) == 1) {
        return 1;
    }
    gPy.PyErr_Clear();
    thread_data->asked_in = ctx;
    return __tracer_break_here(&gSelf.bp_ops_data, event_type, thread_data, ctx->frame, 1) != 0;
}

// ---- Registration ----

static void release_registry() {
    set_owned<PyObject>(&gSelf.sub_language_pending_hooks, nullptr);
    set_owned<PyObject>(&gSelf.sub_language_markers, nullptr);
    set_owned<PyObject>(&gSelf.sub_language_module_paths, nullptr);
    set_owned<PyObject>(&gSelf.sub_language_code_objects, nullptr);
}

// The keys of the cache hold a reference each; it starts empty again.
void sub_language_clear() {
    release_registry();
    gSelf.sub_language_hooks = 0;
    // From the start each time: what is dropped may run code that comes back here.
    CUt_HashTable* const cache = &gSelf.sub_language_cache;
    CUt_HashSearch search;
    CUt_HashEntry* entry = CU_FirstHashEntry(cache, &search);
    while (entry != nullptr) {
        PyObject* code = nullptr;
        memcpy(&code, entry->key.bytes, sizeof(code));
        CU_DeleteHashEntry(entry);
        XPy_DoDecRef(code);
        entry = CU_FirstHashEntry(cache, &search);
    }
    CU_DeleteHashTable(cache);
    CU_InitHashTable(cache, sizeof(void*));
}

static bool make_registry() {
    if (gSelf.sub_language_markers == nullptr) {
        gSelf.sub_language_markers = gPy.PyDict_New();
        gSelf.sub_language_module_paths = gPy.PyDict_New();
        gSelf.sub_language_code_objects = gPy.PyDict_New();
    }
    if (gSelf.sub_language_pending_hooks == nullptr) {
        gSelf.sub_language_pending_hooks = gPy.PyList_New(0);
    }
    if (gSelf.sub_language_pending_hooks != nullptr && gSelf.sub_language_markers != nullptr &&
        gSelf.sub_language_module_paths != nullptr && gSelf.sub_language_code_objects != nullptr) {
        return true;
    }
    release_registry();
    return false;
}

PyObject* _tracer_register_sub_language_hook(PyObject* /*self*/, PyObject* args) {
    PyObject* hook = nullptr;
    if (!gPy.PyArg_ParseTuple(args, "O:register_sub_language_hook", &hook)) {
        return nullptr;
    }
    if (!make_registry() || gPy.PyList_Append(gSelf.sub_language_pending_hooks, hook) == -1) {
        return nullptr;
    }
    gSelf.sub_language_hooks = 1;
    return new_ref(gPy.Py_None);
}

PyObject* _tracer_sub_language_get_active_hook(PyObject* /*self*/, PyObject* args) {
    PyObject* const id = gPy.PyTuple_GetItem(args, 0);
    const tThreadData* const thread_data = id != nullptr ? find_thread_data_by_id(id) : nullptr;
    if (gPy.PyErr_Occurred() != nullptr) {
        return nullptr;
    }
    const bool is_active = gSelf.sub_language_hooks && thread_data != nullptr &&
                           thread_data->sub_language_hook != nullptr;
    return new_ref(is_active ? thread_data->sub_language_hook : gPy.Py_None);
}

PyObject* _tracer_sub_language_get_frame_category(PyObject* /*self*/, PyObject* args) {
    PyObject* const id = gPy.PyTuple_GetItem(args, 0);
    PyObject* const frame = id != nullptr ? gPy.PyTuple_GetItem(args, 1) : nullptr;
    tThreadData* const thread_data = frame != nullptr ? find_thread_data_by_id(id) : nullptr;
    if (gPy.PyErr_Occurred() != nullptr) {
        return nullptr;
    }
    return new_int(thread_data == nullptr ? -1
                                          : __tracer_sub_language_get_frame_category(
                                                thread_data, static_cast<PyFrameObject*>(frame)));
}
