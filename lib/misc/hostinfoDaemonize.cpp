// hostinfoDaemonize.cpp -- starting programs in a state of their own.
#include "hostinfo.h"

#include "diagnostics.h"
#include "hostinfoDaemonizeInt.h"
#include "hostinfoInt.h"
#include "posixInt.h"
#include "scoped.h"
#include "str.h"
#include "util.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <closeDescriptors.h>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

using namespace pelago;

namespace {

// ---- The state that a program starts with

constexpr int FIRST_OWN_FD = STDERR_FILENO + 1;
constexpr int LAST_SIGNAL = 32;

void StopTimers()
{
    const itimerval off = {};
    for (const int timer : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
        setitimer(timer, &off, nullptr);
    }
}

void ResetSignals()
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    action.sa_flags = SA_RESTART;
    sigfillset(&action.sa_mask);
    for (int number = 1; number <= LAST_SIGNAL; number++) {
        sigaction(number, &action, nullptr); // fails for signals that always have the default
    }
}

int LastDescriptor()
{
    const long maximum = sysconf(_SC_OPEN_MAX);
    return maximum < 0 || maximum > INT_MAX ? INT_MAX : static_cast<int>(maximum - 1);
}

// Nothing may be allocated after fork(), so this does not sort a copy of keepFds, but searches the
// list for each next descriptor to keep.
void CloseDescriptorsBut(const int *keepFds, size_t numKeepFds)
{
    const int64_t last = LastDescriptor();
    for (int64_t first = FIRST_OWN_FD; first <= last;) {
        int64_t next = last + 1;
        for (size_t i = 0; i < numKeepFds; i++) {
            if (keepFds[i] >= first && keepFds[i] < next) { next = keepFds[i]; }
        }
        platform::Host_CloseDescriptors(static_cast<int>(first), static_cast<int>(next - 1));
        first = next + 1;
    }
}

void RaiseAddressSpaceLimit()
{
    rlimit limit;
    if (getrlimit(RLIMIT_AS, &limit) != 0) { return; }
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_AS, &limit);
}

} // namespace

void pelago::HostinfoResetProcessState(const int *keepFds, size_t numKeepFds)
{
    StopTimers();
    ResetSignals();
    CloseDescriptorsBut(keepFds, numKeepFds);
    RaiseAddressSpaceLimit();
}

extern "C" int Hostinfo_Execute(const char *path, char *const *args, bool wait, const int *keepFds,
                                size_t numKeepFds)
{
    constexpr int NO_PROGRAM = 1, NOT_EXECUTED = 127;
    if (path == nullptr) { return NO_PROGRAM; }
    // Converted before the fork, so that a lack of memory ends this process and not the child.
    const HostText program(path);
    const HostTextList programArgs(args);
    const pid_t child = fork();
    if (child == -1) { return -1; }
    if (child == 0) {
        HostinfoResetProcessState(keepFds, numKeepFds);
        PosixCall(execvp, program, programArgs);
        _exit(NOT_EXECUTED);
    }
    if (!wait) { return 0; }
    int status = 0;
    while (waitpid(child, &status, 0) == -1) {
        if (errno == ECHILD) { return 0; }
        if (errno != EINTR) { return -1; }
    }
    return status;
}

// ---- Daemons.  Three processes take part: the caller; the child in between, which only makes the
// third and ends; and the daemon, which is then no child of the caller.  A pipe from the daemon to
// the caller closes when the program is executed, or carries an error number.
//
// A step that fails writes a Warning() and returns false with errno.

