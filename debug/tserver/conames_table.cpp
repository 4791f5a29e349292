// Entries of code objects and where they are kept.
//
// With the interpreter's extra slot the entry hangs on the code object and dies with it. Without
// it (before 3.7) entries are in a dictionary keyed by address. There the table must keep every
// code object alive, or an address could come back as another code object's; so now and then it
// looks for those that nobody but the table holds and lets them go.
//
// An entry never holds the class its code belongs to, though it has an item for it: class, method,
// code and entry would be a cycle through the extra slot, which the collector cannot see into, and
// no class of the program would ever be freed.
#include "conames.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dbgcommon.h"
#include "dprintf.h"
#include "guards.h"

static constexpr int kLookupsBetweenSweeps = 4999;
static constexpr int kSweepBatch = 100;

static constexpr Py_ssize_t kIndexNotRequested = -2;
static constexpr Py_ssize_t kIndexUnavailable = -1;
static constinit Py_ssize_t gCodeExtraIndex = kIndexNotRequested;

// ---- Life cycle ----

struct tCodeEntrySlot {
    PyCodeObject* code;  // borrowed from the dictionary's extra reference; null = free slot
    PyObject* entry;     // borrowed from the dictionary
};

// In front of the dictionary of one table, the one asked last: there is but the tracer's.
static constinit tCodeEntrySlot gEntryCache[kCodeEntryCacheSize] = {};
static constinit const tCOPathnameTable* gEntryCacheOwner = nullptr;

// The str registered last, owned; the code of one file shares it.
static constinit tNameCache gLastPathname = {};

static void forget_last_pathname() {
    if (gLastPathname.life == gInterpreterLife) {
        set_owned<PyObject>(&gLastPathname.obj, nullptr);
    }
}

static void clear_entry_cache(const tCOPathnameTable* table) {
    if (gEntryCacheOwner != table) {
        return;
    }
    for (tCodeEntrySlot& slot : gEntryCache) {
        slot = {nullptr, nullptr};
    }
}

static void give_entry_cache_to(const tCOPathnameTable* table) {
    clear_entry_cache(gEntryCacheOwner);
    gEntryCacheOwner = table;
}

void InitCOPathnameTable(tCOPathnameTable* table, tFileOpsData* file_ops_data) {
    table->filename_for_co = nullptr;
    table->collect_count = 0;
    table->file_ops_data = file_ops_data;
    table->codefile[0] = '\0';
    table->filestring = new_native_string("__file__");
    if (table->filestring == nullptr) {
        log_failure("Failure: InitCOPathnameTable()\n");
    }
    table->bp_version = nullptr;
    clear_entry_cache(table);
}

static void drop_code_objects(PyObject* filename_for_co) {
    Py_ssize_t pos = 0;
    PyObject* key = nullptr;
    PyObject* entry = nullptr;
    while (gPy.PyDict_Next(filename_for_co, &pos, &key, &entry) != 0) {
        XPy_DoDecRef(static_cast<PyObject*>(gPy.PyLong_AsVoidPtr(key)));
    }
}

void free_co_pathname_table(tCOPathnameTable* table) {
    tOwnedRef dict(table->filename_for_co);  // out of the table before any Python code can run
    table->filename_for_co = nullptr;
    table->collect_count = 0;
    clear_entry_cache(table);
    if (dict) {
        drop_code_objects(dict.borrow());
    }
    set_owned<PyObject>(&table->filestring, nullptr);
    set_owned<PyObject>(&table->bp_version, nullptr);
    forget_last_pathname();
    free_text_copies();
}

// ---- Entries ----

PyObject* CreateNewEntry() {
    tOwnedRef entry(gPy.PyList_New(kEntryLength));
    if (!entry) {
        return nullptr;
    }
    for (int item = 0; item < kEntryLength; item++) {
        if (gPy.PyList_SetItem(entry.borrow(), item, new_ref(gPy.Py_None)) != 0) {
            return nullptr;
        }
    }
    return entry.give_away();
}

// Called for every code object that dies, also for those without an entry, and as late as the
// interpreter's own shut-down.
void FreeExtraCodeData(void* entry) {
    if (gPy.initialized != 0) {
        XPy_DoDecRef(static_cast<PyObject*>(entry));
    }
}

static Py_ssize_t request_code_extra_index() {
    if (!version_at_least(3, 7)) {  // early 3.6 counts the slots per thread (bpo-30604)
        return kIndexUnavailable;
    }
    const Py_ssize_t index = gPy._PyEval_RequestCodeExtraIndex(FreeExtraCodeData);
    if (index >= 0) {
        return index;
    }
    if (gPy.PyErr_Occurred() != nullptr) {
        gPy.PyErr_Clear();
    }
    return kIndexUnavailable;
}

