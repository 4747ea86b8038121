// greet.cpp -- a program on the foundation library.
#include <pelago/hostinfo.h>
#include <pelago/posix.h>
#include <pelago/str.h>

#include <cstdio>
#include <cstdlib>

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
