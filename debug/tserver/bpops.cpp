// bpops.cpp -- the breakpoint records, their table by line, and what the server asks of them.
#include "bpops.h"

#include <stdlib.h>
#include <string.h>

#include "bpops_internal.h"

// ---- Life of the table ----

void __tracer_init_bp_ops_data(tBpOpsData* data,
                               tCOPathnameTable* co_pathname_table,
                               PyObject* get_checksum_cb,
                               int checksums_enabled) {
    CU_InitHashTable(&data->userbps, kHashIntKeys);
    data->changed_bps = nullptr;
    data->next_bp_id = 1;
    CU_InitHashTable(&data->loaded_modules, kHashStringKeys);
    data->co_pathname_table = co_pathname_table;
    data->resolve_bp_tmpfile[0] = '\0';
    data->get_checksum_cb = new_ref(get_checksum_cb);
    data->checksums_enabled = checksums_enabled;
    data->filestring = new_native_string("__file__");
    data->any_bps_cache = gPy.PyDict_New();
    init_file_lists(data);
}

void __tracer_clear_bp_ops_data(tBpOpsData* data,
                                tCOPathnameTable* co_pathname_table,
                                PyObject* get_checksum_cb) {
    __tracer_clear_all_breaks(data);
    CU_DeallocHashTable(&data->loaded_modules);
    clear_file_lists(data);
    // The old references go last: dropping one may run Python code, which must find a whole record.
    tOwnedRef old_callback(data->get_checksum_cb);
    tOwnedRef old_filestring(data->filestring);
    tOwnedRef old_cache(data->any_bps_cache);
    __tracer_init_bp_ops_data(data, co_pathname_table, get_checksum_cb, data->checksums_enabled);
}

// ---- Records ----

// Text of a condition object, caller frees; null for None. *ok is false when out of memory.
static char* copy_condition(PyObject* cond, bool* ok) {
    *ok = true;
    if (cond == nullptr || cond == gPy.Py_None) {
        return nullptr;
    }
    char* const text = _pystring_to_c_string_copy(cond);
    *ok = text != nullptr;
    return text;
}

tBp* __tracer_create_bp(tBpOpsData* data,
                        const char* user_filename,
                        const char* checksum,
                        int lineno,
                        int enabled,
                        int temporary,
                        PyObject* cond,
                        int ignore_count) {
    const int id = data->next_bp_id++;
    tBp* const bp = static_cast<tBp*>(calloc(1, sizeof(tBp)));
    if (bp == nullptr) {
        return nullptr;
    }
    bool has_cond = false;
    bp->id = id;
    bp->user_filename = strdup(user_filename);
    bp->user_checksum = strdup(checksum);
    bp->cond = copy_condition(cond, &has_cond);
    bp->lineno = lineno;
    bp->enabled = enabled != 0;
    bp->temporary = temporary != 0;
    bp->ignore_count = ignore_count;
    if (bp->user_filename == nullptr || bp->user_checksum == nullptr || !has_cond) {
        __tracer_free_bp(data, bp);
        return nullptr;
    }
    return bp;
}

void __tracer_free_bp(tBpOpsData* /*data*/, tBp* bp) {
    if (bp == nullptr) {
        return;
    }
    if (bp->users > 0) {
        bp->is_dropped = 1;  // whoever holds it frees it
        return;
    }
    tOwnedRef code(bp->cond_code);
    free(bp->user_filename);
    free(bp->user_checksum);
    free(bp->module_filename);
    free(bp->cond);
    free(bp);
}

tHeldBps::~tHeldBps() {
    for (size_t i = 0; i < count_; i++) {
        tBp* const bp = bps_[i];
        if (--bp->users == 0 && bp->is_dropped) {
            __tracer_free_bp(data_, bp);
        }
    }
    if (bps_ != few_) {
        free(bps_);
    }
}

bool tHeldBps::grow() {
    const size_t new_room = 2 * room_;
    tBp** const old = bps_ != few_ ? bps_ : nullptr;
    tBp** const grown = static_cast<tBp**>(realloc(old, new_room * sizeof(tBp*)));
    if (grown == nullptr) {
        return false;
    }
    if (old == nullptr) {
        memcpy(grown, few_, sizeof(few_));
    }
    bps_ = grown;
    room_ = new_room;
    return true;
}

bool tHeldBps::add(tBp* bp) {
    if (count_ == room_ && !grow()) {
        return false;
    }
    bp->users++;
    bps_[count_] = bp;
    count_++;
    return true;
}

bool tHeldBps::add_chain(tBp* head, tBp* tBp::*next) {
    for (tBp* bp = head; bp != nullptr; bp = bp->*next) {
        if (!add(bp)) {
            return false;
        }
    }
    return true;
}

