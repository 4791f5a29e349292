// idlethread_turns.cpp -- what the idle thread does, turn by turn, and the idle call itself.
// A pending call is the polite way: the interpreter runs it in the main thread between two
// instructions, where the server can be called as from any trace event. Setting it up does not need
// the interpreter lock, and taking and dropping that lock afterwards makes the running thread look
// at its pending calls soon. The main thread may however sit in a native call for ever; when a
// pending call has waited two idle periods and there are other threads to debug, the idle thread
// takes the interpreter lock like any foreign thread and makes the call itself.
#include "idlethread.h"

#include <stdlib.h>

#include "corelock.h"
#include "dbgcommon.h"
#include "dprintf.h"
#include "guards.h"
#include "idlethread_internal.h"
#include "threadops.h"
#include "tracercore.h"

static constexpr long long kShortestWait = 100 * 1000;                   // microseconds
static constexpr long long kLongestWait = 24LL * 60 * 60 * 1000 * 1000;  // far below 32-bit time_t

// ---- The idle call ----

// Under the server mutex.
static void call_idle_callback() {
    gSelf.idling = 1;
    DPRINTF(kLogCore, "Calling idle cb\n");
    {
        tTracingOff quiet(gPy.PyThreadState_Get());
        tOwnedRef callback(new_ref(gSelf.idle_cb));  // init may replace it meanwhile
        tCoreUnlock unlocked;
        tOwnedRef result(gPy.PyObject_CallObject(callback.borrow(), nullptr));
    }
    gSelf.idling = 0;
    gSelf.idle_instruction_count = 0;
    gSelf.idle_time_threshold = get_ticks() + gSelf.idle_period;
}

void check_and_call_dbgserver_idle_callback() {
    if (!time_for_idle_call(0)) {
        DPRINTF(
            kLogCore,
            "Leaving check_and_call_dbgserver_idle_callback(): time_for_idle_call() is false\n");
        return;
    }
    // Whoever is stopped holds the server mutex and may want to stop this thread.
    tIdleThreadPerInterpData* const data = &gSelf.global_idle_thread_data;
    tThreadData* const thread_data = get_current_thread_data(&gSelf.thread_data);
    tHeldThreadData held(thread_data);  // the callback may reset the tracer
    const int depth = suspend_record_lock(data);
    const bool acquired = thread_data != nullptr && acquire_dbgserver_mutex(thread_data);
    resume_record_lock(data, depth);
    if (!acquired) {
        DPRINTF(kLogCore, "acquire_dbgserver_mutex failed: probable OS mutex error\n");
        return;
    }
    if (time_for_idle_call(0)) {  // the wait may have been long
        call_idle_callback();
    }
    release_dbgserver_mutex(thread_data);
    DPRINTF(kLogCore, "Leaving check_and_call_dbgserver_idle_callback()\n");
}

// Nobody is stopped or idling, and this thread is not inside a trace call.
static void call_idle_callback_if_allowed() {
    DPRINTF(kLogCore, "Entering check_and_call_dbgserver_idle_callback()\n");
    if (gSelf.idling || gSelf.mutex_thread_id != -1 ||
        get_thread_state_tracing(gPy.PyThreadState_Get()) >= 1) {
        DPRINTF(kLogCore,
                "Leaving check_and_call_dbgserver_idle_callback(): gSelf.idling = %d, "
                "gSelf.mutex_thread_id = %d\n",
                gSelf.idling,
                static_cast<int>(gSelf.mutex_thread_id));
        return;
    }
    check_and_call_dbgserver_idle_callback();
    if (gPy.PyErr_Occurred() != nullptr) {
        log_failure("Exception raised by idle callback\n");
    }
}

