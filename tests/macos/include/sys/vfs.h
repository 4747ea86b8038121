/* vfs.h -- statfs(), which macOS declares in another header. */
#ifndef PELAGO_TESTS_MACOS_SYS_VFS_H
#define PELAGO_TESTS_MACOS_SYS_VFS_H

#include <sys/mount.h>

#endif
