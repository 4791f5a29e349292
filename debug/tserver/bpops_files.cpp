// bpops_files.cpp -- which loaded module a breakpoint's file is.
// A breakpoint names its file as the user's editor sees it, running code as the interpreter loaded
// it. loaded_modules maps every module file seen, and every breakpoint file found to be one of
// them, to the module's name; two regimes decide what "the same file" is (gUseCanonicalPathnames).
// With thousands of breakpoints and hundreds of modules nothing may look at each breakpoint for
// each module, so the unresolved ones are kept by file, and the resolved ones are counted by
// module.
#include "bpops.h"

#include <stdlib.h>
#include <string.h>

#include "bpops_internal.h"
#include "tracercore.h"  // upwards: the tracer owns the checksum callback

// ---- Lists by file ----

void init_file_lists(tBpOpsData* data) {
    CU_InitHashTable(&data->waiting_files, kHashStringKeys);
    CU_InitHashTable(&data->module_bp_counts, kHashStringKeys);
    CU_InitHashTable(&data->unknown_files, kHashStringKeys);
}

void clear_file_lists(tBpOpsData* data) {
    CU_DeleteHashTable(&data->waiting_files);
    CU_DeleteHashTable(&data->module_bp_counts);
    CU_DeallocHashTable(&data->unknown_files);
}

// A count in an entry's value slot.
static void add_to_count(CUt_HashEntry* entry, intptr_t change) {
    const intptr_t count = reinterpret_cast<intptr_t>(entry->clientData) + change;
    entry->clientData = reinterpret_cast<void*>(count);
}

static void count_bp_of_module(tBpOpsData* data, const char* module_filename) {
    int is_new = 0;
    CUt_HashEntry* const entry =
        create_hash_entry(&data->module_bp_counts, module_filename, &is_new);
    if (entry != nullptr) {
        add_to_count(entry, 1);
    }
}

bool has_module_bps(tBpOpsData* data, const char* module_filename) {
    return find_hash_value(&data->module_bp_counts, module_filename) != nullptr;
}

static void start_waiting(tBpOpsData* data, tBp* bp) {
    int is_new = 0;
    CUt_HashEntry* const entry =
        create_hash_entry(&data->waiting_files, bp->user_filename, &is_new);
    if (entry != nullptr) {
        bp->next_waiting = static_cast<tBp*>(entry->clientData);
        entry->clientData = bp;
    }
}

static void stop_waiting(tBpOpsData* data, tBp* bp) {
    CUt_HashEntry* const entry = find_hash_entry(&data->waiting_files, bp->user_filename);
    if (entry == nullptr) {
        return;
    }
    tBp* head = static_cast<tBp*>(entry->clientData);
    for (tBp** link = &head; *link != nullptr; link = &(*link)->next_waiting) {
        if (*link == bp) {
            *link = bp->next_waiting;
            break;
        }
    }
    bp->next_waiting = nullptr;
    entry->clientData = head;
    if (head == nullptr) {
        CU_DeleteHashEntry(entry);
    }
}

void enter_bp_by_file(tBpOpsData* data, tBp* bp) {
    if (bp->module_filename != nullptr) {
        count_bp_of_module(data, bp->module_filename);
    } else {
        start_waiting(data, bp);
    }
}

void remove_bp_by_file(tBpOpsData* data, tBp* bp) {
    if (bp->module_filename == nullptr) {
        stop_waiting(data, bp);
        return;
    }
    CUt_HashEntry* const entry = find_hash_entry(&data->module_bp_counts, bp->module_filename);
    if (entry != nullptr) {
        add_to_count(entry, -1);
        if (entry->clientData == nullptr) {
            CU_DeleteHashEntry(entry);
        }
    }
}

bool bind_bp(tBpOpsData* data, tBp* bp, const char* module_filename) {
    char* const copy = strdup(module_filename);
    if (copy == nullptr) {
        return false;
    }
    stop_waiting(data, bp);
    bp->module_filename = copy;
    count_bp_of_module(data, copy);
    return true;
}

// ---- loaded_modules ----

