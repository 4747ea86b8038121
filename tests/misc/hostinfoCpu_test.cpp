#include "hostinfo.h"

#include "allocations.h"
#include "hostinfoInt.h"
#include "scopedForTests.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <sys/sysctl.h>
#include <vector>

using namespace pelago;

// The kernel's values by name, and the sizes that the calls passed; SIZE_MAX: the call asked for
// the size.
static std::map<std::string, std::string> sValues;
static std::vector<size_t> sSizes;
static int sValueError = ENOENT; // for a name that is not in sValues
static bool sGrows;              // between the call for the size and the call for the value

extern "C" int __wrap_sysctlbyname(const char *name, void *value, size_t *size, void *fresh,
                                   size_t freshSize)
{
    EXPECT_EQ(fresh, nullptr);
    EXPECT_EQ(freshSize, 0u);
    sSizes.push_back(value == nullptr ? SIZE_MAX : *size);
    const auto found = sValues.find(name);
    if (found == sValues.end()) {
        errno = sValueError;
        return -1;
    }
    const std::string &bytes = found->second;
    if (value == nullptr) {
        *size = bytes.size();
        if (sGrows) { found->second += "more"; }
        return 0;
    }
    const size_t fits = std::min(*size, bytes.size());
    memcpy(value, bytes.data(), fits);
    *size = fits;
    errno = ENOMEM;
    return fits == bytes.size() ? 0 : -1;
}

