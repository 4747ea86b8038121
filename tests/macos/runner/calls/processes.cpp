// processes.cpp -- processes, signals, limits, environment.
#include "../darwinTypes.h"
#include "../refuse.h"
#include "../rows.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr Pair WAITS[] = {PAIR(WNOHANG), PAIR(WUNTRACED)};
constexpr Pair ACTION_FLAGS[] = {PAIR(SA_ONSTACK),   PAIR(SA_RESTART), PAIR(SA_RESETHAND),
                                 PAIR(SA_NOCLDSTOP), PAIR(SA_NODEFER), PAIR(SA_NOCLDWAIT)};
constexpr Pair MASK_WAYS[] = {PAIR(SIG_BLOCK), PAIR(SIG_UNBLOCK), PAIR(SIG_SETMASK)};
constexpr Pair LIMITS[] = {PAIR(RLIMIT_CPU),     PAIR(RLIMIT_FSIZE), PAIR(RLIMIT_DATA),
                           PAIR(RLIMIT_STACK),   PAIR(RLIMIT_CORE),  {RLIMIT_RSS, DARWIN_RLIMIT_AS},
                           PAIR(RLIMIT_MEMLOCK), PAIR(RLIMIT_NPROC), PAIR(RLIMIT_NOFILE)};
const Pair CONFIGURATION[] = {
#include "sysconf.inc"
};

// Translates the signal's number in a child's status.
int DarwinStatus(int host)
{
    if (WIFSIGNALED(host)) { return (host & ~0x7F) | DarwinSignal(WTERMSIG(host)); }
    if (WIFSTOPPED(host)) { return (host & ~0xFF00) | DarwinSignal(WSTOPSIG(host)) << 8; }
    return host;
}

pid_t Waitpid(pid_t pid, int *status, int options)
{
    const HandOnErrno handOn;
    int host = 0;
    const pid_t child = waitpid(pid, &host, HostFlags("waitpid", WAITS, options));
    if (child > 0 && status != nullptr) { *status = DarwinStatus(host); }
    return child;
}

int Kill(pid_t pid, int darwin)
{
    const int signal = darwin == 0 ? 0 : HostSignal(darwin);
    if (signal == -1) { return Fail(DARWIN_EINVAL); }
    const HandOnErrno handOn;
    return kill(pid, signal);
}

int Raise(int darwin)
{
    const int signal = HostSignal(darwin);
    if (signal == -1) { return Fail(DARWIN_EINVAL); }
    const HandOnErrno handOn;
    return raise(signal);
}

using Handler = void (*)(int);
Handler sHandlers[DARWIN_NSIG]; // the image's, by Darwin's numbers

bool IsSpecial(Handler handler) { return handler == SIG_DFL || handler == SIG_IGN; }

void CallHandler(int host)
{
    const int darwin = DarwinSignal(host);
    sHandlers[darwin](darwin);
}

bool IsSignal(int darwin) { return darwin > 0 && darwin < DARWIN_NSIG; }

uint32_t DarwinSet(const sigset_t &host)
{
    uint32_t darwin = 0;
    for (int number = 1; number < DARWIN_NSIG; number++) {
        const int signal = HostSignal(number);
        if (signal != -1 && sigismember(&host, signal) == 1) { darwin |= 1U << (number - 1); }
    }
    return darwin;
}

sigset_t HostSet(uint32_t darwin)
{
    sigset_t host;
    sigemptyset(&host);
    for (int number = 1; number < DARWIN_NSIG; number++) {
        const int signal = HostSignal(number);
        if (signal != -1 && (darwin >> (number - 1) & 1) != 0) { sigaddset(&host, signal); }
    }
    return host;
}

constexpr uint32_t NEVER_BLOCKED = 1U << (DARWIN_SIGKILL - 1) | 1U << (DARWIN_SIGSTOP - 1);

// The signals of a mask that this host lacks; they are only remembered.
uint32_t sLacking[DARWIN_NSIG];
uint32_t LackingIn(uint32_t mask) { return mask & ~DarwinSet(HostSet(mask)); }

int SetAction(int darwin, const DarwinSigaction *wanted, DarwinSigaction *before)
{
    if (!IsSignal(darwin)) { return Fail(DARWIN_EINVAL); }
    const int signal = HostSignal(darwin);
    if (signal == -1) { // this host lacks it, so nobody sends it: its action is only remembered
        static DarwinSigaction sActions[DARWIN_NSIG];
        if (before != nullptr) { *before = sActions[darwin]; }
        if (wanted != nullptr) {
            sActions[darwin] = *wanted;
            sActions[darwin].sa_mask &= ~NEVER_BLOCKED;
        }
        return 0;
    }
    struct sigaction host = {}, old = {};
    const Handler oldHandler = sHandlers[darwin];
    const uint32_t oldLacking = sLacking[darwin];
    if (wanted != nullptr) {
        const auto handler = reinterpret_cast<Handler>(wanted->handler);
        host.sa_handler = IsSpecial(handler) ? handler : CallHandler;
        host.sa_mask = HostSet(wanted->sa_mask);
        host.sa_flags = HostFlags("sigaction", ACTION_FLAGS, wanted->sa_flags);
        if (!IsSpecial(handler)) { sHandlers[darwin] = handler; }
        sLacking[darwin] = LackingIn(wanted->sa_mask);
    }
    const HandOnErrno handOn;
    if (sigaction(signal, wanted == nullptr ? nullptr : &host, &old) != 0) { return -1; }
    if (before != nullptr) {
        const Handler handler = old.sa_handler == CallHandler ? oldHandler : old.sa_handler;
        constexpr int RESTORER =
            0x04000000; // the C library's own flag, for the return from a handler
        *before = {reinterpret_cast<void *>(handler), DarwinSet(old.sa_mask) | oldLacking,
                   DarwinFlags("sigaction", ACTION_FLAGS, old.sa_flags & ~RESTORER)};
    }
    return 0;
}

