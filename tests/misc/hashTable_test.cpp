#include "hashTable.h"

#include "allocations.h"
#include "hashTableForTests.h"
#include "panic.h"
#include "scopedTable.h"

#include <cstring>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Values that the table has dropped, in order.
std::vector<void *> sDropped;
void NoteDropped(void *value) { sDropped.push_back(value); }

// ---- Creation ----

TEST(HashTableDeathTest, TakesPowersOfTwoOnly)
{
    for (const uint32_t numEntries : {48U, 3U, 127U, 0xFFFFFFFFU, 0U}) {
        EXPECT_PANIC(HashTable_Alloc(numEntries, HASH_STRING_KEY, nullptr),
                     "HashTable_Alloc only takes powers of 2 \n");
    }
}

TEST(HashTableDeathTest, NewSharedTablesNeedAPowerOfTwo)
{
    HashTable *shared = nullptr;
    EXPECT_PANIC(HashTable_AllocOnce(&shared, 48, HASH_STRING_KEY, nullptr),
                 "HashTable_Alloc only takes powers of 2 \n");
}

class UnknownKeyType : public testing::TestWithParam<int> {};
using UnknownKeyTypeDeathTest = UnknownKeyType;

TEST_P(UnknownKeyTypeDeathTest, EndsTheProcessAtTheFirstKey)
{
    const char report[] = "NOT_REACHED lib/misc/hashTable:108\n";
    HashTable *table = HashTable_Alloc(16, GetParam() | HASH_FLAG_COPYKEY, nullptr);
    EXPECT_EQ(HashTable_GetNumElements(table), 0u) << "made and asked without a key";
    EXPECT_PANIC(HashTable_Lookup(table, "key", nullptr), report);
    EXPECT_PANIC(HashTable_Insert(table, "key", nullptr), report);
    EXPECT_PANIC(HashTable_Delete(table, "key"), report);
    EXPECT_PANIC(HashTable_ReplaceIfEqual(table, "key", nullptr, nullptr), report);
    HashTable_Free(table);
}

INSTANTIATE_TEST_SUITE_P(Types, UnknownKeyTypeDeathTest, testing::Range(3, 8));

TEST(HashTable, IgnoresFlagsThatHaveNoMeaning)
{
    const ScopedTable table = MakeTable(16, HASH_INT_KEY | ~31);
    HashTable_Insert(table.get(), IntKey(5), Value(6));
    EXPECT_EQ(At(table, IntKey(5)), 6u);
}

TEST(HashTable, KeepsIntegerKeysDespiteTheCopyFlag)
{
    const ScopedTable table = MakeTable(16, HASH_INT_KEY | HASH_FLAG_COPYKEY);
    HashTable_Insert(table.get(), IntKey(5), Value(6));
    EXPECT_THAT(Keys(table), ElementsAre(IntKey(5)));
    EXPECT_TRUE(HashTable_Delete(table.get(), IntKey(5)));
}

TEST(HashTable, TellsIntegersOfAllBitsApart)
{
    const ScopedTable table = MakeTable(2, HASH_INT_KEY);
    for (int bit = 0; bit < 64; bit++) {
        EXPECT_TRUE(HashTable_Insert(table.get(), IntKey(uintptr_t{1} << bit), Value(bit)));
    }
    for (int bit = 0; bit < 64; bit++) {
        EXPECT_EQ(At(table, IntKey(uintptr_t{1} << bit)), static_cast<uintptr_t>(bit));
    }
}

TEST(HashTable, IsAListWhenItHasOneBucket)
{
    for (const int keyType : {HASH_STRING_KEY, HASH_ISTRING_KEY}) {
        const ScopedTable table = MakeTable(1, keyType);
        HashTable_Insert(table.get(), "", Value(1));
        HashTable_Insert(table.get(), "some", Value(2));
        HashTable_Insert(table.get(), "key", Value(3));
        EXPECT_THAT(StringKeys(table), ElementsAre("key", "some", ""));
        EXPECT_EQ(At(table, "some"), 2u);
        EXPECT_EQ(At(table, "other"), ABSENT);
    }
    const ScopedTable table = MakeTable(1, HASH_INT_KEY);
    HashTable_Insert(table.get(), IntKey(77), Value(1));
    EXPECT_EQ(At(table, IntKey(77)), 1u);
}

// ---- Every operation, with and without atomics and copies ----

