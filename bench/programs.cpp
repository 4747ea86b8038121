// programs.cpp -- starts programs and waits for them.
#include "programs.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

void Fail(const std::string &what)
{
    fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
    exit(1);
}

void FailCall(const std::string &what) { Fail(what + ": " + strerror(errno)); }

const char *FromEnvironment(const char *variable)
{
    const char *value = getenv(variable);
    if (value == nullptr) { Fail(std::string("no ") + variable); }
    return value;
}

pid_t Start(const char *const argv[], Streams streams)
{
    static const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    const int given[] = {streams.input, streams.output, streams.errors};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        posix_spawn_file_actions_adddup2(&actions, given[fd] == -1 ? null : given[fd], fd);
    }
    pid_t child = -1;
    errno =
        posix_spawnp(&child, argv[0], &actions, nullptr, const_cast<char *const *>(argv), environ);
    if (errno != 0) { FailCall(argv[0]); }
    posix_spawn_file_actions_destroy(&actions);
    return child;
}

long Reap(pid_t child, const char *name, int wantedStatus)
{
    int status = -1;
    rusage usage = {};
    if (wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) != wantedStatus) {
        Fail(std::string("not the wanted status: ") + name);
    }
    return usage.ru_maxrss;
}
