// idlethread.cpp -- how the idle thread is started and stopped: by the server, at the interpreter's
// exit and in a forked child. What it does meanwhile is in idlethread_turns.cpp.
// The record's mutex is an interpreter lock and thus not recursive, but the idle callback runs with
// it held and may start or stop tracing, which needs it again: its holder is remembered.
#include "idlethread.h"

#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "corelock.h"
#include "dbgcommon.h"
#include "dprintf.h"
#include "guards.h"
#include "idlethread_internal.h"
#include "threadops.h"
#include "tracercore.h"

static constexpr tIdleThreadID kNoThread = static_cast<tIdleThreadID>(-1);
static constexpr long long kWaitForThreadTakingGil = 1000;  // microseconds
static constexpr long long kWaitAtEnd = 100 * 1000;
static constexpr timespec kEndPollInterval = {0, 100 * 1000};  // a tenth of a millisecond
static constexpr int kEndPolls = 1000;

// ---- The record's mutex ----

struct tRecordHolder {
    unsigned long
        thread_ident;  // 0 = nobody; only the holder itself ever finds its own number here
    int depth;
};
static constinit tRecordHolder gRecordHolder = {};

static unsigned long record_holder() {
    return __atomic_load_n(&gRecordHolder.thread_ident, __ATOMIC_RELAXED);
}

static void set_record_holder(unsigned long thread_ident, int depth) {
    gRecordHolder.depth = depth;
    __atomic_store_n(&gRecordHolder.thread_ident, thread_ident, __ATOMIC_RELAXED);
}

static bool is_record_valid(const tIdleThreadPerInterpData* data) {
    return data->initialized_for_pid == getpid() && data->mutex != nullptr;
}

// With the interpreter lock held, that is given away while another thread has the mutex: the holder
// may need it to come to an end. An interpreter that is ending ends its other threads wherever they
// are, and one of those may have the mutex for good; the idle thread has it for moments only.
static bool acquire_record_mutex(PyThread_type_lock mutex, tGilState gil) {
    if (gil == kInterpreterGone || gPy._Py_IsFinalizing() != 0) {
        return gPy.PyThread_acquire_lock(mutex, kNoWait) ||
               gPy.PyThread_acquire_lock_timed(mutex, kWaitAtEnd, 0) == kLockAcquired;
    }
    return gil == kGilHeld ? acquire_thread_mutex(mutex, kWait)
                           : gPy.PyThread_acquire_lock(mutex, kWait);
}

bool lock_record(tIdleThreadPerInterpData* data, tGilState gil) {
    if (!is_record_valid(data)) {
        return false;
    }
    const unsigned long self = gPy.PyThread_get_thread_ident();
    if (record_holder() == self) {
        gRecordHolder.depth += 1;
        return true;
    }
    if (!acquire_record_mutex(data->mutex, gil)) {
        return false;
    }
    set_record_holder(self, 1);
    return true;
}

// What was locked before a forked child got a mutex of its own is not unlocked.
bool unlock_record(tIdleThreadPerInterpData* data) {
    if (!is_record_valid(data)) {
        return false;
    }
    if (record_holder() != gPy.PyThread_get_thread_ident()) {
        return true;
    }
    gRecordHolder.depth -= 1;
    if (gRecordHolder.depth == 0) {
        set_record_holder(0, 0);
        gPy.PyThread_release_lock(data->mutex);
    }
    return true;
}

int suspend_record_lock(tIdleThreadPerInterpData* data) {
    if (!is_record_valid(data) || record_holder() != gPy.PyThread_get_thread_ident()) {
        return 0;
    }
    const int depth = gRecordHolder.depth;
    gRecordHolder.depth = 1;
    unlock_record(data);
    return depth;
}

void resume_record_lock(tIdleThreadPerInterpData* data, int depth) {
    if (depth > 0 && lock_record(data, kGilHeld)) {
        gRecordHolder.depth = depth;
    }
}

// ---- Threads that still run ----

// Idle threads that were started and have not let go of all that is the interpreter's.
static constinit int gLiveThreads = 0;

constinit unsigned long gIdleCaller = 0;

static int live_threads() {
    return __atomic_load_n(&gLiveThreads, __ATOMIC_ACQUIRE);
}

void count_live_threads(int change) {
    __atomic_fetch_add(&gLiveThreads, change, __ATOMIC_ACQ_REL);
}

