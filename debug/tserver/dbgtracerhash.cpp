#include "dbgtracerhash.h"

#include <stdio.h>
#include <stdlib.h>

static constexpr unsigned kEntriesPerBucket = 3;
static constexpr unsigned kGrowthFactor = 4;
static constexpr int kShiftPerGrowth = 2;  // log2 of the factor
static constexpr int kInitialDownShift = 28;
static constexpr unsigned kStatsLengths = 10;  // chain lengths counted one by one
static constexpr size_t kStatsSize = 900;
static constexpr size_t kEntryHeaderSize = offsetof(CUt_HashEntry, key);
static_assert(kEntryHeaderSize == 4 * sizeof(void*), "the key follows four pointers");

// A key as a table of one kind sees it. Find, create and growth are the same for all kinds but for
// how a key is hashed, compared and measured; every kind is one of these.
struct tStringKey {
    const char* text;

    explicit tStringKey(const CUt_HashTable*, const void* key)
        : text(static_cast<const char*>(key)) {}
    unsigned bucket(const CUt_HashTable* table) const {
        uint32_t hash = 0;
        for (const char* p = text; *p != '\0'; p++) {
            hash = hash * 9 +
                   static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*p)));
        }
        return hash & static_cast<unsigned>(table->mask);
    }
    bool equals(const CUt_HashEntry* entry) const { return strcmp(text, get_hash_key(entry)) == 0; }
    size_t size() const { return strlen(text) + 1; }
    const void* data() const { return text; }
};

struct tWordKey {
    uintptr_t word;

    explicit tWordKey(const CUt_HashTable*, const void* key) : word(0) {
        memcpy(&word, key, sizeof(word));
    }
    unsigned bucket(const CUt_HashTable* table) const {
        return get_array_bucket(table, sum_signed_bytes(word));
    }
    bool equals(const CUt_HashEntry* entry) const { return get_hash_word(entry) == word; }
    size_t size() const { return sizeof(word); }
    const void* data() const { return &word; }
};

struct tArrayKey {
    const void* bytes;
    unsigned length;

    explicit tArrayKey(const CUt_HashTable* table, const void* key)
        : bytes(key), length(table->keyType) {}
    // A key type that is negative as a number of bytes sums up to 0.
    unsigned bucket(const CUt_HashTable* table) const {
        const signed char* const values = static_cast<const signed char*>(bytes);
        const int count = static_cast<int>(length);
        int sum = 0;
        for (int i = 0; i < count; i++) {
            sum += values[i];
        }
        return get_array_bucket(table, sum);
    }
    bool equals(const CUt_HashEntry* entry) const {
        return memcmp(bytes, get_hash_key(entry), length) == 0;
    }
    size_t size() const { return length; }
    const void* data() const { return bytes; }
};

template <class tKey>
static CUt_HashEntry* find_in_bucket(const CUt_HashTable* table, const tKey& key, unsigned bucket) {
    CUt_HashEntry* entry = table->buckets[bucket];
    while (entry != nullptr && !key.equals(entry)) {
        entry = entry->nextPtr;
    }
    return entry;
}

static void push_entry(CUt_HashEntry* entry, CUt_HashEntry** bucket) {
    entry->bucketPtr = bucket;
    entry->nextPtr = *bucket;
    *bucket = entry;
}

template <class tKey>
static CUt_HashEntry* find_key(CUt_HashTable* table, const tKey& key) {
    return find_in_bucket(table, key, key.bucket(table));
}

template <class tKey>
static CUt_HashEntry* create_key(CUt_HashTable* table, const tKey& key, int* newPtr) {
    const unsigned bucket = key.bucket(table);
    CUt_HashEntry* entry = find_in_bucket(table, key, bucket);
    *newPtr = entry == nullptr;
    if (entry != nullptr) {
        return entry;
    }
    const size_t key_size = key.size();
    entry = static_cast<CUt_HashEntry*>(malloc(kEntryHeaderSize + key_size));
    if (entry == nullptr) {
        return nullptr;
    }
    entry->tablePtr = table;
    entry->clientData = nullptr;
    memcpy(const_cast<char*>(get_hash_key(entry)), key.data(), key_size);
    push_entry(entry, &table->buckets[bucket]);
    table->numEntries++;
    if (table->numEntries >= table->rebuildSize) {
        CU_RebuildTable(table);
    }
    return entry;
}

