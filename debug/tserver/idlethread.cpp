// A pending call is the polite way: the interpreter runs it in the main thread between two
// instructions, where the server can be called as from any trace event. Setting it up does not need
// the interpreter lock, and taking and dropping that lock afterwards makes the running thread look
// at its pending calls soon. The main thread may however sit in a native call for ever; when a
// pending call has waited two idle periods and there are other threads to debug, the idle thread
// takes the interpreter lock like any foreign thread and makes the call itself.
//
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
#include "threadops.h"
#include "tracercore.h"

static constexpr tIdleThreadID kNoThread = static_cast<tIdleThreadID>(-1);
static constexpr long long kShortestWait = 100 * 1000;                   // microseconds
static constexpr long long kLongestWait = 24LL * 60 * 60 * 1000 * 1000;  // far below 32-bit time_t
static constexpr long long kWaitForThreadTakingGil = 1000;
static constexpr long long kWaitAtEnd = 100 * 1000;
static constexpr timespec kEndPollInterval = {0, 100 * 1000};  // a tenth of a millisecond
static constexpr int kEndPolls = 1000;
static constexpr int kNoWait = 0;
static constexpr int kWait = 1;
static constexpr int kLockAcquired = 1;  // of the timed wait

static void log_without_tstate(const char* text) {
    dprint_no_tstate(kLogCore, text);
}

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

enum tGilState { kGilHeld, kGilNotHeld, kInterpreterGone };

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

// false = the record is not valid or its mutex cannot be had any more; nothing was locked.
static bool lock_record(tIdleThreadPerInterpData* data, tGilState gil) {
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

// false = the record became invalid meanwhile: this is a forked child now. What was locked before
// the child got a mutex of its own is not unlocked.
static bool unlock_record(tIdleThreadPerInterpData* data) {
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

// Lets go of the mutex, however often this thread has it, and takes it that often again.
static int suspend_record_lock(tIdleThreadPerInterpData* data) {
    if (!is_record_valid(data) || record_holder() != gPy.PyThread_get_thread_ident()) {
        return 0;
    }
    const int depth = gRecordHolder.depth;
    gRecordHolder.depth = 1;
    unlock_record(data);
    return depth;
}

static void resume_record_lock(tIdleThreadPerInterpData* data, int depth) {
    if (depth > 0 && lock_record(data, kGilHeld)) {
        gRecordHolder.depth = depth;
    }
}

// ---- Threads that still run ----

// Idle threads that were started and have not let go of all that is the interpreter's.
static constinit int gLiveThreads = 0;

// The idle thread while it calls the server itself; 0 = none does. Only that thread finds its own
// number here.
static constinit unsigned long gIdleCaller = 0;

static int live_threads() {
    return __atomic_load_n(&gLiveThreads, __ATOMIC_ACQUIRE);
}

static void count_live_threads(int change) {
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

// Its objects are then left alone, and nobody waits for its lock any more.
static bool is_interpreter_ending(const tIdleThreadPerInterpData* data) {
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

static void free_locks(tSingleIdleThreadData* single) {
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

// Of the interpreter; it is not among the functions that the system needs to run.
using tDeleteFunc = void (*)();
static constinit tDeleteFunc gDeleteCurrentThreadState = nullptr;

static void find_delete_function() {
    if (gDeleteCurrentThreadState == nullptr) {
        gDeleteCurrentThreadState =
            reinterpret_cast<tDeleteFunc>(lookup_python_function("PyThreadState_DeleteCurrent"));
        gPy.PyErr_Clear();
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

static int start_for_server(tIdleThreadPerInterpData* data) {
    data->use_idle_thread = 1;
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
    const bool possible =
        gPy.major_version == 3 && gPy.minor_version > 6 && !data->initialization_failed;
    const bool wanted = flag != 0 && possible;
    if (wanted == (data->use_idle_thread != 0)) {
        return 0;
    }
    const int result = wanted ? start_for_server(data) : stop_for_server(data);
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

// The state was made by the thread that started us and carries that one's number; the core would
// take the two for one thread.
static void adopt_thread_state(PyThreadState* tstate) {
    if (gPy.tstate_offsets.thread_id != -1) {
        write_field<unsigned long>(
            tstate, gPy.tstate_offsets.thread_id, gPy.PyThread_get_thread_ident());
    }
}

void idle_thread_func(void* arg) {
    log_without_tstate("entering idle_thread_func())\n");
    tSingleIdleThreadData* const single = static_cast<tSingleIdleThreadData*>(arg);
    tIdleThreadPerInterpData* const data = &gSelf.global_idle_thread_data;
    if (single->interrupt_tstate != nullptr) {
        adopt_thread_state(single->interrupt_tstate);
    }
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
