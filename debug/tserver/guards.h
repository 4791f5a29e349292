// guards.h -- what must be undone is undone by a destructor, one thing per guard.
// Declare them in this order, since destructors run backwards: errno, recursion limit, server lock,
// tracing counter, saved error, owned references. A reference that is dropped after the error was
// restored may run a __del__ and wreck it.
#pragma once

#include <errno.h>

#include "xpy_c_api.h"

// The interpreter runs its threads at the same time (see corelock.h).
__attribute__((visibility("hidden"))) extern bool gNoInterpreterLock;

class tNoCopy {
public:
    tNoCopy() = default;
    tNoCopy(const tNoCopy&) = delete;
    tNoCopy& operator=(const tNoCopy&) = delete;
};

// One owned reference, or nothing.
template <class T>
class tOwned : tNoCopy {
public:
    explicit tOwned(T* new_ref = nullptr) : obj_(new_ref) {}
    ~tOwned() { XPy_DoDecRef(obj_); }  // may run Python code
    explicit operator bool() const { return obj_ != nullptr; }
    T* borrow() const { return obj_; }
    T* give_away() {  // new ref for the caller
        T* const obj = obj_;
        obj_ = nullptr;
        return obj;
    }
    void reset(T* new_ref) {  // steals; drops the old one last
        T* const old = obj_;
        obj_ = new_ref;
        XPy_DoDecRef(old);
    }

private:
    T* obj_;
};

using tOwnedRef = tOwned<PyObject>;
using tOwnedFrame = tOwned<PyFrameObject>;
using tOwnedCode = tOwned<PyCodeObject>;

// A record field that owns its object: store the new one first, drop the old one last, since the
// drop may run Python code that comes back to the field.
template <class T>
inline void set_owned(T** field, T* new_ref) {
    T* const old = *field;
    *field = new_ref;
    XPy_DoDecRef(old);
}

class tSavedErrno : tNoCopy {
public:
    tSavedErrno() : errno_(errno) {}
    ~tSavedErrno() { errno = errno_; }

private:
    int errno_;
};

// Extra stack levels for the debugger's own calls while the program is at its recursion limit.
inline constexpr int kRecursionHeadroom = 50;

// Room for the debugger's own calls when the program is at its recursion limit. Restores the old
// limit unless somebody set another one meanwhile (a user at the prompt), which then stays.
//
// The limit is that of all threads. Where they run at the same time they would undo each other's
// changes of it, and each change makes the interpreter stop all of them: there the thread gets its
// levels alone, in its own count of what is left.
class tRecursionHeadroom : tNoCopy {
public:
    explicit tRecursionHeadroom(int extra) {
        if (gNoInterpreterLock && gRecursionRemainingOffset != -1) [[unlikely]] {
            tstate_ = gPy.PyThreadState_Get();
            raised_ = extra;
            change_levels(raised_);
            return;
        }
        old_ = gPy.Py_GetRecursionLimit();
        raised_ = old_ + extra;
        gPy.Py_SetRecursionLimit(raised_);
    }
    ~tRecursionHeadroom() {
        if (tstate_ != nullptr) [[unlikely]] {
            change_levels(-raised_);
        } else if (gPy.Py_GetRecursionLimit() == raised_) {
            gPy.Py_SetRecursionLimit(old_);
        }
    }

private:
    void change_levels(int change) const {
        const Py_ssize_t offset = gRecursionRemainingOffset;
        write_field<int>(tstate_, offset, read_field<int>(tstate_, offset) + change);
    }

    PyThreadState* tstate_ = nullptr;  // borrowed, the running thread's; null: it is the limit
    int old_ = 0;
    int raised_ = 0;
};

// The debuggee's pending exception, put back at the end; an exception of ours is dropped.
class tSavedError : tNoCopy {
public:
    tSavedError() { gPy.PyErr_Fetch(&type_, &value_, &traceback_); }
    ~tSavedError() {
        // Mostly there was no error and is none: to ask costs less than to restore nothing.
        if (!abandoned_ && (type_ != nullptr || gPy.PyErr_Occurred() != nullptr)) {
            gPy.PyErr_Restore(type_, value_, traceback_);
        }
    }
    // Leaves the current error state as it is and drops the saved one.
    void abandon() {
        abandoned_ = true;
        XPy_DoDecRef(type_);
        XPy_DoDecRef(value_);
        XPy_DoDecRef(traceback_);
    }
    bool empty() const { return type_ == nullptr; }

private:
    PyObject* type_ = nullptr;
    PyObject* value_ = nullptr;
    PyObject* traceback_ = nullptr;
    bool abandoned_ = false;
};

// No trace events from the Python code that runs meanwhile on this thread.
class tTracingOff : tNoCopy {
public:
    explicit tTracingOff(PyThreadState* tstate) : tstate_(tstate) {
        gPy.PyThreadState_EnterTracing(tstate_);
    }
    ~tTracingOff() { gPy.PyThreadState_LeaveTracing(tstate_); }

private:
    PyThreadState* tstate_;
};
