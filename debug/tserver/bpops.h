// bpops.h -- the breakpoints: their table, the files they belong to, and whether code has any.
// tBpOpsData (inside the tracer's state) owns every record and every text in it. A line's entry in
// `userbps` exists only while breakpoints are on that line; a record with `deleted` set is on no
// line any more but lives on the changed list until that list is collected.
// Needs the interpreter lock and the server mutex, except where it says otherwise.
#pragma once

#include <string.h>

#include "dbgtracerhash.h"
#include "xpy_types.h"

struct tCOPathnameTable;
struct tThreadData;

// Room for a module file name while breakpoints are bound to it, terminator included.
inline constexpr size_t kResolveBufferSize = 32001;

struct tBp {
    int id;                 // unique; the first one is 1
    char* user_filename;    // owned; exactly as the server gave it
    char* user_checksum;    // owned; may be empty
    char* module_filename;  // owned; the loaded module's file; null until resolved
    int lineno;             // the table's key
    boolean enabled;
    boolean temporary;  // to be deleted after the first stop
    char* cond;         // owned; null = unconditional
    int ignore_count;   // further hits to ignore
    int hit_count;
    int deleted;        // a temporary one that fired
    int changed;        // 1 while on the changed list
    tBp* next_user;     // next one on the same line, any file
    tBp* next_changed;  // next one on the changed list
    // Private.
    PyObject* cond_code;  // owned; the compiled condition, made at the first hit; null = not yet
    uint64_t dev;         // of the user file, when it began to wait; both 0 = it is not there
    uint64_t ino;
    int64_t
        missing_since;  // seconds: while the first one waits and its file is not there; -1 = ask
    tBp* next_waiting;  // next one of the same user file that waits for its module
    tBp* next_bound;    // next one on the same line of the same module, newest first
    int users;          // walks in progress that hold it; the last one frees a dropped record
    int is_dropped;     // cleared while held
};

// Prescribed to the last field, since it lies inside the tracer's state: what is kept beside it is
// in the tBpLists of bpops_internal.h.
struct tBpOpsData {
    CUt_HashTable userbps;                        // int line -> head of its chain, newest first
    tBp* changed_bps;                             // newest first
    int next_bp_id;                               // next id to hand out
    CUt_HashTable loaded_modules;                 // file name or synonym -> owned module file name
    tCOPathnameTable* co_pathname_table;          // not owned
    int unique_import_count;                      // module files registered so far; only grows
    char resolve_bp_tmpfile[kResolveBufferSize];  // used only during one resolution
    PyObject* get_checksum_cb;                    // owned
    int checksums_enabled;                        // checksums may identify files
    PyObject* filestring;                         // owned; the native string "__file__"
    PyObject* any_bps_cache;                      // owned; dict
};

// Entry of a line in `userbps`, without the calls: a watched frame asks on each line. Null on a
// dead table.
inline CUt_HashEntry* find_line_entry(CUt_HashTable* table, int lineno) {
    if (table->findProc != CU_ArrayFind) {
        return nullptr;
    }
    const int sum = sum_signed_bytes(static_cast<uint32_t>(lineno));
    CUt_HashEntry* entry = table->buckets[get_array_bucket(table, sum)];
    while (entry != nullptr && memcmp(get_hash_key(entry), &lineno, sizeof(lineno)) != 0) {
        entry = entry->nextPtr;
    }
    return entry;
}

// Life of the table. Clearing keeps `checksums_enabled` and
// `unique_import_count`, by which the server tells that nothing was imported; ids restart at 1.
void forget_bp_lists();  // of an interpreter that has ended
TDBG_API void __tracer_init_bp_ops_data(tBpOpsData* data,
                                        tCOPathnameTable* co_pathname_table,
                                        PyObject* get_checksum_cb,
                                        int checksums_enabled);
TDBG_API void __tracer_clear_bp_ops_data(tBpOpsData* data,
                                         tCOPathnameTable* co_pathname_table,
                                         PyObject* get_checksum_cb);

// Records. create: caller owns it (free with __tracer_free_bp, or hand it to __tracer_add_userbp);
// null when out of memory, no exception. cond is a native string or None. free accepts null.
TDBG_API tBp* __tracer_create_bp(tBpOpsData* data,
                                 const char* user_filename,
                                 const char* checksum,
                                 int lineno,
                                 int enabled,
                                 int temporary,
                                 PyObject* cond,
                                 int ignore_count);
