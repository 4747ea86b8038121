// Starts programs on a host that allows a process a million descriptors.
#include "workloads.h"

#include "hostinfo.h"

#include "hostinfoDaemonizeInt.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace pelago;

static bool sLacksCloseRange; // older kernels lack it

constexpr int LIMIT = 1048576;

extern "C" {
long __real_sysconf(int name);
long __wrap_sysconf(int name) { return name == _SC_OPEN_MAX ? LIMIT : __real_sysconf(name); }
int __real_close_range(unsigned first, unsigned last, int flags);
int __wrap_close_range(unsigned first, unsigned last, int flags)
{
    if (!sLacksCloseRange) { return __real_close_range(first, last, flags); }
    errno = ENOSYS;
    return -1;
}
}

namespace {

char sProgram[] = "/bin/true";
char *const ARGS[] = {sProgram, nullptr};

// ---- The state of a child

constexpr int FIRST = 3, LAST = 22; // twenty descriptors
constexpr int KEPT[] = {15, 7, 11};

bool IsKept(int fd) { return std::ranges::count(KEPT, fd) > 0; }

// A child inherits open descriptors.  Here every run, of a rival as well, opens them again.
void OpenAll()
{
    for (int fd = FIRST; fd <= LAST; fd++) {
        if (!IsKept(fd)) { dup2(STDIN_FILENO, fd); }
    }
}

void Reset()
{
    OpenAll();
    HostinfoResetProcessState(KEPT, std::size(KEPT));
}

void ResetSignalsBare()
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    action.sa_flags = SA_RESTART;
    sigfillset(&action.sa_mask);
    for (int number = 1; number <= 32; number++) {
        sigaction(number, &action, nullptr);
    }
}

void ResetInPieces()
{
    OpenAll();
    ResetSignalsBare();
    close_range(3, 6, 0);
    close_range(8, 10, 0);
    close_range(12, 14, 0);
    close_range(16, LIMIT - 1, 0);
}

void ResetOneByOne()
{
    OpenAll();
    ResetSignalsBare();
    for (int fd = LIMIT - 1; fd >= FIRST; fd--) {
        if (!IsKept(fd)) { close(fd); }
    }
}

bool LeavesOnlyTheKept(void (*reset)())
{
    reset();
    for (int fd = FIRST; fd <= LAST; fd++) {
        if ((fcntl(fd, F_GETFD) != -1) != IsKept(fd)) { return false; }
    }
    return true;
}

double Microseconds(void (*work)())
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
        .count();
}

double Median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double MicrosecondsWithoutCloseRange()
{
    std::vector<double> times;
    sLacksCloseRange = true;
    for (int i = 0; i < 101; i++) {
        times.push_back(Microseconds(Reset));
    }
    sLacksCloseRange = false;
    return Median(times);
}

// ---- Programs

void Reap(pid_t child)
{
    int status = -1;
    if (waitpid(child, &status, 0) == -1 || status != 0) {
        perror("a program failed");
        exit(1);
    }
}

void RunForked()
{
    const pid_t child = fork();
    if (child == 0) {
        execvp(ARGS[0], ARGS);
        _exit(127);
    }
    Reap(child);
}

void RunSpawned()
{
    pid_t child = -1;
    if (posix_spawn(&child, ARGS[0], nullptr, nullptr, ARGS, environ) != 0) { exit(1); }
    Reap(child);
}

void Daemonize()
{
    if (!Hostinfo_Daemonize(ARGS[0], ARGS, 0, nullptr, nullptr, 0)) { exit(1); }
}

// The least work that starts a daemon and reports whether that succeeded.
void DaemonizeBare()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) { exit(1); }
    const pid_t child = fork();
    if (child == 0) {
        setsid();
        if (fork() == 0) {
            execv(ARGS[0], ARGS);
            _exit(127);
        }
        _exit(0);
    }
    close(ends[1]);
    Reap(child);
    char byte = 0;
    if (read(ends[0], &byte, 1) != 0) { exit(1); }
    close(ends[0]);
}

// Measures the time until the program is executed; the program's own time is not counted.
double DaemonAgainstABareOne()
{
    std::vector<double> ratios;
    for (int i = 0; i < 101; i++) {
        const double bare = Microseconds(DaemonizeBare);
        Reap(-1);
        const double ours = Microseconds(Daemonize);
        Reap(-1);
        ratios.push_back(ours / bare);
    }
    return Median(ratios);
}

} // namespace

int main(int argc, char **argv)
{
    prctl(PR_SET_CHILD_SUBREAPER, 1); // so that this process can wait for daemons
    for (const int fd : KEPT) {
        dup2(STDIN_FILENO, fd);
    }
    const bool same = LeavesOnlyTheKept(Reset) && LeavesOnlyTheKept(ResetInPieces);
    Workload("a child's state, 20 open descriptors and 3 kept", {{nullptr, 1.2}}, Repeat(Reset),
             {{"close_range in pieces and 32 signal actions", Repeat(ResetInPieces)}}, same);
    Workload("the same beside closing one by one", {{nullptr, 0.01}}, Repeat(Reset),
             {{"close of every number and 32 signal actions", Repeat(ResetOneByOne)}},
             same && LeavesOnlyTheKept(ResetOneByOne));
    Workload("/bin/true, run and waited for", {{"fork, execvp, waitpid", 1.15}},
             Repeat([] { return Hostinfo_Execute(ARGS[0], ARGS, true, nullptr, 0); }),
             {{"fork, execvp, waitpid", Repeat(RunForked)},
              {"posix_spawn, waitpid", Repeat(RunSpawned)}},
             Hostinfo_Execute(ARGS[0], ARGS, true, nullptr, 0) == 0);
    Figure("a child's state where close_range is missing", "us", 1000,
           MicrosecondsWithoutCloseRange);
    Figure("a daemon's start beside a bare double fork and execv", "x", 2, DaemonAgainstABareOne);
    return RunWorkloads(argc, argv);
}
