// hashTableForTests.h -- makes a hash table, and looks up its values.
#ifndef PELAGO_TESTS_MISC_HASHTABLEFORTESTS_H
#define PELAGO_TESTS_MISC_HASHTABLEFORTESTS_H

#include "hashTable.h"

#include "scopedTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

inline ScopedTable MakeTable(uint32_t numEntries, int flags,
                             HashTableFreeEntryFn freeEntryFn = nullptr)
{
    return ScopedTable(HashTable_Alloc(numEntries, flags, freeEntryFn));
}

inline void *Value(uintptr_t number) { return reinterpret_cast<void *>(number); }
inline const void *IntKey(uintptr_t number) { return reinterpret_cast<const void *>(number); }

inline std::vector<const void *> Keys(const ScopedTable &table)
{
    const void **keys = nullptr;
    size_t size = 0;
    HashTable_KeyArray(table.get(), &keys, &size);
    std::vector<const void *> all(keys, keys + size);
    free(keys);
    return all;
}

inline std::vector<std::string> StringKeys(const ScopedTable &table)
{
    std::vector<std::string> all;
    for (const void *key : Keys(table)) {
        all.emplace_back(static_cast<const char *>(key));
    }
    return all;
}

// Returns the value of the key, or a number that no test stores.
constexpr uintptr_t ABSENT = 987654321;
inline uintptr_t At(const ScopedTable &table, const void *key)
{
    void *value = Value(ABSENT);
    const bool isThere = HashTable_Lookup(table.get(), key, &value);
    EXPECT_EQ(isThere, value != Value(ABSENT));
    return reinterpret_cast<uintptr_t>(value);
}

#endif // PELAGO_TESTS_MISC_HASHTABLEFORTESTS_H
