// Compares every answer with other sources on this machine.
#include "hostinfo.h"

#include "scopedForTests.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <vector>

using namespace std::string_literals;

namespace {

// Returns what a command prints, without the newline at its end.
std::string Answer(const std::string &command)
{
    FILE *output = popen(command.c_str(), "r");
    std::string text;
    char bytes[4096];
    for (size_t size; (size = fread(bytes, 1, sizeof bytes, output)) > 0;) {
        text.append(bytes, size);
    }
    EXPECT_EQ(pclose(output), 0) << command;
    if (text.ends_with('\n')) { text.pop_back(); }
    return text;
}

std::string Content(const std::string &path)
{
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// Returns the value of that name for the first processor in /proc/cpuinfo.
std::string CpuInfo(const std::string &name)
{
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(name + "\t")) {
            return line.substr(std::min(line.find(':') + 2, line.size()));
        }
    }
    return "(none)";
}

// ---- The operating system

TEST(Hostinfo, KnowsTheKernelsRelease)
{
    const std::string release = Answer("uname -r");
    EXPECT_EQ(Hostinfo_OSVersionString(), release);
    const std::string numbers = std::to_string(Hostinfo_OSVersion(0)) + "." +
                                std::to_string(Hostinfo_OSVersion(1)) + "." +
                                std::to_string(Hostinfo_OSVersion(2));
    EXPECT_EQ(numbers, Answer("uname -r | grep -oE '^[0-9]+\\.[0-9]+\\.[0-9]+'"));
    EXPECT_EQ(std::to_string(Hostinfo_OSVersion(3)),
              Answer("{ uname -r | sed -E 's/^[0-9]+\\.[0-9]+\\.[0-9]+//' | grep -oE '[0-9]+' || "
                     "echo 0; } | head -n 1"));
}

TEST(Hostinfo, KnowsTheHostsName)
{
    const std::string name = Answer("uname -n");
    EXPECT_EQ(Take(Hostinfo_HostName()), name);
    EXPECT_EQ(Hostinfo_HostNameCached(), name);
}

TEST(Hostinfo, KnowsItsBitness)
{
    EXPECT_EQ(std::to_string(Hostinfo_GetSystemBitness()), Answer("getconf LONG_BIT"));
}

TEST(Hostinfo, NamesTheSystem)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(Take(Hostinfo_GetOSShortName()),
              "darwin" + Answer("uname -r | cut -d. -f1") + "-" + Answer("getconf LONG_BIT"));
    EXPECT_THAT(Take(Hostinfo_GetOSName()), testing::EndsWith(Answer("uname -sr")));
    EXPECT_THAT(Take(Hostinfo_GetOSDetailedData()),
                testing::EndsWith("familyName='" + Answer("uname -s") + "' kernelVersion='" +
                                  Answer("uname -r") + "'"));
    testing::internal::GetCapturedStderr(); // drops the warning that Apple's version is missing
}

// ---- The processor

TEST(Hostinfo, KnowsTheProcessorsVersion)
{
    HostinfoCpuidSummary summary;
    ASSERT_TRUE(Hostinfo_GetCpuid(&summary));
    const std::map<std::string, int> vendors{
        {"GenuineIntel", 2}, {"AuthenticAMD", 3}, {"HygonGenuine", 6}};
    const auto vendor = vendors.find(CpuInfo("vendor_id"));
    EXPECT_EQ(summary.vendor, vendor == vendors.end() ? 0 : vendor->second);
    // The kernel includes the extended bits of both.
    const unsigned extraFamily = summary.version >> 20 & 0xFF,
                   extraModel = summary.version >> 16 & 0xF;
    const unsigned family = summary.family == 15 ? 15 + extraFamily : summary.family;
    const unsigned model = family < 6 ? summary.model : extraModel << 4 | summary.model;
    EXPECT_EQ(std::to_string(family), CpuInfo("cpu family"));
    EXPECT_EQ(std::to_string(model), CpuInfo("model"));
    EXPECT_EQ(std::to_string(summary.stepping), CpuInfo("stepping"));
    EXPECT_EQ(summary.type, summary.version >> 12 & 3);
}