namespace {

// ---- The processor's own data

std::map<uint32_t, HostinfoCpuidLeaf> sLeaves;
std::vector<uint32_t> sAsked;

HostinfoCpuidLeaf Ask(uint32_t leaf)
{
    sAsked.push_back(leaf);
    return sLeaves[leaf];
}

uint32_t Word(const char *bytes)
{
    uint32_t word;
    memcpy(&word, bytes, sizeof word);
    return word;
}

// Returns leaf 0 of a processor from this vendor.
HostinfoCpuidLeaf Basic(uint32_t highest, const char *vendor)
{
    return {.eax = highest, .ebx = Word(vendor), .ecx = Word(vendor + 8), .edx = Word(vendor + 4)};
}

class HostinfoCpuid : public testing::Test {
protected:
    void SetUp() override
    {
        sLeaves.clear();
        sAsked.clear();
    }
};

struct VendorCase {
    const char *name;
    int vendor;
};
class HostinfoCpuVendorName : public testing::TestWithParam<VendorCase> {};
TEST_P(HostinfoCpuVendorName, IsKnownByItsNumber)
{
    sLeaves = {{0, Basic(1, GetParam().name)}};
    HostinfoCpuidSummary summary;
    ASSERT_TRUE(HostinfoSummarizeCpuid(Ask, &summary));
    EXPECT_EQ(summary.vendor, GetParam().vendor);
}
INSTANTIATE_TEST_SUITE_P(
    Table, HostinfoCpuVendorName,
    testing::Values(VendorCase{"GenuineIntel", 2}, VendorCase{"AuthenticAMD", 3},
                    VendorCase{"HygonGenuine", 6}, VendorCase{"CentaurHauls", 0},
                    VendorCase{"GenuineIotel", 0}, VendorCase{"genuineintel", 0}),
    [](const auto &row) { return row.param.name; });

TEST_F(HostinfoCpuid, IsTakenApart)
{
    sLeaves = {{0, Basic(22, "GenuineIntel")},
               {1, {.eax = 0xFFFAD6C3, .ebx = 9, .ecx = 0x7FFAFBBF, .edx = 0xBFEBFBFF}}};
    HostinfoCpuidSummary summary;
    ASSERT_TRUE(HostinfoSummarizeCpuid(Ask, &summary));
    EXPECT_EQ(summary.version, 0xFFFAD6C3u);
    EXPECT_EQ(summary.family, 6);
    EXPECT_EQ(summary.model, 12);
    EXPECT_EQ(summary.stepping, 3);
    EXPECT_EQ(summary.type, 1) << "two bits of 13";
    EXPECT_EQ(summary.featuresEdx, 0xBFEBFBFFu);
    EXPECT_EQ(summary.featuresEcx, 0x7FFAFBBFu);
}

TEST_F(HostinfoCpuid, IsWarnedOfWhereThereIsNone)
{
    sLeaves = {{0, Basic(0, "GenuineIntel")}};
    HostinfoCpuidSummary summary;
    memset(&summary, 0x55, sizeof summary);
    const HostinfoCpuidSummary before = summary;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(HostinfoSummarizeCpuid(Ask, &summary));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Warning: HOSTINFO: No CPUID information available.\n");
    EXPECT_EQ(memcmp(&summary, &before, sizeof summary), 0);
    EXPECT_EQ(sAsked, std::vector<uint32_t>{0});
}

constexpr HostinfoCpuidLeaf LEAF{
    .eax = 0xA, .ebx = 0xBEEF, .ecx = 0xC0FFEE, .edx = 0xDEADBEEF}; // in a dump:
constexpr char RECORD[] = ":0000000A0000BEEF00C0FFEEDEADBEEF";

struct DumpCase {
    uint32_t highest, highestExtended;
    std::vector<uint32_t> leaves;
};
class HostinfoCpuidDump : public testing::TestWithParam<DumpCase> {};
TEST_P(HostinfoCpuidDump, HasTheLeavesThatThereAre)
{
    const auto &[highest, highestExtended, leaves] = GetParam();
    sLeaves = {{0, {highest, 1, 2, 3}},
               {1, LEAF},
               {10, LEAF},
               {0x80000000, {highestExtended, 4, 5, 6}},
               {0x80000001, LEAF},
               {0x80000008, LEAF}};
    sAsked.clear();
    std::string expected;
    for (const uint32_t leaf : leaves) {
        char number[9];
        snprintf(number, sizeof number, "%08X", leaf);
        expected += expected.empty() ? "" : "-";
        expected += number;
        char first[40];
        snprintf(first, sizeof first, ":%08X%s", leaf == 0 ? highest : highestExtended,
                 leaf == 0 ? "000000010000000200000003" : "000000040000000500000006");
        expected += leaf % 0x80000000 == 0 ? first : RECORD;
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(Take(HostinfoDumpCpuid(Ask)), expected);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(sAsked, leaves) << "asked for no others";
}
INSTANTIATE_TEST_SUITE_P(
    Table, HostinfoCpuidDump,
    testing::Values(DumpCase{22, 0x80000008, {0, 1, 10, 0x80000000, 0x80000001, 0x80000008}},
                    DumpCase{10, 0x80000021, {0, 1, 10, 0x80000000, 0x80000001, 0x80000008}},
                    DumpCase{9, 0x80000007, {0, 1, 0x80000000, 0x80000001}},
                    DumpCase{1, 0x80000001, {0, 1, 0x80000000, 0x80000001}},
                    DumpCase{0, 0x80000000, {0, 0x80000000}}));

// The length of the earlier records decides which record is the first that does not fit into the
// first block.
class HostinfoCpuidDumpWithoutMemory : public testing::TestWithParam<uint32_t> {};
TEST_P(HostinfoCpuidDumpWithoutMemory, GivesNothingWhicheverBlockIsRefused)
{
    sLeaves = {{0, {GetParam(), 1, 2, 3}},          {1, LEAF},          {10, LEAF},
               {0x80000000, {0x80000008, 4, 5, 6}}, {0x80000001, LEAF}, {0x80000008, LEAF}};
    const ptrdiff_t live = Allocations::Live();
    for (size_t granted = 0;; granted++) {
        const OutOfMemory once(granted, 1);
        char *dump = HostinfoDumpCpuid(Ask);
        EXPECT_EQ(dump == nullptr, once.Showed()) << granted;
        free(dump);
        EXPECT_EQ(Allocations::Live(), live) << granted;
        if (!once.Showed()) {
            EXPECT_GT(granted, 2u) << "a block, a larger one, and one that fits";
            break;
        }
    }
}
INSTANTIATE_TEST_SUITE_P(HighestLeaf, HostinfoCpuidDumpWithoutMemory, testing::Values(0, 1, 10));

TEST_F(HostinfoCpuid, DumpOmitsAnAbsentGroupWithAWarning)
{
    sLeaves = {{0, {0, 0, 0, 0}}, {0x80000000, {0x7FFFFFFF, 1, 2, 3}}};
    testing::internal::CaptureStderr();
    EXPECT_EQ(Take(HostinfoDumpCpuid(Ask)), "00000000:00000000000000000000000000000000");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Warning: HOSTINFO: No CPUID information available. Based = 80000000.\n");
    EXPECT_EQ(sAsked, (std::vector<uint32_t>{0, 0x80000000}));
}

// ---- The kernel's data about the processor

template <typename T> std::string Bytes(T value)
{
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

class HostinfoByName : public testing::Test {
protected:
    void SetUp() override
    {
        sValues.clear();
        sSizes.clear();
        sValueError = ENOENT;
        sGrows = false;
    }
};

TEST_F(HostinfoByName, ProcessorsAreCountedInFourBytes)
{
    sValues = {{"hw.activecpu", Bytes<int32_t>(12)}};
    EXPECT_EQ(Hostinfo_NumCPUs(), 12);
    EXPECT_EQ(sSizes, std::vector<size_t>{4});
}

TEST_F(HostinfoByName, ProcessorsAreMinusOneWhenNobodyTells) { EXPECT_EQ(Hostinfo_NumCPUs(), -1); }

TEST_F(HostinfoByName, RateIsInWholeMegahertzForAnyProcessor)
{
    sValues = {{"hw.cpufrequency_max", Bytes<int32_t>(INT32_MAX)}};
    for (const unsigned cpu : {0U, 7U, 4000000000U}) {
        uint32_t mhz = 0;
        EXPECT_TRUE(Hostinfo_CpuMHz(cpu, &mhz));
        EXPECT_EQ(mhz, 2147u);
    }
    EXPECT_EQ(sSizes, (std::vector<size_t>{4, 4, 4}));
}

TEST_F(HostinfoByName, RateStaysUnchangedWhenUnknown)
{
    uint32_t mhz = 77;
    for (const int error : {ENOENT, ERANGE}) { // ERANGE: a rate above INT32_MAX
        sValueError = error;
        EXPECT_FALSE(Hostinfo_CpuMHz(0, &mhz));
        EXPECT_EQ(mhz, 77u);
    }
}

struct TextCase {
    const char *test, *name;
    char *(*read)();
};
class HostinfoText : public testing::TestWithParam<TextCase> {
protected:
    void SetUp() override
    {
        sValues.clear();
        sSizes.clear();
        sGrows = false;
    }
};
TEST_P(HostinfoText, IsReadInItsSize)
{
    sValues[GetParam().name] = std::string("Some text", 10);
    EXPECT_EQ(Take(GetParam().read()), "Some text");
    EXPECT_EQ(sSizes, (std::vector<size_t>{SIZE_MAX, 10}));
}
TEST_P(HostinfoText, IsTerminatedWhateverTheKernelDoes)
{
    sValues[GetParam().name] = "Some text";
    EXPECT_EQ(Take(GetParam().read()), "Some text");
    sValues[GetParam().name] = "";
    EXPECT_EQ(Take(GetParam().read()), "");
}
TEST_P(HostinfoText, IsNoneWhenNobodyTells)
{
    EXPECT_EQ(GetParam().read(), nullptr);
    EXPECT_EQ(sSizes, (std::vector<size_t>{SIZE_MAX}));
}
TEST_P(HostinfoText, IsNoneWhenItHasGrownMeanwhile)
{
    sValues[GetParam().name] = "Some text";
    sGrows = true;
    EXPECT_EQ(GetParam().read(), nullptr);
}
INSTANTIATE_TEST_SUITE_P(Each, HostinfoText,
                         testing::Values(TextCase{"Brand", "machdep.cpu.brand_string",
                                                  Hostinfo_CpuBrandString},
                                         TextCase{"Model", "hw.model", Hostinfo_HardwareModel}),
                         [](const auto &row) { return row.param.test; });

TEST_F(HostinfoByName, TranslationIsAsTold)
{
    for (const int32_t told : {0, 1}) {
        sValues["sysctl.proc_translated"] = Bytes(told);
        EXPECT_EQ(Hostinfo_ProcTranslated(), told);
    }
    EXPECT_EQ(sSizes, (std::vector<size_t>{4, 4}));
}

TEST_F(HostinfoByName, TranslationIsNoneWhereItIsUnknown)
{
    sValueError = ENOENT;
    EXPECT_EQ(Hostinfo_ProcTranslated(), 0);
}

TEST_F(HostinfoByName, TranslationCannotBeToldAfterAnyOtherFailure)
{
    for (const int error : {EPERM, ENOMEM, EINVAL, ENOTDIR}) {
        sValueError = error;
        EXPECT_EQ(Hostinfo_ProcTranslated(), -1) << error;
    }
}

} // namespace
