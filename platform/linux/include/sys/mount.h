/* mount.h -- the host's own header, and statfs(), which macOS declares here. */
#ifndef PELAGO_PLATFORM_SYS_MOUNT_H
#define PELAGO_PLATFORM_SYS_MOUNT_H

#include_next <sys/mount.h>

#include <sys/vfs.h>

#endif /* PELAGO_PLATFORM_SYS_MOUNT_H */
