// bpops_files.cpp -- which loaded module a breakpoint's file is.
// A breakpoint names its file as the user's editor sees it, running code as the interpreter loaded
// it. loaded_modules maps every module file seen, and every breakpoint file found to be one of
// them, to the module's name; two regimes decide what "the same file" is (gUseCanonicalPathnames).
// With thousands of breakpoints and hundreds of modules nothing may look at each breakpoint for
// each module, so the unresolved ones are kept by file, and the resolved ones by module and line
// (bpops_bound.cpp).
#include "bpops.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "bpops_internal.h"
#include "tracercore.h"  // upwards: the tracer owns the checksum callback

// ---- Lists by file ----

void init_file_lists(tBpOpsData* data) {
    tBpLists* const lists = lists_of(data);
    lists->waiting_checksums = 0;
    CU_InitHashTable(&lists->waiting_files, kHashStringKeys);
    init_bound_bps(data);
    CU_InitHashTable(&lists->unknown_files, kHashStringKeys);
    lists->known_file[0] = '\0';
    lists->known_path = nullptr;  // clearing has dropped it
}

// The table's reference keeps the address from becoming another path's.
static void know_path(tBpOpsData* data, PyObject* path) {
    tBpLists* const lists = lists_of(data);
    if (lists->known_path != path) {
        PyObject* const old = lists->known_path;
        lists->known_path = path != nullptr ? new_ref(path) : nullptr;
        XPy_DoDecRef(old);
    }
}

void clear_file_lists(tBpOpsData* data) {
    tBpLists* const lists = lists_of(data);
    clear_bound_bps(data);
    know_path(data, nullptr);
    CU_DeleteHashTable(&lists->waiting_files);
    CU_DeallocHashTable(&lists->unknown_files);
}

static tFileOpsData* file_ops(tBpOpsData* data) {
    return data->co_pathname_table->file_ops_data;
}

struct tFileNumber {
    tUniqueFileno number;
    bool is_there;
};

static constexpr int64_t kAskAgain = -1;

static tFileNumber get_file_number(tBpOpsData* data, const char* file) {
    tUniqueFileno number = {};
    boolean exists = 0;
    get_unique_file_number(file_ops(data), file, &number, &exists);
    return {number, exists != 0};
}

// The file's number on disk, taken over from another breakpoint of the file.
static void identify_file(tBpOpsData* data, tBp* bp) {
    if (bp->next_waiting != nullptr) {
        bp->dev = bp->next_waiting->dev;
        bp->ino = bp->next_waiting->ino;
        bp->missing_since = bp->next_waiting->missing_since;
        return;
    }
    const tUniqueFileno number = get_file_number(data, bp->user_filename).number;
    bp->dev = number.dev;
    bp->ino = number.ino;
    bp->missing_since = kAskAgain;
}

static bool start_waiting(tBpOpsData* data, tBp* bp) {
    tBpLists* const lists = lists_of(data);
    int is_new = 0;
    CUt_HashEntry* const entry =
        create_hash_entry(&lists->waiting_files, bp->user_filename, &is_new);
    if (entry != nullptr) {
        bp->next_waiting = static_cast<tBp*>(entry->clientData);
        identify_file(data, bp);
        lists->waiting_checksums += *bp->user_checksum != '\0';
        entry->clientData = bp;
    }
    return entry != nullptr;
}

static void stop_waiting(tBpOpsData* data, tBp* bp) {
    tBpLists* const lists = lists_of(data);
    CUt_HashEntry* const entry = find_hash_entry(&lists->waiting_files, bp->user_filename);
    if (entry == nullptr) {
        return;
    }
    tBp* head = static_cast<tBp*>(entry->clientData);
    for (tBp** link = &head; *link != nullptr; link = &(*link)->next_waiting) {
        if (*link == bp) {
            *link = bp->next_waiting;
            lists->waiting_checksums -= *bp->user_checksum != '\0';
            break;
        }
    }
    bp->next_waiting = nullptr;
    entry->clientData = head;
    if (head == nullptr) {
        CU_DeleteHashEntry(entry);
    }
}

bool enter_bp_by_file(tBpOpsData* data, tBp* bp) {
    return bp->module_filename != nullptr ? enter_bound_bp(data, bp, bp->module_filename)
                                          : start_waiting(data, bp);
}