void forget_code_extra_index() {
    gCodeExtraIndex = kIndexNotRequested;
}

static bool has_extra_slot() {
    if (gCodeExtraIndex == kIndexNotRequested) {
        tSavedError saved;
        gCodeExtraIndex = request_code_extra_index();
    }
    return gCodeExtraIndex >= 0;
}

// *failed: set to true, with an exception pending, when the interpreter cannot say.
static PyObject* borrow_entry_in_extra_slot(PyCodeObject* code, bool* failed) {
    void* entry = nullptr;
    if (gPy._PyCode_GetExtra(code, gCodeExtraIndex, &entry) != 0) {
        *failed = true;
        return nullptr;
    }
    return static_cast<PyObject*>(entry);
}

static tCodeEntrySlot* get_cache_slot(tCOPathnameTable* table, PyCodeObject* code) {
    if (gEntryCacheOwner != table) {
        give_entry_cache_to(table);
    }
    const uintptr_t address = reinterpret_cast<uintptr_t>(code);
    return &gEntryCache[((address >> 4) ^ (address >> 14)) % kCodeEntryCacheSize];
}

static PyObject* borrow_entry_in_dict(tCOPathnameTable* table, PyCodeObject* code, bool* failed) {
    if (table->filename_for_co == nullptr) {
        return nullptr;
    }
    tCodeEntrySlot* const slot = get_cache_slot(table, code);
    if (slot->code == code) {
        return slot->entry;
    }
    tOwnedRef key(gPy.PyLong_FromVoidPtr(code));
    if (!key) {
        *failed = true;
        return nullptr;
    }
    PyObject* const entry = gPy.PyDict_GetItem(table->filename_for_co, key.borrow());
    if (entry != nullptr) {
        *slot = {code, entry};
    }
    return entry;
}

static bool is_code(PyObject* obj) {
    return is_instance_of(obj, gPy.PyCode_Type_ptr);
}

// Borrowed; null when there is none. An exception is pending only where *failed becomes true.
static PyObject* borrow_entry(tCOPathnameTable* table, PyCodeObject* code, bool* failed) {
    if (!is_code(code)) {
        return nullptr;
    }
    return has_extra_slot() ? borrow_entry_in_extra_slot(code, failed)
                            : borrow_entry_in_dict(table, code, failed);
}

// ---- New entries ----

// Steals the entry. 0, or -1 with an exception set.
static int store_entry_in_extra_slot(PyCodeObject* code, PyObject* entry) {
    if (gPy._PyCode_SetExtra(code, gCodeExtraIndex, entry) != 0) {
        XPy_DoDecRef(entry);
        return -1;
    }
    return 0;
}

// Steals the entry; the dictionary holds it and the table one reference to the code object.
static int store_entry_in_dict(tCOPathnameTable* table, PyCodeObject* code, PyObject* entry) {
    tOwnedRef owned_entry(entry);
    if (table->filename_for_co == nullptr) {
        table->filename_for_co = gPy.PyDict_New();
    }
    tOwnedRef key(table->filename_for_co != nullptr ? gPy.PyLong_FromVoidPtr(code) : nullptr);
    if (!key || gPy.PyDict_SetItem(table->filename_for_co, key.borrow(), entry) != 0) {
        return -1;
    }
    XPy_DoIncRef(code);
    *get_cache_slot(table, code) = {code, entry};
    return 0;
}

static PyObject* borrow_new_entry(tCOPathnameTable* table, PyCodeObject* code) {
    PyObject* const entry = is_code(code) ? CreateNewEntry() : nullptr;
    if (entry == nullptr) {
        return nullptr;
    }
    const int status = has_extra_slot() ? store_entry_in_extra_slot(code, entry)
                                        : store_entry_in_dict(table, code, entry);
    return status == 0 ? entry : nullptr;
}

// Borrowed; null after logging.
static PyObject* borrow_or_create_entry(tCOPathnameTable* table, PyCodeObject* code) {
    bool failed = false;
    PyObject* entry = borrow_entry(table, code, &failed);
    if (!failed && (entry == nullptr || entry == gPy.Py_None)) {
        entry = borrow_new_entry(table, code);
    }
    if (entry == nullptr) {
        log_failure("Failure: CreateNewEntry()\n");
    }
    return entry;
}

static int set_entry_item(PyObject* entry, tCodeEntryItem item, PyObject* value) {
    return gPy.PyList_SetItem(entry, item, new_ref(value));
}

