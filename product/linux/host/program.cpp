// program.cpp -- starts programs with fork() and exec(), and collects their output.
#include "program.h"

#include "report.h"

#include "closeDescriptors.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace pelago::platform;

namespace {

constexpr int CANNOT_START = 127;
constexpr int SIGNAL_STATUS = 128;

// Returns the arguments as execvp() takes them; they point into the strings.
std::vector<char *> Vector(const std::vector<std::string> &arguments)
{
    std::vector<char *> vector;
    vector.reserve(arguments.size() + 1);
    for (const std::string &argument : arguments) {
        vector.push_back(const_cast<char *>(argument.c_str())); // execvp() does not change it
    }
    vector.push_back(nullptr);
    return vector;
}

// Called in the child: has the kernel kill it when this process is killed.  Otherwise it could make
// something after another process has removed all that the script left.
void DieWith(pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) { _exit(CANNOT_START); } // the parent was killed before prctl()
}

// How long a child lives, and what it inherits.
struct Life {
    bool endsWithUs; // it is killed when this process is
    int kept = -1;   // a descriptor that it keeps; then signals do not end it either
};

// Called in the child: ignores the noted signals or resets them; ignored ones stay ignored.
void SetSignals(const Life &life)
{
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        struct sigaction present;
        if (life.kept != -1) {
            ::signal(signal, SIG_IGN);
        } else if (sigaction(signal, nullptr, &present) == 0 && present.sa_handler != SIG_IGN) {
            ::signal(signal, SIG_DFL);
        }
    }
}

// Closes the caller's descriptors: the program must not inherit them.
void CloseDescriptors(int kept)
{
    if (kept == -1) { return Host_CloseDescriptors(STDERR_FILENO + 1, INT_MAX); }
    dup2(kept, STDERR_FILENO + 1); // the copy survives exec()
    Host_CloseDescriptors(STDERR_FILENO + 2, INT_MAX);
}

// Called in the child: runs the program with these for its standard streams.
[[noreturn]] void Become(char *const vector[], int input, int output, const Life &life)
{
    SetSignals(life);
    if (dup2(input, STDIN_FILENO) != -1 && dup2(output, STDOUT_FILENO) != -1 &&
        dup2(output, STDERR_FILENO) != -1) {
        CloseDescriptors(life.kept);
        execvp(vector[0], vector);
    }
    dprintf(STDERR_FILENO, "cannot run %s: %s\n", vector[0], strerror(errno));
    _exit(CANNOT_START);
}

pid_t Start(const std::vector<std::string> &arguments, int input, int output, const Life &life)
{
    const std::vector<char *> vector = Vector(arguments);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        if (life.endsWithUs) { DieWith(parent); }
        Become(vector.data(), input, output, life);
    }
    if (pid == -1) { Fail("cannot start " + arguments[0] + ": " + strerror(errno)); }
    return pid;
}

// Waits for the process; returns its status as in Outcome.
int StatusOf(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) == -1) {
        if (errno != EINTR) { return CANNOT_START; }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : SIGNAL_STATUS + WTERMSIG(status);
}

void MakePipe(OwnedFd *reader, OwnedFd *writer)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        Fail(std::string("cannot make a pipe: ") + strerror(errno));
    }
    *reader = OwnedFd(ends[0]);
    *writer = OwnedFd(ends[1]);
}

} // namespace

Program::Program(const std::vector<std::string> &arguments, int kept)
{
    OwnedFd input, output;
    MakePipe(&input, &mInput);
    MakePipe(&mOutput, &output);
    mPid = Start(arguments, input.Get(), output.Get(), {kept == -1, kept});
}

Program::~Program()
{
    if (mPid == -1) { return; }
    kill(mPid, SIGKILL);
    StatusOf(mPid);
}

void Program::Feed(std::string_view input)
{
    // The write fails when the program has ended; its status shows that.
    (void)!write(mInput.Get(), input.data(), input.size());
    mInput.Close();
}

void Program::Reap(Outcome *outcome)
{
    char buffer[4096];
    ssize_t got;
    while ((got = read(mOutput.Get(), buffer, sizeof buffer)) > 0 || (got < 0 && errno == EINTR)) {
        if (got > 0) { outcome->output.append(buffer, static_cast<size_t>(got)); }
    }
    outcome->status = StatusOf(mPid);
    mPid = -1;
}

Outcome Program::Wait()
{
    Outcome outcome;
    mInput.Close();
    Reap(&outcome);
    CheckForSignal();
    return outcome;
}

Outcome RunProgram(const std::vector<std::string> &arguments, std::string_view input)
{
    CheckForSignal();
    Program program(arguments);
    program.Feed(input);
    return program.Wait();
}

Outcome RunToItsEnd(const std::vector<std::string> &arguments, int kept)
{
    CheckForSignal();
    Program program(arguments, kept);
    return program.Wait();
}

int RunDaemonStarter(const std::vector<std::string> &arguments)
{
    const OwnedFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    return StatusOf(Start(arguments, null.Get(), null.Get(), {false}));
}

std::string HostFile(const std::string &name)
{
    char path[PATH_MAX];
    const ssize_t size = readlink("/proc/self/exe", path, sizeof path);
    if (size <= 0 || size == static_cast<ssize_t>(sizeof path)) {
        Fail("cannot find out where this program lies");
    }
    const std::string program(path, static_cast<size_t>(size));
    return program.substr(0, program.rfind('/') + 1) + name;
}
