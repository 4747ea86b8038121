/* bsd_vsnprintf.c -- a program's own printf(), into a new string, the same in every locale. */
#include <pelago/bsd_vsnprintf.h>

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

/* Returns a new string, to be released with free(); NULL when memory runs out. */
static char *Format(const char *format, ...)
{
    char *text = NULL; /* so the engine allocates */
    va_list arguments;
    va_start(arguments, format);
    const int length = bsd_vsnprintf_c_locale(&text, 0, format, arguments);
    va_end(arguments);
    return length < 0 ? NULL : text;
}

/* The same with digits in groups of three. */
static char *FormatGrouped(const char *format, ...)
{
    char *text = NULL;
    va_list arguments;
    va_start(arguments, format);
    const int length = bsd_vsnprintf_core(&text, "\3", ',', ".", 0, format, arguments);
    va_end(arguments);
    return length < 0 ? NULL : text;
}

static int Print(char *text)
{
    if (text == NULL) {
        fputs("no memory\n", stderr);
        return EXIT_FAILURE;
    }
    puts(text);
    free(text);
    return EXIT_SUCCESS;
}

int main(void)
{
    /* "%2$s" is the second argument, whatever comes first in the sentence. */
    const int first = Print(Format("%2$s is %1$.1f %% full", 62.5, "disk"));
    const int second = Print(FormatGrouped("%'d bytes", 1234567));
    return first != EXIT_SUCCESS ? first : second;
}

/* In a shell:
 *
 *    $ ./bsd_vsnprintf
 *    disk is 62.5 % full
 *    1,234,567 bytes
 */
