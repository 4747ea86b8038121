/* posix.c -- writes a file and a link to it, by names in UTF-8. */
#include <pelago/codeset.h>
#include <pelago/err.h>
#include <pelago/posix.h>
#include <pelago/str.h>

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

static int Fail(const char *what, const char *path)
{
    fprintf(stderr, "cannot %s %s: %s\n", what, path, Err_CurrentText());
    return EXIT_FAILURE;
}

static int WriteFile(const char *path)
{
    FILE *file = Posix_Fopen(path, "w");
    if (file == NULL) { return Fail("make", path); }
    const int written = fputs("five\n", file);
    if (fclose(file) != 0 || written < 0) { return Fail("write", path); }
    struct stat info;
    if (Posix_Stat(path, &info) != 0) { return Fail("find", path); }
    printf("%s: %d bytes\n", path, (int)info.st_size);
    return EXIT_SUCCESS;
}

static int LinkTo(const char *target, const char *path)
{
    if (Posix_Symlink(target, path) != 0) { return Fail("link", path); }
    Unicode found = Posix_TryReadLink(path); /* a target may be any bytes */
    if (found == NULL) { return Fail("read", path); }
    printf("%s leads to %s\n", path, found);
    free(found);
    return EXIT_SUCCESS;
}

int main(int argc, char **argv)
{
    /* What comes from outside need not be UTF-8, and these functions take nothing else. */
    if (argc != 2 || !CodeSet_IsValidUtf8String(argv[1])) {
        fputs("usage: posix FILE, with a name in UTF-8\n", stderr);
        return EXIT_FAILURE;
    }
    char *link = Str_SafeAsprintf(NULL, "%s.link", argv[1]);
    int status = WriteFile(argv[1]);
    if (status == EXIT_SUCCESS) { status = LinkTo(argv[1], link); }
    free(link);
    return status;
}

/* In a shell:
 *
 *    $ ./posix größe
 *    größe: 5 bytes
 *    größe.link leads to größe
 *    $ ./posix größe
 *    größe: 5 bytes
 *    cannot link größe.link: File exists
 *    $ ./posix nowhere/größe
 *    cannot make nowhere/größe: No such file or directory
 */
