// Posix_Getenv() in many threads.  The environment itself must not change meanwhile, so a
// replacement that may change is used.
#include "posix.h"

#include "allocations.h"
#include "hashTable.h"
#include "posixKept.h"
#include "together.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr int THREADS = 4;

// Returns the values that the variables may have.
const auto &Values()
{
    static const auto values = [] {
        std::array<std::string, 64> made;
        for (size_t i = 0; i < made.size(); i++) {
            made[i] = "value " + std::to_string(i);
        }
        return made;
    }();
    return values;
}

// The number of the current value, for every variable whose name begins with PREFIX.
std::atomic<size_t> sNow;
constexpr char PREFIX[] = "PELAGO_";
void Change(size_t number) { sNow = number; }

std::atomic<int> sInserted, sRefused;
// Each runs once in this thread: just before the thread inserts, or just before it compares a kept
// value with the environment's.
thread_local std::function<void()> tBeforeInsert, tBeforeCompare;

void Do(std::function<void()> &deed)
{
    if (deed) { std::exchange(deed, nullptr)(); }
}

} // namespace

extern "C" {
char *__real_getenv(const char *name);
char *__wrap_getenv(const char *name)
{
    if (strncmp(name, PREFIX, strlen(PREFIX)) != 0) { return __real_getenv(name); }
    return const_cast<char *>(Values()[sNow].c_str()); // callers do not write to it
}
bool __real_HashTable_Insert(HashTable *table, const void *key, void *value);
bool __wrap_HashTable_Insert(HashTable *table, const void *key, void *value)
{
    Do(tBeforeInsert);
    const bool isInserted = __real_HashTable_Insert(table, key, value);
    (isInserted ? sInserted : sRefused)++;
    return isInserted;
}
int __real_strcmp(const char *a, const char *b);
int __wrap_strcmp(const char *a, const char *b)
{
    if (strncmp(a, "value ", 6) == 0) { Do(tBeforeCompare); }
    return __real_strcmp(a, b);
}
}

