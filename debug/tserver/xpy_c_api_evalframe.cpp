#include "xpy_c_api_evalframe.h"

#include <unistd.h>

// Of the calling thread; null when not known.
static PyInterpreterState* borrow_interpreter() {
    PyThreadState* const tstate = gPy.PyThreadState_Get();
    if (tstate == nullptr || gPy.tstate_offsets.interp == -1) {
        return nullptr;
    }
    return read_field<PyInterpreterState*>(tstate, gPy.tstate_offsets.interp);
}

static bool is_python_3(int minor) {
    return gPy.major_version == 3 && gPy.minor_version == minor;
}

// 3.6 - 3.8: a field of the interpreter state.

tEvalFrameNoThreadState XPy_GetEvalFrameFunctionNoThreadState() {
    const Py_ssize_t offset = gPy.interpreter_state_offsets.eval_frame;
    const PyInterpreterState* const interp = offset != -1 ? borrow_interpreter() : nullptr;
    return interp != nullptr ? read_field<tEvalFrameNoThreadState>(interp, offset) : nullptr;
}

int XPy_SetEvalFrameFunctionNoThreadState(tEvalFrameNoThreadState func) {
    const Py_ssize_t offset = gPy.interpreter_state_offsets.eval_frame;
    PyInterpreterState* const interp = offset != -1 ? borrow_interpreter() : nullptr;
    if (interp == nullptr) {
        return -1;
    }
    write_field(interp, offset, func);
    return 0;
}

// Later: through the interpreter's own functions, whose function type changed once more.

template <class Fn>
static Fn get_through_interpreter(bool right_version) {
    if (!right_version || gPy._PyInterpreterState_GetEvalFrameFunc == nullptr) {
        return nullptr;
    }
    PyInterpreterState* const interp = borrow_interpreter();
    return interp != nullptr
               ? reinterpret_cast<Fn>(gPy._PyInterpreterState_GetEvalFrameFunc(interp))
               : nullptr;
}

template <class Fn>
static int set_through_interpreter(bool right_version, Fn func) {
    if (!right_version || gPy._PyInterpreterState_SetEvalFrameFunc == nullptr) {
        return -1;
    }
    PyInterpreterState* const interp = borrow_interpreter();
    if (interp == nullptr) {
        return -1;
    }
    gPy._PyInterpreterState_SetEvalFrameFunc(interp, reinterpret_cast<void*>(func));
    return 0;
}

static bool has_thread_state_generation() {
    return is_python_3(9) || is_python_3(10);
}

tEvalFrameWithThreadState XPy_GetEvalFrameFunctionWithThreadState() {
    return get_through_interpreter<tEvalFrameWithThreadState>(has_thread_state_generation());
}

int XPy_SetEvalFrameFunctionWithThreadState(tEvalFrameWithThreadState func) {
    return set_through_interpreter(has_thread_state_generation(), func);
}

tEvalFrameInterpreterFrame XPy_GetEvalFrameFunctionPyInterpreterFrame() {
    return get_through_interpreter<tEvalFrameInterpreterFrame>(is_python_3(11));
}

int XPy_SetEvalFrameFunctionPyInterpreterFrame(tEvalFrameInterpreterFrame func) {
    return set_through_interpreter(is_python_3(11), func);
}

void XPy_OnForkInChild() {
    gPy.cached_pid = getpid();
}
