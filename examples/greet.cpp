// greet.cpp -- a program on the foundation library.
#include <pelago/diagnostics.h>
#include <pelago/hostinfo.h>
#include <pelago/posix.h>
#include <pelago/str.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

// Where the library's messages go is the program's decision.
extern "C" void Warning(const char *, ...) {}
extern "C" void Log(const char *, ...) {}
extern "C" void Panic(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    vfprintf(stderr, format, values);
    exit(1);
}

int main()
{
    // What these return is ours to free; running out of memory ends in Panic.
    Unicode hello = Unicode_AllocWithLength(u"Grüß Gott", -1, STRING_ENCODING_UTF_16LE);
    char *user = Hostinfo_GetUser();
    Unicode folder = Posix_RealPath(".");
    char *line = Str_SafeAsprintf(nullptr, "%s, %s! This is %s.", hello, user, folder);
    puts(line);
    free(line);
    free(folder);
    free(user);
    free(hello);
}
