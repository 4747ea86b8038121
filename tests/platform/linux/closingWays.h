// closingWays.h -- Linux's ways to close many descriptors, and how each of them fails.
#ifndef PELAGO_TESTS_PLATFORM_LINUX_CLOSINGWAYS_H
#define PELAGO_TESTS_PLATFORM_LINUX_CLOSINGWAYS_H

#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

constexpr int MANY = 900; // descriptors that a test opens

struct Trouble {
    int rangeError;   // of close_range(); 0: the call works
    int listingError; // of opening the list of descriptors
    int readingError; // of reading the list
};
inline Trouble sTrouble;
inline int sCloses; // calls of close()

extern "C" {
int __real_close_range(unsigned first, unsigned last, int flags);
int __wrap_close_range(unsigned first, unsigned last, int flags)
{
    if (sTrouble.rangeError == 0) { return __real_close_range(first, last, flags); }
    errno = sTrouble.rangeError;
    return -1;
}
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...)
{
    if (sTrouble.listingError == 0 || (flags & O_DIRECTORY) == 0) {
        return __real_open(path, flags);
    }
    errno = sTrouble.listingError;
    return -1;
}
ssize_t __real_getdents64(int fd, void *entries, size_t size);
ssize_t __wrap_getdents64(int fd, void *entries, size_t size)
{
    if (sTrouble.readingError == 0) { return __real_getdents64(fd, entries, size); }
    errno = sTrouble.readingError;
    return -1;
}
int __real_close(int fd);
int __wrap_close(int fd)
{
    sCloses++;
    return __real_close(fd);
}
}

struct WayCase {
    const char *name;
    Trouble trouble;
    int mostCloses; // allowed calls of close() for MANY open descriptors
};
constexpr WayCase KNOWING[] = {{"TheKernelsCall", {0, 0, 0}, 0},
                               {"TheListWithoutTheCall", {ENOSYS, 0, 0}, MANY + 8},
                               {"TheListWithTheCallForbidden", {EPERM, 0, 0}, MANY + 8}};
constexpr WayCase LAST_RESORT[] = {
    {"NumberWithoutAList", {ENOSYS, ENOENT, 0}, INT_MAX},
    {"NumberWithAListThatCannotBeRead", {EPERM, 0, EACCES}, INT_MAX}};

#endif // PELAGO_TESTS_PLATFORM_LINUX_CLOSINGWAYS_H
