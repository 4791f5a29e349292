// hash_fuzz.cpp -- the hash table with every kind of key, against std::map.
#include "dbgtracerhash.h"

#include <string.h>

#include <map>

#include "fuzz.h"

namespace {

constexpr unsigned kKeyTypes[] = {kHashStringKeys, kHashIntKeys, kHashPointerKeys, 16, 3, 1};
constexpr size_t kMostEntries = 600;

struct tTables {
    unsigned key_type;
    CUt_HashTable table;
    std::map<std::string, uintptr_t> model;
};

// A key as the table compares it; arrays have their whole length.
std::string read_key(tInput* input, unsigned key_type) {
    std::string key = input->text();
    if (key_type != kHashStringKeys) {
        key.resize(key_type, '\0');
    }
    return key;
}

void check_all(tTables* both) {
    size_t seen = 0;
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&both->table, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        const std::string key = both->key_type == kHashStringKeys
                                    ? std::string(entry->key.string)
                                    : std::string(entry->key.bytes, both->key_type);
        const auto found = both->model.find(key);
        FUZZ_CHECK(found != both->model.end());
        FUZZ_CHECK(reinterpret_cast<uintptr_t>(entry->clientData) == found->second);
        ++seen;
    }
    FUZZ_CHECK(seen == both->model.size());
    FUZZ_CHECK(both->table.numEntries == both->model.size());
}

void do_operation(tTables* both, tInput* input) {
    const unsigned operation = input->below(8);
    const std::string key = read_key(input, both->key_type);
    const bool known = both->model.count(key) != 0;
    if (operation < 4) {
        if (both->model.size() >= kMostEntries && !known) {
            return;
        }
        int is_new = 77;
        CUt_HashEntry* const entry = both->table.createProc(&both->table, key.data(), &is_new);
        FUZZ_CHECK(entry != nullptr && is_new == (known ? 0 : 1));
        const uintptr_t value = input->byte();
        entry->clientData = reinterpret_cast<void*>(value);
        both->model[key] = value;
    } else if (operation < 6) {
        CUt_HashEntry* const entry = both->table.findProc(&both->table, key.data());
        FUZZ_CHECK((entry != nullptr) == known);
        if (entry != nullptr && operation == 5) {
            CU_DeleteHashEntry(entry);
            both->model.erase(key);
        }
    } else if (operation == 6) {
        check_all(both);
    } else {
        char* const statistics = CU_HashStats(&both->table);
        FUZZ_CHECK(statistics != nullptr);
        free(statistics);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    tInput input(bytes, size);
    tTables both = {};
    both.key_type = kKeyTypes[input.below(6)];
    CU_InitHashTable(&both.table, both.key_type);
    while (!input.is_empty()) {
        do_operation(&both, &input);
    }
    check_all(&both);
    CU_DeleteHashTable(&both.table);
    return 0;
}
