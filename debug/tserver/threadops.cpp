#include "threadops.h"

#include <stdlib.h>

#include "dbgcommon.h"
#include "dbgtracerhash.h"
#include "dprintf.h"
#include "guards.h"

constinit tThreadIdentFunc gGetThreadIdentFunc = nullptr;

void init_threadops() {
    gGetThreadIdentFunc =
        reinterpret_cast<tThreadIdentFunc>(lookup_python_function("PyThread_get_thread_ident"));
    DPRINTF(
        kLogCore, "Thread ident function is %p\n", reinterpret_cast<void*>(gGetThreadIdentFunc));
    if (gGetThreadIdentFunc == nullptr && gPy.PyErr_Occurred() != nullptr) {
        gPy.PyErr_Clear();
    }
}

long get_thread_ident() {
    // deliberate: without the function all threads look like one, and -1 must stay "nobody"
    return gGetThreadIdentFunc != nullptr ? gGetThreadIdentFunc() : 1;
}

// ---- Locks ----

PyThread_type_lock allocate_thread_mutex() {
    return gPy.PyThread_allocate_lock();
}

int acquire_thread_mutex(PyThread_type_lock lock, int wait) {
    if (lock == nullptr) {
        return 1;
    }
    tSavedErrno keep_errno;
    int acquired = gPy.PyThread_acquire_lock(lock, 0);
    if (acquired == 0 && wait != 0) {
        // The holder needs the interpreter lock to get to its release.
        PyThreadState* const tstate = gPy.PyEval_SaveThread();
        acquired = gPy.PyThread_acquire_lock(lock, 1);
        gPy.PyEval_RestoreThread(tstate);
    }
    return acquired;
}

void release_thread_mutex(PyThread_type_lock lock) {
    if (lock == nullptr) {
        return;
    }
    tSavedErrno keep_errno;
    gPy.PyThread_release_lock(lock);
}

// ---- Look-up cache ----

// The record found last, in front of the table: one thread's events come in long runs, and each of
// them asks for its record. Forgotten whenever a record is freed or leaves its table.
struct tLastRecord {
    CUt_HashTable* table;
    PyThreadState* tstate;  // null = nothing remembered
    tThreadData* td;
};
static constinit tLastRecord gLastRecord = {nullptr, nullptr, nullptr};

static void forget_last_record(const tThreadData* td) {
    if (gLastRecord.td == td) {
        gLastRecord = {nullptr, nullptr, nullptr};
    }
}

static void forget_last_record_in(const CUt_HashTable* table) {
    if (gLastRecord.table == table) {
        gLastRecord = {nullptr, nullptr, nullptr};
    }
}

void forget_any_last_record() {
    gLastRecord = {nullptr, nullptr, nullptr};
}

// ---- Records ----

static long read_thread_id(PyThreadState* tstate) {
    const Py_ssize_t offset = gPy.tstate_offsets.thread_id;
    if (tstate == nullptr || offset == -1) {
        return -1;
    }
    return static_cast<long>(read_field<unsigned long>(tstate, offset));
}

// Who holds the server mutex is known by this, so the calling thread's own is never unknown.
static long read_own_thread_id(PyThreadState* own) {
    const long id = read_thread_id(own);
    return id != -1 ? id : get_thread_ident();
}

static PyFrameObject* new_none_frame() {
    return static_cast<PyFrameObject*>(new_ref(gPy.Py_None));
}

// Initial values. Takes no notice of what the fields held.
static void fill_thread_data(tThreadData* td, PyThreadState* tstate) {
    *td = tThreadData{};
    td->tstate_id = reinterpret_cast<Py_ssize_t>(tstate);
    td->thread_id = read_thread_id(tstate);
    td->debug_thread_policy = -1;
    td->bot_frame = new_none_frame();
    td->return_frame = new_none_frame();
    td->curr_frame = new_none_frame();
    td->step_over_lineno_start = -1;
    td->step_over_lineno_end = -1;
    td->need_f_trace_update = 1;
}