class HashTableOfEachKind : public testing::TestWithParam<int> {
protected:
    HashTableOfEachKind() { sDropped.clear(); }
    ScopedTable Make(HashTableFreeEntryFn freeEntryFn = nullptr, uint32_t numEntries = 2)
    {
        return MakeTable(numEntries, HASH_STRING_KEY | GetParam(), freeEntryFn);
    }
};

TEST_P(HashTableOfEachKind, StartsEmpty)
{
    const ScopedTable table = Make();
    EXPECT_EQ(HashTable_GetNumElements(table.get()), 0u);
    EXPECT_FALSE(HashTable_Lookup(table.get(), "key", nullptr));
}

TEST_P(HashTableOfEachKind, LeavesTheOutputUntouchedForAnAbsentKey)
{
    const ScopedTable table = Make();
    HashTable_Insert(table.get(), "key", Value(1));
    void *value = Value(7);
    EXPECT_FALSE(HashTable_Lookup(table.get(), "other", &value));
    EXPECT_EQ(value, Value(7));
    EXPECT_FALSE(HashTable_Remove(table.get(), "other", &value));
    EXPECT_EQ(value, Value(7));
}

TEST_P(HashTableOfEachKind, FindsWhatWasInserted)
{
    const ScopedTable table = Make();
    EXPECT_TRUE(HashTable_Insert(table.get(), "key", Value(1)));
    EXPECT_TRUE(HashTable_Lookup(table.get(), "key", nullptr)) << "no place for the value needed";
    EXPECT_EQ(At(table, "key"), 1u);
    EXPECT_EQ(HashTable_GetNumElements(table.get()), 1u);
}

TEST_P(HashTableOfEachKind, HoldsNull)
{
    const ScopedTable table = Make();
    EXPECT_EQ(HashTable_LookupOrInsert(table.get(), "key", nullptr), nullptr);
    EXPECT_EQ(At(table, "key"), 0u);
}

TEST_P(HashTableOfEachKind, InsertsAPresentKeyNoSecondTime)
{
    const ScopedTable table = Make(NoteDropped);
    HashTable_Insert(table.get(), "key", Value(1));
    EXPECT_FALSE(HashTable_Insert(table.get(), "key", Value(2)));
    EXPECT_EQ(At(table, "key"), 1u);
    EXPECT_EQ(HashTable_GetNumElements(table.get()), 1u);
    EXPECT_THAT(sDropped, IsEmpty());
}

TEST_P(HashTableOfEachKind, LooksUpOrInserts)
{
    const ScopedTable table = Make(NoteDropped);
    EXPECT_EQ(HashTable_LookupOrInsert(table.get(), "key", Value(1)), Value(1));
    EXPECT_EQ(HashTable_LookupOrInsert(table.get(), "key", Value(2)), Value(1));
    EXPECT_EQ(At(table, "key"), 1u);
    EXPECT_EQ(HashTable_GetNumElements(table.get()), 1u);
    EXPECT_THAT(sDropped, IsEmpty());
}

TEST_P(HashTableOfEachKind, ReplacesOrInserts)
{
    const ScopedTable table = Make();
    EXPECT_FALSE(HashTable_ReplaceOrInsert(table.get(), "key", Value(1)));
    EXPECT_TRUE(HashTable_ReplaceOrInsert(table.get(), "key", Value(2)));
    EXPECT_EQ(At(table, "key"), 2u);
    EXPECT_EQ(HashTable_GetNumElements(table.get()), 1u);
}

TEST_P(HashTableOfEachKind, DropsTheValueThatIsReplaced)
{
    const ScopedTable table = Make(NoteDropped);
    HashTable_ReplaceOrInsert(table.get(), "key", Value(1));
    EXPECT_THAT(sDropped, IsEmpty());
    HashTable_ReplaceOrInsert(table.get(), "key", Value(2));
    EXPECT_THAT(sDropped, ElementsAre(Value(1)));
    EXPECT_EQ(At(table, "key"), 2u);
}

TEST_P(HashTableOfEachKind, DropsNullAsAnyValue)
{
    const ScopedTable table = Make(NoteDropped);
    HashTable_Insert(table.get(), "key", nullptr);
    HashTable_ReplaceOrInsert(table.get(), "key", nullptr);
    HashTable_ReplaceIfEqual(table.get(), "key", nullptr, nullptr);
    HashTable_Delete(table.get(), "key");
    EXPECT_THAT(sDropped, ElementsAre(nullptr, nullptr, nullptr));
}

