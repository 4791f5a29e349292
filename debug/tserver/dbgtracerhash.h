// dbgtracerhash.h -- chained hash table: text or fixed-length byte keys, one pointer per entry.
// It never calls the interpreter and takes no lock: the caller serialises access (no GIL needed).
// A table lives where it was initialised, since it can point into itself; never copy one. It owns
// its entries and their copies of the keys, never what clientData points to, but for the Dealloc
// operations, which free() every value that is not null.
#pragma once

#include <string.h>

#include "xpy_types.h"

using CUt_ClientData = void*;
struct CUt_HashTable;

// Key types: the byte length of the key, or text.
inline constexpr unsigned kHashStringKeys = 0;               // NUL-terminated text
inline constexpr unsigned kHashIntKeys = sizeof(int);        // key argument: address of an int
inline constexpr unsigned kHashPointerKeys = sizeof(void*);  // key argument: address of a pointer
inline constexpr unsigned kHashStaticBuckets = 4;

// One allocation: four pointers, then the key as long as it is.
struct CUt_HashEntry {
    CUt_HashEntry* nextPtr;     // next in the bucket; null at the end
    CUt_HashTable* tablePtr;    // the table that owns this entry
    CUt_HashEntry** bucketPtr;  // head slot of this entry's chain
    CUt_ClientData clientData;  // the value; null in a new entry
    union {
        char bytes[4];
        char string[4];
    } key;  // really the whole text with its NUL, or keyType bytes
};

using CUt_HashFindProc = CUt_HashEntry* (*)(CUt_HashTable* table, const void* key);
using CUt_HashCreateProc = CUt_HashEntry* (*)(CUt_HashTable* table, const void* key, int* newPtr);

struct CUt_HashTable {
    CUt_HashEntry** buckets;  // staticBuckets until the first growth, then owned
    CUt_HashEntry* staticBuckets[kHashStaticBuckets];
    unsigned int numBuckets;   // power of 4
    unsigned int numEntries;   // stored now
    unsigned int rebuildSize;  // numEntries at which the table grows: 3 * numBuckets
    int downShift;             // right shift of an array key's product: 28, 2 less per growth
    int mask;                  // numBuckets - 1
    unsigned int keyType;      // 0: text; else the length of every key in bytes
    CUt_HashFindProc findProc;
    CUt_HashCreateProc createProc;
};

// Position of an iteration; on the caller's stack.
struct CUt_HashSearch {
    CUt_HashTable* tablePtr;
    unsigned int nextIndex;       // next bucket to visit
    CUt_HashEntry* nextEntryPtr;  // next entry to hand out; null: at nextIndex
};

TDBG_API void CU_InitHashTable(CUt_HashTable* table, unsigned keyType);

// Usually reached through findProc and createProc, which know the kind of key. `key` is the text
// itself or the address of the key's bytes. Find: borrowed, null when there is none. Create: the
// entry there is with *newPtr = 0, or a new one with *newPtr = 1; null when out of memory, with
// *newPtr = 1 and the table as it was.
TDBG_API CUt_HashEntry* CU_StringFind(CUt_HashTable* table, const void* key);
TDBG_API CUt_HashEntry* CU_StringCreate(CUt_HashTable* table, const void* key, int* newPtr);
TDBG_API CUt_HashEntry* CU_ArrayFind(CUt_HashTable* table, const void* key);
TDBG_API CUt_HashEntry* CU_ArrayCreate(CUt_HashTable* table, const void* key, int* newPtr);

// Those of a table that was torn down: always null, *newPtr is not written.
TDBG_API CUt_HashEntry* CU_BogusFind(CUt_HashTable* table, const void* key);
TDBG_API CUt_HashEntry* CU_BogusCreate(CUt_HashTable* table, const void* key, int* newPtr);

// Four times the buckets; leaves the table as it was when out of memory. Create calls it.
TDBG_API void CU_RebuildTable(CUt_HashTable* table);

