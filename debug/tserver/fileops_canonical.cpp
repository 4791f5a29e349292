#include "fileops.h"

#include <stdlib.h>
#include <string.h>

#include "dbgcommon.h"
#include "fileops_internal.h"
#include "guards.h"

// The registry

// Caller frees; null when out of memory (logged).
static char* copy_for_canonical(const tFileOpsData* data, const char* name) {
    char* const copy = strdup(name);
    if (copy == nullptr) {
        log_file_failure(data, "Failure: get_absname_for_canonical()\n");
    }
    return copy;
}

// The form under which a name is registered. Caller frees; null as above or without an absolute
// name.
static char* copy_absname_for_canonical(tFileOpsData* data, const char* pathname) {
    char* const pruned = data != nullptr ? copy_for_canonical(data, pathname) : nullptr;
    if (pruned == nullptr) {
        return nullptr;
    }
    prune_py_c_or_o(pruned);
    if (pruned[0] == '/') {
        return pruned;
    }
    const char* const absname = get_absname(data, pruned);
    free(pruned);
    return absname != nullptr ? copy_for_canonical(data, absname) : nullptr;
}

static const char* borrow_text(CUt_HashTable* table, const void* key) {
    return static_cast<const char*>(find_hash_value(table, key));
}

static const char* lookup_absname(tFileOpsData* data, const char* absname, const char* checksum) {
    const char* const by_name = borrow_text(&data->canonical_by_name, absname);
    if (by_name != nullptr) {
        return by_name;
    }
    tUniqueFileno number = {};
    boolean exists = 0;
    get_unique_file_number(data, absname, &number, &exists);
    const char* const by_number =
        exists ? borrow_text(&data->canonical_by_unique_fileno, &number) : nullptr;
    if (by_number != nullptr) {
        return by_number;
    }
    if (checksum == nullptr || checksum[0] == '\0') {
        return nullptr;
    }
    return borrow_text(&data->canonical_by_checksum, checksum);
}

const char* lookup_canonical_pathname(tFileOpsData* data,
                                      const char* pathname,
                                      const char* checksum) {
    char* const absname = copy_absname_for_canonical(data, pathname);
    if (absname == nullptr) {
        return nullptr;
    }
    const char* const canonical = lookup_absname(data, absname, checksum);
    free(absname);
    return canonical;
}

// Stores a copy of the text in an entry that has none yet; deletes the entry when out of memory.
static bool fill_new_entry(CUt_HashEntry* entry, const char* text) {
    char* const copy = strdup(text);
    if (copy == nullptr) {
        CU_DeleteHashEntry(entry);
        return false;
    }
    entry->clientData = copy;
    return true;
}

// Entry whose value is the text that was registered first: this one when the key is new. Null when
// out of memory, with the table as it was.
static CUt_HashEntry* register_text(CUt_HashTable* table,
                                    const void* key,
                                    const char* text,
                                    int* is_new) {
    CUt_HashEntry* const entry = create_hash_entry(table, key, is_new);
    if (entry == nullptr) {
        return nullptr;
    }
    if (*is_new && !fill_new_entry(entry, text)) {
        return nullptr;
    }
    return entry;
}

// Canonical name of a file whose name is new: that of the same file on disk, or its own. Borrowed.
static const char* choose_canonical(tFileOpsData* data, const char* absname) {
    tUniqueFileno number = {};
    boolean exists = 0;
    get_unique_file_number(data, absname, &number, &exists);
    if (!exists) {
        return absname;
    }
    int is_new = 0;
    const CUt_HashEntry* const entry =
        register_text(&data->canonical_by_unique_fileno, &number, absname, &is_new);
    if (entry == nullptr) {
        log_file_failure(data, "Failure: register_canonical_in_by_unique_fileno()\n");
        return absname;
    }
    return static_cast<const char*>(entry->clientData);
}

// Null when out of memory. The name's entry is made last, so that nobody finds it without a value
// while a log line lets other threads run.
static const char* register_absname(tFileOpsData* data, const char* absname, boolean* is_new) {
    const char* const known = borrow_text(&data->canonical_by_name, absname);
    if (known != nullptr) {
        return known;
    }
    int entry_is_new = 0;
    const CUt_HashEntry* const entry = register_text(
        &data->canonical_by_name, absname, choose_canonical(data, absname), &entry_is_new);
    if (entry == nullptr) {
        return nullptr;
    }
    *is_new = static_cast<boolean>(entry_is_new);
    return static_cast<const char*>(entry->clientData);
}

static void register_checksum(tFileOpsData* data, const char* absname, const char* checksum) {
    int is_new = 0;
    const CUt_HashEntry* const entry =
        register_text(&data->canonical_by_checksum, checksum, absname, &is_new);
    if (entry == nullptr) {
        log_file_failure(data, "Failure: register_canonical_in_by_checksum()\n");
        return;
    }
    tSingleDPData* const sink = borrow_filenames_sink(data);
    if (!is_new && sink != nullptr) {
        do_dp(sink,
              "Duplicate files for checksum: canonical = '%s'; other = '%s'\n",
              dprint_check_str(static_cast<const char*>(entry->clientData)),
              dprint_check_str(absname));
    }
}

