#include "hashTable.h"

#include "allocations.h"
#include "scopedTable.h"
#include "together.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <numeric>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int COPYING = HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY;
constexpr int INTEGERS = HASH_INT_KEY | HASH_FLAG_ATOMIC;
constexpr int THREADS = 4;

void *Value(uintptr_t number) { return reinterpret_cast<void *>(number); }
const void *IntKey(uintptr_t number) { return reinterpret_cast<const void *>(number); }

uintptr_t At(const ScopedTable &table, const void *key)
{
    void *value = nullptr;
    EXPECT_TRUE(HashTable_Lookup(table.get(), key, &value));
    return reinterpret_cast<uintptr_t>(value);
}

size_t CountByWalking(const ScopedTable &table)
{
    size_t count = 0;
    HashTable_ForEach(
        table.get(),
        [](const void *, void *, void *userData) {
            ++*static_cast<size_t *>(userData);
            return 0;
        },
        &count);
    return count;
}

// ---- Another thread runs between the search of the chain and the entry's publication ----

// Runs the deed in another thread while the next block is allocated, which happens just then.
template <typename Deed> void Meanwhile(Deed deed)
{
    Allocations::Meanwhile([deed] { std::thread(deed).join(); });
}

// Makes a table of one bucket with either function.
HashTable *Made(bool once)
{
    HashTable *shared = nullptr;
    return once ? HashTable_AllocOnce(&shared, 1, COPYING, nullptr)
                : HashTable_Alloc(1, COPYING, nullptr);
}

class HashTableOvertaken : public testing::TestWithParam<bool> {
protected:
    // Has another thread insert the key under test meanwhile.
    void EnterMeanwhile(const char *key, uintptr_t value)
    {
        Meanwhile(
            [this, key, value] { EXPECT_TRUE(HashTable_Insert(mTable.get(), key, Value(value))); });
    }
    const ptrdiff_t mBefore = Allocations::Live();
    ScopedTable mTable{Made(GetParam())};
    static constexpr int TABLE = 2, ENTRY = 1; // blocks
};

TEST_P(HashTableOvertaken, InsertTellsThatTheKeyIsThere)
{
    EnterMeanwhile("key", 2);
    EXPECT_FALSE(HashTable_Insert(mTable.get(), "key", Value(1)));
    EXPECT_EQ(At(mTable, "key"), 2u);
    EXPECT_EQ(CountByWalking(mTable), 1u);
    EXPECT_EQ(HashTable_GetNumElements(mTable.get()), 1u);
}

TEST_P(HashTableOvertaken, TheLosersEntryIsReleased)
{
    EnterMeanwhile("key", 2);
    HashTable_Insert(mTable.get(), "key", Value(1));
    EXPECT_EQ(Allocations::Live() - mBefore, TABLE + ENTRY);
}

TEST_P(HashTableOvertaken, LookupOrInsertGivesTheOthersValue)
{
    EnterMeanwhile("key", 2);
    EXPECT_EQ(HashTable_LookupOrInsert(mTable.get(), "key", Value(1)), Value(2));
    EXPECT_EQ(Allocations::Live() - mBefore, TABLE + ENTRY);
}

TEST_P(HashTableOvertaken, ReplaceOrInsertReplacesTheOthersValue)
{
    EnterMeanwhile("key", 2);
    EXPECT_TRUE(HashTable_ReplaceOrInsert(mTable.get(), "key", Value(1)));
    EXPECT_EQ(At(mTable, "key"), 1u);
    EXPECT_EQ(Allocations::Live() - mBefore, TABLE + ENTRY);
}

TEST_P(HashTableOvertaken, InsertTriesAgainBehindAnotherKey)
{
    EnterMeanwhile("other", 2);
    const size_t made = Allocations::Calls();
    EXPECT_TRUE(HashTable_Insert(mTable.get(), "key", Value(1)));
    EXPECT_EQ(Allocations::Calls() - made, ENTRY) << "with the same entry";
    EXPECT_EQ(At(mTable, "key"), 1u);
    EXPECT_EQ(At(mTable, "other"), 2u);
    EXPECT_EQ(HashTable_GetNumElements(mTable.get()), 2u);
    EXPECT_EQ(Allocations::Live() - mBefore, TABLE + 2 * ENTRY);
}

