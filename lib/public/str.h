/*
 * str.h -- NUL-terminated strings: formatting, copying, searching, ASCII case.
 *
 * Formats are those of bsd_vsnprintf.h, which differ from the C library's in places.  Sizes are in
 * bytes and count the terminating NUL; lengths do not.  Text is bytes, by custom UTF-8.  What does
 * not fit where it must fit ends the process through Panic().  No pointer may be NULL unless it is
 * said.  All of it is reentrant.
 */
#ifndef PELAGO_STR_H
#define PELAGO_STR_H

#include "declarations.h"

#include <stdarg.h>
#include <stddef.h>

PELAGO_BEGIN_DECLARATIONS

/* ---- Formatting into a buffer of size bytes, which must be 1 to INT_MAX. */

/*
 * Returns the length of the output, or -1 when that does not fit: the buffer then holds as many
 * whole UTF-8 characters as do.  Also -1 when the format cannot be honoured or memory runs out:
 * then it holds anything.  It is always terminated.  Without a buffer, which may be NULL here, the
 * result is -1, too.
 *    Str_Snprintf(buffer, 4, "%s", "abcdef")  gives "abc" and -1
 *
 * A SIZE OF 0 SETS NO LIMIT: the whole output is written, past the end of the buffer, without a
 * NUL.  This is not the C library's snprintf().  Where the room left may be 0, look before calling;
 * to learn an output's length, take *lengthOut of Str_Asprintf().
 *
 * -1 alone does not tell an output that does not fit from a format that cannot be honoured.
 * Str_Asprintf() does, with the same format and values: it gives the whole output of the former,
 * and NULL for the latter.
 */
int Str_Snprintf(char *buffer, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
/* The same with the values in a list, which is used up.  A SIZE OF 0 SETS NO LIMIT here either: the
 * whole output is written, past the end of the buffer.  To learn why -1, make a copy of the list
 * with va_copy() first, and give it to Str_Vasprintf(). */
int Str_Vsnprintf(char *buffer, size_t size, const char *format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

/*
 * Returns the length of the output, which must fit: "lib/string/str:214 Buffer too small".
 *
 * A SIZE OF 0 SETS NO LIMIT: the whole output is written, past the end of the buffer, before the
 * process ends.  Where the room left may be 0, look before calling.
 */
int Str_Sprintf(char *buffer, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
/* The same without the locale: numbers have a "." and are not grouped, whatever it is.  Must fit:
 * "lib/string/str:177 Buffer too small".  A SIZE OF 0 SETS NO LIMIT here either: the whole output
 * is written, past the end of the buffer, before the process ends. */
int Str_SprintfCLocale(char *buffer, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/* ---- Formatting into a new string */

/*
 * Formats into a new string, which the caller releases with free().  Its length goes to *lengthOut
 * unless that is NULL.  Returns NULL, and stores no length, when memory runs out or the format
 * cannot be honoured.
 *    Str_Asprintf(NULL, "%s%s", "/opt/p", "/icu")  gives "/opt/p/icu"
 */
char *Str_Asprintf(size_t *lengthOut, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
/* The same with the values in a list, which is used up. */
char *Str_Vasprintf(size_t *lengthOut, const char *format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

/* The same, where failure ends the process: "VERIFY lib/string/str:657". */
char *Str_SafeAsprintf(size_t *lengthOut, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
/* The same with the values in a list, which is used up. */
char *Str_SafeVasprintf(size_t *lengthOut, const char *format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

/* ---- Copying into a buffer of size bytes; mind where each takes that.  Source and destination may
 * not overlap.  What does not fit, and a destination that is appended to and has no NUL, ends the
 * process: "lib/string/str:LINE Buffer too small", with the line that is given here.  Each returns
 * its destination. */

/* Copies the source.  284. */
char *Str_Strcpy(char *destination, const char *source, size_t size);
/* Copies the source, but at most its first n bytes; it need not be terminated behind these.  322.
 */
char *Str_Strncpy(char *destination, size_t size, const char *source, size_t n);
/* Appends the source.  444. */
char *Str_Strcat(char *destination, const char *source, size_t size);
/* Appends the source, but at most its first n bytes.  498. */
char *Str_Strncat(char *destination, size_t size, const char *source, size_t n);

/* ---- Searching and measuring */

/* The length of the string, or maximum when it has no NUL in that many bytes. */
size_t Str_Strlen(const char *string, size_t maximum);

/*
 * The first place where the needle is in the first n bytes of the haystack, or before its NUL when
 * that comes earlier; NULL when it is not.  An empty needle is at the start of any haystack.
 */
char *Str_Strnstr(const char *haystack, const char *needle, size_t n);

/* ---- Case, in place.  Only ASCII letters change, so UTF-8 stays what it is.  Both return their
 * argument. */

/* "A" to "Z" become "a" to "z". */
char *Str_ToLower(char *string);
/* "a" to "z" become "A" to "Z". */
char *Str_ToUpper(char *string);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_STR_H */
