// The core's lock on an interpreter that has no lock: which sections begin and end, and when none
// does. The interpreter's sections are the two functions below, which the library finds in this
// program.
#include "corelock.h"

#include <errno.h>

#include "fake_python.h"

namespace {

// What the interpreter knows of the sections, outermost first.
struct tSections {
    std::vector<void*> open;
    std::string log;     // "b" per begin, "e" per end
    int lock_taken = 0;  // as the header of the locked object tells; its owner sets it
    bool marks_header = false;
    unsigned char* object = nullptr;
};
tSections* sections = nullptr;
constexpr size_t kMutexByte = 0;

void* gThreadSlot = nullptr;  // of the test's only thread
int gTssResult = 0;
int gTssSetResult = 0;
bool gTssAlloc = true;
int gFinalizing = 0;
bool gLockIsOn = false;

}  // namespace

extern "C" {
__attribute__((visibility("default"))) void PyCriticalSection_Begin(void* section,
                                                                    PyObject* object);
__attribute__((visibility("default"))) void PyCriticalSection_End(void* section);
}

void PyCriticalSection_Begin(void* section, PyObject* object) {
    sections->object = reinterpret_cast<unsigned char*>(object);
    sections->lock_taken = sections->object[kMutexByte];
    if (sections->marks_header) {
        sections->object[kMutexByte] = 1;
    }
    sections->open.push_back(section);
    sections->log += "b";
    errno = EAGAIN;
}

void PyCriticalSection_End(void* section) {
    ASSERT_FALSE(sections->open.empty()) << "ended more than was begun";
    EXPECT_EQ(section, sections->open.back()) << "sections end in the order of a stack";
    sections->open.pop_back();
    sections->log += "e";
    errno = EAGAIN;
}

namespace {

class CoreLock : public FakePython {
protected:
    void SetUp() override {
        FakePython::SetUp();
        sections = &sections_;
        gThreadSlot = nullptr;
        gTssResult = 0;
        gTssSetResult = 0;
        gTssAlloc = true;
        gFinalizing = 0;
        gLockIsOn = false;
        gNoInterpreterLock = false;
        gPy.cached_pid = 100;
        gPy.dll_ptr = nullptr;
        python_.sys["_is_gil_enabled"] = python_.make(python_.other_type, "_is_gil_enabled");
        bind();
    }
    void TearDown() override {
        EXPECT_TRUE(sections_.open.empty());
        gNoInterpreterLock = false;
        FakePython::TearDown();
    }
    // A free-threaded build; with its lock on or off.
    void become_free_threaded() {
        gPy.pyobject_offsets.refcnt = -1;
        gPy.can_update_refcount_directly = 0;
    }
    void lose_lock() {
        become_free_threaded();
        update_interpreter_lock();
        ASSERT_TRUE(gNoInterpreterLock);
        sections_.log.clear();
    }

