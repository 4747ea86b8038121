// Real daemons: each runs the program tellState, which reports the state that it starts in.
#include "daemonizeForTests.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/time.h>

namespace {

using testing::ElementsAre;

// ---- The state that a daemon starts in

TEST_F(Daemonize, StartsAProgramDetachedFromTheCaller)
{
    ASSERT_TRUE(Start());
    const State state = ToldAndEnded();
    EXPECT_EQ(state.The("cwd"), "/");
    EXPECT_EQ(state.All("fd"), NOTHING);
    EXPECT_EQ(state.The("terminal"), "none");
    EXPECT_NE(state.The("session"), std::to_string(getsid(0)));
    EXPECT_NE(state.The("session"), state.The("pid")) << "it cannot get a terminal any more";
}

// The caller has a terminal of its own for as long as the daemon runs.
TEST_F(Daemonize, DropsTheTerminalUnlessTheSessionIsKept)
{
    for (const unsigned flags : {0u, unsigned{DAEMONIZE_KEEP_SESSION_AND_STDIO}}) {
        std::filesystem::remove(ReportPath());
        const Result result = InProcess([&] {
            const int controller = posix_openpt(O_RDWR | O_NOCTTY);
            int ends[2];
            if (pipe(ends) != 0 || setsid() == -1 || grantpt(controller) != 0 ||
                unlockpt(controller) != 0 || open(ptsname(controller), O_RDWR) == -1 ||
                open("/dev/tty", O_RDWR) == -1) {
                return 2;
            }
            const bool started = Start(flags, {}, {ends[1]});
            close(ends[1]);
            char byte;
            return started && read(ends[0], &byte, 1) == 0 ? 1 : 0;
        });
        EXPECT_EQ(result.value, 1);
        EXPECT_EQ(ToldAndEnded().The("terminal"), flags == 0 ? "none" : "there");
    }
}

TEST_F(Daemonize, SaysNothingWhenAllIsWell)
{
    EXPECT_EQ(Tried(0, PidPath(), TELL_STATE), (Result{true, 0, ""}));
    ToldAndEnded();
}

// Tests each flag alone and with all others, in a caller that has a PID file.
class DaemonizeFlags : public Daemonize, public testing::WithParamInterface<unsigned> {};
TEST_P(DaemonizeFlags, DoWhatTheySayAndNothingElse)
{
    const unsigned flags = GetParam();
    const std::vector<std::string> stdio{OwnDescriptor(0), OwnDescriptor(1)};
    const Result result = InProcess([&] { return Start(flags, PidPath()) ? 7 : errno; });
    EXPECT_EQ(result.value, (flags & DAEMONIZE_EXIT_PARENT) != 0 ? 99 : 7);
    EXPECT_EQ(result.said, "");

    const State state = ToldAndEnded();
    EXPECT_EQ(Content(PidPath()), state.The("pid") + "\n");
    EXPECT_EQ(state.The("cwd"),
              (flags & DAEMONIZE_KEEP_CWD) != 0 ? std::filesystem::current_path().string() : "/");
    EXPECT_EQ(state.The("ignored"), "0000000000000000");
    const bool isKept = (flags & DAEMONIZE_KEEP_SESSION_AND_STDIO) != 0;
    EXPECT_EQ(state.The("session") == std::to_string(getsid(0)), isKept);
    std::vector<std::string> fds = state.All("fd");
    ASSERT_EQ(fds.size(), (flags & DAEMONIZE_LOCK_PIDFILE) != 0 ? 4u : 3u);
    if (fds.size() == 4) {
        EXPECT_THAT(fds[3], testing::MatchesRegex("[0-9]+ w " + PidPath()));
        fds.pop_back();
    }
    if (isKept) {
        EXPECT_EQ(fds[0], stdio[0]);
        EXPECT_EQ(fds[1], stdio[1]);
        EXPECT_THAT(fds[2], testing::Not(testing::EndsWith("/dev/null")));
    } else {
        EXPECT_EQ(fds, NOTHING);
    }
}
INSTANTIATE_TEST_SUITE_P(Each, DaemonizeFlags, testing::Range(0u, 16u), [](const auto &row) {
    std::string name = row.param == 0 ? "None" : "";
    if ((row.param & DAEMONIZE_KEEP_CWD) != 0) { name += "KeepCwd"; }
    if ((row.param & DAEMONIZE_KEEP_SESSION_AND_STDIO) != 0) { name += "KeepSession"; }
    if ((row.param & DAEMONIZE_EXIT_PARENT) != 0) { name += "ExitParent"; }
    if ((row.param & DAEMONIZE_LOCK_PIDFILE) != 0) { name += "Lock"; }
    return name;
});

TEST_F(Daemonize, HasFlagsOfTheseValues)
{
    EXPECT_EQ(DAEMONIZE_KEEP_CWD, 1);
    EXPECT_EQ(DAEMONIZE_KEEP_SESSION_AND_STDIO, 2);
    EXPECT_EQ(DAEMONIZE_EXIT_PARENT, 4);
    EXPECT_EQ(DAEMONIZE_LOCK_PIDFILE, 8);
}

TEST_F(Daemonize, DoesNotEndTheCallerAfterAFailure)
{
    const Result result = InProcess(
        [&] { return Start(DAEMONIZE_EXIT_PARENT, {}, {}, mFolder.Path() + "/missing") ? 1 : 0; });
    EXPECT_EQ(result.value, 0);
    EXPECT_EQ(result.error, ENOENT);
    EXPECT_EQ(Ended(), 1 << 8);
}

// The caller's exit handlers are its own: none of the three processes runs them when it ends.
struct Exit {
    const char *name;
    unsigned flags;
    std::string program;
    long expected;
    std::string said;
};
class DaemonizeWithAnExitHandler : public Daemonize, public testing::WithParamInterface<Exit> {};
TEST_P(DaemonizeWithAnExitHandler, DoesNotCallIt)
{
    const Exit &row = GetParam();
    const Result result = InProcess([&] {
        atexit([] { dprintf(STDERR_FILENO, "exit handler\n"); });
        return Start(row.flags, {}, {}, row.program) ? 1 : 0;
    });
    EXPECT_EQ(result.value, row.expected);
    EXPECT_EQ(result.said, row.said);
    Ended();
}
INSTANTIATE_TEST_SUITE_P(
    Each, DaemonizeWithAnExitHandler,
    testing::Values(
        Exit{"Started", 0, TELL_STATE, 1, ""},
        Exit{"ParentEnded", DAEMONIZE_EXIT_PARENT, TELL_STATE, 99, ""},
        Exit{"ProgramMissing", ALL_KEPT, "/missing", 0,
             "Warning: Hostinfo_Daemonize: Couldn't exec /missing, error 2.\n"
             "Warning: Hostinfo_Daemonize: Child could not exec /missing, read 4, error 2.\n"}),
    [](const auto &row) { return row.param.name; });

TEST_F(Daemonize, KeepsListedDescriptorsAndClosesAllOthers)
{
    const Result result = InProcess([&] {
        const int file = open("/dev/zero", O_RDWR);
        for (int fd = 20; fd < 60; fd++) {
            dup2(file, fd);
        }
        dup2(file, 500);
        // The list may contain numbers that are not open.  One of these is the number of the pipe's
        // read end.
        std::vector<int> kept{500, 21, 40, 21, -1, 2000000, 1, 7000};
        for (int fd = 3; fd < 20; fd++) {
            if (fcntl(fd, F_GETFD) == -1) { kept.push_back(fd); }
        }
        return Start(0, PidPath(), kept) ? 1 : 0;
    });
    EXPECT_EQ(result.value, 1);
    std::vector<std::string> expected = NOTHING;
    for (const char *fd : {"21", "40", "500"}) {
        expected = And(expected, fd + std::string(" rw /dev/zero"));
    }
    EXPECT_EQ(ToldAndEnded().All("fd"), expected);
}

TEST_F(Daemonize, GivesTheDaemonDefaultActionsForAllSignals)
{
    const Result result = InProcess([&] {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
        for (int number = 1; number <= 31; number++) {
            signal(number, SIG_IGN);
        }
        return Start() ? 1 : 0;
    });
    EXPECT_EQ(result.value, 1);
    const State state = ToldAndEnded();
    EXPECT_EQ(state.The("ignored"), "0000000000000000");
    EXPECT_EQ(state.The("blocked"), "0000000000000000");
}

TEST_F(Daemonize, ClearsTimersAndRaisesTheAddressSpaceLimit)
{
    const Result result = InProcess([&] {
        itimerval timer = {};
        timer.it_value.tv_sec = timer.it_interval.tv_sec = 1000;
        rlimit limit;
        if (setitimer(ITIMER_REAL, &timer, nullptr) != 0 || getrlimit(RLIMIT_AS, &limit) != 0) {
            return 2;
        }
        limit.rlim_max = rlim_t{1} << 51;
        limit.rlim_cur = rlim_t{1} << 50;
        if (setrlimit(RLIMIT_AS, &limit) != 0) { return 3; }
        return Start() ? 1 : 0;
    });
    EXPECT_EQ(result.value, 1);
    const State state = ToldAndEnded();
    EXPECT_EQ(state.All("timer"), std::vector<std::string>());
    EXPECT_EQ(state.The(LIMIT_OF_RLIMIT_AS), "2251799813685248 2251799813685248");
}

TEST_F(Daemonize, LeavesTheProgramWhatItSaysNothingOf)
{
    for (const unsigned flags : {0u, ALL_KEPT}) {
        const Result result = InProcess([&] { return ChangeAndTell() && Start(flags) ? 1 : 0; });
        EXPECT_EQ(result.value, 1);
        const State state = ToldAndEnded();
        ExpectInherited(state, flags == 0 ? std::vector<std::string>{}
                                          : std::vector<std::string>{"group", "session", "cwd"});
    }
}

TEST_F(Daemonize, PassesNoArgumentsOrManyWithEveryByte)
{
    std::vector<std::string> texts;
    for (int i = 0; i < 200; i++) {
        texts.push_back("caf\xC3\xA9 \n$;\xE2\x82\xAC " + std::to_string(i));
    }
    texts[100].clear();
    std::vector<char *> args;
    for (std::string &text : texts) {
        args.push_back(text.data());
    }
    args.push_back(nullptr);
    ASSERT_TRUE(Hostinfo_Daemonize(TELL_STATE, args.data(), 0, nullptr, nullptr, 0));
    EXPECT_EQ(ToldAndEnded().All("argument"), texts);

    std::filesystem::remove(ReportPath());
    args.erase(args.begin() + 1, args.end() - 1);
    ASSERT_TRUE(Hostinfo_Daemonize(TELL_STATE, args.data(), 0, nullptr, nullptr, 0));
    EXPECT_THAT(ToldAndEnded().All("argument"), ElementsAre(texts[0]));

    std::filesystem::remove(ReportPath());
    args.erase(args.begin());
    ASSERT_TRUE(Hostinfo_Daemonize(TELL_STATE, args.data(), 0, nullptr, nullptr, 0));
    const std::vector<std::string> none = ToldAndEnded().All("argument");
    EXPECT_TRUE(none.empty() || none == std::vector<std::string>{""}) // newer kernels add one
        << none.size();
}

TEST_F(Daemonize, StartsAProgramOfAnyName)
{
    const std::string path = mFolder.Path() + "/d\xC3\xA6mon \n";
    std::filesystem::create_symlink(TELL_STATE, path);
    ASSERT_TRUE(Start(0, {}, {}, path));
    EXPECT_THAT(ToldAndEnded().All("argument"), ElementsAre(path));
}

// ---- The caller's state afterwards

TEST_F(Daemonize, LeavesTheCallerAsItWas)
{
    const auto state = [] {
        std::string text = std::filesystem::current_path().string() + std::to_string(getsid(0));
        for (int number = 1; number < 32; number++) {
            struct sigaction action;
            sigaction(number, nullptr, &action);
            text += " " + std::to_string(reinterpret_cast<uintptr_t>(action.sa_handler)) + " " +
                    std::to_string(action.sa_flags);
        }
        sigset_t mask;
        sigprocmask(SIG_BLOCK, nullptr, &mask);
        for (int number = 1; number < 65; number++) {
            text += std::to_string(sigismember(&mask, number));
        }
        itimerval timer;
        getitimer(ITIMER_REAL, &timer);
        rlimit limit;
        getrlimit(RLIMIT_AS, &limit);
        return text + " " + std::to_string(timer.it_interval.tv_sec) + " " +
               std::to_string(limit.rlim_cur);
    };
    const Result result = InProcess([&] {
        itimerval timer = {};
        timer.it_value.tv_sec = timer.it_interval.tv_sec = 1000;
        setitimer(ITIMER_REAL, &timer, nullptr);
        sigset_t some;
        sigemptyset(&some);
        sigaddset(&some, SIGUSR1);
        sigprocmask(SIG_BLOCK, &some, nullptr);
        signal(SIGCHLD, SIG_IGN);
        signal(SIGTERM, [](int) {});
        const std::string before = state();
        const bool isStarted = Start(), isFailed = !Start(0, {}, {}, "/missing");
        return isStarted && isFailed && state() == before ? 1 : 0;
    });
    EXPECT_EQ(result.value, 1);
    Ended();
    Ended();
    EXPECT_TRUE(std::filesystem::exists(ReportPath()));
}

// A caller whose children are reaped before it can wait for them.
struct Reaping {
    const char *name;
    void (*handler)(int);
    int flags;
};
volatile sig_atomic_t sReaped;
void ReapAll(int)
{
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
        sReaped = sReaped + 1;
    }
}
class DaemonizeInACaller : public Daemonize, public testing::WithParamInterface<Reaping> {};
TEST_P(DaemonizeInACaller, TellsTheTruthAllTheSame)
{
    const auto &[name, handler, flags] = GetParam();
    const auto tried = [&, handler = handler, flags = flags](const std::string &program) {
        return InProcess([&] {
            struct sigaction action = {};
            action.sa_handler = handler;
            action.sa_flags = flags;
            sigaction(SIGCHLD, &action, nullptr);
            const bool started = Start(0, PidPath(), {}, program);
            struct sigaction after = {};
            sigaction(SIGCHLD, nullptr, &after);
            return (started ? 1 : 0) +
                   (after.sa_handler == handler &&
                            (after.sa_flags & SA_NOCLDWAIT) == (flags & SA_NOCLDWAIT)
                        ? 10
                        : 0);
        });
    };
    const Result result = tried(TELL_STATE);
    EXPECT_EQ(result.value, 11);
    EXPECT_EQ(Content(PidPath()), ToldAndEnded().The("pid") + "\n");

    const Result failed = tried(mFolder.Path() + "/missing");
    EXPECT_EQ(failed.value, 10);
    EXPECT_EQ(failed.error, ENOENT);
    Ended();
    EXPECT_FALSE(std::filesystem::exists(PidPath()));
}
INSTANTIATE_TEST_SUITE_P(That, DaemonizeInACaller,
                         testing::Values(Reaping{"IgnoresSigchld", SIG_IGN, 0},
                                         Reaping{"WantsNoZombies", SIG_DFL, SA_NOCLDWAIT},
                                         Reaping{"ReapsInAHandler", ReapAll, 0},
                                         Reaping{"ReapsInARestartingHandler", ReapAll, SA_RESTART}),
                         [](const auto &row) { return row.param.name; });

