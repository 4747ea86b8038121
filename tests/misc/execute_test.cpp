// Running programs, with and without waiting for them.
#include "hostinfo.h"

#include "startedPrograms.h"

#include <optional>
#include <sys/resource.h>
#include <sys/time.h>

static int sForkError;
static std::vector<int> sWaitErrors; // for the next calls, the last call's first

extern "C" {
pid_t __real_fork();
pid_t __wrap_fork()
{
    if (sForkError == 0) { return __real_fork(); }
    errno = sForkError;
    return -1;
}
pid_t __real_waitpid(pid_t child, int *status, int options);
pid_t __wrap_waitpid(pid_t child, int *status, int options)
{
    if (sWaitErrors.empty()) { return __real_waitpid(child, status, options); }
    errno = sWaitErrors.back();
    sWaitErrors.pop_back();
    return -1;
}
}

namespace {

class Execute : public StartedPrograms {
protected:
    static int Run(const char *path, const std::vector<std::string> &arguments, bool wait = true,
                   const std::vector<int> &keepFds = {})
    {
        std::vector<char *> args;
        for (const std::string &argument : arguments) {
            args.push_back(const_cast<char *>(argument.c_str()));
        }
        args.push_back(nullptr);
        return Hostinfo_Execute(path, args.data(), wait, keepFds.data(), keepFds.size());
    }
    static int Shell(const std::string &command, bool wait = true,
                     const std::vector<int> &keepFds = {})
    {
        return Run("/bin/sh", {"sh", "-c", command}, wait, keepFds);
    }
};

TEST_F(Execute, NeedsAProgram)
{
    EXPECT_EQ(Run(nullptr, {"sh"}), 1);
    EXPECT_EQ(Run(nullptr, {"sh"}, false), 1);
}

TEST_F(Execute, ReturnsTheRawStatus)
{
    EXPECT_EQ(Shell("exit 0"), 0);
    EXPECT_EQ(Shell("exit 1"), 1 << 8);
    EXPECT_EQ(Shell("exit 255"), 255 << 8);
    EXPECT_EQ(Shell("kill -KILL $$"), SIGKILL);
}

TEST_F(Execute, ReturnsStatus127ForAnUnexecutableProgram)
{
    EXPECT_EQ(Run("/missing", {"missing"}), 127 << 8);
    EXPECT_EQ(Run("/", {"folder"}), 127 << 8);
    EXPECT_EQ(Run("missing program", {"missing"}), 127 << 8);
}

TEST_F(Execute, RunsNoExitHandlerForAMissingProgram)
{
    const Result result = InProcess([] {
        atexit([] { dprintf(STDERR_FILENO, "exit handler\n"); });
        return Run("/missing", {"missing"});
    });
    EXPECT_EQ(result.value, 127 << 8);
    EXPECT_EQ(result.said, "");
}

TEST_F(Execute, SearchesThePathAndPassesEveryArgument)
{
    const std::string out = mFolder.Path() + "/out";
    EXPECT_EQ(Run("sh", {"own name", "-c", "printf '%s;' \"$0\" \"$@\" >\"$1\"", "zero", out,
                         "caf\xC3\xA9 \n", ""}),
              0);
    EXPECT_EQ(Content(out), "zero;" + out + ";caf\xC3\xA9 \n;;");
}

TEST_F(Execute, WithoutWaitingLeavesTheChildToTheCaller)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(fcntl(ends[1], F_SETFD, FD_CLOEXEC), 0);
    EXPECT_EQ(Shell("read line <&" + std::to_string(ends[0]) + "; exit 5", false, {ends[0]}), 0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0) << "it runs";
    close(ends[1]);
    EXPECT_EQ(Ended(), 5 << 8);
    close(ends[0]);
}

TEST_F(Execute, ReturnsZeroWhereChildrenAreReapedUnasked)
{
    const Result result = InProcess([] {
        signal(SIGCHLD, SIG_IGN);
        return Shell("exit 3");
    });
    EXPECT_EQ(result.value, 0);
}

TEST_F(Execute, WaitsOnAfterInterruptions)
{
    sWaitErrors = {EINTR, EINTR, EINTR};
    EXPECT_EQ(Shell("exit 3"), 3 << 8);
    EXPECT_TRUE(sWaitErrors.empty());

    const Result result = InProcess([] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        itimerval timer = {};
        timer.it_value.tv_usec = timer.it_interval.tv_usec = 100;
        setitimer(ITIMER_REAL, &timer, nullptr);
        return Shell("exit 3");
    });
    EXPECT_EQ(result.value, 3 << 8);
}

TEST_F(Execute, FailsWithTheWait)
{
    sWaitErrors = {EINVAL};
    EXPECT_EQ(Shell("exit 3"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(Ended(), 3 << 8);

    sWaitErrors = {ECHILD};
    EXPECT_EQ(Shell("exit 3"), 0);
    EXPECT_EQ(Ended(), 3 << 8);
}

TEST_F(Execute, FailsWithTheFork)
{
    sForkError = EAGAIN;
    for (const bool wait : {true, false}) {
        errno = 0;
        EXPECT_EQ(Shell("exit 3", wait), -1);
        EXPECT_EQ(errno, EAGAIN);
    }
    sForkError = 0;
}

TEST_F(Execute, ResetsStateButKeepsDescriptorsSessionAndFolder)
{
    const Result result = InProcess([] {
        const int file = open("/dev/zero", O_RDWR);
        for (int fd = 20; fd < 60; fd++) {
            dup2(file, fd);
        }
        for (int number = 1; number <= 31; number++) {
            if (number != SIGCHLD) { signal(number, SIG_IGN); }
        }
        itimerval timer = {};
        timer.it_value.tv_sec = 1000;
        setitimer(ITIMER_REAL, &timer, nullptr);
        const rlimit limit = {rlim_t{1} << 50, rlim_t{1} << 51};
        setrlimit(RLIMIT_AS, &limit);
        return Run(TELL_STATE, {"x"}, true, {55, 33, 55, -1});
    });
    EXPECT_EQ(result.value, 0);
    const State state = Told();
    const std::vector<std::string> fds = state.All("fd");
    ASSERT_EQ(fds.size(), 5u);
    EXPECT_EQ(fds[0], OwnDescriptor(0)) << "0 to 2 are the caller's";
    EXPECT_EQ(fds[1], OwnDescriptor(1));
    EXPECT_EQ(fds[3], "33 rw /dev/zero");
    EXPECT_EQ(fds[4], "55 rw /dev/zero");
    EXPECT_EQ(state.The("ignored"), "0000000000000000");
    EXPECT_EQ(state.All("timer"), std::vector<std::string>());
    EXPECT_EQ(state.The(LIMIT_OF_RLIMIT_AS), "2251799813685248 2251799813685248");
    EXPECT_EQ(state.The("session"), std::to_string(getsid(0))) << "and so is the session";
    EXPECT_EQ(state.The("cwd"), std::filesystem::current_path().string());
}

TEST_F(Execute, LeavesTheProgramWhatItSaysNothingOf)
{
    const Result result = InProcess([&] {
        sigset_t some;
        sigemptyset(&some);
        for (const int number : {SIGUSR1, SIGTERM, SIGCHLD}) {
            sigaddset(&some, number);
        }
        sigprocmask(SIG_BLOCK, &some, nullptr);
        return ChangeAndTell() ? Run(TELL_STATE, {"x"}) : -1;
    });
    EXPECT_EQ(result.value, 0);
    ExpectInherited(Told(), {"blocked", "group", "session", "cwd"});
}

} // namespace
