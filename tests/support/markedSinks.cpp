// markedSinks.cpp -- sinks that a test can tell apart, for programs that pelago_marked_sinks() is
// told of: the name of each comes before its message.  They destroy errno, as a
// careless program's do, so that a call which does not keep it shows.
#include "diagnostics.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

static void Say(const char *sink, const char *format, va_list arguments)
{
    constexpr int OF_NO_CALL = 9999;
    fputs(sink, stderr);
    vfprintf(stderr, format, arguments);
    errno = OF_NO_CALL;
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