TEST_P(HashTableOfEachKind, ReplacesTheExpectedValueOnly)
{
    const ScopedTable table = Make(NoteDropped);
    HashTable_Insert(table.get(), "key", Value(1));
    EXPECT_FALSE(HashTable_ReplaceIfEqual(table.get(), "key", Value(2), Value(3)));
    EXPECT_EQ(At(table, "key"), 1u);
    EXPECT_THAT(sDropped, IsEmpty());
    EXPECT_TRUE(HashTable_ReplaceIfEqual(table.get(), "key", Value(1), Value(3)));
    EXPECT_EQ(At(table, "key"), 3u);
    EXPECT_THAT(sDropped, ElementsAre(Value(1)));
}

TEST_P(HashTableOfEachKind, ReplacesTheExpectedValueWithoutAFreeFunction)
{
    const ScopedTable table = Make();
    HashTable_Insert(table.get(), "key", Value(1));
    EXPECT_TRUE(HashTable_ReplaceIfEqual(table.get(), "key", Value(1), Value(3)));
    EXPECT_EQ(At(table, "key"), 3u);
}

TEST_P(HashTableOfEachKind, ReplacesNothingUnderAnAbsentKey)
{
    const ScopedTable table = Make();
    EXPECT_FALSE(HashTable_ReplaceIfEqual(table.get(), "key", nullptr, Value(3)));
    EXPECT_EQ(HashTable_GetNumElements(table.get()), 0u);
}

TEST_P(HashTableOfEachKind, HandsARemovedValueOver)
{
    const ScopedTable table = Make(NoteDropped);
    HashTable_Insert(table.get(), "key", Value(1));
    void *value = nullptr;
    EXPECT_TRUE(HashTable_Remove(table.get(), "key", &value));
    EXPECT_EQ(value, Value(1));
    EXPECT_THAT(sDropped, IsEmpty());
    EXPECT_EQ(At(table, "key"), ABSENT);
    EXPECT_EQ(HashTable_GetNumElements(table.get()), 0u);
}

TEST_P(HashTableOfEachKind, DropsARemovedValueThatNobodyTakes)
{
    const ScopedTable table = Make(NoteDropped);
    HashTable_Insert(table.get(), "one", Value(1));
    HashTable_Insert(table.get(), "two", Value(2));
    EXPECT_TRUE(HashTable_Delete(table.get(), "one"));
    EXPECT_TRUE(HashTable_Remove(table.get(), "two", nullptr));
    EXPECT_THAT(sDropped, ElementsAre(Value(1), Value(2)));
    EXPECT_FALSE(HashTable_Delete(table.get(), "one")) << "it is gone";
}

TEST_P(HashTableOfEachKind, KeepsTheRestOfAChain)
{
    for (const char *gone : {"a", "b", "c"}) { // the last, the middle and the head of the chain
        const ScopedTable table = Make(nullptr, 1);
        std::vector<std::string> left{"c", "b", "a"};
        for (const char *key : {"a", "b", "c"}) {
            HashTable_Insert(table.get(), key, nullptr);
        }
        EXPECT_TRUE(HashTable_Delete(table.get(), gone));
        std::erase(left, gone);
        EXPECT_EQ(StringKeys(table), left);
        EXPECT_EQ(HashTable_GetNumElements(table.get()), 2u);
    }
}

TEST_P(HashTableOfEachKind, DropsEverythingWhenCleared)
{
    const ScopedTable table = Make(NoteDropped, 1);
    HashTable_Insert(table.get(), "one", Value(1));
    HashTable_Insert(table.get(), "two", Value(2));
    HashTable_Clear(table.get());
    EXPECT_THAT(sDropped, ElementsAre(Value(2), Value(1)));
    EXPECT_EQ(HashTable_GetNumElements(table.get()), 0u);
    EXPECT_EQ(At(table, "one"), ABSENT);
    EXPECT_TRUE(HashTable_Insert(table.get(), "one", Value(3))) << "and goes on";
}

TEST_P(HashTableOfEachKind, DropsEverythingWhenFreed)
{
    ScopedTable table = Make(NoteDropped, 1);
    HashTable_Insert(table.get(), "one", Value(1));
    HashTable_Insert(table.get(), "two", Value(2));
    HashTable_FreeAll(table.release());
    EXPECT_THAT(sDropped, ElementsAre(Value(2), Value(1)));
}

