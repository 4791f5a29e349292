// dbgtracerhash_test.cpp -- the hash table on its own: nothing here needs an interpreter.
#include "dbgtracerhash.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/alloc_failures.h"

namespace {

// A table for one test; what it still holds at the end goes, the values stay.
class tTestTable {
public:
    explicit tTestTable(unsigned key_type) { CU_InitHashTable(&table_, key_type); }
    tTestTable(const tTestTable&) = delete;
    tTestTable& operator=(const tTestTable&) = delete;
    ~tTestTable() { CU_DeleteHashTable(&table_); }
    CUt_HashTable* operator->() { return &table_; }
    operator CUt_HashTable*() { return &table_; }  // NOLINT(google-explicit-constructor)

    CUt_HashEntry* add(const void* key) {
        int is_new = -1;
        CUt_HashEntry* const entry = table_.createProc(&table_, key, &is_new);
        EXPECT_EQ(is_new, 1);
        EXPECT_NE(entry, nullptr);
        return entry;
    }
    CUt_HashEntry* find(const void* key) { return table_.findProc(&table_, key); }

private:
    CUt_HashTable table_;
};

std::vector<CUt_HashEntry*> all_entries(CUt_HashTable* table) {
    std::vector<CUt_HashEntry*> entries;
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(table, &search); entry != nullptr;
         entry = CU_NextHashEntry(&search)) {
        entries.push_back(entry);
    }
    return entries;
}

// The rule of the string hash, as plain as can be.
unsigned expected_string_bucket(const std::string& key, const CUt_HashTable* table) {
    uint32_t hash = 0;
    for (char c : key) {
        const int value =
            static_cast<unsigned char>(c) < 128 ? c : static_cast<unsigned char>(c) - 256;
        hash = hash * 9u + static_cast<uint32_t>(value);
    }
    return hash & static_cast<uint32_t>(table->mask);
}

unsigned expected_array_bucket(const std::string& key, const CUt_HashTable* table) {
    int64_t sum = 0;
    for (char c : key) {
        sum += static_cast<unsigned char>(c) < 128 ? c : static_cast<unsigned char>(c) - 256;
    }
    const uint32_t product = static_cast<uint32_t>(sum) * 0x41C64E6Du;
    return (product >> table->downShift) & static_cast<uint32_t>(table->mask);
}

std::string bytes_of(const void* data, size_t size) {
    return std::string(static_cast<const char*>(data), size);
}

std::string numbered(const char* prefix, int number) {
    return prefix + std::to_string(number);
}

}  // namespace

TEST(HashTable, StartsWithFourBucketsInTheRecord) {
    tTestTable table(kHashStringKeys);
    EXPECT_EQ(table->buckets, table->staticBuckets);
    for (CUt_HashEntry* bucket : table->staticBuckets) {
        EXPECT_EQ(bucket, nullptr);
    }
    EXPECT_EQ(table->numBuckets, 4u);
    EXPECT_EQ(table->numEntries, 0u);
    EXPECT_EQ(table->rebuildSize, 12u);
    EXPECT_EQ(table->downShift, 28);
    EXPECT_EQ(table->mask, 3);
    EXPECT_EQ(table->keyType, 0u);
    EXPECT_EQ(table->findProc, CU_StringFind);
    EXPECT_EQ(table->createProc, CU_StringCreate);
}

TEST(HashTable, ChoosesItsProceduresByKeyType) {
    for (unsigned key_type : {1u, 4u, 8u, 16u}) {
        tTestTable table(key_type);
        EXPECT_EQ(table->keyType, key_type);
        EXPECT_EQ(table->findProc, CU_ArrayFind);
        EXPECT_EQ(table->createProc, CU_ArrayCreate);
    }
    EXPECT_EQ(kHashPointerKeys, sizeof(void*));
    EXPECT_EQ(kHashIntKeys, 4u);
}

