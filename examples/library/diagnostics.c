/* diagnostics.c -- a program that takes the library's messages itself. */
#include <pelago/diagnostics.h>
#include <pelago/str.h>
#include <pelago/unicode.h>

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

/* A failure that the caller learns from a result, too.  The reason may be in errno, so that stays.
 */
void Pelago_Warning(const char *format, ...)
{
    const int error = errno;
    va_list values;
    va_start(values, format);
    fputs("warning: ", stderr);
    vfprintf(stderr, format, values);
    va_end(values);
    errno = error;
}

/* What is nobody's fault is not shown here. */
void Pelago_Log(const char *format, ...) { (void)format; }

/* The program cannot go on: this must not return. */
void Pelago_Panic(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    fputs("fatal: ", stderr);
    vfprintf(stderr, format, values);
    va_end(values);
    exit(3);
}

int main(void)
{
    if (UnicodeIANALookup("no such encoding") == STRING_ENCODING_UNKNOWN) {
        puts("the program goes on");
    }
    /* This must fit, and does not: an error of the program's author. */
    char color[4];
    puts(Str_Strcpy(color, "green", sizeof color));
    return EXIT_SUCCESS;
}

/* In a shell:
 *
 *    $ ./diagnostics || echo "status $?"
 *    warning: UnicodeIANALookup: Did not find an IANA match for encoding "no such encoding"
 *    the program goes on
 *    fatal: lib/string/str:284 Buffer too small
 *    status 3
 */
