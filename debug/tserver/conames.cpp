#include "conames.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "dbgcommon.h"
#include "dprintf.h"
#include "fileops.h"
#include "guards.h"
#include "libc_compat.h"
#include "tracercore.h"  // upwards: the server's checksum callback

static constexpr char kShellPrefix[] = "x-brioide-python-shell://";
static constexpr char kFrozenPrefix[] = "<frozen ";
static constexpr char kNoFile[] = "<string>";
static constexpr char kTooLong[] = "<filename too long>";
static constexpr size_t kShortestTwin = 3;  // shorter names are no .py/.pyc pair

// ---- Kinds of names ----

template <size_t N>
static bool begins_with(const char* text, const char (&prefix)[N]) {
    return strncmp(text, prefix, N - 1) == 0;
}

// Empty, or in angle brackets: code that never was in a file.
static bool is_pseudo_name(const char* text) {
    const size_t length = strlen(text);
    return length == 0 || (text[0] == '<' && text[length - 1] == '>');
}

int __is_special_filename(const char* text) {
    return text != nullptr && begins_with(text, kShellPrefix) ? 1 : 0;
}

static bool stands_for_itself(const char* text) {
    if (begins_with(text, kFrozenPrefix)) {
        return false;  // part of the interpreter, but its module may name a file
    }
    return __is_special_filename(text) != 0 || is_pseudo_name(text);
}

// Borrowed from the object; null for what is no str or has no UTF-8 form.
static const char* get_native_text(PyObject* obj) {
    return is_native_string(obj) ? _pystring_to_c_string(obj) : nullptr;
}

int always_use_co_filename(PyObject* co_filename) {
    tSavedError saved;
    const char* const text = get_native_text(co_filename);
    return text != nullptr && stands_for_itself(text) ? 1 : 0;
}

// ---- Choosing between co_filename and the module's file ----

static bool is_c_or_o(char ch) {
    return ch == 'c' || ch == 'C' || ch == 'o' || ch == 'O';
}

static bool ends_in_c_or_o(const char* text) {
    const size_t length = strlen(text);
    return length > 0 && is_c_or_o(text[length - 1]);
}

// Equal, or one is the other's compiled twin: m.py and m.pyc.
static bool are_twins(const char* a, const char* b) {
    const size_t a_length = strlen(a);
    const size_t b_length = strlen(b);
    const size_t shorter = a_length < b_length ? a_length : b_length;
    const size_t longer = a_length < b_length ? b_length : a_length;
    if (shorter < kShortestTwin || longer - shorter > 1 || memcmp(a, b, shorter) != 0) {
        return false;
    }
    return longer == shorter || is_c_or_o((a_length > b_length ? a : b)[shorter]);
}

static const char* get_base_name(const char* path) {
    const char* base = path;
    for (const char* ch = path; *ch != '\0'; ch++) {
        if (*ch == '/' || *ch == '\\') {
            base = ch + 1;
        }
    }
    return base;
}

// Same size and same second of modification: a copy of the file, or the file itself.
static bool are_copies_on_disk(const char* a, const char* b) {
    struct stat64 a_stat = {};
    struct stat64 b_stat = {};
    return libc_stat(a, &a_stat) == 0 && libc_stat(b, &b_stat) == 0 &&
           a_stat.st_mtim.tv_sec == b_stat.st_mtim.tv_sec && a_stat.st_size == b_stat.st_size;
}

// Whether the module's compiled file belongs to a source beside it that equals co_filename. Uses
// the table's buffer.
static bool is_source_beside(tCOPathnameTable* table, const char* gfile, const char* co_name) {
    if (!are_twins(get_base_name(gfile), get_base_name(co_name))) {
        return false;
    }
    memcpy(table->codefile, gfile, strlen(gfile) + 1);
    prune_py_c_or_o(table->codefile);
    return are_copies_on_disk(table->codefile, co_name);
}

// Both names are there. A .pyc that was built elsewhere carries the name of the file it was built
// from, which here may be another file or none; a module's file may be its .pyc.
static const char* choose_name(tCOPathnameTable* table, const char* gfile, const char* co_name) {
    if (begins_with(co_name, kFrozenPrefix)) {
        return gfile;
    }
    if (stands_for_itself(co_name) || are_twins(gfile, co_name)) {
        return co_name;
    }
    if (access(co_name, R_OK) != 0) {
        return gfile;
    }
    const size_t gfile_length = strlen(gfile);
    if (gfile_length >= kMaxFilenameLength || !ends_in_c_or_o(gfile)) {
        return co_name;
    }
    return is_source_beside(table, gfile, co_name) ? gfile : co_name;
}

