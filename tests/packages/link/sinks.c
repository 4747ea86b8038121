/* A program that defines the sinks under their short names. */
#define PELAGO_SHORT_SINKS
#include "allHeaders.h"
#include "expect.h"

#include <stdarg.h>

static void Print(const char *kind, const char *format, va_list values)
{
    printf("%s: ", kind);
    vprintf(format, values);
}

void Warning(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    Print("Warned", format, values);
    va_end(values);
}

void Log(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    Print("Logged", format, values);
    va_end(values);
}

void Panic(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    Print("Ended", format, values);
    va_end(values);
    exit(5);
}

int main(void)
{
    char text[3];
    Log("%s\n", "own");
    free(Util_ExpandString("$PELAGO_NOT_SET"));
    EXPECT(UnicodeIANALookup("no such encoding") == STRING_ENCODING_UNKNOWN);
    Str_Sprintf(text, sizeof text, "too long");
    return 2;
}
