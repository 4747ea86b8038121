// Tests of what the kernel reports about the machine, compared with what this machine's own
// programs print.
#include <sys/sysctl.h>

#include "hostFiles.h"
#include "outOfNew.h"

#include <gtest/gtest.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

// What the kernel reports, where a test sets it.
static std::optional<long> sConfigured, sOnline; // processors
static std::optional<uint32_t> sMemoryUnit;

extern "C" {
long __real_sysconf(int name);
long __wrap_sysconf(int name)
{
    if (name == _SC_NPROCESSORS_CONF && sConfigured) { return *sConfigured; }
    if (name == _SC_NPROCESSORS_ONLN && sOnline) { return *sOnline; }
    return __real_sysconf(name);
}
int __real_sysinfo(struct sysinfo *info);
int __wrap_sysinfo(struct sysinfo *info)
{
    const int result = __real_sysinfo(info);
    if (sMemoryUnit) {
        info->totalram = 1234567;
        info->mem_unit = *sMemoryUnit;
    }
    return result;
}
}

namespace {

constexpr int NO_ERROR = 0;
constexpr char FREQUENCY[] = "hw.cpufrequency_max", BRAND[] = "machdep.cpu.brand_string";
constexpr char CPU_INFO[] = "/proc/cpuinfo";
constexpr char PRODUCT[] = "/sys/class/dmi/id/product_name",
               DEVICE_TREE[] = "/sys/firmware/devicetree/base/model";

std::string MaxRateFile(int cpu)
{
    return "/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/cpufreq/cpuinfo_max_freq";
}

// Calls sysctlbyname() and returns 0 or errno.
int Ask(const char *name, void *value, size_t *size, void *newValue = nullptr, size_t newSize = 0)
{
    errno = NO_ERROR;
    return sysctlbyname(name, value, size, newValue, newSize) == 0 ? NO_ERROR : errno;
}

// Asks for the value's size, then for the value.  A text's value contains its NUL.
std::optional<std::string> ValueOf(const char *name)
{
    size_t size = 0;
    if (Ask(name, nullptr, &size) != NO_ERROR) { return std::nullopt; }
    std::string value(size, 'x');
    EXPECT_EQ(Ask(name, value.data(), &size), NO_ERROR) << name;
    EXPECT_EQ(size, value.size()) << name;
    return value;
}

template <typename Number> Number NumberOf(const char *name)
{
    Number number = 0;
    size_t size = sizeof number;
    EXPECT_EQ(Ask(name, &number, &size), NO_ERROR) << name;
    EXPECT_EQ(size, sizeof number) << name;
    return number;
}

std::string OutputOf(const char *command)
{
    FILE *pipe = popen(command, "r");
    std::string text;
    char bytes[4096];
    for (size_t n; (n = fread(bytes, 1, sizeof bytes, pipe)) > 0;) {
        text.append(bytes, n);
    }
    EXPECT_EQ(pclose(pipe), 0) << command;
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

std::string WithNul(const std::string &text) { return text + '\0'; }

// While it lives, the host has this number of processors, of which some are online.
class Processors {
public:
    explicit Processors(long configured, long online = 1)
    {
        sConfigured = configured;
        sOnline = online;
    }
    Processors(const Processors &) = delete;
    Processors &operator=(const Processors &) = delete;
    ~Processors() { sConfigured = sOnline = std::nullopt; }
};

/* The calls */

struct SizeCase {
    const char *name;
    size_t size;
};

TEST(Sysctl, TellsTheSizeOfEachValue)
{
    const HostFile rate(MaxRateFile(0), "1000000\n");
    const HostFile info(CPU_INFO, "model name\t: Five\n");
    const HostFile product(PRODUCT, "Eleven here\n");
    for (const auto &[name, size] : {SizeCase{"hw.activecpu", 4},
                                     {FREQUENCY, 8},
                                     {"hw.memsize", 8},
                                     {BRAND, 5},
                                     {"hw.model", 12},
                                     {"hw.machine", OutputOf("uname -m").size() + 1}}) {
        size_t told = 0;
        EXPECT_EQ(Ask(name, nullptr, &told), NO_ERROR) << name;
        EXPECT_EQ(told, size) << name;
    }
}

TEST(Sysctl, LeavesErrnoAsItWasWhenItSucceeds)
{
    // The call fails to open the first file, and finds the second.
    const HostFileFails product(PRODUCT, ENOENT);
    const HostFile tree(DEVICE_TREE, "Board");
    size_t size = 0;
    errno = EDOM;
    ASSERT_EQ(sysctlbyname("hw.model", nullptr, &size, nullptr, 0), 0);
    EXPECT_EQ(errno, EDOM);
}

TEST(Sysctl, ChecksForAValueWithoutASizePointer)
{
    EXPECT_EQ(Ask("hw.memsize", nullptr, nullptr), NO_ERROR);
    EXPECT_EQ(Ask("hw.nothing", nullptr, nullptr), ENOENT);
}

TEST(Sysctl, CopiesWhatFitsAndReportsTruncation)
{
    const HostFile info(CPU_INFO, "model name\t: Processor\n");
    char value[] = "xxxxxxxxxxxxx";
    size_t size = 4;
    EXPECT_EQ(Ask(BRAND, value, &size), ENOMEM);
    EXPECT_EQ(size, 4u);
    EXPECT_STREQ(value, "Procxxxxxxxxx");
    // The NUL is part of the value.
    size = strlen("Processor");
    EXPECT_EQ(Ask(BRAND, value, &size), ENOMEM);
    size = sizeof "Processor";
    EXPECT_EQ(Ask(BRAND, value, &size), NO_ERROR);
    EXPECT_STREQ(value, "Processor");
}

TEST(Sysctl, GivesNothingToABufferWithoutASize)
{
    char value[] = "x";
    EXPECT_EQ(Ask(BRAND, value, nullptr), ENOMEM);
    EXPECT_STREQ(value, "x");
}

TEST(Sysctl, LeavesTheRestOfALargerBufferAlone)
{
    char value[32];
    memset(value, 'x', sizeof value);
    size_t size = sizeof value;
    ASSERT_EQ(Ask("hw.memsize", value, &size), NO_ERROR);
    EXPECT_EQ(size, 8u);
    EXPECT_EQ(std::string(value + 8, sizeof value - 8), std::string(sizeof value - 8, 'x'));
}

TEST(Sysctl, KnowsNoOtherName)
{
    for (const char *name : {"", "hw", "hw.", "hw.memsiz", "hw.memsize2", "HW.MEMSIZE",
                             "kern.osversion", "sysctl.proc_translated"}) {
        size_t size = 77;
        char value[8] = "before";
        EXPECT_EQ(Ask(name, value, &size), ENOENT) << name;
        EXPECT_EQ(size, 77u) << name;
        EXPECT_STREQ(value, "before") << name;
    }
}

TEST(Sysctl, SetsNothing)
{
    uint64_t value = 1;
    EXPECT_EQ(Ask("hw.memsize", nullptr, nullptr, &value, sizeof value), EPERM);
    EXPECT_EQ(Ask("hw.nothing", nullptr, nullptr, &value, sizeof value), ENOENT);
}

TEST(Sysctl, FailsWithoutMemory)
{
    const HostFile info(CPU_INFO, "model name\t: A name that is too long for the string itself\n");
    for (size_t granted = 0;; granted++) {
        size_t size = 0;
        int error = NO_ERROR;
        bool isLast = false;
        {
            const OutOfNew memory(granted);
            error = Ask(BRAND, nullptr, &size);
            isLast = !memory.Showed();
        }
        EXPECT_EQ(error, isLast ? NO_ERROR : ENOMEM) << granted;
        if (isLast) {
            EXPECT_GE(granted, 2u) << "the file and its text";
            return;
        }
    }
}

/* By number */

int AskNumbers(std::initializer_list<int> name, void *value = nullptr, size_t *size = nullptr)
{
    int numbers[16] = {};
    std::copy(name.begin(), name.end(), numbers);
    errno = NO_ERROR;
    const auto count = static_cast<unsigned int>(name.size());
    return sysctl(numbers, count, value, size, nullptr, 0) == 0 ? NO_ERROR : errno;
}

TEST(SysctlNumbers, TellTheMachine)
{
    size_t size = 0;
    ASSERT_EQ(AskNumbers({CTL_HW, HW_MACHINE}, nullptr, &size), NO_ERROR);
    std::string value(size, 'x');
    ASSERT_EQ(AskNumbers({CTL_HW, HW_MACHINE}, value.data(), &size), NO_ERROR);
    EXPECT_EQ(value, WithNul(OutputOf("uname -m")));
    EXPECT_EQ(ValueOf("hw.machine"), value);
}

TEST(SysctlNumbers, FailAsTheyShould)
{
    EXPECT_EQ(AskNumbers({}), EINVAL);
    EXPECT_EQ(AskNumbers({CTL_HW}), EINVAL);
    EXPECT_EQ(AskNumbers({CTL_HW, HW_MACHINE, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), EINVAL)
        << "thirteen";
    EXPECT_EQ(AskNumbers({CTL_HW, HW_MACHINE, 0}), ENOTDIR);
    EXPECT_EQ(AskNumbers({CTL_HW, 99}), ENOENT);
    EXPECT_EQ(AskNumbers({1, HW_MACHINE}), ENOENT);
}

TEST(SysctlNumbers, SetNothing)
{
    int name[] = {CTL_HW, HW_MACHINE};
    char value[] = "mine";
    errno = NO_ERROR;
    EXPECT_EQ(sysctl(name, 2, nullptr, nullptr, value, sizeof value), -1);
    EXPECT_EQ(errno, EPERM);
}

/* Processors and memory */

TEST(SysctlActiveCpu, IsHowManyProcessorsRun)
{
    EXPECT_EQ(std::to_string(NumberOf<int>("hw.activecpu")), OutputOf("getconf _NPROCESSORS_ONLN"));
    EXPECT_EQ(std::to_string(NumberOf<int>("hw.activecpu")),
              OutputOf("lscpu --online --parse=CPU | grep -vc '^#'"));
}

TEST(SysctlActiveCpu, LeavesOutTheProcessorsThatRest)
{
    const Processors processors(8, 3);
    EXPECT_EQ(NumberOf<int>("hw.activecpu"), 3);
}

TEST(SysctlMemsize, IsInBytesWhateverTheKernelCountsIn)
{
    for (const uint32_t unit : {1u, 4096u, 65536u}) {
        sMemoryUnit = unit;
        EXPECT_EQ(NumberOf<uint64_t>("hw.memsize"), uint64_t{1234567} * unit);
    }
    sMemoryUnit.reset();
}

TEST(SysctlMemsize, IsThePhysicalMemory)
{
    const uint64_t size = NumberOf<uint64_t>("hw.memsize");
    EXPECT_EQ(std::to_string(size),
              OutputOf("echo $(($(getconf _PHYS_PAGES) * $(getconf PAGE_SIZE)))"));
    EXPECT_EQ(std::to_string(size / 1024), OutputOf("sed -n 's/^MemTotal: *\\([0-9]*\\) kB/\\1/p' "
                                                    "/proc/meminfo"));
}

TEST(SysctlFrequency, IsTheHighestMaximumOfAllProcessors)
{
    const HostFile info(CPU_INFO, "cpu MHz\t\t: 5000.000\n");
    const HostFile slow(MaxRateFile(0), "1600000\n"), fast(MaxRateFile(1), "2000000\n"),
        other(MaxRateFile(2), "1800000\n"), fastest(MaxRateFile(3), "2200000\n");
    for (const auto &[count, expected] :
         {std::pair{1, 1600000000u}, {2, 2000000000u}, {3, 2000000000u}, {4, 2200000000u}}) {
        const Processors processors(count); // a processor that is offline counts as well
        EXPECT_EQ(NumberOf<uint64_t>(FREQUENCY), expected) << count;
    }
}

TEST(SysctlFrequency, IsElseTheHighestThatWasMeasured)
{
    const Processors processors(2);
    const HostFileFails first(MaxRateFile(0), ENOENT), second(MaxRateFile(1), ENOENT);
    const HostFile info(CPU_INFO, "processor\t: 0\ncpu MHz\t\t: 1999.998\n\n"
                                  "processor\t: 1\ncpu MHz\t\t: 2100.5\ncpu MHzen\t: 9000\n");
    EXPECT_EQ(NumberOf<uint64_t>(FREQUENCY), 2100500000u);
}

TEST(SysctlFrequency, FitsFourBytesUnlessItIsTooHigh)
{
    const Processors processors(2);
    const HostFileFails second(MaxRateFile(1), ENOENT);
    {
        const HostFile rate(MaxRateFile(0), "2147483\n");
        EXPECT_EQ(NumberOf<uint32_t>(FREQUENCY), 2147483000u);
    }
    const HostFile rate(MaxRateFile(0), "2147484\n");
    uint32_t value = 1;
    size_t size = sizeof value;
    EXPECT_EQ(Ask(FREQUENCY, &value, &size), ERANGE);
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(size, sizeof value);
    EXPECT_EQ(NumberOf<uint64_t>(FREQUENCY), 2147484000u);
}

TEST(SysctlFrequency, IsAbsentWhenTheHostReportsNone)
{
    const Processors processors(2);
    const HostFileFails first(MaxRateFile(0), ENOENT), second(MaxRateFile(1), EISDIR);
    for (const char *text : {"", "processor\t: 0\n", "cpu MHz\t\t: unknown\n", "cpu MHz"}) {
        const HostFile info(CPU_INFO, text);
        size_t size = 0;
        EXPECT_EQ(Ask(FREQUENCY, nullptr, &size), ENOENT) << text;
    }
    const HostFileFails info(CPU_INFO, EACCES);
    EXPECT_EQ(Ask(FREQUENCY, nullptr, nullptr), ENOENT);
}

/* Names */

TEST(SysctlBrand, IsTheProcessorsName)
{
    const std::string told = OutputOf("lscpu | sed -n 's/^Model name: *//p'");
    if (RealFile(CPU_INFO).find("model name") == std::string::npos) {
        EXPECT_EQ(ValueOf(BRAND), std::nullopt) << "this kernel names no processor";
    } else {
        EXPECT_EQ(ValueOf(BRAND), WithNul(told));
    }
}

TEST(SysctlBrand, IsThatOfTheFirstProcessor)
{
    const HostFile info(CPU_INFO,
                        "model\t\t: 7\nmodel name\t: One: a @ 2 GHz\nmodel name\t: Two\n");
    EXPECT_EQ(ValueOf(BRAND), WithNul("One: a @ 2 GHz"));
}

TEST(SysctlBrand, IsAbsentWhenTheHostReportsNone)
{
    for (const char *text :
         {"", "model\t\t: 7\n", "model name\t:\n", "model name\t: \n", "model names\t: x\n"}) {
        const HostFile info(CPU_INFO, text);
        EXPECT_EQ(ValueOf(BRAND), std::nullopt) << text;
    }
    const HostFileFails info(CPU_INFO, ENOENT);
    EXPECT_EQ(ValueOf(BRAND), std::nullopt);
}

TEST(SysctlModel, IsTheFirmwaresNameForTheMachine)
{
    const HostFile product(PRODUCT, "Standard PC (Q35 + ICH9, 2009)\n");
    const HostFile tree(DEVICE_TREE, WithNul("Board"));
    EXPECT_EQ(ValueOf("hw.model"), WithNul("Standard PC (Q35 + ICH9, 2009)"));
}

TEST(SysctlModel, IsElseTheDeviceTrees)
{
    const HostFile tree(DEVICE_TREE, WithNul("Some Board 4"));
    {
        const HostFileFails product(PRODUCT, ENOENT);
        EXPECT_EQ(ValueOf("hw.model"), WithNul("Some Board 4"));
    }
    const HostFile product(PRODUCT, "\n");
    EXPECT_EQ(ValueOf("hw.model"), WithNul("Some Board 4"));
}

TEST(SysctlModel, IsAbsentWhenTheHostReportsNone)
{
    const HostFileFails product(PRODUCT, EACCES), tree(DEVICE_TREE, ENOENT);
    EXPECT_EQ(ValueOf("hw.model"), std::nullopt);
}

TEST(SysctlModel, IsWhatThisMachineHas)
{
    std::string told = RealFile(PRODUCT);
    if (told.empty()) { told = RealFile(DEVICE_TREE); }
    told = told.substr(0, told.find_first_of(std::string("\n\0", 2)));
    EXPECT_EQ(ValueOf("hw.model"), told.empty() ? std::nullopt : std::optional(WithNul(told)));
}

} // namespace