static void forget_live_threads() {
    __atomic_store_n(&gLiveThreads, 0, __ATOMIC_RELEASE);
}

// A program often ends right after it has stopped tracing, and the interpreter would take the
// thread state from under the thread. Needs the interpreter lock and gives it away meanwhile. Not
// for ever: the thread may be in the server, which waits for whoever is stopped.
static void wait_for_end_of_threads() {
    const unsigned long self = gPy.PyThread_get_thread_ident();
    if (live_threads() == 0 || record_holder() == self || gIdleCaller == self) {
        return;  // the last two: called from inside the idle callback, which the thread waits for
    }
    tSavedErrno keep_errno;
    PyThreadState* const tstate = gPy.PyEval_SaveThread();
    for (int i = 0; i < kEndPolls && live_threads() != 0; i += 1) {
        nanosleep(&kEndPollInterval, nullptr);
    }
    gPy.PyEval_RestoreThread(tstate);
}

bool is_interpreter_ending(const tIdleThreadPerInterpData* data) {
    return data->py_finalize_called || data->low_level_py_at_exit_called ||
           gPy._Py_IsFinalizing() != 0;
}

// ---- Life ----

enum tStopFor : bool { kStopForNow, kStopForGood };
static int stop_and_wait(tIdleThreadPerInterpData* data, tStopFor how);

// With the interpreter, which calls each hook once; it has few places for them.
static constinit bool gExitHookRegistered = false;

void forget_idle_threads() {
    gExitHookRegistered = false;
    set_record_holder(0, 0);
    forget_live_threads();
}

void init_idle_thread_data(tIdleThreadPerInterpData* data) {
    if (is_record_valid(data)) {
        // A second init: who knew of the thread to end it? While this thread waits for its end
        // another one may start the next.
        while (data->use_idle_thread && stop_and_wait(data, kStopForGood) == 0) {
        }
    } else {
        data->mutex = nullptr;
        set_record_holder(0, 0);
        forget_live_threads();
    }
    data->initialization_failed = 0;
    data->active_single_data_ptr = nullptr;
    data->initialized_for_pid = getpid();
    data->use_idle_thread = 0;
    if (data->mutex == nullptr) {
        data->mutex = gPy.PyThread_allocate_lock();
    }
    if (data->mutex == nullptr) {
        data->initialization_failed = 1;
        return;
    }
    data->py_finalize_called = 0;
    data->low_level_py_at_exit_called = 0;
    data->pending_call_scheduled = 0;
    if (!gExitHookRegistered && gPy.Py_AtExit(low_level_py_at_exit_func) != 0) {
        DPRINTF(kLogCore, "Unable to set PyAtExit function\n");
        data->initialization_failed = 1;
        return;
    }
    gExitHookRegistered = true;
}

// Needs the interpreter lock.
static void delete_thread_state(PyThreadState* tstate) {
    gPy.PyThreadState_Clear(tstate);
    gPy.PyThreadState_Delete(tstate);
}

void free_locks(tSingleIdleThreadData* single) {
    if (single->stop_lock != nullptr) {
        gPy.PyThread_free_lock(single->stop_lock);
    }
    if (single->acquiring_gil_lock != nullptr) {
        gPy.PyThread_free_lock(single->acquiring_gil_lock);
    }
}

// The record of a thread that was not started yet; may be null.
static void free_unstarted(const tIdleThreadPerInterpData* data, tSingleIdleThreadData* single) {
    if (single == nullptr) {
        return;
    }
    if (!data->low_level_py_at_exit_called) {
        if (single->interrupt_tstate != nullptr) {
            delete_thread_state(single->interrupt_tstate);
        }
        free_locks(single);
    }
    free(single);
}

// A free-threaded interpreter has no lock to take turns with, and its thread states must not move
// between threads: their memory belongs to the thread that made them. There the idle thread has
// none of its own.
static bool has_own_thread_state() {
    return !is_free_threaded_build();
}

static PyThreadState* new_thread_state() {
    return has_own_thread_state()
               ? gPy.PyThreadState_New(borrow_thread_state_interp(gPy.PyThreadState_Get()))
               : nullptr;
}

