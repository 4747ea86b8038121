/* err.c -- says why a call of the C library failed. */
#include <pelago/err.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv)
{
    if (argc != 2) {
        fputs("usage: err FILE\n", stderr);
        return EXIT_FAILURE;
    }
    FILE *file = fopen(argv[1], "r");
    if (file == NULL) {
        /* The text is the library's: nobody frees it. */
        const char *reason = Err_CurrentText();
        fprintf(stderr, "%s: %s\n", argv[1], reason);
        /* A text leads back to its number, which is errno's of the failed call. */
        return Err_TextToNumber(reason) == ENOENT ? 2 : EXIT_FAILURE;
    }
    printf("%s can be read\n", argv[1]);
    fclose(file);
    return EXIT_SUCCESS;
}

/* In a shell:
 *
 *    $ ./err /dev/null
 *    /dev/null can be read
 *    $ ./err /nothing/here || echo "status $?"
 *    /nothing/here: No such file or directory
 *    status 2
 */
