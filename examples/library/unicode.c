/* unicode.c -- uses ICU in a program outside the product, for text in any encoding. */
#include <pelago/codeset.h>
#include <pelago/err.h>
#include <pelago/unicode.h>

#include <stdio.h>
#include <stdlib.h>

/* What comes from outside need not be text in the encoding that is claimed. */
static int Print(const char *bytes, StringEncoding encoding)
{
    Unicode text = Unicode_AllocIfValid(bytes, -1, encoding);
    if (text == NULL) {
        fprintf(stderr, "not %s: %s\n", Unicode_EncodingEnumToName(encoding), Err_CurrentText());
        return EXIT_FAILURE;
    }
    puts(text);

    /* The way back fails when the encoding lacks a character. */
    char *plain = Unicode_GetAllocBytes(text, STRING_ENCODING_ASCII);
    if (plain == NULL) { puts("ASCII lacks some of it"); }
    free(plain);
    free(text);
    return EXIT_SUCCESS;
}

int main(int argc, char **argv)
{
    if (argc != 4) {
        fputs("usage: unicode FOLDER ENCODING TEXT, where FOLDER has icudt44l.dat\n", stderr);
        return EXIT_FAILURE;
    }
    /* Before any other thread starts.  A wrong folder is passed over in silence, so ask. */
    Unicode_InitEx(argc, argv, NULL, argv[1]);
    if (!CodeSet_IsIcuInUse()) {
        fprintf(stderr, "there is no icudt44l.dat in %s\n", argv[1]);
        return EXIT_FAILURE;
    }
    const StringEncoding encoding = Unicode_FindEncoding(argv[2]);
    if (encoding == STRING_ENCODING_UNKNOWN) {
        fprintf(stderr, "%s is no encoding\n", argv[2]);
        return EXIT_FAILURE;
    }
    const int status = Print(argv[3], encoding);
    Unicode_Shutdown();
    return status;
}

/* In a shell; ICU's tables are in the program, so the file may be an empty package:
 *
 *    $ mkdir icu && icupkg -tl new icu/icudt44l.dat
 *    $ ./unicode icu latin1 "$(printf 'Gr\374\337')"
 *    Grüß
 *    ASCII lacks some of it
 *    $ ./unicode icu Shift_JIS "$(printf '\203')"
 *    not Shift_JIS: Invalid or incomplete multibyte or wide character
 *    $ ./unicode icu klingon nuqneH
 *    klingon is no encoding
 *    $ ./unicode nowhere latin1 text
 *    there is no icudt44l.dat in nowhere
 */