TEST(Hostinfo, KnowsTheProcessorsFeatures)
{
    HostinfoCpuidSummary summary;
    ASSERT_TRUE(Hostinfo_GetCpuid(&summary));
    std::istringstream flags(CpuInfo("flags"));
    const std::set<std::string> known{std::istream_iterator<std::string>(flags), {}};
    const std::map<std::string, int> edx{{"fpu", 0},  {"tsc", 4},   {"cx8", 8},  {"cmov", 15},
                                         {"mmx", 23}, {"fxsr", 24}, {"sse", 25}, {"sse2", 26}};
    const std::map<std::string, int> ecx{
        {"pni", 0},     {"pclmulqdq", 1}, {"ssse3", 9},   {"cx16", 13}, {"sse4_1", 19},
        {"sse4_2", 20}, {"movbe", 22},    {"popcnt", 23}, {"aes", 25},  {"hypervisor", 31}};
    for (const auto &[name, bit] : edx) {
        EXPECT_EQ((summary.featuresEdx >> bit & 1) != 0, known.contains(name)) << name;
    }
    for (const auto &[name, bit] : ecx) {
        EXPECT_EQ((summary.featuresEcx >> bit & 1) != 0, known.contains(name)) << name;
    }
}

TEST(Hostinfo, DumpsWhatTheSummaryIsMadeOf)
{
    const std::string dump = Take(Hostinfo_GetCpuidDump());
    EXPECT_THAT(dump, testing::MatchesRegex("([0-9A-F]{8}:[0-9A-F]{32}-?)+"));
    char number[9];
    snprintf(number, sizeof number, "%08X", std::stoi(CpuInfo("cpuid level")));
    EXPECT_THAT(dump, testing::StartsWith(std::string("00000000:") + number));
    HostinfoCpuidSummary summary;
    ASSERT_TRUE(Hostinfo_GetCpuid(&summary));
    snprintf(number, sizeof number, "%08X", summary.version);
    EXPECT_THAT(dump, testing::HasSubstr(std::string("-00000001:") + number));
    EXPECT_THAT(dump, testing::HasSubstr("-80000000:8"));
    EXPECT_THAT(dump, testing::Not(testing::EndsWith("-")));
}

TEST(Hostinfo, CountsTheProcessors)
{
    EXPECT_EQ(std::to_string(Hostinfo_NumCPUs()), Answer("getconf _NPROCESSORS_ONLN"));
}

TEST(Hostinfo, KnowsTheProcessorsName)
{
    EXPECT_EQ(Take(Hostinfo_CpuBrandString()), CpuInfo("model name"));
}

// Returns the highest rate in MHz where the kernel knows it, and otherwise each processor's current
// rate.
std::set<uint32_t> Rates()
{
    const std::string most =
        Answer("cat /sys/devices/system/cpu/cpu[0-9]*/cpufreq/cpuinfo_max_freq 2>/dev/null | "
               "sort -n | tail -n 1");
    if (!most.empty()) { return {static_cast<uint32_t>(std::stoul(most) / 1000)}; }
    std::set<uint32_t> rates;
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("cpu MHz")) {
            rates.insert(static_cast<uint32_t>(std::stod(line.substr(line.find(':') + 1))));
        }
    }
    return rates;
}

TEST(Hostinfo, KnowsTheProcessorsRate)
{
    const std::set<uint32_t> before = Rates();
    uint32_t mhz = 0;
    const bool isKnown = Hostinfo_CpuMHz(0, &mhz);
    constexpr uint32_t LIMIT = INT32_MAX / 1000000; // whole MHz; a fraction more may go either way
    if (before.empty() || *before.rbegin() != LIMIT) {
        ASSERT_EQ(isKnown, !before.empty() && *before.rbegin() < LIMIT);
    }
    std::set<uint32_t> all = Rates();
    all.insert(before.begin(), before.end());
    if (mhz != 0) {
        EXPECT_GE(mhz, *all.begin());
        EXPECT_LE(mhz, *all.rbegin());
    }
}