// Signals interrupt the caller's calls.
TEST_F(Daemonize, IsNotConfusedByInterruptions)
{
    const Result result = InProcess([&] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        itimerval timer = {};
        timer.it_value.tv_usec = timer.it_interval.tv_usec = 100;
        setitimer(ITIMER_REAL, &timer, nullptr);
        for (int i = 0; i < 20; i++) {
            if (!Start(0, PidPath())) { return 0; }
            if (Start(0, PidPath(), {}, "/missing") || errno != ENOENT) { return 2; }
        }
        return 1;
    });
    EXPECT_EQ(result.value, 1);
    for (int i = 0; i < 40; i++) {
        Ended();
    }
}

// Which of the descriptors 0 to 2 the caller has closed, as bits.
class DaemonizeWithClosedStdio : public Daemonize, public testing::WithParamInterface<int> {
protected:
    Result Tried(unsigned flags, const std::string &program)
    {
        return InProcess([&] {
            for (int fd = 0; fd <= 2; fd++) {
                if ((GetParam() & 1 << fd) != 0) { close(fd); }
            }
            return Start(flags, PidPath(), {}, program) ? 1 : 0;
        });
    }
};
TEST_P(DaemonizeWithClosedStdio, StartsTheSameDaemon)
{
    EXPECT_EQ(Tried(0, TELL_STATE).value, 1);
    const State state = ToldAndEnded();
    EXPECT_EQ(state.All("fd"), NOTHING);
    EXPECT_EQ(Content(PidPath()), state.The("pid") + "\n");
}
TEST_P(DaemonizeWithClosedStdio, LocksThePidFileForTheDaemon)
{
    EXPECT_EQ(Tried(DAEMONIZE_LOCK_PIDFILE, TELL_STATE).value, 1);
    const State state = ToldAndEnded();
    ASSERT_EQ(state.All("fd").size(), 4u);
    EXPECT_THAT(state.All("fd")[3], testing::EndsWith(" w " + PidPath()));
    EXPECT_EQ(Content(PidPath()), state.The("pid") + "\n");
}
TEST_P(DaemonizeWithClosedStdio, TellsThatAProgramCannotBeExecuted)
{
    for (const unsigned flags : {0u, ALL_KEPT}) {
        const Result result = Tried(flags, mFolder.Path() + "/missing");
        EXPECT_EQ(result.value, 0);
        EXPECT_EQ(result.error, ENOENT);
        EXPECT_FALSE(std::filesystem::exists(PidPath()));
        EXPECT_EQ(Ended(), 1 << 8);
    }
}
TEST_P(DaemonizeWithClosedStdio, LeavesThemClosedWhenTheyAreKept)
{
    EXPECT_EQ(Tried(ALL_KEPT, TELL_STATE).value, 1);
    std::vector<std::string> open;
    for (const std::string &fd : ToldAndEnded().All("fd")) {
        open.push_back(fd.substr(0, 1));
    }
    std::vector<std::string> expected;
    for (int fd = 0; fd <= 2; fd++) {
        if ((GetParam() & 1 << fd) == 0) { expected.push_back(std::to_string(fd)); }
    }
    EXPECT_EQ(open, expected);
}
INSTANTIATE_TEST_SUITE_P(Each, DaemonizeWithClosedStdio, testing::Range(1, 8));

} // namespace
