#include "codeset.h"
#include "unicode.h"

#include "panic.h"
#include "scopedForTests.h"
#include "together.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sys/wait.h>
#include <thread>

static std::atomic<int> sCodeSetInits, sPauses, sWrongPauses;
static bool sCodeSetIsSlow, sCodeSetFails;

extern "C" {
bool __real_CodeSet_Init(const char *icuDataDir);
bool __wrap_CodeSet_Init(const char *icuDataDir)
{
    sCodeSetInits++;
    if (sCodeSetIsSlow) { std::this_thread::sleep_for(std::chrono::milliseconds(50)); }
    return !sCodeSetFails && __real_CodeSet_Init(icuDataDir);
}
// Counts the pauses, and makes them shorter.
int __wrap_usleep(useconds_t microseconds)
{
    sPauses++;
    sWrongPauses += microseconds != 250000;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return 0;
}
}

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
        return CodeSet_IsIcuInUse();
    }));
}

TEST_F(UnicodeInit, SucceedsWithoutADataFile)
{
    EXPECT_TRUE(InChild([&] {
        Unicode_InitEx(0, nullptr, nullptr, mWithout.Path().c_str());
        return !CodeSet_IsIcuInUse();
    }));
}

TEST_F(UnicodeInit, KeepsWhatTheFirstCallFound)
{
    EXPECT_TRUE(InChild([&] {
        Unicode_InitEx(0, nullptr, nullptr, mWith.Path().c_str());
        Unicode_InitEx(0, nullptr, nullptr, mWithout.Path().c_str());
        return CodeSet_IsIcuInUse();
    }));
    EXPECT_TRUE(InChild([&] {
        Unicode_InitEx(0, nullptr, nullptr, mWithout.Path().c_str());
        Unicode_InitEx(0, nullptr, nullptr, mWith.Path().c_str());
        return !CodeSet_IsIcuInUse();
    }));
}

TEST_F(UnicodeInit, AsksTheLocationServiceForTheFolder)
{
    std::filesystem::create_directories(mWithout.Path() + "/Contents/Library/icu");
    std::ofstream(mWithout.Path() + "/Contents/Library/icu/icudt44l.dat") << "data";
    EXPECT_TRUE(InChild([&] {
        setenv("TARVEX_LOCATION_ROOT_FULLPATH", mWithout.Path().c_str(), 1);
        Unicode_Init();
        return CodeSet_IsIcuInUse();
    }));
}

TEST_F(UnicodeInit, TakesAnEmptyFolderForWhatItIs)
{
    std::filesystem::create_directories(mWithout.Path() + "/Contents/Library/icu");
    std::ofstream(mWithout.Path() + "/Contents/Library/icu/icudt44l.dat") << "data";
    EXPECT_TRUE(InChild([&] {
        setenv("TARVEX_LOCATION_ROOT_FULLPATH", mWithout.Path().c_str(), 1);
        Unicode_InitEx(0, nullptr, nullptr, ""); // the root folder, which has no such file
        return !CodeSet_IsIcuInUse();
    }));
}

TEST_F(UnicodeInit, SaysNothingOfAWrongFolder)
{
    testing::internal::CaptureStderr();
    EXPECT_TRUE(InChild([&] {
        Unicode_InitEx(0, nullptr, nullptr, "/no/such/folder");
        Unicode_InitEx(0, nullptr, nullptr, mWith.Path().c_str());
        return !CodeSet_IsIcuInUse();
    }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(UnicodeInit, LetsThreadsRaceAndLooksOnce)
{
    sCodeSetIsSlow = true; // the others then come while one thread initialises
    std::atomic<int> satisfied{0};
    Together(8, [&](int) {
        Unicode_InitEx(0, nullptr, nullptr, mWith.Path().c_str());
        satisfied += CodeSet_IsIcuInUse();
    });
    EXPECT_EQ(satisfied, 8) << "whoever returns finds the work done";
    EXPECT_EQ(sCodeSetInits, 1);
    EXPECT_GT(sPauses, 0) << "those that came late paused";
    EXPECT_EQ(sWrongPauses, 0) << "for a quarter of a second";
    sCodeSetIsSlow = false;
}

// GoogleTest runs death tests first: no thread has initialised this process yet.
using UnicodeInitDeathTest = UnicodeInit;
TEST_F(UnicodeInitDeathTest, EndsTheProcessWhenCodeSetInitFails)
{
    EXPECT_PANIC(
        {
            sCodeSetFails = true;
            Unicode_InitEx(0, nullptr, nullptr, mWith.Path().c_str());
        },
        "Failed to initialize codeset.\n");
}

// A handler of the program that runs while its process ends.
void InitializeAtTheEnd()
{
    alarm(10); // if the lock were still held, Unicode_InitEx() would wait for ever
    sCodeSetFails = false;
    Unicode_InitEx(0, nullptr, nullptr, nullptr);
    _exit(42);
}

TEST_F(UnicodeInitDeathTest, HoldsNoLockWhileItEndsTheProcess)
{
    EXPECT_EXIT(
        {
            sCodeSetFails = true;
            atexit(InitializeAtTheEnd);
            Unicode_InitEx(0, nullptr, nullptr, mWith.Path().c_str());
        },
        testing::ExitedWithCode(42), "Failed to initialize codeset.\n");
}

} // namespace
