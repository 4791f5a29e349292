// tracercore_evalframe.cpp -- the hook in front of the interpreter's frame evaluation (3.6 - 3.11).
// It sees the first frame of every thread, so that one that was started behind the debugger's back,
// by C code for instance, is adopted before its first line. Each interpreter generation has its own
// signature; the saved default of a signature is non-null exactly while our hook is installed
// there.
#include "tracercore.h"

#include "tracercore_internal.h"
#include "xpy_c_api_evalframe.h"

// What the hooks call, kept for good: another tool that found our hook in place may put it back
// after we have gone, and by then gSelf has forgotten.
static constinit tEvalFrameWithThreadState gRunWithThreadState = nullptr;
static constinit tEvalFrameNoThreadState gRunNoThreadState = nullptr;
static constinit tEvalFrameInterpreterFrame gRunInterpreterFrame = nullptr;

// ---- The hooks ----
// Each takes the saved function before it adopts: adopting may let other threads run, and one of
// them may take the hook out.

PyObject* briodb_eval_frame_with_thread_state(PyThreadState* tstate,
                                              PyFrameObject* frame,
                                              int throw_flag) {
    const tEvalFrameWithThreadState run = gRunWithThreadState;
    if (read_field<void*>(frame, gPy.frame_offsets.back) == nullptr) {
        DPRINTF(kLogCore, "In briodb_eval_frame(); thread:%ld\n", get_thread_ident());
        adopt_current_thread(tstate);
    }
    return run(tstate, frame, throw_flag);
}

PyObject* briodb_eval_frame_no_thread_state(PyFrameObject* frame, int throw_flag) {
    const tEvalFrameNoThreadState run = gRunNoThreadState;
    if (read_field<void*>(frame, gPy.frame_offsets.back) == nullptr) {
        DPRINTF(kLogCore, "In briodb_eval_frame(); thread:%ld\n", get_thread_ident());
        adopt_current_thread(gPy.PyThreadState_Get());
    }
    return run(frame, throw_flag);
}

// The C frame record of 3.11 knows the frame that is running; none means this one is the first.
static bool is_first_frame(PyThreadState* tstate) {
    if (gPy.tstate_offsets.cframe == -1 || gPy.cframe_offsets.current_frame == -1) {
        return false;
    }
    void* const cframe = read_field<void*>(tstate, gPy.tstate_offsets.cframe);
    return cframe != nullptr &&
           read_field<void*>(cframe, gPy.cframe_offsets.current_frame) == nullptr;
}

PyObject* briodb_eval_frame_py_interpreter_frame(PyThreadState* tstate,
                                                 PyInterpreterFrame* frame,
                                                 int throw_flag) {
    const tEvalFrameInterpreterFrame run = gRunInterpreterFrame;
    if (is_first_frame(tstate)) {
        DPRINTF(kLogCore,
                "In briodb_eval_frame_py_interpreter_frame(); thread:%ld\n",
                get_thread_ident());
        adopt_current_thread(tstate);
    }
    return run(tstate, frame, throw_flag);
}

// ---- Installation ----

template <class Fn>
struct tEvalFrameKind {
    Fn (*get)();
    int (*set)(Fn func);
    Fn hook;
    Fn* saved;         // the interpreter's own function while the hook is installed
    Fn* run;           // the same, for ever
    void (*forget)();  // after the interpreter's function was put back
    const char* installed;
    const char* not_installed;
    const char* not_reset;
};

static constexpr tEvalFrameKind<tEvalFrameWithThreadState> kWithThreadState = {
    XPy_GetEvalFrameFunctionWithThreadState,
    XPy_SetEvalFrameFunctionWithThreadState,
    briodb_eval_frame_with_thread_state,
    &gSelf.default_eval_frame_with_thread_state,
    &gRunWithThreadState,
    [] { gSelf.default_eval_frame_with_thread_state = nullptr; },
    "Succeeded to set eval_frame_with_thread_state function\n",
    "Failed to set eval_frame_with_thread_state function\n",
    "Failed to reset eval_frame_with_thread_state function back to the default\n",
};

static constexpr tEvalFrameKind<tEvalFrameNoThreadState> kNoThreadState = {
    XPy_GetEvalFrameFunctionNoThreadState,
    XPy_SetEvalFrameFunctionNoThreadState,
    briodb_eval_frame_no_thread_state,
    &gSelf.default_eval_frame_no_thread_state,
    &gRunNoThreadState,
    [] { gSelf.default_eval_frame_no_thread_state = nullptr; },
    "Succeeded to set eval_frame_no_thread_state function (no tstate)\n",
    "Failed to set eval_frame_no_thread_state function (no tstate)\n",
    "Failed to reset eval_frame_no_thread_state function (no tstate) back to the default\n",
};

static constexpr tEvalFrameKind<tEvalFrameInterpreterFrame> kInterpreterFrame = {
    XPy_GetEvalFrameFunctionPyInterpreterFrame,
    XPy_SetEvalFrameFunctionPyInterpreterFrame,
    briodb_eval_frame_py_interpreter_frame,
    &gSelf.default_eval_frame_py_interpreter_frame,
    &gRunInterpreterFrame,
    // deliberate: the slot of another kind, so the hook is not installed a second time here
    [] { gSelf.default_eval_frame_no_thread_state = nullptr; },
    "Succeeded to set eval_frame_py_interpreter_frame function\n",
    "Failed to set eval_frame_py_interpreter_frame function\n",
    "Failed to reset eval_frame_py_interpreter_frame function back to the default\n",
};

template <class Fn>
static bool is_installed(const tEvalFrameKind<Fn>& kind) {
    return *kind.saved != nullptr || kind.get() == kind.hook;
}

// True = this is the interpreter's generation, whether the installation succeeded or not.
template <class Fn>
static bool try_to_install(const tEvalFrameKind<Fn>& kind) {
    const Fn own = kind.get();
    if (own == nullptr) {
        return false;
    }
    *kind.saved = own;
    *kind.run = own;
    if (kind.set(kind.hook) == 0) {
        DPRINTF(kLogCore, "%s", kind.installed);
    } else {
        *kind.saved = nullptr;
        DPRINTF(kLogCore, "%s", kind.not_installed);
    }
    return true;
}

// False = failed.
template <class Fn>
static bool take_out(const tEvalFrameKind<Fn>& kind) {
    if (*kind.saved == nullptr || kind.get() != kind.hook) {
        return true;
    }
    if (kind.set(*kind.saved) != 0) {
        DPRINTF(kLogCore, "%s", kind.not_reset);
        return false;
    }
    kind.forget();
    return true;
}

void update_eval_frame() {
    if (!gSelf.use_eval_frame || !gSelf.tracing) {
        static_cast<void>(take_out(kWithThreadState) && take_out(kNoThreadState) &&
                          take_out(kInterpreterFrame));
        return;
    }
    if (is_installed(kWithThreadState) || is_installed(kNoThreadState) ||
        is_installed(kInterpreterFrame)) {
        return;
    }
    static_cast<void>(try_to_install(kWithThreadState) || try_to_install(kNoThreadState) ||
                      try_to_install(kInterpreterFrame));
}

void tracer_set_use_eval_frame(int flag) {
    gSelf.use_eval_frame = flag;
    update_eval_frame();
}
