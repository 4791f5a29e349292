// idlethread.h -- a thread of our own that gets the server's idle callback run while no trace
// event arrives: the program sits in native code, sleeps or waits.
// It asks the interpreter for a pending call in the main thread; only when that has not run for two
// idle periods it takes the interpreter lock and calls the server itself. Python 3.7 and later.
// The record is a field of the tracer's state. It is valid in the process that set it up: a forked
// child never touches its locks, which may be locked for ever, before
// update_idle_thread_maybe_after_fork.
// Lock order: interpreter lock, then the server mutex, then the record's mutex. Whoever holds the
// interpreter lock gives it away while it waits for the record's mutex, and the idle thread never
// waits for the interpreter lock while it holds that mutex. The thread that runs the idle callback
// holds it and may come back for it.
#pragma once

#include <sys/types.h>

#include "xpy_types.h"

using tIdleThreadID = unsigned long;

// One running idle thread. Made by start_idle_thread, freed by the thread at its end.
struct tSingleIdleThreadData {
    tIdleThreadID thread_id;                // (tIdleThreadID)-1 until started
    boolean stop;                           // ends at its next turn
    PyThreadState* interrupt_tstate;        // ours, to take the interpreter lock with
    PyThread_type_lock stop_lock;           // held until the thread is to stop; its clock
    PyThread_type_lock acquiring_gil_lock;  // held while it is trying to take the interpreter lock
};

struct tIdleThreadPerInterpData {
    boolean use_idle_thread;                        // wanted, and possible on this interpreter
    pid_t initialized_for_pid;                      // the process this record is valid in
    boolean initialization_failed;                  // no mutex or no exit hook: never used
    boolean py_finalize_called;                     // Python-level exit functions have run
    boolean low_level_py_at_exit_called;            // the interpreter's own exit hook has run
    tSingleIdleThreadData* active_single_data_ptr;  // the running thread's; null when none runs
    PyThread_type_lock mutex;                       // guards this record
    boolean pending_call_scheduled;                 // a pending call is queued and has not run yet
    uint64_t ticks_when_pending_added;
};

// Life: by the tracer's init, start_trace and stop_trace, and fork_ok. 0, or -1 on failure
// (logged, no exception).
TDBG_API void init_idle_thread_data(tIdleThreadPerInterpData* data);
TDBG_API int start_idle_thread(tIdleThreadPerInterpData* data);
TDBG_API int stop_idle_thread(tIdleThreadPerInterpData* data);
void forget_idle_threads();  // of an interpreter that has ended
TDBG_API int update_idle_thread_maybe_after_fork(tIdleThreadPerInterpData* data);

// The server's switch. 0, or -1 (logged).
TDBG_API int tracer_set_use_idle_thread(int flag);

// Exit: the first from the interpreter's exit functions, the second from Py_AtExit (no GIL).
TDBG_API void idle_thread_atexit_func();
TDBG_API void low_level_py_at_exit_func();

// What the interpreter runs for us; always 0.
TDBG_API int pending_call_callback(void* arg);
// Calls the server's idle callback when it is due. Takes the server mutex.
TDBG_API void check_and_call_dbgserver_idle_callback();

// The idle thread itself. No GIL.
TDBG_API void idle_thread_func(void* arg);
TDBG_API boolean acquire_gil_on_idle_thread(tSingleIdleThreadData* single_data_ptr,
                                            PyThreadState* tstate,
                                            PyGILState_STATE* gil_state_ptr);
TDBG_API void release_gil_on_idle_thread(tSingleIdleThreadData* single_data_ptr,
                                         PyThreadState* tstate,
                                         PyGILState_STATE* gil_state_ptr);
TDBG_API void call_idle_from_idle_thread(tSingleIdleThreadData* single_data_ptr);
TDBG_API void cleanup_at_end_of_idle_thread_func(tIdleThreadPerInterpData* per_interp_data,
                                                 tSingleIdleThreadData* our_single_data_ptr);
TDBG_API void stop_idle_thread_mutex_held(tIdleThreadPerInterpData* per_interp_data,
                                          int wait_if_idle_thread_aquiring_gil);
