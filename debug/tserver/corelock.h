// corelock.h -- what stands in for the interpreter lock where there is none.
// All state of the library relies on one lock for everything. A free-threaded interpreter that runs
// without its lock offers critical sections instead: a lock that a thread has while it runs and
// that the interpreter takes from it for as long as it waits, for whatever it waits. One such
// section around every way in from the interpreter is what the interpreter lock is elsewhere, and
// like that it cannot be part of a deadlock with the program's locks. It is given away around each
// call into Python code of the debug server or the program (tCoreUnlock), since nothing makes the
// owner of a section yield by and by.
// With the interpreter lock on nothing of this is on the road of an event, and a call into the
// server pays for one test of a variable.
#pragma once

#include "guards.h"
#include "xpy_c_api.h"

// Asks the interpreter. Importing this library switches the lock on, unless the user has forbidden
// that, so the answer is final once it was imported.
void update_interpreter_lock();

// A free-threaded build, whether its lock is on or off.
inline bool is_free_threaded_build() {
    return gPy.pyobject_offsets.refcnt == -1;
}

// One thread's hold on the lock; on the stack.
struct tCoreSection {
    void* interpreters_own[6];  // a PyCriticalSection, which has two fields in 3.13 and 3.14
    tCoreSection* outer;        // of the same thread
    bool is_begun;
};

void begin_core_section(tCoreSection* section);
void end_core_section(tCoreSection* section);
// The innermost section of the thread, ended for a while; null when it is in none.
tCoreSection* suspend_core_section();
void resume_core_section(tCoreSection* section);

// Around every way in. Nests.
class tCoreLock : tNoCopy {
public:
    tCoreLock() : held_(gNoInterpreterLock) {
        if (held_) [[unlikely]] {
            begin_core_section(&section_);
        }
    }
    ~tCoreLock() {
        if (held_) [[unlikely]] {
            end_core_section(&section_);
        }
    }

private:
    bool held_;
    tCoreSection section_;
};

// Calls `action` while no other thread runs Python code, begins or ends: thread states that it finds
// then are those of living threads. It must neither wait nor touch the interpreter's allocator or
// reference counts. With the interpreter lock on that is so anyway. False = it was not called.
bool call_while_others_halt(void (*action)(void* arg), void* arg);

// Around a call of Python code; nothing where the thread has no section.
class tCoreUnlock : tNoCopy {
public:
    tCoreUnlock() : section_(gNoInterpreterLock ? suspend_core_section() : nullptr) {}
    ~tCoreUnlock() {
        if (section_ != nullptr) {
            resume_core_section(section_);
        }
    }

private:
    tCoreSection* section_;
};

// Methods of the debug server's objects. New ref, or null with an exception set.
template <class... tArgs>
inline PyObject* call_method_unlocked(PyObject* object,
                                      const char* name,
                                      const char* format,
                                      tArgs... args) {
    tCoreUnlock unlocked;
    return gPy.PyObject_CallMethod(object, name, format, args...);
}
