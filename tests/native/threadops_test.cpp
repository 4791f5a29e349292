// The thread table where memory, locks or the interpreter fail. What it does on real interpreters
// is in tests/py/test_threadops.py.
#include "threadops.h"

#include <errno.h>

#include "dbgtracerhash.h"
#include "fake_python.h"
#include "support/alloc_failures.h"

namespace {

std::vector<std::string> gLockCalls;
std::vector<int> gLockAnswers;  // of the next acquire calls

int fake_acquire(PyThread_type_lock, int wait) {
    gLockCalls.push_back(wait != 0 ? "wait" : "try");
    errno = EAGAIN;
    const int answer = gLockAnswers.front();
    gLockAnswers.erase(gLockAnswers.begin());
    return answer;
}

class ThreadTable : public FakePython {
protected:
    void SetUp() override {
        FakePython::SetUp();
        init_thread_table(&table_);
        python_.thread_state.thread_id = 77;
        other_state_.thread_id = 88;
        gPy.PyExc_MemoryError = python_.make(python_.type_type, "MemoryError");
        gPy.PyErr_SetString = [](PyObject* type, const char* message) {
            fake->raise(as_fake(type)->text + ": " + message);
        };
    }
    void TearDown() override {
        clear_thread_table(&table_);
        CU_DeleteHashTable(&table_);
        FakePython::TearDown();
    }
    PyThreadState* own() { return python_.current; }
    PyThreadState* other() { return reinterpret_cast<PyThreadState*>(&other_state_); }
    PyObject* give(const char* text) { return python_.str(text); }

