// A program that defines two of the three sinks, under their long names.
#include "expect.h"

#include <pelago/diagnostics.h>
#include <pelago/str.h>
#include <pelago/unicode.h>

void Pelago_Warning(const char *, ...) { puts("warned"); }

void Pelago_Panic(const char *, ...)
{
    puts("ended");
    exit(6);
}

int main()
{
    UnicodeIANALookup("no such encoding");
    Pelago_Log("logged\n");
    char text[3];
    Str_Sprintf(text, sizeof text, "too long");
}