// New ref; null when the module has no file or its name is no str.
static PyObject* get_module_file(tCOPathnameTable* table, PyObject* globals) {
    if (!is_instance_of(globals, gPy.PyDict_Type_ptr) || table->filestring == nullptr) {
        return nullptr;
    }
    PyObject* const file = gPy.PyDict_GetItem(globals, table->filestring);
    return is_native_string(file) ? new_ref(file) : nullptr;
}

static const char* store_in_codefile(tCOPathnameTable* table, const char* name) {
    const char* stored = name;
    if (strlen(name) > kMaxFilenameLength) {
        DPRINTF(kLogInternalFailures, "FAILURE: File name too long: %s\n", dprint_check_str(name));
        stored = kTooLong;
    }
    memcpy(table->codefile, stored, strlen(stored) + 1);
    prune_py_c_or_o(table->codefile);
    return table->codefile;
}

const char* __tracer_get_relative_path(tCOPathnameTable* table,
                                       PyObject* globals,
                                       PyObject* co_filename) {
    tSavedErrno keep_errno;
    tSavedError saved;
    tOwnedRef module_file(get_module_file(table, globals));
    const char* const gfile = get_native_text(module_file.borrow());
    const char* const co_name = get_native_text(co_filename);
    DPRINTF(kLogFilenames,
            "get_relative_path(globals = %p, co_filename = %s)\n",
            static_cast<void*>(globals),
            dprint_check_str(co_name));
    if (co_name == nullptr || strcmp(co_name, kNoFile) == 0) {
        return store_in_codefile(table, gfile != nullptr ? gfile : kNoFile);
    }
    return store_in_codefile(table,
                             gfile != nullptr ? choose_name(table, gfile, co_name) : co_name);
}

// ---- Full paths ----

static constexpr unsigned kTextCopies = 8;
static constinit char* gTextCopies[kTextCopies] =
    {};                                       // owned; texts handed out last; null = unused
static constinit unsigned gNextTextCopy = 0;  // the one to be overwritten next

void free_text_copies() {
    for (char*& text : gTextCopies) {
        free(text);
        text = nullptr;
    }
}

// Copy of a text that nobody keeps alive for our callers. Good until kTextCopies - 1 other texts
// were copied; a text that is still there is found again. Null when out of memory.
static const char* keep_copy(const char* text) {
    for (const char* kept : gTextCopies) {
        if (kept != nullptr && strcmp(kept, text) == 0) {
            return kept;
        }
    }
    char* const copy = strdup(text);
    if (copy == nullptr) {
        return nullptr;
    }
    char** const slot = &gTextCopies[gNextTextCopy];
    gNextTextCopy = (gNextTextCopy + 1) % kTextCopies;
    free(*slot);
    *slot = copy;
    return copy;
}

// The chosen name in a copy: log lines and callbacks let other threads run, which use the table's
// buffer. Caller frees; null when out of memory.
static char* copy_relative_path(tCOPathnameTable* table, PyObject* globals, PyObject* co_filename) {
    return strdup(__tracer_get_relative_path(table, globals, co_filename));
}

// Asks the server for the file's checksum, so that a copy of a known file gets that one's name.
static const char* register_with_checksum(tCOPathnameTable* table, const char* rel) {
    tOwnedRef checksum(call_get_checksum_cb(rel));
    if (!checksum) {
        log_failure("Failure: get_full_path_using_canonical_pathnames()\n");
    }
    const char* const text = get_native_text(checksum.borrow());
    return register_canonical_pathname(table->file_ops_data, rel, text, nullptr);
}

// Registered when it is not yet. Owned by the file-name caches; null after logging.
static const char* get_canonical_name(tCOPathnameTable* table, const char* rel) {
    const char* const known = lookup_canonical_pathname(table->file_ops_data, rel, nullptr);
    return known != nullptr ? known : register_with_checksum(table, rel);
}

static const char* get_full_name(tCOPathnameTable* table, const char* rel) {
    const char* const full = gUseCanonicalPathnames != 0 ? get_canonical_name(table, rel)
                                                         : get_absname(table->file_ops_data, rel);
    DPRINTF(kLogFilenames, "fullname = %s\n", dprint_check_str(full));
    return full;
}

