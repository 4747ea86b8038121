/* hostinfo.c -- a program that starts itself as a daemon, once, and stops it by SIGTERM. */
#define _DEFAULT_SOURCE 1 /* for sigwait() and flock() */
#include <pelago/err.h>
#include <pelago/hostinfo.h>
#include <pelago/posix.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

static int Fail(const char *what)
{
    fprintf(stderr, "cannot %s: %s\n", what, Err_CurrentText());
    return EXIT_FAILURE;
}

/* The daemon: waits for SIGTERM, and takes its PID file away. */
static int Serve(const char *pidPath)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, NULL);
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) { return EXIT_FAILURE; }
    return Posix_Unlink(pidPath) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

/* pidPath is absolute: the daemon's folder is "/".  The lock is held until the daemon ends. */
static int Start(const char *pidPath)
{
    char *module = Hostinfo_GetModulePath(0);
    Unicode self = module == NULL ? NULL : Posix_TryRealPath(module);
    free(module);
    if (self == NULL) { return Fail("find this program"); }
    char *args[] = {self, "serve", (char *)pidPath, NULL};
    const bool isStarted = Hostinfo_Daemonize(self, args, DAEMONIZE_LOCK_PIDFILE, pidPath, NULL, 0);
    const int error = errno; /* before free() */
    free(self);
    if (isStarted) {
        puts("started");
        return EXIT_SUCCESS;
    }
    if (error == EWOULDBLOCK) {
        puts("it runs already");
        return EXIT_SUCCESS;
    }
    fprintf(stderr, "cannot start: %s\n", Err_NumberToText(error));
    return EXIT_FAILURE;
}

static pid_t ReadPid(int file)
{
    char text[32] = "";
    const ssize_t size = read(file, text, sizeof text - 1);
    return size <= 0 ? 0 : (pid_t)strtol(text, NULL, 10);
}

/* The lock is the proof that the number in the file is the daemon's and not of a later process. */
static int Stop(const char *pidPath)
{
    const int file = Posix_Open(pidPath, O_RDONLY);
    if (file == -1 || flock(file, LOCK_EX | LOCK_NB) == 0) {
        puts("it does not run");
        if (file != -1) { close(file); }
        return EXIT_SUCCESS;
    }
    const pid_t daemon = ReadPid(file);
    /* Whoever waits for the lock waits for the end of the daemon. */
    const bool hasEnded = daemon > 0 && kill(daemon, SIGTERM) == 0 && flock(file, LOCK_EX) == 0;
    const int status = hasEnded ? EXIT_SUCCESS : Fail("stop the daemon");
    if (hasEnded) { puts("stopped"); }
    close(file);
    return status;
}

int main(int argc, char **argv)
{
    if (argc == 3 && strcmp(argv[1], "start") == 0) { return Start(argv[2]); }
    if (argc == 3 && strcmp(argv[1], "stop") == 0) { return Stop(argv[2]); }
    if (argc == 3 && strcmp(argv[1], "serve") == 0) { return Serve(argv[2]); }
    fputs("usage: hostinfo start|stop PIDFILE\n", stderr);
    return EXIT_FAILURE;
}

/* In a shell:
 *
 *    $ ./hostinfo start "$PWD/daemon.pid"
 *    started
 *    $ ./hostinfo start "$PWD/daemon.pid" 2>/dev/null
 *    it runs already
 *    $ ./hostinfo stop "$PWD/daemon.pid"
 *    stopped
 *    $ ./hostinfo stop "$PWD/daemon.pid"
 *    it does not run
 */
