#include "hostinfo.h"

#include "inChild.h"
#include "panic.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <mach/mach_time.h>
#include <optional>
#include <random>
#include <sys/time.h>
#include <vector>

// What the wrapped clocks return; nullopt: the real clock is read.
static std::optional<mach_timebase_info_data_t> sTimebase;
static bool sTimebaseFails;
static int sTimebaseCalls;
static std::optional<uint64_t> sTicks;
static std::optional<timeval> sNow;

extern "C" {
kern_return_t __real_mach_timebase_info(mach_timebase_info_t info);
kern_return_t __wrap_mach_timebase_info(mach_timebase_info_t info)
{
    sTimebaseCalls++;
    if (sTimebaseFails) { return KERN_FAILURE; }
    if (!sTimebase) { return __real_mach_timebase_info(info); }
    *info = *sTimebase;
    return KERN_SUCCESS;
}
uint64_t __real_mach_absolute_time();
uint64_t __wrap_mach_absolute_time() { return sTicks ? *sTicks : __real_mach_absolute_time(); }
int __real_gettimeofday(timeval *now, void *zone);
int __wrap_gettimeofday(timeval *now, void *zone)
{
    if (!sNow) { return __real_gettimeofday(now, zone); }
    *now = *sNow;
    return 0;
}
}