TEST(Hostinfo, KnowsTheMachinesModel)
{
    std::string model = Content("/sys/class/dmi/id/product_name");
    if (model.ends_with('\n')) { model.pop_back(); }
    if (model.empty()) { model = Content("/sys/firmware/devicetree/base/model").c_str(); }
    EXPECT_EQ(Take(Hostinfo_HardwareModel()), model.empty() ? "(none)" : model);
}

TEST(Hostinfo, IsNotTranslated) { EXPECT_EQ(Hostinfo_ProcTranslated(), 0); }

// ---- Clocks: compared with the system's own clock before and after

uint64_t Monotonic()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

TEST(Hostinfo, CountsNanosecondsOfTheMonotonicClock)
{
    for (int i = 0; i < 1000; i++) {
        const uint64_t before = Monotonic(), now = Hostinfo_SystemTimerNS(), after = Monotonic();
        ASSERT_LE(before, now);
        ASSERT_LE(now, after);
        const uint64_t nowInMicroseconds = Hostinfo_SystemTimerUS();
        ASSERT_LE(after / 1000, nowInMicroseconds);
        ASSERT_LE(nowInMicroseconds, Monotonic() / 1000);
    }
}

int64_t Epoch()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}

TEST(Hostinfo, KnowsTheTimeOfDay)
{
    int64_t now = 0, before = 1, after = 0;
    while (before > after) { // repeats when the clock was set back
        before = Epoch();
        Hostinfo_GetTimeOfDay(&now);
        after = Epoch();
    }
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

// ---- Load and memory

TEST(Hostinfo, KnowsTheLoad)
{
    std::string before, after = Content("/proc/loadavg");
    uint32_t hundredths = 0;
    std::string told;
    do { // it changes every few seconds
        before = after;
        ASSERT_TRUE(Hostinfo_GetLoadAverage(&hundredths));
        testing::internal::CaptureStderr();
        Hostinfo_LogLoadAverage();
        told = testing::internal::GetCapturedStderr();
        after = Content("/proc/loadavg");
    } while (before.substr(0, 14) != after.substr(0, 14));
    double averages[3], toldAverages[3];
    ASSERT_EQ(sscanf(after.c_str(), "%lf %lf %lf", averages, averages + 1, averages + 2), 3);
    ASSERT_EQ(sscanf(told.c_str(), "Log: LOADAVG: %lf %lf %lf\n", toldAverages, toldAverages + 1,
                     toldAverages + 2),
              3);
    EXPECT_NEAR(hundredths, 100 * averages[0], 1.01) << "cut here, rounded there";
    for (int i = 0; i < 3; i++) {
        EXPECT_NEAR(toldAverages[i], averages[i], 0.0101);
    }
}

TEST(Hostinfo, KnowsTheHostsMemory)
{
    unsigned int least = 0, all = 0, available = 0;
    ASSERT_TRUE(Hostinfo_GetMemoryInfoInPages(&least, &all, &available));
    EXPECT_EQ(least, 128u);
    // The kernel reserves some of the memory, and getconf counts only the rest.
    const unsigned long pages =
        std::stoul(Answer("getconf _PHYS_PAGES")) * std::stoul(Answer("getconf PAGESIZE")) / 4096;
    EXPECT_GE(all, pages);
    EXPECT_LE(all, pages + pages / 4 + 65536);
    EXPECT_GT(available, 0u);
    EXPECT_LT(available, all);
}

TEST(Hostinfo, KnowsThisProcessesMemory)
{
    testing::internal::CaptureStderr();
    Hostinfo_LogMemUsage();
    const std::string told = testing::internal::GetCapturedStderr();
    long actual[7];
    int sizes[7];
    ASSERT_EQ(sscanf(Content("/proc/self/statm").c_str(), "%ld %ld %ld %ld %ld %ld %ld", actual,
                     actual + 1, actual + 2, actual + 3, actual + 4, actual + 5, actual + 6),
              7);
    ASSERT_EQ(sscanf(told.c_str(),
                     "Log: RUSAGE size=%d resident=%d share=%d trs=%d lrs=%d drs=%d dt=%d\n", sizes,
                     sizes + 1, sizes + 2, sizes + 3, sizes + 4, sizes + 5, sizes + 6),
              7);
    // The test itself allocates some pages meanwhile; and a sanitizer reserves more than 32 bits
    // can count.
    constexpr int MEANWHILE[7] = {1000, 1000, 1000, 0, 0, 1000, 0};
    for (int i = 0; i < 7; i++) {
        EXPECT_LE(abs(static_cast<int>(actual[i] - sizes[i])), MEANWHILE[i]) << i;
    }
}

// Compares with the first of the kernel's pools in the kernel's own list.  Expects a warning when
// the list may not be read, or is missing.
TEST(Hostinfo, KnowsAKernelZone)
{
    errno = 0;
    std::ifstream file("/proc/slabinfo");
    const char *code = errno == EACCES || errno == EPERM ? "22" : "5";
    std::string line, name;
    size_t active, total, size = 0;
    std::getline(file, line);
    std::getline(file, line);
    file >> name >> active >> total >> size;
    testing::internal::CaptureStderr();
    EXPECT_EQ(Hostinfo_GetKernelZoneElemSize(file ? name.c_str() : "x"), file ? size : 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              file ? ""
                   : "Warning: Hostinfo_GetKernelZoneElemSize: mach_zone_info failed "s + code +
                         ".\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(Hostinfo_GetKernelZoneElemSize("no such zone"), 0u);
    testing::internal::GetCapturedStderr();
}

// ---- This process

TEST(Hostinfo, KnowsItsUser) { EXPECT_EQ(Take(Hostinfo_GetUser()), Answer("id -run")); }

std::string OwnPath() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

TEST(HostinfoGetModulePath, IsThisProgramWithEitherPrivilege)
{
    for (const uint32_t privilege : {0u, 1u}) {
        EXPECT_EQ(std::filesystem::canonical(Take(Hostinfo_GetModulePath(privilege))), OwnPath());
    }
}

TEST(HostinfoGetModulePath, RefusesAnyOtherPrivilege)
{
    for (const uint32_t privilege : {2u, 3u, 0x80000000u, UINT32_MAX}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(Hostinfo_GetModulePath(privilege), nullptr) << privilege;
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Warning: Hostinfo_GetModulePath: invalid privilege parameter\n")
            << privilege;
    }
}

// Returns a path of that length and makes its folder, for a copy of this program that only prints
// its own path.
std::string DeepPath(const std::string &top, size_t length)
{
    std::string path = top;
    while (length - path.size() > 201) {
        path += "/" + std::string(100, 'd');
    }
    std::filesystem::create_directories(path);
    return path + "/" + std::string(length - path.size() - 1, 'p');
}

std::string RunCopyAt(const std::string &path)
{
    std::filesystem::copy_file(OwnPath(), path);
    // The child prints its own path, or its warnings on standard error.
    FILE *answer = popen(("PELAGO_TELL_PATH=1 '" + path + "' 2>&1").c_str(), "r");
    std::string text;
    char bytes[4096];
    for (size_t n; (n = fread(bytes, 1, sizeof bytes, answer)) > 0;) {
        text.append(bytes, n);
    }
    pclose(answer);
    return text;
}

TEST(HostinfoGetModulePath, HoldsAPathOf1023BytesAndNoMore)
{
    const TemporaryFolder folder;
    const std::string fits = DeepPath(folder.Path(), 1023);
    EXPECT_EQ(RunCopyAt(fits), fits);
    EXPECT_EQ(RunCopyAt(DeepPath(folder.Path(), 1024)),
              "Warning: HOSTINFO: Hostinfo_GetModulePath: _NSGetExecutablePath failed.\n(none)");
}

// Runs before main(): the copy does nothing else.
const bool sTold = [] {
    if (getenv("PELAGO_TELL_PATH") != nullptr) {
        fputs(Take(Hostinfo_GetModulePath(1)).c_str(), stdout);
        fflush(stdout);
        _exit(0);
    }
    return false;
}();

} // namespace
