// Posix_Getenv() in two threads, of which one changes what they share between any two steps of the
// other: its source is a part of this program, with atomics that call back.
#include "posix.h"

#include "allocations.h"
#include "diagnostics.h"
#include "hashTable.h"
#include "posixInt.h"
#include "posixKept.h"
#include "util.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <utility>

namespace {

// Done once by this thread, after so many steps.
thread_local std::function<void()> tDeed;
thread_local size_t tSteps;

void Step()
{
    if (tDeed && tSteps-- == 0) { std::exchange(tDeed, nullptr)(); }
}

} // namespace

namespace std {
template <typename T> struct SteppedAtomic : atomic<T> {
    using atomic<T>::atomic;
    T load(auto... order) const { return Stepped(atomic<T>::load(order...)); }
    T exchange(T value, auto... order) { return Stepped(atomic<T>::exchange(value, order...)); }
    T fetch_add(T value, auto... order) { return Stepped(atomic<T>::fetch_add(value, order...)); }
    T fetch_sub(T value, auto... order) { return Stepped(atomic<T>::fetch_sub(value, order...)); }
    bool compare_exchange_strong(T &expected, T value, auto... order)
    {
        return Stepped(atomic<T>::compare_exchange_strong(expected, value, order...));
    }
    bool compare_exchange_weak(T &expected, T value, auto... order)
    {
        return Stepped(atomic<T>::compare_exchange_weak(expected, value, order...));
    }

private:
    template <typename Result> static Result Stepped(Result result)
    {
        Step();
        return result;
    }
};
} // namespace std

#define atomic SteppedAtomic
#include "posixEnv.cpp"
#undef atomic

// In the place of the environment, which must not change while threads ask: the value of every
// variable whose name begins with PREFIX.
static std::atomic<const char *> sValue;
static constexpr char PREFIX[] = "PELAGO_STEPS";

extern "C" {
char *__real_getenv(const char *name);
char *__wrap_getenv(const char *name)
{
    if (name == nullptr || strncmp(name, PREFIX, strlen(PREFIX)) != 0) {
        return __real_getenv(name);
    }
    return const_cast<char *>(sValue.load()); // not written to
}
}

namespace {

// An entry, its key, a record, and what that holds: two values in a block.
constexpr ptrdiff_t KEPT_AFTER_A_CHANGE = 6;

// How many values the variable had before.
class PosixGetenvBetweenSteps : public testing::TestWithParam<int> {};

TEST_P(PosixGetenvBetweenSteps, WhatIsReceivedStaysReadableThroughOneChange)
{
    const char *const earlier[] = {"first value", "second value", "third value"};
    bool isReached = true;
    for (size_t steps = 0; isReached; steps++) {
        SCOPED_TRACE(steps);
        const std::string name = PREFIX + std::to_string(GetParam()) + "_" + std::to_string(steps);
        const auto ask = [&](const char *value) {
            sValue = value;
            return Posix_Getenv(name.c_str());
        };
        const ptrdiff_t before = Allocations::Live();
        for (int i = 0; i < GetParam(); i++) {
            ask(earlier[i]);
        }
        const char *theirs = nullptr;
        tSteps = steps;
        tDeed = [&] { std::thread([&] { theirs = ask("their value"); }).join(); };
        const char *mine = ask("my value");
        isReached = std::exchange(tDeed, nullptr) == nullptr;

        // Who comes first has been overtaken once, and nobody twice.
        EXPECT_THAT(mine,
                    testing::AnyOf(testing::StrEq("my value"), testing::StrEq("their value")));
        EXPECT_STREQ(theirs, isReached ? "their value" : nullptr);
        ask("next value");
        EXPECT_EQ(Allocations::Live() - before, KEPT_AFTER_A_CHANGE) << "and the others are freed";
    }
}
INSTANTIATE_TEST_SUITE_P(AfterValues, PosixGetenvBetweenSteps, testing::Values(0, 1, 2, 3),
                         [](const auto &row) { return std::to_string(row.param); });

} // namespace
