// exceptops.h -- which exceptions stop the program.
// Two halves. Catch info: what the server's analysis says about the functions an exception passes
// through, and what was recorded per frame. Filters: the locations the user told us to ignore.
// Both live in the tracer's state and own what they point to. No locks of their own.
#pragma once

#include "dbgcommon.h"
#include "dbgtracerhash.h"
#include "xpy_types.h"

struct tCOPathnameTable;
struct tFileOpsData;

// Attribute names, made on first use and then kept: owned or null.
struct tExcSyms {
    PyObject* co_name;
    PyObject* mod_name;
    PyObject* prints;
    PyObject* parent;
    PyObject* dunder_name;  // "__name__"
    PyObject* containing_class;
};

struct tExcData {
    PyObject* exc_info_for_frame;  // owned; dict frame -> its exception info; null when empty
    int to_be_ignored;             // the core's
    PyObject* catch_info_dict;  // owned; dict code name -> list of instances; null = analysis off
    tExcSyms syms;
};

// Life.
TDBG_API void init_exc_data(tExcData* exc_data);
TDBG_API void reset_exc_data(tExcData* exc_data);

// 0, also for anything that is not a list or an empty one (analysis off); -1 with an exception set.
TDBG_API int set_catch_info_list(tExcData* exc_data, PyObject* list);
// The first instance that describes the frame: new ref; null when none (no exception).
TDBG_API PyObject* find_catch_info(tExcData* exc_data, PyFrameObject* frame);
// 1 = this frame prints the exception; 0 = not, or not known.
TDBG_API int frame_prints_exc(tExcData* exc_data, PyFrameObject* frame);
// 1 = its parent decides; always so for the outermost frame of a thread.
TDBG_API int parent_frame_prints_exc(tExcData* exc_data, PyFrameObject* frame);

// Exception info per frame. set: 0, or -1 on failure. find: borrowed or null. forget: 0.
TDBG_API int set_frame_exc_info(tExcData* exc_data, PyFrameObject* frame, PyObject* exc_info);
TDBG_API PyObject* find_frame_exc_info(tExcData* exc_data, PyFrameObject* frame);
TDBG_API int forget_frame_exc_info(tExcData* exc_data, PyFrameObject* frame);

// One ignored location.
struct tExcFilter {
    char* module_filename;    // owned; as the server gave it
    PyObject* lineno_or_pos;  // owned; a line number, or a tuple that begins with two ints
    tExcFilter* next_exc;     // next one with the same hash number
};

// The number under which a location is kept: the line, or the sum of a position's first two items.
// A conversion error stays set.
TDBG_API long _get_exc_ignore_hash_number(PyObject* lineno_or_pos);

// The filter table: hash number -> chain of filters.
TDBG_API void __tracer_init_exception_filters(CUt_HashTable* table);
TDBG_API void __tracer_clear_exception_filters(CUt_HashTable* table);
// The filter, existing or new, owned by the table; null when out of memory.
TDBG_API tExcFilter* __tracer_add_exc_filter(CUt_HashTable* table,
                                             tFileOpsData* file_ops_data,
                                             const char* filename,
                                             PyObject* lineno_or_pos);
TDBG_API void __tracer_del_exc_filter(CUt_HashTable* table,
                                      const char* filename,
                                      PyObject* lineno_or_pos);
TDBG_API void __tracer_free_exc_filter(tExcFilter* filter);
// The filter of that file (by identity, not spelling) and hash number: borrowed; null when none.
TDBG_API tExcFilter* __tracer_exc_filtered(CUt_HashTable* table,
                                           tFileOpsData* file_ops_data,
                                           const char* filename,
                                           PyObject* lineno_or_pos);
// 1 = the innermost frame with a real file name, from `frame` outwards, is at an ignored location.
TDBG_API int __tracer_exc_filtered_stack(CUt_HashTable* table,
                                         tFileOpsData* file_ops_data,
                                         tCOPathnameTable* co_pathname_table,
                                         PyFrameObject* frame);
// 1 = the interpreter's own regular-expression parser, which always catches what it raises there.
TDBG_API int __tracer_exc_filtered_hack(const char* filename, int lineno);
