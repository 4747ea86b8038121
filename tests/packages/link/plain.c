/* A program that defines no sink: the library's own print its messages. */
#include "expect.h"

#include <pelago/dynbuf.h>
#include <pelago/hostinfo.h>
#include <pelago/str.h>
#include <pelago/unicode.h>

int main(void)
{
    char text[40], *name = Hostinfo_GetOSName();
    DynBuf buf;
    EXPECT(name != NULL && strncmp(name, "Linux", 5) == 0);
    free(name);
    Str_Snprintf(text, sizeof text, "%.3f|%e|%d", 1.5, 1e22, -7);
    EXPECT_TEXT(text, "1.500|1.000000e+22|-7");
    DynBuf_Init(&buf);
    DynBuf_SafeAppend(&buf, "buffer", 6);
    EXPECT_TEXT(DynBuf_DetachString(&buf), "buffer");
    EXPECT(UnicodeIANALookup("no such encoding") == STRING_ENCODING_UNKNOWN);
    fflush(stdout);
    Str_Sprintf(text, 3, "too long");
    return 2;
}