// Drops what a record held, given a copy of it: the record itself is already in its new state, for
// a dropped frame can run Python code that comes back to it.
static void drop_references(const tThreadData& old) {
    XPy_DoDecRef(old.bot_frame);
    XPy_DoDecRef(old.stop_frame);
    XPy_DoDecRef(old.return_frame);
    XPy_DoDecRef(old.curr_frame);
    XPy_DoDecRef(old.sub_language_marker);
    XPy_DoDecRef(old.sub_language_hook);
    XPy_DoDecRef(old.thread_name);
    XPy_DoDecRef(old.pending_exc);
}

tThreadData* new_thread_data(PyThreadState* tstate) {
    tThreadData* const td = static_cast<tThreadData*>(malloc(sizeof(tThreadData)));
    if (td != nullptr) {
        fill_thread_data(td, tstate);
    }
    return td;
}

void reinit_thread_data_for_tstate(tThreadData* td, PyThreadState* tstate) {
    forget_last_record(td);
    const tThreadData old = *td;
    fill_thread_data(td, tstate);
    td->hold_count = old.hold_count;
    if (td->tstate_id == old.tstate_id) {
        td->debug_thread_policy = old.debug_thread_policy;
    }
    drop_references(old);
}

void free_thread_data(tThreadData* td) {
    if (td == nullptr) {
        return;
    }
    forget_last_record(td);
    const tThreadData old = *td;
    free(td);  // its thread state may be gone, so nothing is read from that
    drop_references(old);
}

static bool is_in_use(const tThreadData* td) {
    return td->dbgserver_mutex_acquired_count != 0 || td->active_dispatch_ctx != nullptr ||
           td->hold_count != 0;
}

bool free_thread_data_if_unused(tThreadData* td) {
    if (td->removed_from_table == 0 || is_in_use(td)) {
        return false;
    }
    free_thread_data(td);
    return true;
}

// ---- The table ----

void init_thread_table(CUt_HashTable* table) {
    forget_last_record_in(table);
    CU_InitHashTable(table, kHashPointerKeys);
}

tThreadData* find_thread_data(CUt_HashTable* table, PyThreadState* tstate) {
    CUt_HashEntry* const entry = find_pointer_entry(table, tstate);
    return entry != nullptr ? static_cast<tThreadData*>(entry->clientData) : nullptr;
}

void remove_thread_data(CUt_HashTable* table, PyThreadState* tstate) {
    CUt_HashEntry* const entry = find_pointer_entry(table, tstate);
    if (entry == nullptr) {
        return;
    }
    tThreadData* const td = static_cast<tThreadData*>(entry->clientData);
    forget_last_record(td);
    CU_DeleteHashEntry(entry);
    td->removed_from_table = 1;
    free_thread_data_if_unused(td);
}

// The table is empty again before the first record is freed: a dropped frame can run Python code,
// and its trace events look for their thread's record here.
void clear_thread_table(CUt_HashTable* table) {
    tThreadData* removed = nullptr;
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(table, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        tThreadData* const td = static_cast<tThreadData*>(entry->clientData);
        td->removed_from_table = 1;
        if (!is_in_use(td)) {
            td->next_removed = removed;
            removed = td;
        }
    }
    CU_DeleteHashTable(table);
    init_thread_table(table);
    while (removed != nullptr) {
        tThreadData* const td = removed;
        removed = td->next_removed;
        free_thread_data(td);
    }
}

// Enters a new record. Null when out of memory.
static tThreadData* add_thread_data(CUt_HashTable* table, PyThreadState* tstate) {
    tThreadData* const td = new_thread_data(tstate);
    if (td == nullptr) {
        return nullptr;  // before there is an entry: one without a record must never exist
    }
    int is_new = 0;
    CUt_HashEntry* const entry = create_hash_entry(table, &tstate, &is_new);
    if (entry == nullptr) {
        gPy.PyErr_SetString(gPy.PyExc_MemoryError, "Out of memory");
        free_thread_data(td);
        return nullptr;
    }
    entry->clientData = td;
    return td;
}

