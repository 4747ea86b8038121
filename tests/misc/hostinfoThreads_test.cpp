// Values that are looked up once, requested by several threads at the same time.
#include "hostinfo.h"

#include "hostinfoInt.h"
#include "inChild.h"
#include "scopedForTests.h"
#include "together.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mach/mach_time.h>
#include <vector>

using namespace pelago;

// A timebase for which the clock must compute a factor.
extern "C" kern_return_t __wrap_mach_timebase_info(mach_timebase_info_t info)
{
    *info = {.numer = 125, .denom = 3};
    return KERN_SUCCESS;
}

namespace {

constexpr int THREADS = 8;
constexpr int ROUNDS = 40; // each in a process with empty caches

template <typename Body> void EachTimeAnew(Body body)
{
    for (int round = 0; round < ROUNDS; round++) {
        EXPECT_EQ(InChild(body).errors, "");
    }
}

TEST(HostinfoThreads, HaveOneVersion)
{
    EachTimeAnew([] {
        std::vector<const char *> texts(THREADS);
        Together(THREADS, [&](int thread) {
            EXPECT_GT(Hostinfo_OSVersion(0), 0);
            texts[static_cast<size_t>(thread)] = Hostinfo_OSVersionString();
        });
        EXPECT_THAT(texts, testing::Each(texts[0]));
        return "";
    });
}

TEST(HostinfoThreads, HaveOneHostName)
{
    EachTimeAnew([] {
        std::vector<const char *> names(THREADS);
        Together(THREADS, [&](int thread) {
            names[static_cast<size_t>(thread)] = Hostinfo_HostNameCached();
        });
        EXPECT_THAT(names, testing::Each(names[0]));
        EXPECT_EQ(names[0], Take(Hostinfo_HostName()));
        return "";
    });
}

TEST(HostinfoThreads, HaveTheNamesOfOneOfThem)
{
    EachTimeAnew([] {
        std::vector<std::string> pairs(THREADS);
        Together(THREADS, [&](int thread) {
            const std::string name(100, static_cast<char>('a' + thread));
            HostinfoKeepNames(name.c_str(), name.substr(0, 50).c_str());
            pairs[static_cast<size_t>(thread)] =
                Take(Hostinfo_GetOSName()) + Take(Hostinfo_GetOSShortName());
        });
        EXPECT_THAT(pairs, testing::Each(std::string(150, pairs[0][0])));
        return "";
    });
}

TEST(HostinfoThreads, SeeTheNamesThatAnotherKeeps)
{
    EachTimeAnew([] {
        std::atomic<bool> areKept{
            false}; // relaxed: the library must order the accesses to all other data
        Together(THREADS, [&](int thread) {
            if (thread == 0) {
                HostinfoKeepNames("full", "short");
                areKept.store(true, std::memory_order_relaxed);
            }
            while (!areKept.load(std::memory_order_relaxed)) {}
            EXPECT_EQ(Take(Hostinfo_GetOSName()), "full");
            EXPECT_EQ(Take(Hostinfo_GetOSShortName()), "short");
        });
        return "";
    });
}

TEST(HostinfoThreads, SeeTheClockGoForward)
{
    EachTimeAnew([] {
        Together(THREADS, [](int) {
            uint64_t last = Hostinfo_SystemTimerNS();
            for (int i = 0; i < 1000; i++) {
                const uint64_t now = Hostinfo_SystemTimerNS();
                EXPECT_GE(now, last);
                last = now;
            }
        });
        return "";
    });
}

// A value that one thread has read is in the past of any thread that reads afterwards.
TEST(HostinfoThreads, SeeTheClockGoForwardTogether)
{
    std::atomic<uint64_t> latest{0};
    Together(THREADS, [&](int) {
        for (int i = 0; i < 5000; i++) {
            const uint64_t before = latest.load();
            const uint64_t now = Hostinfo_SystemTimerNS();
            EXPECT_GE(now, before);
            for (uint64_t seen = before; seen < now && !latest.compare_exchange_weak(seen, now);) {}
        }
    });
}

} // namespace
