#include "bpops.h"

#include "conames.h"
#include "dbgcommon.h"
#include "guards.h"
#include "xpy_c_api.h"

// ---- Life ----

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
}

void __tracer_clear_bp_ops_data(tBpOpsData* data,
                                tCOPathnameTable* co_pathname_table,
                                PyObject* get_checksum_cb) {
    __tracer_clear_all_breaks(data);
    CU_DeallocHashTable(&data->loaded_modules);
    // The old references go last: dropping one may run Python code, which must find a whole record.
    tOwnedRef old_callback(data->get_checksum_cb);
    tOwnedRef old_filestring(data->filestring);
    tOwnedRef old_cache(data->any_bps_cache);
    __tracer_init_bp_ops_data(data, co_pathname_table, get_checksum_cb, data->checksums_enabled);
}

// ---- Table ----
// TODO(bpops): no breakpoint is kept yet; these answer as an empty table does.

int __tracer_set_break(tBpOpsData* data,
                       const char* /*filename*/,
                       const char* /*checksum*/,
                       int /*lineno*/,
                       int /*enabled*/,
                       int /*temporary*/,
                       PyObject* /*cond*/,
                       int /*ignore_count*/) {
    return data->next_bp_id++;
}

void __tracer_clear_breaks(tBpOpsData* /*data*/, const char* /*filename*/, int /*lineno*/) {}

int __tracer_enable_breaks(tBpOpsData* /*data*/,
                           const char* /*filename*/,
                           int /*lineno*/,
                           int /*enabled*/) {
    return 0;
}

int __tracer_ignore_breaks(tBpOpsData* /*data*/,
                           const char* /*filename*/,
                           int /*lineno*/,
                           int /*ignore*/) {
    return 0;
}

int __tracer_set_breaks_cond(tBpOpsData* /*data*/,
                             const char* /*filename*/,
                             int /*lineno*/,
                             PyObject* /*cond*/) {
    return 0;
}

void __tracer_clear_all_breaks(tBpOpsData* data) {
    CU_DeleteHashTable(&data->userbps);
    CU_InitHashTable(&data->userbps, kHashIntKeys);
    data->changed_bps = nullptr;
    ClearAnyBpsInAllCodeObjects(data->co_pathname_table);
}

PyObject* __tracer_get_breaks(tBpOpsData* /*data*/, const char* /*filename*/, int /*lineno*/) {
    return gPy.PyList_New(0);
}

PyObject* __tracer_get_file_breaks(tBpOpsData* /*data*/, const char* /*filename*/) {
    return gPy.PyList_New(0);
}

PyObject* __tracer_get_changed_bps_lists(tBpOpsData* /*data*/) {
    tOwnedRef deleted(gPy.PyList_New(0));
    tOwnedRef changed(gPy.PyList_New(0));
    tOwnedRef both(gPy.PyTuple_New(2));
    if (!deleted || !changed || !both) {
        return nullptr;
    }
    gPy.PyTuple_SetItem(both.borrow(), 0, deleted.give_away());
    gPy.PyTuple_SetItem(both.borrow(), 1, changed.give_away());
    return both.give_away();
}

void __tracer_enable_checksums(tBpOpsData* data, int enable) {
    data->checksums_enabled = enable;
}

// ---- Files, hits ----

const char* __tracer_find_module(tBpOpsData* /*data*/,
                                 const char* /*user_filename*/,
                                 const char* /*user_checksum*/) {
    return nullptr;
}

void __tracer_resolve_bp_filenames(tBpOpsData* /*data*/, const char* /*module_filename*/) {}

void __tracer_xfer_module_bps(tBpOpsData* /*data*/, PyObject* /*mod*/) {}

int tracer_maybe_break_here_without_mutex(tBpOpsData* /*data*/,
                                          tThreadData* /*td*/,
                                          PyFrameObject* /*frame*/) {
    return 0;
}

boolean __tracer_break_here(tBpOpsData* /*data*/,
                            int /*event_type*/,
                            tThreadData* /*td*/,
                            PyFrameObject* /*frame*/,
                            int /*update_bps*/) {
    return 0;
}

int tracer_any_bps(tBpOpsData* /*data*/, PyFrameObject* /*frame*/) {
    return 0;
}