TEST(HashTable, GrowsOnThe12thAndThe48thStringKey) {
    tTestTable table(kHashStringKeys);
    for (int i = 1; i <= 48; i++) {
        table.add(numbered("name", i).c_str());
        EXPECT_EQ(table->numEntries, static_cast<unsigned>(i));
        EXPECT_EQ(table->numBuckets, i < 12 ? 4u : i < 48 ? 16u : 64u) << i;
        EXPECT_EQ(table->rebuildSize, 3 * table->numBuckets);
        EXPECT_EQ(table->mask, static_cast<int>(table->numBuckets) - 1);
        EXPECT_EQ(table->downShift, i < 12 ? 28 : i < 48 ? 26 : 24) << i;
    }
    EXPECT_NE(table->buckets, table->staticBuckets);
}

TEST(HashTable, GrowsOnThe12thAndThe48thArrayKey) {
    for (unsigned key_type : {4u, 8u, 16u}) {
        tTestTable table(key_type);
        for (int i = 1; i <= 48; i++) {
            char key[16] = {};
            memcpy(key, &i, sizeof(i));
            table.add(key);
            EXPECT_EQ(table->numBuckets, i < 12 ? 4u : i < 48 ? 16u : 64u) << i;
        }
    }
}

TEST(HashTable, KeepsEntriesWhenItGrows) {
    tTestTable table(kHashStringKeys);
    std::map<std::string, CUt_HashEntry*> made;
    for (int i = 0; i < 200; i++) {
        const std::string key = numbered("/srv/app/module", i);
        made[key] = table.add(key.c_str());
    }
    EXPECT_EQ(table->numBuckets, 256u);
    for (const auto& [key, entry] : made) {
        EXPECT_EQ(table.find(key.c_str()), entry) << key;
    }
}

TEST(HashTable, AllocatesFourPointersAndTheKey) {
    SKIP_WITHOUT_ALLOC_TAP();
    constexpr size_t kHeader = 4 * sizeof(void*);
    tTestTable strings(kHashStringKeys);
    tTestTable ints(kHashIntKeys);
    tTestTable filenos(16);
    const char fileno[16] = {};
    const int number = 1;
    tAllocTapScope tap;
    strings.add("name");
    const size_t string_size = tap.last_size();
    strings.add("");
    const size_t empty_size = tap.last_size();
    ints.add(&number);
    const size_t int_size = tap.last_size();
    filenos.add(fileno);
    const size_t fileno_size = tap.last_size();
    const long allocations = tap.allocations();
    tap.stop();
    EXPECT_EQ(string_size, kHeader + 5);
    EXPECT_EQ(empty_size, kHeader + 1);
    EXPECT_EQ(int_size, kHeader + 4);
    EXPECT_EQ(fileno_size, kHeader + 16);
    EXPECT_EQ(allocations, 4);
}

TEST(HashTable, ANewEntryKnowsItsTableAndHasNoValue) {
    tTestTable table(kHashStringKeys);
    CUt_HashEntry* const entry = table.add("name");
    EXPECT_EQ(entry->tablePtr, static_cast<CUt_HashTable*>(table));
    EXPECT_EQ(entry->clientData, nullptr);
    EXPECT_EQ(*entry->bucketPtr, entry);
    EXPECT_STREQ(entry->key.string, "name");
}

TEST(HashTable, CreatingAnExistingKeyFindsTheSameEntry) {
    tTestTable table(kHashStringKeys);
    CUt_HashEntry* const first = table.add("name");
    int value = 0;
    first->clientData = &value;
    const std::string same_text = "name";
    int is_new = -1;
    EXPECT_EQ(table->createProc(table, same_text.c_str(), &is_new), first);
    EXPECT_EQ(is_new, 0);
    EXPECT_EQ(table->numEntries, 1u);
    EXPECT_EQ(first->clientData, &value);
}

TEST(HashTable, CreatingAnExistingArrayKeyFindsTheSameEntry) {
    for (unsigned key_type : {4u, 8u, 16u}) {
        tTestTable table(key_type);
        const char key[16] = {1, 2, 3, 4, 5, 6, 7, 8};
        CUt_HashEntry* const first = table.add(key);
        int is_new = -1;
        EXPECT_EQ(table->createProc(table, key, &is_new), first);
        EXPECT_EQ(is_new, 0);
        EXPECT_EQ(table->numEntries, 1u);
    }
}

