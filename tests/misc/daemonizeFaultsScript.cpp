// The wrapped calls, each of which follows the script.
#include "daemonizeFaultsScript.h"

#include "str.h"

#include <cstdarg>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>

namespace {

// Counts the call.  Returns the fault that replaces the call, or nullptr when the call is to be
// made.
const Fault *Comes(const char *call)
{
    if (!sScript) { return nullptr; }
    const int ordinal = ++sScript->calls[call], ordinalOfAll = ++sScript->calls[""];
    for (const Fault &fault : sScript->faults) {
        if (fault.role != sScript->role ||
            !(fault.call.empty() ? fault.ordinal == ordinalOfAll
                                 : fault.call == call && fault.ordinal == ordinal)) {
            continue;
        }
        if (fault.before) { fault.before(); }
        if (fault.way == KILLS) { kill(getpid(), SIGKILL); }
        if (fault.way == WORKS) { return nullptr; }
        if (fault.error != 0) { errno = fault.error; }
        return &fault;
    }
    return nullptr;
}

} // namespace

extern "C" {
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(rest, int) : 0;
    va_end(rest);
    return Comes("open") ? -1 : __real_open(path, flags, mode);
}
int __real_flock(int fd, int operation);
int __wrap_flock(int fd, int operation)
{
    return Comes("flock") ? -1 : __real_flock(fd, operation);
}
int __real_pipe(int ends[2]);
int __wrap_pipe(int ends[2]) { return Comes("pipe") ? -1 : __real_pipe(ends); }
int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...)
{
    va_list rest;
    va_start(rest, command);
    const int argument = va_arg(rest, int);
    va_end(rest);
    if (sScript && command == F_SETFD) { sScript->pipeEnd = fd; }
    const char *name = command == F_SETFD ? "F_SETFD" : command == F_DUPFD ? "F_DUPFD" : "fcntl";
    return Comes(name) ? -1 : __real_fcntl(fd, command, argument);
}
pid_t __real_fork();
pid_t __wrap_fork()
{
    if (Comes("fork")) { return -1; }
    const pid_t child = __real_fork();
    if (!sScript) { return child; }
    if (child == 0) {
        sScript->role = sScript->role == CALLER ? CHILD : DAEMON;
        sScript->calls.clear();
    } else {
        sScript->child = child;
    }
    return child;
}
pid_t __real_setsid();
pid_t __wrap_setsid() { return Comes("setsid") ? -1 : __real_setsid(); }
int __real_chdir(const char *path);
int __wrap_chdir(const char *path) { return Comes("chdir") ? -1 : __real_chdir(path); }
int __real_ftruncate(int fd, off_t size);
int __wrap_ftruncate(int fd, off_t size)
{
    return Comes("ftruncate") ? -1 : __real_ftruncate(fd, size);
}
int __real_fsync(int fd);
int __wrap_fsync(int fd) { return Comes("fsync") ? -1 : __real_fsync(fd); }
ssize_t __real_write(int fd, const void *bytes, size_t size);
ssize_t __wrap_write(int fd, const void *bytes, size_t size)
{
    const Fault *fault = Comes("write");
    if (fault == nullptr) { return __real_write(fd, bytes, size); }
    return fault->way == IS_SHORT ? __real_write(fd, bytes, size - 1) : -1;
}
ssize_t __real_read(int fd, void *bytes, size_t size);
ssize_t __wrap_read(int fd, void *bytes, size_t size)
{
    return Comes("read") ? -1 : __real_read(fd, bytes, size);
}
int __real_execv(const char *path, char *const *args);
int __wrap_execv(const char *path, char *const *args)
{
    const Fault *fault = Comes("execv");
    if (fault == nullptr) { return __real_execv(path, args); }
    return fault->way == RETURNS_ZERO ? 0 : -1;
}
pid_t __real_waitpid(pid_t child, int *status, int options);
pid_t __wrap_waitpid(pid_t child, int *status, int options)
{
    return Comes("waitpid") ? -1 : __real_waitpid(child, status, options);
}
int __real_unlink(const char *path);
int __wrap_unlink(const char *path) { return Comes("unlink") ? -1 : __real_unlink(path); }
int __real_getrlimit(int resource, rlimit *limit);
int __wrap_getrlimit(int resource, rlimit *limit)
{
    return Comes("getrlimit") ? -1 : __real_getrlimit(resource, limit);
}
int __real_setitimer(int timer, const itimerval *value, itimerval *before);
int __wrap_setitimer(int timer, const itimerval *value, itimerval *before)
{
    return Comes("setitimer") ? -1 : __real_setitimer(timer, value, before);
}
int __real_sigaction(int number, const struct sigaction *action, struct sigaction *before);
int __wrap_sigaction(int number, const struct sigaction *action, struct sigaction *before)
{
    return Comes("sigaction") ? -1 : __real_sigaction(number, action, before);
}
int __real_sigprocmask(int how, const sigset_t *signals, sigset_t *before);
int __wrap_sigprocmask(int how, const sigset_t *signals, sigset_t *before)
{
    return Comes("sigprocmask") ? -1 : __real_sigprocmask(how, signals, before);
}
int __real_close_range(unsigned first, unsigned last, int flags);
int __wrap_close_range(unsigned first, unsigned last, int flags)
{
    return Comes("close_range") ? -1 : __real_close_range(first, last, flags);
}
int __real_close(int fd);
int __wrap_close(int fd) { return Comes("close") ? -1 : __real_close(fd); }
int __real_dup2(int from, int to);
int __wrap_dup2(int from, int to) { return Comes("dup2") ? -1 : __real_dup2(from, to); }
int __wrap_Str_Snprintf(char *buffer, size_t size, const char *format, ...)
{
    va_list values;
    va_start(values, format);
    const int length = Comes("Str_Snprintf") ? -1 : Str_Vsnprintf(buffer, size, format, values);
    va_end(values);
    return length;
}
}
