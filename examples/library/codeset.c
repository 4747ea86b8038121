/* codeset.c -- standard input from an encoding to UTF-8, or why not. */
#include <pelago/codeset.h>
#include <pelago/dynbuf.h>

#include <stdio.h>
#include <stdlib.h>

static bool ReadAll(FILE *file, DynBuf *buf)
{
    char block[4096];
    size_t size;
    while ((size = fread(block, 1, sizeof block, file)) > 0) {
        if (!DynBuf_Append(buf, block, size)) { return false; }
    }
    return ferror(file) == 0;
}

static int Convert(const char *encoding, const DynBuf *input)
{
    if (!CodeSet_Validate(encoding)) {
        fprintf(stderr, "%s is no encoding\n", encoding);
        return EXIT_FAILURE;
    }
    char *text = NULL;
    size_t size = 0;
    if (!CodeSet_GenericToGeneric(encoding, input->data, input->size, "UTF-8", CODESET_INVALID_FAIL,
                                  &text, &size)) {
        fprintf(stderr, "the input is not %s\n", encoding);
        return EXIT_FAILURE;
    }
    const bool isWritten = fwrite(text, 1, size, stdout) == size && fflush(stdout) == 0;
    free(text);
    return isWritten ? EXIT_SUCCESS : EXIT_FAILURE;
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        fputs("usage: codeset ENCODING <FILE\n", stderr);
        return EXIT_FAILURE;
    }
    DynBuf input;
    DynBuf_Init(&input);
    int status = EXIT_FAILURE;
    if (ReadAll(stdin, &input)) {
        status = Convert(argv[1], &input);
    } else {
        fputs("cannot read standard input\n", stderr);
    }
    DynBuf_Destroy(&input);
    return status;
}

/* In a shell:
 *
 *    $ printf 'h\0i\0\n\0' | ./codeset UTF-16LE
 *    hi
 *    $ printf 'caf\351!' | ./codeset UTF-8
 *    the input is not UTF-8
 *    $ ./codeset klingon </dev/null 2>&1 | tail -n 1
 *    klingon is no encoding
 */
