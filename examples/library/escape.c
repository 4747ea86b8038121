/* escape.c -- any bytes as one word of a shell, and as one line of a file. */
#include <pelago/escape.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static char *OrExit(char *text)
{
    if (text == NULL) {
        fputs("no memory\n", stderr);
        exit(EXIT_FAILURE);
    }
    return text;
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        fputs("usage: escape TEXT\n", stderr);
        return EXIT_FAILURE;
    }
    const char *text = argv[1];
    const size_t size = strlen(text);

    char *word = OrExit(Escape_Sh(text, size, NULL));
    printf("shell: %s\n", word);
    free(word);

    /* The escape itself is in the set: without that the result could not be undone. */
    int special[256];
    Escape_FillSet(special, "%\n");
    size_t lineSize = 0;
    char *line = OrExit(Escape_Do('%', special, text, size, &lineSize));
    printf("line: %s\n", line);

    size_t plainSize = 0;
    char *plain = OrExit(Escape_Undo('%', line, lineSize, &plainSize));
    const int isSame = plainSize == size && memcmp(plain, text, size) == 0;
    printf("undone: %s\n", isSame ? "the same bytes" : "other bytes");
    free(plain);
    free(line);
    return isSame ? EXIT_SUCCESS : EXIT_FAILURE;
}

/* In a shell:
 *
 *    $ ./escape "it's 100%"
 *    shell: 'it'"'"'s 100%'
 *    line: it's 100%25
 *    undone: the same bytes
 */