// Unlinks and frees the entry; Dealloc also free()s its value.
TDBG_API void CU_DeleteHashEntry(CUt_HashEntry* entry);
TDBG_API void CU_DeallocHashEntry(CUt_HashEntry* entry);

// Frees all entries and the buckets; Dealloc also free()s the values. The table is dead then, and
// only CU_InitHashTable brings it back. A second tear-down does nothing.
TDBG_API void CU_DeleteHashTable(CUt_HashTable* table);
TDBG_API void CU_DeallocHashTable(CUt_HashTable* table);

// Entries by bucket, then by chain; borrowed, null at the end. The entry handed out may be deleted
// before the next is asked for; nothing may be inserted meanwhile.
TDBG_API CUt_HashEntry* CU_FirstHashEntry(CUt_HashTable* table, CUt_HashSearch* search);
TDBG_API CUt_HashEntry* CU_NextHashEntry(CUt_HashSearch* search);

// Report on chain lengths; caller frees. Null when out of memory.
TDBG_API char* CU_HashStats(CUt_HashTable* table);

// Short forms of the calls through the table.
inline CUt_HashEntry* find_hash_entry(CUt_HashTable* table, const void* key) {
    return table->findProc(table, key);
}

inline CUt_HashEntry* create_hash_entry(CUt_HashTable* table, const void* key, int* is_new) {
    return table->createProc(table, key, is_new);
}

// Value stored under the key, borrowed; null when there is none.
inline CUt_ClientData find_hash_value(CUt_HashTable* table, const void* key) {
    CUt_HashEntry* const entry = table->findProc(table, key);
    return entry != nullptr ? entry->clientData : nullptr;
}

// The key's bytes; its declared length of 4 is not the real one, which the compiler must not see.
inline const char* get_hash_key(const CUt_HashEntry* entry) {
    return reinterpret_cast<const char*>(entry) + offsetof(CUt_HashEntry, key);
}

// The word that an entry of a table with pointer keys is stored under.
inline uintptr_t get_hash_word(const CUt_HashEntry* entry) {
    uintptr_t word = 0;
    memcpy(&word, get_hash_key(entry), sizeof(word));
    return word;
}

// Sum of a word's bytes taken as signed: each byte is made unsigned by adding 128, neighbours are
// added in 16-bit lanes, one multiplication collects the lanes in the highest.
inline int sum_signed_bytes(uintptr_t word) {
    constexpr int kBytes = sizeof(uintptr_t);
    constexpr uintptr_t kOnes = ~uintptr_t{0} / 0xff;     // 0x0101..01
    constexpr uintptr_t kLanes = ~uintptr_t{0} / 0xffff;  // 0x00010001..
    constexpr uintptr_t kEvenBytes = kLanes * 0xff;       // 0x00ff00ff..
    const uintptr_t biased = word ^ (kOnes * 0x80);
    const uintptr_t pairs = (biased & kEvenBytes) + ((biased >> 8) & kEvenBytes);
    return static_cast<int>((pairs * kLanes) >> (8 * kBytes - 16)) - 128 * kBytes;
}

// Bucket number of an array key with this byte sum.
inline unsigned get_array_bucket(const CUt_HashTable* table, int byte_sum) {
    constexpr uint32_t kMultiplier = 1103515245;
    const int32_t product = static_cast<int32_t>(static_cast<uint32_t>(byte_sum) * kMultiplier);
    return static_cast<unsigned>((product >> table->downShift) & table->mask);
}

// As findProc of a table with pointer keys, without the calls: the thread table is asked on every
// trace event. Null on a dead table.
inline CUt_HashEntry* find_pointer_entry(CUt_HashTable* table, const void* pointer) {
    if (table->findProc != CU_ArrayFind) {
        return nullptr;
    }
    const uintptr_t word = reinterpret_cast<uintptr_t>(pointer);
    CUt_HashEntry* entry = table->buckets[get_array_bucket(table, sum_signed_bytes(word))];
    while (entry != nullptr && get_hash_word(entry) != word) {
        entry = entry->nextPtr;
    }
    return entry;
}