TEST_P(HashTableOfEachKind, ReleasesEveryBlock)
{
    const ptrdiff_t before = Allocations::Live();
    ScopedTable table = Make(nullptr, 16);
    for (const char *key : {"a", "b", "c", "d", "c", "e"}) {
        HashTable_Insert(table.get(), key, nullptr);
        HashTable_ReplaceOrInsert(table.get(), "f", nullptr);
    }
    HashTable_Delete(table.get(), "b");
    table.reset();
    EXPECT_EQ(Allocations::Live(), before);
}

INSTANTIATE_TEST_SUITE_P(Flags, HashTableOfEachKind,
                         testing::Values(0, HASH_FLAG_ATOMIC, HASH_FLAG_COPYKEY,
                                         HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY));

// ---- Keys ----

TEST(HashTable, CopiesKeysWhenAskedTo)
{
    const ScopedTable table = MakeTable(16, HASH_STRING_KEY | HASH_FLAG_COPYKEY);
    char key[] = "key";
    HashTable_Insert(table.get(), key, Value(1));
    strcpy(key, "yek");
    EXPECT_EQ(At(table, "key"), 1u);
    EXPECT_EQ(At(table, "yek"), ABSENT);
}

TEST(HashTable, KeepsTheCallersKeysOtherwise)
{
    const ScopedTable table = MakeTable(16, HASH_STRING_KEY);
    const char key[] = "key", sameText[] = "key";
    HashTable_Insert(table.get(), key, Value(1));
    HashTable_ReplaceOrInsert(table.get(), sameText, Value(2));
    EXPECT_THAT(Keys(table), ElementsAre(key)) << "the first one stays";
}

TEST(HashTable, ReadsNoKeyPastItsEnd)
{
    // The key is on the heap, so that a sanitizer sees what is read.
    const ScopedTable table = MakeTable(2, HASH_STRING_KEY | HASH_FLAG_COPYKEY);
    for (size_t length = 0; length < 40; length++) {
        const auto key = std::make_unique<char[]>(length + 1);
        memset(key.get(), 'x', length);
        EXPECT_TRUE(HashTable_Insert(table.get(), key.get(), Value(length)));
        EXPECT_EQ(At(table, key.get()), length);
    }
}

// ---- Long chains ----

class HashTableChains : public testing::TestWithParam<int> {
protected:
    static constexpr size_t KEYS = 200;
    HashTableChains()
    {
        for (size_t i = 0; i < KEYS; i++) {
            mTexts.push_back("Key " + std::to_string(i * i * i));
        }
    }
    const void *Key(size_t i) const
    {
        return GetParam() == HASH_INT_KEY ? IntKey(i * 0x1234567) : mTexts[i].c_str();
    }
    std::vector<std::string> mTexts;
};

TEST_P(HashTableChains, HaveEachKeyUntilItIsRemoved)
{
    for (const uint32_t numBuckets : {1U, 2U, 64U}) {
        const ScopedTable table = MakeTable(numBuckets, GetParam());
        for (size_t i = 0; i < KEYS; i++) {
            EXPECT_EQ(At(table, Key(i)), ABSENT);
            EXPECT_TRUE(HashTable_Insert(table.get(), Key(i), Value(i)));
        }
        for (size_t gone = 0; gone < KEYS; gone++) {
            EXPECT_TRUE(HashTable_Delete(table.get(), Key(gone)));
            for (size_t i = 0; i < KEYS; i++) {
                ASSERT_EQ(At(table, Key(i)), i > gone ? i : ABSENT) << "without " << gone;
            }
        }
    }
}

TEST_P(HashTableChains, TakeAKeyAgainThatWasRemoved)
{
    const ScopedTable table = MakeTable(2, GetParam());
    for (int round = 0; round < 3; round++) {
        for (size_t i = 0; i < KEYS; i++) {
            EXPECT_TRUE(HashTable_Insert(table.get(), Key(i), Value(i)));
            EXPECT_FALSE(HashTable_Insert(table.get(), Key(i), Value(i + 1)));
            EXPECT_EQ(At(table, Key(i)), i);
        }
        for (size_t i = 0; i < KEYS; i++) {
            EXPECT_TRUE(HashTable_Delete(table.get(), Key(i)));
        }
    }
    EXPECT_EQ(HashTable_GetNumElements(table.get()), 0u);
}

INSTANTIATE_TEST_SUITE_P(Kinds, HashTableChains,
                         testing::Values(HASH_STRING_KEY, HASH_ISTRING_KEY, HASH_INT_KEY,
                                         HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY));