TDBG_API void __tracer_free_bp(tBpOpsData* data, tBp* bp);
// 1 = on its line (the table owns it); 0 = out of memory.
TDBG_API int __tracer_add_userbp(tBpOpsData* data, tBp* bp);
TDBG_API void __tracer_del_userbp(tBpOpsData* data, tBp* bp);  // unlinks, does not free
TDBG_API void __tracer_add_changed_bp(tBpOpsData* data, tBp* bp);
TDBG_API void __tracer_remove_bp_from_changed(tBpOpsData* data, tBp* bp);
TDBG_API void __tracer_clear_changed_bps(tBpOpsData* data);  // frees the deleted ones

// What the server asks for. File names are compared letter by letter, never resolved.
// The new id, or -1 (perhaps with an exception set).
TDBG_API int __tracer_set_break(tBpOpsData* data,
                                const char* filename,
                                const char* checksum,
                                int lineno,
                                int enabled,
                                int temporary,
                                PyObject* cond,
                                int ignore_count);
TDBG_API void __tracer_clear_breaks(tBpOpsData* data, const char* filename, int lineno);
// 1 = enabled at least one; always 0 when `enabled` is 0.
TDBG_API int __tracer_enable_breaks(tBpOpsData* data,
                                    const char* filename,
                                    int lineno,
                                    int enabled);
// 1 = found at least one.
TDBG_API int __tracer_ignore_breaks(tBpOpsData* data, const char* filename, int lineno, int ignore);
TDBG_API int __tracer_set_breaks_cond(tBpOpsData* data,
                                      const char* filename,
                                      int lineno,
                                      PyObject* cond);
TDBG_API void __tracer_clear_all_breaks(tBpOpsData* data);
// New refs; null with an exception set.
TDBG_API PyObject* __tracer_get_breaks(tBpOpsData* data, const char* filename, int lineno);
TDBG_API PyObject* __tracer_get_file_breaks(tBpOpsData* data, const char* filename);
TDBG_API PyObject* __tracer_get_changed_bps_lists(tBpOpsData* data);
TDBG_API void __tracer_enable_checksums(tBpOpsData* data, int enable);

// Which module a breakpoint's file is. Borrowed from the table; null when none. The checksum may
// be null.
TDBG_API const char* __tracer_find_module(tBpOpsData* data,
                                          const char* user_filename,
                                          const char* user_checksum);
TDBG_API int file_matches_checksum(tBpOpsData* data,
                                   const char* compare_checksum,
                                   const char* codefile);
// A newly seen module file (null is ignored): registers it and binds waiting breakpoints to it.
TDBG_API void __tracer_resolve_bp_filenames(tBpOpsData* data, const char* module_filename);
TDBG_API void __tracer_resolve_bp_filenames_using_canonical(tBpOpsData* data,
                                                            const char* module_filename);
TDBG_API void __tracer_xfer_module_bps(tBpOpsData* data, PyObject* mod);

// Hits. None of these leaves an exception or touches one that is pending.
// 1 = yes, 0 = no, -1 = the file is not known. *codefile is filled when it is null; borrowed.
TDBG_API int any_bp_on_line(tBpOpsData* data,
                            int lineno,
                            const char** codefile,
                            PyFrameObject* frame);
// True: no breakpoint of the frame's file is on the line, as one look at what is known tells. Runs
// no Python code.
bool is_line_known_without_bps(tBpOpsData* data, int lineno, PyFrameObject* frame);
// Without the server mutex: nonzero = a stop is possible.
TDBG_API int tracer_maybe_break_here_without_mutex(tBpOpsData* data,
                                                   tThreadData* td,
                                                   PyFrameObject* frame);
// Whether to stop. With update_bps 0 nothing changes: no count, no deletion.
TDBG_API boolean __tracer_break_here(
    tBpOpsData* data, int event_type, tThreadData* td, PyFrameObject* frame, int update_bps);

// Whether the frame's code has a breakpoint anywhere: 1 = maybe, 0 = no, -1 = failure (logged).
TDBG_API int tracer_any_bps(tBpOpsData* data, PyFrameObject* frame);
