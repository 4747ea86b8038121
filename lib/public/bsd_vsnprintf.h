/*
 * bsd_vsnprintf.h -- the formatting engine under the Str_ functions, which is what to call instead.
 */
#ifndef PELAGO_BSD_VSNPRINTF_H
#define PELAGO_BSD_VSNPRINTF_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Formats into *bufp, which holds size bytes (at least 1), or, when *bufp is NULL, into a block
 * that it allocates, stores there, and leaves to the caller to free().
 *
 * Returns the length of the whole output in bytes, its NUL not counted; in a buffer of the caller's
 * at most size - 1 bytes of it are stored, and a NUL.  Returns -1, with *bufp as it was, when
 * memory runs out, when the length would exceed INT_MAX, or when the format asks for a conversion
 * that the engine does not know.  It knows "%s", where NULL prints "(null)", and "%%".
 */
int bsd_vsnprintf(char **bufp, size_t size, const char *format, va_list arguments);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_BSD_VSNPRINTF_H */
