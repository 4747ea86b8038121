/* unicodeTypes.c -- from the name of an encoding to its number, and back. */
#include <pelago/unicode.h>
#include <pelago/unicodeTypes.h>

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv)
{
    int status = EXIT_SUCCESS;
    for (int i = 1; i < argc; i++) {
        /* A name has many spellings, an encoding has one number. */
        const StringEncoding encoding = Unicode_FindEncoding(argv[i]);
        if (encoding == STRING_ENCODING_UNKNOWN) {
            printf("%s: none\n", argv[i]);
            status = EXIT_FAILURE;
            continue;
        }
        printf("%s: %d, %s\n", argv[i], (int)encoding, Unicode_EncodingEnumToName(encoding));
    }
    Unicode_Shutdown();
    return status;
}

/* In a shell:
 *
 *    $ ./unicodeTypes latin1 "iso 8859-1" windows-1252 klingon || echo "status $?"
 *    latin1: 8, ISO-8859-1
 *    iso 8859-1: 8, ISO-8859-1
 *    windows-1252: 35, windows-1252
 *    klingon: none
 *    status 1
 */
