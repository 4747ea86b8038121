// Posix_Getenv() while other threads change the shared data between any two of its steps.  Its
// source is compiled into this program, and calls back at every branch.
#include "posix.h"

#include "allocations.h"
#include "posixKept.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>

namespace {

// Each runs once in this thread: tDeed after tSteps steps, tBeforeGetenv just before the thread
// reads the environment.
thread_local std::function<void()> tDeed, tBeforeGetenv;
thread_local size_t tSteps;

} // namespace

extern "C" void __sanitizer_cov_trace_pc()
{
    if (tDeed && tSteps-- == 0) { std::exchange(tDeed, nullptr)(); }
}

// Replaces the environment, which must not change while threads read it: the value of every
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
    if (tBeforeGetenv) { std::exchange(tBeforeGetenv, nullptr)(); }
    return const_cast<char *>(sValue.load()); // callers do not write to it
}
}

namespace {

// The blocks that are kept after a change: an entry with its key, a record, and two blocks each for
// the current value and the one before.
constexpr ptrdiff_t KEPT_AFTER_A_CHANGE = 6;

// A variable that no thread has read before.
class Variable {
public:
    const char *Ask(const char *value) const
    {
        sValue = value;
        return Posix_Getenv(mName.c_str());
    }
    // The same, with the deed after this many steps; nullptr when there are fewer steps.
    const char *AskAndMeanwhile(const char *value, size_t steps, std::function<void()> deed) const
    {
        tSteps = steps;
        tDeed = std::move(deed);
        const char *result = Ask(value);
        return std::exchange(tDeed, nullptr) ? nullptr : result;
    }

private:
    static inline int sMade;
    const std::string mName = PREFIX + std::to_string(sMade++);
};

// Makes an attempt after no step, after one step, and so on, until there are no more steps.
void AfterEverySteps(const std::function<bool(size_t steps)> &attempt)
{
    size_t steps = 0;
    while (attempt(steps)) {
        steps++;
    }
    EXPECT_GT(steps, 20u) << "there are hundreds, if anything calls back";
}

// The parameter is the number of values that the variable had before.
class PosixGetenvBetweenSteps : public testing::TestWithParam<int> {};

TEST_P(PosixGetenvBetweenSteps, WhatIsReceivedStaysReadableThroughOneChange)
{
    const char *const earlier[] = {"first value", "second value", "third value"};
    AfterEverySteps([&](size_t steps) {
        SCOPED_TRACE(steps);
        const Variable variable;
        const ptrdiff_t before = Allocations::Live();
        for (int i = 0; i < GetParam(); i++) {
            variable.Ask(earlier[i]);
        }
        const char *theirs = nullptr;
        const char *mine = variable.AskAndMeanwhile("my value", steps, [&] {
            std::thread([&] { theirs = variable.Ask("their value"); }).join();
        });
        if (mine == nullptr) { return false; }

        // The thread that came first has been overtaken once, and none twice.
        EXPECT_THAT(mine,
                    testing::AnyOf(testing::StrEq("my value"), testing::StrEq("their value")));
        EXPECT_STREQ(theirs, "their value");
        variable.Ask("next value");
        EXPECT_STREQ(theirs, "their value") << "mine is older and does not come after it";
        EXPECT_EQ(Allocations::Live() - before, KEPT_AFTER_A_CHANGE) << "and the others are freed";
        return true;
    });
}
INSTANTIATE_TEST_SUITE_P(AfterValues, PosixGetenvBetweenSteps, testing::Values(0, 1, 2, 3),
                         [](const auto &row) { return std::to_string(row.param); });

// A third thread stops between reading a value and comparing it, and meanwhile the value is
// replaced.
TEST(PosixGetenvSteps, FreeNothingThatAReaderLooksAt)
{
    AfterEverySteps([](size_t steps) {
        SCOPED_TRACE(steps);
        const Variable variable;
        variable.Ask("first value");
        std::binary_semaphore isLooking(0), goOn(0);
        std::thread reader;
        const char *readers = nullptr;
        const char *mine = variable.AskAndMeanwhile("my value", steps, [&] {
            reader = std::thread([&] {
                tBeforeGetenv = [&] {
                    isLooking.release();
                    goOn.acquire();
                };
                readers = variable.Ask("my value");
            });
            isLooking.acquire();
            std::thread([&] { variable.Ask("their value"); }).join();
        });
        if (mine == nullptr) { return false; }
        goOn.release();
        reader.join();
        EXPECT_STREQ(readers, "their value");
        return true;
    });
}

} // namespace
