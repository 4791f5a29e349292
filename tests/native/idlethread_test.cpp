// The idle thread, turn by turn: its body runs on the test's own thread, and the locks are records
// that answer at once, so that nothing here waits for anything.
#include "idlethread.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>

#include "fake_python.h"
#include "support/alloc_failures.h"
#include "threadops.h"
#include "tracercore.h"

struct PyThreadLock {
    const char* name;
    int locked;
};

namespace {

using tStrings = std::vector<std::string>;

constexpr unsigned long kMainThread = 1;
constexpr unsigned long kIdleThread = 2;
constexpr tIdleThreadID kNoThread = static_cast<tIdleThreadID>(-1);

// What the functions of the interpreter do and remember.
struct tWorld {
    tStrings calls;
    std::vector<long long> waits;          // microseconds of the timed waits
    std::function<void(int)> on_turn;      // before each timed wait of the idle thread
    std::function<void()> on_idle;         // the idle callback
    std::function<void()> on_acquire_gil;  // while the idle thread waits for it
    int last_turn = 3;                     // its wait ends with the stop signal
    unsigned long thread = kMainThread;
    int locks_made = 0;
    std::set<PyThread_type_lock> locks;  // made and not freed; some are meant to stay
    int fail_lock = -1;                  // number of the lock that cannot be made
    bool fail_tstate = false;
    bool fail_start = false;
    bool finalizing = false;
    int add_pending_result = 0;
    int at_exit_result = 0;
    int idle_calls = 0;
    void* thread_arg = nullptr;
};
tWorld* world = nullptr;
tFakeThreadState gInterruptState;

PyThreadState* interrupt_state() {
    return reinterpret_cast<PyThreadState*>(&gInterruptState);
}

void note(const std::string& text) {
    world->calls.push_back(text);
}

PyThread_type_lock make_lock() {
    const int number = world->locks_made++;
    if (number == world->fail_lock) {
        return nullptr;
    }
    PyThreadLock* const lock = new PyThreadLock{"lock", 0};
    world->locks.insert(lock);
    return lock;
}

int acquire_lock(PyThread_type_lock lock, int wait) {
    if (lock->locked != 0) {
        EXPECT_EQ(0, wait) << "waits for ever";
        return 0;
    }
    lock->locked = 1;
    return 1;
}

void release_lock(PyThread_type_lock lock) {
    EXPECT_EQ(1, lock->locked) << "released, but not held";
    lock->locked = 0;
}

PyLockStatus acquire_timed(PyThread_type_lock lock, long long microseconds, int) {
    world->waits.push_back(microseconds);
    if (world->thread == kIdleThread) {
        const int turn = static_cast<int>(world->waits.size());
        if (world->on_turn) {
            world->on_turn(turn);
        }
        if (turn >= world->last_turn) {
            return 1;
        }
    }
    return acquire_lock(lock, 0);
}

class IdleThread : public FakePython {
protected:
    void SetUp() override {
        FakePython::SetUp();
        world = &world_;
        bind_locks();
        bind_thread_states();
        bind_calls();
        gSelf.tracing = 1;
        gSelf.idle_period = 1;
        gSelf.idling = 0;
        gSelf.idle_time_threshold = 0;
        gSelf.mutex_thread_id = -1;
        gSelf.mutex = &server_mutex_;
        gSelf.idle_cb = python_.make(python_.other_type, "idle_cb");
        init_thread_table(&gSelf.thread_data);
        python_.thread_state.thread_id = kMainThread;
        *data() = tIdleThreadPerInterpData{};
        init_idle_thread_data(data());
        data()->use_idle_thread = 1;
    }
    void TearDown() override {
        EXPECT_EQ(0, server_mutex_.locked);
        EXPECT_EQ("", python_.pending());
        if (data()->initialized_for_pid == getpid() && data()->mutex != nullptr) {
            EXPECT_EQ(0, data()->mutex->locked);
        }
        clear_thread_table(&gSelf.thread_data);
        for (const PyThread_type_lock lock : world_.locks) {
            delete lock;
        }
        FakePython::TearDown();
    }
    static void bind_locks() {
        gPy.PyThread_allocate_lock = make_lock;
        gPy.PyThread_free_lock = [](PyThread_type_lock lock) {
            note("free lock");
            EXPECT_EQ(1u, world->locks.erase(lock));
            delete lock;
        };
        gPy.PyThread_acquire_lock = acquire_lock;
        gPy.PyThread_acquire_lock_timed = acquire_timed;
        gPy.PyThread_release_lock = release_lock;
        gPy.PyThread_get_thread_ident = [] { return world->thread; };
        gPy.PyThread_start_new_thread = [](void (*)(void*), void* arg) {
            world->thread_arg = arg;
            return world->fail_start ? kNoThread : kIdleThread;
        };
    }
    static void bind_thread_states() {
        gPy.PyThreadState_GetInterpreter = [](PyThreadState*) -> PyInterpreterState* {
            return nullptr;
        };
        gPy.PyThreadState_New = [](PyInterpreterState*) {
            return world->fail_tstate ? nullptr : interrupt_state();
        };
        gPy.PyThreadState_Clear = [](PyThreadState*) { note("clear tstate"); };
        gPy.PyThreadState_Delete = [](PyThreadState*) { note("delete tstate"); };
        gPy.PyEval_AcquireThread = [](PyThreadState*) {
            note("acquire thread");
            if (world->on_acquire_gil) {
                world->on_acquire_gil();
            }
        };
        gPy.PyEval_ReleaseThread = [](PyThreadState*) { note("release thread"); };
        gPy.PyEval_SaveThread = [] {
            note("save thread");
            return fake->current;
        };
        gPy.PyEval_RestoreThread = [](PyThreadState*) { note("restore thread"); };
        gPy.PyGILState_Ensure = [] {
            note("ensure");
            return 1;
        };
        gPy.PyGILState_Release = [](int) { note("release gil state"); };
    }
    static void bind_calls() {
        gPy.Py_AtExit = [](void (*)()) { return world->at_exit_result; };
        gPy._Py_IsFinalizing = [] { return static_cast<int>(world->finalizing); };
        gPy.Py_AddPendingCall = [](int (*)(void*), void*) {
            note("add pending call");
            return world->add_pending_result;
        };
        gPy.PyObject_CallObject = [](PyObject* callable, PyObject*) -> PyObject* {
            EXPECT_EQ("idle_cb", as_fake(callable)->text);
            ++world->idle_calls;
            if (world->on_idle) {
                world->on_idle();
            }
            return fake->pending().empty() ? new_ref(gPy.Py_None) : nullptr;
        };
    }

