/* useIcu.c -- makes a program use ICU that does not initialise it, with the folder that
 * PELAGO_TEST_ICU names. */
#include <pelago/unicode.h>

#include <stdlib.h>

__attribute__((constructor)) static void UseIcu(void)
{
    Unicode_InitEx(0, NULL, NULL, getenv("PELAGO_TEST_ICU"));
    if (!Unicode_CanGetBytesWithEncoding("\xC3\xA9", STRING_ENCODING_ISO_8859_1)) { abort(); }
}