// As get_full_name, registering nothing.
static const char* find_full_name(tCOPathnameTable* table, const char* rel) {
    const char* full = gUseCanonicalPathnames != 0
                           ? lookup_canonical_pathname(table->file_ops_data, rel, nullptr)
                           : nullptr;
    if (full == nullptr) {
        full = get_absname(table->file_ops_data, rel);
    }
    if (full == nullptr) {
        DPRINTF(kLogFilenames, "No full name found for relative name %s\n", dprint_check_str(rel));
    }
    return full;
}

static void register_full_path(tCOPathnameTable* table,
                               const char* full,
                               PyCodeObject* code,
                               PyObject* all_in_globals) {
    if (code != nullptr) {
        RegisterCOPathname(table, code, full, nullptr, 1);
    }
    if (all_in_globals != nullptr) {
        RegisterMatchingCodeValues(table, full, all_in_globals, 0);
    }
}

const char* __resolve_module_full_path(tCOPathnameTable* table,
                                       PyObject* globals,
                                       PyObject* co_filename,
                                       PyCodeObject* code,
                                       int register_all_in_globals) {
    tSavedErrno keep_errno;
    tSavedError saved;
    char* const rel = copy_relative_path(table, globals, co_filename);
    if (rel == nullptr) {
        return nullptr;
    }
    DPRINTF(kLogFilenames, "resolving '%s'\n", dprint_check_str(rel));
    const bool is_file = !is_pseudo_name(rel);
    const bool is_used_as_it_is = is_file && always_use_co_filename(co_filename) != 0;
    const char* const full = is_file && !is_used_as_it_is ? get_full_name(table, rel) : nullptr;
    free(rel);
    if (is_used_as_it_is) {
        const char* const text = get_native_text(co_filename);
        return text != nullptr ? keep_copy(text) : nullptr;
    }
    if (full != nullptr) {
        register_full_path(table, full, code, register_all_in_globals != 0 ? globals : nullptr);
    }
    return full;
}

const char* __resolve_full_path_for_frame(tCOPathnameTable* table,
                                          PyFrameObject* frame,
                                          int register_all_in_globals) {
    tSavedError saved;
    DPRINTF(kLogFilenames, "Entering __resolve_full_path_for_frame()\n");
    const bool is_real = is_frame(frame);
    tOwnedRef globals(is_real ? get_frame_globals(frame) : nullptr);
    tOwnedRef co_filename(is_real ? get_frame_filename(frame) : nullptr);
    tOwnedCode code(is_real ? get_frame_code(frame) : nullptr);
    if (!globals || !co_filename || !code) {
        log_failure("Failure in __resolve_full_path_for_frame()\n");
        return nullptr;
    }
    return __resolve_module_full_path(
        table, globals.borrow(), co_filename.borrow(), code.borrow(), register_all_in_globals);
}

// The name of a frame's file without registering it. Null when the name has no UTF-8 form and there
// is no module file either.
static const char* compute_full_path(tCOPathnameTable* table,
                                     PyFrameObject* frame,
                                     PyCodeObject* code) {
    tOwnedRef globals(get_frame_globals(frame));
    tOwnedRef co_filename(get_code_filename(code));
    const char* const co_name = get_native_text(co_filename.borrow());
    if (co_name != nullptr && stands_for_itself(co_name)) {
        return keep_copy(co_name);
    }
    char* const rel = copy_relative_path(table, globals.borrow(), co_filename.borrow());
    if (rel == nullptr) {
        return nullptr;
    }
    const bool has_name = co_name != nullptr || !is_pseudo_name(rel);
    const char* const full = has_name ? find_full_name(table, rel) : nullptr;
    free(rel);
    if (full != nullptr) {
        return full;
    }
    return co_name != nullptr ? keep_copy(co_name) : nullptr;
}

const char* __tracer_get_full_path(tCOPathnameTable* table, PyFrameObject* frame) {
    if (!is_frame(frame)) {
        return "<cframe>";
    }
    tSavedErrno keep_errno;
    tSavedError saved;
    if (gUseCanonicalPathnames != 0) {
        __resolve_full_path_for_frame(table, frame, 0);
    }
    tOwnedCode code(get_frame_code(frame));
    const char* path = LookupCOPathname(table, code.borrow());
    DPRINTF(kLogFilenames,
            "LookupCOPathname(%s) => %s\n",
            dprint_check_pystr(code ? borrow_code_name(code.borrow()) : nullptr),
            dprint_check_str(path));
    if (path != nullptr) {
        return path;
    }
    if (!code || gPy.PyErr_Occurred() != nullptr) {
        log_failure("Failure in __tracer_get_full_path()\n");
        return nullptr;
    }
    return compute_full_path(table, frame, code.borrow());
}
