/* A program that uses the host's ICU as well. */
#include "expect.h"

#include <pelago/codeset.h>
#include <pelago/unicode.h>

#include <unicode/uchar.h>
#include <unicode/ucnv.h>
#include <unicode/uloc.h>

int main(int argc, char **argv)
{
    UErrorCode status = U_ZERO_ERROR;
    UConverter *converter = ucnv_open("EUC-JP", &status);
    UChar text[4], name[40];
    char *utf8 = NULL;
    EXPECT(U_SUCCESS(status) && argc == 2);
    Unicode_InitEx(0, NULL, NULL, argv[1]);
    EXPECT(ucnv_toUChars(converter, text, 4, "\xa4\xa2", 2, &status) == 1 && text[0] == 0x3042);
    ucnv_close(converter);
    EXPECT(CodeSet_GenericToGeneric("EUC-JP", "\xa4\xa2", 2, "UTF-8", CODESET_INVALID_FAIL, &utf8,
                                    NULL));
    EXPECT_TEXT(utf8, "\xe3\x81\x82");
    free(utf8);
    /* The library's tables have no names of languages; the host's do. */
    EXPECT(uloc_getDisplayLanguage("de", "en", name, 40, &status) == 6 && status == U_ZERO_ERROR);
    EXPECT(u_toupper('a') == 'A');
    puts("ok");
    return 0;
}
