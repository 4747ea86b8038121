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

static int Fail(const char *encoding, const CodeSetFailure *failure)
{
    switch (failure->reason) {
    case CODESET_REASON_INVALID:
        fprintf(stderr, "what comes after %zu bytes is not %s\n", failure->offset, encoding);
        break;
    case CODESET_REASON_UNKNOWN: fprintf(stderr, "%s is no encoding\n", encoding); break;
    case CODESET_REASON_UNCONVERTIBLE:
        fprintf(stderr, "%s takes ICU, which is not in use\n", encoding);
        break;
    case CODESET_REASON_NO_MEMORY: fputs("no memory\n", stderr); break;
    default: fprintf(stderr, "%s cannot be converted\n", encoding);
    }
    return EXIT_FAILURE;
}

static int Convert(const char *encoding, const DynBuf *input)
{
    char *text = NULL;
    size_t size = 0;
    CodeSetFailure failure;
    if (!CodeSet_Convert(encoding, input->data, input->size, "UTF-8", CODESET_INVALID_FAIL, &text,
                         &size, &failure)) {
        return Fail(encoding, &failure);
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
 *    what comes after 3 bytes is not UTF-8
 *    $ printf 'caf\351!' | ./codeset latin1
 *    latin1 takes ICU, which is not in use
 *    $ printf 'caf\351!' | ./codeset klingon
 *    klingon is no encoding
 */
