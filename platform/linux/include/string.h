/*
 * string.h -- the host's own header, with POSIX's strerror_r(), which macOS has: it returns a
 * number and fills the buffer.  In C++ the GNU C library declares another function of that name.
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