// ---- Lines ----

tBp* find_bps_on_line(tBpOpsData* data, int lineno) {
    const CUt_HashEntry* const entry = find_line_entry(&data->userbps, lineno);
    return entry != nullptr ? static_cast<tBp*>(entry->clientData) : nullptr;
}

int __tracer_add_userbp(tBpOpsData* data, tBp* bp) {
    int is_new = 0;
    CUt_HashEntry* const entry = create_hash_entry(&data->userbps, &bp->lineno, &is_new);
    if (entry == nullptr) {
        return 0;
    }
    bp->next_user = static_cast<tBp*>(entry->clientData);
    entry->clientData = bp;
    if (!enter_bp_by_file(data, bp)) {
        return 0;
    }
    return ClearAnyBpsInAllCodeObjects(data->co_pathname_table) == 0;
}

void __tracer_del_userbp(tBpOpsData* data, tBp* bp) {
    CUt_HashEntry* const entry = find_hash_entry(&data->userbps, &bp->lineno);
    if (entry == nullptr) {
        return;
    }
    tBp* previous = nullptr;
    tBp* current = static_cast<tBp*>(entry->clientData);
    while (current != nullptr && current != bp) {
        previous = current;
        current = current->next_user;
    }
    if (current == nullptr) {
        return;
    }
    remove_bp_by_file(data, bp);
    if (previous != nullptr) {
        previous->next_user = bp->next_user;
    } else if (bp->next_user != nullptr) {
        entry->clientData = bp->next_user;
    } else {
        CU_DeleteHashEntry(entry);
    }
    bp->next_user = nullptr;
}

// ---- The changed list ----

void __tracer_add_changed_bp(tBpOpsData* data, tBp* bp) {
    if (!bp->changed) {
        bp->changed = 1;
        bp->next_changed = data->changed_bps;
        data->changed_bps = bp;
    }
}

void __tracer_remove_bp_from_changed(tBpOpsData* data, tBp* bp) {
    if (!bp->changed) {
        return;
    }
    for (tBp** link = &data->changed_bps; *link != nullptr; link = &(*link)->next_changed) {
        if (*link == bp) {
            *link = bp->next_changed;
            break;
        }
    }
    bp->changed = 0;
    bp->next_changed = nullptr;
}

void __tracer_clear_changed_bps(tBpOpsData* data) {
    tBp* bp = data->changed_bps;
    data->changed_bps = nullptr;
    while (bp != nullptr) {
        tBp* const next = bp->next_changed;
        bp->changed = 0;
        bp->next_changed = nullptr;
        if (bp->deleted) {
            __tracer_free_bp(data, bp);
        }
        bp = next;
    }
}

// ---- Setting and clearing ----

// Binds a new breakpoint to its module when that is loaded. False = out of memory.
static bool bind_to_loaded_module(tBpOpsData* data, tBp* bp) {
    DPRINTF(kLogBreakpoints, "FINDING BP FILENAME SYNONYMS\n");
    if (bp->module_filename != nullptr) {
        DPRINTF(kLogBreakpoints, "Not adding:  Already added before\n");
        return true;
    }
    const char* const module_file =
        __tracer_find_module(data, bp->user_filename, bp->user_checksum);
    DPRINTF(kLogBreakpoints, "  modfile = %s\n", dprint_check_str(module_file));
    if (bp->is_dropped || bp->module_filename != nullptr) {
        return true;  // cleared or bound by what the server did when asked for a checksum
    }
    if (module_file == nullptr) {
        DPRINTF(kLogBreakpoints,
                "No loaded module for the bp... exiting find_bp_filename_synonyms\n");
        return true;
    }
    if (!bind_bp(data, bp, module_file)) {
        return false;
    }
    DPRINTF(kLogBreakpoints, "bp->module_filename = %s\n", dprint_check_str(bp->module_filename));
    DPRINTF(kLogBreakpoints, "^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^^\n");
    DPRINTF(kLogBreakpoints, "Added bp %s, %i\n", dprint_check_str(bp->user_filename), bp->lineno);
    return true;
}

int __tracer_set_break(tBpOpsData* data,
                       const char* filename,
                       const char* checksum,
                       int lineno,
                       int enabled,
                       int temporary,
                       PyObject* cond,
                       int ignore_count) {
    tBp* const bp = __tracer_create_bp(
        data, filename, checksum, lineno, enabled, temporary, cond, ignore_count);
    if (bp == nullptr) {
        return -1;
    }
    const int id = bp->id;
    // deliberate: a second one of the same file and line is added, nothing is updated in place
    if (!__tracer_add_userbp(data, bp)) {
        __tracer_del_userbp(data, bp);
        __tracer_free_bp(data, bp);
        return -1;
    }
    tHeldBps held(data);  // finding the module may run Python code
    held.add(bp);
    if (bind_to_loaded_module(data, bp)) {
        return id;
    }
    gPy.PyErr_SetString(gPy.PyExc_MemoryError, "Out of memory");
    __tracer_del_userbp(data, bp);
    __tracer_free_bp(data, bp);
    return -1;
}