// Stores a copy of `value` under `name`, in place of an older one: the copy, borrowed; null when
// out of memory, the table as it was.
static const char* put_loaded_module(tBpOpsData* data, const char* name, const char* value) {
    char* const copy = strdup(value);
    int is_new = 0;
    CUt_HashEntry* const entry =
        copy != nullptr ? create_hash_entry(&data->loaded_modules, name, &is_new) : nullptr;
    if (entry == nullptr) {
        free(copy);
        return nullptr;
    }
    free(entry->clientData);
    entry->clientData = copy;
    return copy;
}

static const char* get_module_value(const CUt_HashEntry* entry) {
    return static_cast<const char*>(entry->clientData);
}

static tFileOpsData* file_ops(tBpOpsData* data) {
    return data->co_pathname_table->file_ops_data;
}

// The file name as the server gave it may be that of a compiled file, which no module has.
static bool names_same_file(tBpOpsData* data, const char* user_filename, const char* module_file) {
    if (samefile(file_ops(data), user_filename, module_file)) {
        return true;
    }
    const size_t length = strlen(user_filename);
    const char last = length != 0 ? user_filename[length - 1] : '\0';
    if (last != 'c' && last != 'o' && last != 'C' && last != 'O') {
        return false;
    }
    char* const pruned = strdup(user_filename);
    if (pruned == nullptr) {
        return false;
    }
    prune_py_c_or_o(pruned);
    const bool same =
        strcmp(pruned, user_filename) != 0 && samefile(file_ops(data), pruned, module_file) != 0;
    free(pruned);
    return same;
}

// ---- Checksums ----

static bool uses_checksum(const tBpOpsData* data, const char* checksum) {
    return data->checksums_enabled && checksum != nullptr && *checksum != '\0';
}

// Checksum of a file as the server computes it: new ref to a native string, null when there is
// none.
static PyObject* get_checksum_text(const char* codefile) {
    tSavedError saved;
    tOwnedRef checksum(call_get_checksum_cb(codefile));
    return is_native_string(checksum.borrow()) ? checksum.give_away() : nullptr;
}

static bool is_text_equal(PyObject* obj, const char* text) {
    const char* const own = obj != nullptr ? _pystring_to_c_string(obj) : nullptr;
    return own != nullptr && strcmp(own, text) == 0;
}

int file_matches_checksum(tBpOpsData* data, const char* compare_checksum, const char* codefile) {
    if (!uses_checksum(data, compare_checksum)) {
        return 0;
    }
    tOwnedRef checksum(get_checksum_text(codefile));
    return is_text_equal(checksum.borrow(), compare_checksum);
}

// ---- Finding the module of a breakpoint file ----

static const char* find_synonym_on_disk(tBpOpsData* data, const char* user_filename) {
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&data->loaded_modules, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        if (names_same_file(data, user_filename, get_module_value(entry))) {
            return get_module_value(entry);
        }
    }
    return nullptr;
}

// Copies of the module files, for a walk during which Python code runs. Caller frees both levels.
static char** copy_module_files(tBpOpsData* data, size_t* count) {
    char** const files =
        static_cast<char**>(calloc(data->loaded_modules.numEntries + 1, sizeof(char*)));
    *count = 0;
    CUt_HashSearch search;
    CUt_HashEntry* entry =
        files != nullptr ? CU_FirstHashEntry(&data->loaded_modules, &search) : nullptr;
    for (; entry != nullptr; entry = CU_NextHashEntry(&search)) {
        // Synonyms lead to a file that is there under its own name.
        const char* const file = get_module_value(entry);
        char* const copy = strcmp(file, get_hash_key(entry)) == 0 ? strdup(file) : nullptr;
        if (copy != nullptr) {
            files[(*count)++] = copy;
        }
    }
    return files;
}

static const char* find_synonym_by_checksum(tBpOpsData* data, const char* user_checksum) {
    size_t count = 0;
    char** const files = copy_module_files(data, &count);
    const char* found = nullptr;
    for (size_t i = 0; i < count; i++) {
        if (found == nullptr && file_matches_checksum(data, user_checksum, files[i])) {
            found = static_cast<const char*>(find_hash_value(&data->loaded_modules, files[i]));
        }
        free(files[i]);
    }
    free(files);
    return found;
}

