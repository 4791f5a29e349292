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
    data->unique_import_count = 0;
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
        bp->is_dropped = 1;  // the evaluation that looks at it frees it
        return;
    }
    tOwnedRef code(bp->cond_code);
    free(bp->user_filename);
    free(bp->user_checksum);
    free(bp->module_filename);
    free(bp->cond);
    free(bp);
}

void hold_bp(tBp* bp) {
    bp->users++;
}

void let_go_of_bp(tBpOpsData* data, tBp* bp) {
    if (--bp->users == 0 && bp->is_dropped) {
        __tracer_free_bp(data, bp);
    }
}

// ---- Lines ----

tBp* find_bps_on_line(tBpOpsData* data, int lineno) {
    return static_cast<tBp*>(find_hash_value(&data->userbps, &lineno));
}

int __tracer_add_userbp(tBpOpsData* data, tBp* bp) {
    int is_new = 0;
    CUt_HashEntry* const entry = create_hash_entry(&data->userbps, &bp->lineno, &is_new);
    if (entry == nullptr) {
        return 0;
    }
    bp->next_user = static_cast<tBp*>(entry->clientData);
    entry->clientData = bp;
    enter_bp_by_file(data, bp);
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

// Whether the record is still on its line: finding its module may have run Python code.
static bool is_on_its_line(tBpOpsData* data, int lineno, const tBp* wanted) {
    tBp* bp = find_bps_on_line(data, lineno);
    while (bp != nullptr && bp != wanted) {
        bp = bp->next_user;
    }
    return bp != nullptr;
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
    if (!__tracer_add_userbp(data, bp)) {
        __tracer_del_userbp(data, bp);
        __tracer_free_bp(data, bp);
        return -1;
    }
    hold_bp(bp);
    const bool bound = bind_to_loaded_module(data, bp);
    if (!bound && is_on_its_line(data, lineno, bp)) {
        gPy.PyErr_SetString(gPy.PyExc_MemoryError, "Out of memory");
        __tracer_del_userbp(data, bp);
        __tracer_free_bp(data, bp);
    }
    let_go_of_bp(data, bp);
    return bound ? id : -1;
}

void __tracer_clear_breaks(tBpOpsData* data, const char* filename, int lineno) {
    tBp* bp = find_bps_on_line(data, lineno);
    while (bp != nullptr) {
        tBp* const next = bp->next_user;
        if (strcmp(bp->user_filename, filename) == 0) {
            __tracer_del_userbp(data, bp);
            __tracer_remove_bp_from_changed(data, bp);
            __tracer_free_bp(data, bp);
        }
        bp = next;
    }
    ClearAnyBpsInAllCodeObjects(data->co_pathname_table);
}

static void free_chain(tBpOpsData* data, tBp* bp) {
    while (bp != nullptr) {
        tBp* const next = bp->next_user;
        __tracer_remove_bp_from_changed(data, bp);
        __tracer_free_bp(data, bp);
        bp = next;
    }
}

void __tracer_clear_all_breaks(tBpOpsData* data) {
    clear_file_lists(data);
    init_file_lists(data);
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&data->userbps, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        free_chain(data, static_cast<tBp*>(entry->clientData));
    }
    CU_DeleteHashTable(&data->userbps);
    CU_InitHashTable(&data->userbps, kHashIntKeys);
    __tracer_clear_changed_bps(data);  // fired temporary ones are on no line any more
    ClearAnyBpsInAllCodeObjects(data->co_pathname_table);
}

// ---- Changing ----

// Calls `change` for each breakpoint of the file on the line; the number of them.
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
    return for_each_match(data, filename, lineno, [cond](tBp* bp) {
               bool ok = false;
               free(bp->cond);
               bp->cond = copy_condition(cond, &ok);
               set_owned<PyObject>(&bp->cond_code, nullptr);
           }) > 0;
}

void __tracer_enable_checksums(tBpOpsData* data, int enable) {
    data->checksums_enabled = enable;
}

// ---- Listing ----

static PyObject* fail_for_memory() {
    if (gPy.PyErr_Occurred() == nullptr) {
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

PyObject* __tracer_get_breaks(tBpOpsData* data, const char* filename, int lineno) {
    tOwnedRef list(gPy.PyList_New(0));
    bool ok = static_cast<bool>(list);
    for_each_match(data, filename, lineno, [&](tBp* bp) {
        ok = ok && append_new(list.borrow(),
                              new_tuple({new_int(bp->id),
                                         new_int(bp->enabled),
                                         new_int(bp->temporary),
                                         new_text_or_none(bp->cond),
                                         new_int(bp->ignore_count),
                                         new_int(bp->hit_count)}));
    });
    return ok ? list.give_away() : fail_for_memory();
}

PyObject* __tracer_get_file_breaks(tBpOpsData* data, const char* filename) {
    tOwnedRef list(gPy.PyList_New(0));
    bool ok = static_cast<bool>(list);
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&data->userbps, &search); entry != nullptr && ok;
         entry = CU_NextHashEntry(&search)) {
        const int lineno = static_cast<tBp*>(entry->clientData)->lineno;
        for_each_match(data, filename, lineno, [&](tBp* bp) {
            ok = ok && append_new(list.borrow(),
                                  new_tuple({new_int(bp->lineno),
                                             new_int(bp->id),
                                             new_int(bp->enabled),
                                             new_int(bp->temporary),
                                             new_text_or_none(bp->cond),
                                             new_int(bp->ignore_count),
                                             new_int(bp->hit_count)}));
        });
    }
    return ok ? list.give_away() : fail_for_memory();
}

static PyObject* new_changed_tuple(const tBp* bp) {
    return new_tuple({new_native_string(bp->user_filename),
                      new_int(bp->lineno),
                      new_int(bp->id),
                      new_int(bp->enabled),
                      new_int(bp->temporary),
                      new_text_or_none(bp->cond),
                      new_int(bp->ignore_count),
                      new_int(bp->hit_count)});
}

PyObject* __tracer_get_changed_bps_lists(tBpOpsData* data) {
    tOwnedRef both(gPy.PyTuple_New(2));
    PyObject* const deleted = gPy.PyList_New(0);
    PyObject* const changed = gPy.PyList_New(0);
    bool ok = both && deleted != nullptr && changed != nullptr;
    if (!ok) {
        XPy_DoDecRef(deleted);
        XPy_DoDecRef(changed);
        return fail_for_memory();
    }
    gPy.PyTuple_SetItem(both.borrow(), 0, deleted);
    gPy.PyTuple_SetItem(both.borrow(), 1, changed);
    for (const tBp* bp = data->changed_bps; bp != nullptr && ok; bp = bp->next_changed) {
        ok = bp->deleted ? append_new(deleted, new_int(bp->id))
                         : append_new(changed, new_changed_tuple(bp));
    }
    if (!ok) {
        return fail_for_memory();
    }
    __tracer_clear_changed_bps(data);
    return both.give_away();
}