TEST(HashTable, NewEntriesHeadTheirChain) {
    tTestTable table(kHashIntKeys);
    const int keys[] = {1, 256, 65536};  // the same byte sum
    for (const int& key : keys) {
        CUt_HashEntry* const entry = table.add(&key);
        EXPECT_EQ(*entry->bucketPtr, entry);
    }
    const std::vector<CUt_HashEntry*> entries = all_entries(table);
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0], table.find(&keys[2]));
    EXPECT_EQ(entries[1], table.find(&keys[1]));
    EXPECT_EQ(entries[2], table.find(&keys[0]));
}

TEST(HashTable, TheEmptyStringIsAKeyInBucketZero) {
    tTestTable table(kHashStringKeys);
    EXPECT_EQ(table.find(""), nullptr);
    CUt_HashEntry* const entry = table.add("");
    EXPECT_EQ(entry->bucketPtr, &table->buckets[0]);
    EXPECT_EQ(table.find(""), entry);
    EXPECT_STREQ(entry->key.string, "");
}

TEST(HashTable, StringKeysCompareToTheirEnd) {
    tTestTable table(kHashStringKeys);
    CUt_HashEntry* const shorter = table.add("module");
    CUt_HashEntry* const longer = table.add("module.py");
    EXPECT_NE(shorter, longer);
    EXPECT_EQ(table.find("module"), shorter);
    EXPECT_EQ(table.find("module.py"), longer);
    EXPECT_EQ(table.find("module.p"), nullptr);
}

TEST(HashTable, StringHashTakesBytesAsSigned) {
    // 1024 buckets, as below that bytes above 127 hash alike signed and unsigned.
    tTestTable table(kHashStringKeys);
    for (int i = 0; i < 800; i++) {
        table.add(numbered("\xc3\xa9", i).c_str());
    }
    ASSERT_EQ(table->numBuckets, 1024u);
    for (CUt_HashEntry* entry : all_entries(table)) {
        const unsigned bucket = static_cast<unsigned>(entry->bucketPtr - table->buckets);
        EXPECT_EQ(bucket, expected_string_bucket(get_hash_key(entry), table));
    }
}

TEST(HashTable, ArrayHashTakesUpperBitsOfTheProduct) {
    tTestTable table(kHashIntKeys);
    const int one = 1;       // sum 1: 0x41C64E6D >> 28 = 4, bucket 0
    const int two = 2;       // 0x838C9CDA >> 28 = 8, bucket 0
    const int three = 3;     // 0xC552EB47 >> 28 = 12, bucket 0
    const int four = 4;      // 0x071939B4 >> 28 = 0
    const int minus = 0xff;  // sum -1: 0xBE39B193 >> 28 = 11, bucket 3
    EXPECT_EQ(table.add(&one)->bucketPtr, &table->buckets[0]);
    EXPECT_EQ(table.add(&two)->bucketPtr, &table->buckets[0]);
    EXPECT_EQ(table.add(&three)->bucketPtr, &table->buckets[0]);
    EXPECT_EQ(table.add(&four)->bucketPtr, &table->buckets[0]);
    EXPECT_EQ(table.add(&minus)->bucketPtr, &table->buckets[3]);
}