// Links the entries of one old chain into the new buckets; a chain's order may turn round.
template <class tKey>
static void move_chain(CUt_HashTable* table, CUt_HashEntry* chain) {
    while (chain != nullptr) {
        CUt_HashEntry* const entry = chain;
        chain = entry->nextPtr;
        const tKey key(table, get_hash_key(entry));
        push_entry(entry, &table->buckets[key.bucket(table)]);
    }
}

template <class tKey>
static void move_chains(CUt_HashTable* table, CUt_HashEntry** chains, unsigned count) {
    for (unsigned i = 0; i < count; i++) {
        move_chain<tKey>(table, chains[i]);
    }
}

static bool is_dead(const CUt_HashTable* table) {
    return table->findProc == CU_BogusFind;
}

static void free_buckets(CUt_HashTable* table, CUt_HashEntry** buckets) {
    if (buckets != table->staticBuckets) {
        free(buckets);
    }
}

void CU_InitHashTable(CUt_HashTable* table, unsigned keyType) {
    table->buckets = table->staticBuckets;
    for (CUt_HashEntry*& bucket : table->staticBuckets) {
        bucket = nullptr;
    }
    table->numBuckets = kHashStaticBuckets;
    table->numEntries = 0;
    table->rebuildSize = kHashStaticBuckets * kEntriesPerBucket;
    table->downShift = kInitialDownShift;
    table->mask = kHashStaticBuckets - 1;
    table->keyType = keyType;
    table->findProc = keyType == kHashStringKeys ? CU_StringFind : CU_ArrayFind;
    table->createProc = keyType == kHashStringKeys ? CU_StringCreate : CU_ArrayCreate;
}

CUt_HashEntry* CU_StringFind(CUt_HashTable* table, const void* key) {
    return find_key(table, tStringKey(table, key));
}

CUt_HashEntry* CU_StringCreate(CUt_HashTable* table, const void* key, int* newPtr) {
    return create_key(table, tStringKey(table, key), newPtr);
}

// Apart, so that the look-up of a word needs no stack frame.
[[gnu::noinline]] static CUt_HashEntry* find_array(CUt_HashTable* table, const void* key) {
    return find_key(table, tArrayKey(table, key));
}

CUt_HashEntry* CU_ArrayFind(CUt_HashTable* table, const void* key) {
    if (table->keyType == kHashPointerKeys) [[likely]] {
        return find_key(table, tWordKey(table, key));
    }
    return find_array(table, key);
}

CUt_HashEntry* CU_ArrayCreate(CUt_HashTable* table, const void* key, int* newPtr) {
    if (table->keyType == kHashPointerKeys) [[likely]] {
        return create_key(table, tWordKey(table, key), newPtr);
    }
    return create_key(table, tArrayKey(table, key), newPtr);
}

CUt_HashEntry* CU_BogusFind(CUt_HashTable*, const void*) {
    return nullptr;
}

CUt_HashEntry* CU_BogusCreate(CUt_HashTable*, const void*, int*) {
    return nullptr;
}

void CU_RebuildTable(CUt_HashTable* table) {
    if (table->downShift < kShiftPerGrowth) {
        return;  // 4^15 buckets: no bits of the product are left, and mask is an int
    }
    CUt_HashEntry** const old_buckets = table->buckets;
    const unsigned old_count = table->numBuckets;
    const unsigned new_count = old_count * kGrowthFactor;
    CUt_HashEntry** const new_buckets =
        static_cast<CUt_HashEntry**>(calloc(new_count, sizeof(void*)));
    if (new_buckets == nullptr) {
        return;  // numBuckets still tells the length of the array; the next create tries again
    }
    table->buckets = new_buckets;
    table->numBuckets = new_count;
    table->rebuildSize *= kGrowthFactor;
    table->downShift -= kShiftPerGrowth;
    table->mask = static_cast<int>(new_count - 1);
    if (table->keyType == kHashStringKeys) {
        move_chains<tStringKey>(table, old_buckets, old_count);
    } else {
        move_chains<tArrayKey>(table, old_buckets, old_count);
    }
    free_buckets(table, old_buckets);
}

void CU_DeleteHashEntry(CUt_HashEntry* entry) {
    CUt_HashEntry** link = entry->bucketPtr;
    while (*link != entry) {
        link = &(*link)->nextPtr;
    }
    *link = entry->nextPtr;
    entry->tablePtr->numEntries--;
    free(entry);
}

