// Host information without memory.
#include "noMemory.h"

#include "hostinfo.h"

#include "hostinfoInt.h"

#include <cstring>
#include <string_view>
#include <sys/sysctl.h>
#include <unistd.h>

using namespace pelago;

// Replaces the call for the texts that some machines lack.
extern "C" {
int __real_sysctlbyname(const char *name, void *value, size_t *size, void *fresh, size_t of);
int __wrap_sysctlbyname(const char *name, void *value, size_t *size, void *fresh, size_t of)
{
    const std::string_view asked = name;
    if (asked != "hw.model" && asked != "machdep.cpu.brand_string") {
        return __real_sysctlbyname(name, value, size, fresh, of);
    }
    *size = 5;
    if (value != nullptr) { memcpy(value, "text", *size); }
    return 0;
}
}

namespace {

// Looks up the cached values; other tests cover these lookups without memory.
const bool sIsKept = [] {
    HostinfoOSVersionInit();
    HostinfoKeepNames("full", "short");
    return Hostinfo_HostNameCached() != nullptr;
}();

// For functions that write to standard error: returns whether the output begins with this text, and
// leaves none of the output there.
template <typename Call> bool Tells(const std::string &begin, Call call)
{
    testing::internal::CaptureStderr();
    Scarcely(call);
    return testing::internal::GetCapturedStderr().starts_with(begin);
}

// ---- The operating system

NEEDS_NO_MEMORY(Hostinfo_OSVersion)
{
    return Scarcely([] { return Hostinfo_OSVersion(0); }) > 0;
}

NEEDS_NO_MEMORY(Hostinfo_OSVersionString)
{
    return Scarcely([] { return Hostinfo_OSVersionString(); })[0] != '\0';
}

RUNS_OUT(Hostinfo_GetOSName, PANICS)
{
    return Gives("full", Scarcely([] { return Hostinfo_GetOSName(); }));
}

RUNS_OUT(Hostinfo_GetOSShortName, PANICS)
{
    return Gives("short", Scarcely([] { return Hostinfo_GetOSShortName(); }));
}

RUNS_OUT(Hostinfo_GetOSDetailedData, PANICS)
{
    return Gives("", Scarcely([] { return Hostinfo_GetOSDetailedData(); }));
}

NEEDS_NO_MEMORY(Hostinfo_GetSystemBitness)
{
    return Scarcely([] { return Hostinfo_GetSystemBitness(); }) > 0;
}

RUNS_OUT(Hostinfo_HostName, PANICS)
{
    return Gives(Hostinfo_HostNameCached(), Scarcely([] { return Hostinfo_HostName(); }));
}

NEEDS_NO_MEMORY(Hostinfo_HostNameCached)
{
    return sIsKept && Scarcely([] { return Hostinfo_HostNameCached(); }) != nullptr;
}

// ---- The processor

NEEDS_NO_MEMORY(Hostinfo_GetCpuid)
{
    HostinfoCpuidSummary summary;
    return Scarcely([&] { return Hostinfo_GetCpuid(&summary); }) && summary.version != 0;
}

RUNS_OUT(Hostinfo_GetCpuidDump, FAILS)
{
    const std::string dump = Take(Hostinfo_GetCpuidDump());
    return Gives(dump, Scarcely([] { return Hostinfo_GetCpuidDump(); }));
}

NEEDS_NO_MEMORY(Hostinfo_NumCPUs)
{
    return Scarcely([] { return Hostinfo_NumCPUs(); }) > 0;
}

NEEDS_NO_MEMORY(Hostinfo_CpuMHz)
{
    uint32_t mhz = 0;
    const bool isKnown = Scarcely([&] { return Hostinfo_CpuMHz(0, &mhz); });
    return isKnown == (mhz != 0);
}

RUNS_OUT(Hostinfo_CpuBrandString, PANICS)
{
    return Gives("text", Scarcely([] { return Hostinfo_CpuBrandString(); }));
}

RUNS_OUT(Hostinfo_HardwareModel, PANICS)
{
    return Gives("text", Scarcely([] { return Hostinfo_HardwareModel(); }));
}

NEEDS_NO_MEMORY(Hostinfo_ProcTranslated)
{
    return Scarcely([] { return Hostinfo_ProcTranslated(); }) == 0;
}

// ---- Clocks

NEEDS_NO_MEMORY(Hostinfo_SystemTimerNS)
{
    return Scarcely([] { return Hostinfo_SystemTimerNS(); }) != 0;
}

NEEDS_NO_MEMORY(Hostinfo_SystemTimerUS)
{
    return Scarcely([] { return Hostinfo_SystemTimerUS(); }) != 0;
}

NEEDS_NO_MEMORY(Hostinfo_GetTimeOfDay)
{
    int64_t now = 0;
    Scarcely([&] { Hostinfo_GetTimeOfDay(&now); });
    return now != 0;
}

NEEDS_NO_MEMORY(Hostinfo_RateConversion)
{
    HostinfoRateConversion factor;
    return Scarcely([&] { return Hostinfo_RateConversion(3, 125, &factor); }) && factor.shift == 26;
}

NEEDS_NO_MEMORY(Hostinfo_RateConversionOffset)
{
    HostinfoRateConversionOffset offset;
    return Scarcely([&] { return Hostinfo_RateConversionOffset(1, 5, 1, 7, &offset); }) &&
           offset.add == 2;
}

NEEDS_NO_MEMORY(Hostinfo_LogRateConversion)
{
    const HostinfoRateConversion factor{.mult = 1, .shift = 0};
    return Tells("Clock 1Hz", [&] { Hostinfo_LogRateConversion("Clock", 1, 1, &factor); });
}

NEEDS_NO_MEMORY(Hostinfo_LogRateConversionOffset)
{
    const HostinfoRateConversionOffset offset{.mult = 1, .shift = 0, .add = 2};
    return Tells("Clock 5 @ 1Hz",
                 [&] { Hostinfo_LogRateConversionOffset("Clock", 1, 5, 1, 7, &offset); });
}

// ---- Load and memory

NEEDS_NO_MEMORY(Hostinfo_GetLoadAverage)
{
    uint32_t hundredths;
    return Scarcely([&] { return Hostinfo_GetLoadAverage(&hundredths); });
}

NEEDS_NO_MEMORY(Hostinfo_LogLoadAverage)
{
    return Tells("LOADAVG: ", [] { Hostinfo_LogLoadAverage(); });
}

NEEDS_NO_MEMORY(Hostinfo_LogMemUsage)
{
    return Tells("RUSAGE size=", [] { Hostinfo_LogMemUsage(); });
}

NEEDS_NO_MEMORY(Hostinfo_GetMemoryInfoInPages)
{
    unsigned int least, all, available;
    return Scarcely([&] { return Hostinfo_GetMemoryInfoInPages(&least, &all, &available); }) &&
           available < all;
}

NEEDS_NO_MEMORY(Hostinfo_GetKernelZoneElemSize)
{
    // The function warns an ordinary user.
    const std::string told =
        geteuid() == 0 ? "" : "Hostinfo_GetKernelZoneElemSize: mach_zone_info failed";
    return Tells(told, [] { Hostinfo_GetKernelZoneElemSize("no such zone"); });
}

// ---- This process, its user, other processes

RUNS_OUT(Hostinfo_GetUser, PANICS)
{
    const std::string user = Take(Hostinfo_GetUser());
    return Gives(user, Scarcely([] { return Hostinfo_GetUser(); }));
}

NEEDS_NO_MEMORY(Hostinfo_QueryProcessExistence)
{
    return Scarcely([] { return Hostinfo_QueryProcessExistence(getpid()); }) ==
           HOSTINFO_PROCESS_QUERY_ALIVE;
}

} // namespace
