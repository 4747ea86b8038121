/*
 * str.h -- formatting into strings.  Formats are those of bsd_vsnprintf.h.  All of it is reentrant.
 */
#ifndef PELAGO_STR_H
#define PELAGO_STR_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Formats into a new string, which the caller releases with free().  Its length in bytes, the NUL
 * not counted, goes to *lengthOut unless that is NULL.  Returns NULL, and stores no length, when
 * memory runs out or the format cannot be honoured.
 *    Str_Asprintf(NULL, "%s%s", "/opt/p", "/icu")  gives "/opt/p/icu"
 */
char *Str_Asprintf(size_t *lengthOut, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
/* The same with the values in a list, which is used up. */
char *Str_Vasprintf(size_t *lengthOut, const char *format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_STR_H */
