// exceptops.cpp -- the locations whose exceptions are to be ignored.
#include "exceptops.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "conames.h"
#include "dbgcommon.h"
#include "fileops.h"
#include "guards.h"
#include "xpy_c_api.h"

// ---- Ignored locations ----

// A number as the interpreter's C long conversion gives it; -1 with an exception set.
static long as_long(PyObject* number) {
    if (number == nullptr) {
        return -1;
    }
    if (gPy.major_version < 3) {
        return gPy.PyInt_AsLong(number);
    }
    const long long value = gPy.PyLong_AsLongLong(number);
    if (value > LONG_MAX || value < LONG_MIN) {  // 32-bit only
        gPy.PyErr_SetString(gPy.PyExc_OverflowError, "Python int too large to convert to C long");
        return -1;
    }
    return static_cast<long>(value);
}

// deliberate: a position and a line number of the same sum are the same location, and a location
// that is no number at all is kept under -1 (with the conversion's exception left to the caller).
long _get_exc_ignore_hash_number(PyObject* lineno_or_pos) {
    if (!is_instance_of(lineno_or_pos, gPy.PyTuple_Type_ptr)) {
        return as_long(lineno_or_pos);
    }
    const unsigned long line =
        static_cast<unsigned long>(as_long(gPy.PyTuple_GetItem(lineno_or_pos, 0)));
    const unsigned long column =
        static_cast<unsigned long>(as_long(gPy.PyTuple_GetItem(lineno_or_pos, 1)));
    return static_cast<long>(line + column);
}

static tExcFilter* first_filter(const CUt_HashEntry* entry) {
    return static_cast<tExcFilter*>(entry->clientData);
}

void __tracer_init_exception_filters(CUt_HashTable* table) {
    CU_InitHashTable(table, sizeof(long));
}

void __tracer_free_exc_filter(tExcFilter* filter) {
    PyObject* const location = filter->lineno_or_pos;
    free(filter->module_filename);
    free(filter);
    XPy_DoDecRef(location);
}

void __tracer_clear_exception_filters(CUt_HashTable* table) {
    // Unlinked one by one: dropping a location may run Python code that comes back to the table.
    CUt_HashSearch search;
    CUt_HashEntry* entry = CU_FirstHashEntry(table, &search);
    while (entry != nullptr) {
        tExcFilter* filter = first_filter(entry);
        CU_DeleteHashEntry(entry);
        while (filter != nullptr) {
            tExcFilter* const next = filter->next_exc;
            __tracer_free_exc_filter(filter);
            filter = next;
        }
        entry = CU_FirstHashEntry(table, &search);
    }
    CU_DeleteHashTable(table);
    __tracer_init_exception_filters(table);
}

// deliberate: only the hash number of the location is compared, never the location itself.
static tExcFilter* find_filter(CUt_HashTable* table,
                               tFileOpsData* file_ops_data,
                               const char* filename,
                               long hash_number) {
    const CUt_HashEntry* const entry = find_hash_entry(table, &hash_number);
    tExcFilter* filter = entry != nullptr ? first_filter(entry) : nullptr;
    while (filter != nullptr && !samefile(file_ops_data, filename, filter->module_filename)) {
        filter = filter->next_exc;
    }
    return filter;
}

tExcFilter* __tracer_exc_filtered(CUt_HashTable* table,
                                  tFileOpsData* file_ops_data,
                                  const char* filename,
                                  PyObject* lineno_or_pos) {
    return find_filter(table, file_ops_data, filename, _get_exc_ignore_hash_number(lineno_or_pos));
}

static tExcFilter* new_filter(const char* filename, PyObject* lineno_or_pos) {
    tExcFilter* const filter = static_cast<tExcFilter*>(malloc(sizeof(tExcFilter)));
    char* const name = strdup(filename);
    if (filter == nullptr || name == nullptr) {
        free(filter);
        free(name);
        return nullptr;
    }
    *filter = {name, new_ref(lineno_or_pos), nullptr};
    return filter;
}

