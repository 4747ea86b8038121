#include "hostinfo.h"

#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <mach/mach.h>
#include <optional>
#include <sys/sysctl.h>
#include <utility>
#include <vector>

// What the wrapped calls return.  The kernel itself is not called for these values.
static std::vector<double> sAverages;
static std::string sStatm; // the path of the file that is opened instead
static int sStatmFlags = O_RDONLY;
static kern_return_t sResult;
static natural_t sFreePages;
static mach_msg_type_number_t sStatisticsCount;
static std::optional<uint64_t> sMemory;
static std::vector<mach_zone_name_t> sZoneNames;
static std::vector<mach_zone_info_t> sZoneInfos;
static std::vector<std::pair<void *, size_t>> sGivenBack;

extern "C" {
int __wrap_getloadavg(double *averages, int count)
{
    EXPECT_EQ(count, 3);
    std::ranges::copy(sAverages, averages);
    return sAverages.empty() ? -1 : static_cast<int>(sAverages.size());
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...)
{
    if (strcmp(path, "/proc/self/statm") == 0) {
        EXPECT_TRUE(flags & O_CLOEXEC);
        return __real_open(sStatm.c_str(), sStatmFlags | O_CLOEXEC);
    }
    va_list arguments;
    va_start(arguments, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
    va_end(arguments);
    return __real_open(path, flags, mode);
}

kern_return_t __wrap_host_statistics(host_t host, host_flavor_t flavor, host_info_t info,
                                     mach_msg_type_number_t *count)
{
    EXPECT_EQ(host, mach_host_self());
    EXPECT_EQ(flavor, HOST_VM_INFO);
    EXPECT_EQ(*count, 15u);
    reinterpret_cast<vm_statistics_t>(info)->free_count = sFreePages;
    *count = sStatisticsCount;
    return sResult;
}

int __wrap_sysctlbyname(const char *name, void *value, size_t *size, void *, size_t)
{
    EXPECT_STREQ(name, "hw.memsize");
    EXPECT_EQ(*size, 8u);
    if (!sMemory) { return -1; }
    memcpy(value, &*sMemory, sizeof *sMemory);
    return 0;
}

kern_return_t __wrap_mach_zone_info(mach_port_t host, mach_zone_name_array_t *names,
                                    mach_msg_type_number_t *nameCount,
                                    mach_zone_info_array_t *infos,
                                    mach_msg_type_number_t *infoCount)
{
    EXPECT_EQ(host, mach_host_self());
    if (sResult != KERN_SUCCESS) { return sResult; }
    *names = sZoneNames.data();
    *nameCount = static_cast<mach_msg_type_number_t>(sZoneNames.size());
    *infos = sZoneInfos.data();
    *infoCount = static_cast<mach_msg_type_number_t>(sZoneInfos.size());
    return KERN_SUCCESS;
}

kern_return_t __wrap_vm_deallocate(vm_map_t task, vm_address_t address, vm_size_t size)
{
    EXPECT_EQ(task, mach_task_self());
    sGivenBack.emplace_back(reinterpret_cast<void *>(address), size);
    return KERN_SUCCESS;
}
}

namespace {

template <typename Body> std::string Told(Body body)
{
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

// ---- Load

struct LoadCase {
    double average;
    uint32_t hundredths;
};
class HostinfoLoad : public testing::TestWithParam<LoadCase> {};
TEST_P(HostinfoLoad, IsInWholeHundredths)
{
    sAverages = {GetParam().average, 99, 99};
    uint32_t hundredths = 7;
    EXPECT_TRUE(Hostinfo_GetLoadAverage(&hundredths));
    EXPECT_EQ(hundredths, GetParam().hundredths);
}
INSTANTIATE_TEST_SUITE_P(Table, HostinfoLoad,
                         testing::Values(LoadCase{0, 0}, LoadCase{0.25, 25}, LoadCase{0.019, 1},
                                         LoadCase{12.5, 1250},
                                         // 0.29 * 100 is a little less than 29 in double precision
                                         LoadCase{0.29, 29}, LoadCase{1000, 100000}));

TEST(HostinfoLoadAverage, IsLoggedWithTwoDecimals)
{
    sAverages = {0.25, 12.126, 100};
    EXPECT_EQ(Told(Hostinfo_LogLoadAverage), "Log: LOADAVG: 0.25 12.13 100.00\n");
}

TEST(HostinfoLoadAverage, IsNoneWithoutAllThree)
{
    for (const std::vector<double> &averages :
         {std::vector<double>{}, std::vector<double>{1}, std::vector<double>{1, 2}}) {
        sAverages = averages;
        uint32_t hundredths = 7;
        EXPECT_FALSE(Hostinfo_GetLoadAverage(&hundredths));
        EXPECT_EQ(hundredths, 7u);
        EXPECT_EQ(Told(Hostinfo_LogLoadAverage), "");
    }
}

// ---- This process's memory

std::string ToldOf(const std::string &statm)
{
    const TemporaryFolder folder;
    sStatm = folder.Path() + "/statm";
    std::ofstream(sStatm) << statm;
    return Told(Hostinfo_LogMemUsage);
}

TEST(HostinfoLogMemUsage, TellsAllSevenSizes)
{
    EXPECT_EQ(ToldOf("1 22 333 4444 0 55555 6\n"),
              "Log: RUSAGE size=1 resident=22 share=333 trs=4444 lrs=0 drs=55555 dt=6\n");
}

TEST(HostinfoLogMemUsage, TakesWhatCannotBeReadForNothing)
{
    EXPECT_EQ(ToldOf("1 2 x 4"), "Log: RUSAGE size=1 resident=2 share=0 trs=0 lrs=0 drs=0 dt=0\n");
    EXPECT_EQ(ToldOf(""), "Log: RUSAGE size=0 resident=0 share=0 trs=0 lrs=0 drs=0 dt=0\n");
}

TEST(HostinfoLogMemUsage, LooksAt63Bytes)
{
    const std::string blanks(61, ' ');
    EXPECT_EQ(ToldOf(blanks + "123"),
              "Log: RUSAGE size=12 resident=0 share=0 trs=0 lrs=0 drs=0 dt=0\n");
}

TEST(HostinfoLogMemUsage, SaysNothingWithoutTheFile)
{
    sStatm = "/nowhere/statm";
    EXPECT_EQ(Told(Hostinfo_LogMemUsage), "");
}

TEST(HostinfoLogMemUsage, SaysNothingWhenItCannotBeRead)
{
    sStatm = "/"; // a folder can be opened, but not read
    EXPECT_EQ(Told(Hostinfo_LogMemUsage), "");
}

TEST(HostinfoLogMemUsage, LeavesNoDescriptorOpen)
{
    const int before = dup(0);
    close(before);
    ToldOf("1 2 3");
    sStatm = "/";
    Hostinfo_LogMemUsage();
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}

// ---- The host's memory

class HostinfoMemoryInPages : public testing::Test {
protected:
    void SetUp() override
    {
        sResult = KERN_SUCCESS;
        sStatisticsCount = 15;
        sFreePages = 1234;
        sMemory = uint64_t{16} << 30;
    }
    void ExpectFailure(const std::string &warning)
    {
        EXPECT_EQ(
            Told([this] { EXPECT_FALSE(Hostinfo_GetMemoryInfoInPages(&mMin, &mMax, &mCurrent)); }),
            warning);
        EXPECT_EQ((std::vector{mMin, mMax, mCurrent}), (std::vector{7u, 7u, 7u}));
    }
    unsigned int mMin = 7, mMax = 7, mCurrent = 7;
};

TEST_F(HostinfoMemoryInPages, IsTheKernels)
{
    EXPECT_TRUE(Hostinfo_GetMemoryInfoInPages(&mMin, &mMax, &mCurrent));
    EXPECT_EQ(mMin, 128u);
    EXPECT_EQ(mMax, 4194304u);
    EXPECT_EQ(mCurrent, 1234u);
}

TEST_F(HostinfoMemoryInPages, CountsWholePages)
{
    sMemory = 3 * 4096 + 4095;
    EXPECT_TRUE(Hostinfo_GetMemoryInfoInPages(&mMin, &mMax, &mCurrent));
    EXPECT_EQ(mMax, 3u);
}

TEST_F(HostinfoMemoryInPages, EndsWhereTheyCannotBeCounted)
{
    sFreePages = UINT_MAX;
    for (const uint64_t memory : {(uint64_t{1} << 44) - 4096, uint64_t{1} << 44, UINT64_MAX}) {
        sMemory = memory;
        EXPECT_TRUE(Hostinfo_GetMemoryInfoInPages(&mMin, &mMax, &mCurrent));
        EXPECT_EQ(mMax, UINT_MAX);
        EXPECT_EQ(mCurrent, UINT_MAX);
    }
}

TEST_F(HostinfoMemoryInPages, AreWarnedOfWithoutStatistics)
{
    sResult = KERN_FAILURE;
    ExpectFailure("Warning: Hostinfo_GetMemoryInfoInPages: Unable to retrieve host vm stats.\n");
}

TEST_F(HostinfoMemoryInPages, AreWarnedOfWithOtherStatistics)
{
    for (const mach_msg_type_number_t count : {14, 16, 0}) {
        sStatisticsCount = count;
        ExpectFailure(
            "Warning: Hostinfo_GetMemoryInfoInPages: Unable to retrieve host vm stats.\n");
    }
}

TEST_F(HostinfoMemoryInPages, AreWarnedOfWithoutASize)
{
    sMemory.reset();
    ExpectFailure(
        "Warning: Hostinfo_GetMemoryInfoInPages: Unable to retrieve host vm hw.memsize.\n");
}

// ---- Zones

class HostinfoZone : public testing::Test {
protected:
    void SetUp() override
    {
        sResult = KERN_SUCCESS;
        sGivenBack.clear();
        sZoneNames.clear();
        sZoneInfos.clear();
    }
    static void Add(const std::string &name, uint64_t elementSize)
    {
        mach_zone_name_t zone;
        memset(&zone, 'x', sizeof zone);
        memcpy(zone.mzn_name, name.c_str(), std::min(name.size() + 1, sizeof zone.mzn_name));
        sZoneNames.push_back(zone);
        mach_zone_info_t info;
        memset(&info, 0x77, sizeof info);
        info.mzi_elem_size = elementSize;
        sZoneInfos.push_back(info);
    }
    static size_t SizeOf(const std::string &name)
    {
        const size_t size = Hostinfo_GetKernelZoneElemSize(name.c_str());
        EXPECT_EQ(sGivenBack, (std::vector<std::pair<void *, size_t>>{
                                  {sZoneInfos.data(), 64 * sZoneInfos.size()},
                                  {sZoneNames.data(), 80 * sZoneNames.size()}}));
        sGivenBack.clear();
        return size;
    }
};

TEST_F(HostinfoZone, IsFoundByItsVeryName)
{
    Add("zone.10", 10);
    Add("zone.1", 1);
    Add("zone", 5);
    Add("Zone", 6);
    Add("", 7);
    EXPECT_EQ(SizeOf("zone.10"), 10u);
    EXPECT_EQ(SizeOf("zone.1"), 1u);
    EXPECT_EQ(SizeOf("zone"), 5u);
    EXPECT_EQ(SizeOf("Zone"), 6u);
    EXPECT_EQ(SizeOf(""), 7u);
    EXPECT_EQ(SizeOf("zon"), 0u);
    EXPECT_EQ(SizeOf("zones"), 0u);
}

TEST_F(HostinfoZone, IsTheFirstOfItsName)
{
    Add("zone", 5);
    Add("zone", 6);
    EXPECT_EQ(SizeOf("zone"), 5u);
}

TEST_F(HostinfoZone, MayHaveANameThatFillsItsField)
{
    const std::string name(80, 'n');
    Add(name, 5);
    EXPECT_EQ(SizeOf(name), 5u);
    EXPECT_EQ(SizeOf(name + "n"), 0u);
    EXPECT_EQ(SizeOf(name.substr(1)), 0u);
}

TEST_F(HostinfoZone, MayBeLargerThan4GiB)
{
    Add("zone", uint64_t{5} << 32);
    EXPECT_EQ(SizeOf("zone"), uint64_t{5} << 32);
}

TEST_F(HostinfoZone, CountsWhereItIsNamedAndDescribed)
{
    Add("zone", 5);
    Add("more", 6);
    sZoneInfos.pop_back();
    EXPECT_EQ(SizeOf("zone"), 5u);
    EXPECT_EQ(SizeOf("more"), 0u);
    sZoneNames.clear();
    EXPECT_EQ(Hostinfo_GetKernelZoneElemSize("zone"), 0u);
}

struct ZoneFailure {
    kern_return_t result;
    const char *told;
};
class HostinfoZoneFailure : public testing::TestWithParam<ZoneFailure> {};
TEST_P(HostinfoZoneFailure, IsWarnedOf)
{
    sResult = GetParam().result;
    sGivenBack.clear();
    EXPECT_EQ(Told([] { EXPECT_EQ(Hostinfo_GetKernelZoneElemSize("zone"), 0u); }),
              std::string("Warning: Hostinfo_GetKernelZoneElemSize: mach_zone_info failed ") +
                  GetParam().told + ".\n");
    EXPECT_TRUE(sGivenBack.empty());
}
INSTANTIATE_TEST_SUITE_P(Codes, HostinfoZoneFailure,
                         testing::Values(ZoneFailure{8, "8"}, ZoneFailure{22, "22"},
                                         ZoneFailure{-308, "4294966988"}));

} // namespace
