// Thread states and the installation of a C trace function.
#include "corelock.h"
#include "dbgcommon.h"
#include "dprintf.h"
#include "guards.h"

using tUncheckedGet = PyThreadState* (*)();

// How the running thread's state is had without the abort of PyThreadState_Get when there is none:
// a function (3.5.2 and later), before that the variable that holds it.
static constinit tUncheckedGet unchecked_get = nullptr;
static constinit PyThreadState** current_variable = nullptr;

static constexpr const char* kUncheckedGetNames[] = {
    "PyThreadState_GetUnchecked",  // 3.13 and later
    "_PyThreadState_UncheckedGet",
};

static void find_unchecked_get() {
    for (const char* const name : kUncheckedGetNames) {
        unchecked_get = reinterpret_cast<tUncheckedGet>(XPy_LookupPythonFunction(name));
        if (unchecked_get != nullptr) {
            return;
        }
    }
    current_variable =
        static_cast<PyThreadState**>(XPy_LookupPythonFunction("_PyThreadState_Current"));
    if (current_variable == nullptr) {
        unchecked_get = gPy.PyThreadState_Get;
    }
}

PyThreadState* borrow_current_thread_state() {
    if (unchecked_get == nullptr && current_variable == nullptr) {
        find_unchecked_get();
    }
    return unchecked_get != nullptr ? unchecked_get() : *current_variable;
}

TDBG_API PyFrameObject* get_thread_state_frame(PyThreadState* tstate) {
    return gPy.PyThreadState_GetFrame(tstate);
}

TDBG_API int get_stack_depth(PyThreadState* tstate) {
    int depth = 0;
    tOwnedFrame frame(get_thread_state_frame(tstate != nullptr ? tstate : gPy.PyThreadState_Get()));
    while (frame) {
        ++depth;
        frame.reset(get_frame_back(frame.borrow()));
    }
    return depth;
}

TDBG_API PyObject* borrow_thread_state_traceobj(PyThreadState* tstate) {
    const Py_ssize_t offset = gPy.tstate_offsets.c_traceobj;
    return offset != -1 ? read_field<PyObject*>(tstate, offset) : nullptr;
}

TDBG_API PyInterpreterState* borrow_thread_state_interp(PyThreadState* tstate) {
    return gPy.PyThreadState_GetInterpreter(tstate);
}

bool is_main_interpreter() {
    using tMain = PyInterpreterState* (*)();
    const auto main = reinterpret_cast<tMain>(XPy_LookupPythonFunction("PyInterpreterState_Main"));
    return main == nullptr || main() == borrow_thread_state_interp(gPy.PyThreadState_Get());
}

TDBG_API unsigned long get_thread_state_thread_id(PyThreadState* tstate) {
    const Py_ssize_t offset = gPy.tstate_offsets.thread_id;
    return offset != -1 ? read_field<unsigned long>(tstate, offset) : 0;
}

TDBG_API int get_thread_state_use_tracing(PyThreadState* tstate) {
    const Py_ssize_t offset = gPy.tstate_offsets.use_tracing;
    // deliberate: where the field does not exist (3.10 and later) tracing counts as in use
    return offset != -1 ? read_field<int>(tstate, offset) : 1;
}

TDBG_API void set_thread_state_use_tracing(PyThreadState* tstate, int value) {
    const Py_ssize_t offset = gPy.tstate_offsets.use_tracing;
    if (offset != -1) {
        write_field<int>(tstate, offset, value);
    }
}

TDBG_API int get_thread_state_tracing(PyThreadState* tstate) {
    const Py_ssize_t offset = gPy.tstate_offsets.tracing;
    return offset != -1 ? read_field<int>(tstate, offset) : 0;
}

TDBG_API void increment_thread_state_tracing(PyThreadState* tstate) {
    gPy.PyThreadState_EnterTracing(tstate);
}

TDBG_API void decrement_thread_state_tracing(PyThreadState* tstate) {
    gPy.PyThreadState_LeaveTracing(tstate);
}

TDBG_API void add_to_thread_state_tracing(PyThreadState* tstate, int n) {
    for (; n > 0; --n) {
        increment_thread_state_tracing(tstate);
    }
    for (; n < 0; ++n) {
        decrement_thread_state_tracing(tstate);
    }
}

// Only these versions let a C trace function be set on another thread's state.
static bool can_set_trace_of_other_threads() {
    return version_at_least(3, 10) && !version_at_least(3, 13);
}

TDBG_API int set_thread_state_trace_cfunc(PyThreadState* tstate, Py_tracefunc func, PyObject* obj) {
    if (tstate == gPy.PyThreadState_Get()) {
        gPy.PyEval_SetTrace(func, obj);
        return 0;
    }
    if (!can_set_trace_of_other_threads()) {
        return -1;
    }
    const int result = gPy._PyEval_SetTrace(tstate, func, obj);
    if (result != 0 && gPy.PyErr_Occurred() != nullptr) {
        log_failure("_PyEval_SetTrace raised exception\n");
    }
    return result;
}

