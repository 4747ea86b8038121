/* util.c -- file names with "~" and variables, and a comparison that takes the same time always. */
#include <pelago/util.h>

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv)
{
    if (argc != 3) {
        fputs("usage: util FILE PASSWORD\n", stderr);
        return EXIT_FAILURE;
    }
    char *path = Util_ExpandString(argv[1]);
    if (path == NULL) {
        fprintf(stderr, "cannot expand %s\n", argv[1]);
        return EXIT_FAILURE;
    }
    printf("%s is %s path\n", path, Util_IsAbsolutePath(path) ? "an absolute" : "a relative");
    free(path);

    /* Which bytes differ does not show in the time; the length that may show is the guess's. */
    const bool isWrong = Util_StrDiffers(argv[2], "sesame");
    puts(isWrong ? "wrong password" : "right password");
    return isWrong ? EXIT_FAILURE : EXIT_SUCCESS;
}

/* In a shell:
 *
 *    $ LOGS=/var/log ./util '$LOGS/today' sesame
 *    /var/log/today is an absolute path
 *    right password
 *    $ ./util today guess
 *    today is a relative path
 *    wrong password
 */
