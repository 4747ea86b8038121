// What holds between any two instructions, and how many instructions there are.
#include "hashTable.h"
#include "util.h"

#include "scopedTable.h"
#include "singleStep.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>

// The other thread's deed needs a block when it inserts a key.  This thread may be inside the
// allocator then, so the deed gets this block.
static bool sIsInDeed;
alignas(std::max_align_t) static char sDeedsBlock[64];

extern "C" {
void *__real_Util_SafeMalloc(size_t size);
void *__wrap_Util_SafeMalloc(size_t size)
{
    return sIsInDeed ? sDeedsBlock : __real_Util_SafeMalloc(size);
}
void __real_free(void *block);
void __wrap_free(void *block)
{
    if (block != sDeedsBlock) { __real_free(block); }
}
}

namespace {

// ---- Another thread replaces a value meanwhile

constexpr uintptr_t FIRST = 1, OURS = 100, OTHERS = 10000;

void *Value(uintptr_t number) { return reinterpret_cast<void *>(number); }
const void *const KEY = Value(7);

std::atomic<uintptr_t> sDropped; // the sum of all dropped values
void Drop(void *value) { sDropped += reinterpret_cast<uintptr_t>(value); }

bool Replace(HashTable *table, uintptr_t value)
{
    return HashTable_ReplaceOrInsert(table, KEY, Value(value));
}
bool Exchange(HashTable *table, uintptr_t value)
{
    return HashTable_ReplaceIfEqual(table, KEY, Value(FIRST), Value(value));
}

using Way = bool (*)(HashTable *table, uintptr_t value);

// Checks the results of two replacements, with the second between any two instructions of the
// first.
void AtEveryInstruction(Way ours, Way others, const std::function<void(bool, bool)> &check)
{
    for (size_t place = 1;; place++) {
        sDropped = 0;
        ScopedTable table(HashTable_Alloc(1, HASH_INT_KEY | HASH_FLAG_ATOMIC, Drop));
        HashTable_Insert(table.get(), KEY, Value(FIRST));
        bool isOurs = false, isOthers = false;
        const bool isDone = SingleStep::DoneAt(
            place, [&] { isOurs = ours(table.get(), OURS); },
            [&] { isOthers = others(table.get(), OTHERS); });
        if (!isDone) {
            EXPECT_GT(place, 20u) << "a look-up and a replacement have more";
            return;
        }
        SCOPED_TRACE("after instruction " + std::to_string(place));
        table.reset(); // drops the last value
        check(isOurs, isOthers);
        if (testing::Test::HasFailure()) { return; }
    }
}

TEST(AtomicReplacement, DropsEveryValueOnceWhateverAnotherReplacesMeanwhile)
{
    AtEveryInstruction(Replace, Replace, [](bool isOurs, bool isOthers) {
        EXPECT_TRUE(isOurs);
        EXPECT_TRUE(isOthers);
        EXPECT_EQ(sDropped, FIRST + OURS + OTHERS);
    });
}

TEST(AtomicReplacement, DropsEveryValueOnceWhateverAnotherExchangesMeanwhile)
{
    std::set<bool> results;
    AtEveryInstruction(Replace, Exchange, [&](bool isOurs, bool isOthers) {
        EXPECT_TRUE(isOurs);
        EXPECT_EQ(sDropped, FIRST + OURS + (isOthers ? OTHERS : 0));
        results.insert(isOthers);
    });
    EXPECT_EQ(results, (std::set<bool>{false, true})) << "the other came before and after";
}

TEST(AtomicExchange, IsOneThreadsAlone)
{
    std::set<bool> results;
    AtEveryInstruction(Exchange, Exchange, [&](bool isOurs, bool isOthers) {
        EXPECT_NE(isOurs, isOthers);
        EXPECT_EQ(sDropped, FIRST + (isOurs ? OURS : OTHERS));
        results.insert(isOurs);
    });
    EXPECT_EQ(results, (std::set<bool>{false, true})) << "the other came before and after";
}

TEST(AtomicExchange, DoesNotOverwriteWhatAnotherHasStoredMeanwhile)
{
    std::set<bool> results;
    AtEveryInstruction(Exchange, Replace, [&](bool isOurs, bool isOthers) {
        EXPECT_TRUE(isOthers);
        EXPECT_EQ(sDropped, FIRST + OTHERS + (isOurs ? OURS : 0));
        results.insert(isOurs);
    });
    EXPECT_EQ(results, (std::set<bool>{false, true})) << "the other came before and after";
}

// ---- Another thread looks up or inserts a key while this thread inserts one

size_t CountByWalking(const HashTable *table)
{
    size_t count = 0;
    HashTable_ForEach(
        table, [](const void *, void *, void *n) { return ++*static_cast<size_t *>(n), 0; },
        &count);
    return count;
}

// Inserts the key into an empty table of one bucket, and runs the deed between any two
// instructions.
template <typename Check>
void WhileAKeyIsEntered(const std::function<void(HashTable *)> &deed, const Check &check)
{
    for (size_t place = 1;; place++) {
        const ScopedTable table(HashTable_Alloc(1, HASH_INT_KEY | HASH_FLAG_ATOMIC, nullptr));
        bool isEntered = false;
        const bool isDone = SingleStep::DoneAt(
            place, [&] { isEntered = HashTable_Insert(table.get(), KEY, Value(FIRST)); },
            [&] {
                sIsInDeed = true;
                deed(table.get());
                sIsInDeed = false;
            });
        if (!isDone) {
            EXPECT_GT(place, 50u) << "an insertion has more instructions";
            return;
        }
        SCOPED_TRACE("after instruction " + std::to_string(place));
        check(table.get(), isEntered);
        if (testing::Test::HasFailure()) { return; }
    }
}

TEST(AtomicInsertion, IsFoundByALookupAsSoonAsByAWalk)
{
    bool isWalked = false, isFound = false;
    std::set<bool> results;
    WhileAKeyIsEntered(
        [&](const HashTable *table) {
            isWalked = CountByWalking(table) == 1;
            isFound = HashTable_Lookup(table, KEY, nullptr);
        },
        [&](const HashTable *, bool) {
            EXPECT_EQ(isFound, isWalked);
            results.insert(isFound);
        });
    EXPECT_EQ(results, (std::set<bool>{false, true})) << "the other came before and after";
}

TEST(AtomicInsertion, LosesNoKeyThatAnotherEntersMeanwhile)
{
    const void *const othersKey = Value(8);
    WhileAKeyIsEntered([&](HashTable *table) { HashTable_Insert(table, othersKey, nullptr); },
                       [&](const HashTable *table, bool isEntered) {
                           EXPECT_TRUE(isEntered);
                           EXPECT_EQ(CountByWalking(table), 2u);
                           EXPECT_TRUE(HashTable_Lookup(table, KEY, nullptr));
                           EXPECT_TRUE(HashTable_Lookup(table, othersKey, nullptr));
                       });
}

TEST(AtomicInsertion, IsOneThreadsAlone)
{
    bool isOthers = false;
    std::set<bool> results;
    WhileAKeyIsEntered(
        [&](HashTable *table) { isOthers = HashTable_Insert(table, KEY, Value(OTHERS)); },
        [&](const HashTable *table, bool isOurs) {
            EXPECT_NE(isOurs, isOthers);
            EXPECT_EQ(CountByWalking(table), 1u);
            results.insert(isOurs);
        });
    EXPECT_EQ(results, (std::set<bool>{false, true})) << "the other came before and after";
}

// ---- Comparing strings: the second one's length may be a secret

class StepsOfAComparison : public testing::TestWithParam<size_t> {};
TEST_P(StepsOfAComparison, DependOnTheFirstStringsLengthAlone)
{
    const std::string a(GetParam(), 'a');
    std::set<size_t> counts;
    for (size_t length = 0; length <= 2 * a.size() + 2; length++) {
        for (const std::string &b : {std::string(length, 'a'), std::string(length, 'b')}) {
            size_t different = 0;
            counts.insert(
                SingleStep::Count([&] { Util_CountStrDiff(a.c_str(), b.c_str(), &different); }));
        }
    }
    EXPECT_EQ(counts.size(), 1u);
}
TEST_P(StepsOfAComparison, DependOnItAloneWithoutTheNumber)
{
    const std::string a(GetParam(), 'a');
    std::set<size_t> counts;
    for (size_t length = 0; length <= 2 * a.size() + 2; length++) {
        const std::string b(length, 'a');
        counts.insert(SingleStep::Count([&] { Util_StrDiffers(a.c_str(), b.c_str()); }));
    }
    EXPECT_EQ(counts.size(), 1u);
}
INSTANTIATE_TEST_SUITE_P(Lengths, StepsOfAComparison, testing::Values(0, 1, 7, 20));

TEST(SingleSteps, AreMoreForMoreWork)
{
    const std::string text(100, 'a');
    const auto steps = [&](size_t from) {
        return SingleStep::Count([&] { Util_StrDiffers(text.c_str() + from, text.c_str()); });
    };
    EXPECT_GT(steps(0), steps(1));
    EXPECT_GT(steps(99), steps(100));
}

} // namespace
