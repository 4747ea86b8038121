// closeDescriptors.cpp -- closes many descriptors at once, in the fastest of three ways that works.
#include <closeDescriptors.h>

#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace pelago::platform {

namespace {

void CloseOneByOne(int first, int last)
{
    for (int fd = first; fd < last; fd++) {
        close(fd);
    }
    close(last); // not in the loop, whose counter would overflow after INT_MAX
}

// Closes the descriptors in one part of the listing, except the descriptor of the listing itself.
void CloseListed(const char *entries, ssize_t size, int first, int last, int listing)
{
    for (ssize_t offset = 0; offset < size;) {
        const auto *entry = reinterpret_cast<const dirent64 *>(entries + offset);
        offset += entry->d_reclen;
        if (entry->d_name[0] == '.') { continue; } // "." and ".."
        const int fd = atoi(entry->d_name);
        if (fd >= first && fd <= last && fd != listing) { close(fd); }
    }
}

// Closes the descriptors that the kernel lists as open; returns whether it could list all of them.
// The kernel sorts the list by number, so closing some of them does not move the rest.
bool CloseByListing(int first, int last)
{
    close(first); // frees a descriptor for the listing, in case the process is at its limit
    const int listing = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (listing == -1) { return false; }
    alignas(dirent64) char entries[4096];
    ssize_t size = 0;
    while ((size = getdents64(listing, entries, sizeof entries)) > 0) {
        CloseListed(entries, size, first, last, listing);
    }
    close(listing);
    return size == 0;
}

} // namespace

void Host_CloseDescriptors(int first, int last)
{
    if (first > last ||
        close_range(static_cast<unsigned>(first), static_cast<unsigned>(last), 0) == 0) {
        return;
    }
    // Older kernels lack close_range(), and a system call filter may forbid it.
    if (!CloseByListing(first, last)) { CloseOneByOne(first, last); }
}

} // namespace pelago::platform