INSTANTIATE_TEST_SUITE_P(MadeBy, HashTableOvertaken, testing::Bool(),
                         [](const auto &row) { return row.param ? "AllocOnce" : "Alloc"; });

TEST(HashTableAllocOnce, GivesTheTableOfWhoWasFaster)
{
    HashTable *shared = nullptr;
    HashTable *others = nullptr;
    const ptrdiff_t before = Allocations::Live();
    Meanwhile([&] { others = HashTable_AllocOnce(&shared, 16, INTEGERS, nullptr); });
    EXPECT_EQ(HashTable_AllocOnce(&shared, 16, INTEGERS, nullptr), others);
    EXPECT_EQ(shared, others);
    EXPECT_NE(others, nullptr);
    EXPECT_EQ(Allocations::Live() - before, 2) << "the other table is released";
    HashTable_Free(shared);
}

// ---- Many threads at once ----

TEST(HashTableAllocOnce, GivesAllThreadsOneTable)
{
    for (int round = 0; round < 200; round++) {
        const ptrdiff_t before = Allocations::Live();
        HashTable *shared = nullptr;
        std::vector<HashTable *> received(THREADS);
        Together(THREADS, [&](int i) {
            received[i] = HashTable_AllocOnce(&shared, 4, INTEGERS, nullptr);
            HashTable_Insert(received[i], IntKey(i), nullptr);
        });
        EXPECT_THAT(received, testing::Each(shared));
        HashTable_Free(shared);
        EXPECT_EQ(Allocations::Live(), before);
    }
}

TEST(HashTableThreads, EveryKeyHasOneInserter)
{
    constexpr int KEYS = 20000;
    std::vector<std::string> keys;
    for (int i = 0; i < KEYS; i++) {
        keys.push_back("key number " + std::to_string(i));
    }
    const ptrdiff_t before = Allocations::Live();
    ScopedTable table(HashTable_Alloc(1024, COPYING, nullptr));
    std::atomic<int> inserted{0};
    Together(THREADS, [&](int thread) {
        for (const std::string &key : keys) {
            if (HashTable_Insert(table.get(), key.c_str(), Value(thread + 1))) { inserted++; }
            EXPECT_NE(At(table, key.c_str()), 0u);
        }
    });
    EXPECT_EQ(inserted, KEYS);
    EXPECT_EQ(CountByWalking(table), static_cast<size_t>(KEYS));
    EXPECT_LE(HashTable_GetNumElements(table.get()), static_cast<size_t>(KEYS));
    table.reset();
    EXPECT_EQ(Allocations::Live(), before) << "the losers' blocks included";
}

// In the race the table's count may lose increments, and the arrays then lack keys.  The walk still
// visits every key once.
TEST(HashTableThreads, WalksEveryKeyOnceAfterConcurrentInserts)
{
    constexpr uintptr_t KEYS = 50000; // for each thread
    const ScopedTable table(HashTable_Alloc(1U << 14, INTEGERS, nullptr));
    Together(THREADS, [&](int thread) {
        for (uintptr_t i = 0; i < KEYS; i++) {
            const uintptr_t key = i * THREADS + static_cast<uintptr_t>(thread);
            HashTable_Insert(table.get(), IntKey(key), Value(key));
        }
    });
    std::vector<bool> walked(KEYS * THREADS);
    const auto mark = [](const void *key, void *value, void *userData) {
        auto &marked = *static_cast<std::vector<bool> *>(userData);
        EXPECT_EQ(key, value);
        EXPECT_FALSE(marked[reinterpret_cast<uintptr_t>(key)]);
        marked[reinterpret_cast<uintptr_t>(key)] = true;
        return 0;
    };
    EXPECT_EQ(HashTable_ForEach(table.get(), mark, &walked), 0);
    EXPECT_THAT(walked, testing::Each(true));

    const void **keys = nullptr;
    size_t size = 0;
    HashTable_KeyArray(table.get(), &keys, &size);
    EXPECT_EQ(size, HashTable_GetNumElements(table.get()));
    EXPECT_LE(size, walked.size());
    EXPECT_EQ(std::set<const void *>(keys, keys + size).size(), size) << "no key is there twice";
    free(keys);
}

