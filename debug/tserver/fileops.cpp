#include "fileops.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "fileops_internal.h"
#include "guards.h"
#include "libc_compat.h"

constinit boolean gUseCanonicalPathnames = 0;

static constexpr size_t kPartsPerGrowth = 10;
static constexpr size_t kPycSuffixLength = 4;

// The record

static void import_os_module(tFileOpsData* data) {
    data->os_mod = gPy.PyImport_ImportModule("os");
    if (data->os_mod == nullptr) {
        log_file_failure(data, "Failure to find os module\n");
        gPy.PyErr_Clear();
    }
}

tFileOpsData* create_file_ops_data(tDPData* dp) {
    tFileOpsData* const data = static_cast<tFileOpsData*>(calloc(1, sizeof(tFileOpsData)));
    if (data == nullptr) {
        return nullptr;
    }
    data->dp = dp;
    CU_InitHashTable(&data->absname_cache, kHashStringKeys);
    CU_InitHashTable(&data->lower_absname_cache, kHashStringKeys);
    CU_InitHashTable(&data->not_found_table, kHashStringKeys);
    CU_InitHashTable(&data->stat_cache, kHashStringKeys);
    CU_InitHashTable(&data->unique_fileno_cache, kHashFilenoKeys);
    CU_InitHashTable(&data->canonical_by_unique_fileno, kHashFilenoKeys);
    CU_InitHashTable(&data->canonical_by_name, kHashStringKeys);
    CU_InitHashTable(&data->canonical_by_checksum, kHashStringKeys);
    data->checksum_callback = new_ref(gPy.Py_None);
    import_os_module(data);
    return data;
}

void destroy_file_ops_data(tFileOpsData* data) {
    if (data == nullptr) {
        return;
    }
    // First, for it may run Python code that asks us something.
    set_owned<PyObject>(&data->os_mod, nullptr);
    set_owned<PyObject>(&data->checksum_callback, nullptr);
    CU_DeallocHashTable(&data->absname_cache);
    CU_DeallocHashTable(&data->lower_absname_cache);
    CU_DeleteHashTable(&data->not_found_table);  // its values are times
    CU_DeallocHashTable(&data->stat_cache);
    CU_DeallocHashTable(&data->unique_fileno_cache);
    CU_DeallocHashTable(&data->canonical_by_unique_fileno);
    CU_DeallocHashTable(&data->canonical_by_name);
    CU_DeallocHashTable(&data->canonical_by_checksum);
    free(data);
}

// Absolute names

// The pieces of a text between its slashes, which are overwritten.
struct tNameParts {
    char** parts;  // owned; each points into the text
    size_t count;
    size_t room;
};

static bool append_part(tNameParts* list, char* part) {
    if (list->count == list->room) {
        const size_t new_room = list->room + kPartsPerGrowth;
        char** const grown = static_cast<char**>(realloc(list->parts, new_room * sizeof(char*)));
        if (grown == nullptr) {
            return false;
        }
        list->parts = grown;
        list->room = new_room;
    }
    list->parts[list->count] = part;
    list->count++;
    return true;
}

static void remove_part(tNameParts* list, size_t index) {
    list->count--;
    memmove(&list->parts[index],
            &list->parts[index + 1],
            (list->count - index) * sizeof(list->parts[0]));
}

static bool split_at_slashes(char* text, tNameParts* list) {
    for (;;) {
        if (!append_part(list, text)) {
            return false;
        }
        char* const slash = strchr(text, '/');
        if (slash == nullptr) {
            return true;
        }
        *slash = '\0';
        text = slash + 1;
    }
}

static void resolve_dots(const tFileOpsData* data, tNameParts* list) {
    size_t i = 0;
    while (i < list->count) {
        const char* const part = list->parts[i];
        tSingleDPData* const sink = borrow_filenames_sink(data);
        if (sink != nullptr) {
            do_dp(sink, "parts[%i] = %s\n", static_cast<int>(i), dprint_check_str(part));
        }
        if (strcmp(part, ".") == 0 || (part[0] == '\0' && i >= 1)) {
            remove_part(list, i);
        } else if (strcmp(part, "..") == 0) {
            // deliberate: the part before may be the empty one in front of the first slash, so a
            // name that climbs above the root is no longer absolute.
            if (i > 0) {
                i--;
                remove_part(list, i);
            }
            remove_part(list, i);
        } else {
            i++;
        }
    }
}

