// tracercore_internal.h -- what only the parts of the tracer core share.
#pragma once

#include <stdlib.h>

#include "corelock.h"
#include "dbgcommon.h"
#include "dprintf.h"
#include "guards.h"
#include "tracercore.h"

inline constexpr int kExceptionRecursionHeadroom = 100;

// event_type of __tracer_stop_here_without_mutex and of the sub-language hooks.
enum tStopEvent : int { kStopException = -1, kStopCall = 0, kStopLine = 1, kStopReturn = 2 };

inline PyFrameObject* none_frame() {
    return static_cast<PyFrameObject*>(gPy.Py_None);
}

inline tThreadData* current_thread_data() {
    return get_current_thread_data(&gSelf.thread_data);
}

// The thread has our trace function and not somebody else's.
inline bool has_our_trace_object(PyThreadState* tstate) {
    return borrow_thread_state_traceobj(tstate) == gSelf.trace_function;
}

inline tCOPathnameTable* path_table() {
    return &gSelf.co_pathname_table;
}

// The server mutex for a block, taken only when `thread_data` is a record.
class tServerLock : tNoCopy {
public:
    explicit tServerLock(tThreadData* thread_data)
        : held_(thread_data),
          thread_data_(thread_data != nullptr && acquire_dbgserver_mutex(thread_data) != 0
                           ? thread_data
                           : nullptr) {}
    ~tServerLock() {
        if (thread_data_ != nullptr) {
            release_dbgserver_mutex(thread_data_);
        }
    }
    bool held() const { return thread_data_ != nullptr; }

private:
    tHeldThreadData held_;  // a callback may give the mutex back and end the thread's record
    tThreadData* thread_data_;
};

// errno around code of ours, where the server asked for it.
class tMaybeSavedErrno : tNoCopy {
public:
    tMaybeSavedErrno() : saving_(gSelf.save_and_restore_errno != 0), errno_(errno) {}
    ~tMaybeSavedErrno() {
        if (saving_) {
            errno = errno_;
        }
    }

private:
    bool saving_;
    int errno_;
};

// Lines are switched off in frames that nobody watches only when the idle thread is there to get
// the server's idle calls done without them, and when other threads can switch them on again:
// without an interpreter lock nobody touches the frames of a thread that runs.
inline bool are_all_lines_wanted() {
    return gSelf.global_idle_thread_data.use_idle_thread == 0 || gNoInterpreterLock;
}

// tracercore_threads.cpp: the thread states of the calling thread's interpreter as they are now,
// without the idle thread's, which runs nothing of the program. Without an interpreter lock the
// calling thread's only: the others may end any moment.
struct tThreadStates {
    PyThreadState** states;  // owned: free()
    size_t count;
};
tThreadStates list_thread_states();
// Of all threads; without an interpreter lock no state may be looked into: its thread may have
// ended.
tThreadStates list_all_thread_states();
// The thread has not ended meanwhile.
bool is_thread_state_alive(PyThreadState* tstate);

// Calls `visit` for each of a list, which it frees. A visit may let other threads run, and so end.
template <class Visit>
inline void visit_living(const tThreadStates& list, Visit visit) {
    for (size_t i = 0; i < list.count; i++) {
        if (is_thread_state_alive(list.states[i])) {
            visit(list.states[i]);
        }
    }
    free(list.states);
}

template <class Visit>
inline void for_each_thread_state(Visit visit) {
    visit_living(list_thread_states(), visit);
}
// For queries only: without an interpreter lock those of the records, of which more cannot be said
// than that their threads have not ended.
tThreadStates list_known_thread_states();

// tracercore_dispatch.cpp: what the interpreter calls on each event; c_dispatch where it has its
// lock.
Py_tracefunc dispatch_function();

// tracercore_dispatch.cpp: a callback of the debug server with up to two arguments, with room on
// the stack and errno kept. False = it raised, which is logged under `failure` and cleared. The
// caller holds the server mutex.
bool call_server(const char* failure,
                 PyObject* callback,
                 PyObject* a = nullptr,
                 PyObject* b = nullptr);

// A sub-language's key frame has evaluated its breakpoints: that is done once an event.
inline bool are_breakpoints_asked(const tDispatchCtx* ctx) {
    return ctx->thread_data->asked_in == ctx;
}

// tracercore_events.cpp: one function per event; each answers what inner_dispatch answers.
int dispatch_call(tDispatchCtx* ctx);
int dispatch_line(tDispatchCtx* ctx);
int dispatch_return(tDispatchCtx* ctx);
int dispatch_exception(tDispatchCtx* ctx);
// The frame is being left by an exception (return event).
bool is_left_by_exception(const tDispatchCtx* ctx);

// tracercore_mutex.cpp: in a forked child, where only the forking thread lives on.
void renew_mutex_after_fork();
void forget_mutex_depth();  // of an interpreter that has ended

// tracercore_install.cpp: stops tracing when the thread-hooks callback must not be asked again.
void stop_trace_without_callback();
// The record's own look at its frames is not due any more.
void forget_scheduled_update(tThreadData* thread_data);

// tracercore_threads.cpp
// The record of the thread that Python names by its id: null for an unknown one, and with an
// exception set when the id is no number.
tThreadData* find_thread_data_by_id(PyObject* id);
// Where a thread remembers a frame below which no name was found: while it runs its callers do not
// change, so the same answer would come again. By address, one place each.
inline PyFrameObject** unnamed_parent_slot(tThreadData* thread_data, PyFrameObject* parent) {
    constexpr size_t kCount = sizeof(thread_data->unnamed_parents) / sizeof(PyFrameObject*);
    const size_t address = reinterpret_cast<size_t>(parent);
    return &thread_data->unnamed_parents[((address >> 5) ^ (address >> 9)) % kCount];
}
// At its return or yield: the next frame at its address, often the same one, has other callers.
inline void forget_unnamed_parent(tThreadData* thread_data, PyFrameObject* frame) {
    PyFrameObject** const slot = unnamed_parent_slot(thread_data, frame);
    if (*slot == frame) {
        *slot = nullptr;
    }
}
void forget_unnamed_parents(tThreadData* thread_data);
// Gives the thread a name once its stack tells one; nothing on failure.
void name_thread_after_stack(tThreadData* thread_data, PyFrameObject* frame);

// tracercore_sublanguage.cpp
// On a call event: loads hooks that wait, notices marker frames. 1 = stop here, 0 = no.
int sub_language_on_call(tDispatchCtx* ctx);
// Takes the hook off the thread when its marker frame returns.
void sub_language_on_return(tThreadData* thread_data, PyFrameObject* frame);
// 1 stop, 0 no stop, for the frame of the event under an active hook.
int sub_language_stop_here(tDispatchCtx* ctx, int event_type);
void sub_language_clear();