    static tIdleThreadPerInterpData* data() { return &gSelf.global_idle_thread_data; }
    // Starts the idle thread and runs its body here, up to its end.
    void run_thread() {
        ASSERT_EQ(0, start_idle_thread(data()));
        run_body();
    }
    void run_body() {
        world_.calls.clear();
        world_.thread = kIdleThread;
        idle_thread_func(world_.thread_arg);
        world_.thread = kMainThread;
    }
    void add_thread_records(int count) {
        for (int i = 0; i < count; ++i) {
            get_other_thread_data(&gSelf.thread_data,
                                  reinterpret_cast<PyThreadState*>(&others_[i]));
        }
    }
    void become_forked_child() { data()->initialized_for_pid = getpid() + 1; }

    tWorld world_;
    PyThreadLock server_mutex_ = {"server", 0};
    tFakeThreadState others_[3];
};

class Start : public IdleThread {};
class Stop : public IdleThread {};
class Turns : public IdleThread {};
class PendingCall : public IdleThread {};
class Switch : public IdleThread {};
class Fork : public IdleThread {};
class Exit : public IdleThread {};

const tStrings kEnd = {
    "acquire thread", "clear tstate", "release thread", "delete tstate", "free lock", "free lock"};

tStrings operator+(tStrings a, const tStrings& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Start.

TEST_F(Start, InitialisedRecord) {
    EXPECT_EQ(getpid(), data()->initialized_for_pid);
    EXPECT_EQ(0, data()->initialization_failed);
    EXPECT_EQ(nullptr, data()->active_single_data_ptr);
    EXPECT_NE(nullptr, data()->mutex);
}

TEST_F(Start, WithoutAMutexItIsNeverUsed) {
    *data() = tIdleThreadPerInterpData{};
    world_.fail_lock = world_.locks_made;
    init_idle_thread_data(data());
    EXPECT_EQ(1, data()->initialization_failed);
    EXPECT_EQ(0, tracer_set_use_idle_thread(1));
    EXPECT_EQ(0, data()->use_idle_thread);
    idle_thread_atexit_func();
    low_level_py_at_exit_func();
    EXPECT_EQ(0, pending_call_callback(nullptr));
}

TEST_F(Start, SecondInitKeepsTheMutexAndStopsTheThread) {
    const PyThread_type_lock mutex = data()->mutex;
    start_idle_thread(data());
    const tSingleIdleThreadData* const single = data()->active_single_data_ptr;
    init_idle_thread_data(data());
    EXPECT_EQ(mutex, data()->mutex);
    EXPECT_EQ(nullptr, data()->active_single_data_ptr);
    EXPECT_EQ(0, single->stop_lock->locked);
    EXPECT_EQ(0, data()->use_idle_thread);
    run_body();
}

// The wait for the end of the thread gives the interpreter lock away.
TEST_F(Start, SecondInitStopsTheThreadThatAnotherOneStartsMeanwhile) {
    start_idle_thread(data());
    tSingleIdleThreadData* const first = data()->active_single_data_ptr;
    gPy.PyEval_SaveThread = [] {
        gPy.PyEval_SaveThread = [] { return fake->current; };
        data()->use_idle_thread = 1;
        EXPECT_EQ(0, start_idle_thread(data()));
        return fake->current;
    };
    init_idle_thread_data(data());
    EXPECT_EQ(nullptr, data()->active_single_data_ptr);
    EXPECT_EQ(0, data()->use_idle_thread);
    for (void* const arg : {static_cast<void*>(first), world_.thread_arg}) {
        EXPECT_EQ(0, static_cast<tSingleIdleThreadData*>(arg)->stop_lock->locked);
        world_.thread_arg = arg;
        run_body();
    }
}

TEST_F(Start, RecordOfTheThread) {
    ASSERT_EQ(0, start_idle_thread(data()));
    const tSingleIdleThreadData* const single = data()->active_single_data_ptr;
    EXPECT_EQ(world_.thread_arg, single);
    EXPECT_EQ(kIdleThread, single->thread_id);
    EXPECT_EQ(0, single->stop);
    EXPECT_EQ(interrupt_state(), single->interrupt_tstate);
    EXPECT_EQ(1, single->stop_lock->locked);
    EXPECT_EQ(0, single->acquiring_gil_lock->locked);
    EXPECT_EQ(0, start_idle_thread(data()));  // nothing to do
    EXPECT_EQ(single, data()->active_single_data_ptr);
    run_body();
}

TEST_F(Start, NotWantedOrNotValid) {
    data()->use_idle_thread = 0;
    EXPECT_EQ(0, start_idle_thread(data()));
    data()->use_idle_thread = 1;
    become_forked_child();
    EXPECT_EQ(-1, start_idle_thread(data()));
    EXPECT_EQ(nullptr, data()->active_single_data_ptr);
}

TEST_F(Start, FailuresLeaveNothing) {
    const int first = world_.locks_made;
    for (int failing = 0; failing < 3; ++failing) {
        world_.calls.clear();
        world_.fail_tstate = failing == 2;
        world_.fail_lock = failing == 2 ? -1 : first + failing;
        world_.locks_made = first;
        EXPECT_EQ(-1, start_idle_thread(data()));
        EXPECT_EQ(nullptr, data()->active_single_data_ptr);
        EXPECT_EQ(0, data()->mutex->locked);
        const tStrings freed = failing == 2
                                   ? tStrings{"free lock", "free lock"}
                                   : tStrings{"clear tstate", "delete tstate", "free lock"};
        EXPECT_EQ(freed, world_.calls);
    }
}

TEST_F(Start, ThreadThatCannotBeStartedLeavesItsLocks) {
    world_.fail_start = true;
    world_.calls.clear();
    EXPECT_EQ(-1, start_idle_thread(data()));
    EXPECT_EQ(nullptr, data()->active_single_data_ptr);
    EXPECT_EQ(tStrings{}, world_.calls);
}

TEST_F(Start, OutOfMemory) {
    SKIP_WITHOUT_ALLOC_TAP();
    tAllocTapScope tap(1);
    EXPECT_EQ(-1, start_idle_thread(data()));
    tap.stop();
    EXPECT_EQ(nullptr, data()->active_single_data_ptr);
    EXPECT_EQ(0, data()->mutex->locked);
}

// Stop.

TEST_F(Stop, SignalsAndForgets) {
    start_idle_thread(data());
    const tSingleIdleThreadData* const single = data()->active_single_data_ptr;
    EXPECT_EQ(0, stop_idle_thread(data()));
    EXPECT_EQ(nullptr, data()->active_single_data_ptr);
    EXPECT_EQ(0, single->stop_lock->locked);
    EXPECT_EQ(0, single->acquiring_gil_lock->locked);
    world_.last_turn = 100;
    run_body();  // its first wait succeeds
    EXPECT_EQ(1u, world_.waits.size());
    EXPECT_EQ(kEnd, world_.calls);
}

TEST_F(Stop, NothingToDoOrNotValid) {
    EXPECT_EQ(0, stop_idle_thread(data()));
    data()->use_idle_thread = 0;
    become_forked_child();
    EXPECT_EQ(0, stop_idle_thread(data()));
    data()->use_idle_thread = 1;
    EXPECT_EQ(-1, stop_idle_thread(data()));
}

TEST_F(Stop, WaitsAMillisecondForAThreadThatTakesTheLock) {
    world_.on_acquire_gil = [this] {
        if (data()->active_single_data_ptr == nullptr) {
            return;  // the one at its end
        }
        world_.thread = kMainThread;
        world_.calls.clear();
        world_.waits.clear();
        stop_idle_thread_mutex_held(data(), 1);
        EXPECT_EQ((tStrings{"save thread", "restore thread"}), world_.calls);
        EXPECT_EQ(std::vector<long long>{1000}, world_.waits);
        world_.thread = kIdleThread;
    };
    world_.last_turn = 100;
    run_thread();  // and ends by itself
    EXPECT_EQ("free lock", world_.calls.back());
}

TEST_F(Stop, DoesNotWaitOtherwise) {
    world_.on_acquire_gil = [this] {
        if (data()->active_single_data_ptr != nullptr) {
            world_.thread = kMainThread;
            world_.waits.clear();
            EXPECT_EQ(0, stop_idle_thread(data()));
            EXPECT_TRUE(world_.waits.empty());
            world_.thread = kIdleThread;
        }
    };
    world_.last_turn = 100;
    run_thread();
}

// Turns.

TEST_F(Turns, WaitIsATenthOfThePeriod) {
    const struct {
        uint64_t period;
        long long wait;
    } rows[] = {{1, 100000},
                {2, 200000},
                {15, 1500000},
                {0, 100000},  // nothing to do, but no spinning either
                {~uint64_t{0}, 24LL * 3600 * 1000 * 1000}};
    gSelf.tracing = 0;
    for (const auto& row : rows) {
        gSelf.idle_period = row.period;
        world_.waits.clear();
        world_.last_turn = 1;
        run_thread();
        EXPECT_EQ(std::vector<long long>{row.wait}, world_.waits);
    }
}

TEST_F(Turns, SchedulesOnePendingCallAndSwitchesThreads) {
    run_thread();
    EXPECT_EQ(1, data()->pending_call_scheduled);
    EXPECT_EQ((tStrings{"add pending call", "acquire thread", "release thread"}) + kEnd,
              world_.calls);
}

// 3.8 crashes when a call is added without a thread state while it is ending.
TEST_F(Turns, PendingCallIsAddedUnderTheInterpreterLockOn38) {
    set_version(3, 8);
    run_thread();
    EXPECT_EQ(1, data()->pending_call_scheduled);
    EXPECT_EQ((tStrings{"acquire thread", "add pending call", "release thread"}) + kEnd,
              world_.calls);
}

TEST_F(Turns, FullQueueIsTriedAgain) {
    world_.add_pending_result = -1;
    run_thread();
    EXPECT_EQ(0, data()->pending_call_scheduled);
    EXPECT_EQ((tStrings{"add pending call", "add pending call"}) + kEnd, world_.calls);
}

TEST_F(Turns, NothingWhileNotTracingIdlingOrStopped) {
    for (const int reason : {0, 1, 2, 3}) {
        gSelf.tracing = reason != 0;
        gSelf.idling = reason == 1;
        gSelf.mutex_thread_id = reason == 2 ? 7 : -1;
        gSelf.idle_period = reason == 3 ? 0 : 1;
        run_thread();
        EXPECT_EQ(kEnd, world_.calls) << reason;
        EXPECT_EQ(0, world_.idle_calls);
        world_.waits.clear();
    }
    gSelf.idling = 0;
    gSelf.mutex_thread_id = -1;
}

TEST_F(Turns, OverduePendingCallIsMadeByTheIdleThreadItself) {
    data()->use_idle_thread = 1;
    add_thread_records(2);
    data()->pending_call_scheduled = 1;
    data()->ticks_when_pending_added = get_ticks() - 3;
    data()->use_idle_thread = 1;
    ASSERT_EQ(0, start_idle_thread(data()));
    data()->use_idle_thread = 0;  // no leaf frames here to update
    world_.last_turn = 2;
    world_.on_idle = [this] {
        EXPECT_EQ(1, server_mutex_.locked);
        EXPECT_EQ(1, gSelf.idling);
        EXPECT_EQ(1, python_.thread_state.tracing);
        EXPECT_EQ(0, data()->mutex->locked);
    };
    run_body();
    EXPECT_EQ(1, world_.idle_calls);
    EXPECT_EQ(1, data()->pending_call_scheduled);
    EXPECT_EQ((tStrings{"ensure", "release gil state"}) + kEnd, world_.calls);
    EXPECT_EQ(nullptr, find_thread_data(&gSelf.thread_data, python_.current));
    EXPECT_EQ(2u, gSelf.thread_data.numEntries);
}

TEST_F(Turns, OneThreadRecordIsNotEnough) {
    add_thread_records(1);
    data()->pending_call_scheduled = 1;
    data()->ticks_when_pending_added = get_ticks() - 3;
    run_thread();
    EXPECT_EQ(kEnd, world_.calls);
}

TEST_F(Turns, PendingCallMayTakeTwoPeriods) {
    add_thread_records(2);
    data()->pending_call_scheduled = 1;
    data()->ticks_when_pending_added = get_ticks() + 100;
    run_thread();
    EXPECT_EQ(kEnd, world_.calls);
}

TEST_F(Turns, ThreadStateGetsTheThreadsOwnNumber) {
    gInterruptState.thread_id = kMainThread;
    run_thread();
    EXPECT_EQ(kIdleThread, gInterruptState.thread_id);
}

TEST_F(Turns, FreeThreadedInterpreterHasNoLockToSwitchNorAThreadStateOfOurs) {
    gPy.can_update_refcount_directly = 0;
    gPy.pyobject_offsets.refcnt = -1;
    run_thread();
    EXPECT_EQ((tStrings{"add pending call", "free lock", "free lock"}), world_.calls);
}

TEST_F(Turns, EndsWhenTheInterpreterEndsAndLeavesItsObjects) {
    world_.on_turn = [this](int turn) {
        if (turn == 1) {
            data()->py_finalize_called = 1;
        }
    };
    world_.last_turn = 100;
    run_thread();
    EXPECT_EQ(1u, world_.waits.size());
    EXPECT_EQ(tStrings{}, world_.calls);
    EXPECT_EQ(nullptr, data()->active_single_data_ptr);
}

TEST_F(Turns, EndsWhenTheRecordIsNoLongerValid) {
    world_.on_turn = [this](int) { become_forked_child(); };
    world_.last_turn = 100;
    run_thread();
    EXPECT_EQ(1u, world_.waits.size());
    EXPECT_EQ(tStrings{}, world_.calls);
}

TEST_F(Turns, LockIsNotTakenOnceTheInterpreterEnds) {
    start_idle_thread(data());
    tSingleIdleThreadData* const single = data()->active_single_data_ptr;
    data()->py_finalize_called = 1;
    world_.calls.clear();
    EXPECT_EQ(0, acquire_gil_on_idle_thread(single, interrupt_state(), nullptr));
    EXPECT_EQ(1, single->stop);
    EXPECT_EQ(0, acquire_gil_on_idle_thread(single, nullptr, nullptr));
    EXPECT_EQ(tStrings{}, world_.calls);
    data()->py_finalize_called = 0;
    run_body();
}

TEST_F(Turns, SomebodyElseTakingTheLockSkipsTheTurn) {
    start_idle_thread(data());
    tSingleIdleThreadData* const single = data()->active_single_data_ptr;
    single->acquiring_gil_lock->locked = 1;
    EXPECT_EQ(0, acquire_gil_on_idle_thread(single, interrupt_state(), nullptr));
    single->acquiring_gil_lock->locked = 0;
    PyGILState_STATE state = 5;
    EXPECT_EQ(1, acquire_gil_on_idle_thread(single, nullptr, &state));
    EXPECT_EQ(1, state);
    release_gil_on_idle_thread(single, nullptr, nullptr);
    EXPECT_EQ("release gil state", world_.calls.back());
    run_body();
}

TEST_F(Turns, FinalizingInterpreterIsLeftAlone) {
    world_.finalizing = true;
    run_thread();
    EXPECT_EQ(tStrings{}, world_.calls);
}

// The pending call.

TEST_F(PendingCall, CallsIdleUnderBothMutexes) {
    data()->use_idle_thread = 0;
    data()->pending_call_scheduled = 1;
    gSelf.idle_instruction_count = 9;
    world_.on_idle = [this] {
        EXPECT_EQ(1, data()->mutex->locked);
        EXPECT_EQ(1, server_mutex_.locked);
        EXPECT_EQ(1, gSelf.idling);
        EXPECT_EQ(1, python_.thread_state.tracing);
    };
    const uint64_t before = get_ticks();
    EXPECT_EQ(0, pending_call_callback(nullptr));
    EXPECT_EQ(1, world_.idle_calls);
    EXPECT_EQ(0, gSelf.idling);
    EXPECT_EQ(0, gSelf.idle_instruction_count);
    EXPECT_LE(before + gSelf.idle_period, gSelf.idle_time_threshold);
    EXPECT_EQ(0, python_.thread_state.tracing);
    EXPECT_EQ(0, data()->pending_call_scheduled);
}

TEST_F(PendingCall, NotWhileIdlingStoppedInsideTracingOrNotTracing) {
    data()->use_idle_thread = 0;
    for (const int reason : {0, 1, 2, 3, 4}) {
        data()->pending_call_scheduled = 1;
        gSelf.idling = reason == 0;
        gSelf.mutex_thread_id = reason == 1 ? 7 : -1;
        python_.thread_state.tracing = reason == 2;
        gSelf.tracing = reason != 3;
        gSelf.idle_time_threshold = reason == 4 ? get_ticks() + 1000 : 0;
        EXPECT_EQ(0, pending_call_callback(nullptr));
        EXPECT_EQ(0, world_.idle_calls) << reason;
        EXPECT_EQ(0, data()->pending_call_scheduled);
    }
}

TEST_F(PendingCall, NotOnceTheInterpreterEnds) {
    world_.finalizing = true;
    EXPECT_EQ(0, time_for_idle_call(0));
    EXPECT_EQ(0, pending_call_callback(nullptr));
    EXPECT_EQ(0, world_.idle_calls);
    world_.finalizing = false;
    EXPECT_EQ(1, time_for_idle_call(0));
    idle_thread_atexit_func();
    EXPECT_EQ(0, pending_call_callback(nullptr));
    EXPECT_EQ(0, world_.idle_calls);
}

TEST_F(PendingCall, KeepsTheProgramsExceptionAndErrno) {
    data()->use_idle_thread = 0;
    python_.raise("the program's");
    errno = 77;
    world_.on_idle = [this] {
        EXPECT_EQ("", python_.pending());
        errno = 5;
    };
    pending_call_callback(nullptr);
    EXPECT_EQ("the program's", python_.pending());
    EXPECT_EQ(77, errno);
    gPy.PyErr_Clear();
}

TEST_F(PendingCall, ExceptionOfTheCallbackIsLoggedAndCleared) {
    data()->use_idle_thread = 0;
    python_.sys["stderr"] = python_.str("stderr");
    log_to_file();
    world_.on_idle = [this] { python_.raise("ours"); };
    pending_call_callback(nullptr);
    EXPECT_EQ("", python_.pending());
    EXPECT_NE(std::string::npos, python_.written.find("Exception raised by idle callback\n"));
    EXPECT_EQ("log file:ours;", python_.displayed);
}

TEST_F(PendingCall, NothingInAForkedChild) {
    data()->mutex->locked = 1;  // by a thread that is not here
    become_forked_child();
    EXPECT_EQ(0, pending_call_callback(nullptr));
    EXPECT_EQ(0, world_.idle_calls);
    EXPECT_EQ(1, data()->mutex->locked);
}

TEST_F(PendingCall, CallbackMayStartAndStopTheThread) {
    data()->use_idle_thread = 1;
    tSingleIdleThreadData* first = nullptr;
    world_.on_idle = [&] {
        EXPECT_EQ(0, start_idle_thread(data()));
        first = data()->active_single_data_ptr;
        EXPECT_NE(nullptr, first);
        EXPECT_EQ(0, stop_idle_thread(data()));
        EXPECT_EQ(nullptr, data()->active_single_data_ptr);
        EXPECT_EQ(1, data()->mutex->locked) << "still the callback's";
        data()->use_idle_thread = 0;
    };
    gPy.minor_version = 6;  // no leaf frames to update
    pending_call_callback(nullptr);
    EXPECT_EQ(1, world_.idle_calls);
    EXPECT_EQ(0, data()->mutex->locked);
    run_body();
}

TEST_F(PendingCall, ForkInTheCallbackLeavesTheChildUsable) {
    data()->use_idle_thread = 0;
    const PyThread_type_lock old = data()->mutex;
    world_.on_idle = [this] {
        become_forked_child();
        data()->use_idle_thread = 1;
        EXPECT_EQ(0, update_idle_thread_maybe_after_fork(data()));
        EXPECT_NE(nullptr, data()->active_single_data_ptr);
        data()->use_idle_thread = 0;
    };
    pending_call_callback(nullptr);
    EXPECT_NE(old, data()->mutex);
    EXPECT_EQ(0, data()->mutex->locked);
    run_body();
}

TEST_F(PendingCall, LetsGoOfItsMutexWhileItWaitsForTheServer) {
    data()->use_idle_thread = 0;
    server_mutex_.locked = 1;
    gPy.PyEval_SaveThread = [] {
        EXPECT_EQ(0, data()->mutex->locked);  // whoever is stopped may stop the idle thread
        gSelf.mutex->locked = 0;
        return fake->current;
    };
    pending_call_callback(nullptr);
    EXPECT_EQ(1, world_.idle_calls);
}

TEST_F(PendingCall, NoCallWhenTracingStoppedDuringTheWait) {
    data()->use_idle_thread = 0;
    server_mutex_.locked = 1;
    gPy.PyEval_SaveThread = [] {
        gSelf.mutex->locked = 0;
        gSelf.tracing = 0;
        return fake->current;
    };
    pending_call_callback(nullptr);
    EXPECT_EQ(0, world_.idle_calls);
}

// The server's switch.

TEST_F(Switch, NeedsPython37) {
    data()->use_idle_thread = 0;
    gSelf.tracing = 0;
    const struct {
        int major;
        int minor;
        int effective;
    } rows[] = {{2, 7, 0}, {3, 0, 0}, {3, 6, 0}, {3, 7, 1}, {3, 14, 1}};
    for (const auto& row : rows) {
        set_version(row.major, row.minor);
        EXPECT_EQ(0, tracer_set_use_idle_thread(1));
        EXPECT_EQ(row.effective, data()->use_idle_thread);
        EXPECT_EQ(nullptr, data()->active_single_data_ptr);
        EXPECT_EQ(0, tracer_set_use_idle_thread(0));
        EXPECT_EQ(0, data()->use_idle_thread);
    }
}

TEST_F(Switch, FlagIsKeptAsGivenIn16Bits) {
    start_idle_thread(data());
    gSelf.tracing = 0;
    for (const int flag : {5, 1, -1, 65536 + 7}) {
        EXPECT_EQ(0, tracer_set_use_idle_thread(flag));
        EXPECT_EQ(static_cast<boolean>(flag), data()->use_idle_thread);
        EXPECT_NE(nullptr, data()->active_single_data_ptr);
    }
    EXPECT_EQ(0, tracer_set_use_idle_thread(65536));
    EXPECT_EQ(0, data()->use_idle_thread);
    EXPECT_EQ(nullptr, data()->active_single_data_ptr);
    run_body();
}

TEST_F(Switch, OffStopsTheThread) {
    start_idle_thread(data());
    gSelf.tracing = 0;
    EXPECT_EQ(0, tracer_set_use_idle_thread(0));
    EXPECT_EQ(nullptr, data()->active_single_data_ptr);
    run_body();
}

TEST_F(Switch, FailureIsReported) {
    data()->use_idle_thread = 0;
    world_.fail_tstate = true;
    log_to_file();
    EXPECT_EQ(-1, tracer_set_use_idle_thread(1));
    EXPECT_NE(std::string::npos, python_.written.find("tracer_set_use_idle_thread() failed\n"));
}

// Fork and exit.

TEST_F(Fork, SameProcessNothingToDo) {
    start_idle_thread(data());
    const tSingleIdleThreadData* const single = data()->active_single_data_ptr;
    EXPECT_EQ(0, update_idle_thread_maybe_after_fork(data()));
    EXPECT_EQ(single, data()->active_single_data_ptr);
    run_body();
}

TEST_F(Fork, ChildGetsItsOwnThreadAndMutex) {
    start_idle_thread(data());
    data()->mutex->locked = 1;  // by the parent's idle thread
    data()->pending_call_scheduled = 1;
    const PyThread_type_lock old = data()->mutex;
    become_forked_child();
    world_.calls.clear();
    EXPECT_EQ(0, update_idle_thread_maybe_after_fork(data()));
    EXPECT_EQ((tStrings{"free lock", "free lock"}), world_.calls);  // not the thread state
    EXPECT_NE(old, data()->mutex);
    EXPECT_EQ(0, data()->pending_call_scheduled);
    EXPECT_EQ(getpid(), data()->initialized_for_pid);
    EXPECT_EQ(world_.thread_arg, data()->active_single_data_ptr);
    run_body();
}

TEST_F(Fork, NoThreadInTheChildWithoutTracing) {
    start_idle_thread(data());
    gSelf.tracing = 0;
    become_forked_child();
    EXPECT_EQ(0, update_idle_thread_maybe_after_fork(data()));
    EXPECT_EQ(nullptr, data()->active_single_data_ptr);
}

TEST_F(Fork, WithoutAMutexTheChildHasNoIdleThread) {
    become_forked_child();
    world_.fail_lock = world_.locks_made;
    EXPECT_EQ(-1, update_idle_thread_maybe_after_fork(data()));
    EXPECT_EQ(1, data()->initialization_failed);
    EXPECT_EQ(0, stop_idle_thread(data()));
}

TEST_F(Exit, BothHooksStopTheThreadAndNothingIsFreedAfterwards) {
    for (void (*const hook)() : {idle_thread_atexit_func, low_level_py_at_exit_func}) {
        data()->py_finalize_called = 0;
        data()->low_level_py_at_exit_called = 0;
        start_idle_thread(data());
        hook();
        EXPECT_EQ(1, data()->py_finalize_called + data()->low_level_py_at_exit_called);
        EXPECT_EQ(nullptr, data()->active_single_data_ptr);
        run_body();
        EXPECT_EQ(0, std::count(world_.calls.begin(), world_.calls.end(), "delete tstate"));
        EXPECT_EQ(0, std::count(world_.calls.begin(), world_.calls.end(), "free lock"));
    }
}

// A thread that the interpreter has ended with itself never gives the mutex back.
TEST_F(Exit, NobodyWaitsForEverForAMutexWhoseHolderIsGone) {
    start_idle_thread(data());
    data()->mutex->locked = 1;
    low_level_py_at_exit_func();
    EXPECT_EQ(1, data()->low_level_py_at_exit_called);
    EXPECT_EQ(1u, world_.waits.size());
    world_.finalizing = true;
    idle_thread_atexit_func();
    EXPECT_EQ(1, data()->py_finalize_called);
    EXPECT_EQ(-1, stop_idle_thread(data()));
    EXPECT_EQ(0, pending_call_callback(nullptr));
    EXPECT_EQ(0, world_.idle_calls);
    EXPECT_EQ(1, data()->mutex->locked);
    data()->mutex->locked = 0;
    stop_idle_thread(data());
    run_body();
}

TEST_F(Exit, HooksDoNothingInAForkedChild) {
    start_idle_thread(data());
    become_forked_child();
    data()->mutex->locked = 1;
    idle_thread_atexit_func();
    low_level_py_at_exit_func();
    EXPECT_EQ(0, data()->py_finalize_called);
    EXPECT_EQ(0, data()->low_level_py_at_exit_called);
    EXPECT_NE(nullptr, data()->active_single_data_ptr);
}

}  // namespace
