/* Converts text by ICU's tables. */
#include "expect.h"

#include <pelago/codeset.h>
#include <pelago/unicode.h>

int main(int argc, char **argv)
{
    char *utf8 = NULL;
    EXPECT(argc == 2);
    EXPECT(!CodeSet_GenericToGeneric("Shift_JIS", "\x82\xa0", 2, "UTF-8", CODESET_INVALID_FAIL,
                                     &utf8, NULL));
    Unicode_InitEx(0, NULL, NULL, argv[1]);
    EXPECT(CodeSet_GenericToGeneric("Shift_JIS", "\x82\xa0", 2, "UTF-8", CODESET_INVALID_FAIL,
                                    &utf8, NULL));
    EXPECT_TEXT(utf8, "\xe3\x81\x82");
    puts("ok");
    free(utf8);
    return 0;
}
