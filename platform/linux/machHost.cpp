// machHost.cpp -- memory statistics, the kernel's zones, and the release of their pages.
#include <mach/mach.h>

#include "hostFile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <new>
#include <optional>
#include <utility>
#include <vector>

using namespace pelago::platform;

namespace {

// Linux has no ports; these numbers stand for the two that the calls here accept.
constexpr mach_port_t HOST_PORT = 1;
constexpr mach_port_t TASK_PORT = 2;

/* Memory statistics */

// The number of members in the structure's first version, and in its second.
constexpr mach_msg_type_number_t FIRST_COUNT = 12;
constexpr mach_msg_type_number_t SECOND_COUNT = 14;
static_assert(offsetof(vm_statistics_data_t, purgeable_count) == FIRST_COUNT * sizeof(integer_t));
static_assert(offsetof(vm_statistics_data_t, speculative_count) ==
              SECOND_COUNT * sizeof(integer_t));

constexpr uint64_t KIB_PER_PAGE = 4;

std::optional<uint64_t> Parsed(std::string_view digits)
{
    uint64_t number = 0;
    const char *end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number);
    return error == std::errc() ? std::optional(number) : std::nullopt;
}

// Returns the number after the name; 0 when the text lacks it.
uint64_t CountOf(std::string_view text, std::string_view name)
{
    return Parsed(HostField(text, name)).value_or(0);
}

// Returns the count, or for a larger one the highest number that fits, as the SDK does.
natural_t Clamped(uint64_t count)
{
    return static_cast<natural_t>(std::min<uint64_t>(count, UINT32_MAX));
}

natural_t PagesOf(uint64_t kib) { return Clamped(kib / KIB_PER_PAGE); }

vm_statistics_data_t StatisticsOf(std::string_view memory, std::string_view events)
{
    vm_statistics_data_t statistics = {};
    statistics.free_count = PagesOf(CountOf(memory, "MemFree"));
    statistics.active_count = PagesOf(CountOf(memory, "Active"));
    statistics.inactive_count = PagesOf(CountOf(memory, "Inactive"));
    // Memory that programs have locked, and the kernel's own that it cannot reclaim.
    statistics.wire_count = PagesOf(CountOf(memory, "Unevictable") + CountOf(memory, "SUnreclaim") +
                                    CountOf(memory, "KernelStack") + CountOf(memory, "PageTables"));
    statistics.reactivations = Clamped(CountOf(events, "pgactivate"));
    statistics.pageins = PagesOf(CountOf(events, "pgpgin"));
    statistics.pageouts = PagesOf(CountOf(events, "pgpgout"));
    statistics.faults = Clamped(CountOf(events, "pgfault"));
    return statistics;
}

// Returns the number of members in the newest version that the room holds.
mach_msg_type_number_t VersionCount(mach_msg_type_number_t room)
{
    if (room >= HOST_VM_INFO_COUNT) { return HOST_VM_INFO_COUNT; }
    return room >= SECOND_COUNT ? SECOND_COUNT : FIRST_COUNT;
}

kern_return_t GiveStatistics(host_info_t info, mach_msg_type_number_t *count)
{
    std::string memory, events;
    const int error = HostReadText("/proc/meminfo", &memory);
    if (error != 0 || !Parsed(HostField(memory, "MemFree"))) { return KERN_FAILURE; }
    // A kernel may be built without this file; the counts of events are then 0.
    HostReadText("/proc/vmstat", &events);
    const vm_statistics_data_t statistics = StatisticsOf(memory, events);
    *count = VersionCount(*count);
    memcpy(info, &statistics, *count * sizeof *info);
    return KERN_SUCCESS;
}

/* Zones: the slab caches */

struct Zone {
    std::string_view name;
    mach_zone_info_t info;
};

// Removes the last word from the line and returns it.
std::string_view LastWord(std::string_view *line)
{
    constexpr std::string_view BLANKS = " \t";
    const size_t end = line->find_last_not_of(BLANKS);
    const std::string_view trimmed = line->substr(0, end == line->npos ? 0 : end + 1);
    const size_t before = trimmed.find_last_of(BLANKS);
    const size_t begin = before == trimmed.npos ? 0 : before + 1;
    *line = trimmed.substr(0, begin);
    return trimmed.substr(begin);
}

// Parses "name active objects size perslab pages : tunables ... : slabdata activeSlabs slabs
// shared" from the right, since the name may contain blanks; nullopt for any other line.
std::optional<Zone> ZoneOfLine(std::string_view line)
{
    const uint64_t pageSize = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const size_t tunables = line.find(" : tunables "), slabs = line.rfind(" : slabdata ");
    if (tunables == line.npos || slabs == line.npos) { return std::nullopt; }
    std::string_view tail = line.substr(slabs), head = line.substr(0, tunables);
    LastWord(&tail);
    const auto slabCount = Parsed(LastWord(&tail));
    const auto slabPages = Parsed(LastWord(&head));
    LastWord(&head);
    const auto elementSize = Parsed(LastWord(&head));
    LastWord(&head);
    const auto elementCount = Parsed(LastWord(&head));
    const size_t nameEnd = head.find_last_not_of(' ');
    if (!slabCount || !slabPages || !elementSize || !elementCount || nameEnd == head.npos) {
        return std::nullopt;
    }
    Zone zone = {head.substr(0, nameEnd + 1), {}};
    zone.info.mzi_count = *elementCount;
    zone.info.mzi_elem_size = *elementSize;
    zone.info.mzi_alloc_size = *slabPages * pageSize;
    zone.info.mzi_cur_size = *slabCount * *slabPages * pageSize;
    return zone;
}

