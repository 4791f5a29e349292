// bpops_bound.cpp -- the breakpoints that are bound to a module, by module and line: a line is not
// slower for the breakpoints that other files have on it.
#include <stdlib.h>

#include "bpops_internal.h"

// Exists only while breakpoints are bound to the module.
struct tModuleBps {
    CUt_HashTable lines;  // int line -> head of its chain by next_bound; no empty chains
};

static void free_module_bps(tModuleBps* module_bps) {
    CU_DeleteHashTable(&module_bps->lines);
    free(module_bps);
}

void init_bound_bps(tBpOpsData* data) {
    tBpLists* const lists = lists_of(data);
    CU_InitHashTable(&lists->module_bps, kHashStringKeys);
    lists->known_module = nullptr;
}

void clear_bound_bps(tBpOpsData* data) {
    tBpLists* const lists = lists_of(data);
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&lists->module_bps, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        free_module_bps(static_cast<tModuleBps*>(entry->clientData));
    }
    CU_DeleteHashTable(&lists->module_bps);
    lists->known_module = nullptr;
}

tModuleBps* find_module_bps(tBpOpsData* data, const char* module_filename) {
    tBpLists* const lists = lists_of(data);
    if (lists->known_module != nullptr && lists->known_module == module_filename) {
        return lists->known_module_bps;
    }
    return static_cast<tModuleBps*>(find_hash_value(&lists->module_bps, module_filename));
}

bool has_module_bps(tBpOpsData* data, const char* module_filename) {
    return find_module_bps(data, module_filename) != nullptr;
}

tBp* find_bound_bps(tBpOpsData* data, const char* module_filename, int lineno) {
    tModuleBps* const module_bps = find_module_bps(data, module_filename);
    const CUt_HashEntry* const entry =
        module_bps != nullptr ? find_line_entry(&module_bps->lines, lineno) : nullptr;
    return entry != nullptr ? static_cast<tBp*>(entry->clientData) : nullptr;
}

// Null when out of memory, the table as it was.
static tModuleBps* get_or_make_module_bps(tBpOpsData* data, const char* module_filename) {
    tBpLists* const lists = lists_of(data);
    int is_new = 0;
    CUt_HashEntry* const entry = create_hash_entry(&lists->module_bps, module_filename, &is_new);
    if (entry == nullptr || !is_new) {
        return entry != nullptr ? static_cast<tModuleBps*>(entry->clientData) : nullptr;
    }
    tModuleBps* const module_bps = static_cast<tModuleBps*>(malloc(sizeof(tModuleBps)));
    if (module_bps == nullptr) {
        CU_DeleteHashEntry(entry);
        return nullptr;
    }
    CU_InitHashTable(&module_bps->lines, kHashIntKeys);
    entry->clientData = module_bps;
    lists->known_module = nullptr;  // it may have been known to have none
    return module_bps;
}

static void drop_module_bps_if_empty(tBpOpsData* data, const char* module_filename) {
    tBpLists* const lists = lists_of(data);
    CUt_HashEntry* const entry = find_hash_entry(&lists->module_bps, module_filename);
    tModuleBps* const module_bps =
        entry != nullptr ? static_cast<tModuleBps*>(entry->clientData) : nullptr;
    if (module_bps != nullptr && module_bps->lines.numEntries == 0) {
        CU_DeleteHashEntry(entry);
        free_module_bps(module_bps);
        lists->known_module = nullptr;
    }
}

// Breakpoints may be bound in any order; they are visited by age, newest first, as on their line.
static void push_by_age(CUt_HashEntry* line, tBp* bp) {
    tBp* head = static_cast<tBp*>(line->clientData);
    tBp** link = &head;
    while (*link != nullptr && (*link)->id > bp->id) {
        link = &(*link)->next_bound;
    }
    bp->next_bound = *link;
    *link = bp;
    line->clientData = head;
}

bool enter_bound_bp(tBpOpsData* data, tBp* bp, const char* module_filename) {
    tModuleBps* const module_bps = get_or_make_module_bps(data, module_filename);
    int is_new = 0;
    CUt_HashEntry* const line = module_bps != nullptr
                                    ? create_hash_entry(&module_bps->lines, &bp->lineno, &is_new)
                                    : nullptr;
    if (line != nullptr) {
        push_by_age(line, bp);
    } else {
        drop_module_bps_if_empty(data, module_filename);
    }
    return line != nullptr;
}

void remove_bound_bp(tBpOpsData* data, tBp* bp) {
    tModuleBps* const module_bps = find_module_bps(data, bp->module_filename);
    CUt_HashEntry* const line =
        module_bps != nullptr ? find_line_entry(&module_bps->lines, bp->lineno) : nullptr;
    if (line == nullptr) {
        return;
    }
    tBp* head = static_cast<tBp*>(line->clientData);
    for (tBp** link = &head; *link != nullptr; link = &(*link)->next_bound) {
        if (*link == bp) {
            *link = bp->next_bound;
            break;
        }
    }
    bp->next_bound = nullptr;
    line->clientData = head;
    if (head == nullptr) {
        CU_DeleteHashEntry(line);
        drop_module_bps_if_empty(data, bp->module_filename);
    }
}