TEST(HashTable, KeepsACopiedKeyInItsEntrysBlock)
{
    const ScopedTable table = MakeTable(16, HASH_STRING_KEY | HASH_FLAG_COPYKEY);
    const std::vector<size_t> sizes = Allocations::SizesIn(
        [&] { HashTable_Insert(table.get(), "a key of twenty-four by", nullptr); });
    EXPECT_EQ(sizes.size(), 1u);
}

// ---- Arrays and walks ----

TEST(HashTable, GivesNoArraysWhenEmpty)
{
    const ScopedTable table = MakeTable(16, HASH_STRING_KEY);
    const void *key = nullptr, **keys = &key;
    void *value = nullptr, **values = &value;
    size_t keysSize = 7, valuesSize = 7;
    const ptrdiff_t before = Allocations::Live();
    HashTable_KeyArray(table.get(), &keys, &keysSize);
    HashTable_ValueArray(table.get(), &values, &valuesSize);
    EXPECT_EQ(keys, nullptr);
    EXPECT_EQ(keysSize, 0u);
    EXPECT_EQ(values, nullptr);
    EXPECT_EQ(valuesSize, 0u);
    EXPECT_EQ(Allocations::Live(), before);
}

// Makes a table of four buckets with the keys 0 to 9; each value is ten times its key.
ScopedTable TableOfTen()
{
    ScopedTable table = MakeTable(4, HASH_INT_KEY);
    for (uintptr_t i = 0; i < 10; i++) {
        HashTable_Insert(table.get(), IntKey(i), Value(10 * i));
    }
    return table;
}

TEST(HashTable, GivesValuesInTheOrderOfTheKeys)
{
    const ScopedTable table = TableOfTen();
    void **values = nullptr;
    size_t size = 0;
    HashTable_ValueArray(table.get(), &values, &size);
    ASSERT_EQ(size, 10u);
    const std::vector<const void *> keys = Keys(table);
    for (size_t i = 0; i < size; i++) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(values[i]),
                  10 * reinterpret_cast<uintptr_t>(keys[i]));
    }
    free(values);
}

TEST(HashTable, WalksInTheOrderOfTheKeys)
{
    const ScopedTable table = TableOfTen();
    std::vector<const void *> walked;
    const int result = HashTable_ForEach(
        table.get(),
        [](const void *key, void *value, void *userData) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(value), 10 * reinterpret_cast<uintptr_t>(key));
            static_cast<std::vector<const void *> *>(userData)->push_back(key);
            return 0;
        },
        &walked);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(walked, Keys(table));
}

TEST(HashTable, StopsAWalkWhenTold)
{
    const ScopedTable table = TableOfTen();
    int visits = 0;
    const int result = HashTable_ForEach(
        table.get(),
        [](const void *, void *, void *userData) {
            return ++*static_cast<int *>(userData) == 4 ? -5 : 0;
        },
        &visits);
    EXPECT_EQ(result, -5);
    EXPECT_EQ(visits, 4);
}

// ---- The rest ----

TEST(HashTable, FreesNoTableForNull)
{
    HashTable_Free(nullptr);
    HashTable_FreeAll(nullptr);
}

TEST(HashTable, IsMadeOnce)
{
    HashTable *shared = nullptr;
    HashTable *made = HashTable_AllocOnce(&shared, 16, HASH_INT_KEY, NoteDropped);
    EXPECT_NE(made, nullptr);
    EXPECT_EQ(shared, made);
    EXPECT_EQ(HashTable_AllocOnce(&shared, 48, 0, nullptr), made) << "the rest is not looked at";
    sDropped.clear();
    HashTable_Insert(made, IntKey(1), Value(2));
    HashTable_Free(made);
    EXPECT_THAT(sDropped, ElementsAre(Value(2))) << "made as asked";
}

TEST(HashTableDeathTest, EndsTheProcessWithoutMemory)
{
    const char report[] = "Unrecoverable memory allocation failure\n";
    for (size_t granted = 0; granted < 3; granted++) { // table, buckets, entry
        EXPECT_PANIC(
            {
                const OutOfMemory once(granted, 1);
                HashTable *table = HashTable_Alloc(16, HASH_FLAG_COPYKEY, nullptr);
                HashTable_Insert(table, "key", nullptr);
            },
            report);
    }
    const ScopedTable table = TableOfTen();
    EXPECT_PANIC(
        {
            const OutOfMemory once(0, 1);
            Keys(table);
        },
        report);
}

} // namespace
