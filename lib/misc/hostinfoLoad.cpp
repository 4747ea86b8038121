// hostinfoLoad.cpp -- load and memory of the host.
#include "hostinfoInt.h"

#include "diagnostics.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mach/mach.h>
#include <mach_debug/mach_debug_types.h>
#include <unistd.h>

using namespace pelago;

namespace {

constexpr int LOAD_AVERAGES = 3;
constexpr float HUNDREDTHS = 100;

constexpr char STATM_PATH[] = "/proc/self/statm";
constexpr size_t STATM_SIZE = 64; // with a NUL

constexpr unsigned int MIN_MEMORY_PAGES = 128;
constexpr int PAGE_SHIFT_4K = 12;

bool HostinfoLoadAverages(double (&averages)[LOAD_AVERAGES])
{
    return getloadavg(averages, LOAD_AVERAGES) == LOAD_AVERAGES;
}

// Fills the buffer with the file's first bytes, terminated.
bool HostinfoReadStatm(char (&content)[STATM_SIZE])
{
    const int fd = open(STATM_PATH, O_RDONLY | O_CLOEXEC);
    if (fd < 0) { return false; }
    const ssize_t size = read(fd, content, sizeof content - 1);
    close(fd);
    if (size < 0) { return false; }
    content[size] = '\0';
    return true;
}

// An array that the kernel has allocated in this process; released at the end of the block.
template <typename T> class KernelArray {
public:
    KernelArray() = default;
    KernelArray(const KernelArray &) = delete;
    KernelArray &operator=(const KernelArray &) = delete;
    ~KernelArray()
    {
        if (mEntries == nullptr) { return; }
        vm_deallocate(mach_task_self(), reinterpret_cast<vm_address_t>(mEntries),
                      mCount * sizeof(T));
    }

    T *mEntries = nullptr;
    mach_msg_type_number_t mCount = 0;
};

bool HostinfoIsNamed(const mach_zone_name_t &zone, const char *name)
{
    // A name that fills its field need not be terminated.
    const size_t size = sizeof zone.mzn_name, length = strlen(name);
    return length <= size && strncmp(zone.mzn_name, name, size) == 0;
}

} // namespace

// ---- Load

extern "C" bool Hostinfo_GetLoadAverage(uint32_t *hundredths)
{
    double averages[LOAD_AVERAGES];
    if (!HostinfoLoadAverages(averages)) { return false; }
    *hundredths = static_cast<uint32_t>(static_cast<float>(averages[0]) * HUNDREDTHS);
    return true;
}

extern "C" void Hostinfo_LogLoadAverage()
{
    double averages[LOAD_AVERAGES];
    if (!HostinfoLoadAverages(averages)) { return; }
    Log("LOADAVG: %.2f %.2f %.2f\n", averages[0], averages[1], averages[2]);
}

// ---- Memory

extern "C" void Hostinfo_LogMemUsage()
{
    char content[STATM_SIZE];
    if (!HostinfoReadStatm(content)) { return; }
    int size = 0, resident = 0, share = 0, trs = 0, lrs = 0, drs = 0, dt = 0;
    sscanf(content, "%d %d %d %d %d %d %d", &size, &resident, &share, &trs, &lrs, &drs, &dt);
    Log("RUSAGE size=%d resident=%d share=%d trs=%d lrs=%d drs=%d dt=%d\n", size, resident, share,
        trs, lrs, drs, dt);
}

extern "C" bool Hostinfo_GetMemoryInfoInPages(unsigned int *minSize, unsigned int *maxSize,
                                              unsigned int *currentSize)
{
    vm_statistics_data_t statistics = {};
    mach_msg_type_number_t count = HOST_VM_INFO_COUNT;
    if (host_statistics(mach_host_self(), HOST_VM_INFO, reinterpret_cast<host_info_t>(&statistics),
                        &count) != KERN_SUCCESS ||
        count != HOST_VM_INFO_COUNT) {
        Warning("%s: Unable to retrieve host vm stats.\n", __func__);
        return false;
    }
    uint64_t memory = 0;
    if (!HostinfoReadValue("hw.memsize", &memory, sizeof memory)) {
        Warning("%s: Unable to retrieve host vm hw.memsize.\n", __func__);
        return false;
    }
    *minSize = MIN_MEMORY_PAGES;
    // 16 TiB and more do not fit.
    *maxSize = static_cast<unsigned int>(std::min<uint64_t>(memory >> PAGE_SHIFT_4K, UINT32_MAX));
    *currentSize = statistics.free_count;
    return true;
}

extern "C" size_t Hostinfo_GetKernelZoneElemSize(const char *name)
{
    KernelArray<mach_zone_name_t> names;
    KernelArray<mach_zone_info_t> infos;
    const kern_return_t result = mach_zone_info(mach_host_self(), &names.mEntries, &names.mCount,
                                                &infos.mEntries, &infos.mCount);
    if (result != KERN_SUCCESS) {
        Warning("%s: mach_zone_info failed %u.\n", __func__, static_cast<unsigned int>(result));
        return 0;
    }
    const mach_msg_type_number_t count = std::min(names.mCount, infos.mCount);
    for (mach_msg_type_number_t i = 0; i < count; i++) {
        if (HostinfoIsNamed(names.mEntries[i], name)) { return infos.mEntries[i].mzi_elem_size; }
    }
    return 0;
}