// Between two instructions of the program, which must find everything as it was.
int pending_call_callback(void* /*arg*/) {
    tSavedErrno keep_errno;
    tCoreLock lock;
    tSavedError keep_error;
    tIdleThreadPerInterpData* const data = &gSelf.global_idle_thread_data;
    if (!lock_record(data, kGilHeld)) {
        DPRINTF(kLogCore, "failure in pending_call_callback()\n");
        return 0;
    }
    if (gSelf.tracing && !is_interpreter_ending(data)) {
        call_idle_callback_if_allowed();
    }
    data->pending_call_scheduled = 0;
    unlock_record(data);
    return 0;
}

// ---- The idle thread ----

boolean acquire_gil_on_idle_thread(tSingleIdleThreadData* single_data_ptr,
                                   PyThreadState* tstate,
                                   PyGILState_STATE* gil_state_ptr) {
    log_without_tstate("Entering acquire_gil_on_idle_thread\n");
    tIdleThreadPerInterpData* const data = &gSelf.global_idle_thread_data;
    if ((tstate == nullptr && gil_state_ptr == nullptr) || !lock_record(data, kGilNotHeld)) {
        log_without_tstate("Failure in acquire_gil_on_idle_thread\n");
        return 0;
    }
    if (is_interpreter_ending(data)) {
        single_data_ptr->stop = 1;
        unlock_record(data);
        return 0;
    }
    const int acquired = gPy.PyThread_acquire_lock(single_data_ptr->acquiring_gil_lock, kNoWait);
    unlock_record(data);
    if (!acquired) {
        log_without_tstate("Failed to acquire single_data_ptr->acquiring_gil_lock\n");
        log_without_tstate("Failure in acquire_gil_on_idle_thread\n");
        return 0;
    }
    log_without_tstate("Starting to acquire the GIL in acquire_gil_on_idle_thread\n");
    if (tstate != nullptr) {
        gPy.PyEval_AcquireThread(tstate);
    }
    if (gil_state_ptr != nullptr) {
        *gil_state_ptr = gPy.PyGILState_Ensure();
    }
    log_without_tstate("Acquired the GIL in acquire_gil_on_idle_thread\n");
    gPy.PyThread_release_lock(single_data_ptr->acquiring_gil_lock);
    log_without_tstate("Leaving acquire_gil_on_idle_thread\n");
    return 1;
}

static constexpr PyGILState_STATE kGilStateUnlocked = 1;

void release_gil_on_idle_thread(tSingleIdleThreadData* /*single_data_ptr*/,
                                PyThreadState* tstate,
                                PyGILState_STATE* gil_state_ptr) {
    log_without_tstate("Entering release_gil_on_idle_thread\n");
    if (tstate != nullptr) {
        gPy.PyEval_ReleaseThread(tstate);
    } else if (gil_state_ptr != nullptr) {
        gPy.PyGILState_Release(*gil_state_ptr);
    } else {
        log_without_tstate(
            "release_gil_on_idle_thread() called with both tstate == NULL and gil_state_ptr == "
            "NULL");
        gPy.PyGILState_Release(kGilStateUnlocked);
    }
    log_without_tstate("Leaving release_gil_on_idle_thread\n");
}

// Makes the running thread yield, so that it looks at its pending calls.
static void force_lock_switch(tSingleIdleThreadData* single) {
    if (single->interrupt_tstate == nullptr) {
        return;
    }
    log_without_tstate("Acquiring and releasing GIL\n");
    if (acquire_gil_on_idle_thread(single, single->interrupt_tstate, nullptr)) {
        release_gil_on_idle_thread(single, single->interrupt_tstate, nullptr);
    }
}

void call_idle_from_idle_thread(tSingleIdleThreadData* single_data_ptr) {
    log_without_tstate("Entering call_idle_from_idle_thread\n");
    PyGILState_STATE gil_state = kGilStateUnlocked;
    if (!acquire_gil_on_idle_thread(single_data_ptr, nullptr, &gil_state)) {
        log_without_tstate("Failure in call_idle_from_idle_thread: unable to acquire the GIL\n");
        return;
    }
    {
        tCoreLock lock;
        gIdleCaller = gPy.PyThread_get_thread_ident();
        call_idle_callback_if_allowed();
        gIdleCaller = 0;
        // Our own record is not one of a thread to debug.
        remove_thread_data(&gSelf.thread_data, gPy.PyThreadState_Get());
    }
    release_gil_on_idle_thread(single_data_ptr, nullptr, &gil_state);
    log_without_tstate("Leaving call_idle_from_idle_thread\n");
}