void remove_bp_by_file(tBpOpsData* data, tBp* bp) {
    if (bp->module_filename == nullptr) {
        stop_waiting(data, bp);
    } else {
        remove_bound_bp(data, bp);
    }
}

bool bind_bp(tBpOpsData* data, tBp* bp, const char* module_filename) {
    char* const copy = strdup(module_filename);
    if (copy == nullptr || !enter_bound_bp(data, bp, copy)) {
        free(copy);
        return false;
    }
    stop_waiting(data, bp);
    bp->module_filename = copy;
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
    lists_of(data)->known_module = nullptr;  // perhaps the value that goes
    free(entry->clientData);
    entry->clientData = copy;
    return copy;
}

// Module file of a name in loaded_modules; null when it is not there. A line that is hit again and
// again asks for one name, so the last one is kept beside the table.
static const char* find_loaded_module(tBpOpsData* data, const char* name) {
    tBpLists* const lists = lists_of(data);
    const bool is_known_file = name == lists->known_file || strcmp(name, lists->known_file) == 0;
    if (lists->known_module != nullptr && is_known_file) {
        return lists->known_module;
    }
    const char* const module_file =
        static_cast<const char*>(find_hash_value(&data->loaded_modules, name));
    const size_t length = strlen(name);
    if (module_file != nullptr && length < kKnownFileSize) {
        if (!is_known_file) {
            know_path(data, nullptr);
            memcpy(lists->known_file, name, length + 1);
        }
        lists->known_module = nullptr;
        lists->known_module_bps = find_module_bps(data, module_file);
        lists->known_module = module_file;
    }
    return module_file;
}

static const char* get_module_value(const CUt_HashEntry* entry) {
    return static_cast<const char*>(entry->clientData);
}

// False = pruning leaves the name as it is.
static bool may_be_compiled_file(const char* name) {
    const size_t length = strlen(name);
    const char last = length != 0 ? name[length - 1] : '\0';
    return last == 'c' || last == 'o' || last == 'C' || last == 'O';
}