void CU_DeallocHashEntry(CUt_HashEntry* entry) {
    free(entry->clientData);
    CU_DeleteHashEntry(entry);
}

enum tValueFate { kKeepValues, kFreeValues };

static void free_chain(CUt_HashEntry* chain, tValueFate fate) {
    while (chain != nullptr) {
        CUt_HashEntry* const entry = chain;
        chain = entry->nextPtr;
        if (fate == kFreeValues) {
            free(entry->clientData);
        }
        free(entry);
    }
}

// The counts and the bucket pointer stay as they were, for whoever looks at a dead table in a
// debugger; the look-up functions tell that it is dead.
static void tear_down(CUt_HashTable* table, tValueFate fate) {
    if (is_dead(table)) {
        return;
    }
    for (unsigned i = 0; i < table->numBuckets; i++) {
        free_chain(table->buckets[i], fate);
    }
    free_buckets(table, table->buckets);
    table->findProc = CU_BogusFind;
    table->createProc = CU_BogusCreate;
}

void CU_DeleteHashTable(CUt_HashTable* table) {
    tear_down(table, kKeepValues);
}

void CU_DeallocHashTable(CUt_HashTable* table) {
    tear_down(table, kFreeValues);
}

CUt_HashEntry* CU_FirstHashEntry(CUt_HashTable* table, CUt_HashSearch* search) {
    search->tablePtr = table;
    search->nextIndex = 0;
    search->nextEntryPtr = nullptr;
    return CU_NextHashEntry(search);
}

CUt_HashEntry* CU_NextHashEntry(CUt_HashSearch* search) {
    const CUt_HashTable* const table = search->tablePtr;
    if (is_dead(table)) {
        return nullptr;
    }
    while (search->nextEntryPtr == nullptr) {
        if (search->nextIndex >= table->numBuckets) {
            return nullptr;
        }
        search->nextEntryPtr = table->buckets[search->nextIndex];
        search->nextIndex++;
    }
    CUt_HashEntry* const entry = search->nextEntryPtr;
    search->nextEntryPtr = entry->nextPtr;  // taken now: the caller may delete the entry
    return entry;
}

struct tChainStats {
    unsigned with_length[kStatsLengths];  // buckets whose chain has that many entries
    unsigned longer;                      // buckets with a longer chain
    double average_distance;              // entries looked at by a find that succeeds
};

static unsigned get_chain_length(const CUt_HashEntry* chain) {
    unsigned length = 0;
    for (; chain != nullptr; chain = chain->nextPtr) {
        length++;
    }
    return length;
}

static tChainStats measure_chains(const CUt_HashTable* table) {
    tChainStats stats = {};
    for (unsigned i = 0; i < table->numBuckets; i++) {
        const unsigned length = get_chain_length(table->buckets[i]);
        unsigned* const counter =
            length < kStatsLengths ? &stats.with_length[length] : &stats.longer;
        (*counter)++;
        // deliberate: an empty table has no average (0/0), and the report says "nan".
        const double entries = static_cast<double>(length);
        stats.average_distance += (entries + 1.0) * (entries / table->numEntries) / 2.0;
    }
    return stats;
}

char* CU_HashStats(CUt_HashTable* table) {
    const tChainStats stats = measure_chains(table);
    char* const text = static_cast<char*>(malloc(kStatsSize));
    if (text == nullptr) {
        return nullptr;
    }
    char* const end = text + kStatsSize;  // twice what the longest numbers need
    char* p = text;
    p += snprintf(p,
                  static_cast<size_t>(end - p),
                  "%d entries in table, %d buckets\n",
                  static_cast<int>(table->numEntries),
                  static_cast<int>(table->numBuckets));
    for (unsigned i = 0; i < kStatsLengths; i++) {
        p += snprintf(p,
                      static_cast<size_t>(end - p),
                      "number of buckets with %d entries: %d\n",
                      static_cast<int>(i),
                      static_cast<int>(stats.with_length[i]));
    }
    p += snprintf(p,
                  static_cast<size_t>(end - p),
                  "number of buckets with %d or more entries: %d\n",
                  static_cast<int>(kStatsLengths),
                  static_cast<int>(stats.longer));
    snprintf(p,
             static_cast<size_t>(end - p),
             "average search distance for entry: %.1f",
             stats.average_distance);
    return text;
}
