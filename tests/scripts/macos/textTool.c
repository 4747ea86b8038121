/*
 * textTool.c -- replaces a text program, under whose name it is installed, and runs another one
 * without GNU's extensions.
 *
 * The C library's regular expressions still have these extensions, so the expressions are checked
 * first.  One that has another meaning on a Mac is passed to the stand-in of machost.py, which
 * knows no such program, and so fails the test.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define TOOLS "/tmp/textTools/" /* the folder of the other programs */

static int Is(const char *text, const char *other) { return strcmp(text, other) == 0; }

/* Whether POSIX says what each backslash of a basic expression, or of a command of sed, is for. */
static int IsPortable(const char *text)
{
    for (const char *at = strchr(text, '\\'); at != NULL; at = strchr(at + 2, '\\')) {
        if (at[1] == '\0') { return 1; }
        if (strchr(".[]*^$\\/&n(){}123456789", at[1]) == NULL) { return 0; }
    }
    return 1;
}

/* With -F grep takes a text, and no expression. */
static int TakesText(const char *name, char **argv)
{
    return Is(name, "grep") && argv[1] != NULL && argv[1][0] == '-' && strchr(argv[1], 'F') != NULL;
}

/* A BSD wc puts blanks before the number. */
static int CountBytes(void)
{
    long count = 0;
    while (getchar() != EOF) {
        count++;
    }
    printf("%8ld\n", count);
    return 0;
}

/* A BSD grep takes options from its environment, before its own. */
static char **WithOptions(char **argv)
{
    char *options = getenv("GREP_OPTIONS");
    if (options == NULL) { return argv; }
    int count = 0;
    while (argv[count] != NULL) {
        count++;
    }
    char **longer = calloc((size_t)count + 2, sizeof *longer);
    if (longer == NULL) { exit(2); }
    longer[0] = argv[0];
    longer[1] = options;
    memcpy(longer + 2, argv + 1, (size_t)count * sizeof *longer);
    return longer;
}

int main(int argc, char **argv)
{
    (void)argc;
    const char *slash = strrchr(argv[0], '/');
    const char *name = slash == NULL ? argv[0] : slash + 1;
    int hasExpressions = (Is(name, "grep") || Is(name, "sed")) && !TakesText(name, argv);
    for (int i = 1; hasExpressions && argv[i] != NULL; i++) {
        if (!IsPortable(argv[i])) {
            execv("/tmp/standIn", argv);
            return 2;
        }
    }
    if (Is(name, "wc") && argv[1] != NULL && Is(argv[1], "-c") && argv[2] == NULL) {
        return CountBytes();
    }
    if (Is(name, "grep")) { argv = WithOptions(argv); }
    char path[64];
    snprintf(path, sizeof path, TOOLS "%s", name);
    execv(path, argv);
    perror(path);
    return 2;
}