tExcFilter* __tracer_add_exc_filter(CUt_HashTable* table,
                                    tFileOpsData* file_ops_data,
                                    const char* filename,
                                    PyObject* lineno_or_pos) {
    const long hash_number = _get_exc_ignore_hash_number(lineno_or_pos);
    tExcFilter* const old = find_filter(table, file_ops_data, filename, hash_number);
    if (old != nullptr) {
        return old;
    }
    tExcFilter* const filter = new_filter(filename, lineno_or_pos);
    if (filter == nullptr) {
        return nullptr;
    }
    int is_new = 0;
    CUt_HashEntry* const entry = create_hash_entry(table, &hash_number, &is_new);
    if (entry == nullptr) {
        gPy.PyErr_SetString(gPy.PyExc_MemoryError, "Out of memory");
        __tracer_free_exc_filter(filter);
        return nullptr;
    }
    filter->next_exc = first_filter(entry);
    entry->clientData = filter;
    return filter;
}

// deliberate: by spelling, where looking up and adding go by file identity; a filter that was added
// under another spelling of the same file stays.
void __tracer_del_exc_filter(CUt_HashTable* table, const char* filename, PyObject* lineno_or_pos) {
    const long hash_number = _get_exc_ignore_hash_number(lineno_or_pos);
    CUt_HashEntry* const entry = find_hash_entry(table, &hash_number);
    if (entry == nullptr) {
        return;
    }
    tExcFilter* previous = nullptr;
    tExcFilter* filter = first_filter(entry);
    while (filter != nullptr && strcmp(filter->module_filename, filename) != 0) {
        previous = filter;
        filter = filter->next_exc;
    }
    if (filter == nullptr) {
        return;
    }
    if (previous != nullptr) {
        previous->next_exc = filter->next_exc;
    } else if (filter->next_exc != nullptr) {
        entry->clientData = filter->next_exc;
    } else {
        CU_DeleteHashEntry(entry);
    }
    __tracer_free_exc_filter(filter);
}

static bool is_real_file_name(const char* path) {
    const size_t length = path != nullptr ? strlen(path) : 0;
    return length != 0 && !(path[0] == '<' && path[length - 1] == '>');
}

// The innermost frame with a real file name: new ref, null when there is none; *path is borrowed.
static PyObject* get_frame_with_file(tCOPathnameTable* table,
                                     PyFrameObject* frame,
                                     const char** path) {
    tOwnedRef current(new_ref(static_cast<PyObject*>(frame)));
    while (is_frame(current.borrow())) {
        *path = __tracer_get_full_path(table, static_cast<PyFrameObject*>(current.borrow()));
        if (is_real_file_name(*path)) {
            return current.give_away();
        }
        current.reset(gPy.PyObject_GetAttrString(current.borrow(), "f_back"));
        if (!current) {
            gPy.PyErr_Clear();
        }
    }
    return nullptr;
}

int __tracer_exc_filtered_stack(CUt_HashTable* table,
                                tFileOpsData* file_ops_data,
                                tCOPathnameTable* co_pathname_table,
                                PyFrameObject* frame) {
    const char* path = nullptr;
    tOwnedRef current(get_frame_with_file(co_pathname_table, frame, &path));
    if (!current) {
        return 0;
    }
    tOwnedRef line(new_int(get_frame_lineno(static_cast<PyFrameObject*>(current.borrow()))));
    if (!line) {
        gPy.PyErr_Clear();
        return 0;
    }
    return __tracer_exc_filtered(table, file_ops_data, path, line.borrow()) != nullptr;
}

// Where the regular-expression parser of each version raises what it catches itself.
// deliberate: not extended to 3.1 and later.
struct tParserLine {
    int major;
    int minor;
    int line;
};

static constexpr tParserLine kParserLines[] = {
    {1, 5, 116},
    {2, 0, 132},
    {2, 1, 132},
    {2, 2, 138},
    {2, 3, 138},
    {2, 4, 131},
    {2, 5, 137},
    {2, 6, 139},
    {2, 7, 139},
    {3, 0, 134},
};

int __tracer_exc_filtered_hack(const char* filename, int lineno) {
    static constexpr char kParser[] = "sre_parse.py";
    constexpr size_t kParserLength = sizeof(kParser) - 1;
    const size_t length = filename != nullptr ? strlen(filename) : 0;
    if (length < kParserLength || strcmp(filename + length - kParserLength, kParser) != 0) {
        return 0;
    }
    for (const tParserLine& row : kParserLines) {
        if (row.major == gPy.major_version && row.minor == gPy.minor_version) {
            return row.line == lineno;
        }
    }
    return 0;
}
