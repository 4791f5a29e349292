// bpops_lists.cpp -- where each table's lists are. A table lies inside the tracer's state, and
// callers of the exported functions may have one of their own: neither has room for more than the
// table's prescribed fields.
#include <stdlib.h>

#include "bpops_internal.h"

constinit tBpLists gFirstBpLists = {};
static constinit tBpLists gSpareBpLists = {};  // of tables for which there is no memory

static tBpLists* new_lists(const tBpOpsData* data) {
    tBpLists* const lists = static_cast<tBpLists*>(calloc(1, sizeof(tBpLists)));
    if (lists == nullptr) {
        return nullptr;
    }
    lists->owner = data;
    lists->next = gFirstBpLists.next;
    gFirstBpLists.next = lists;
    return lists;
}

[[gnu::noinline]] tBpLists* find_or_make_bp_lists(const tBpOpsData* data) {
    if (gFirstBpLists.owner == nullptr) {
        gFirstBpLists.owner = data;
        return &gFirstBpLists;
    }
    for (tBpLists* lists = gFirstBpLists.next; lists != nullptr; lists = lists->next) {
        if (lists->owner == data) {
            return lists;
        }
    }
    tBpLists* const lists = new_lists(data);
    return lists != nullptr ? lists : &gSpareBpLists;
}

// The tracer's are made anew with the next interpreter's state, at the same address.
void forget_bp_lists() {
    const tBpOpsData* const owner = gFirstBpLists.owner;
    tBpLists* const next = gFirstBpLists.next;
    gFirstBpLists = {};
    gFirstBpLists.owner = owner;
    gFirstBpLists.next = next;
}
