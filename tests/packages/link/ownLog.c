/* A program that uses the sinks' short names for functions of its own, with other arguments. */
#include "expect.h"

#include "allHeaders.h"

#include <stdarg.h>

static int sCalls;

void Log(int level, const char *format, ...);
void Log(int level, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    printf("<%d> ", level);
    vprintf(format, values);
    va_end(values);
    sCalls++;
}
double Warning(double value);
double Warning(double value) { return value + ++sCalls; }
const char *Panic = "calm";

int main(void)
{
    Hostinfo_LogLoadAverage();
    free(Util_ExpandString("$PELAGO_NOT_SET"));
    EXPECT(UnicodeIANALookup("no such encoding") == STRING_ENCODING_UNKNOWN);
    EXPECT(sCalls == 0 && strcmp(Panic, "calm") == 0);
    Log(3, "%s\n", "own");
    EXPECT(Warning(1.5) == 3.5);
    puts("ok");
    return 0;
}
