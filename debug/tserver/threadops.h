// threadops.h -- one record per interpreter thread state, and the way to it by thread state, by id
// or by outermost frame.
// The table owns the records. One that still holds the debug-server mutex outlives its entry: it is
// marked removed_from_table and freed by its holder when it lets go of the mutex. The same holds
// for one with a dispatch in progress: that thread may be waiting for the mutex this very moment.
// Everything here needs the interpreter lock, which also serialises the table.
#pragma once

#include "xpy_c_api.h"

struct CUt_HashTable;
struct tDispatchCtx;  // an event being dispatched; the tracer core knows its contents

// Frames are owned; None in one of them means "unknown", null "none".
struct tThreadData {
    int tracing;                      // the tracer is active on this thread
    int tstate_trace_function_set;    // the C trace function sits in the thread state
    Py_ssize_t tstate_id;             // address of the thread state, the table's key
    long thread_id;                   // as the interpreter counts threads; refreshed on each event
    int debug_thread_policy;          // what the server decided; -1 = not asked yet
    PyObject* thread_name;            // owned; null until the thread is named
    PyFrameObject* bot_frame;         // owned; outermost frame of the debugged code
    PyFrameObject* stop_frame;        // owned; null = stepping stops in no particular frame
    PyFrameObject* return_frame;      // owned; its return ends a step-out
    PyFrameObject* curr_frame;        // owned; the frame being dispatched
    int step_over_lineno_start;       // line range of a step-over; -1 = none
    int step_over_lineno_end;         // -1 = none
    int stop_when_exited_stop_frame;  // stop once stop_frame has been left
    PyFrameObject* sub_language_marker;  // owned; frame by which a sub-language was entered
    PyObject* sub_language_hook;         // owned; the hook object of that sub-language
    int exiting_on_exception;            // the thread unwinds because of an exception
    PyObject* pending_exc;               // owned; raised in this thread at the next opportunity
    int dbgserver_mutex_acquired_count;  // how often this thread holds the mutex; 0 = may be freed
    int removed_from_table;              // taken out while in use; the holder frees it
    int need_f_trace_update;             // the frames' trace attributes must be refreshed
    tDispatchCtx* active_dispatch_ctx;   // not owned; null outside of dispatch
    // Private fields follow. All of them start as zero, and reinit makes them zero without looking
    // at them, so none may own anything.
    int f_trace_update_counted;         // need_f_trace_update is counted in the tracer's state
    const tDispatchCtx* asked_in;       // only compared: in it a key frame's breakpoints were asked
    PyFrameObject* unnamed_parents[8];  // only compared: below these frames no name was found
    tThreadData* next_removed;  // list of the records that clear_thread_table is about to free
    int hold_count;             // uses across Python calls, see tHeldThreadData; survives reinit
};

using tThreadIdentFunc = long (*)();

// The interpreter's thread-identity function; null when it has none.
TDBG_API tThreadIdentFunc gGetThreadIdentFunc;

// Finds gGetThreadIdentFunc. Once, while the module is created.
TDBG_API void init_threadops();
// Identity of the calling thread; 1 when the interpreter has no such function. no GIL
TDBG_API long get_thread_ident();

// Locks. A null lock always counts as acquired. errno is kept.
TDBG_API PyThread_type_lock allocate_thread_mutex();
// 1 = acquired. While it waits it releases the interpreter lock, so other threads run.
TDBG_API int acquire_thread_mutex(PyThread_type_lock lock, int wait);
TDBG_API void release_thread_mutex(PyThread_type_lock lock);

// Records. A new one belongs to the caller until it is in a table; null when out of memory, without
// an exception.
TDBG_API tThreadData* new_thread_data(PyThreadState* tstate);
// Drops what the record holds and starts it anew for tstate. The debug policy survives only when
// the record was for that same thread state.
TDBG_API void reinit_thread_data_for_tstate(tThreadData* td, PyThreadState* tstate);
TDBG_API void free_thread_data(tThreadData* td);
// For the holder: frees a removed record once neither the mutex nor a dispatch keeps it. True =
// freed.
bool free_thread_data_if_unused(tThreadData* td);

// Keeps a record, which may be null, while Python code runs that may take it out of its table: a
// reset by the debug server or a wait in which other threads run.
class tHeldThreadData {
public:
    explicit tHeldThreadData(tThreadData* td) : td_(td) {
        if (td_ != nullptr) {
            td_->hold_count++;
        }
    }
    ~tHeldThreadData() {
        if (td_ != nullptr) {
            td_->hold_count--;
            free_thread_data_if_unused(td_);
        }
    }
    tHeldThreadData(const tHeldThreadData&) = delete;
    tHeldThreadData& operator=(const tHeldThreadData&) = delete;

private:
    tThreadData* td_;
};

// The table. Records found are borrowed.
TDBG_API void init_thread_table(CUt_HashTable* table);
TDBG_API tThreadData* find_thread_data(CUt_HashTable* table, PyThreadState* tstate);
TDBG_API void remove_thread_data(CUt_HashTable* table, PyThreadState* tstate);
void forget_any_last_record();                           // when its table was dropped as a whole
TDBG_API void clear_thread_table(CUt_HashTable* table);  // leaves it empty and usable
// Record of the calling thread, or of tstate; made when there is none yet. Null when out of memory,
// with MemoryError set if it was the table's memory.
TDBG_API tThreadData* get_current_thread_data(CUt_HashTable* table);
TDBG_API tThreadData* get_other_thread_data(CUt_HashTable* table, PyThreadState* tstate);

// A thread state as an integer for Python (new ref) and back. Above the middle of the address space
// the integer may be negative; the way back takes both forms. Null with an exception set.
TDBG_API PyObject* id_for_tstate_ptr(PyThreadState* tstate);
TDBG_API PyThreadState* tstate_ptr_for_id(PyObject* obj);

// New dict {outermost frame: address of the record}, for records that know that frame. Null with an
// exception set.
TDBG_API PyObject* get_thread_data_by_outer_frame_dict(CUt_HashTable* table);
// The record of the thread whose outermost frame is `frame` or one of its callers, by such a dict.
// Null when there is none. Logs and clears errors.
TDBG_API tThreadData* find_thread_data_from_frame(PyFrameObject* frame, PyObject* dict);
