// closingWays.h -- macOS's ways to close many descriptors, and how each of them fails.
#ifndef PELAGO_TESTS_PLATFORM_MACOS_CLOSINGWAYS_H
#define PELAGO_TESTS_PLATFORM_MACOS_CLOSINGWAYS_H

#include <cerrno>
#include <climits>
#include <cstdint>
#include <libproc.h>
#include <sys/mman.h>
#include <unistd.h>

constexpr int MANY = 900; // descriptors that a test opens

enum Trouble { NONE, NO_SIZE, NO_MEMORY, NO_LIST, CUT_LIST };
inline Trouble sTrouble;
inline int sCloses; // calls of close()

extern "C" {
int __real_proc_pidinfo(int pid, int flavor, uint64_t argument, void *list, int size);
int __wrap_proc_pidinfo(int pid, int flavor, uint64_t argument, void *list, int size)
{
    if (sTrouble == (list == nullptr ? NO_SIZE : NO_LIST)) {
        errno = EPERM;
        return 0;
    }
    // A list that fills its buffer may lack some descriptors.
    const int room = sTrouble == CUT_LIST && list != nullptr ? PROC_PIDLISTFD_SIZE : 0;
    const int filled = __real_proc_pidinfo(pid, flavor, argument, list, room == 0 ? size : room);
    return room == 0 ? filled : size;
}
void *__real_mmap(void *address, size_t size, int protection, int flags, int fd, off_t offset);
void *__wrap_mmap(void *address, size_t size, int protection, int flags, int fd, off_t offset)
{
    if (sTrouble != NO_MEMORY) { return __real_mmap(address, size, protection, flags, fd, offset); }
    errno = ENOMEM;
    return MAP_FAILED;
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
constexpr WayCase KNOWING[] = {{"TheKernelsList", NONE, MANY + 8}};
constexpr WayCase LAST_RESORT[] = {{"NumberWithoutASize", NO_SIZE, INT_MAX},
                                   {"NumberWithoutMemory", NO_MEMORY, INT_MAX},
                                   {"NumberWithoutAList", NO_LIST, INT_MAX},
                                   {"NumberWithAListThatIsCut", CUT_LIST, INT_MAX}};

#endif // PELAGO_TESTS_PLATFORM_MACOS_CLOSINGWAYS_H