// A search that found nothing is not repeated for the next breakpoint of that file, unless a module
// was loaded or a second has passed in which the file may have come into being.
struct tFailedSearch {
    int import_count;
    uint64_t ticks;
};

static bool has_just_failed(tBpOpsData* data, const char* user_filename) {
    const tFailedSearch* const last =
        static_cast<const tFailedSearch*>(find_hash_value(&data->unknown_files, user_filename));
    return last != nullptr && last->import_count == data->unique_import_count &&
           last->ticks == get_ticks();
}

static void remember_failure(tBpOpsData* data, const char* user_filename) {
    int is_new = 0;
    CUt_HashEntry* const entry = create_hash_entry(&data->unknown_files, user_filename, &is_new);
    if (entry == nullptr) {
        return;
    }
    if (entry->clientData == nullptr) {
        entry->clientData = calloc(1, sizeof(tFailedSearch));
    }
    tFailedSearch* const last = static_cast<tFailedSearch*>(entry->clientData);
    if (last != nullptr) {
        *last = {data->unique_import_count, get_ticks()};
    }
}

static const char* search_for_synonym(tBpOpsData* data,
                                      const char* user_filename,
                                      const char* user_checksum) {
    if (has_just_failed(data, user_filename)) {
        return nullptr;
    }
    const char* found = find_synonym_on_disk(data, user_filename);
    if (found == nullptr && uses_checksum(data, user_checksum)) {
        found = find_synonym_by_checksum(data, user_checksum);
    }
    if (found == nullptr) {
        remember_failure(data, user_filename);
    }
    return found;
}

static const char* find_module_by_synonym(tBpOpsData* data,
                                          const char* user_filename,
                                          const char* user_checksum) {
    DPRINTF(kLogBreakpoints, "Finding module for %s\n", dprint_check_str(user_filename));
    const void* const known = find_hash_value(&data->loaded_modules, user_filename);
    if (known != nullptr) {
        return static_cast<const char*>(known);
    }
    DPRINTF(kLogBreakpoints, "Nothing found... searching for synonyms\n");
    const char* const found = search_for_synonym(data, user_filename, user_checksum);
    const char* const stored =
        found != nullptr ? put_loaded_module(data, user_filename, found) : nullptr;
    if (stored == nullptr) {
        DPRINTF(kLogBreakpoints, "No synonyms found\n");
        return nullptr;
    }
    DPRINTF(kLogBreakpoints, "Found synonym %s\n", dprint_check_str(stored));
    return stored;
}

const char* __tracer_find_module(tBpOpsData* data,
                                 const char* user_filename,
                                 const char* user_checksum) {
    if (!gUseCanonicalPathnames) {
        return find_module_by_synonym(data, user_filename, user_checksum);
    }
    const char* const canonical =
        lookup_canonical_pathname(file_ops(data), user_filename, user_checksum);
    return canonical != nullptr
               ? static_cast<const char*>(find_hash_value(&data->loaded_modules, canonical))
               : nullptr;
}

// ---- A newly seen module file ----

// Fills the scratch buffer with the pruned name. False = too long for it.
static bool take_module_name(tBpOpsData* data, const char* module_filename) {
    const size_t length = strlen(module_filename);
    if (length >= kResolveBufferSize) {
        return false;
    }
    memcpy(data->resolve_bp_tmpfile, module_filename, length + 1);
    prune_py_c_or_o(data->resolve_bp_tmpfile);
    return true;
}

// The entry module file -> itself. False = it was there, or out of memory.
static bool register_module_file(tBpOpsData* data, const char* file) {
    if (find_hash_entry(&data->loaded_modules, file) != nullptr ||
        put_loaded_module(data, file, file) == nullptr) {
        return false;
    }
    data->unique_import_count++;
    return true;
}

static void log_waiting(const tBp* bp) {
    DPRINTF(kLogBreakpoints,
            "lineno = %d, user_filename = %s, module_filename = %s\n",
            bp->lineno,
            dprint_check_str(bp->user_filename),
            dprint_check_str(bp->module_filename));
}

