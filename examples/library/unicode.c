/* unicode.c -- uses ICU in a program outside the product, for text in Latin-1. */
#include <pelago/unicode.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int PrintLatin1(const char *bytes)
{
    if (!Unicode_IsBufferValid(bytes, -1, STRING_ENCODING_ISO_8859_1)) {
        fputs("this is not Latin-1\n", stderr);
        return EXIT_FAILURE;
    }
    Unicode text = Unicode_AllocWithLength(bytes, -1, STRING_ENCODING_ISO_8859_1);
    puts(text);

    /* The way back: a character that the encoding lacks makes it fail. */
    char *japanese = Unicode_GetAllocBytes(text, STRING_ENCODING_SHIFT_JIS);
    if (japanese == NULL) { printf("%s has no spelling in Shift_JIS\n", text); }
    free(japanese);
    free(text);
    return EXIT_SUCCESS;
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        fputs("usage: unicode FOLDER, where icudt44l.dat is\n", stderr);
        return EXIT_FAILURE;
    }
    Unicode_InitEx(argc, argv, NULL, argv[1]);
    /* Nothing has been said if the file is not there, so ask: only ICU converts this. */
    if (!Unicode_CanGetBytesWithEncoding("é", STRING_ENCODING_ISO_8859_1)) {
        fprintf(stderr, "ICU is not in use: is there an icudt44l.dat in %s?\n", argv[1]);
        return EXIT_FAILURE;
    }
    const int status = PrintLatin1("Gr\xFC\xDF Gott");
    Unicode_Shutdown();
    return status;
}

/* In a shell; ICU's tables are in the program, so the file may be an empty package:
 *
 *    $ mkdir icu && icupkg -tl new icu/icudt44l.dat
 *    $ ./unicode icu
 *    Grüß Gott
 *    Grüß Gott has no spelling in Shift_JIS
 *    $ ./unicode nowhere
 *    ICU is not in use: is there an icudt44l.dat in nowhere?
 */
