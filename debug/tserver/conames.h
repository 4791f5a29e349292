// conames.h -- which file a code object belongs to.
// Each code object gets one entry, found again cheaply on every later event: in the code object's
// extra slot where the interpreter has one (3.7 and later), otherwise in a dictionary that is swept
// now and then for code objects nobody else holds any more. The entry also caches whether the code
// object has any breakpoint.
// Nothing here raises: a failure is logged, the exception cleared, and the answer is null or -1.
// Texts are borrowed and short-lived, as said at each function; callers copy what they keep.
// Interpreter lock needed throughout; the shared buffers rely on it.
#pragma once

#include "xpy_c_api.h"

struct tFileOpsData;

inline constexpr size_t kMaxFilenameLength = 32000;

// Items of an entry, a list of exactly this length, None where not known.
enum tCodeEntryItem : int {
    kEntryPathname = 0,         // str
    kEntryContainingClass = 1,  // never filled: see conames_table.cpp
    kEntryAnyBps = 2,           // bool
    kEntryAnyBpsVersion = 3,    // the bp_version that the bool was computed for
    kEntryLength = 4,
};

inline constexpr size_t kCodeEntryCacheSize = 1024;  // a power of two

// Prescribed to the last field, since it lies inside the tracer's state: what is kept beside it is
// in conames.cpp and conames_table.cpp.
struct tCOPathnameTable {
    PyObject* filename_for_co;    // owned dict {address of code: entry}; null until needed
    int collect_count;            // look-ups since the dictionary was swept
    tFileOpsData* file_ops_data;  // not owned
    char codefile[kMaxFilenameLength + 1];  // result of __tracer_get_relative_path
    PyObject* filestring;                   // owned; the str "__file__"
    PyObject* bp_version;  // owned; identity = the current set of breakpoints; may be null
};

// Context of one sweep over a module's functions and classes.
struct tRegisterMatching {
    tCOPathnameTable* table;
    const char* pathname;
    PyObject* globals;   // borrowed; dict of the module being swept
    int force;           // replace names already registered
    PyObject* seen_ids;  // borrowed; dict of objects already visited
};

TDBG_API void InitCOPathnameTable(tCOPathnameTable* table, tFileOpsData* file_ops_data);
// Drops everything the table holds; InitCOPathnameTable makes it usable again. Entries in code
// objects' extra slots stay with their code objects.
void free_co_pathname_table(tCOPathnameTable* table);
// Frees the texts that were kept for callers, whichever table they are from.
void free_text_copies();

// Makes the next look-up ask the interpreter for the extra slot again, as the first one of a
// process does. For tests that bind to several interpreters.
void forget_code_extra_index();

// Registered pathname; null when none. Text valid while the code object lives and until another
// name is registered for it with force.
TDBG_API const char* LookupCOPathname(tCOPathnameTable* table, PyCodeObject* code);
// 0 = registered (or kept the old name: force 0), -1 = failed. containing_class may be null.
TDBG_API int RegisterCOPathname(tCOPathnameTable* table,
                                PyCodeObject* code,
                                const char* pathname,
                                PyObject* containing_class,
                                int force);

// The entry of a code object in one look: false when there is none. Items are borrowed and None
// where not known. The cached any_bps counts only while any_bps_version is table->bp_version. Does
// not count as a look-up: it can never start a sweep.
bool find_code_entry(tCOPathnameTable* table,
                     PyCodeObject* code,
                     PyObject** path,
                     PyObject** any_bps,
                     PyObject** any_bps_version);

// The path in the entry of a code object: borrowed; null when it is not known. Neither a look-up
// that counts.
PyObject* borrow_code_path(tCOPathnameTable* table, PyCodeObject* code);

// Makes an empty entry for a code object without one, the sign that its file was asked for.
void ensure_code_entry(tCOPathnameTable* table, PyCodeObject* code);

// Cached answer to "any breakpoint in this code object?": new ref to a bool, null when there is
// none for the current set of breakpoints (no exception set).
TDBG_API PyObject* GetAnyBpsInCodeObject(tCOPathnameTable* table, PyCodeObject* code);
TDBG_API int SetAnyBpsInCodeObject(tCOPathnameTable* table, PyCodeObject* code, PyObject* value);
// Makes every cached answer stale at once. -1 = out of memory, exception cleared.
TDBG_API int ClearAnyBpsInAllCodeObjects(tCOPathnameTable* table);

// Entries, the extra slot's free function, and the sweep of the dictionary.
TDBG_API PyObject* CreateNewEntry();  // new ref; null with an exception set
TDBG_API void FreeExtraCodeData(void* entry);
TDBG_API void CollectGarbage(tCOPathnameTable* table);

// Registers pathname for every code object of the module with these globals: functions, methods,
// classes, and the code among their constants. Number registered, or -1.
TDBG_API int RegisterMatchingCodeValues(tCOPathnameTable* table,
                                        const char* pathname,
                                        PyObject* globals,
                                        int force);
// Steps of the sweep; number registered, or -1. depth 0 is the module's own dict.
TDBG_API int RegisterMatchingDictValues(tRegisterMatching* context,
                                        PyObject* obj,
                                        PyObject* containing_class,
                                        int depth);
TDBG_API int RegisterMatchingFunction(tRegisterMatching* context,
                                      PyObject* func,
                                      PyObject* containing_class,
                                      int depth);

// Class of the module in which a function with this code is defined: new ref, null when none.
TDBG_API PyObject* GetContainingClass(PyCodeObject* code, PyObject* globals);
// __name__ of a class: new ref, null when it has none.
TDBG_API PyObject* GetPyClassName(PyObject* cls);

// 1 for names that the interactive shell gives to its input.
TDBG_API int __is_special_filename(const char* text);
// 1 when the name stands for itself and must not be looked for on disk. Null and non-texts: 0.
TDBG_API int always_use_co_filename(PyObject* co_filename);

// Chooses between co_filename and the module's __file__. The text is table->codefile: overwritten
// by the next call. Never null.
TDBG_API const char* __tracer_get_relative_path(tCOPathnameTable* table,
                                                PyObject* globals,
                                                PyObject* co_filename);
// Absolute (or canonical) name of a module's file, registered for code (when not null) and, on
// request, for all code reachable from globals. Null for names without a file. The text belongs to
// the file-name caches and stays; that of a co_filename used as it is stays until seven other such
// names have been asked for.
TDBG_API const char* __resolve_module_full_path(tCOPathnameTable* table,
                                                PyObject* globals,
                                                PyObject* co_filename,
                                                PyCodeObject* code,
                                                int register_all_in_globals);
// The same for the code a frame runs; null for what is no frame.
TDBG_API const char* __resolve_full_path_for_frame(tCOPathnameTable* table,
                                                   PyFrameObject* frame,
                                                   int register_all_in_globals);
// Name of the file a frame runs in, for trace events: registered, or worked out without
// registering. "<cframe>" for what is no frame; null after a failure. Registered names are valid as
// said at LookupCOPathname, others as at __resolve_module_full_path.
TDBG_API const char* __tracer_get_full_path(tCOPathnameTable* table, PyFrameObject* frame);