tThreadData* get_other_thread_data(CUt_HashTable* table, PyThreadState* tstate) {
    tThreadData* const td = find_thread_data(table, tstate);
    return td != nullptr ? td : add_thread_data(table, tstate);
}

[[gnu::noinline]] static tThreadData* get_and_remember(CUt_HashTable* table,
                                                       PyThreadState* tstate) {
    tThreadData* const td = get_other_thread_data(table, tstate);
    if (td != nullptr) {
        gLastRecord = {table, tstate, td};
    }
    return td;
}

tThreadData* get_current_thread_data(CUt_HashTable* table) {
    PyThreadState* const tstate = gPy.PyThreadState_Get();
    tThreadData* const td = gLastRecord.tstate == tstate && gLastRecord.table == table
                                ? gLastRecord.td
                                : get_and_remember(table, tstate);
    if (td != nullptr) {
        td->thread_id = read_own_thread_id(tstate);  // another one after a fork
    }
    return td;
}

// ---- Ids ----

PyObject* id_for_tstate_ptr(PyThreadState* tstate) {
    return gPy.PyLong_FromSsize_t(reinterpret_cast<Py_ssize_t>(tstate));
}

PyThreadState* tstate_ptr_for_id(PyObject* obj) {
    const Py_ssize_t id = int_from_object(obj);
    if (id != -1 || gPy.PyErr_Occurred() == nullptr) {
        return reinterpret_cast<PyThreadState*>(id);
    }
    if (!is_instance_of(obj, gPy.PyLong_Type_ptr)) {
        return nullptr;
    }
    // Too big for a signed word: the same address, written as Python's id() writes it.
    gPy.PyErr_Clear();
    return static_cast<PyThreadState*>(gPy.PyLong_AsVoidPtr(obj));
}

// ---- By outermost frame ----

// 0, or -1 with an exception set.
static int add_by_bot_frame(PyObject* dict, tThreadData* td) {
    if (td->bot_frame == nullptr || td->bot_frame == gPy.Py_None) {
        return 0;
    }
    tOwnedRef address(gPy.PyLong_FromSsize_t(reinterpret_cast<Py_ssize_t>(td)));
    return address ? gPy.PyDict_SetItem(dict, td->bot_frame, address.borrow()) : -1;
}

PyObject* get_thread_data_by_outer_frame_dict(CUt_HashTable* table) {
    tOwnedRef dict(gPy.PyDict_New());
    if (!dict) {
        return nullptr;
    }
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(table, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        if (add_by_bot_frame(dict.borrow(), static_cast<tThreadData*>(entry->clientData)) != 0) {
            return nullptr;
        }
    }
    return dict.give_away();
}

// Address of the record of the first frame in the dict, from `frame` outward: borrowed from the
// dict; null at the end of the walk or with an exception set.
static PyObject* borrow_address_by_frame(PyFrameObject* frame, PyObject* dict) {
    tOwnedFrame current(static_cast<PyFrameObject*>(new_ref(frame)));
    while (current) {
        PyObject* const address = gPy.PyDict_GetItem(dict, current.borrow());
        if (address != nullptr || gPy.PyErr_Occurred() != nullptr) {
            return address;
        }
        current.reset(get_frame_back(current.borrow()));
    }
    return nullptr;
}

tThreadData* find_thread_data_from_frame(PyFrameObject* frame, PyObject* dict) {
    if (frame == nullptr || dict == nullptr) {
        return nullptr;
    }
    tSavedError saved;  // an exception on the way is not the caller's
    PyObject* const address = borrow_address_by_frame(frame, dict);
    if (gPy.PyErr_Occurred() != nullptr) {
        log_failure("Failure in find_thread_data_from_frame()\n");
        return nullptr;
    }
    if (address == nullptr) {
        return nullptr;
    }
    return reinterpret_cast<tThreadData*>(gPy.PyLong_AsSsize_t(address));
}
