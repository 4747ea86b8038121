// closeDescriptors.cpp -- closes many descriptors at once, using the kernel's list of open ones.
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
    // Not in the loop, whose counter would overflow after INT_MAX.
    close(last);
}

// Fills the list, and closes the descriptors in it.  Returns false, and closes nothing, when the
// kernel fills all size bytes, since the list may then have been cut.
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

// Closes the descriptors that the kernel lists as open; returns whether it could list all of them.
bool CloseByListing(int first, int last)
{
    // Without a buffer the call returns the size that the list can have, with some room to spare.
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