namespace {

constexpr char FUNCTION[] = "Hostinfo_Daemonize";
constexpr int EXECV_CHECK = 3265;

// Closes a descriptor at the end of the block, and leaves errno unchanged.
class ScopedDescriptor {
public:
    ScopedDescriptor() = default;
    // Moves a descriptor from the numbers 0 to 2, which are free if the caller has closed them: in
    // the daemon /dev/null replaces these three.
    explicit ScopedDescriptor(int fd) : mFd(fd)
    {
        if (fd < 0 || fd >= FIRST_OWN_FD) { return; }
        mFd = fcntl(fd, F_DUPFD, FIRST_OWN_FD);
        const ErrnoSaver keep;
        close(fd);
    }
    ScopedDescriptor(const ScopedDescriptor &) = delete;
    ScopedDescriptor &operator=(ScopedDescriptor &&other) noexcept
    {
        std::swap(mFd, other.mFd);
        return *this;
    }
    ~ScopedDescriptor() { Close(); }
    explicit operator bool() const { return mFd >= 0; }
    int Get() const { return mFd; }
    void Close()
    {
        if (mFd < 0) { return; }
        const ErrnoSaver keep;
        close(std::exchange(mFd, -1));
    }

private:
    int mFd = -1;
};

struct Start {
    const char *path;    // in UTF-8, for messages
    const char *pidPath; // in UTF-8, for messages
    unsigned int flags;
    ScopedDescriptor pidFile{};
    ScopedDescriptor fromDaemon{}, toCaller{}; // the pipe's ends
    ScopedFree<int> keptFds{};                 // what the child in between leaves open
    size_t numKeptFds = 0;

    bool Has(unsigned int flag) const { return (flags & flag) != 0; }
};

// ---- In the child in between, and in the daemon

// Ignored, these signals make a write to a pipe without a reader, or beyond the limit on a file's
// size, fail instead of killing the process before it can report.  The program starts with the
// default actions.
void SetWriteSignals(void (*action)(int))
{
    for (const int number : {SIGPIPE, SIGXFSZ}) {
        signal(number, action);
    }
}

// ---- In the daemon

[[noreturn]] void ReportAndEnd(const Start &start, int error)
{
    errno = EIO; // for a short write, which sets no errno
    if (write(start.toCaller.Get(), &error, sizeof error) != sizeof error) {
        Warning("%s: Couldn't write to parent pipe: %u, original error: %u.\n", FUNCTION, errno,
                error);
    }
    _exit(1);
}

bool ChangeToRoot()
{
    if (chdir("/") == 0) { return true; }
    const ErrnoSaver keep;
    Warning("%s: Couldn't chdir to /, error %u.\n", FUNCTION, errno);
    return false;
}

void OpenNothingAs(int fd, int access)
{
    const int opened = open("/dev/null", access);
    if (opened == -1 || opened == fd) { return; }
    dup2(opened, fd);
    close(opened);
}

bool WritePid(const Start &start)
{
    const int fd = start.pidFile.Get();
    char text[32];
    const int length = Str_Snprintf(text, sizeof text, "%lld\n", static_cast<long long>(getpid()));
    if (length < 0) {
        errno = EINVAL;
        return false;
    }
    if (ftruncate(fd, 0) != 0) {
        const ErrnoSaver keep;
        Warning("%s: Couldn't truncate path [%s], error %d.\n", FUNCTION, start.pidPath, errno);
        return false;
    }
    errno = EIO; // for a short write, which sets no errno
    if (write(fd, text, static_cast<size_t>(length)) != length) {
        const ErrnoSaver keep;
        Warning("%s: Couldn't write PID to path [%s], error %d.\n", FUNCTION, start.pidPath, errno);
        return false;
    }
    if (fsync(fd) != 0) {
        const ErrnoSaver keep;
        Warning("%s: Couldn't flush PID to path [%s], error %d.\n", FUNCTION, start.pidPath, errno);
        return false;
    }
    return true;
}

bool FillPidFile(Start *start)
{
    if (!WritePid(*start)) { return false; }
    if (!start->Has(DAEMONIZE_LOCK_PIDFILE)) { start->pidFile.Close(); }
    return true;
}

[[noreturn]] void BecomeDaemon(Start *start, const char *program, char *const *args)
{
    if (!start->Has(DAEMONIZE_KEEP_CWD) && !ChangeToRoot()) { ReportAndEnd(*start, errno); }
    if (!start->Has(DAEMONIZE_KEEP_SESSION_AND_STDIO)) {
        OpenNothingAs(STDIN_FILENO, O_RDONLY);
        OpenNothingAs(STDOUT_FILENO, O_WRONLY);
        OpenNothingAs(STDERR_FILENO, O_WRONLY);
    }
    if (start->pidFile && !FillPidFile(start)) { ReportAndEnd(*start, errno); }
    SetWriteSignals(SIG_DFL);
    if (execv(program, args) != -1) {
        Panic(UTIL_NOT_REACHED_REPORT, HOSTINFO_MODULE, EXECV_CHECK);
    }
    const int error = errno;
    SetWriteSignals(SIG_IGN);
    Warning("%s: Couldn't exec %s, error %d.\n", FUNCTION, start->path, error);
    ReportAndEnd(*start, error);
}

// ---- In the child in between

void UnblockSignals()
{
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_UNBLOCK, &all, nullptr);
}

