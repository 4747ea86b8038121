// runScript.cpp -- runs one helper script to its end.
#include "runScript.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

namespace {

[[noreturn]] void BecomeScript(const char *const argv[])
{
    // A script that kept our standard output would write into the caller's protocol.
    while (dup2(STDERR_FILENO, STDOUT_FILENO) == -1 && errno == EINTR) {}
    execv(argv[0], const_cast<char *const *>(argv)); // execv() does not change the vector
    fprintf(stderr, "execv() failed with error %d\n", errno);
    // Not _exit(): exit() also writes the output that the tool has buffered, to standard error.
    exit(1);
}

} // namespace

int RunScript(const char *const argv[])
{
    const pid_t child = fork();
    if (child == -1) {
        fprintf(stderr, "fork() failed with error %d\n", errno);
        return 1;
    }
    if (child == 0) { BecomeScript(argv); }
    int status = 1 << 8; // exit code 1: a wait that fails must not look like a script's success
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {}
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