TEST(HashTableThreads, TheCountDoesNotUnderflowAfterLostIncrements)
{
    constexpr uintptr_t KEYS = 100000; // for each thread
    const ScopedTable table(HashTable_Alloc(1U << 18, INTEGERS, nullptr));
    Together(THREADS, [&](int thread) {
        for (uintptr_t i = 0; i < KEYS; i++) {
            HashTable_Insert(table.get(), IntKey(i * THREADS + static_cast<uintptr_t>(thread)),
                             nullptr);
        }
    });
    EXPECT_EQ(CountByWalking(table), KEYS * THREADS);
    for (uintptr_t key = 0; key < KEYS * THREADS; key++) {
        EXPECT_TRUE(HashTable_Delete(table.get(), IntKey(key)));
    }
    EXPECT_EQ(HashTable_GetNumElements(table.get()), 0u);
}

TEST(HashTableThreads, EveryKeyHasOneValue)
{
    constexpr int KEYS = 20000;
    const ScopedTable table(HashTable_Alloc(1024, INTEGERS, nullptr));
    std::vector<std::vector<void *>> received(THREADS);
    Together(THREADS, [&](int thread) {
        for (uintptr_t key = 0; key < KEYS; key++) {
            void *mine = Value(key * THREADS + thread + 1);
            received[thread].push_back(HashTable_LookupOrInsert(table.get(), IntKey(key), mine));
        }
    });
    EXPECT_THAT(received, testing::Each(received[0]));
}

std::atomic<uintptr_t> sDroppedSum;
void SumDropped(void *value) { sDroppedSum += reinterpret_cast<uintptr_t>(value); }

TEST(HashTableThreads, EveryReplacedValueIsDroppedOnce)
{
    constexpr uintptr_t ROUNDS = 200000;
    sDroppedSum = 0;
    std::atomic<uintptr_t> stored{0};
    ScopedTable table(HashTable_Alloc(16, INTEGERS, SumDropped));
    Together(THREADS, [&](int thread) {
        uintptr_t sum = 0;
        for (uintptr_t i = 1; i <= ROUNDS; i++) {
            const uintptr_t value = i * THREADS + static_cast<uintptr_t>(thread);
            HashTable_ReplaceOrInsert(table.get(), IntKey(7), Value(value));
            sum += value;
        }
        stored += sum;
    });
    table.reset(); // drops the last values
    EXPECT_EQ(sDroppedSum, stored);
}

TEST(HashTableThreads, NoReplacementOfAnExpectedValueIsLost)
{
    constexpr uintptr_t ROUNDS = 100000;
    const ScopedTable table(HashTable_Alloc(16, INTEGERS, nullptr));
    HashTable_Insert(table.get(), IntKey(1), Value(0));
    Together(THREADS, [&](int) {
        for (uintptr_t i = 0; i < ROUNDS; i++) {
            uintptr_t now = 0;
            do {
                now = At(table, IntKey(1));
            } while (!HashTable_ReplaceIfEqual(table.get(), IntKey(1), Value(now), Value(now + 1)));
        }
    });
    EXPECT_EQ(At(table, IntKey(1)), THREADS * ROUNDS);
}