// Which waiting breakpoints a newly seen module file gets.
struct tNewModule {
    const char* file;
    PyObject* checksum;  // borrowed; null = none, or not asked for
};

static bool is_file_of_module(tBpOpsData* data, const char* user_filename, const tNewModule& mod) {
    if (!gUseCanonicalPathnames) {
        return names_same_file(data, user_filename, mod.file);
    }
    return false;
}

static bool is_bp_of_module(tBpOpsData* data,
                            const tBp* bp,
                            const tNewModule& mod,
                            bool same_file) {
    if (!gUseCanonicalPathnames) {
        return same_file || (uses_checksum(data, bp->user_checksum) &&
                             is_text_equal(mod.checksum, bp->user_checksum));
    }
    const char* const found =
        lookup_canonical_pathname(file_ops(data), bp->user_filename, bp->user_checksum);
    DPRINTF(kLogBreakpoints, "  found = %s\n", dprint_check_str(found));
    return found != nullptr && strcmp(found, mod.file) == 0;
}

// Takes the breakpoints of one user file that belong to the module off the waiting list `head`.
static tBp* take_matching(tBpOpsData* data, tBp** head, const tNewModule& mod) {
    const bool same_file = *head != nullptr && is_file_of_module(data, (*head)->user_filename, mod);
    tBp* taken = nullptr;
    tBp** link = head;
    while (*link != nullptr) {
        tBp* const bp = *link;
        log_waiting(bp);
        if (is_bp_of_module(data, bp, mod, same_file)) {
            *link = bp->next_waiting;
            bp->next_waiting = taken;
            taken = bp;
        } else {
            link = &bp->next_waiting;
        }
    }
    return taken;
}

static void bind_taken(tBpOpsData* data, tBp* taken, const tNewModule& mod) {
    while (taken != nullptr) {
        tBp* const bp = taken;
        taken = bp->next_waiting;
        bp->next_waiting = nullptr;
        if (!gUseCanonicalPathnames &&
            put_loaded_module(data, bp->user_filename, mod.file) != nullptr) {
            DPRINTF(kLogBreakpoints, "Found synonym %s\n", dprint_check_str(bp->user_filename));
        }
        if (!bind_bp(data, bp, mod.file)) {
            start_waiting(data, bp);
        }
    }
}

// No Python code runs in here: the lists stay as they are under the walk.
static void bind_waiting_bps(tBpOpsData* data, const tNewModule& mod) {
    tBp* all_taken = nullptr;
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&data->waiting_files, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        tBp* head = static_cast<tBp*>(entry->clientData);
        tBp* taken = take_matching(data, &head, mod);
        entry->clientData = head;
        if (head == nullptr) {
            CU_DeleteHashEntry(entry);
        }
        while (taken != nullptr) {
            tBp* const bp = taken;
            taken = bp->next_waiting;
            bp->next_waiting = all_taken;
            all_taken = bp;
        }
    }
    const bool any_bound = all_taken != nullptr;
    bind_taken(data, all_taken, mod);
    if (any_bound) {
        ClearAnyBpsInAllCodeObjects(data->co_pathname_table);
    }
}

static bool waits_for_checksum(tBpOpsData* data) {
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&data->waiting_files, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        for (const tBp* bp = static_cast<const tBp*>(entry->clientData); bp != nullptr;
             bp = bp->next_waiting) {
            if (uses_checksum(data, bp->user_checksum)) {
                return true;
            }
        }
    }
    return false;
}

static void resolve_by_synonym(tBpOpsData* data) {
    const char* const file = data->resolve_bp_tmpfile;
    if (find_module_by_synonym(data, file, nullptr) != nullptr ||
        !register_module_file(data, file)) {
        return;
    }
    // The callback may come back here for another module and use the scratch buffer.
    const char* const stored =
        static_cast<const char*>(find_hash_value(&data->loaded_modules, file));
    tOwnedRef checksum(waits_for_checksum(data) ? get_checksum_text(stored) : nullptr);
    char* const name = strdup(stored);
    if (name != nullptr) {
        bind_waiting_bps(data, {name, checksum.borrow()});
        free(name);
    }
    DPRINTF(kLogBreakpoints, "Done resolving\n");
}