[[noreturn]] void MakeDaemon(Start *start, const char *program, char *const *args)
{
    start->fromDaemon.Close(); // keepFds may contain its number
    HostinfoResetProcessState(start->keptFds.get(), start->numKeptFds);
    UnblockSignals();
    SetWriteSignals(SIG_IGN);
    if (!start->Has(DAEMONIZE_KEEP_SESSION_AND_STDIO) && setsid() == -1) {
        Warning("%s: Couldn't create new session, error %d.\n", FUNCTION, errno);
        _exit(1);
    }
    const pid_t daemon = fork();
    if (daemon == -1) {
        Warning("%s: Couldn't fork second child, error %d.\n", FUNCTION, errno);
        _exit(1);
    }
    if (daemon != 0) { _exit(0); }
    BecomeDaemon(start, program, args);
}

// ---- In the caller

// Keeps children that have ended until they are waited for: the kernel does not reap them by
// itself, and the caller's SIGCHLD handler, which may reap them all, runs only afterwards.
class ChildrenKept {
public:
    ChildrenKept()
    {
        sigset_t childEnded;
        sigemptyset(&childEnded);
        sigaddset(&childEnded, SIGCHLD);
        sigprocmask(SIG_BLOCK, &childEnded, &mMask);
        sigaction(SIGCHLD, nullptr, &mAction);
        if (IsReapedByKernel()) {
            struct sigaction action = {};
            action.sa_handler = SIG_DFL;
            sigaction(SIGCHLD, &action, nullptr);
        }
    }
    ChildrenKept(const ChildrenKept &) = delete;
    ChildrenKept &operator=(const ChildrenKept &) = delete;
    ~ChildrenKept()
    {
        const ErrnoSaver keep; // a handler may run here
        if (IsReapedByKernel()) { sigaction(SIGCHLD, &mAction, nullptr); }
        sigprocmask(SIG_SETMASK, &mMask, nullptr);
    }

private:
    bool IsReapedByKernel() const
    {
        return mAction.sa_handler == SIG_IGN || (mAction.sa_flags & SA_NOCLDWAIT) != 0;
    }

    sigset_t mMask;
    struct sigaction mAction;
};

// Opens the PID file without emptying it: a file that another daemon has locked must not change.
bool ClaimPidFile(Start *start, const HostText &pidPath)
{
    constexpr int MODE = 0644;
    start->pidFile = ScopedDescriptor(PosixCall(open, pidPath, O_WRONLY | O_CREAT, MODE));
    if (!start->pidFile) {
        const ErrnoSaver keep;
        Warning("%s: Couldn't open PID path [%s], error %u.\n", FUNCTION, start->pidPath, errno);
        return false;
    }
    if (start->Has(DAEMONIZE_LOCK_PIDFILE) && flock(start->pidFile.Get(), LOCK_EX | LOCK_NB) != 0) {
        const ErrnoSaver keep;
        Warning("%s: Lock held on PID path [%s], error %u, not daemonizing.\n", FUNCTION,
                start->pidPath, errno);
        return false;
    }
    return true;
}

bool OpenPipe(Start *start)
{
    int ends[2];
    if (pipe(ends) == 0) {
        start->fromDaemon = ScopedDescriptor(ends[0]);
        start->toCaller = ScopedDescriptor(ends[1]);
        if (start->fromDaemon && start->toCaller) { return true; }
    }
    const ErrnoSaver keep;
    Warning("%s: Couldn't create pipe, error %u.\n", FUNCTION, errno);
    return false;
}