namespace {

// The blocks that are kept for a name: an entry with its key, a record, and two blocks each for the
// current value and the one before.
constexpr ptrdiff_t KEPT = 4, A_VALUE = 2, KEPT_AFTER_A_CHANGE = KEPT + A_VALUE;

// Reads the variable with this value in another thread, which then ends.  Returns the thread's
// result.
const char *AskElsewhere(const std::string &name, size_t value)
{
    const char *result = nullptr;
    Change(value);
    std::thread([&] { result = Posix_Getenv(name.c_str()); }).join();
    return result;
}

// The blocks that a reading thread may own: the name in the host's encoding, the environment's
// value in at most two forms, the record of the new value, and the blocks of an attempt that
// failed.
constexpr ptrdiff_t OWN_BLOCKS = 8;

// Every test uses a variable of its own, which has never been read.
class PosixGetenvOvertaken : public testing::Test {
protected:
    void SetUp() override
    {
        mBefore = Allocations::Live();
        sInserted = sRefused = 0;
    }
    const char *Ask(size_t value) const
    {
        Change(value);
        return Posix_Getenv(mName.c_str());
    }
    ptrdiff_t Added() const { return Allocations::Live() - mBefore; }
    const std::string mName =
        PREFIX + std::string(testing::UnitTest::GetInstance()->current_test_info()->name());

private:
    ptrdiff_t mBefore = 0;
};
using PosixGetenvThreads = PosixGetenvOvertaken;

// ---- Another thread runs in between

TEST_F(PosixGetenvOvertaken, GivesTheValueOfWhoInsertedFirst)
{
    const char *others = nullptr;
    tBeforeInsert = [&] { others = AskElsewhere(mName, 1); };
    EXPECT_EQ(Ask(1), others);
    EXPECT_NE(others, nullptr);
    EXPECT_EQ(sInserted, 1);
    EXPECT_EQ(sRefused, 1);
    EXPECT_EQ(Added(), KEPT) << "the record and the value that came too late are released";
}

TEST_F(PosixGetenvOvertaken, ChangesTheRecordOfWhoInsertedFirst)
{
    const char *others = nullptr;
    tBeforeInsert = [&] {
        others = AskElsewhere(mName, 2);
        Change(1);
    };
    const char *value = Ask(1);
    EXPECT_EQ(value, Values()[1]);
    EXPECT_EQ(others, Values()[2]) << "is readable through one change";
    EXPECT_EQ(Ask(1), value);
    EXPECT_EQ(Added(), KEPT_AFTER_A_CHANGE);
}

TEST_F(PosixGetenvOvertaken, ReturnsTheOthersValueForTheSameChange)
{
    const char *first = Ask(1);
    const char *others = nullptr;
    tBeforeCompare = [&] { others = AskElsewhere(mName, 2); };
    EXPECT_EQ(Ask(2), others);
    EXPECT_NE(others, nullptr);
    EXPECT_EQ(first, Values()[1]) << "there was one change";
    EXPECT_EQ(Added(), KEPT_AFTER_A_CHANGE);
}

TEST_F(PosixGetenvOvertaken, ChangesWhatAnotherThreadHasJustChanged)
{
    Ask(1);
    const char *others = nullptr;
    tBeforeCompare = [&] {
        others = AskElsewhere(mName, 3);
        Change(2);
    };
    const char *value = Ask(2);
    EXPECT_EQ(value, Values()[2]);
    EXPECT_EQ(others, Values()[3]) << "is readable through one change";
    EXPECT_EQ(Ask(2), value);
    EXPECT_EQ(Added(), KEPT_AFTER_A_CHANGE);
}

// The parameter is the number of changes by another thread, while this thread looks at the value
// from before them.
class PosixGetenvWhileItLooks : public PosixGetenvOvertaken,
                                public testing::WithParamInterface<size_t> {};

TEST_P(PosixGetenvWhileItLooks, TheValueStaysReadable)
{
    const std::string name = mName + std::to_string(GetParam());
    const auto ask = [&](size_t value) {
        Change(value);
        return Posix_Getenv(name.c_str());
    };
    ask(1);
    const ptrdiff_t before = Allocations::Live();
    tBeforeCompare = [&] {
        for (size_t i = 0; i < GetParam(); i++) {
            AskElsewhere(name, 10 + i);
        }
        Change(2);
    };
    EXPECT_EQ(ask(2), Values()[2]);
    ask(3);
    EXPECT_EQ(ask(4), Values()[4]);
    EXPECT_EQ(Allocations::Live() - before, A_VALUE) << "what waited for the look is freed";
}
INSTANTIATE_TEST_SUITE_P(Changes, PosixGetenvWhileItLooks, testing::Values(1, 2, 3, 10),
                         [](const auto &row) { return std::to_string(row.param); });

// While a thread looks at one value, other values come and go.  Only the value that it looks at
// stays allocated.
TEST_F(PosixGetenvOvertaken, LetsNothingButWhatItLooksAtWait)
{
    Ask(0);
    tBeforeCompare = [&] {
        for (size_t i = 1; i < 200; i++) {
            EXPECT_EQ(AskElsewhere(mName, i % 64), Values()[i % 64]);
            const ptrdiff_t waiting = Added() - KEPT_AFTER_A_CHANGE;
            ASSERT_LE(waiting, A_VALUE + OWN_BLOCKS) << "after " << i;
        }
    };
    Ask(1);
    EXPECT_EQ(Added(), KEPT_AFTER_A_CHANGE);
}

// ---- Many threads at once

TEST_F(PosixGetenvThreads, GivesAllOfThemOnePointer)
{
    Change(5);
    for (int round = 0; round < 300; round++) {
        const std::string name = mName + std::to_string(round);
        std::vector<const char *> received(THREADS);
        Together(THREADS, [&](int i) { received[i] = Posix_Getenv(name.c_str()); });
        EXPECT_THAT(received, testing::Each(received[0]));
        EXPECT_EQ(received[0], Values()[5]);
    }
    EXPECT_EQ(sInserted, 300);
    EXPECT_EQ(Added(), 300 * KEPT);
}

// All threads read the value, then the value changes, and so on: a pointer from before the change
// stays valid.
TEST_F(PosixGetenvThreads, APointerIsGoodThroughOneChange)
{
    constexpr size_t ROUNDS = 2000;
    std::barrier round(THREADS);
    std::atomic<int> wrong{0};
    Change(0);
    Together(THREADS, [&](int thread) {
        const char *last = nullptr;
        for (size_t i = 0; i < ROUNDS; i++) {
            const char *value = Posix_Getenv(mName.c_str());
            if (value != Values()[i % 64]) { wrong++; }
            if (Posix_Getenv(mName.c_str()) != value) { wrong++; }
            if (last != nullptr && last != Values()[(i + 63) % 64]) { wrong++; }
            last = value;
            round.arrive_and_wait();
            if (thread == 0) { Change((i + 1) % 64); }
            round.arrive_and_wait();
        }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(sInserted, 1);
    EXPECT_EQ(Added(), KEPT_AFTER_A_CHANGE);
}

TEST_F(PosixGetenvThreads, EveryNameHasOneRecord)
{
    constexpr int NAMES = 3000;
    Change(7);
    std::atomic<int> wrong{0};
    Together(THREADS, [&](int thread) {
        for (int i = 0; i < NAMES; i++) { // half of the threads in the opposite order
            const int number = thread % 2 == 0 ? i : NAMES - 1 - i;
            const std::string name = mName + std::to_string(number);
            if (Posix_Getenv(name.c_str()) != Values()[7]) { wrong++; }
        }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(sInserted, NAMES);
    EXPECT_EQ(Added(), NAMES * KEPT);
}

// While values change all the time, a returned pointer may be invalid at once, so no thread reads
// through it.
TEST_F(PosixGetenvThreads, ChangesThatNeverRestLoseNoBlock)
{
    constexpr int NAMES = 3, ROUNDS = 20000;
    Together(THREADS, [&](int thread) {
        for (int i = 0; i < ROUNDS; i++) {
            if (thread < 2) { Change(static_cast<size_t>(i * 7 + thread) % 64); }
            const std::string name = mName + std::to_string(i % NAMES);
            if (Posix_Getenv(name.c_str()) == nullptr) { ADD_FAILURE(); }
        }
    });
    EXPECT_EQ(sInserted, NAMES);
    for (const size_t value : {1, 2, 3}) {
        for (int i = 0; i < NAMES; i++) {
            Change(value);
            EXPECT_EQ(Posix_Getenv((mName + std::to_string(i)).c_str()), Values()[value]);
        }
    }
    EXPECT_EQ(Added(), NAMES * KEPT_AFTER_A_CHANGE);
}

TEST_F(PosixGetenvThreads, BusyReadersDelayAtMostOneFreeEach)
{
    constexpr int CHANGES = 20000;
    Change(0);
    Posix_Getenv(mName.c_str());
    std::atomic<bool> isDone{false};
    Together(THREADS + 1, [&](int thread) {
        if (thread != 0) {
            while (!isDone) {
                Posix_Getenv(mName.c_str());
            }
            return;
        }
        ptrdiff_t most = 0;
        for (int i = 1; i <= CHANGES; i++) {
            Change(static_cast<size_t>(i) % 64);
            Posix_Getenv(mName.c_str());
            most = std::max(most, Added());
        }
        isDone = true;
        EXPECT_LE(most, KEPT_AFTER_A_CHANGE + THREADS * (A_VALUE + OWN_BLOCKS));
    });
    EXPECT_EQ(Added(), KEPT_AFTER_A_CHANGE);
}

} // namespace
