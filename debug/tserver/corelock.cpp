#include "corelock.h"

#include <string.h>

constinit bool gNoInterpreterLock = false;

using tSectionBegin = void (*)(void* section, PyObject* object);
using tSectionEnd = void (*)(void* section);
using tVisitObject = int (*)(PyObject* object, void* arg);
using tVisitObjects = void (*)(tVisitObject visit, void* arg);

// Not among the functions that the system needs to run: 3.13 and later have them. Null until found.
static constinit tSectionBegin gSectionBegin = nullptr;
static constinit tSectionEnd gSectionEnd = nullptr;
static constinit tVisitObjects gVisitObjects = nullptr;

// Sections are those of an object, by the mutex in its header. This one is nothing but a header: it
// outlives interpreters, and no failure to make it has to be thought of.
static constexpr size_t kHeaderSize = 64;
alignas(void*) static constinit unsigned char gLockObject[kHeaderSize] = {};

static PyObject* lock_object() {
    return reinterpret_cast<PyObject*>(gLockObject);
}

static constinit Py_tss_t* gInnermost = nullptr;  // each thread's innermost section

static bool find_functions() {
    gSectionBegin =
        reinterpret_cast<tSectionBegin>(XPy_LookupPythonFunction("PyCriticalSection_Begin"));
    gSectionEnd = reinterpret_cast<tSectionEnd>(XPy_LookupPythonFunction("PyCriticalSection_End"));
    gVisitObjects = reinterpret_cast<tVisitObjects>(
        XPy_LookupPythonFunction("PyUnstable_GC_VisitObjects"));
    gPy.PyErr_Clear();
    return gSectionBegin != nullptr && gSectionEnd != nullptr;
}

static bool make_key() {
    if (gInnermost == nullptr) {
        gInnermost = gPy.PyThread_tss_alloc();
    }
    return gInnermost != nullptr && gPy.PyThread_tss_create(gInnermost) == 0;
}

static bool is_interpreter_lock_on() {
    PyObject* const function = gPy.PySys_GetObject("_is_gil_enabled");  // 3.13 and later
    tOwnedRef answer(function != nullptr ? gPy.PyObject_CallObject(function, nullptr) : nullptr);
    gPy.PyErr_Clear();
    return answer.borrow() != gPy.Py_False;
}

void update_interpreter_lock() {
    if (is_free_threaded_build() && !gNoInterpreterLock) {
        tSavedError saved;
        gNoInterpreterLock = !is_interpreter_lock_on() && find_functions() && make_key();
    }
}

// ---- Sections ----

static constinit pid_t gLockPid = -1;  // the process in which the lock's owner may live

static tCoreSection* innermost_section() {
    return static_cast<tCoreSection*>(gPy.PyThread_tss_get(gInnermost));
}

// The interpreter hands a lock that others wait for to one of them, which need not run: a forked
// child has then a lock whose owner was left behind.
static void renew_lock_after_fork() {
    for (const tCoreSection* own = innermost_section(); own != nullptr; own = own->outer) {
        if (own->is_begun) {
            return;  // this thread has the lock
        }
    }
    memset(gLockObject, 0, sizeof(gLockObject));
    gLockPid = gPy.cached_pid;
}

// An interpreter on its way out lets no other thread run; one that it ends may have been given the
// lock.
static void enter(tCoreSection* section) {
    if (gLockPid != gPy.cached_pid) {
        renew_lock_after_fork();
    }
    section->is_begun = gPy._Py_IsFinalizing() == 0;
    if (section->is_begun) {
        gSectionBegin(section->interpreters_own, lock_object());
    }
}

static void leave(tCoreSection* section) {
    if (section->is_begun) {
        section->is_begun = false;
        gSectionEnd(section->interpreters_own);
    }
}

void begin_core_section(tCoreSection* section) {
    tSavedErrno keep_errno;
    enter(section);
    section->outer = innermost_section();
    gPy.PyThread_tss_set(gInnermost, section);
}

void end_core_section(tCoreSection* section) {
    tSavedErrno keep_errno;
    gPy.PyThread_tss_set(gInnermost, section->outer);
    leave(section);
}

tCoreSection* suspend_core_section() {
    tSavedErrno keep_errno;
    tCoreSection* const section = innermost_section();
    if (section == nullptr || !section->is_begun) {
        return nullptr;
    }
    leave(section);
    return section;
}

void resume_core_section(tCoreSection* section) {
    tSavedErrno keep_errno;
    enter(section);
}

// ---- All threads ----

struct tHaltedAction {
    void (*action)(void* arg);
    void* arg;
    bool is_done;
};

// The interpreter has no function that only halts all threads, but visits its objects while they
// do: the first one will do.
static int act_at_first_object(PyObject* /*object*/, void* arg) {
    tHaltedAction* const halted = static_cast<tHaltedAction*>(arg);
    if (!halted->is_done) {
        halted->is_done = true;
        halted->action(halted->arg);
    }
    return 0;
}

bool call_while_others_halt(void (*action)(void* arg), void* arg) {
    tHaltedAction halted = {action, arg, false};
    if (!gNoInterpreterLock) {
        act_at_first_object(nullptr, &halted);
    } else if (gVisitObjects != nullptr) {
        gVisitObjects(act_at_first_object, &halted);
    }
    return halted.is_done;
}
