// diagnostics.cpp -- this program's sinks.  All three write to standard error: standard output
// belongs to the caller's protocol.
#include "diagnostics.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

extern "C" void Warning(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
}

extern "C" void Log(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
}

extern "C" void Panic(const char *format, ...)
{
    fputs("Panic: ", stderr);
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fflush(stderr);
    exit(1);
}