Handler Signal(int darwin, Handler handler)
{
    DarwinSigaction wanted = {reinterpret_cast<void *>(handler), 0,
                              static_cast<int32_t>(DARWIN_SA_RESTART)};
    DarwinSigaction before = {};
    if (SetAction(darwin, &wanted, &before) != 0) { return SIG_ERR; }
    return reinterpret_cast<Handler>(before.handler);
}

template <auto Call> int SetMask(int way, const uint32_t *wanted, uint32_t *before)
{
    const HandOnErrno handOn;
    sigset_t old;
    const sigset_t set = HostSet(wanted == nullptr ? 0 : *wanted);
    const int result =
        Call(wanted == nullptr ? 0 : HostOption("sigprocmask", "way", MASK_WAYS, way),
             wanted == nullptr ? nullptr : &set, &old);
    if (result == 0 && before != nullptr) { *before = DarwinSet(old); }
    return result;
}

uint64_t DarwinLimit(rlim_t host)
{
    return host == RLIM_INFINITY ? static_cast<uint64_t>(DARWIN_RLIM_INFINITY) : host;
}
rlim_t HostLimit(uint64_t darwin)
{
    return darwin == static_cast<uint64_t>(DARWIN_RLIM_INFINITY) ? RLIM_INFINITY : darwin;
}

int Getrlimit(int resource, DarwinRlimit *limit)
{
    const HandOnErrno handOn;
    rlimit host;
    const auto number =
        static_cast<__rlimit_resource>(HostOption("getrlimit", "resource", LIMITS, resource));
    if (getrlimit(number, &host) != 0) { return -1; }
    *limit = {DarwinLimit(host.rlim_cur), DarwinLimit(host.rlim_max)};
    return 0;
}

int Setrlimit(int resource, const DarwinRlimit *limit)
{
    const HandOnErrno handOn;
    const rlimit host = {HostLimit(limit->rlim_cur), HostLimit(limit->rlim_max)};
    return setrlimit(
        static_cast<__rlimit_resource>(HostOption("setrlimit", "resource", LIMITS, resource)),
        &host);
}

long Sysconf(int name)
{
    const HandOnErrno handOn;
    return sysconf(HostOption("sysconf", "name", CONFIGURATION, name));
}

template <size_t Size> void CopyField(char (&to)[Size], const char *from)
{
    snprintf(to, Size, "%s", from);
}

int Uname(DarwinUtsname *name)
{
    const HandOnErrno handOn;
    utsname host;
    if (uname(&host) != 0) { return -1; }
    *name = {};
    CopyField(name->sysname, host.sysname);
    CopyField(name->nodename, host.nodename);
    CopyField(name->release, host.release);
    CopyField(name->version, host.version);
    CopyField(name->machine, host.machine);
    return 0;
}

int Putenv(char *variable)
{
    if (strchr(variable, '=') == nullptr) { return Fail(DARWIN_EINVAL); }
    const HandOnErrno handOn;
    return putenv(variable);
}

int System(const char *command)
{
    const HandOnErrno handOn;
    const int status = system(command);
    return command == nullptr || status == -1 ? status : DarwinStatus(status);
}

int Pclose(FILE *stream)
{
    const HandOnErrno handOn;
    const int status = pclose(stream);
    return status == -1 ? -1 : DarwinStatus(status);
}

char ***Environment() { return &environ; }

const Row ROWS[] = {
    {"_NSGetEnviron", RowAddress(&Environment)},
    {"environ", &environ},
    WITH_ERRNO(execv),
    WITH_ERRNO(execve),
    WITH_ERRNO(execvp),
    ALIKE(_exit),
    WITH_ERRNO(fork),
    ALIKE(getegid),
    ALIKE(getenv),
    ALIKE(geteuid),
    ALIKE(getgid),
    WITH_ERRNO(getpgid),
    ALIKE(getpgrp),
    ALIKE(getpid),
    ALIKE(getppid),
    TRANSLATED(getrlimit, Getrlimit),
    WITH_ERRNO(getsid),
    ALIKE(getuid),
    TRANSLATED(kill, Kill),
    TRANSLATED(pclose, Pclose),
    {"pthread_sigmask", RowAddress(&SetMask<&pthread_sigmask>)},
    TRANSLATED(putenv, Putenv),
    TRANSLATED(raise, Raise),
    WITH_ERRNO(setegid),
    WITH_ERRNO(setenv),
    WITH_ERRNO(seteuid),
    WITH_ERRNO(setgid),
    TRANSLATED(setrlimit, Setrlimit),
    WITH_ERRNO(setsid),
    WITH_ERRNO(setuid),
    TRANSLATED(sigaction, SetAction),
    TRANSLATED(signal, Signal),
    {"sigprocmask", RowAddress(&SetMask<&sigprocmask>)},
    TRANSLATED(sysconf, Sysconf),
    TRANSLATED(system, System),
    TRANSLATED(uname, Uname),
    WITH_ERRNO(unsetenv),
    TRANSLATED(waitpid, Waitpid),
};

} // namespace

Rows ProcessRows() { return ROWS; }
