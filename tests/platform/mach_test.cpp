// Tests of memory statistics, zones and the clock, compared with the kernel's own files and calls.
#include "hostFiles.h"
#include "outOfNew.h"
#include "sdkTypes.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <sstream>
#include <vector>

namespace {

size_t sGrantedMaps = SIZE_MAX; // mmap() calls that the platform layer may still make
ptrdiff_t sMappedPages = 0;     // pages that the platform layer has mapped

ptrdiff_t PagesIn(size_t size)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return static_cast<ptrdiff_t>((size + page - 1) / page);
}

} // namespace

extern "C" {
void *__real_mmap(void *address, size_t size, int protection, int flags, int fd, off_t offset);
void *__wrap_mmap(void *address, size_t size, int protection, int flags, int fd, off_t offset)
{
    if (sGrantedMaps == 0) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    if (sGrantedMaps != SIZE_MAX) { sGrantedMaps--; }
    sMappedPages += PagesIn(size);
    return __real_mmap(address, size, protection, flags, fd, offset);
}
int __real_munmap(void *address, size_t size);
int __wrap_munmap(void *address, size_t size)
{
    sMappedPages -= PagesIn(size);
    return __real_munmap(address, size);
}
// The clocks of a host that has slept and whose time was set: no two clocks show the same time.
int __real_clock_gettime(clockid_t clock, struct timespec *now);
int __wrap_clock_gettime(clockid_t clock, struct timespec *now)
{
    constexpr time_t APART = 3600;
    const int result = __real_clock_gettime(clock, now);
    if (clock != CLOCK_MONOTONIC) { now->tv_sec += APART; }
    return result;
}
}

namespace {

constexpr char MEMORY[] = "/proc/meminfo", EVENTS[] = "/proc/vmstat", SLABS[] = "/proc/slabinfo";
constexpr mach_msg_type_number_t COUNT = HOST_VM_INFO_COUNT;

/* Memory statistics */

vm_statistics_data_t Statistics()
{
    vm_statistics_data_t statistics;
    mach_msg_type_number_t count = COUNT;
    EXPECT_EQ(host_statistics(mach_host_self(), HOST_VM_INFO,
                              reinterpret_cast<host_info_t>(&statistics), &count),
              KERN_SUCCESS);
    EXPECT_EQ(count, COUNT);
    return statistics;
}

uint64_t RealCount(const char *path, const std::string &name)
{
    std::istringstream lines(RealFile(path));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string word;
        uint64_t count = 0;
        if (words >> word >> count && word == name) { return count; }
    }
    ADD_FAILURE() << path << " has no " << name;
    return 0;
}

TEST(HostStatistics, CountTheKernelsPages)
{
    const HostFile memory(MEMORY, "MemTotal:       24684092 kB\n"
                                  "MemFree:           40003 kB\n"
                                  "Active(anon):         44 kB\n"
                                  "Active:             8000 kB\n"
                                  "Inactive:           1200 kB\n"
                                  "Inactive(anon):       48 kB\n"
                                  "Unevictable:          40 kB\n"
                                  "SUnreclaim:          400 kB\n"
                                  "KernelStack:        4000 kB\n"
                                  "PageTables:        40000 kB\n");
    const HostFile events(EVENTS, "pgpgin 804\npgpgout 1205\npgfault 17\npgmajfault 99\n"
                                  "pgactivate 18\npgactivated 99\n");
    const vm_statistics_data_t statistics = Statistics();
    EXPECT_EQ(statistics.free_count, 10000u) << "whole pages";
    EXPECT_EQ(statistics.active_count, 2000u);
    EXPECT_EQ(statistics.inactive_count, 300u);
    EXPECT_EQ(statistics.wire_count, 11110u);
    EXPECT_EQ(statistics.reactivations, 18u);
    EXPECT_EQ(statistics.pageins, 201u);
    EXPECT_EQ(statistics.pageouts, 301u);
    EXPECT_EQ(statistics.faults, 17u);
    for (const natural_t untold :
         {statistics.zero_fill_count, statistics.cow_faults, statistics.lookups, statistics.hits,
          statistics.purgeable_count, statistics.purges, statistics.speculative_count}) {
        EXPECT_EQ(untold, 0u);
    }
}

