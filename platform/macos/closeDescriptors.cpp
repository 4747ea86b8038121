// closeDescriptors.cpp -- closing many descriptors at once, by the kernel's list of what is open.
#include <closeDescriptors.h>

#include <libproc.h>
#include <sys/mman.h>
#include <unistd.h>

namespace pelago::platform {

namespace {

void CloseOneByOne(int first, int last)
{
    for (int fd = first; fd < last; fd++) {
        close(fd);
    }
    close(last);
}

// Closes those in the list; returns whether it is a whole one, which leaves room behind it.
bool CloseListed(proc_fdinfo *list, int size, int first, int last)
{
    const int filled = proc_pidinfo(getpid(), PROC_PIDLISTFDS, 0, list, size);
    if (filled <= 0 || filled >= size) { return false; }
    const int count = filled / static_cast<int>(sizeof *list);
    for (int i = 0; i < count; i++) {
        const int fd = list[i].proc_fd;
        if (fd >= first && fd <= last) { close(fd); }
    }
    return true;
}

// Returns whether the kernel lists what is open.
bool CloseByListing(int first, int last)
{
    // Without a list the answer is how large one can get, with some room.
    const int size = proc_pidinfo(getpid(), PROC_PIDLISTFDS, 0, nullptr, 0);
    if (size <= 0) { return false; }
    const auto length = static_cast<size_t>(size);
    void *list = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_ANON | MAP_PRIVATE, -1, 0);
    if (list == MAP_FAILED) { return false; }
    const bool isWhole = CloseListed(static_cast<proc_fdinfo *>(list), size, first, last);
    munmap(list, length);
    return isWhole;
}

} // namespace

void Host_CloseDescriptors(int first, int last)
{
    if (first <= last && !CloseByListing(first, last)) { CloseOneByOne(first, last); }
}

} // namespace pelago::platform
