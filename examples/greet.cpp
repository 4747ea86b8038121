// greet.cpp -- a program on the foundation library.
#include <pelago/codeset.h>
#include <pelago/err.h>
#include <pelago/hostinfo.h>
#include <pelago/str.h>
#include <pelago/unicode.h>

#include <cstdio>
#include <cstdlib>

// A folder's name may be any bytes; those that are not UTF-8 are shown as "\x" and two digits.
static char *Shown(const char *bytes)
{
    if (CodeSet_IsValidUtf8String(bytes)) { return Unicode_Duplicate(bytes); }
    return Unicode_EscapeBuffer(bytes, -1, STRING_ENCODING_UTF_8);
}

int main()
{
    char *bytes = realpath(".", nullptr);
    if (bytes == nullptr) {
        fprintf(stderr, "greet: there is no path to this folder: %s\n", Err_CurrentText());
        return EXIT_FAILURE;
    }
    // What these return is ours to free.  Some end the process when memory runs out; the others
    // return NULL, which "%s" shows as "(null)".
    char *folder = Shown(bytes);
    char *user = Hostinfo_GetUser();
    Unicode hello = Unicode_AllocWithLength(u"Grüß Gott", -1, STRING_ENCODING_UTF_16LE);
    char *line = Str_SafeAsprintf(nullptr, "%s, %s! This is %s.", hello, user, folder);
    const bool isPrinted = puts(line) >= 0;
    free(line);
    free(hello);
    free(user);
    free(folder);
    free(bytes);
    return isPrinted ? EXIT_SUCCESS : EXIT_FAILURE;
}