TEST(HostStatistics, StayAtTheHighestNumberThatFits)
{
    const HostFile memory(MEMORY, "MemFree: 17179869184 kB\nActive: 17179869180 kB\n");
    const HostFile events(EVENTS, "pgfault 4294967296\npgpgin 99999999999999\n");
    const vm_statistics_data_t statistics = Statistics();
    EXPECT_EQ(statistics.free_count, UINT32_MAX);
    EXPECT_EQ(statistics.active_count, UINT32_MAX) << "exactly";
    EXPECT_EQ(statistics.faults, UINT32_MAX);
    EXPECT_EQ(statistics.pageins, UINT32_MAX);
}

TEST(HostStatistics, AreThoseOfThisHost)
{
    const uint64_t before = RealCount(EVENTS, "pgfault");
    const vm_statistics_data_t statistics = Statistics();
    const uint64_t after = RealCount(EVENTS, "pgfault");
    if (after < UINT32_MAX) {
        EXPECT_GE(statistics.faults, before);
        EXPECT_LE(statistics.faults, after);
    } else {
        EXPECT_GE(statistics.faults, std::min<uint64_t>(before, UINT32_MAX));
    }
    const uint64_t total = RealCount(MEMORY, "MemTotal:") / 4;
    EXPECT_GT(statistics.free_count, 0u);
    EXPECT_LT(statistics.free_count, total);
    EXPECT_LT(uint64_t{statistics.active_count} + statistics.inactive_count, total);
    EXPECT_GT(statistics.wire_count, 0u);
}

TEST(HostStatistics, AreZeroForUncountedEvents)
{
    const HostFile memory(MEMORY, "MemFree: 40 kB\n");
    const HostFileFails events(EVENTS, ENOENT);
    const vm_statistics_data_t statistics = Statistics();
    EXPECT_EQ(statistics.free_count, 10u);
    EXPECT_EQ(statistics.faults, 0u);
    EXPECT_EQ(statistics.wire_count, 0u);
}

struct RoomCase {
    mach_msg_type_number_t room, given;
};

TEST(HostStatistics, AreCutToTheVersionThatFits)
{
    for (const auto &[room, given] :
         {RoomCase{12, 12}, {13, 12}, {14, 14}, {15, 15}, {16, 15}, {100, 15}}) {
        std::vector<integer_t> numbers(128, -1);
        mach_msg_type_number_t count = room;
        EXPECT_EQ(host_statistics(mach_host_self(), HOST_VM_INFO, numbers.data(), &count),
                  KERN_SUCCESS);
        EXPECT_EQ(count, given) << room;
        EXPECT_NE(numbers[given - 1], -1) << room;
        EXPECT_EQ(numbers[given], -1) << room;
    }
}

struct RefusedCase {
    const char *why;
    host_t host;
    host_flavor_t flavor;
    mach_msg_type_number_t room;
    kern_return_t code;
};

TEST(HostStatistics, AreRefusedWithNothingStored)
{
    const host_t host = mach_host_self();
    for (const RefusedCase &refused :
         {RefusedCase{"no room", host, HOST_VM_INFO, 0, KERN_FAILURE},
          {"too little room", host, HOST_VM_INFO, 11, KERN_FAILURE},
          {"another flavor", host, 1, COUNT, KERN_INVALID_ARGUMENT},
          {"no flavor", host, -1, COUNT, KERN_INVALID_ARGUMENT},
          {"no host", 0, HOST_VM_INFO, COUNT, KERN_INVALID_HOST},
          {"a task", mach_task_self(), HOST_VM_INFO, COUNT, KERN_INVALID_HOST}}) {
        std::vector<integer_t> numbers(COUNT, -1);
        mach_msg_type_number_t count = refused.room;
        EXPECT_EQ(host_statistics(refused.host, refused.flavor, numbers.data(), &count),
                  refused.code)
            << refused.why;
        EXPECT_EQ(count, refused.room) << refused.why;
        EXPECT_EQ(numbers, std::vector<integer_t>(COUNT, -1)) << refused.why;
    }
}

kern_return_t StatisticsCode()
{
    std::vector<integer_t> numbers(COUNT, -1);
    mach_msg_type_number_t count = COUNT;
    const kern_return_t code =
        host_statistics(mach_host_self(), HOST_VM_INFO, numbers.data(), &count);
    if (code != KERN_SUCCESS) { EXPECT_EQ(numbers, std::vector<integer_t>(COUNT, -1)); }
    return code;
}

