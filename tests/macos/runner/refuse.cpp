// refuse.cpp
#include "refuse.h"

#include <cstdarg>
#include <cstdio>
#include <unistd.h>

void Refuse(const char *format, ...)
{
    constexpr int STATUS = 126; // as a shell's for a program that cannot be run
    char line[8000];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    dprintf(STDERR_FILENO, "machoRunner: %s\n", line);
    _exit(STATUS);
}
