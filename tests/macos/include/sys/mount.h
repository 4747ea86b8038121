/* mount.h -- with this host's mount() instead of the other one. */
#ifndef PELAGO_TESTS_MACOS_SYS_MOUNT_H
#define PELAGO_TESTS_MACOS_SYS_MOUNT_H

#define mount mountOfMacos
#include_next <sys/mount.h>
#undef mount

/* Linux's numbers. */
#define MS_BIND    0x1000
#define MS_REC     0x4000
#define MS_PRIVATE 0x40000

#ifdef __cplusplus
extern "C"
#endif
    int
    mount(const char *source, const char *target, const char *type, unsigned long flags,
          const void *data);

#endif