TEST(HostStatistics, FailWhenTheHostDoesNotTell)
{
    for (const char *text : {"", "MemTotal: 40 kB\n", "MemFree: many kB\n", "MemFree:\n"}) {
        const HostFile memory(MEMORY, text);
        EXPECT_EQ(StatisticsCode(), KERN_FAILURE) << text;
    }
    for (const int error : {ENOENT, EACCES, EISDIR}) {
        const HostFileFails memory(MEMORY, error);
        EXPECT_EQ(StatisticsCode(), KERN_FAILURE) << strerror(error);
    }
}

/* Zones */

constexpr char SLAB_HEAD[] =
    "slabinfo - version: 2.1\n"
    "# name            <active_objs> <num_objs> <objsize> <objperslab> <pagesperslab> : tunables "
    "<limit> <batchcount> <sharedfactor> : slabdata <active_slabs> <num_slabs> <sharedavail>\n";

struct Zones {
    kern_return_t code;
    std::vector<std::string> names;
    std::vector<mach_zone_info_t> infos;
};

// Calls mach_zone_info() and returns its answer; deallocates both arrays.
Zones AllZones()
{
    const ptrdiff_t before = sMappedPages;
    auto *names = reinterpret_cast<mach_zone_name_array_t>(1);
    auto *infos = reinterpret_cast<mach_zone_info_array_t>(2);
    mach_msg_type_number_t nameCount = 3, infoCount = 4;
    Zones zones = {
        mach_zone_info(mach_host_self(), &names, &nameCount, &infos, &infoCount), {}, {}};
    if (zones.code != KERN_SUCCESS) {
        EXPECT_EQ(names, reinterpret_cast<mach_zone_name_array_t>(1)) << "untouched";
        EXPECT_EQ(infos, reinterpret_cast<mach_zone_info_array_t>(2)) << "untouched";
        EXPECT_TRUE(nameCount == 3 && infoCount == 4) << "untouched";
        EXPECT_EQ(sMappedPages, before) << "nothing is left behind";
        return zones;
    }
    EXPECT_EQ(nameCount, infoCount);
    for (size_t i = 0; i < nameCount; i++) {
        zones.names.emplace_back(names[i].mzn_name);
        zones.infos.push_back(infos[i]);
    }
    EXPECT_EQ(vm_deallocate(mach_task_self(), reinterpret_cast<vm_address_t>(names),
                            nameCount * sizeof *names),
              KERN_SUCCESS);
    EXPECT_EQ(vm_deallocate(mach_task_self(), reinterpret_cast<vm_address_t>(infos),
                            infoCount * sizeof *infos),
              KERN_SUCCESS);
    EXPECT_EQ(sMappedPages, before) << "all is given back";
    return zones;
}

std::string SlabLine(const std::string &name, uint64_t elementSize)
{
    return name + " 7 16 " + std::to_string(elementSize) +
           " 8 2 : tunables 0 0 0 : slabdata 2 3 0\n";
}

TEST(ZoneInfo, TellsTheSlabCaches)
{
    const HostFile slabs(SLABS,
                         std::string(SLAB_HEAD) +
                             "kmalloc-64          1201   1280     64   64    1 : tunables    0 "
                             "   0    0 : slabdata     20     21      0\n" +
                             SlabLine("two words", 320));
    const Zones zones = AllZones();
    ASSERT_EQ(zones.code, KERN_SUCCESS);
    EXPECT_EQ(zones.names, (std::vector<std::string>{"kmalloc-64", "two words"}));
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const mach_zone_info_t first = {1201, 21 * page, 0, 64, page, 0, 0, 0};
    EXPECT_EQ(memcmp(&zones.infos[0], &first, sizeof first), 0);
    const mach_zone_info_t second = {7, 6 * page, 0, 320, 2 * page, 0, 0, 0};
    EXPECT_EQ(memcmp(&zones.infos[1], &second, sizeof second), 0);
}

TEST(ZoneInfo, CutsLongNames)
{
    const std::string longest(79, 'n');
    const HostFile slabs(SLABS, SLAB_HEAD + SlabLine(longest, 8) + SlabLine(longest + "n", 8) +
                                    SlabLine(std::string(300, 'n'), 8) + SlabLine("next", 8));
    EXPECT_EQ(AllZones().names, (std::vector<std::string>{longest, longest, longest, "next"}));
}