bool ListKept(Start *start, const int *keepFds, size_t numKeepFds)
{
    start->numKeptFds = numKeepFds + (start->pidFile ? 2 : 1);
    start->keptFds.reset(static_cast<int *>(malloc(start->numKeptFds * sizeof(int))));
    if (!start->keptFds) {
        const ErrnoSaver keep;
        Warning("%s: Couldn't allocate memory, error %u.\n", FUNCTION, errno);
        return false;
    }
    int *own = std::copy_n(keepFds, numKeepFds, start->keptFds.get());
    own[0] = start->toCaller.Get();
    if (start->pidFile) { own[1] = start->pidFile.Get(); }
    return true;
}

bool CloseThePipeOnExec(const Start &start)
{
    const int fd = start.toCaller.Get();
    if (fcntl(fd, F_SETFD, FD_CLOEXEC) != -1) { return true; }
    const ErrnoSaver keep;
    Warning("%s: Couldn't set close-on-exec for fd %d, error %u.\n", FUNCTION, fd, errno);
    return false;
}

// Waits for the child in between.
bool AwaitChild(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) == -1) {
        if (errno != EINTR) { return true; } // its status is lost, but the pipe has the result
    }
    if (status == 0) { return true; }
    if (WIFSIGNALED(status)) {
        Warning("%s: Child %d exited with signal %d.\n", FUNCTION, child, WTERMSIG(status));
    } else {
        Warning("%s: Child %d exited with error %d.\n", FUNCTION, child, WEXITSTATUS(status));
    }
    errno = ECHILD;
    return false;
}

bool AwaitDaemon(const Start &start)
{
    int error = 0;
    ssize_t size = 0;
    do {
        size = read(start.fromDaemon.Get(), &error, sizeof error);
    } while (size == -1 && errno == EINTR);
    if (size <= 0) { return true; }
    Warning("%s: Child could not exec %s, read %d, error %u.\n", FUNCTION, start.path,
            static_cast<int>(size), error);
    errno = error;
    return false;
}

bool RunProcesses(Start *start, const char *program, char *const *args)
{
    const ChildrenKept guard;
    const pid_t child = fork();
    if (child == -1) {
        const ErrnoSaver keep;
        Warning("%s: Couldn't fork first child, error %u.\n", FUNCTION, errno);
        return false;
    }
    if (child == 0) { MakeDaemon(start, program, args); }
    start->toCaller.Close(); // the daemon's copy must be the last one open
    return AwaitChild(child) && AwaitDaemon(*start);
}

bool ConvertAndRun(Start *start, char *const *args)
{
    const HostText program(start->path);
    if (program.IsUnspellable()) {
        Warning("%s: Couldn't convert path [%s] to default encoding.\n", FUNCTION, start->path);
        errno = ERANGE;
        return false;
    }
    const HostTextList programArgs(args);
    if (programArgs.IsUnspellable()) {
        Warning("%s: Couldn't convert arguments to default encoding.\n", FUNCTION);
        errno = ERANGE;
        return false;
    }
    return RunProcesses(start, program, programArgs);
}

} // namespace

extern "C" bool Hostinfo_Daemonize(const char *path, char *const *args, unsigned int flags,
                                   const char *pidPath, const int *keepFds, size_t numKeepFds)
{
    Start start{path, pidPath, flags};
    const HostText hostPidPath(pidPath);
    if (pidPath != nullptr && !ClaimPidFile(&start, hostPidPath)) { return false; }

    if (!OpenPipe(&start) || !ListKept(&start, keepFds, numKeepFds) || !CloseThePipeOnExec(start) ||
        !ConvertAndRun(&start, args)) {
        const ErrnoSaver keep;
        if (pidPath != nullptr && PosixCall(unlink, hostPidPath) != 0) {
            Warning("%s: Unable to unlink %s: %u\n", FUNCTION, pidPath, errno);
        }
        return false;
    }
    if (start.Has(DAEMONIZE_EXIT_PARENT)) { _exit(0); }
    return true;
}