// ---- Letting go of dead code objects ----

struct tSweepBatch {
    PyObject* keys[kSweepBatch];   // owned
    PyObject* codes[kSweepBatch];  // the table's reference, passed on once the key is deleted
    int count;
};

static void gather_dead(PyObject* dict, tSweepBatch* batch) {
    Py_ssize_t pos = 0;
    PyObject* key = nullptr;
    PyObject* entry = nullptr;
    batch->count = 0;
    while (batch->count < kSweepBatch && gPy.PyDict_Next(dict, &pos, &key, &entry) != 0) {
        PyObject* const code = static_cast<PyObject*>(gPy.PyLong_AsVoidPtr(key));
        if (code != nullptr && XPy_GetRefCnt(code) == 1) {
            batch->keys[batch->count] = new_ref(key);
            batch->codes[batch->count] = code;
            batch->count++;
        }
    }
}

// Takes the batch out of the dictionary; false when a key could not be deleted.
static bool delete_keys(PyObject* dict, tSweepBatch* batch) {
    bool all_deleted = true;
    for (int i = 0; i < batch->count; i++) {
        if (gPy.PyDict_DelItem(dict, batch->keys[i]) != 0) {
            log_failure(
                "FATAL ERROR: UNEXPECTED EXCEPTION in conames, CollectGarbage (PyDict_DelItem)\n");
            batch->codes[i] = nullptr;  // still in the dictionary, so still the table's
            all_deleted = false;
        }
    }
    return all_deleted;
}

// Frees code objects, whose weak references may run Python code that comes back to the table. By
// then nothing in the table speaks of them any more.
static void release_batch(tSweepBatch* batch) {
    for (int i = 0; i < batch->count; i++) {
        XPy_DoDecRef(batch->keys[i]);
        XPy_DoDecRef(batch->codes[i]);
    }
}

void CollectGarbage(tCOPathnameTable* table) {
    tOwnedRef dict(new_ref(table->filename_for_co));
    table->collect_count = 0;
    if (!dict) {
        return;
    }
    tSavedError saved;
    tSweepBatch batch;
    bool may_be_more = true;
    while (may_be_more) {
        gather_dead(dict.borrow(), &batch);
        clear_entry_cache(table);
        may_be_more = delete_keys(dict.borrow(), &batch) && batch.count == kSweepBatch;
        release_batch(&batch);
    }
    table->collect_count = 0;
}

// Only the dictionary needs sweeping.
static void count_lookup(tCOPathnameTable* table) {
    if (has_extra_slot()) {
        return;
    }
    table->collect_count++;
    if (table->collect_count > kLookupsBetweenSweeps) {
        CollectGarbage(table);
    }
}

// ---- Look-up and registration ----

// Borrowed; null when there is none, without an exception.
static PyObject* peek_entry(tCOPathnameTable* table, PyCodeObject* code) {
    bool failed = false;
    PyObject* const entry = borrow_entry(table, code, &failed);
    if (failed) {
        gPy.PyErr_Clear();
    }
    return entry == gPy.Py_None ? nullptr : entry;
}

bool find_code_entry(tCOPathnameTable* table,
                     PyCodeObject* code,
                     PyObject** path,
                     PyObject** any_bps,
                     PyObject** any_bps_version) {
    PyObject* const entry = peek_entry(table, code);
    if (entry == nullptr) {
        return false;
    }
    *path = gPy.PyList_GetItem(entry, kEntryPathname);
    *any_bps = gPy.PyList_GetItem(entry, kEntryAnyBps);
    *any_bps_version = gPy.PyList_GetItem(entry, kEntryAnyBpsVersion);
    if (*path == nullptr || *any_bps == nullptr || *any_bps_version == nullptr) {
        gPy.PyErr_Clear();
        return false;
    }
    return true;
}

PyObject* borrow_code_path(tCOPathnameTable* table, PyCodeObject* code) {
    PyObject* const entry = peek_entry(table, code);
    PyObject* const path = entry != nullptr ? gPy.PyList_GetItem(entry, kEntryPathname) : nullptr;
    if (path == nullptr && entry != nullptr) {
        gPy.PyErr_Clear();
    }
    return path == gPy.Py_None ? nullptr : path;
}