TEST(HashTableThreads, FoundValuesPointToCompleteData)
{
    constexpr uintptr_t KEYS = 5000;
    struct Pair {
        uintptr_t number, doubled;
    };
    std::vector<Pair> pairs(KEYS), replacements(KEYS);
    const ScopedTable table(HashTable_Alloc(1024, INTEGERS, nullptr));
    std::atomic<size_t> wrong{0}, found{0};
    Together(THREADS, [&](int thread) {
        for (uintptr_t key = 0; key < KEYS; key++) {
            if (thread == 0) {
                pairs[key] = {key, 2 * key};
                HashTable_Insert(table.get(), IntKey(key), &pairs[key]);
                replacements[key] = {key, 2 * key};
                if (key % 2 == 0) {
                    HashTable_ReplaceOrInsert(table.get(), IntKey(key), &replacements[key]);
                } else {
                    HashTable_ReplaceIfEqual(table.get(), IntKey(key), &pairs[key],
                                             &replacements[key]);
                }
                continue;
            }
            void *value = nullptr;
            while (!HashTable_Lookup(table.get(), IntKey(key), &value)) {
                std::this_thread::yield(); // not stored yet
            }
            const Pair pair = *static_cast<Pair *>(value);
            wrong += pair.number != key || pair.doubled != 2 * key;
            found++;
        }
    });
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(found, (THREADS - 1) * KEYS);
}

// The operations that return values.  The data that a value points to must be readable through each
// of them.
struct ValueFinder {
    const char *name;
    void *(*find)(HashTable *table, const void *key);
};
void PrintTo(const ValueFinder &finder, std::ostream *stream) { *stream << finder.name; }

void *FindByLookup(HashTable *table, const void *key)
{
    void *value = nullptr;
    HashTable_Lookup(table, key, &value);
    return value;
}

void *FindByLookupOrInsert(HashTable *table, const void *key)
{
    return HashTable_LookupOrInsert(table, key, nullptr);
}

void *FindInArray(HashTable *table, const void *)
{
    void **values = nullptr;
    size_t size = 0;
    HashTable_ValueArray(table, &values, &size);
    void *value = values[0];
    free(values);
    return value;
}

void *FindByWalking(HashTable *table, const void *)
{
    void *found = nullptr;
    HashTable_ForEach(
        table,
        [](const void *, void *value, void *userData) {
            *static_cast<void **>(userData) = value;
            return 0;
        },
        &found);
    return found;
}

class HashTableValueFound : public testing::TestWithParam<ValueFinder> {};

TEST_P(HashTableValueFound, IsWholeWhileItIsReplaced)
{
    constexpr uintptr_t ROUNDS = 20000;
    std::vector<uintptr_t> numbers(ROUNDS + 1);
    const ScopedTable table(HashTable_Alloc(1, INTEGERS, nullptr));
    numbers[0] = 1;
    HashTable_Insert(table.get(), IntKey(7), &numbers[0]);
    std::atomic<size_t> wrong{0};
    Together(THREADS, [&](int thread) {
        for (uintptr_t i = 1; i <= ROUNDS; i++) {
            if (thread == 0) {
                numbers[i] = i + 1;
                HashTable_ReplaceOrInsert(table.get(), IntKey(7), &numbers[i]);
                continue;
            }
            const auto *number = static_cast<uintptr_t *>(GetParam().find(table.get(), IntKey(7)));
            wrong += *number != static_cast<uintptr_t>(number - numbers.data()) + 1;
        }
    });
    EXPECT_EQ(wrong, 0u);
}

INSTANTIATE_TEST_SUITE_P(Ways, HashTableValueFound,
                         testing::Values(ValueFinder{"lookup", FindByLookup},
                                         ValueFinder{"lookupOrInsert", FindByLookupOrInsert},
                                         ValueFinder{"array", FindInArray},
                                         ValueFinder{"walk", FindByWalking}));

// Frees a number on the heap that only its own thread knew before storing it.
std::atomic<uintptr_t> sDroppedNumbers;
void DropNumber(void *value)
{
    const std::unique_ptr<uintptr_t> number(static_cast<uintptr_t *>(value));
    sDroppedNumbers += *number;
}

