// closeDescriptors.cpp -- closing many descriptors at once, in the best of three ways that works.
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
    close(last);
}

// Closes those in a piece of the listing, but not the listing itself.
void CloseListed(const char *entries, ssize_t size, int first, int last, int listing)
{
    for (ssize_t offset = 0; offset < size;) {
        const auto *entry = reinterpret_cast<const dirent64 *>(entries + offset);
        offset += entry->d_reclen;
        if (entry->d_name[0] == '.') { continue; } // the folder and the one above it
        const int fd = atoi(entry->d_name);
        if (fd >= first && fd <= last && fd != listing) { close(fd); }
    }
}

// Returns whether the kernel lists what is open.  It does so in the order of the numbers, so that
// what has been closed meanwhile moves nothing.
bool CloseByListing(int first, int last)
{
    close(first); // makes room for the listing where the process has as many as it may
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
    // Older kernels lack the call, and a filter of system calls may forbid it.
    if (!CloseByListing(first, last)) { CloseOneByOne(first, last); }
}

} // namespace pelago::platform
