/*
 * string.h -- the host's own, but for strerror_r(): on macOS it is POSIX's, which returns a number
 * and fills the buffer.  Compiled as C++ the GNU C library would show another one under the name.
 */
#ifndef PELAGO_PLATFORM_STRING_H
#define PELAGO_PLATFORM_STRING_H

#include_next <string.h>

#ifdef __cplusplus
extern "C" {
#endif

int __xpg_strerror_r(int number, char *buffer, size_t size) __THROW;
#define strerror_r __xpg_strerror_r

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_PLATFORM_STRING_H */
