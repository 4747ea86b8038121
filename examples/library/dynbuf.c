/* dynbuf.c -- joins words in a buffer that grows. */
#include <pelago/dynbuf.h>

#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static bool AppendText(DynBuf *buf, const char *text)
{
    return DynBuf_Append(buf, text, strlen(text));
}

/* Returns the words with ", " between them, to be released with free(); NULL without memory. */
static char *Join(const char *const words[], size_t count)
{
    DynBuf buf;
    DynBuf_Init(&buf);
    bool fits = true;
    for (size_t i = 0; fits && i < count; i++) {
        fits = (i == 0 || AppendText(&buf, ", ")) && AppendText(&buf, words[i]);
    }
    /* A buffer holds bytes: the NUL of a string is one of them. */
    if (!fits || !DynBuf_Append(&buf, "", 1)) {
        DynBuf_Destroy(&buf);
        return NULL;
    }
    return DynBuf_Detach(&buf);
}

int main(void)
{
    const char *const words[] = {"red", "green", "blue"};
    char *line = Join(words, 3);
    if (line == NULL) {
        fputs("no memory\n", stderr);
        return EXIT_FAILURE;
    }
    puts(line);
    free(line);
    return EXIT_SUCCESS;
}

/* In a shell:
 *
 *    $ ./dynbuf
 *    red, green, blue
 */
