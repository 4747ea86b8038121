// shortTransfer read|write ORDINAL COMMAND... -- runs the command, whose ORDINAL-th such call
// transfers only one byte, as after a signal, on a pipe or on a full disk.  Exit status: the
// command's, or 128 and the signal that ended it; 125 when there was no such call.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr int NO_SUCH_CALL = 125;

[[noreturn]] static void Fail(const char *what)
{
    perror(what);
    exit(NO_SUCH_CALL);
}

static void AskKernel(int request, pid_t child, long value, const char *what)
{
    if (ptrace(static_cast<__ptrace_request>(request), child, 0, value) == -1) { Fail(what); }
}

// Runs the child until it enters or leaves its next system call; false if it has ended.
static bool GoToNextStop(pid_t child, int *status)
{
    for (int signal = 0;;) {
        AskKernel(PTRACE_SYSCALL, child, signal, "shortTransfer: continue");
        if (waitpid(child, status, 0) == -1) { Fail("shortTransfer: wait"); }
        if (!WIFSTOPPED(*status)) { return false; }
        if (WSTOPSIG(*status) == (SIGTRAP | 0x80)) { return true; }
        // SIGTRAP reports execve; every other signal is passed to the child.
        signal = WSTOPSIG(*status) == SIGTRAP ? 0 : WSTOPSIG(*status);
    }
}

// Stops the child as it enters the call; false if it ended before.
static bool GoToCall(pid_t child, uint64_t call, long ordinal, int *status)
{
    while (GoToNextStop(child, status)) {
        struct __ptrace_syscall_info info = {};
        if (ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info) == -1) {
            Fail("shortTransfer: look");
        }
        const bool isEntered = info.op == PTRACE_SYSCALL_INFO_ENTRY && info.entry.nr == call;
        if (isEntered && --ordinal == 0) { return true; }
    }
    return false;
}

static void ShortenToOneByte(pid_t child)
{
    struct user_regs_struct registers = {};
    AskKernel(PTRACE_GETREGS, child, reinterpret_cast<long>(&registers), "shortTransfer: read");
    registers.rdx = 1; // the third argument of either call is the size
    AskKernel(PTRACE_SETREGS, child, reinterpret_cast<long>(&registers), "shortTransfer: change");
    AskKernel(PTRACE_DETACH, child, 0, "shortTransfer: let go");
}

int main(int argc, char **argv)
{
    if (argc < 4) { return NO_SUCH_CALL; }
    const uint64_t call = strcmp(argv[1], "read") == 0 ? SYS_read : SYS_write;
    const pid_t child = fork();
    if (child == -1) { Fail("shortTransfer: fork"); }
    if (child == 0) {
        AskKernel(PTRACE_TRACEME, 0, 0, "shortTransfer: trace");
        raise(SIGSTOP);
        execv(argv[3], argv + 3);
        Fail(argv[3]);
    }
    int status;
    if (waitpid(child, &status, 0) == -1) { Fail("shortTransfer: wait"); }
    AskKernel(PTRACE_SETOPTIONS, child, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL,
              "shortTransfer: follow");
    if (!GoToCall(child, call, strtol(argv[2], nullptr, 10), &status)) { return NO_SUCH_CALL; }
    ShortenToOneByte(child);
    if (waitpid(child, &status, 0) == -1) { Fail("shortTransfer: wait"); }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
