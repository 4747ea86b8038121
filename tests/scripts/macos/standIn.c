/*
 * standIn.c -- replaces a macOS program: sends its call to the test, and then prints and returns
 * what the test answers.  Compiled, because one run of the scripts starts dozens of them.
 *
 * It sends the sizes of three blocks, four bytes each, and the blocks: arguments, environment
 * (both NUL-terminated strings) and standard input.  It receives an exit status, two sizes, and the
 * texts for stdout and stderr.
 */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

extern char **environ;

enum { LOST = 70, CHUNK = 1 << 16 }; /* LOST: the status when the test does not answer */

typedef struct {
    char *bytes;
    size_t size;
} Block;

static void BlockAdd(Block *block, const void *bytes, size_t size)
{
    block->bytes = realloc(block->bytes, block->size + size + 1);
    if (block->bytes == NULL) { exit(LOST); }
    memcpy(block->bytes + block->size, bytes, size);
    block->size += size;
}

static Block BlockOfStrings(char **strings)
{
    Block block = {NULL, 0};
    for (; *strings != NULL; strings++) {
        BlockAdd(&block, *strings, strlen(*strings) + 1);
    }
    return block;
}

static Block BlockOfInput(void)
{
    static char chunk[CHUNK];
    Block block = {NULL, 0};
    ssize_t count;
    while ((count = read(STDIN_FILENO, chunk, sizeof chunk)) > 0) {
        BlockAdd(&block, chunk, (size_t)count);
    }
    return block;
}

static void SendAll(int to, const void *bytes, size_t size)
{
    const char *next = bytes;
    while (size > 0) {
        ssize_t count = write(to, next, size);
        if (count <= 0) { exit(LOST); }
        next += count;
        size -= (size_t)count;
    }
}

static void ReceiveAll(int from, void *bytes, size_t size)
{
    char *next = bytes;
    while (size > 0) {
        ssize_t count = read(from, next, size);
        if (count <= 0) { exit(LOST); }
        next += count;
        size -= (size_t)count;
    }
}

/* A reader that has gone is nobody's fault: real programs write their last words all the same. */
static void Forward(int from, int to, uint32_t size)
{
    char *text = malloc(size + 1);
    if (text == NULL) { exit(LOST); }
    ReceiveAll(from, text, size);
    if (size > 0 && write(to, text, size) < 0) { /* see above */
    }
    free(text);
}

int main(int argc, char **argv)
{
    struct sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = "/tmp/machost.socket"};
    int test = socket(AF_UNIX, SOCK_STREAM, 0);
    if (argc < 1 || connect(test, (struct sockaddr *)&address, sizeof address) != 0) {
        return LOST;
    }
    Block blocks[] = {BlockOfStrings(argv), BlockOfStrings(environ), BlockOfInput()};
    for (int i = 0; i < 3; i++) {
        uint32_t size = (uint32_t)blocks[i].size;
        SendAll(test, &size, sizeof size);
    }
    for (int i = 0; i < 3; i++) {
        SendAll(test, blocks[i].bytes, blocks[i].size);
    }
    uint32_t answer[3];
    ReceiveAll(test, answer, sizeof answer);
    Forward(test, STDOUT_FILENO, answer[1]);
    Forward(test, STDERR_FILENO, answer[2]);
    return (int)answer[0];
}