TEST(HashTableThreads, DroppedValuesPointToCompleteData)
{
    constexpr uintptr_t ROUNDS = 20000;
    sDroppedNumbers = 0;
    ScopedTable table(HashTable_Alloc(1, INTEGERS, DropNumber));
    HashTable_Insert(table.get(), IntKey(7), new uintptr_t(0));
    Together(THREADS, [&](int thread) {
        for (uintptr_t i = 0; i < ROUNDS; i++) {
            auto *fresh = new uintptr_t(1);
            if (thread % 2 == 0) {
                HashTable_ReplaceOrInsert(table.get(), IntKey(7), fresh);
                continue;
            }
            while (!HashTable_ReplaceIfEqual(table.get(), IntKey(7), Value(At(table, IntKey(7))),
                                             fresh)) {}
        }
    });
    table.reset(); // drops the last one
    EXPECT_EQ(sDroppedNumbers, THREADS * ROUNDS);
}

TEST(HashTableThreads, AConcurrentWalkSeesExistingKeysOnce)
{
    constexpr uintptr_t KEYS = 3000;
    const ScopedTable table(HashTable_Alloc(16, INTEGERS, nullptr));
    std::atomic<uintptr_t> entered{0}; // keys below this are in the table
    Together(THREADS, [&](int thread) {
        if (thread == 0) {
            for (uintptr_t key = 0; key < KEYS; key++) {
                HashTable_Insert(table.get(), IntKey(key), Value(key));
                entered = key + 1;
            }
            return;
        }
        for (uintptr_t before = 0; before < KEYS;) {
            before = entered;
            std::set<uintptr_t> walked;
            HashTable_ForEach(
                table.get(),
                [](const void *key, void *, void *userData) {
                    auto *seen = static_cast<std::set<uintptr_t> *>(userData);
                    EXPECT_TRUE(seen->insert(reinterpret_cast<uintptr_t>(key)).second);
                    return 0;
                },
                &walked);
            EXPECT_GE(std::distance(walked.begin(), walked.lower_bound(before)),
                      static_cast<ptrdiff_t>(before));
        }
    });
}

TEST(HashTableThreads, AnArrayIsFullWhileKeysAreEntered)
{
    constexpr uintptr_t KEYS = 3000;
    const ScopedTable table(HashTable_Alloc(16, INTEGERS, nullptr));
    std::atomic<bool> isDone{false};
    Together(THREADS, [&](int thread) {
        if (thread < 2) { // these race, so the count may be wrong
            for (uintptr_t key = 1; key <= KEYS; key++) {
                HashTable_Insert(table.get(), IntKey(2 * key + thread), Value(key));
            }
            isDone = true;
            return;
        }
        do {
            const void **keys = nullptr;
            size_t size = 0;
            HashTable_KeyArray(table.get(), &keys, &size);
            const std::set<const void *> distinct(keys, keys + size);
            EXPECT_EQ(distinct.size(), size);
            EXPECT_EQ(distinct.count(nullptr), 0u);
            free(keys);
        } while (!isDone);
    });
}

TEST(HashTableThreads, ReadersAllocateNothingWhileAnotherInserts)
{
    constexpr uintptr_t LOOKUPS = 1'000'000;
    const ScopedTable table(HashTable_Alloc(2048, COPYING, nullptr));
    HashTable_Insert(table.get(), "key", Value(1));
    std::atomic<bool> isDone{false};
    std::thread writer([&] {
        for (int i = 0; i < 20000 && !isDone; i++) {
            HashTable_Insert(table.get(), std::to_string(i).c_str(), Value(1));
        }
    });
    const size_t before = Allocations::Calls();
    uintptr_t found = 0;
    for (uintptr_t i = 0; i < LOOKUPS; i++) {
        void *value = nullptr;
        HashTable_Lookup(table.get(), "key", &value);
        found += reinterpret_cast<uintptr_t>(value);
    }
    isDone = true;
    writer.join();
    EXPECT_EQ(found, LOOKUPS);
    EXPECT_EQ(Allocations::Calls(), before);
}

} // namespace