TEST(ZoneInfo, TellsThousands)
{
    std::string text = SLAB_HEAD;
    for (uint64_t i = 0; i < 5000; i++) {
        text += SlabLine("zone" + std::to_string(i), i);
    }
    const HostFile slabs(SLABS, text);
    const Zones zones = AllZones();
    ASSERT_EQ(zones.names.size(), 5000u);
    for (uint64_t i = 0; i < 5000; i++) {
        EXPECT_EQ(zones.names[i], "zone" + std::to_string(i));
        EXPECT_EQ(zones.infos[i].mzi_elem_size, i);
    }
}

TEST(ZoneInfo, FailsOnWhatItDoesNotUnderstand)
{
    const std::string good = SlabLine("good", 8);
    for (const std::string &text :
         {std::string(), std::string(SLAB_HEAD), std::string("slabinfo - version: 1.1\n") + good,
          good, SLAB_HEAD + good + "\n", SLAB_HEAD + good + "bad 7 16 8 8 2 : slabdata 2 3 0\n",
          SLAB_HEAD + good + "bad 7 16 8 8 2 : tunables 0 0 0\n",
          SLAB_HEAD + good + "bad 7 16 x 8 2 : tunables 0 0 0 : slabdata 2 3 0\n",
          SLAB_HEAD + good + "7 16 8 8 2 : tunables 0 0 0 : slabdata 2 3 0\n",
          SLAB_HEAD + good + " : tunables 0 0 0 : slabdata \n"}) {
        const HostFile slabs(SLABS, text);
        EXPECT_EQ(AllZones().code, KERN_FAILURE) << text;
    }
}

struct ErrorCase {
    int error;
    kern_return_t code;
};

TEST(ZoneInfo, TellsWhyItCannotRead)
{
    for (const auto &[error, code] : {ErrorCase{EACCES, KERN_INVALID_HOST},
                                      {EPERM, KERN_INVALID_HOST},
                                      {ENOENT, KERN_FAILURE},
                                      {EMFILE, KERN_FAILURE},
                                      {EISDIR, KERN_FAILURE}}) {
        const HostFileFails slabs(SLABS, error);
        EXPECT_EQ(AllZones().code, code) << strerror(error);
    }
}

TEST(ZoneInfo, IsForTheHostOnly)
{
    mach_zone_name_array_t names = nullptr;
    mach_zone_info_array_t infos = nullptr;
    mach_msg_type_number_t nameCount = 0, infoCount = 0;
    for (const mach_port_t port : {mach_port_t{0}, mach_port_t{mach_task_self()}}) {
        EXPECT_EQ(mach_zone_info(port, &names, &nameCount, &infos, &infoCount), KERN_INVALID_HOST);
    }
}

TEST(ZoneInfo, LeavesNothingBehindWithoutPages)
{
    const HostFile slabs(SLABS, SLAB_HEAD + SlabLine("zone", 8));
    for (const size_t granted : {0u, 1u}) {
        sGrantedMaps = granted;
        EXPECT_EQ(AllZones().code, KERN_RESOURCE_SHORTAGE) << granted;
        sGrantedMaps = SIZE_MAX;
    }
    EXPECT_EQ(AllZones().code, KERN_SUCCESS);
}

// Runs the call with ever more memory until that suffices.  Every call before must fail with
// KERN_RESOURCE_SHORTAGE.
void ExpectNeedsMemory(const std::function<kern_return_t()> &call, size_t atLeast)
{
    for (size_t granted = 0;; granted++) {
        kern_return_t code = KERN_SUCCESS;
        bool isLast = false;
        {
            const OutOfNew memory(granted);
            code = call();
            isLast = !memory.Showed();
        }
        ASSERT_EQ(code, isLast ? KERN_SUCCESS : KERN_RESOURCE_SHORTAGE) << granted;
        if (isLast) {
            EXPECT_GE(granted, atLeast);
            return;
        }
    }
}

TEST(ZoneInfo, FailsWithoutMemory)
{
    const HostFile slabs(SLABS, SLAB_HEAD + SlabLine("zone", 8));
    mach_zone_name_array_t names = nullptr;
    mach_zone_info_array_t infos = nullptr;
    mach_msg_type_number_t count = 0;
    const ptrdiff_t before = sMappedPages;
    ExpectNeedsMemory(
        [&] { return mach_zone_info(mach_host_self(), &names, &count, &infos, &count); }, 2);
    EXPECT_EQ(sMappedPages, before + 2) << "those of the one that succeeded";
    EXPECT_EQ(vm_deallocate(mach_task_self(), reinterpret_cast<vm_address_t>(names), sizeof *names),
              KERN_SUCCESS);
    EXPECT_EQ(vm_deallocate(mach_task_self(), reinterpret_cast<vm_address_t>(infos), sizeof *infos),
              KERN_SUCCESS);
}

