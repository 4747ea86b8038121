// hostinfoClock.cpp -- clocks, and conversion between rates.
#include "hostinfoInt.h"

#include "diagnostics.h"

#include <atomic>
#include <cmath>
#include <mach/mach_time.h>
#include <sys/time.h>

using namespace pelago;

namespace {

constexpr int TIMEBASE_CHECK = 2668; // the check that ends the process

constexpr int MULT_BITS = 32;
constexpr uint64_t NANOSECONDS_PER_MICROSECOND = 1000;
constexpr int64_t MICROSECONDS_PER_SECOND = 1000000;

// The factor from ticks to nanoseconds, mult in the high half and shift in the low one, so that one
// store changes both.  0 until it is known.
std::atomic<uint64_t> sTimerFactor;

// Returns (x * mult) >> shift, rounded to nearest.
uint64_t HostinfoConvert(uint64_t x, const HostinfoRateConversion &factor)
{
    const auto product = static_cast<unsigned __int128>(x) * factor.mult;
    const auto whole = static_cast<uint64_t>(product >> factor.shift);
    if (factor.shift == 0) { return whole; }
    return whole + (static_cast<uint64_t>(product >> (factor.shift - 1)) & 1);
}

HostinfoRateConversion HostinfoTimerFactor()
{
    mach_timebase_info_data_t timebase = {};
    mach_timebase_info(&timebase);
    if (timebase.numer == 1 && timebase.denom == 1) { return {.mult = 1, .shift = 0}; }
    HostinfoRateConversion factor;
    if (!Hostinfo_RateConversion(timebase.denom, timebase.numer, &factor)) {
        Panic(UTIL_VERIFY_REPORT, HOSTINFO_MODULE, TIMEBASE_CHECK);
    }
    return factor;
}

// Several threads may compute the factor at the same time; all store the same one.
[[gnu::noinline]] uint64_t HostinfoStoreTimerFactor()
{
    const HostinfoRateConversion factor = HostinfoTimerFactor();
    const uint64_t packed = uint64_t{factor.mult} << MULT_BITS | factor.shift;
    sTimerFactor.store(packed, std::memory_order_relaxed);
    return packed;
}

} // namespace

// ---- Clocks

extern "C" uint64_t Hostinfo_SystemTimerNS()
{
    uint64_t packed = sTimerFactor.load(std::memory_order_relaxed);
    if (packed == 0) { packed = HostinfoStoreTimerFactor(); }
    const HostinfoRateConversion factor = {.mult = static_cast<uint32_t>(packed >> MULT_BITS),
                                           .shift = static_cast<uint32_t>(packed)};
    return HostinfoConvert(mach_absolute_time(), factor);
}

extern "C" uint64_t Hostinfo_SystemTimerUS()
{
    return Hostinfo_SystemTimerNS() / NANOSECONDS_PER_MICROSECOND;
}

extern "C" void Hostinfo_GetTimeOfDay(int64_t *microseconds)
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    *microseconds = now.tv_sec * MICROSECONDS_PER_SECOND + now.tv_usec;
}

// ---- Rates

extern "C" bool Hostinfo_RateConversion(uint64_t fromHz, uint64_t toHz,
                                        HostinfoRateConversion *conversion)
{
    if (fromHz == 0) { return false; }
    int exponent = 0;
    const double fraction =
        frexp(static_cast<double>(toHz) / static_cast<double>(fromHz), &exponent);
    if (exponent >= 33 || exponent <= -32) { return false; }

    auto mult = static_cast<uint64_t>(llround(ldexp(fraction, MULT_BITS)));
    auto shift = static_cast<uint32_t>(MULT_BITS - exponent);
    if (mult > UINT32_MAX) { // rounded up to 2^32: halves it, and shifts by one bit less
        if (shift == 0) { return false; }
        mult /= 2;
        shift--;
    }
    *conversion = {.mult = static_cast<uint32_t>(mult), .shift = shift};
    return true;
}

extern "C" bool Hostinfo_RateConversionOffset(uint64_t fromHz, uint64_t fromBase, uint64_t toHz,
                                              uint64_t toBase,
                                              HostinfoRateConversionOffset *conversion)
{
    HostinfoRateConversion factor;
    if (!Hostinfo_RateConversion(fromHz, toHz, &factor)) { return false; }
    *conversion = {.mult = factor.mult,
                   .shift = factor.shift,
                   .add = static_cast<int64_t>(toBase - HostinfoConvert(fromBase, factor))};
    return true;
}

extern "C" void Hostinfo_LogRateConversion(const char *prefix, uint64_t fromHz, uint64_t toHz,
                                           const HostinfoRateConversion *conversion)
{
    Log("%s %lluHz -> %lluHz\n", prefix, static_cast<unsigned long long>(fromHz),
        static_cast<unsigned long long>(toHz));
    Log("%s ((x * %u) >> %u)\n", prefix, conversion->mult, conversion->shift);
}

extern "C" void Hostinfo_LogRateConversionOffset(const char *prefix, uint64_t fromHz,
                                                 uint64_t fromBase, uint64_t toHz, uint64_t toBase,
                                                 const HostinfoRateConversionOffset *conversion)
{
    Log("%s %llu @ %lluHz -> %llu @ %lluHz\n", prefix, static_cast<unsigned long long>(fromBase),
        static_cast<unsigned long long>(fromHz), static_cast<unsigned long long>(toBase),
        static_cast<unsigned long long>(toHz));
    Log("%s ((x * %u) >> %u) + %lld\n", prefix, conversion->mult, conversion->shift,
        static_cast<long long>(conversion->add));
}
