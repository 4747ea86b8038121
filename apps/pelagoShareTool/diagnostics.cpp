// diagnostics.cpp -- this program's sinks.  All three write to standard error: standard output
// belongs to the caller's protocol.  Those that return leave errno as it was.
#include "diagnostics.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

extern "C" void Warning(const char *format, ...)
{
    const int error = errno;
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    errno = error;
}

extern "C" void Log(const char *format, ...)
{
    const int error = errno;
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    errno = error;
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