TEST(HashTable, SumOfAWordIsThatOfItsSignedBytes) {
    uint64_t random = 1;
    for (int round = 0; round < 10000; round++) {
        random = random * 6364136223846793005u + 1442695040888963407u;
        const uintptr_t word = static_cast<uintptr_t>(random >> (round % 3 == 0 ? 0 : 7));
        int expected = 0;
        for (size_t i = 0; i < sizeof(word); i++) {
            expected += static_cast<signed char>((word >> (8 * i)) & 0xff);
        }
        ASSERT_EQ(sum_signed_bytes(word), expected) << word;
    }
    EXPECT_EQ(sum_signed_bytes(0), 0);
    EXPECT_EQ(sum_signed_bytes(~uintptr_t{0}), -static_cast<int>(sizeof(void*)));
    EXPECT_EQ(sum_signed_bytes(~uintptr_t{0} / 0xff * 0x80),
              -128 * static_cast<int>(sizeof(void*)));
    EXPECT_EQ(sum_signed_bytes(~uintptr_t{0} / 0xff * 0x7f), 127 * static_cast<int>(sizeof(void*)));
}

TEST(HashTable, ANegativeKeyTypeHashesToZero) {
    CUt_HashTable table;
    CU_InitHashTable(&table, static_cast<unsigned>(INT_MIN));
    EXPECT_EQ(table.findProc(&table, "unused"), nullptr);
    CU_DeleteHashTable(&table);
}

TEST(HashTable, ArrayKeysCompareEveryByte) {
    for (unsigned key_type : {3u, 4u, 8u, 16u}) {
        for (unsigned differing = 0; differing < key_type; differing++) {
            tTestTable table(key_type);
            char key[16] = {};
            CUt_HashEntry* const plain = table.add(key);
            key[differing] = 1;
            EXPECT_EQ(table.find(key), nullptr);
            CUt_HashEntry* const other = table.add(key);
            EXPECT_NE(plain, other);
            EXPECT_EQ(table.find(key), other);
        }
    }
}

TEST(HashTable, SixteenByteKeysThatDifferInTheLastByteAreDistinct) {
    tTestTable table(16);
    char a[16] = {'/', 'x'};
    char b[16] = {'/', 'x'};
    b[15] = 1;
    CUt_HashEntry* const a_entry = table.add(a);
    CUt_HashEntry* const b_entry = table.add(b);
    EXPECT_NE(a_entry, b_entry);
    EXPECT_EQ(table.find(a), a_entry);
    EXPECT_EQ(table.find(b), b_entry);
}

TEST(HashTable, ArrayKeysMayContainZeroBytes) {
    tTestTable table(kHashIntKeys);
    const int zero = 0;
    const int high = 0x01000000;
    CUt_HashEntry* const entry = table.add(&high);
    EXPECT_EQ(table.find(&zero), nullptr);
    EXPECT_EQ(table.find(&high), entry);
}

TEST(HashTable, KeysNeedNoAlignment) {
    for (unsigned key_type : {4u, 8u, 16u}) {
        tTestTable table(key_type);
        char buffer[24] = {9, 1, 2, 3, 4, 5, 6, 7, 8};
        CUt_HashEntry* const entry = table.add(buffer + 1);
        char elsewhere[24] = {};
        memcpy(elsewhere + 3, buffer + 1, key_type);
        EXPECT_EQ(table.find(elsewhere + 3), entry);
    }
}

TEST(HashTable, PointerLookUpAgreesWithTheTables) {
    tTestTable table(kHashPointerKeys);
    std::vector<char> things(300);
    for (char& thing : things) {
        const void* const pointer = &thing;
        EXPECT_EQ(find_pointer_entry(table, pointer), nullptr);
        CUt_HashEntry* const entry = table.add(&pointer);
        EXPECT_EQ(get_hash_word(entry), reinterpret_cast<uintptr_t>(pointer));
    }
    for (char& thing : things) {
        const void* const pointer = &thing;
        EXPECT_NE(find_pointer_entry(table, pointer), nullptr);
        EXPECT_EQ(find_pointer_entry(table, pointer), table.find(&pointer));
    }
    CU_DeleteHashTable(table);
    EXPECT_EQ(find_pointer_entry(table, things.data()), nullptr);
}