void __tracer_resolve_bp_filenames(tBpOpsData* data, const char* module_filename) {
    if (gUseCanonicalPathnames) {
        __tracer_resolve_bp_filenames_using_canonical(data, module_filename);
        return;
    }
    DPRINTF(kLogBreakpoints,
            "__tracer_resolve_bp_filenames(module_filename = %s)\n",
            dprint_check_str(module_filename));
    if (module_filename == nullptr) {
        DPRINTF(kLogBreakpoints, "  returning because module_filename is NULL\n");
        return;
    }
    if (take_module_name(data, module_filename)) {
        resolve_by_synonym(data);
    }
}

// Canonical name of a module file, registered with its checksum: borrowed; null after logging.
static const char* register_canonical(tBpOpsData* data, const char* file) {
    tOwnedRef checksum(call_get_checksum_cb(file));
    if (!checksum) {
        log_failure("Failure in register_canonical_pathname(); pychecksum == NULL\n");
        return nullptr;
    }
    const char* const text =
        is_native_string(checksum.borrow()) ? _pystring_to_c_string(checksum.borrow()) : nullptr;
    const char* const canonical = register_canonical_pathname(file_ops(data), file, text, nullptr);
    if (canonical == nullptr) {
        log_failure("register_canonical_pathname() failed\n");
    }
    return canonical;
}

void __tracer_resolve_bp_filenames_using_canonical(tBpOpsData* data, const char* module_filename) {
    DPRINTF(kLogBreakpoints,
            "__tracer_resolve_bp_filenames_using_canonical(module_filename = %s)\n",
            dprint_check_str(module_filename));
    if (module_filename == nullptr) {
        DPRINTF(kLogBreakpoints, "  returning because module_filename is NULL\n");
        return;
    }
    if (!take_module_name(data, module_filename) ||
        __tracer_find_module(data, data->resolve_bp_tmpfile, nullptr) != nullptr) {
        return;
    }
    tSavedError saved;
    char* const file = strdup(data->resolve_bp_tmpfile);
    const char* const canonical = file != nullptr ? register_canonical(data, file) : nullptr;
    free(file);
    if (canonical == nullptr || !register_module_file(data, canonical)) {
        return;
    }
    bind_waiting_bps(data, {canonical, nullptr});
    DPRINTF(kLogBreakpoints, "Done with __tracer_resolve_bp_filenames_using_canonical()\n");
}

void __tracer_xfer_module_bps(tBpOpsData* data, PyObject* mod) {
    if (!is_instance_of(mod, gPy.PyModule_Type_ptr)) {
        return;
    }
    tSavedError saved;
    PyObject* const dict = gPy.PyModule_GetDict(mod);
    const char* const name = gDPrintfFile != nullptr ? gPy.PyModule_GetName(mod) : nullptr;
    DPRINTF(kLogBreakpoints, "MODNAME %s\n", dprint_check_str(name));
    if (dict == nullptr) {
        DPRINTF(kLogBreakpoints, "MDICT IS NULL for %s\n", dprint_check_str(name));
        return;
    }
    tOwnedRef file(new_ref(gPy.PyDict_GetItem(dict, data->filestring)));
    const char* const text =
        is_native_string(file.borrow()) ? _pystring_to_c_string(file.borrow()) : nullptr;
    DPRINTF(kLogBreakpoints, "XFER %s\n", dprint_check_str(text));
    if (text == nullptr) {
        DPRINTF(kLogBreakpoints, "********** NO FILE NAME ****************\n");
        return;
    }
    __tracer_resolve_bp_filenames(data, text);
}

const char* resolve_code_file(tBpOpsData* data, PyFrameObject* frame) {
    tSavedError saved;
    const char* const codefile = __tracer_get_full_path(data->co_pathname_table, frame);
    DPRINTF(kLogBreakpoints, "CODE FILE %s\n", dprint_check_str(codefile));
    __tracer_resolve_bp_filenames(data, codefile);
    return codefile;
}
