/*
 * str.h -- NUL-terminated strings: formatting, copying, searching, ASCII case.
 *
 * Formats are those of bsd_vsnprintf.h, which differ from the C library's in places.  Sizes are in
 * bytes and count the terminating NUL; lengths do not.  Text is bytes, usually UTF-8; it is not
 * checked.  Where a function says that its text must fit, text that does not fit ends the process
 * through Panic().  No pointer may be NULL, unless the function says so.  All of it is reentrant.
 */
#ifndef PELAGO_STR_H
#define PELAGO_STR_H

#include "declarations.h"

#include <stdarg.h>
#include <stddef.h>

PELAGO_BEGIN_DECLARATIONS

/* ---- Formatting into a buffer of size bytes, which must be 1 to INT_MAX. */

/*
 * Returns the length of the output, or -1 when the output does not fit: the buffer then holds as
 * many of its whole UTF-8 characters as fit.  Also -1 when the format is invalid or memory runs
 * out: the contents of the buffer are then unspecified.  The buffer is always terminated.  When it
 * is NULL, which is allowed here, the result is -1, too.
 *    Str_Snprintf(buffer, 4, "%s", "abcdef")  gives "abc" and -1
 *
 * A SIZE OF 0 SETS NO LIMIT: the whole output is written, past the end of the buffer, without a
 * NUL.  The C library's snprintf() differs.  Check for a size of 0 before calling; to learn an
 * output's length, use *lengthOut of Str_Asprintf().
 *
 * To learn why the result is -1, call Str_Asprintf() with the same format and values: it returns
 * the whole output if that only did not fit, and NULL if the format is invalid.
 */
int Str_Snprintf(char *buffer, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
/* Does the same with the values in a list, which is used up.  A SIZE OF 0 SETS NO LIMIT here
 * either: the whole output is written, past the end of the buffer.  To learn why the result is -1,
 * copy the list with va_copy() before the call, and give the copy to Str_Vasprintf(). */
int Str_Vsnprintf(char *buffer, size_t size, const char *format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

/*
 * Returns the length of the output, which must fit: else "lib/string/str:214 Buffer too small".
 *
 * A SIZE OF 0 SETS NO LIMIT: the whole output is written, past the end of the buffer, before the
 * process ends.  Check for a size of 0 before calling.
 */
int Str_Sprintf(char *buffer, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
/* Does the same whatever the locale is: the decimal point is ".", and digits are not grouped.  The
 * output must fit: else "lib/string/str:177 Buffer too small".  A SIZE OF 0 SETS NO LIMIT here
 * either: the whole output is written, past the end of the buffer, before the process ends. */
int Str_SprintfCLocale(char *buffer, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/* ---- Formatting into a new string */

/*
 * Formats into a new string, which the caller releases with free(), and stores its length in
 * *lengthOut; lengthOut may be NULL.  Returns NULL, and stores no length, when memory runs out or
 * the format is invalid.
 *    Str_Asprintf(NULL, "%s%s", "/opt/p", "/icu")  gives "/opt/p/icu"
 */
char *Str_Asprintf(size_t *lengthOut, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
/* Does the same with the values in a list, which is used up. */
char *Str_Vasprintf(size_t *lengthOut, const char *format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

/* Does the same, but a failure ends the process: "VERIFY lib/string/str:657". */
char *Str_SafeAsprintf(size_t *lengthOut, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
/* Does the same with the values in a list, which is used up. */
char *Str_SafeVasprintf(size_t *lengthOut, const char *format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

/* ---- Copying into a buffer of size bytes.  The order of the arguments differs from function to
 * function.  Source and destination must not overlap.  The process ends when the text does not fit,
 * and when a destination to append to has no NUL: "lib/string/str:LINE Buffer too small", with the
 * LINE that each function names.  Each returns its destination. */

/* Copies the source.  LINE is 284. */
char *Str_Strcpy(char *destination, const char *source, size_t size);
/* Copies the source, or its first n bytes if it is longer; a source of n bytes needs no NUL.  LINE
 * is 322. */
char *Str_Strncpy(char *destination, size_t size, const char *source, size_t n);
/* Appends the source.  LINE is 444. */
char *Str_Strcat(char *destination, const char *source, size_t size);
/* Appends the source, or its first n bytes if it is longer.  LINE is 498. */
char *Str_Strncat(char *destination, size_t size, const char *source, size_t n);

/* ---- Searching and measuring */

/* Returns the length of the string, or maximum when its first maximum bytes contain no NUL. */
size_t Str_Strlen(const char *string, size_t maximum);

/*
 * Finds the needle in the first n bytes of the haystack, or up to its NUL when that comes earlier.
 * Returns the first place, or NULL.  An empty needle is found at the start.
 */
char *Str_Strnstr(const char *haystack, const char *needle, size_t n);

/* ---- Case, changed in place.  Only ASCII letters change, so UTF-8 text stays valid.  Both return
 * their argument. */

/* "A" to "Z" become "a" to "z". */
char *Str_ToLower(char *string);
/* "a" to "z" become "A" to "Z". */
char *Str_ToUpper(char *string);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_STR_H */