TEST(HashTable, DeletesTheHeadTheMiddleAndTheEndOfAChain) {
    const int keys[] = {1, 256, 65536};  // one chain
    for (int victim = 0; victim < 3; victim++) {
        tTestTable table(kHashIntKeys);
        for (const int& key : keys) {
            table.add(&key);
        }
        CU_DeleteHashEntry(table.find(&keys[victim]));
        EXPECT_EQ(table->numEntries, 2u);
        for (int i = 0; i < 3; i++) {
            EXPECT_EQ(table.find(&keys[i]) == nullptr, i == victim);
        }
        EXPECT_EQ(all_entries(table).size(), 2u);
    }
}

TEST(HashTable, DeletingAnEntryLeavesItsValue) {
    SKIP_WITHOUT_ALLOC_TAP();
    tTestTable table(kHashStringKeys);
    int value = 0;
    table.add("name")->clientData = &value;
    tAllocTapScope tap;
    CU_DeleteHashEntry(table.find("name"));
    const long frees = tap.frees();
    tap.stop();
    EXPECT_EQ(frees, 1);
}

TEST(HashTable, DeallocatingAnEntryFreesItsValueIfAny) {
    SKIP_WITHOUT_ALLOC_TAP();
    tTestTable table(kHashStringKeys);
    table.add("with")->clientData = malloc(10);
    table.add("without");
    tAllocTapScope tap;
    CU_DeallocHashEntry(table.find("with"));
    const long with = tap.frees();
    CU_DeallocHashEntry(table.find("without"));
    const long without = tap.frees() - with;
    tap.stop();
    EXPECT_EQ(with, 2);
    EXPECT_EQ(without, 1);
    EXPECT_EQ(table->numEntries, 0u);
}

TEST(HashTable, TearDownFreesAllEntriesAndTheBuckets) {
    SKIP_WITHOUT_ALLOC_TAP();
    for (bool with_values : {false, true}) {
        CUt_HashTable table;
        CU_InitHashTable(&table, kHashStringKeys);
        for (int i = 0; i < 20; i++) {
            int is_new = 0;
            table.createProc(&table, numbered("k", i).c_str(), &is_new);
        }
        if (with_values) {
            table.findProc(&table, "k3")->clientData = malloc(1);
            table.findProc(&table, "k7")->clientData = malloc(1);
        }
        tAllocTapScope tap;
        with_values ? CU_DeallocHashTable(&table) : CU_DeleteHashTable(&table);
        const long frees = tap.frees();
        tap.stop();
        EXPECT_EQ(frees, 20 + 1 + (with_values ? 2 : 0));
    }
}

TEST(HashTable, GrowthFreesTheBucketsItLeaves) {
    SKIP_WITHOUT_ALLOC_TAP();
    CUt_HashTable table;
    CU_InitHashTable(&table, kHashIntKeys);
    tAllocTapScope tap;
    for (int i = 0; i < 200; i++) {
        int is_new = 0;
        table.createProc(&table, &i, &is_new);
    }
    const long live = tap.live();
    CU_DeleteHashTable(&table);
    const long left = tap.live();
    tap.stop();
    EXPECT_EQ(table.numBuckets, 256u);
    EXPECT_EQ(live, 200 + 1);
    EXPECT_EQ(left, 0);
}

TEST(HashTable, ADeadTableFindsAndCreatesNothing) {
    for (bool dealloc : {false, true}) {
        for (unsigned key_type : {0u, 4u, 8u, 16u}) {
            CUt_HashTable table;
            CU_InitHashTable(&table, key_type);
            const char key[16] = "key";
            int is_new = -1;
            ASSERT_NE(table.createProc(&table, key, &is_new), nullptr);
            dealloc ? CU_DeallocHashTable(&table) : CU_DeleteHashTable(&table);
            EXPECT_EQ(table.findProc, CU_BogusFind);
            EXPECT_EQ(table.createProc, CU_BogusCreate);
            EXPECT_EQ(table.findProc(&table, key), nullptr);
            is_new = 77;
            EXPECT_EQ(table.createProc(&table, key, &is_new), nullptr);
            EXPECT_EQ(is_new, 77);
            EXPECT_EQ(table.numEntries, 1u);
            EXPECT_EQ(table.numBuckets, 4u);
            EXPECT_EQ(table.buckets, table.staticBuckets);
        }
    }
}