    CUt_HashTable table_;
    tFakeThreadState other_state_;
};

class Records : public ThreadTable {};
class Locks : public ThreadTable {
protected:
    void SetUp() override {
        ThreadTable::SetUp();
        gLockCalls.clear();
        gLockAnswers.clear();
        gPy.PyThread_acquire_lock = fake_acquire;
        gPy.PyThread_release_lock = [](PyThread_type_lock) {
            gLockCalls.push_back("release");
            errno = EAGAIN;
        };
        gPy.PyEval_SaveThread = [] {
            gLockCalls.push_back("save");
            return fake->current;
        };
        gPy.PyEval_RestoreThread = [](PyThreadState* tstate) {
            gLockCalls.push_back(tstate == fake->current ? "restore" : "restore another");
        };
    }
    PyThread_type_lock lock() { return reinterpret_cast<PyThread_type_lock>(&lock_); }

private:
    int lock_ = 0;
};
class ThreadIdent : public ThreadTable {};
class FromFrame : public ThreadTable {};

TEST_F(Records, StartWithTheirInitialValues) {
    tThreadData* const td = new_thread_data(own());
    EXPECT_EQ(td->bot_frame, gPy.Py_None);
    EXPECT_EQ(td->return_frame, gPy.Py_None);
    EXPECT_EQ(td->curr_frame, gPy.Py_None);
    EXPECT_EQ(td->stop_frame, nullptr);
    EXPECT_EQ(td->step_over_lineno_start, -1);
    EXPECT_EQ(td->step_over_lineno_end, -1);
    EXPECT_EQ(td->need_f_trace_update, 1);
    EXPECT_EQ(td->debug_thread_policy, -1);
    EXPECT_EQ(td->thread_id, 77);
    EXPECT_EQ(td->tstate_id, reinterpret_cast<Py_ssize_t>(own()));
    EXPECT_EQ(td->next_removed, nullptr);
    free_thread_data(td);
}

TEST_F(Records, WithoutAThreadIdFieldTheIdIsUnknown) {
    gPy.tstate_offsets.thread_id = -1;
    tThreadData* const td = new_thread_data(own());
    EXPECT_EQ(td->thread_id, -1);
    free_thread_data(td);
}

TEST_F(Records, KeepTheCountOfNone) {
    const Py_ssize_t before = XPy_GetRefCnt(gPy.Py_None);
    tThreadData* const td = new_thread_data(own());
    reinit_thread_data_for_tstate(td, other());
    EXPECT_EQ(XPy_GetRefCnt(gPy.Py_None), before + 3);
    free_thread_data(td);
    EXPECT_EQ(XPy_GetRefCnt(gPy.Py_None), before);
}

TEST_F(Records, FreeingReadsNothingOfTheThreadState) {
    tThreadData* const td = new_thread_data(own());
    td->tstate_id = 1;  // where the thread state was, nothing is now
    free_thread_data(td);
    free_thread_data(nullptr);
}

TEST_F(ThreadTable, WithoutMemoryForTheRecordThereIsNoEntry) {
    SKIP_WITHOUT_ALLOC_TAP();
    tAllocTapScope tap(1);
    tThreadData* const td = get_current_thread_data(&table_);
    tap.stop();
    EXPECT_TRUE(tap.has_failed());
    EXPECT_EQ(td, nullptr);
    EXPECT_EQ(table_.numEntries, 0u);
    EXPECT_EQ(python_.pending(), "");
    EXPECT_NE(get_current_thread_data(&table_), nullptr);
}

TEST_F(ThreadTable, WithoutMemoryForTheEntryTheRecordIsFreedAndMemoryErrorRaised) {
    SKIP_WITHOUT_ALLOC_TAP();
    for (const bool is_current : {true, false}) {
        const Py_ssize_t before = XPy_GetRefCnt(gPy.Py_None);
        tAllocTapScope tap(2);
        tThreadData* const td =
            is_current ? get_current_thread_data(&table_) : get_other_thread_data(&table_, other());
        tap.stop();
        EXPECT_EQ(td, nullptr);
        EXPECT_EQ(python_.pending(), "MemoryError: Out of memory");
        EXPECT_EQ(table_.numEntries, 0u);
        EXPECT_EQ(XPy_GetRefCnt(gPy.Py_None), before);
        gPy.PyErr_Clear();
    }
}

TEST_F(ThreadTable, ForgetsTheLastRecordWhenItIsRemovedClearedOrFreed) {
    get_current_thread_data(&table_)->tracing = 1;
    remove_thread_data(&table_, own());
    EXPECT_EQ(get_current_thread_data(&table_)->tracing, 0);
    get_current_thread_data(&table_)->tracing = 1;
    clear_thread_table(&table_);
    EXPECT_EQ(get_current_thread_data(&table_)->tracing, 0);
    tThreadData* const old = get_current_thread_data(&table_);
    CU_DeleteHashEntry(find_pointer_entry(&table_, own()));
    init_thread_table(&table_);
    EXPECT_NE(get_current_thread_data(&table_), old);
    free_thread_data(old);
}

TEST_F(ThreadTable, FindsEachThreadsRecordInTurn) {
    PyThreadState* const first = own();
    tThreadData* const of_first = get_current_thread_data(&table_);
    python_.current = other();
    tThreadData* const of_second = get_current_thread_data(&table_);
    EXPECT_NE(of_first, of_second);
    EXPECT_EQ(of_second->thread_id, 88);
    python_.current = first;
    EXPECT_EQ(get_current_thread_data(&table_), of_first);
    EXPECT_EQ(of_first->thread_id, 77);
}

TEST_F(ThreadTable, ThreadIdIsRefreshedOnEveryCall) {
    tThreadData* const td = get_current_thread_data(&table_);
    python_.thread_state.thread_id = 99;
    EXPECT_EQ(get_other_thread_data(&table_, own()), td);
    EXPECT_EQ(td->thread_id, 77);
    EXPECT_EQ(get_current_thread_data(&table_), td);
    EXPECT_EQ(td->thread_id, 99);
}

TEST_F(ThreadTable, OwnThreadIdIsAskedForWhereThereIsNoField) {
    gPy.tstate_offsets.thread_id = -1;
    const tThreadIdentFunc ident = gGetThreadIdentFunc;
    gGetThreadIdentFunc = [] { return 55L; };
    EXPECT_EQ(get_current_thread_data(&table_)->thread_id, 55);
    gGetThreadIdentFunc = ident;
}

TEST_F(ThreadTable, RecordThatHoldsTheMutexTwiceStaysAllocated) {
    tThreadData* const td = get_current_thread_data(&table_);
    td->dbgserver_mutex_acquired_count = 2;
    remove_thread_data(&table_, own());
    EXPECT_EQ(td->removed_from_table, 1);
    EXPECT_EQ(table_.numEntries, 0u);
    EXPECT_FALSE(free_thread_data_if_unused(td));
    td->dbgserver_mutex_acquired_count = 0;
    EXPECT_TRUE(free_thread_data_if_unused(td));
}

TEST_F(ThreadTable, RecordOfADispatchInProgressStaysAllocated) {
    tThreadData* const td = get_current_thread_data(&table_);
    td->active_dispatch_ctx = reinterpret_cast<tDispatchCtx*>(td);
    clear_thread_table(&table_);
    EXPECT_EQ(td->removed_from_table, 1);
    EXPECT_FALSE(free_thread_data_if_unused(td));
    td->active_dispatch_ctx = nullptr;
    EXPECT_TRUE(free_thread_data_if_unused(td));
}

TEST_F(ThreadTable, RecordInTheTableIsNotForTheHolderToFree) {
    tThreadData* const td = get_current_thread_data(&table_);
    EXPECT_FALSE(free_thread_data_if_unused(td));
    EXPECT_EQ(find_thread_data(&table_, own()), td);
}

TEST_F(ThreadTable, ClearingFreesEveryUnusedRecord) {
    const Py_ssize_t before = XPy_GetRefCnt(gPy.Py_None);
    tFakeThreadState states[30];
    for (tFakeThreadState& state : states) {
        get_other_thread_data(&table_, reinterpret_cast<PyThreadState*>(&state));
    }
    EXPECT_EQ(table_.numEntries, 30u);
    clear_thread_table(&table_);
    EXPECT_EQ(table_.numEntries, 0u);
    EXPECT_EQ(XPy_GetRefCnt(gPy.Py_None), before);
}

TEST_F(ThreadIdent, IsOneWithoutTheInterpretersFunction) {
    python_.raise("leftover");
    init_threadops();
    EXPECT_EQ(gGetThreadIdentFunc, nullptr);
    EXPECT_EQ(python_.pending(), "");
    EXPECT_EQ(get_thread_ident(), 1);
}

TEST_F(ThreadIdent, IsWhatTheInterpreterSays) {
    gGetThreadIdentFunc = [] { return -5L; };
    EXPECT_EQ(get_thread_ident(), -5);
    gGetThreadIdentFunc = nullptr;
}

TEST_F(ThreadIdent, LogsTheFunction) {
    log_to_file();
    init_threadops();
    EXPECT_EQ(python_.written.rfind("Thread ident function is ", 0), 0u) << python_.written;
}

TEST_F(Locks, NoLockIsAlwaysAcquired) {
    EXPECT_EQ(acquire_thread_mutex(nullptr, 0), 1);
    EXPECT_EQ(acquire_thread_mutex(nullptr, 1), 1);
    release_thread_mutex(nullptr);
    EXPECT_TRUE(gLockCalls.empty());
}

TEST_F(Locks, AFreeLockIsTakenWithoutGivingTheInterpreterLockAway) {
    gLockAnswers = {1};
    EXPECT_EQ(acquire_thread_mutex(lock(), 1), 1);
    EXPECT_EQ(gLockCalls, (std::vector<std::string>{"try"}));
}

TEST_F(Locks, AHeldLockIsNotWaitedForUnlessAsked) {
    gLockAnswers = {0};
    EXPECT_EQ(acquire_thread_mutex(lock(), 0), 0);
    EXPECT_EQ(gLockCalls, (std::vector<std::string>{"try"}));
}

TEST_F(Locks, WaitingGivesTheInterpreterLockAway) {
    for (const int answer : {1, 0}) {
        gLockCalls.clear();
        gLockAnswers = {0, answer};
        EXPECT_EQ(acquire_thread_mutex(lock(), 1), answer);
        EXPECT_EQ(gLockCalls, (std::vector<std::string>{"try", "save", "wait", "restore"}));
    }
}

TEST_F(Locks, KeepErrno) {
    errno = ENOENT;
    gLockAnswers = {0, 1};
    acquire_thread_mutex(lock(), 1);
    EXPECT_EQ(errno, ENOENT);
    release_thread_mutex(lock());
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FromFrame, ErrorsAreLoggedAndClearedAndTheCallersErrorStays) {
    PyObject* const frame = python_.make(python_.frame_type, "frame");
    gPy.PyDict_GetItem = [](PyObject*, PyObject*) -> PyObject* {
        fake->raise("TypeError: unhashable");
        return nullptr;
    };
    log_to_file();
    python_.raise("the program's own");
    EXPECT_EQ(find_thread_data_from_frame(static_cast<PyFrameObject*>(frame), give("dict")),
              nullptr);
    EXPECT_EQ(python_.pending(), "the program's own");
    EXPECT_NE(python_.written.find("Failure in find_thread_data_from_frame()\n"),
              std::string::npos);
}

TEST_F(FromFrame, NoFrameAndNoDictFindNothing) {
    EXPECT_EQ(find_thread_data_from_frame(nullptr, give("dict")), nullptr);
    PyObject* const frame = python_.make(python_.frame_type, "frame");
    EXPECT_EQ(find_thread_data_from_frame(static_cast<PyFrameObject*>(frame), nullptr), nullptr);
}

TEST_F(FromFrame, AFailedDictIsReportedToTheCaller) {
    get_current_thread_data(&table_)->bot_frame =
        static_cast<PyFrameObject*>(static_cast<PyObject*>(python_.make(python_.frame_type, "f")));
    gPy.PyDict_New = []() -> PyObject* { return fake->make(fake->other_type, "dict"); };
    gPy.PyDict_SetItem = [](PyObject*, PyObject*, PyObject*) {
        fake->raise("MemoryError");
        return -1;
    };
    EXPECT_EQ(get_thread_data_by_outer_frame_dict(&table_), nullptr);
    EXPECT_EQ(python_.pending(), "MemoryError");
}

}  // namespace
