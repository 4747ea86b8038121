// daemonizeSelf.cpp -- a program that makes a daemon of itself, in the way that hostinfo.h shows.
// The daemon starts a child in the way that the argument names, and ends.  The child writes its
// process ID as a line to the file that the environment variable CHILD_FILE names, and runs for
// half a minute.
#include "hostinfo.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Marks the PID file's descriptor as close-on-exec, so that the daemon's child does not hold the
// lock.
void MarkPidFile(const char *pidPath)
{
    struct stat pidFile, other;
    for (int fd = 3; stat(pidPath, &pidFile) == 0 && fd < getdtablesize(); fd++) {
        if (fstat(fd, &other) == 0 && other.st_dev == pidFile.st_dev &&
            other.st_ino == pidFile.st_ino) {
            fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
    }
}

int Serve(const std::string &way)
{
    if (way == "marked") { MarkPidFile(getenv("PID_FILE")); }
    char script[] = "echo $$ >\"$CHILD_FILE\"; exec sleep 30";
    char shell[] = "/bin/sh", option[] = "-c";
    char *const args[] = {shell, option, script, nullptr};
    if (way == "byExecute") { return Hostinfo_Execute(shell, args, false, nullptr, 0); }
    const pid_t child = fork();
    if (child != 0) { return child == -1 ? 1 : 0; }
    execv(shell, args);
    _exit(127);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && strcmp(argv[1], "--daemon") == 0) { return Serve(argv[2]); }
    char *self = Hostinfo_GetModulePath(0);
    char daemon[] = "--daemon";
    char *const args[] = {self, daemon, argv[1], nullptr};
    const bool isStarted = self != nullptr && Hostinfo_Daemonize(self, args, DAEMONIZE_LOCK_PIDFILE,
                                                                 getenv("PID_FILE"), nullptr, 0);
    free(self);
    return isStarted ? 0 : 1;
}
