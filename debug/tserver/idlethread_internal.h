// idlethread_internal.h -- what only the two parts of the idle thread share.
#pragma once

#include "dprintf.h"
#include "idlethread.h"

inline constexpr int kNoWait = 0;
inline constexpr int kWait = 1;
inline constexpr int kLockAcquired = 1;  // of the timed wait

inline void log_without_tstate(const char* text) {
    dprint_no_tstate(kLogCore, text);
}

// ---- idlethread.cpp ----

enum tGilState { kGilHeld, kGilNotHeld, kInterpreterGone };

// The record's mutex. Nests.
// False = the record is not valid or its mutex cannot be had any more; nothing was locked.
bool lock_record(tIdleThreadPerInterpData* data, tGilState gil);
// False = the record became invalid meanwhile: this is a forked child now.
bool unlock_record(tIdleThreadPerInterpData* data);
// Lets go of the mutex, however often this thread has it, and takes it that often again.
int suspend_record_lock(tIdleThreadPerInterpData* data);
void resume_record_lock(tIdleThreadPerInterpData* data, int depth);

// The interpreter's objects are left alone then, and nobody waits for its lock any more.
bool is_interpreter_ending(const tIdleThreadPerInterpData* data);
void free_locks(tSingleIdleThreadData* single);
// Idle threads that were started and have not let go of all that is the interpreter's.
void count_live_threads(int change);
// The idle thread while it calls the server itself; 0 = none does. Only that thread finds its own
// number here.
extern unsigned long gIdleCaller;

// ---- idlethread_turns.cpp ----

// Before the first thread starts, for its end: needs the interpreter lock.
void find_delete_function();