// The file name as the server gave it may be that of a compiled file, which no module has.
static bool names_same_file(tBpOpsData* data, const char* user_filename, const char* module_file) {
    if (samefile(file_ops(data), user_filename, module_file)) {
        return true;
    }
    if (!may_be_compiled_file(user_filename)) {
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

// A file in comparisons with many others.
struct tNumberedFile {
    const char* name;
    tFileNumber number;
    bool is_nowhere;  // neither it nor what is compared in its place, the name with a c, is there
    int64_t missing_since;  // seconds: when the first of the two was found missing, or kAskAgain
};

// The name that samefile looks at first. Caller frees; null when out of memory.
static char* copy_with_c(const char* name) {
    char* const copy = static_cast<char*>(malloc(strlen(name) + 2));
    if (copy != nullptr) {
        stpcpy(stpcpy(copy, name), "c");
    }
    return copy;
}

static int64_t get_time_of_failed_stat(tBpOpsData* data, const char* name) {
    const CUt_HashEntry* const entry = file_ops(data) != nullptr
                                           ? find_hash_entry(&file_ops(data)->not_found_table, name)
                                           : nullptr;
    return entry != nullptr ? static_cast<int64_t>(reinterpret_cast<uintptr_t>(entry->clientData))
                            : kAskAgain;
}

static int64_t get_missing_since(tBpOpsData* data, const char* name, const char* twin) {
    const int64_t a = get_time_of_failed_stat(data, name);
    const int64_t b = get_time_of_failed_stat(data, twin);
    return a < b ? a : b;
}

static tNumberedFile get_numbered_file(tBpOpsData* data, const char* name) {
    tNumberedFile file = {name, get_file_number(data, name), false, kAskAgain};
    char* const twin = file.number.is_there ? nullptr : copy_with_c(name);
    file.is_nowhere = twin != nullptr && !get_file_number(data, twin).is_there;
    file.missing_since = file.is_nowhere ? get_missing_since(data, name, twin) : kAskAgain;
    free(twin);
    return file;
}

// Whether it is worth asking names_same_file: two files that are there and have different numbers
// are not the same, nor is one that is nowhere, but for the names that are compared as texts.
static bool may_be_same_file(const tNumberedFile& user_file, const tNumberedFile& module_file) {
    if (may_be_compiled_file(user_file.name) ||
        strncmp(user_file.name, module_file.name, strlen(user_file.name)) == 0) {
        return true;
    }
    if (user_file.is_nowhere || module_file.is_nowhere) {
        return false;
    }
    const tUniqueFileno& a = user_file.number.number;
    const tUniqueFileno& b = module_file.number.number;
    return !user_file.number.is_there || !module_file.number.is_there ||
           (a.dev == b.dev && a.ino == b.ino);
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
    const tNumberedFile user_file = get_numbered_file(data, user_filename);
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&data->loaded_modules, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        const char* const file = get_module_value(entry);
        if (may_be_same_file(user_file, {file, get_file_number(data, file), false, kAskAgain}) &&
            names_same_file(data, user_filename, file)) {
            return file;
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

// A search on disk that found nothing is not repeated for the next breakpoint of that file, unless
// a module was loaded or a second has passed in which the file may have come into being.
struct tFailedSearch {
    int import_count;
    uint64_t ticks;
};
static constexpr unsigned kMaxUnknownFiles = 4096;  // then they are forgotten

static bool has_just_failed(tBpOpsData* data, const char* user_filename) {
    const tFailedSearch* const last = static_cast<const tFailedSearch*>(
        find_hash_value(&lists_of(data)->unknown_files, user_filename));
    return last != nullptr && last->import_count == data->unique_import_count &&
           last->ticks == get_ticks();
}

static void remember_failure(tBpOpsData* data, const char* user_filename) {
    tBpLists* const lists = lists_of(data);
    if (lists->unknown_files.numEntries >= kMaxUnknownFiles) {
        CU_DeallocHashTable(&lists->unknown_files);
        CU_InitHashTable(&lists->unknown_files, kHashStringKeys);
    }
    int is_new = 0;
    CUt_HashEntry* const entry = create_hash_entry(&lists->unknown_files, user_filename, &is_new);
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
    if (!has_just_failed(data, user_filename)) {
        const char* const found = find_synonym_on_disk(data, user_filename);
        if (found != nullptr) {
            return found;
        }
        remember_failure(data, user_filename);
    }
    return uses_checksum(data, user_checksum) ? find_synonym_by_checksum(data, user_checksum)
                                              : nullptr;
}

static const char* find_module_by_synonym(tBpOpsData* data,
                                          const char* user_filename,
                                          const char* user_checksum) {
    DPRINTF(kLogBreakpoints, "Finding module for %s\n", dprint_check_str(user_filename));
    const char* const known = find_loaded_module(data, user_filename);
    if (known != nullptr) {
        return known;
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

// Copy of the pruned name, for the scratch buffer may be wanted for another module by what the
// server does when it is asked for a checksum. Caller frees; null = too long, or out of memory.
static char* copy_module_name(tBpOpsData* data, const char* module_filename) {
    const size_t length = strlen(module_filename);
    if (length >= kResolveBufferSize) {
        return nullptr;
    }
    memcpy(data->resolve_bp_tmpfile, module_filename, length + 1);
    prune_py_c_or_o(data->resolve_bp_tmpfile);
    return strdup(data->resolve_bp_tmpfile);
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

// The new module, and what is known of it.
struct tNewModule {
    const char* file;
    bool is_canonical_regime;  // as it was at the start: the server's answers may switch it
    PyObject* checksum;        // owned; null = none, or not asked for yet
    bool is_checksum_known;    // asked for
    const char* compared;      // user file name that was compared last; null = none yet
    const char* checksum_of;   // canonical regime: the checksum that went with it
    const char* found;         // canonical regime: its canonical name
    bool is_same_file;         // synonym regime: it is the module's file on disk
};

static bool has_module_checksum(const tNewModule* mod, const char* user_checksum) {
    return mod->checksum != nullptr && is_text_equal(mod->checksum, user_checksum);
}

static bool is_file_of_module(tBpOpsData* data, tNewModule* mod, const tBp* bp) {
    if (mod->compared == nullptr || strcmp(mod->compared, bp->user_filename) != 0) {
        mod->compared = bp->user_filename;
        mod->is_same_file = names_same_file(data, bp->user_filename, mod->file);
    }
    if (mod->is_same_file || !uses_checksum(data, bp->user_checksum)) {
        return mod->is_same_file;
    }
    if (!mod->is_checksum_known) {
        mod->checksum = get_checksum_text(mod->file);
        mod->is_checksum_known = true;
    }
    return has_module_checksum(mod, bp->user_checksum);
}

// The module file that the breakpoint belongs to; null when it goes on waiting.
static const char* find_file_for_waiting(tBpOpsData* data, tNewModule* mod, const tBp* bp) {
    if (!mod->is_canonical_regime) {
        return is_file_of_module(data, mod, bp) ? mod->file : nullptr;
    }
    // Any name that is registered will do, whether or not it is this module's.
    if (mod->compared == nullptr || strcmp(mod->compared, bp->user_filename) != 0 ||
        strcmp(mod->checksum_of, bp->user_checksum) != 0) {
        mod->compared = bp->user_filename;
        mod->checksum_of = bp->user_checksum;
        mod->found = lookup_canonical_pathname(file_ops(data), mod->compared, mod->checksum_of);
    }
    DPRINTF(kLogBreakpoints, "  found = %s\n", dprint_check_str(mod->found));
    return mod->found;
}

// False when it goes on waiting.
static bool bind_waiting_bp(tBpOpsData* data, tNewModule* mod, tBp* bp) {
    const char* const file = find_file_for_waiting(data, mod, bp);
    if (file == nullptr || bp->is_dropped || bp->module_filename != nullptr ||
        !bind_bp(data, bp, file)) {
        return false;
    }
    if (!mod->is_canonical_regime && put_loaded_module(data, bp->user_filename, file) != nullptr) {
        DPRINTF(kLogBreakpoints, "Found synonym %s\n", dprint_check_str(bp->user_filename));
    }
    return true;
}

// The file that the chain waits for. One that was not there is asked for again when the file-name
// caches would ask the disk again, so that a module costs nothing for the others that are missing.
static tNumberedFile get_waited_file(tBpOpsData* data, tBp* chain, int64_t now) {
    if (chain->ino != 0) {
        return {chain->user_filename, {{chain->dev, chain->ino}, true}, false, kAskAgain};
    }
    const int64_t elapsed = now - chain->missing_since;
    if (chain->missing_since != kAskAgain && elapsed > -kNotFoundSeconds &&
        elapsed < kNotFoundSeconds) {
        return {chain->user_filename, {{0, 0}, false}, true, chain->missing_since};
    }
    const tNumberedFile file = get_numbered_file(data, chain->user_filename);
    chain->dev = file.number.number.dev;
    chain->ino = file.number.number.ino;
    chain->missing_since = file.missing_since;
    return file;
}

static void hold_candidates(tBpOpsData* data, const char* file, tHeldBps* held) {
    tBpLists* const lists = lists_of(data);
    const bool takes_all =
        gUseCanonicalPathnames || (data->checksums_enabled && lists->waiting_checksums > 0);
    const int64_t now = time(nullptr);
    const tNumberedFile module_file = get_numbered_file(data, file);
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&lists->waiting_files, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        tBp* const chain = static_cast<tBp*>(entry->clientData);
        if (takes_all || may_be_same_file(get_waited_file(data, chain, now), module_file)) {
            held->add_chain(chain, &tBp::next_waiting);
        }
    }
}

static void hold_all(tBpOpsData* data, tHeldBps* held) {
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&data->userbps, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        held->add_chain(static_cast<tBp*>(entry->clientData), &tBp::next_user);
    }
}

static void bind_waiting_bps(tBpOpsData* data, const char* file) {
    tNewModule mod = {
        file, gUseCanonicalPathnames != 0, nullptr, false, nullptr, nullptr, nullptr, false};
    tHeldBps held(data);
    if (gDPrintfFile != nullptr) {
        hold_all(data, &held);  // the log wants to hear of all
    } else {
        hold_candidates(data, file, &held);
    }
    bool any_bound = false;
    for (size_t i = 0; i < held.count(); i++) {
        tBp* const bp = held[i];
        DPRINTF(kLogBreakpoints,
                "lineno = %d, user_filename = %s, module_filename = %s\n",
                bp->lineno,
                dprint_check_str(bp->user_filename),
                dprint_check_str(bp->module_filename));
        if (bp->module_filename == nullptr) {
            any_bound = bind_waiting_bp(data, &mod, bp) || any_bound;
        }
    }
    XPy_DoDecRef(mod.checksum);
    if (any_bound) {
        ClearAnyBpsInAllCodeObjects(data->co_pathname_table);
    }
}

static void resolve_by_synonym(tBpOpsData* data, const char* file) {
    if (find_module_by_synonym(data, file, nullptr) != nullptr ||
        !register_module_file(data, file)) {
        return;
    }
    bind_waiting_bps(data, file);
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
    if (gDPrintfFile == nullptr && !may_be_compiled_file(module_filename) &&
        find_loaded_module(data, module_filename) != nullptr) {
        return;  // known, as nearly always
    }
    char* const file = copy_module_name(data, module_filename);
    if (file != nullptr) {
        resolve_by_synonym(data, file);
    }
    free(file);
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

static void resolve_by_canonical(tBpOpsData* data, const char* file) {
    if (__tracer_find_module(data, file, nullptr) != nullptr) {
        return;
    }
    tSavedError saved;
    const char* const canonical = register_canonical(data, file);
    if (canonical == nullptr || !register_module_file(data, canonical)) {
        return;
    }
    bind_waiting_bps(data, canonical);
    DPRINTF(kLogBreakpoints, "Done with __tracer_resolve_bp_filenames_using_canonical()\n");
}

void __tracer_resolve_bp_filenames_using_canonical(tBpOpsData* data, const char* module_filename) {
    DPRINTF(kLogBreakpoints,
            "__tracer_resolve_bp_filenames_using_canonical(module_filename = %s)\n",
            dprint_check_str(module_filename));
    if (module_filename == nullptr) {
        DPRINTF(kLogBreakpoints, "  returning because module_filename is NULL\n");
        return;
    }
    char* const file = copy_module_name(data, module_filename);
    if (file != nullptr) {
        resolve_by_canonical(data, file);
    }
    free(file);
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
    tOwnedRef file(data->filestring != nullptr ? new_ref(gPy.PyDict_GetItem(dict, data->filestring))
                                               : nullptr);
    const char* const text =
        is_native_string(file.borrow()) ? _pystring_to_c_string(file.borrow()) : nullptr;
    DPRINTF(kLogBreakpoints, "XFER %s\n", dprint_check_str(text));
    if (text == nullptr) {
        DPRINTF(kLogBreakpoints, "********** NO FILE NAME ****************\n");
        return;
    }
    __tracer_resolve_bp_filenames(data, text);
}

// Text of a code object's path when its module is known: borrowed until the next look-up.
static const char* peek_path_text(tBpOpsData* data, PyObject* path) {
    tBpLists* const lists = lists_of(data);
    if (path == lists->known_path && lists->known_module != nullptr) {
        return lists->known_file;
    }
    const char* const text = _pystring_to_c_string(path);
    if (text == nullptr || may_be_compiled_file(text) ||
        find_loaded_module(data, text) == nullptr) {
        return nullptr;
    }
    if (lists->known_module != nullptr && strcmp(lists->known_file, text) == 0) {
        know_path(data, path);
    }
    return text;
}

// The registered name of the frame's file when its module is known, as nearly always: this is on
// the way of each hit. Null: take the long way.
static const char* peek_code_file(tBpOpsData* data, PyFrameObject* frame) {
    if (gDPrintfFile != nullptr || gUseCanonicalPathnames || !is_frame(frame)) {
        return nullptr;
    }
    tOwnedCode code(gPy.PyFrame_GetCode(frame));
    PyObject* const path =
        code ? borrow_code_path(data->co_pathname_table, code.borrow()) : nullptr;
    return path != nullptr ? peek_path_text(data, path) : nullptr;
}

bool is_line_known_without_bps(tBpOpsData* data, int lineno, PyFrameObject* frame) {
    if (find_line_entry(&data->userbps, lineno) == nullptr) {
        return true;
    }
    const char* const codefile = peek_code_file(data, frame);
    return codefile != nullptr &&
           find_bound_bps(data, find_loaded_module(data, codefile), lineno) == nullptr;
}

const char* resolve_code_file(tBpOpsData* data, PyFrameObject* frame) {
    const char* const known = peek_code_file(data, frame);
    if (known != nullptr) {
        return known;
    }
    tSavedError saved;
    const char* const codefile = __tracer_get_full_path(data->co_pathname_table, frame);
    DPRINTF(kLogBreakpoints, "CODE FILE %s\n", dprint_check_str(codefile));
    __tracer_resolve_bp_filenames(data, codefile);
    return codefile;
}