TEST(HashTable, ADeadTableHasNothingToIterateOrTearDown) {
    CUt_HashTable table;
    CU_InitHashTable(&table, kHashStringKeys);
    for (int i = 0; i < 20; i++) {
        int is_new = 0;
        table.createProc(&table, numbered("k", i).c_str(), &is_new);
    }
    CU_DeleteHashTable(&table);
    CUt_HashSearch search;
    EXPECT_EQ(CU_FirstHashEntry(&table, &search), nullptr);
    CU_DeleteHashTable(&table);
    CU_DeallocHashTable(&table);
    CU_InitHashTable(&table, kHashStringKeys);
    int is_new = 0;
    EXPECT_NE(table.createProc(&table, "again", &is_new), nullptr);
    CU_DeleteHashTable(&table);
}

TEST(HashTable, IterationOfAnEmptyTableEndsAtOnce) {
    tTestTable table(kHashStringKeys);
    CUt_HashSearch search;
    EXPECT_EQ(CU_FirstHashEntry(table, &search), nullptr);
    EXPECT_EQ(search.nextIndex, 4u);
    EXPECT_EQ(CU_NextHashEntry(&search), nullptr);
}

TEST(HashTable, IterationGoesByBucketThenChain) {
    tTestTable table(kHashStringKeys);
    for (int i = 0; i < 40; i++) {
        table.add(numbered("k", i).c_str());
    }
    std::vector<CUt_HashEntry*> expected;
    for (unsigned i = 0; i < table->numBuckets; i++) {
        for (CUt_HashEntry* entry = table->buckets[i]; entry != nullptr; entry = entry->nextPtr) {
            expected.push_back(entry);
        }
    }
    EXPECT_EQ(all_entries(table), expected);
    EXPECT_EQ(expected.size(), 40u);
}

TEST(HashTable, TheEntryJustHandedOutMayBeDeleted) {
    for (int count : {1, 2, 11, 12, 100}) {
        tTestTable table(kHashStringKeys);
        for (int i = 0; i < count; i++) {
            table.add(numbered("k", i).c_str());
        }
        std::multiset<std::string> seen;
        CUt_HashSearch search;
        for (CUt_HashEntry* entry = CU_FirstHashEntry(table, &search); entry != nullptr;
             entry = CU_NextHashEntry(&search)) {
            const std::string key = get_hash_key(entry);
            seen.insert(key);
            if (key.back() % 2 == 0) {
                CU_DeleteHashEntry(entry);
            }
        }
        EXPECT_EQ(seen.size(), static_cast<size_t>(count));
        for (int i = 0; i < count; i++) {
            EXPECT_EQ(seen.count(numbered("k", i)), 1u) << i;
            const bool kept = numbered("k", i).back() % 2 != 0;
            EXPECT_EQ(table.find(numbered("k", i).c_str()) != nullptr, kept) << i;
        }
    }
}

TEST(HashTable, StatsOfOneEntry) {
    tTestTable table(kHashStringKeys);
    table.add("name");
    char* const text = CU_HashStats(table);
    EXPECT_STREQ(text,
                 "1 entries in table, 4 buckets\n"
                 "number of buckets with 0 entries: 3\n"
                 "number of buckets with 1 entries: 1\n"
                 "number of buckets with 2 entries: 0\n"
                 "number of buckets with 3 entries: 0\n"
                 "number of buckets with 4 entries: 0\n"
                 "number of buckets with 5 entries: 0\n"
                 "number of buckets with 6 entries: 0\n"
                 "number of buckets with 7 entries: 0\n"
                 "number of buckets with 8 entries: 0\n"
                 "number of buckets with 9 entries: 0\n"
                 "number of buckets with 10 or more entries: 0\n"
                 "average search distance for entry: 1.0");
    free(text);
}

