// markedSinks.cpp -- sinks that write their name before each message, for the programs of
// pelago_marked_sinks().  They change errno, as a careless program's sinks do: a library call that
// does not restore errno after a message then fails its test.
#include "diagnostics.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

static void Say(const char *sink, const char *format, va_list arguments)
{
    constexpr int SPOILT_ERRNO = 9999; // no call sets errno to this
    fputs(sink, stderr);
    vfprintf(stderr, format, arguments);
    errno = SPOILT_ERRNO;
}

extern "C" void Warning(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Say("Warning: ", format, arguments);
    va_end(arguments);
}

extern "C" void Log(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Say("Log: ", format, arguments);
    va_end(arguments);
}

extern "C" void Panic(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Say("Panic: ", format, arguments);
    va_end(arguments);
    fflush(stderr);
    exit(1);
}