// Null when anything is missing.
static tSingleIdleThreadData* new_single_data(const tIdleThreadPerInterpData* data) {
    void* const memory = malloc(sizeof(tSingleIdleThreadData));
    if (memory == nullptr) {
        return nullptr;
    }
    tSingleIdleThreadData* const single = static_cast<tSingleIdleThreadData*>(memory);
    *single = {.thread_id = kNoThread,
               .stop = 0,
               .interrupt_tstate = new_thread_state(),
               .stop_lock = gPy.PyThread_allocate_lock(),
               .acquiring_gil_lock = gPy.PyThread_allocate_lock()};
    if ((single->interrupt_tstate == nullptr && has_own_thread_state()) ||
        single->stop_lock == nullptr || single->acquiring_gil_lock == nullptr) {
        free_unstarted(data, single);
        return nullptr;
    }
    return single;
}

// The state was made by the thread that starts the idle thread and carries that one's number; the
// core would take the two for one thread. Not left to the idle thread: the interpreter may have
// ended, and freed the state, before that runs for the first time.
static void give_thread_state_away(const tSingleIdleThreadData* single) {
    if (single->interrupt_tstate != nullptr && gPy.tstate_offsets.thread_id != -1) {
        write_field<unsigned long>(
            single->interrupt_tstate, gPy.tstate_offsets.thread_id, single->thread_id);
    }
}

static int start_idle_thread_mutex_held(tIdleThreadPerInterpData* data) {
    tSingleIdleThreadData* const single = new_single_data(data);
    if (single == nullptr) {
        return -1;
    }
    find_delete_function();
    gPy.PyThread_acquire_lock(single->stop_lock, kWait);
    data->active_single_data_ptr = single;
    count_live_threads(1);
    single->thread_id = gPy.PyThread_start_new_thread(idle_thread_func, single);
    if (single->thread_id == kNoThread) {
        count_live_threads(-1);
        // deliberate: only the record goes; its locks and its thread state are left.
        data->active_single_data_ptr = nullptr;
        free(single);
        return -1;
    }
    give_thread_state_away(single);
    return 0;
}

static bool is_start_wanted(const tIdleThreadPerInterpData* data) {
    return data->use_idle_thread && data->active_single_data_ptr == nullptr;
}

int start_idle_thread(tIdleThreadPerInterpData* data) {
    if (!is_start_wanted(data)) {
        return 0;
    }
    if (!lock_record(data, kGilHeld)) {
        return -1;
    }
    // Asked again: another thread may have run while this one waited for the mutex.
    const int result = is_start_wanted(data) ? start_idle_thread_mutex_held(data) : 0;
    unlock_record(data);
    return result;
}

// For good: no idle thread is wanted any more. That is settled before the wait, in which another
// thread may run and start tracing: the idle thread that it would start nobody would stop again.
static int stop_and_wait(tIdleThreadPerInterpData* data, tStopFor how) {
    if (!data->use_idle_thread) {
        return 0;
    }
    if (!lock_record(data, kGilHeld)) {
        return -1;
    }
    if (data->use_idle_thread) {
        stop_idle_thread_mutex_held(data, kNoWait);
    }
    if (how == kStopForGood) {
        data->use_idle_thread = 0;
    }
    if (!unlock_record(data)) {
        return -1;
    }
    wait_for_end_of_threads();
    return 0;
}

int stop_idle_thread(tIdleThreadPerInterpData* data) {
    return stop_and_wait(data, kStopForNow);
}

// deliberate: waits a millisecond, whatever the line says.
static int wait_for_thread_taking_gil(tSingleIdleThreadData* single) {
    log_without_tstate("Waiting .1 seconds for idle thread to acquire the GIL\n");
    PyThreadState* const tstate = gPy.PyEval_SaveThread();
    const int acquired =
        gPy.PyThread_acquire_lock_timed(single->acquiring_gil_lock, kWaitForThreadTakingGil, 0) ==
        kLockAcquired;
    gPy.PyEval_RestoreThread(tstate);
    return acquired;
}

void stop_idle_thread_mutex_held(tIdleThreadPerInterpData* per_interp_data,
                                 int wait_if_idle_thread_aquiring_gil) {
    tSingleIdleThreadData* const single = per_interp_data->active_single_data_ptr;
    if (single == nullptr) {
        return;
    }
    // From here on the record is the idle thread's alone; it cannot free it while we hold the
    // mutex.
    per_interp_data->active_single_data_ptr = nullptr;
    gPy.PyThread_release_lock(single->stop_lock);
    log_without_tstate("Checking if idle thread is acquiring the GIL\n");
    int acquired = gPy.PyThread_acquire_lock(single->acquiring_gil_lock, kNoWait);
    if (!acquired && wait_if_idle_thread_aquiring_gil) {
        acquired = wait_for_thread_taking_gil(single);
    }
    if (acquired) {
        gPy.PyThread_release_lock(single->acquiring_gil_lock);
    }
}