TEST(HashTable, StatsOfAnEmptyTableHaveNoAverage) {
    tTestTable table(kHashStringKeys);
    char* const text = CU_HashStats(table);
    ASSERT_NE(text, nullptr);
    EXPECT_NE(strstr(text, "number of buckets with 0 entries: 4\n"), nullptr);
    const char* const average = strstr(text, "average search distance for entry: ");
    ASSERT_NE(average, nullptr);
    EXPECT_NE(strstr(average, "nan"), nullptr) << average;
    free(text);
}

TEST(HashTable, StatsCountLongChainsTogether) {
    tTestTable table(kHashIntKeys);
    for (int i = 0; i < 11; i++) {  // ten keys and one with the byte sum 10
        const int key = i | ((10 - i) << 8);
        table.add(&key);
    }
    char* const text = CU_HashStats(table);
    EXPECT_NE(strstr(text, "11 entries in table, 4 buckets\n"), nullptr);
    EXPECT_NE(strstr(text, "number of buckets with 0 entries: 3\n"), nullptr);
    EXPECT_NE(strstr(text, "number of buckets with 10 or more entries: 1\n"), nullptr);
    EXPECT_NE(strstr(text, "average search distance for entry: 6.0"), nullptr);
    free(text);
}

TEST(HashTable, StatsWithoutMemoryAreNull) {
    SKIP_WITHOUT_ALLOC_TAP();
    tTestTable table(kHashStringKeys);
    tAllocTapScope tap(1);
    char* const text = CU_HashStats(table);
    const size_t size = tap.last_size();
    tap.stop();
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(size, 900u);
}

TEST(HashTable, CreateWithoutMemoryLeavesTheTableAsItWas) {
    SKIP_WITHOUT_ALLOC_TAP();
    for (unsigned key_type : {0u, 4u, 8u, 16u}) {
        tTestTable table(key_type);
        const char key[16] = "key";
        int is_new = -1;
        tAllocTapScope tap(1);
        CUt_HashEntry* const entry = table->createProc(table, key, &is_new);
        tap.stop();
        EXPECT_EQ(entry, nullptr);
        EXPECT_EQ(is_new, 1);
        EXPECT_EQ(table->numEntries, 0u);
        EXPECT_EQ(table.find(key), nullptr);
        EXPECT_TRUE(all_entries(table).empty());
        EXPECT_NE(table.add(key), nullptr);
    }
}

TEST(HashTable, AFailedGrowthKeepsTheOldBuckets) {
    SKIP_WITHOUT_ALLOC_TAP();
    tTestTable table(kHashStringKeys);
    for (int i = 0; i < 11; i++) {
        table.add(numbered("k", i).c_str());
    }
    int is_new = -1;
    const std::string twelfth = "k11";
    tAllocTapScope tap(2);  // the entry, then the buckets
    CUt_HashEntry* const entry = table->createProc(table, twelfth.c_str(), &is_new);
    const bool has_failed = tap.has_failed();
    tap.stop();
    EXPECT_TRUE(has_failed);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(is_new, 1);
    EXPECT_EQ(table->numEntries, 12u);
    EXPECT_EQ(table->buckets, table->staticBuckets);
    EXPECT_EQ(table->numBuckets, 4u);
    EXPECT_EQ(table->mask, 3);
    EXPECT_EQ(table->downShift, 28);
    EXPECT_EQ(table->rebuildSize, 12u);
    EXPECT_EQ(all_entries(table).size(), 12u);
    table.add("k12");  // tries again
    EXPECT_EQ(table->numBuckets, 16u);
    for (int i = 0; i < 13; i++) {
        EXPECT_NE(table.find(numbered("k", i).c_str()), nullptr) << i;
    }
}

// A table and a plain model of it under the same random operations.
namespace {

class tModelRun {
public:
    tModelRun(unsigned key_type, uint64_t seed) : table_(key_type), random_(seed) {}