// Writes the parts with slashes between them; text has room for all it was split from.
static void join_parts(const tNameParts* list, char* text) {
    char* end = text;
    for (size_t i = 0; i < list->count; i++) {
        if (i > 0) {
            *end = '/';
            end++;
        }
        const size_t length = strlen(list->parts[i]);
        memcpy(end, list->parts[i], length);
        end += length;
    }
    *end = '\0';
}

// Resolves "." and ".." and doubled slashes. Caller frees; null when out of memory.
static char* copy_resolved(const tFileOpsData* data, const char* name) {
    char* const result = strdup(name);
    char* const scratch = strdup(name);
    tNameParts list = {nullptr, 0, 0};
    const bool split = result != nullptr && scratch != nullptr && split_at_slashes(scratch, &list);
    if (split) {
        resolve_dots(data, &list);
        join_parts(&list, result);
    }
    free(list.parts);
    free(scratch);
    if (!split) {
        free(result);
        return nullptr;
    }
    return result;
}

// Caller frees; null when out of memory.
static char* copy_joined(const char* directory, const char* name) {
    const size_t directory_length = strlen(directory);
    char* const joined = static_cast<char*>(malloc(directory_length + strlen(name) + 2));
    if (joined == nullptr) {
        return nullptr;
    }
    char* end = stpcpy(joined, directory);
    if (directory_length == 0 || end[-1] != '/') {
        end = stpcpy(end, "/");
    }
    stpcpy(end, name);
    return joined;
}

// Absolute name of a relative one. Caller frees; null when out of memory or without a directory.
static char* copy_posix_absname(const tFileOpsData* data, const char* name) {
    tSingleDPData* const sink = borrow_filenames_sink(data);
    char* const directory = getcwd(nullptr, 0);
    if (directory == nullptr) {
        const int error = errno;
        do_dp(sink, "getcwd() returned NULL; errno = %i\n", error);
        return nullptr;
    }
    char* const joined = copy_joined(directory, name);
    if (sink != nullptr) {
        do_dp(sink,
              "In __posix_absname: resolving %s in %s\n",
              dprint_check_str(name),
              dprint_check_str(directory));
    }
    char* const resolved = joined != nullptr ? copy_resolved(data, joined) : nullptr;
    free(joined);
    free(directory);
    return resolved;
}

// Gives the absolute name to the cache. A log line lets other threads run, so one of them may have
// stored the same name meanwhile; that text is in somebody's hands by now and stays.
static const char* keep_absname(tFileOpsData* data, const char* name, char* absname) {
    int is_new = 0;
    CUt_HashEntry* const entry = create_hash_entry(&data->absname_cache, name, &is_new);
    if (entry == nullptr) {
        free(absname);
        return nullptr;
    }
    if (entry->clientData == nullptr) {
        entry->clientData = absname;
    } else {
        free(absname);
    }
    return static_cast<const char*>(entry->clientData);
}

const char* get_absname_forward_slash_names(tFileOpsData* data, const char* name) {
    if (data == nullptr) {
        return nullptr;
    }
    const char* const cached =
        static_cast<const char*>(find_hash_value(&data->absname_cache, name));
    if (cached != nullptr) {
        return cached;
    }
    // deliberate: an absolute name is not normalised.
    char* const absname = name[0] == '/' ? strdup(name) : copy_posix_absname(data, name);
    if (absname == nullptr) {
        return nullptr;
    }
    const char* const kept = keep_absname(data, name, absname);
    tSingleDPData* const sink = borrow_filenames_sink(data);
    if (kept != nullptr && sink != nullptr) {
        do_dp(sink, "resolved %s to %s\n", dprint_check_str(name), dprint_check_str(kept));
    }
    return kept;
}

const char* get_absname(tFileOpsData* data, const char* name) {
    return get_absname_forward_slash_names(data, name);
}

