// kernel.cpp -- sysctl, Mach and libproc.
#include "../darwinTypes.h"
#include "../refuse.h"
#include "../rows.h"

#include <algorithm>
#include <cstdlib>
#include <dirent.h>
#include <mach/mach.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysctl.h>
#include <unistd.h>
#include <vector>

extern "C" {
int issetugid(void);
}

namespace {

static_assert(sizeof(vm_statistics) == DARWIN_SIZEOF_vm_statistics);
static_assert(sizeof(mach_zone_name_t) == DARWIN_SIZEOF_mach_zone_name_t);
static_assert(sizeof(mach_zone_info_t) == DARWIN_SIZEOF_mach_zone_info_t);

// Makes the call with the soft limit of descriptors raised: Darwin's kernel lists descriptors
// without opening one, and this host's does not.
template <typename Call> auto WithMoreDescriptors(Call call)
{
    rlimit before, more;
    getrlimit(RLIMIT_NOFILE, &before);
    more = {before.rlim_max, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &more);
    const auto result = call();
    setrlimit(RLIMIT_NOFILE, &before);
    return result;
}

// Returns the open descriptors, except the one that lists them.
std::vector<int> OpenDescriptors()
{
    std::vector<int> open;
    DIR *folder = WithMoreDescriptors([] { return opendir("/proc/self/fd"); });
    if (folder == nullptr) { Refuse("proc_pidinfo: /proc/self/fd cannot be read"); }
    while (const dirent *entry = readdir(folder)) {
        const int fd = atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != dirfd(folder)) { open.push_back(fd); }
    }
    closedir(folder);
    std::sort(open.begin(), open.end());
    return open;
}

uint32_t DescriptorType(int fd)
{
    struct stat status = {};
    fstat(fd, &status);
    if (S_ISSOCK(status.st_mode)) { return DARWIN_PROX_FDTYPE_SOCKET; }
    return S_ISFIFO(status.st_mode) ? DARWIN_PROX_FDTYPE_PIPE : DARWIN_PROX_FDTYPE_VNODE;
}

// Without a list, returns the size for the table of descriptors and 20 more; with one, fills it as
// far as it goes.
int ProcPidinfo(int pid, int flavor, uint64_t argument, void *buffer, int size)
{
    constexpr int ROOM = 20;
    constexpr int ENTRY = sizeof(DarwinFdinfo);
    if (flavor != DARWIN_PROC_PIDLISTFDS || pid != getpid() || argument != 0) {
        Refuse("proc_pidinfo: flavor %d of process %d is not known", flavor, pid);
    }
    const std::vector<int> open = OpenDescriptors();
    if (buffer == nullptr || size == 0) {
        return (ROOM + (open.empty() ? 0 : open.back() + 1)) * ENTRY;
    }
    auto *list = static_cast<DarwinFdinfo *>(buffer);
    const int count = std::min(size / ENTRY, static_cast<int>(open.size()));
    for (int i = 0; i < count; i++) {
        list[i] = {open[i], DescriptorType(open[i])};
    }
    return count * ENTRY;
}

const Row ROWS[] = {
    ALIKE(ecvt),
    ALIKE(fcvt),
    ALIKE(host_statistics),
    ALIKE(issetugid),
    ALIKE(mach_host_self),
    ALIKE(mach_task_self_),
    ALIKE(mach_zone_info),
    TRANSLATED(proc_pidinfo, ProcPidinfo),
    WITH_ERRNO(sysctl),
    WITH_ERRNO(sysctlbyname),
    ALIKE(vm_deallocate),
};

} // namespace

Rows KernelRows() { return ROWS; }
