#include "unicode.h"

#include "../../lib/misc/codesetInt.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace {

// The initialisation happens once a process, so each case gets a process of its own.
template <typename Body> bool InChild(Body body)
{
    const pid_t child = fork();
    if (child == 0) { _exit(body() ? 0 : 1); }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class UnicodeInit : public testing::Test {
protected:
    void SetUp() override { std::ofstream(mWith.Path() + "/icudt44l.dat") << "data"; }
    TemporaryFolder mWith, mWithout;
};

TEST_F(UnicodeInit, UsesTheGivenFolder)
{
    EXPECT_TRUE(InChild([&] {
        Unicode_InitEx(0, nullptr, nullptr, mWith.Path().c_str());
        return CodeSetUsesIcu();
    }));
}

TEST_F(UnicodeInit, SucceedsWithoutADataFile)
{
    EXPECT_TRUE(InChild([&] {
        Unicode_InitEx(0, nullptr, nullptr, mWithout.Path().c_str());
        return !CodeSetUsesIcu();
    }));
}

TEST_F(UnicodeInit, KeepsWhatTheFirstCallFound)
{
    EXPECT_TRUE(InChild([&] {
        Unicode_InitEx(0, nullptr, nullptr, mWith.Path().c_str());
        Unicode_InitEx(0, nullptr, nullptr, mWithout.Path().c_str());
        return CodeSetUsesIcu();
    }));
    EXPECT_TRUE(InChild([&] {
        Unicode_InitEx(0, nullptr, nullptr, mWithout.Path().c_str());
        Unicode_InitEx(0, nullptr, nullptr, mWith.Path().c_str());
        return !CodeSetUsesIcu();
    }));
}

TEST_F(UnicodeInit, AsksTheLocationServiceForTheFolder)
{
    std::filesystem::create_directories(mWithout.Path() + "/Contents/Library/icu");
    std::ofstream(mWithout.Path() + "/Contents/Library/icu/icudt44l.dat") << "data";
    EXPECT_TRUE(InChild([&] {
        setenv("TARVEX_LOCATION_ROOT_FULLPATH", mWithout.Path().c_str(), 1);
        Unicode_Init();
        return CodeSetUsesIcu();
    }));
}

TEST_F(UnicodeInit, LetsThreadsRaceAndLookOnce)
{
    // All threads but one come too late or wait; whoever returns finds the work done.
    std::atomic<int> satisfied{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) {
        threads.emplace_back([&] {
            Unicode_InitEx(0, nullptr, nullptr, mWith.Path().c_str());
            satisfied += CodeSetUsesIcu();
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(satisfied, 8);
}

} // namespace