// Of the interpreter; it is not among the functions that the system needs to run.
using tDeleteFunc = void (*)();
static constinit tDeleteFunc gDeleteCurrentThreadState = nullptr;

void find_delete_function() {
    if (gDeleteCurrentThreadState == nullptr) {
        gDeleteCurrentThreadState =
            reinterpret_cast<tDeleteFunc>(lookup_python_function("PyThreadState_DeleteCurrent"));
        gPy.PyErr_Clear();
    }
}

// Under the interpreter lock as a whole: an interpreter that began to end between the clearing and
// the deleting would clear the state once more. One that has begun deletes it itself.
static void delete_interrupt_tstate(tSingleIdleThreadData* single) {
    if (single->interrupt_tstate == nullptr ||
        !acquire_gil_on_idle_thread(single, single->interrupt_tstate, nullptr)) {
        return;
    }
    gPy.PyThreadState_Clear(single->interrupt_tstate);
    if (gDeleteCurrentThreadState == nullptr) {
        release_gil_on_idle_thread(single, single->interrupt_tstate, nullptr);
        return;  // the rest does not need the lock
    }
    gDeleteCurrentThreadState();  // gives the interpreter lock away
    single->interrupt_tstate = nullptr;
}

void cleanup_at_end_of_idle_thread_func(tIdleThreadPerInterpData* per_interp_data,
                                        tSingleIdleThreadData* our_single_data_ptr) {
    log_without_tstate("Entering cleanup_at_end_of_idle_thread_func()\n");
    if (!lock_record(per_interp_data, kGilNotHeld)) {
        log_without_tstate("Failure in cleanup_at_end_of_idle_thread_func()\n");
        return;
    }
    if (per_interp_data->active_single_data_ptr == our_single_data_ptr) {
        per_interp_data->active_single_data_ptr = nullptr;  // nobody asked us to stop
    }
    // deliberate: once the interpreter is on its way out its objects are left alone.
    if (!is_interpreter_ending(per_interp_data)) {
        if (our_single_data_ptr->interrupt_tstate != nullptr) {
            gPy.PyThreadState_Delete(our_single_data_ptr->interrupt_tstate);
        }
        free_locks(our_single_data_ptr);
    }
    free(our_single_data_ptr);
    unlock_record(per_interp_data);
    log_without_tstate("Leaving cleanup_at_end_of_idle_thread_func()\n");
}

// One tenth of the idle period, in microseconds. Without idle calls there is nothing to be quick
// for, but the thread must not spin; a period of centuries must not overflow the interpreter's
// clock.
static long long get_wait_time() {
    const uint64_t seconds = gSelf.idle_period / get_ticks_per_second();
    const double microseconds = static_cast<double>(seconds) / 10.0 * 1e6;
    if (microseconds < static_cast<double>(kShortestWait)) {
        return kShortestWait;
    }
    if (microseconds > static_cast<double>(kLongestWait)) {
        return kLongestWait;
    }
    return static_cast<long long>(microseconds);
}

enum tIdleAction { kNoAction, kForceLockSwitch, kAddPendingCall, kCallIdle };

static bool is_pending_call_overdue(const tIdleThreadPerInterpData* data) {
    return gSelf.thread_data.numEntries >= 2 &&
           data->ticks_when_pending_added + 2 * gSelf.idle_period < get_ticks();
}

// Under the record's mutex. false = the queue is full: next turn.
static bool add_pending_call(tIdleThreadPerInterpData* data) {
    if (gPy.Py_AddPendingCall == nullptr ||
        gPy.Py_AddPendingCall(pending_call_callback, nullptr) != 0) {
        return false;
    }
    log_without_tstate("Scheduled pending call\n");
    data->pending_call_scheduled = 1;
    data->ticks_when_pending_added = get_ticks();
    return true;
}