const char* LookupCOPathname(tCOPathnameTable* table, PyCodeObject* code) {
    tSavedError saved;
    count_lookup(table);
    bool failed = false;
    PyObject* const entry = borrow_entry(table, code, &failed);
    if (failed) {
        log_failure("failure in LookupCOPathname()");
    }
    if (entry == nullptr) {
        return nullptr;
    }
    if (entry == gPy.Py_None) {
        DPRINTF(kLogFilenames, "None entry in CO pathname table\n");
        return nullptr;
    }
    PyObject* const pathname = gPy.PyList_GetItem(entry, kEntryPathname);
    if (pathname == gPy.Py_None) {
        DPRINTF(kLogFilenames, "None pathname in CO pathname table entry\n");
        return nullptr;
    }
    if (pathname == nullptr) {
        log_failure("failure in LookupCOPathname()");
        return nullptr;
    }
    return _pystring_to_c_string(pathname);
}

// Somebody may hold the text of the present name, so an equal one does not replace it.
static bool is_same_text(PyObject* str, const char* text) {
    const char* const present = _pystring_to_c_string(str);
    return present != nullptr && strcmp(present, text) == 0;
}

// New ref to the name as a str. Code of one file is registered in a row and shares it.
static PyObject* get_pathname_object(const char* pathname) {
    if (gLastPathname.life != gInterpreterLife) {
        gLastPathname = {nullptr, gInterpreterLife};
    }
    if (gLastPathname.obj == nullptr || !is_same_text(gLastPathname.obj, pathname)) {
        set_owned(&gLastPathname.obj, new_native_string(pathname));
    }
    return new_ref(gLastPathname.obj);
}

static int store_pathname(PyObject* entry, const char* pathname, int force) {
    PyObject* const present = gPy.PyList_GetItem(entry, kEntryPathname);
    if (present == nullptr) {
        return -1;
    }
    if (present != gPy.Py_None && (force == 0 || is_same_text(present, pathname))) {
        return 0;
    }
    tOwnedRef name(get_pathname_object(pathname));
    return name ? set_entry_item(entry, kEntryPathname, name.borrow()) : -1;
}

int RegisterCOPathname(tCOPathnameTable* table,
                       PyCodeObject* code,
                       const char* pathname,
                       [[maybe_unused]] PyObject* containing_class,
                       int force) {
    tSavedError saved;
    count_lookup(table);
    PyObject* const entry = borrow_or_create_entry(table, code);
    if (entry == nullptr || pathname == nullptr) {
        return -1;
    }
    if (store_pathname(entry, pathname, force) != 0) {
        log_failure("Failure: RegisterCOPathname()\n");
        return -1;
    }
    DPRINTF(kLogFilenames,
            "Registering %s as pathname for code object %p (%s)\n",
            dprint_check_str(pathname),
            static_cast<void*>(code),
            dprint_check_pystr(borrow_code_name(code)));
    return 0;
}

void ensure_code_entry(tCOPathnameTable* table, PyCodeObject* code) {
    tSavedError saved;
    borrow_or_create_entry(table, code);
}

// ---- Breakpoint presence ----

PyObject* GetAnyBpsInCodeObject(tCOPathnameTable* table, PyCodeObject* code) {
    PyObject* path = nullptr;
    PyObject* any_bps = nullptr;
    PyObject* version = nullptr;
    if (!find_code_entry(table, code, &path, &any_bps, &version)) {
        return nullptr;
    }
    if (version == nullptr || version != table->bp_version || any_bps == gPy.Py_None) {
        return nullptr;
    }
    return new_ref(any_bps);
}

int SetAnyBpsInCodeObject(tCOPathnameTable* table, PyCodeObject* code, PyObject* value) {
    tSavedError saved;
    if (table->bp_version == nullptr && ClearAnyBpsInAllCodeObjects(table) != 0) {
        return -1;
    }
    PyObject* const entry = borrow_or_create_entry(table, code);
    if (entry == nullptr) {
        return -1;
    }
    if (set_entry_item(entry, kEntryAnyBps, value) != 0 ||
        set_entry_item(entry, kEntryAnyBpsVersion, table->bp_version) != 0) {
        log_failure("Failure: SetAnyBpsInCodeObject()\n");
        return -1;
    }
    return 0;
}

// A cached answer counts only while the list stored beside it is this very list; the entries hold
// the old lists, so none of their addresses can come back as the new one's.
int ClearAnyBpsInAllCodeObjects(tCOPathnameTable* table) {
    tSavedErrno keep_errno;
    tSavedError saved;
    PyObject* const fresh = gPy.PyList_New(0);
    set_owned(&table->bp_version, fresh);  // null makes all answers stale as well
    if (fresh == nullptr) {
        gPy.PyErr_Clear();
        fputs("Failure: ClearAnyBpsInAllCodeObjects()", stdout);
        return -1;
    }
    return 0;
}