// ---- Into another thread, past the interpreter's functions ----

// What the interpreter's function reads and writes of a thread state.
struct tTraceFields {
    Py_tracefunc c_tracefunc;
    PyObject* c_traceobj;  // owned by whatever holds the fields
};

struct tTraceMove {
    PyThreadState* own;
    PyThreadState* other;
    const PyObject* from;
    tTraceFields ours;   // the calling thread's while it stands for the other
    tTraceFields moved;  // of the other
    bool is_under_way;
};

static constinit bool gIsTraceMoving = false;  // one at a time: each lends its own state to another

static bool has_trace_fields() {
    const XPyThreadStateOffsets& offsets = gPy.tstate_offsets;
    return offsets.c_tracefunc != -1 && offsets.c_traceobj != -1 &&
           (version_at_least(3, 10) || offsets.use_tracing != -1);
}

static tTraceFields read_trace_fields(PyThreadState* tstate) {
    const XPyThreadStateOffsets& offsets = gPy.tstate_offsets;
    return {read_field<Py_tracefunc>(tstate, offsets.c_tracefunc),
            read_field<PyObject*>(tstate, offsets.c_traceobj)};
}

static bool is_profiled(PyThreadState* tstate) {
    // c_profilefunc is the field before c_tracefunc in every version.
    return read_field<void*>(tstate, gPy.tstate_offsets.c_tracefunc - Py_ssize_t{sizeof(void*)}) !=
           nullptr;
}

static void write_trace_fields(PyThreadState* tstate, const tTraceFields& fields) {
    write_field(tstate, gPy.tstate_offsets.c_tracefunc, fields.c_tracefunc);
    write_field(tstate, gPy.tstate_offsets.c_traceobj, fields.c_traceobj);
    set_thread_state_use_tracing(tstate, fields.c_tracefunc != nullptr || is_profiled(tstate));
}

PyThreadState* borrow_first_thread_state() {
    PyInterpreterState* const interp = borrow_thread_state_interp(gPy.PyThreadState_Get());
    return interp != nullptr ? gPy.PyInterpreterState_ThreadHead(interp) : nullptr;
}

static bool is_in_list(PyThreadState* wanted) {
    PyThreadState* tstate = borrow_first_thread_state();
    while (tstate != nullptr && tstate != wanted) {
        tstate = gPy.PyThreadState_Next(tstate);
    }
    return tstate != nullptr;
}

static void take_trace_fields(void* arg) {
    tTraceMove* const move = static_cast<tTraceMove*>(arg);
    if (gIsTraceMoving || !is_in_list(move->other)) {
        return;
    }
    const tTraceFields theirs = read_trace_fields(move->other);
    if (move->from != nullptr && theirs.c_traceobj != move->from) {
        return;
    }
    move->is_under_way = gIsTraceMoving = true;
    move->ours = read_trace_fields(move->own);
    write_trace_fields(move->other, {});
    write_trace_fields(move->own, theirs);
}

static void give_trace_fields(void* arg) {
    tTraceMove* const move = static_cast<tTraceMove*>(arg);
    if (is_in_list(move->other) && read_trace_fields(move->other).c_tracefunc == nullptr) {
        write_trace_fields(move->other, move->moved);
        move->moved = {};
    }
}

// Only PyEval_SetTrace counts the threads that have a trace function and, in later versions,
// switches the events on, and it works on the calling thread: so that takes the other's place for
// the moment, and the other has none when its old object goes away, which may let it run.
bool move_trace_cfunc_into_thread(PyThreadState* other,
                                  Py_tracefunc func,
                                  PyObject* obj,
                                  const PyObject* from) {
    tTraceMove move = {gPy.PyThreadState_Get(), other, from, {}, {}, false};
    const bool can_move = gNoInterpreterLock || !version_at_least(3, 10);
    if (!can_move || other == move.own || !has_trace_fields() ||
        !call_while_others_halt(take_trace_fields, &move) || !move.is_under_way) {
        return false;
    }
    gPy.PyEval_SetTrace(func, obj);
    move.moved = read_trace_fields(move.own);  // as before where an audit hook refuses
    const bool is_set = move.moved.c_tracefunc == func;
    call_while_others_halt(give_trace_fields, &move);
    if (move.moved.c_tracefunc != nullptr) {  // the thread has ended, or has a new one of its own
        gPy.PyEval_SetTrace(nullptr, nullptr);
    }
    write_trace_fields(move.own, move.ours);
    gIsTraceMoving = false;
    return is_set;
}

TDBG_API int get_thread_state_what_event(PyThreadState* tstate) {
    const Py_ssize_t offset = gPy.tstate_offsets.what_event;
    return offset != -1 ? read_field<int>(tstate, offset) : -1;
}
