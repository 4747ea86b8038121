/* str.c -- text into a buffer, and what to do when it does not fit. */
#include <pelago/str.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(int argc, char **argv)
{
    const char *name = argc > 1 ? argv[1] : "world";

    /* -1 is "cut, between two characters" or "failed".  The size may not be 0. */
    char line[16];
    if (Str_Snprintf(line, sizeof line, "Hello, %s!", name) < 0) {
        printf("cut: %s\n", line);
    } else {
        puts(line);
    }

    /* A new string has room for anything.  NULL: no memory, or a bad format. */
    size_t length = 0;
    char *whole = Str_Asprintf(&length, "Hello, %s!", name);
    if (whole == NULL) {
        fputs("no memory\n", stderr);
        return EXIT_FAILURE;
    }
    printf("%zu bytes: %s\n", length, whole);

    /* Str_Strcpy() ends the process where the text does not fit, so look before. */
    char key[8];
    if (strlen(name) < sizeof key) { puts(Str_ToUpper(Str_Strcpy(key, name, sizeof key))); }
    free(whole);
    return EXIT_SUCCESS;
}

/* In a shell:
 *
 *    $ ./str Anna
 *    Hello, Anna!
 *    12 bytes: Hello, Anna!
 *    ANNA
 *    $ ./str "Björn and Jörg"
 *    cut: Hello, Björn a
 *    24 bytes: Hello, Björn and Jörg!
 */