// Records that are on no list any more.
static void free_chain(tBpOpsData* data, tBp* bp) {
    while (bp != nullptr) {
        tBp* const next = bp->next_user;
        bp->next_user = nullptr;
        __tracer_free_bp(data, bp);
        bp = next;
    }
}

void __tracer_clear_breaks(tBpOpsData* data, const char* filename, int lineno) {
    tBp* bp = find_bps_on_line(data, lineno);
    tBp* cleared = nullptr;
    while (bp != nullptr) {
        tBp* const next = bp->next_user;
        if (strcmp(bp->user_filename, filename) == 0) {
            __tracer_del_userbp(data, bp);
            __tracer_remove_bp_from_changed(data, bp);
            bp->next_user = cleared;
            cleared = bp;
        }
        bp = next;
    }
    free_chain(data, cleared);
    ClearAnyBpsInAllCodeObjects(data->co_pathname_table);
}

// Empties the table: all its records as one chain.
static tBp* take_all_bps(tBpOpsData* data) {
    tBp* all = nullptr;
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&data->userbps, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        tBp* bp = static_cast<tBp*>(entry->clientData);
        while (bp != nullptr) {
            tBp* const next = bp->next_user;
            bp->next_user = all;
            all = bp;
            bp = next;
        }
    }
    CU_DeleteHashTable(&data->userbps);
    CU_InitHashTable(&data->userbps, kHashIntKeys);
    return all;
}

void __tracer_clear_all_breaks(tBpOpsData* data) {
    clear_file_lists(data);
    init_file_lists(data);
    __tracer_clear_changed_bps(data);  // frees the fired temporary ones, which are on no line
    free_chain(data, take_all_bps(data));
    ClearAnyBpsInAllCodeObjects(data->co_pathname_table);
}

// ---- Changing ----

// Calls `change` for each breakpoint of the file on the line, newest first; the number of them.
// Must not run Python code.
template <class Change>
static int for_each_match(tBpOpsData* data, const char* filename, int lineno, Change change) {
    int count = 0;
    for (tBp* bp = find_bps_on_line(data, lineno); bp != nullptr; bp = bp->next_user) {
        if (strcmp(bp->user_filename, filename) == 0) {
            change(bp);
            count++;
        }
    }
    return count;
}

// Those breakpoints, held. False = out of memory.
static bool hold_matches(tBpOpsData* data, const char* filename, int lineno, tHeldBps* held) {
    bool ok = true;
    for_each_match(data, filename, lineno, [&ok, held](tBp* bp) { ok = held->add(bp) && ok; });
    return ok;
}

int __tracer_enable_breaks(tBpOpsData* data, const char* filename, int lineno, int enabled) {
    const int count =
        for_each_match(data, filename, lineno, [enabled](tBp* bp) { bp->enabled = enabled != 0; });
    // deliberate: 0 when disabling, whether or not something was disabled
    return enabled != 0 && count > 0;
}

int __tracer_ignore_breaks(tBpOpsData* data, const char* filename, int lineno, int ignore) {
    return for_each_match(
               data, filename, lineno, [ignore](tBp* bp) { bp->ignore_count = ignore; }) > 0;
}

int __tracer_set_breaks_cond(tBpOpsData* data, const char* filename, int lineno, PyObject* cond) {
    tHeldBps held(data);
    hold_matches(data, filename, lineno, &held);
    for (size_t i = 0; i < held.count(); i++) {
        bool ok = false;
        char* const text = copy_condition(cond, &ok);
        if (!ok) {
            continue;  // the old condition stays
        }
        free(held[i]->cond);
        held[i]->cond = text;
        set_owned<PyObject>(&held[i]->cond_code, nullptr);
    }
    return held.count() > 0;
}

void __tracer_enable_checksums(tBpOpsData* data, int enable) {
    data->checksums_enabled = enable;
}

// ---- Listing ----

static PyObject* fail_for_memory() {
    PyObject* const error = gPy.PyErr_Occurred();
    if (error == nullptr || error == gPy.PyExc_MemoryError) {  // the interpreter's own has no text
        gPy.PyErr_SetString(gPy.PyExc_MemoryError, "Out of memory");
    }
    return nullptr;
}