// 3.8 alone takes no more calls once its main thread has ended, before the exit functions run, and
// says so by printing an exception, in whatever thread state is the current one: null crashes it.
static bool are_pending_calls_refused_at_end() {
    return version_at_least(3, 8) && !version_at_least(3, 9);
}

// Needs the interpreter lock. false as well where nothing tells.
static bool has_main_thread_ended() {
    tSavedError keep_error;
    tOwnedRef threading(get_imported_module("threading"));
    tOwnedRef main_thread(threading ? gPy.PyObject_GetAttrString(threading.borrow(), "_main_thread")
                                    : nullptr);
    tOwnedRef stopped(main_thread ? gPy.PyObject_GetAttrString(main_thread.borrow(), "_is_stopped")
                                  : nullptr);
    return stopped && stopped.borrow() == gPy.Py_True;
}

// Does both at once, adding the call and making the running thread yield.
static void add_pending_call_with_gil(tIdleThreadPerInterpData* data,
                                      tSingleIdleThreadData* single) {
    log_without_tstate("Acquiring and releasing GIL\n");
    if (!acquire_gil_on_idle_thread(single, single->interrupt_tstate, nullptr)) {
        return;
    }
    if (!has_main_thread_ended() && lock_record(data, kGilHeld)) {
        add_pending_call(data);
        unlock_record(data);
    }
    release_gil_on_idle_thread(single, single->interrupt_tstate, nullptr);
}

// Under the record's mutex, without the interpreter lock: the tracer's fields are plain words, and
// a stale one costs or delays one idle call.
static tIdleAction decide_what_to_do(tIdleThreadPerInterpData* data,
                                     tSingleIdleThreadData* single) {
    if (is_interpreter_ending(data)) {
        single->stop = 1;
        return kNoAction;
    }
    if (!gSelf.tracing || gSelf.idling || gSelf.mutex_thread_id != -1 || gSelf.idle_period == 0) {
        return kNoAction;
    }
    if (data->pending_call_scheduled) {
        return is_pending_call_overdue(data) ? kCallIdle : kNoAction;
    }
    if (are_pending_calls_refused_at_end()) {
        return kAddPendingCall;
    }
    return add_pending_call(data) ? kForceLockSwitch : kNoAction;
}

// false = the record is not valid any more.
static bool take_turn(tIdleThreadPerInterpData* data, tSingleIdleThreadData* single) {
    if (!lock_record(data, kGilNotHeld)) {
        return false;
    }
    const tIdleAction action = decide_what_to_do(data, single);
    if (!unlock_record(data)) {
        return false;
    }
    if (action == kForceLockSwitch) {
        force_lock_switch(single);
    } else if (action == kAddPendingCall) {
        add_pending_call_with_gil(data, single);
    } else if (action == kCallIdle) {
        call_idle_from_idle_thread(single);
    }
    return true;
}

// false = told to stop.
static bool wait_for_next_turn(tSingleIdleThreadData* single) {
    if (!single->stop &&
        gPy.PyThread_acquire_lock_timed(single->stop_lock, get_wait_time(), 0) == kLockAcquired) {
        single->stop = 1;
    }
    return !single->stop;
}

void idle_thread_func(void* arg) {
    log_without_tstate("entering idle_thread_func())\n");
    tSingleIdleThreadData* const single = static_cast<tSingleIdleThreadData*>(arg);
    tIdleThreadPerInterpData* const data = &gSelf.global_idle_thread_data;
    bool valid = true;
    while (valid && wait_for_next_turn(single)) {
        valid = take_turn(data, single);
    }
    if (!valid) {
        log_without_tstate("failure in idle_thread_func())\n");
    } else {
        delete_interrupt_tstate(single);
    }
    cleanup_at_end_of_idle_thread_func(data, single);
    count_live_threads(-1);
    if (valid) {
        log_without_tstate("leaving idle_thread_func())\n");
    }
}
