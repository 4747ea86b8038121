// leastSession.c -- the least program that does what a session must do.
//
// It locks and writes the same files as the tool, as durably and in the same order, resolves the
// scripts' folder for each script, and runs the four scripts.  It neither parses the preferences
// nor checks anything else.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

enum { PREFERENCES_SIZE = 284 }; // as the tool writes them

static void Require(int isDone, const char *what)
{
    if (isDone) { return; }
    perror(what);
    exit(1);
}

static const char *WithSuffix(const char *path, const char *suffix)
{
    static char paths[2][4096];
    static unsigned next;
    char *to = paths[next++ % 2];
    Require(snprintf(to, sizeof paths[0], "%s%s", path, suffix) < (int)sizeof paths[0], path);
    return to;
}

static int Lock(const char *preferences)
{
    const int lock = open(WithSuffix(preferences, "-lock"), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    Require(lock >= 0 && flock(lock, LOCK_EX) == 0 && write(lock, "56\n", 3) == 3, "lock");
    return lock;
}

static void Unlock(const char *preferences, int lock)
{
    Require(unlink(WithSuffix(preferences, "-lock")) == 0 && close(lock) == 0, "unlock");
}

static void Read(const char *preferences)
{
    char bytes[4096];
    const int file = open(preferences, O_RDONLY | O_CLOEXEC);
    Require(file >= 0 && read(file, bytes, sizeof bytes) > 0 && close(file) == 0, preferences);
}

// owner is what the tool's attribute for the owner of the service holds, or NULL for none.
static void Commit(const char *preferences, const char *folderPath, const char *owner)
{
    static const char bytes[PREFERENCES_SIZE];
    const char *fresh = WithSuffix(preferences, "-new");
    const int folder = open(folderPath, O_RDONLY | O_DIRECTORY | O_CLOEXEC),
              file = open(fresh, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    Require(folder >= 0 && file >= 0 && fchown(file, 0, 0) == 0 && fchmod(file, 0644) == 0 &&
                write(file, bytes, sizeof bytes) == (ssize_t)sizeof bytes,
            "write");
    Require(owner == NULL || fsetxattr(file, "user.bench", owner, strlen(owner), 0) == 0,
            "attribute");
    Require(fsync(file) == 0 && close(file) == 0 && rename(fresh, preferences) == 0 &&
                fsync(folder) == 0 && close(folder) == 0,
            "commit");
}

static void Run(const char *folder, const char *name)
{
    char root[4096], script[4200];
    Require(realpath(folder, root) != NULL, folder);
    snprintf(script, sizeof script, "%s/%s", root, name);
    char *const argv[] = {script, "alice", NULL};
    const pid_t child = fork();
    if (child == 0) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        execv(script, argv);
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {}
    Require(child > 0 && status == 0, name);
}

int main(int argc, char **argv)
{
    Require(argc == 4, "usage: leastSession SCRIPTS PREFERENCES THEIR_FOLDER");
    const char *scripts = argv[1], *preferences = argv[2], *folder = argv[3];
    const int first = Lock(preferences);
    Read(preferences);
    Commit(preferences, folder, "56 5369076 01234567-0123-0123-0123-0123456789ab");
    Unlock(preferences, first);
    Run(scripts, "adduser.sh");
    Run(scripts, "addshare.sh");
    puts("0");
    char line[64];
    Require(read(STDIN_FILENO, line, sizeof line) >= 0, "standard input");
    Run(scripts, "rmshare.sh");
    const int second = Lock(preferences);
    Commit(preferences, folder, NULL);
    Run(scripts, "rmuser.sh");
    Unlock(preferences, second);
    return 0;
}
