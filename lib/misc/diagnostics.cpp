// diagnostics.cpp -- the library's own sinks, for a program that does not define its own.
#include "diagnostics.h"

#include "scoped.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

using namespace pelago;

extern "C" {

__attribute__((weak)) void Warning(const char *format, ...)
{
    const ErrnoSaver keep;
    va_list values;
    va_start(values, format);
    vfprintf(stderr, format, values);
    va_end(values);
}

__attribute__((weak)) void Log(const char *format, ...)
{
    const ErrnoSaver keep;
    va_list values;
    va_start(values, format);
    vfprintf(stderr, format, values);
    va_end(values);
}

__attribute__((weak)) void Panic(const char *format, ...)
{
    fputs("Panic: ", stderr);
    va_list values;
    va_start(values, format);
    vfprintf(stderr, format, values);
    va_end(values);
    fflush(stderr);
    exit(1);
}

} // extern "C"