    void run(int steps) {
        for (int i = 0; i < steps && !testing::Test::HasFailure(); i++) {
            // Tides of growth and decline, so that every size is passed in both directions.
            const bool rising = (i / 1000) % 2 == 0;
            const unsigned choice = next() % 10;
            if (choice < (rising ? 6u : 2u)) {
                create();
            } else if (choice < (rising ? 7u : 8u)) {
                remove();
            } else {
                look_up();
            }
            if (i % 500 == 0) {
                check_all();
            }
        }
        delete_while_iterating();
        check_all();
    }

private:
    unsigned next() {
        random_ = random_ * 6364136223846793005u + 1442695040888963407u;
        return static_cast<unsigned>(random_ >> 33);
    }

    std::string random_key() {
        const size_t length = table_->keyType != 0 ? table_->keyType : next() % 9;
        std::string key(length, '\0');
        const unsigned variety = next() % 3 == 0 ? 255 : 6;  // few values: collisions and repeats
        for (char& c : key) {
            c = static_cast<char>(next() % variety + (table_->keyType == 0 ? 1 : 0));
        }
        return key;
    }

    std::string key_of(const CUt_HashEntry* entry) {
        return table_->keyType != 0 ? bytes_of(get_hash_key(entry), table_->keyType)
                                    : std::string(get_hash_key(entry));
    }

    void create() {
        const std::string key = random_key();
        const bool known = model_.count(key) != 0;
        int is_new = -1;
        CUt_HashEntry* const entry = table_->createProc(table_, key.c_str(), &is_new);
        ASSERT_NE(entry, nullptr);
        ASSERT_EQ(is_new, known ? 0 : 1);
        ASSERT_EQ(entry->clientData, known ? model_[key] : nullptr);
        serial_++;
        entry->clientData = reinterpret_cast<void*>(serial_);
        model_[key] = entry->clientData;
    }

    void remove() {
        const std::string key = random_key();
        CUt_HashEntry* const entry = table_.find(key.c_str());
        ASSERT_EQ(entry != nullptr, model_.erase(key) != 0);
        if (entry != nullptr) {
            CU_DeleteHashEntry(entry);
        }
    }

    void look_up() {
        const std::string key = random_key();
        const CUt_HashEntry* const entry = table_.find(key.c_str());
        ASSERT_EQ(entry != nullptr, model_.count(key) != 0);
        ASSERT_EQ(find_hash_value(table_, key.c_str()), entry != nullptr ? model_[key] : nullptr);
    }

    void check_all() {
        ASSERT_EQ(table_->numEntries, model_.size());
        ASSERT_EQ(table_->rebuildSize, 3 * table_->numBuckets);
        ASSERT_EQ(table_->numBuckets, static_cast<unsigned>(table_->mask) + 1);
        ASSERT_LT(table_->numEntries, table_->rebuildSize);
        std::map<std::string, void*> found;
        for (CUt_HashEntry* entry : all_entries(table_)) {
            const std::string key = key_of(entry);
            const unsigned bucket = static_cast<unsigned>(entry->bucketPtr - table_->buckets);
            ASSERT_EQ(bucket,
                      table_->keyType != 0 ? expected_array_bucket(key, table_)
                                           : expected_string_bucket(key, table_));
            ASSERT_TRUE(found.emplace(key, entry->clientData).second) << "twice: " << key;
        }
        ASSERT_EQ(found, model_);
    }

    void delete_while_iterating() {
        CUt_HashSearch search;
        for (CUt_HashEntry* entry = CU_FirstHashEntry(table_, &search); entry != nullptr;
             entry = CU_NextHashEntry(&search)) {
            if (next() % 3 != 0) {
                model_.erase(key_of(entry));
                CU_DeleteHashEntry(entry);
            }
        }
    }

    tTestTable table_;
    std::map<std::string, void*> model_;
    uintptr_t serial_ = 0;
    uint64_t random_;
};

}  // namespace

TEST(HashTable, BehavesLikeAMapUnderRandomOperations) {
    for (unsigned key_type : {0u, 1u, 3u, 4u, 8u, 16u}) {
        SCOPED_TRACE(key_type);
        tModelRun run(key_type, 20240607u + key_type);
        run.run(20000);
    }
}