// The server's switch.

static int start_for_server(tIdleThreadPerInterpData* data, boolean flag) {
    data->use_idle_thread = flag;
    if (!gSelf.tracing) {
        return 0;  // start_trace starts it
    }
    if (start_idle_thread(data) != 0) {
        return -1;
    }
    schedule_f_trace_update();
    return 0;
}

static int stop_for_server(tIdleThreadPerInterpData* data) {
    if (stop_and_wait(data, kStopForGood) != 0) {
        data->use_idle_thread = 0;
        return -1;
    }
    if (gSelf.tracing) {
        schedule_f_trace_update();
    }
    return 0;
}

int tracer_set_use_idle_thread(int flag) {
    tIdleThreadPerInterpData* const data = &gSelf.global_idle_thread_data;
    // A subinterpreter gets none: pending calls run in the main interpreter alone, and a thread
    // state that is left when a subinterpreter is ended ends the whole process.
    const bool possible = gPy.major_version == 3 && gPy.minor_version > 6 &&
                          !data->initialization_failed && is_main_interpreter();
    const boolean wanted = static_cast<boolean>(possible ? flag : 0);  // kept as it was given
    if (wanted == data->use_idle_thread) {
        return 0;
    }
    const int result = wanted != 0 ? start_for_server(data, wanted) : stop_for_server(data);
    if (result != 0) {
        DPRINTF(kLogCore, "tracer_set_use_idle_thread() failed\n");
    }
    return result;
}

// ---- Exit and fork ----

void idle_thread_atexit_func() {
    DPRINTF(kLogCore, "Entering idle_thread_atexit_func()\n");
    tIdleThreadPerInterpData* const data = &gSelf.global_idle_thread_data;
    bool valid = lock_record(data, kGilHeld);
    if (is_record_valid(data)) {
        data->py_finalize_called = 1;
    }
    if (valid) {
        if (data->use_idle_thread) {
            stop_idle_thread_mutex_held(data, kWait);
        }
        valid = unlock_record(data);
    }
    DPRINTF(
        kLogCore,
        "%s",
        valid ? "Leaving idle_thread_atexit_func()\n" : "Failure in idle_thread_atexit_func()\n");
}

void low_level_py_at_exit_func() {
    log_without_tstate("Entering low_level_py_at_exit_func()\n");
    tIdleThreadPerInterpData* const data = &gSelf.global_idle_thread_data;
    bool valid = lock_record(data, kInterpreterGone);
    if (is_record_valid(data)) {
        data->low_level_py_at_exit_called = 1;
    }
    if (valid) {
        if (data->use_idle_thread) {
            stop_idle_thread_mutex_held(data, kNoWait);
        }
        valid = unlock_record(data);
    }
    log_without_tstate(valid ? "Leaving low_level_py_at_exit_func()\n"
                             : "Failure in low_level_py_at_exit_func()\n");
}

// The parent's idle thread is not in the child, and its thread state is the parent interpreter's.
static void forget_parents_thread(tIdleThreadPerInterpData* data) {
    tSingleIdleThreadData* const single = data->active_single_data_ptr;
    data->active_single_data_ptr = nullptr;
    if (single == nullptr) {
        return;
    }
    if (!data->low_level_py_at_exit_called) {
        free_locks(single);
    }
    free(single);
}

int update_idle_thread_maybe_after_fork(tIdleThreadPerInterpData* data) {
    if (data->initialized_for_pid == getpid()) {
        return 0;
    }
    data->initialized_for_pid = getpid();
    if (data->initialization_failed) {
        return 0;
    }
    // The old mutex may have been held by a thread that does not exist here; it is left alone.
    data->mutex = gPy.PyThread_allocate_lock();
    set_record_holder(0, 0);
    forget_live_threads();
    data->pending_call_scheduled = 0;
    forget_parents_thread(data);
    if (data->mutex == nullptr) {
        data->initialization_failed = 1;
        data->use_idle_thread = 0;
        return -1;
    }
    return gSelf.tracing ? start_idle_thread(data) : 0;
}