namespace {

using Wide = unsigned __int128;

// ---- Factors

struct FactorCase {
    uint64_t fromHz, toHz;
    uint32_t mult, shift;
};
class HostinfoFactor : public testing::TestWithParam<FactorCase> {};
TEST_P(HostinfoFactor, IsTheNearestThereIs)
{
    const auto &[fromHz, toHz, mult, shift] = GetParam();
    HostinfoRateConversion factor;
    ASSERT_TRUE(Hostinfo_RateConversion(fromHz, toHz, &factor));
    EXPECT_EQ(factor.mult, mult);
    EXPECT_EQ(factor.shift, shift);
}
constexpr uint32_t HALF = 0x80000000;
constexpr uint64_t TWO_32 = uint64_t{1} << 32;
INSTANTIATE_TEST_SUITE_P(
    Rates, HostinfoFactor,
    testing::Values(FactorCase{3, 125, 2796202667, 26}, FactorCase{125, 3, 3298534883, 37},
                    FactorCase{1, 1, HALF, 31}, FactorCase{UINT64_MAX, UINT64_MAX, HALF, 31},
                    FactorCase{1, 2, HALF, 30}, FactorCase{2, 1, HALF, 32},
                    FactorCase{1, 3, 0xC0000000, 30}, FactorCase{3, 1, 0xAAAAAAAB, 33},
                    FactorCase{5, 0, 0, 32}));
INSTANTIATE_TEST_SUITE_P(
    Borders, HostinfoFactor,
    testing::Values(FactorCase{1, TWO_32 - 1, 0xFFFFFFFF, 0},
                    FactorCase{4, 4 * TWO_32 - 3, 0xFFFFFFFF, 0}, // is rounded down to that
                    FactorCase{1, TWO_32 / 2, HALF, 0}, FactorCase{TWO_32, 1, HALF, 63},
                    // 2^-32 plus half of the last bit
                    FactorCase{TWO_32 - 1, 1, HALF + 1, 63},
                    // Exact factors just below 1: the first and the third are nearest to 1.
                    FactorCase{2 * TWO_32, 2 * TWO_32 - 1, HALF, 31},
                    FactorCase{4 * TWO_32, 4 * TWO_32 - 3, 0xFFFFFFFF, 32},
                    FactorCase{UINT64_MAX, UINT64_MAX - 1, HALF, 31}));

struct RatesCase {
    uint64_t fromHz, toHz;
};
class HostinfoFactorOutOfRange : public testing::TestWithParam<RatesCase> {};
TEST_P(HostinfoFactorOutOfRange, IsRefused)
{
    HostinfoRateConversion factor{.mult = 7, .shift = 9};
    EXPECT_FALSE(Hostinfo_RateConversion(GetParam().fromHz, GetParam().toHz, &factor));
    EXPECT_EQ(factor.mult, 7u);
    EXPECT_EQ(factor.shift, 9u);
    HostinfoRateConversionOffset offset{.mult = 7, .shift = 9, .add = 11};
    EXPECT_FALSE(Hostinfo_RateConversionOffset(GetParam().fromHz, 5, GetParam().toHz, 6, &offset));
    EXPECT_EQ(offset.mult, 7u);
    EXPECT_EQ(offset.shift, 9u);
    EXPECT_EQ(offset.add, 11);
}
INSTANTIATE_TEST_SUITE_P(Rates, HostinfoFactorOutOfRange,
                         testing::Values(RatesCase{1, uint64_t{1} << 40},
                                         RatesCase{uint64_t{1} << 40, 1}, RatesCase{1, TWO_32},
                                         RatesCase{TWO_32 + 1, 1}, RatesCase{1, UINT64_MAX},
                                         RatesCase{UINT64_MAX, 1}, RatesCase{0, 1}, RatesCase{0, 0},
                                         RatesCase{0, UINT64_MAX},
                                         // rounded up to 2^32, which does not fit
                                         RatesCase{2, 2 * TWO_32 - 1}));

// Returns a number of any magnitude, so that the borders are tested.
uint64_t AnyRate(std::mt19937_64 &random) { return (random() >> random() % 64) | 1; }

TEST(HostinfoRateConversion, IsExactToHalfItsLastBit)
{
    std::mt19937_64 random(20261121);
    int known = 0, refused = 0;
    for (int i = 0; i < 200'000; i++) {
        const uint64_t fromHz = AnyRate(random), toHz = AnyRate(random);
        SCOPED_TRACE(std::to_string(fromHz) + " -> " + std::to_string(toHz));
        HostinfoRateConversion factor;
        if (!Hostinfo_RateConversion(fromHz, toHz, &factor)) {
            // The rates are rounded to 53 bits, so there is this tolerance on either side of the
            // borders.
            EXPECT_TRUE(toHz >= (Wide{fromHz} << 32) - fromHz ||
                        (Wide{toHz} << 32) <= fromHz + (fromHz >> 50));
            refused++;
            continue;
        }
        ASSERT_GE(factor.mult, HALF);
        ASSERT_LE(factor.shift, 63u);
        const Wide ours = Wide{factor.mult} * fromHz, exact = Wide{toHz} << factor.shift;
        const Wide error = ours > exact ? ours - exact : exact - ours;
        ASSERT_LE(2 * error, Wide{fromHz} + (fromHz >> 16) + 1);
        known++;
    }
    EXPECT_GT(known, 100'000);
    EXPECT_GT(refused, 10'000);
}

// ---- Offsets

struct OffsetCase {
    uint64_t fromHz, fromBase, toHz, toBase;
    int64_t add;
};
class HostinfoOffset : public testing::TestWithParam<OffsetCase> {};
TEST_P(HostinfoOffset, MapsOneBaseToTheOther)
{
    const auto &[fromHz, fromBase, toHz, toBase, add] = GetParam();
    HostinfoRateConversionOffset offset;
    HostinfoRateConversion factor;
    ASSERT_TRUE(Hostinfo_RateConversionOffset(fromHz, fromBase, toHz, toBase, &offset));
    ASSERT_TRUE(Hostinfo_RateConversion(fromHz, toHz, &factor));
    EXPECT_EQ(offset.mult, factor.mult);
    EXPECT_EQ(offset.shift, factor.shift);
    EXPECT_EQ(offset.add, add);
}
INSTANTIATE_TEST_SUITE_P(Table, HostinfoOffset,
                         testing::Values(OffsetCase{1, 0, 1, 0, 0}, OffsetCase{1, 5, 1, 7, 2},
                                         OffsetCase{1, 7, 1, 5, -2},
                                         // 1.25, 1.5 and 1.75, and their rounded values
                                         OffsetCase{4, 5, 1, 10, 9}, OffsetCase{4, 6, 1, 10, 8},
                                         OffsetCase{4, 7, 1, 10, 8},
                                         // 125 thirds of 3 are a little less than 125 in 32 bits
                                         OffsetCase{3, 3, 125, 1000, 875},
                                         // a shift of 0, so no bit to round by
                                         OffsetCase{1, 2, TWO_32 - 1, 0, -8589934590},
                                         OffsetCase{1, 1, TWO_32 / 2, 5, 5 - 2147483648},
                                         // the whole range, in which the offset wraps around
                                         OffsetCase{1, UINT64_MAX, 1, 0, 1},
                                         OffsetCase{1, 0, 1, UINT64_MAX, -1},
                                         OffsetCase{1, 0, 1, uint64_t{1} << 63, INT64_MIN},
                                         // a product of 96 bits
                                         OffsetCase{3, UINT64_MAX, 1, 0, -6148914691952345088}));

// ---- The logged lines

TEST(HostinfoLogRateConversion, TellsRatesAndFactor)
{
    const HostinfoRateConversion factor{.mult = 4294967295, .shift = 63};
    testing::internal::CaptureStderr();
    Hostinfo_LogRateConversion("Clock:", 3, UINT64_MAX, &factor);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Log: Clock: 3Hz -> 18446744073709551615Hz\n"
                                                      "Log: Clock: ((x * 4294967295) >> 63)\n");
}

TEST(HostinfoLogRateConversion, TellsBasesAndOffset)
{
    const HostinfoRateConversionOffset offset{.mult = 1, .shift = 2, .add = INT64_MIN};
    testing::internal::CaptureStderr();
    Hostinfo_LogRateConversionOffset("Clock:", UINT64_MAX, 20, 30, 40, &offset);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Log: Clock: 20 @ 18446744073709551615Hz -> 40 @ 30Hz\n"
              "Log: Clock: ((x * 1) >> 2) + -9223372036854775808\n");
}

// ---- The clocks

struct TicksCase {
    uint32_t numer, denom;
    uint64_t ticks, nanoseconds;
};
class HostinfoTicks : public testing::TestWithParam<TicksCase> {};
TEST_P(HostinfoTicks, AreNanosecondsByTheTimebase)
{
    const auto &[numer, denom, ticks, nanoseconds] = GetParam();
    const Outcome outcome = InChild([&, numer = numer, denom = denom, ticks = ticks] {
        sTimebase = {.numer = numer, .denom = denom};
        sTicks = ticks;
        return std::to_string(Hostinfo_SystemTimerNS());
    });
    EXPECT_EQ(outcome.result, std::to_string(nanoseconds));
    EXPECT_EQ(outcome.errors, "");
}
constexpr uint64_t TWO_63 = uint64_t{1} << 63;
INSTANTIATE_TEST_SUITE_P(
    Table, HostinfoTicks,
    testing::Values(
        TicksCase{1, 1, 0, 0}, TicksCase{1, 1, TWO_63, TWO_63},
        TicksCase{1, 1, UINT64_MAX, UINT64_MAX}, TicksCase{1000, 1000, UINT64_MAX, UINT64_MAX},
        // rounded by the first bit that falls off
        TicksCase{125, 3, 0, 0}, TicksCase{125, 3, 1, 42}, TicksCase{125, 3, 2, 83},
        TicksCase{125, 3, 3, 125}, TicksCase{125, 3, 24'000'000, 1'000'000'000},
        TicksCase{1, 2, 1, 1}, TicksCase{1, 2, 3, 2}, TicksCase{1, 2, 5, 3}, TicksCase{1, 4, 5, 1},
        TicksCase{1, 4, 6, 2}, TicksCase{1, 4, 7, 2},
        // the factor that Hostinfo_RateConversion() computes, applied in whole numbers
        TicksCase{
            125, 3, 400'000'000'000'000'000,
            static_cast<uint64_t>((Wide{400'000'000'000'000'000} * 2796202667 + (1 << 25)) >> 26)},
        TicksCase{1, 3, TWO_63,
                  static_cast<uint64_t>((Wide{TWO_63} * 0xAAAAAAAB + (Wide{1} << 32)) >> 33)},
        TicksCase{UINT32_MAX, 1, 4, 4 * uint64_t{UINT32_MAX}},
        TicksCase{0, 7, 1000, 0})); // a clock that stands still

TEST(HostinfoSystemTimer, TellsWholeMicroseconds)
{
    InChild([] {
        sTimebase = {.numer = 1, .denom = 1};
        sTicks = 1999;
        EXPECT_EQ(Hostinfo_SystemTimerUS(), 1u);
        sTicks = UINT64_MAX;
        EXPECT_EQ(Hostinfo_SystemTimerUS(), UINT64_MAX / 1000);
        return "";
    });
}

TEST(HostinfoSystemTimer, AsksForTheTimebaseOnce)
{
    for (const uint32_t numer : {1U, 125U}) {
        InChild([numer] {
            sTimebase = {.numer = numer, .denom = 1};
            Hostinfo_SystemTimerNS();
            Hostinfo_SystemTimerUS();
            Hostinfo_SystemTimerNS();
            EXPECT_EQ(sTimebaseCalls, 1);
            return "";
        });
    }
}

TEST(HostinfoSystemTimerDeathTest, EndsTheProcessWithoutAFactor)
{
    EXPECT_PANIC(
        {
            sTimebase.emplace().numer = 1; // divided by 0
            Hostinfo_SystemTimerNS();
        },
        "VERIFY lib/misc/hostinfoPosix:2668\n");
    EXPECT_PANIC(
        {
            sTimebaseFails = true;
            Hostinfo_SystemTimerUS();
        },
        "VERIFY lib/misc/hostinfoPosix:2668\n");
}

struct TimeOfDayCase {
    timeval now;
    int64_t microseconds;
};
class HostinfoTimeOfDay : public testing::TestWithParam<TimeOfDayCase> {};
TEST_P(HostinfoTimeOfDay, IsInMicroseconds)
{
    sNow = GetParam().now;
    int64_t microseconds = 77;
    Hostinfo_GetTimeOfDay(&microseconds);
    EXPECT_EQ(microseconds, GetParam().microseconds);
    sNow.reset();
}
INSTANTIATE_TEST_SUITE_P(
    Table, HostinfoTimeOfDay,
    testing::Values(TimeOfDayCase{{0, 0}, 0},
                    TimeOfDayCase{{1'700'000'000, 123'456}, 1'700'000'000'123'456},
                    TimeOfDayCase{{-1, 5}, -999'995},
                    TimeOfDayCase{{253'402'300'799, 999'999}, 253'402'300'799'999'999}));

} // namespace