static char to_lower(char c) {  // independent of the debuggee's locale
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

void prune_py_c_or_o(char* name) {
    const size_t length = strlen(name);
    if (length < kPycSuffixLength) {
        return;
    }
    const char* const suffix = name + length - kPycSuffixLength;
    const char last = to_lower(suffix[3]);
    if (suffix[0] == '.' && to_lower(suffix[1]) == 'p' && to_lower(suffix[2]) == 'y' &&
        (last == 'c' || last == 'o')) {
        name[length - 1] = '\0';
    }
}

// Identity on disk

// True while a failed stat is believed; forgets it afterwards.
static bool is_known_missing(tFileOpsData* data, const char* pathname, uintptr_t now) {
    CUt_HashEntry* const entry = find_hash_entry(&data->not_found_table, pathname);
    if (entry == nullptr) {
        return false;
    }
    const uintptr_t then = reinterpret_cast<uintptr_t>(entry->clientData);
    const intptr_t elapsed = static_cast<intptr_t>(now - then);  // negative: the clock was set back
    if (elapsed > -kNotFoundSeconds && elapsed < kNotFoundSeconds) {
        return true;
    }
    CU_DeleteHashEntry(entry);
    return false;
}

static void note_missing(tFileOpsData* data, const char* pathname, uintptr_t now) {
    int is_new = 0;
    CUt_HashEntry* const entry = create_hash_entry(&data->not_found_table, pathname, &is_new);
    if (entry != nullptr) {
        // The slot itself holds the time.
        entry->clientData = reinterpret_cast<void*>(now);  // NOLINT(performance-no-int-to-ptr)
    }
}

// Owned by the cache; null when out of memory.
static const struct stat64* keep_stat(tFileOpsData* data,
                                      const char* pathname,
                                      const struct stat64* found) {
    struct stat64* const kept = static_cast<struct stat64*>(malloc(sizeof(*kept)));
    if (kept == nullptr) {
        return nullptr;
    }
    int is_new = 0;
    CUt_HashEntry* const entry = create_hash_entry(&data->stat_cache, pathname, &is_new);
    if (entry == nullptr) {
        free(kept);
        return nullptr;
    }
    *kept = *found;
    entry->clientData = kept;
    return kept;
}

// Asks the file system unless it said no a moment ago. Null: missing.
static const struct stat64* borrow_new_stat(tFileOpsData* data, const char* pathname) {
    const uintptr_t now = static_cast<uintptr_t>(time(nullptr));
    if (is_known_missing(data, pathname, now)) {
        return nullptr;
    }
    struct stat64 found = {};
    if (libc_stat(pathname, &found) != 0) {
        note_missing(data, pathname, now);
        return nullptr;
    }
    return keep_stat(data, pathname, &found);
}

// From the cache or the file system. Null: missing.
static const struct stat64* borrow_stat(tFileOpsData* data, const char* pathname) {
    if (data == nullptr) {
        return nullptr;
    }
    const CUt_HashEntry* const cached = find_hash_entry(&data->stat_cache, pathname);
    return cached != nullptr ? static_cast<const struct stat64*>(cached->clientData)
                             : borrow_new_stat(data, pathname);
}

int get_unique_file_number(tFileOpsData* data,
                           const char* pathname,
                           tUniqueFileno* number,
                           boolean* exists) {
    const struct stat64* const known = borrow_stat(data, pathname);
    *exists = known != nullptr;
    number->dev = known != nullptr ? known->st_dev : 0;
    number->ino = known != nullptr ? known->st_ino : 0;
    return 0;
}

// True when both files exist; same: whether they are one.
static bool compare_files(tFileOpsData* data, const char* a, const char* b, bool* same) {
    tUniqueFileno a_number = {};
    tUniqueFileno b_number = {};
    boolean a_exists = 0;
    boolean b_exists = 0;
    get_unique_file_number(data, a, &a_number, &a_exists);
    get_unique_file_number(data, b, &b_number, &b_exists);
    *same = a_exists && b_exists && a_number.dev == b_number.dev && a_number.ino == b_number.ino;
    return a_exists && b_exists;
}

// The name with the letter c appended: "x.py" becomes "x.pyc". Caller frees; null: out of memory.
static char* copy_with_c(const char* name) {
    char* const copy = static_cast<char*>(malloc(strlen(name) + 2));
    if (copy != nullptr) {
        stpcpy(stpcpy(copy, name), "c");
    }
    return copy;
}

int samefile(tFileOpsData* data, const char* user_file, const char* mod_file) {
    // deliberate: a prefix is enough, for /a/x.py and /a/x.pyc; so /a/x and /a/x.py are one too.
    if (strncmp(mod_file, user_file, strlen(user_file)) == 0) {
        return 1;
    }
    bool same = false;
    char* const user_file_c = copy_with_c(user_file);
    char* const mod_file_c = copy_with_c(mod_file);
    const bool both_compiled = user_file_c != nullptr && mod_file_c != nullptr &&
                               compare_files(data, user_file_c, mod_file_c, &same);
    free(user_file_c);
    free(mod_file_c);
    if (!both_compiled) {
        compare_files(data, user_file, mod_file, &same);
    }
    return same;
}
