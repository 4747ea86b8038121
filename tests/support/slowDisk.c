// slowDisk.c -- preloaded by tools/otherMachines.sh: makes durable writes and renames slow.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <unistd.h>

#define DELAY 50000 // microseconds, as on a rotating disk

#define SLOW(name, parameters, arguments)                                                          \
    int name parameters                                                                            \
    {                                                                                              \
        int(*next) parameters;                                                                     \
        *(void **)&next = dlsym(RTLD_NEXT, #name);                                                 \
        usleep(DELAY);                                                                             \
        return next arguments;                                                                     \
    }

SLOW(fsync, (int fd), (fd))
SLOW(fdatasync, (int fd), (fd))
SLOW(rename, (const char *from, const char *to), (from, to))
SLOW(renameat, (int from, const char *a, int to, const char *b), (from, a, to, b))