static PyObject* new_text_or_none(const char* text) {
    return text != nullptr ? new_native_string(text) : new_ref(gPy.Py_None);
}

// New tuple; steals the items, each of which may be null (then the result is, with an exception).
template <size_t kCount>
static PyObject* new_tuple(PyObject* const (&items)[kCount]) {
    tOwnedRef tuple(gPy.PyTuple_New(kCount));
    bool ok = static_cast<bool>(tuple);
    for (size_t i = 0; i < kCount; i++) {
        ok = ok && items[i] != nullptr;
        if (tuple && items[i] != nullptr) {
            gPy.PyTuple_SetItem(tuple.borrow(), static_cast<Py_ssize_t>(i), items[i]);
        } else {
            XPy_DoDecRef(items[i]);
        }
    }
    return ok ? tuple.give_away() : nullptr;
}

static bool append_new(PyObject* list, PyObject* new_item) {
    tOwnedRef item(new_item);
    return item && gPy.PyList_Append(list, item.borrow()) == 0;
}

// New list of what `describe` makes of each; null with an exception set.
template <class Describe>
static PyObject* new_list_of(const tHeldBps& held, bool all_held, Describe describe) {
    tOwnedRef list(all_held ? gPy.PyList_New(0) : nullptr);
    bool ok = static_cast<bool>(list);
    for (size_t i = 0; i < held.count() && ok; i++) {
        ok = append_new(list.borrow(), describe(held[i]));
    }
    return ok ? list.give_away() : fail_for_memory();
}

// New tuple: the leading items, which it steals, and what every list tells of a breakpoint.
template <class... tItems>
static PyObject* new_bp_tuple(const tBp* bp, tItems... leading) {
    return new_tuple({leading...,
                      new_int(bp->id),
                      new_int(bp->enabled),
                      new_int(bp->temporary),
                      new_text_or_none(bp->cond),
                      new_int(bp->ignore_count),
                      new_int(bp->hit_count)});
}

static PyObject* new_break_tuple(const tBp* bp) {
    return new_bp_tuple(bp);
}

static PyObject* new_file_break_tuple(const tBp* bp) {
    return new_bp_tuple(bp, new_int(bp->lineno));
}

static PyObject* new_changed_tuple(const tBp* bp) {
    return new_bp_tuple(bp, new_native_string(bp->user_filename), new_int(bp->lineno));
}

PyObject* __tracer_get_breaks(tBpOpsData* data, const char* filename, int lineno) {
    tHeldBps held(data);
    const bool all_held = hold_matches(data, filename, lineno, &held);
    return new_list_of(held, all_held, new_break_tuple);
}

PyObject* __tracer_get_file_breaks(tBpOpsData* data, const char* filename) {
    tHeldBps held(data);
    bool all_held = true;
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&data->userbps, &search);
         entry != nullptr && all_held;
         entry = CU_NextHashEntry(&search)) {
        const int lineno = static_cast<tBp*>(entry->clientData)->lineno;
        all_held = hold_matches(data, filename, lineno, &held);
    }
    return new_list_of(held, all_held, new_file_break_tuple);
}

// The server has been told of these. Others may have joined the list while it was.
static void collect_changed_bps(tBpOpsData* data, const tHeldBps& told) {
    if (told.count() == 0) {
        return;
    }
    if (data->changed_bps == told[0]) {
        __tracer_clear_changed_bps(data);
        return;
    }
    for (size_t i = 0; i < told.count(); i++) {
        tBp* const bp = told[i];
        if (bp->is_dropped) {
            continue;
        }
        __tracer_remove_bp_from_changed(data, bp);
        if (bp->deleted) {
            __tracer_free_bp(data, bp);
        }
    }
}

PyObject* __tracer_get_changed_bps_lists(tBpOpsData* data) {
    tHeldBps held(data);
    bool ok = held.add_chain(data->changed_bps, &tBp::next_changed);
    tOwnedRef deleted(ok ? gPy.PyList_New(0) : nullptr);
    tOwnedRef changed(deleted ? gPy.PyList_New(0) : nullptr);
    ok = static_cast<bool>(changed);
    for (size_t i = 0; i < held.count() && ok; i++) {
        const tBp* const bp = held[i];
        ok = bp->deleted ? append_new(deleted.borrow(), new_int(bp->id))
                         : append_new(changed.borrow(), new_changed_tuple(bp));
    }
    PyObject* const both = ok ? new_tuple({deleted.give_away(), changed.give_away()}) : nullptr;
    if (both == nullptr) {
        return fail_for_memory();
    }
    collect_changed_bps(data, held);
    return both;
}