// Returns the zones of /proc/slabinfo; nullopt for another version of the file, for a line that
// cannot be parsed, and when there are no zones.
std::optional<std::vector<Zone>> ZonesOf(std::string_view text)
{
    if (!text.starts_with("slabinfo - version: 2.")) { return std::nullopt; }
    std::vector<Zone> zones;
    bool areUnderstood = true;
    HostForEachLine(text.substr(text.find('\n') + 1), [&](std::string_view line) {
        if (line.starts_with('#')) { return; }
        const std::optional<Zone> zone = ZoneOfLine(line);
        areUnderstood = areUnderstood && zone;
        if (areUnderstood) { zones.push_back(*zone); }
    });
    if (!areUnderstood || zones.empty()) { return std::nullopt; }
    return zones;
}

// Zeroed pages, which the destructor unmaps unless they were released.
class Pages {
public:
    explicit Pages(size_t size)
        : mSize(size),
          mStart(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {}
    ~Pages()
    {
        if (AreThere()) { munmap(mStart, mSize); }
    }
    Pages(const Pages &) = delete;
    Pages &operator=(const Pages &) = delete;
    bool AreThere() const { return mStart != MAP_FAILED; }
    template <typename T> T *As() const { return static_cast<T *>(mStart); }
    template <typename T> T *ReleaseAs()
    {
        return static_cast<T *>(std::exchange(mStart, MAP_FAILED));
    }

private:
    size_t mSize;
    void *mStart;
};

kern_return_t GiveZones(const std::vector<Zone> &zones, mach_zone_name_array_t *names,
                        mach_msg_type_number_t *nameCount, mach_zone_info_array_t *infos,
                        mach_msg_type_number_t *infoCount)
{
    Pages namePages(zones.size() * sizeof(mach_zone_name_t));
    Pages infoPages(zones.size() * sizeof(mach_zone_info_t));
    if (!namePages.AreThere() || !infoPages.AreThere()) { return KERN_RESOURCE_SHORTAGE; }
    for (size_t i = 0; i < zones.size(); i++) {
        // The pages are zeroed, so a name that is cut is NUL-terminated, too.
        zones[i].name.copy(namePages.As<mach_zone_name_t>()[i].mzn_name,
                           MACH_ZONE_NAME_MAX_LEN - 1);
        infoPages.As<mach_zone_info_t>()[i] = zones[i].info;
    }
    *names = namePages.ReleaseAs<mach_zone_name_t>();
    *infos = infoPages.ReleaseAs<mach_zone_info_t>();
    *nameCount = *infoCount = static_cast<mach_msg_type_number_t>(zones.size());
    return KERN_SUCCESS;
}

} // namespace

extern "C" {
mach_port_t mach_task_self_ = TASK_PORT;
}

extern "C" mach_port_t mach_host_self(void) { return HOST_PORT; }

extern "C" kern_return_t host_statistics(host_t host, host_flavor_t flavor, host_info_t info,
                                         mach_msg_type_number_t *count)
{
    if (host != HOST_PORT) { return KERN_INVALID_HOST; }
    if (flavor != HOST_VM_INFO) { return KERN_INVALID_ARGUMENT; }
    if (*count < FIRST_COUNT) { return KERN_FAILURE; }
    try {
        return GiveStatistics(info, count);
    } catch (const std::bad_alloc &) {
        return KERN_RESOURCE_SHORTAGE;
    }
}

extern "C" kern_return_t mach_zone_info(mach_port_t host, mach_zone_name_array_t *names,
                                        mach_msg_type_number_t *nameCount,
                                        mach_zone_info_array_t *infos,
                                        mach_msg_type_number_t *infoCount)
{
    if (host != HOST_PORT) { return KERN_INVALID_HOST; }
    try {
        std::string text;
        const int error = HostReadText("/proc/slabinfo", &text);
        if (error == EACCES || error == EPERM) { return KERN_INVALID_HOST; }
        if (error != 0) { return KERN_FAILURE; }
        const auto zones = ZonesOf(text);
        return zones ? GiveZones(*zones, names, nameCount, infos, infoCount) : KERN_FAILURE;
    } catch (const std::bad_alloc &) {
        return KERN_RESOURCE_SHORTAGE;
    }
}

extern "C" kern_return_t vm_deallocate(vm_map_t task, vm_address_t address, vm_size_t size)
{
    if (task != TASK_PORT || address + size < address) { return KERN_INVALID_ARGUMENT; }
    if (size == 0) { return KERN_SUCCESS; }
    const auto pageSize = static_cast<vm_size_t>(sysconf(_SC_PAGESIZE));
    const vm_size_t lead = address % pageSize;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the SDK's addresses are integers
    const int done = munmap(reinterpret_cast<void *>(address - lead), size + lead);
    return done == 0 ? KERN_SUCCESS : KERN_INVALID_ARGUMENT;
}