    tSections sections_;

private:
    static void bind() {
        gPy.PyObject_CallObject = [](PyObject* function, PyObject*) -> PyObject* {
            EXPECT_EQ("_is_gil_enabled", as_fake(function)->text);
            return new_ref(static_cast<PyObject*>(gLockIsOn ? fake->true_ : fake->false_));
        };
        gPy.PyThread_tss_alloc = []() -> Py_tss_t* {
            static long key;
            return gTssAlloc ? reinterpret_cast<Py_tss_t*>(&key) : nullptr;
        };
        gPy.PyThread_tss_create = [](Py_tss_t*) { return gTssResult; };
        gPy.PyThread_tss_get = [](Py_tss_t*) { return gThreadSlot; };
        gPy.PyThread_tss_set = [](Py_tss_t*, void* value) {
            gThreadSlot = gTssSetResult == 0 ? value : gThreadSlot;
            return gTssSetResult;
        };
        gPy._Py_IsFinalizing = [] { return gFinalizing; };
    }
};

// ---- Whether it is needed ----

TEST_F(CoreLock, StaysOffWhileThreadsCannotKeepTheirSections) {
    become_free_threaded();
    gTssAlloc = false;
    update_interpreter_lock();
    EXPECT_FALSE(gNoInterpreterLock);
    gTssAlloc = true;
    gTssResult = -1;
    update_interpreter_lock();
    EXPECT_FALSE(gNoInterpreterLock);
    gTssResult = 0;
    update_interpreter_lock();
    EXPECT_TRUE(gNoInterpreterLock);
}

TEST_F(CoreLock, OrdinaryBuildIsNotEvenAsked) {
    gPy.PyObject_CallObject = nullptr;
    update_interpreter_lock();
    EXPECT_FALSE(gNoInterpreterLock);
}

TEST_F(CoreLock, FreeThreadedBuildWithItsLockOnNeedsNone) {
    become_free_threaded();
    gLockIsOn = true;
    update_interpreter_lock();
    EXPECT_FALSE(gNoInterpreterLock);
    {
        tCoreLock lock;
        tCoreUnlock unlocked;
    }
    EXPECT_EQ("", sections_.log);
}

TEST_F(CoreLock, InterpreterThatCannotBeAskedHasALock) {
    become_free_threaded();
    python_.sys.clear();
    update_interpreter_lock();
    EXPECT_FALSE(gNoInterpreterLock);
    python_.sys["_is_gil_enabled"] = python_.make(python_.other_type, "_is_gil_enabled");
    gPy.PyObject_CallObject = [](PyObject*, PyObject*) -> PyObject* {
        fake->raise("RuntimeError: no");
        return nullptr;
    };
    update_interpreter_lock();
    EXPECT_FALSE(gNoInterpreterLock);
    EXPECT_EQ("", python_.pending());
}

TEST_F(CoreLock, InterpreterWithoutSectionsIsLeftAlone) {
    become_free_threaded();
    char stand_in[] = TDBG_STAND_IN;  // an interpreter that has no such functions
    gPy.dll_ptr = stand_in;
    update_interpreter_lock();
    EXPECT_FALSE(gNoInterpreterLock);
}

TEST_F(CoreLock, AskingKeepsThePendingException) {
    become_free_threaded();
    python_.raise("ValueError: of the program");
    gPy.PyObject_CallObject = [](PyObject*, PyObject*) -> PyObject* {
        EXPECT_EQ("", fake->pending());
        return new_ref(static_cast<PyObject*>(fake->false_));
    };
    update_interpreter_lock();
    EXPECT_TRUE(gNoInterpreterLock);
    EXPECT_EQ("ValueError: of the program", python_.pending());
    python_.raise("done");
    gPy.PyErr_Clear();
}

// ---- Sections ----

TEST_F(CoreLock, IsHeldForABlock) {
    lose_lock();
    {
        tCoreLock lock;
        EXPECT_EQ(1u, sections_.open.size());
        EXPECT_EQ("b", sections_.log);
    }
    EXPECT_EQ("be", sections_.log);
    EXPECT_EQ(nullptr, gThreadSlot);
}

TEST_F(CoreLock, SectionIsALargeEnoughRecordOfTheInterpreters) {
    lose_lock();
    tCoreLock lock;
    // The interpreter's record of 3.13 and 3.14: two words.
    EXPECT_LE(2 * sizeof(void*), sizeof(tCoreSection::interpreters_own));
    memset(sections_.open.back(), 0xff, 2 * sizeof(void*));
}

TEST_F(CoreLock, IsGivenAwayAroundACallOfPythonCode) {
    lose_lock();
    {
        tCoreLock lock;
        {
            tCoreUnlock unlocked;
            EXPECT_TRUE(sections_.open.empty());
        }
        EXPECT_EQ(1u, sections_.open.size());
    }
    EXPECT_EQ("bebe", sections_.log);
}

TEST_F(CoreLock, ComesBackIntoTheCoreFromWhatWasCalled) {
    lose_lock();
    {
        tCoreLock event;
        tCoreUnlock callback;
        {
            tCoreLock function;  // of the module, called by the server
            tCoreUnlock hook;
            EXPECT_TRUE(sections_.open.empty());
        }
        EXPECT_TRUE(sections_.open.empty()) << "the callback still runs";
    }
    EXPECT_EQ("bebebebe", sections_.log);
    EXPECT_EQ(nullptr, gThreadSlot);
}

TEST_F(CoreLock, NothingIsGivenAwayTwice) {
    lose_lock();
    tCoreLock lock;
    tCoreUnlock outer;
    tCoreUnlock inner;
    EXPECT_EQ("be", sections_.log);
}

TEST_F(CoreLock, NothingIsGivenAwayWithoutASection) {
    lose_lock();
    { tCoreUnlock unlocked; }
    EXPECT_EQ("", sections_.log);
}

TEST_F(CoreLock, ThreadThatCannotKeepItsSectionHasTheLockAllTheSame) {
    lose_lock();
    gTssSetResult = -1;  // no memory for the thread's first value
    {
        tCoreLock lock;
        gTssSetResult = 0;
        EXPECT_EQ(1u, sections_.open.size());
        tCoreUnlock unlocked;  // finds nothing to give away
        EXPECT_EQ(1u, sections_.open.size());
    }
    EXPECT_EQ("be", sections_.log);
    EXPECT_EQ(nullptr, gThreadSlot);
}

TEST_F(CoreLock, KeepsErrno) {
    lose_lock();
    errno = ENOENT;
    {
        tCoreLock lock;
        EXPECT_EQ(ENOENT, errno);
        {
            tCoreUnlock unlocked;
            EXPECT_EQ(ENOENT, errno);
        }
        EXPECT_EQ(ENOENT, errno);
    }
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(CoreLock, SwitchedOnWhileACallRunsItEndsNothing) {
    become_free_threaded();
    {
        tCoreLock of_the_import;  // in which the lock turns out to be off
        update_interpreter_lock();
        EXPECT_TRUE(gNoInterpreterLock);
        { tCoreUnlock unlocked; }
    }
    EXPECT_EQ("", sections_.log);
}

TEST_F(CoreLock, InterpreterOnItsWayOutGetsNoSection) {
    lose_lock();
    gFinalizing = 1;
    {
        tCoreLock lock;
        tCoreUnlock unlocked;
    }
    EXPECT_EQ("", sections_.log);
}

TEST_F(CoreLock, SectionThatWasBegunBeforeTheEndIsEnded) {
    lose_lock();
    {
        tCoreLock lock;
        gFinalizing = 1;
    }
    EXPECT_EQ("be", sections_.log);
    {
        gFinalizing = 0;
        tCoreLock lock;
        tCoreUnlock unlocked;
        gFinalizing = 1;  // while Python code runs: it is not taken again
    }
    EXPECT_EQ("bebe", sections_.log);
}

// ---- After a fork ----

TEST_F(CoreLock, ForkedChildDoesNotWaitForAThreadThatStayedBehind) {
    lose_lock();
    { tCoreLock lock; }
    sections_.object[kMutexByte] = 1;  // another thread has it when this one forks
    gPy.cached_pid = 101;
    {
        tCoreLock lock;
        EXPECT_EQ(0, sections_.lock_taken);
    }
}

TEST_F(CoreLock, ForkedChildKeepsTheLockThatItsOwnThreadHas) {
    lose_lock();
    sections_.marks_header = true;
    {
        tCoreLock lock;
        gPy.cached_pid = 102;
        tCoreLock nested;
        EXPECT_EQ(1, sections_.lock_taken);
    }
    sections_.object[kMutexByte] = 0;
}

TEST_F(CoreLock, ForkedChildThatForkedInACallOfPythonCodeTakesTheLockAgain) {
    lose_lock();
    {
        tCoreLock lock;
        {
            tCoreUnlock unlocked;
            sections_.object[kMutexByte] = 1;  // of another thread, meanwhile
            gPy.cached_pid = 103;              // os.fork() in the callback
        }
        EXPECT_EQ(0, sections_.lock_taken);
        EXPECT_EQ(1u, sections_.open.size());
    }
    EXPECT_EQ("bebe", sections_.log);
}

}  // namespace