const char* register_canonical_pathname(tFileOpsData* data,
                                        const char* pathname,
                                        const char* checksum,
                                        boolean* is_new) {
    boolean name_is_new = 0;
    char* const absname = copy_absname_for_canonical(data, pathname);
    const char* const canonical =
        absname != nullptr ? register_absname(data, absname, &name_is_new) : nullptr;
    if (canonical == nullptr) {
        log_file_failure(data, "Failure: register_canonical_pathname()\n");
    } else if (checksum != nullptr && checksum[0] != '\0') {
        register_checksum(data, absname, checksum);
    }
    free(absname);
    if (is_new != nullptr) {
        *is_new = name_is_new;
    }
    return canonical;
}

// Checksums

int set_checksum_callback(tFileOpsData* data, PyObject* callable) {
    if (data != nullptr) {
        set_owned(&data->checksum_callback, new_ref(callable));
    }
    return 0;
}

PyObject* get_checksum_for_pathname(tFileOpsData* data, PyObject* pathname) {
    // Held, as its own call may replace it.
    tOwnedRef callback(data != nullptr ? new_ref(data->checksum_callback) : nullptr);
    if (!callback || callback.borrow() == gPy.Py_None) {
        return new_ref(gPy.Py_None);
    }
    PyObject* const checksum = do_one_arg_call(callback.borrow(), pathname);
    if (checksum != nullptr) {
        return checksum;
    }
    log_file_failure(data, "Failure in get_checksum_for_pathname()\n");
    gPy.PyErr_Clear();
    return new_ref(gPy.Py_None);
}

// Forms for Python

static bool is_pseudo_file(const char* pathname) {
    const size_t length = strlen(pathname);
    return pathname[0] == '<' && pathname[length - 1] == '>';
}

// Text of a string object, borrowed from it; null with an exception set.
static const char* borrow_string_text(PyObject* string) {
    return gPy.major_version < 3 ? gPy.PyString_AsString(string) : gPy._PyUnicode_AsString(string);
}

// Both arguments of a form for Python. False with an exception set.
static bool read_texts(PyObject* pathname_obj,
                       PyObject* checksum_obj,
                       const char** pathname,
                       const char** checksum) {
    *pathname = borrow_string_text(pathname_obj);
    *checksum = nullptr;
    if (*pathname == nullptr) {
        return false;
    }
    if (checksum_obj == nullptr || checksum_obj == gPy.Py_None) {
        return true;
    }
    *checksum = borrow_string_text(checksum_obj);
    return *checksum != nullptr;
}

PyObject* lookup_canonical_result(tFileOpsData* data, const char* pathname, const char* checksum) {
    if (is_pseudo_file(pathname)) {
        return new_native_string(pathname);
    }
    const char* const canonical = lookup_canonical_pathname(data, pathname, checksum);
    PyObject* const result = canonical != nullptr ? new_native_string(canonical) : nullptr;
    if (result != nullptr) {
        return result;
    }
    if (gPy.PyErr_Occurred() != nullptr) {
        log_file_failure(data, "Failure in get_canonical_pathname_pystr()\n");
        return nullptr;
    }
    return new_ref(gPy.Py_None);
}

PyObject* lookup_canonical_pathname_pystr(tFileOpsData* data,
                                          PyObject* pathname,
                                          PyObject* checksum) {
    const char* pathname_text = nullptr;
    const char* checksum_text = nullptr;
    if (!read_texts(pathname, checksum, &pathname_text, &checksum_text)) {
        log_file_failure(data, "Failure in get_canonical_pathname_pystr()\n");
        return nullptr;
    }
    if (is_pseudo_file(pathname_text)) {
        return new_ref(pathname);
    }
    return lookup_canonical_result(data, pathname_text, checksum_text);
}

static const char* register_and_log(tFileOpsData* data,
                                    const char* pathname,
                                    const char* checksum,
                                    boolean* is_new) {
    if (is_pseudo_file(pathname)) {
        *is_new = 0;
        return pathname;
    }
    const char* const canonical = register_canonical_pathname(data, pathname, checksum, is_new);
    tSingleDPData* const sink = borrow_filenames_sink(data);
    if (canonical != nullptr && sink != nullptr) {
        do_dp(sink, "Registered canonical in register_canonical_pathname_pystr()\n");
        do_dp(sink, "  pathname=%s\n", dprint_check_str(pathname));
        do_dp(sink, "  canonical=%s\n", dprint_check_str(canonical));
    }
    return canonical;
}

PyObject* register_canonical_result(tFileOpsData* data,
                                    const char* pathname,
                                    const char* checksum) {
    boolean is_new = 0;
    const char* const canonical = register_and_log(data, pathname, checksum, &is_new);
    return gPy.Py_BuildValue("zi", canonical, static_cast<int>(is_new));
}

PyObject* register_canonical_pathname_pystr(tFileOpsData* data,
                                            PyObject* pathname,
                                            PyObject* checksum) {
    const char* pathname_text = nullptr;
    const char* checksum_text = nullptr;
    if (!read_texts(pathname, checksum, &pathname_text, &checksum_text)) {
        return nullptr;
    }
    boolean is_new = 0;
    const char* const canonical = register_and_log(data, pathname_text, checksum_text, &is_new);
    return canonical != nullptr ? new_native_string(canonical) : new_ref(gPy.Py_None);
}