TEST(HostStatistics, FailWithoutMemory)
{
    vm_statistics_data_t statistics;
    mach_msg_type_number_t count = COUNT;
    ExpectNeedsMemory(
        [&] {
            return host_statistics(mach_host_self(), HOST_VM_INFO,
                                   reinterpret_cast<host_info_t>(&statistics), &count);
        },
        2);
}

/* Memory that is given back */

bool IsMapped(vm_address_t address)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    unsigned char residency = 0;
    return mincore(reinterpret_cast<void *>(address), page, &residency) == 0;
}

TEST(VmDeallocate, GivesBackEveryPageOfTheRange)
{
    const auto page = static_cast<vm_size_t>(sysconf(_SC_PAGESIZE));
    void *block = mmap(nullptr, 4 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(block, MAP_FAILED);
    const auto start = reinterpret_cast<vm_address_t>(block);
    EXPECT_EQ(vm_deallocate(mach_task_self(), start + 2 * page - 1, 2), KERN_SUCCESS);
    EXPECT_TRUE(IsMapped(start));
    EXPECT_FALSE(IsMapped(start + page));
    EXPECT_FALSE(IsMapped(start + 2 * page));
    EXPECT_TRUE(IsMapped(start + 3 * page));
    EXPECT_EQ(vm_deallocate(mach_task_self(), start, 4 * page), KERN_SUCCESS) << "holes do no harm";
    EXPECT_FALSE(IsMapped(start));
}

TEST(VmDeallocate, GivesBackNothingOfAnEmptyRange)
{
    const auto page = static_cast<vm_size_t>(sysconf(_SC_PAGESIZE));
    void *block = mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(block, MAP_FAILED);
    const auto start = reinterpret_cast<vm_address_t>(block);
    EXPECT_EQ(vm_deallocate(mach_task_self(), start, 0), KERN_SUCCESS);
    EXPECT_EQ(vm_deallocate(mach_task_self(), start + 1, 0), KERN_SUCCESS);
    EXPECT_TRUE(IsMapped(start));
    EXPECT_EQ(vm_deallocate(mach_host_self(), start, page), KERN_INVALID_ARGUMENT) << "no task";
    EXPECT_EQ(vm_deallocate(0, start, page), KERN_INVALID_ARGUMENT) << "no task";
    EXPECT_TRUE(IsMapped(start));
    munmap(block, page);
}

TEST(VmDeallocate, RefusesRangesWhereThereIsNoMemory)
{
    const auto page = static_cast<vm_size_t>(sysconf(_SC_PAGESIZE));
    void *block = mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(block, MAP_FAILED);
    const auto start = reinterpret_cast<vm_address_t>(block);
    // Counted from the start of its page, the length of this range overflows to a few bytes.
    EXPECT_EQ(vm_deallocate(mach_task_self(), start + 100, UINTPTR_MAX - 50),
              KERN_INVALID_ARGUMENT);
    EXPECT_TRUE(IsMapped(start));
    munmap(block, page);
    EXPECT_EQ(vm_deallocate(mach_task_self(), UINTPTR_MAX - 10, 20), KERN_INVALID_ARGUMENT);
    EXPECT_EQ(vm_deallocate(mach_task_self(), UINTPTR_MAX / 2, 20), KERN_INVALID_ARGUMENT);
}

/* The clock */

uint64_t MonotonicNs()
{
    struct timespec now;
    EXPECT_EQ(clock_gettime(CLOCK_MONOTONIC, &now), 0);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

TEST(AbsoluteTime, IsTheMonotonicClock)
{
    for (int i = 0; i < 100; i++) {
        const uint64_t before = MonotonicNs(), now = mach_absolute_time(), after = MonotonicNs();
        EXPECT_LE(before, now);
        EXPECT_LE(now, after);
    }
}

TEST(AbsoluteTime, CountsNanoseconds)
{
    mach_timebase_info_data_t base = {0, 0};
    EXPECT_EQ(mach_timebase_info(&base), KERN_SUCCESS);
    EXPECT_EQ(base.numer, 1u);
    EXPECT_EQ(base.denom, 1u);
}

} // namespace
