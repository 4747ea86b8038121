/* sysmacros.h -- device numbers, which macOS declares in another header. */
#ifndef PELAGO_TESTS_MACOS_SYS_SYSMACROS_H
#define PELAGO_TESTS_MACOS_SYS_SYSMACROS_H

#include <sys/types.h>

#endif
