// Daemonizing with one call that fails, in the caller, in the child between the two, or in the
// daemon.  All three run this program, so the tests wrap their calls up to the execution.
#include "daemonizeFaultsScript.h"

#include "allocations.h"
#include "str.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>

using namespace std::string_literals;

namespace {

// ---- A call that fails

enum Afterwards { NOBODY, A_FAILED_DAEMON };
struct Failure {
    const char *name;
    Fault fault;
    Result expected;
    Afterwards left = NOBODY;
    unsigned flags = KEPT;
};
std::string Said(const std::string &lines)
{
    std::string said;
    for (size_t at = 0; at < lines.size();) {
        const size_t end = lines.find('\n', at) + 1;
        said += "Warning: Hostinfo_Daemonize: " + lines.substr(at, end - at);
        at = end;
    }
    return said;
}
class DaemonizeFailure : public DaemonizeFaults, public testing::WithParamInterface<Failure> {};
TEST_P(DaemonizeFailure, IsToldAndLeavesNothing)
{
    const Failure &row = GetParam();
    EXPECT_EQ(Tried({row.fault}, row.flags), row.expected);
    if (row.left == A_FAILED_DAEMON) { EXPECT_EQ(Ended(), 1 << 8); }
    EXPECT_EQ(mScript.calls["unlink"], 1);
    EXPECT_FALSE(HasPidFile());
    EXPECT_FALSE(std::filesystem::exists(ReportPath())) << "the program has run";

    EXPECT_EQ(Tried({}), (Result{true, 0, ""})) << "and the next one works";
    ToldAndEnded();
}
TEST_P(DaemonizeFailure, OccursWithoutAPidFileUnlessAboutIt)
{
    const Failure &row = GetParam();
    const bool isOfThePidFile =
        row.expected.said.find("PIDFILE") != std::string::npos || row.fault.call == "Str_Snprintf";
    EXPECT_EQ(Tried({row.fault}, row.flags, false),
              isOfThePidFile ? (Result{1, 0, ""}) : row.expected);
    if (isOfThePidFile) { ToldAndEnded(); }
    if (row.left == A_FAILED_DAEMON && !isOfThePidFile) { EXPECT_EQ(Ended(), 1 << 8); }
    EXPECT_EQ(mScript.calls["unlink"], 0);
    EXPECT_EQ(std::filesystem::exists(ReportPath()), isOfThePidFile);
}
INSTANTIATE_TEST_SUITE_P(
    Of, DaemonizeFailure,
    testing::Values(
        Failure{"Pipe",
                {CALLER, "pipe", ENFILE},
                {0, ENFILE, Said("Couldn't create pipe, error 23.\n")}},
        Failure{"CloseOnExec",
                {CALLER, "F_SETFD", EBADF},
                {0, EBADF, Said("Couldn't set close-on-exec for fd PIPE, error 9.\n")}},
        Failure{"FirstFork",
                {CALLER, "fork", EAGAIN},
                {0, EAGAIN,
                 Said("Couldn't fork first child, error " + std::to_string(EAGAIN) + ".\n")}},
        Failure{"Session",
                {CHILD, "setsid", EPERM},
                {0, ECHILD,
                 Said("Couldn't create new session, error 1.\nChild CHILD exited with error 1.\n")},
                NOBODY,
                0},
        Failure{
            "SecondFork",
            {CHILD, "fork", ENOMEM},
            {0, ECHILD,
             Said("Couldn't fork second child, error 12.\nChild CHILD exited with error 1.\n")}},
        Failure{"Chdir",
                {DAEMON, "chdir", EACCES},
                {0, EACCES,
                 Said("Couldn't chdir to /, error 13.\n"
                      "Child could not exec PROGRAM, read 4, error 13.\n")},
                A_FAILED_DAEMON},
        Failure{"FormattingThePid",
                {DAEMON, "Str_Snprintf", ENOMEM},
                {0, EINVAL, Said("Child could not exec PROGRAM, read 4, error 22.\n")},
                A_FAILED_DAEMON},
        Failure{"Truncating",
                {DAEMON, "ftruncate", EROFS},
                {0, EROFS,
                 Said("Couldn't truncate path [PIDFILE], error 30.\n"
                      "Child could not exec PROGRAM, read 4, error 30.\n")},
                A_FAILED_DAEMON},
        Failure{"WritingThePid",
                {DAEMON, "write", ENOSPC},
                {0, ENOSPC,
                 Said("Couldn't write PID to path [PIDFILE], error 28.\n"
                      "Child could not exec PROGRAM, read 4, error 28.\n")},
                A_FAILED_DAEMON},
        Failure{"Flushing",
                {DAEMON, "fsync", EDQUOT},
                {0, EDQUOT,
                 Said("Couldn't flush PID to path [PIDFILE], error " + std::to_string(EDQUOT) +
                      ".\n"
                      "Child could not exec PROGRAM, read 4, error " +
                      std::to_string(EDQUOT) + ".\n")},
                A_FAILED_DAEMON},
        Failure{"FlushingWhatCannotBeFlushed",
                {DAEMON, "fsync", EINVAL},
                {0, EINVAL,
                 Said("Couldn't flush PID to path [PIDFILE], error 22.\n"
                      "Child could not exec PROGRAM, read 4, error 22.\n")},
                A_FAILED_DAEMON},
        Failure{"Execution",
                {DAEMON, "execv", E2BIG},
                {0, E2BIG,
                 Said("Couldn't exec PROGRAM, error 7.\n"
                      "Child could not exec PROGRAM, read 4, error 7.\n")},
                A_FAILED_DAEMON}),
    [](const auto &row) { return row.param.name; });

TEST_F(DaemonizeFaults, AFailedChildRunsNoExitHandler)
{
    for (const char *call : {"setsid", "fork"}) {
        const Result result = InProcess([&] {
            atexit([] { dprintf(STDERR_FILENO, "exit handler\n"); });
            const Result tried = Tried({{CHILD, call, EPERM}}, 0);
            dprintf(STDERR_FILENO, "%s", tried.said.c_str());
            errno = tried.error;
            return tried.value;
        });
        EXPECT_EQ(result,
                  (Result{0, ECHILD,
                          Said("Couldn't "s +
                               (call == "fork"s ? "fork second child" : "create new session") +
                               ", error 1.\nChild CHILD exited with error 1.\n")}));
    }
}

TEST_F(DaemonizeFaults, ADetachedDaemonLeavesTheCallersStderrAlone)
{
    EXPECT_EQ(Tried({{DAEMON, "fsync", EIO}}, 0),
              (Result{0, EIO, Said("Child could not exec PROGRAM, read 4, error 5.\n")}));
    EXPECT_EQ(Ended(), 1 << 8);
}

TEST_F(DaemonizeFaults, AShortWriteOfThePidFails)
{
    EXPECT_EQ(Tried({{DAEMON, "write", 0, IS_SHORT}}),
              (Result{0, EIO,
                      Said("Couldn't write PID to path [PIDFILE], error 5.\n"
                           "Child could not exec PROGRAM, read 4, error 5.\n")}));
    EXPECT_EQ(Ended(), 1 << 8);
    EXPECT_FALSE(HasPidFile());
}

// ---- Before the pipe exists, the PID file is not changed

TEST_F(DaemonizeFaults, KeepsAPidFileThatCannotBeOpened)
{
    std::ofstream(PidPath()) << "kept";
    EXPECT_EQ(Tried({{CALLER, "open", ENFILE}}),
              (Result{0, ENFILE, Said("Couldn't open PID path [PIDFILE], error 23.\n")}));
    EXPECT_EQ(Content(PidPath()), "kept");
    EXPECT_EQ(mScript.calls["fork"], 0);
}

TEST_F(DaemonizeFaults, KeepsTheTextOfALockedPidFile)
{
    std::ofstream(PidPath()) << "kept";
    for (const int error : {EWOULDBLOCK, ENOLCK}) {
        EXPECT_EQ(Tried({{CALLER, "flock", error}}, KEPT | DAEMONIZE_LOCK_PIDFILE),
                  (Result{0, error,
                          Said("Lock held on PID path [PIDFILE], error " + std::to_string(error) +
                               ", not daemonizing.\n")}));
        EXPECT_EQ(Content(PidPath()), "kept");
        EXPECT_EQ(mScript.calls["fork"], 0);
        EXPECT_EQ(mScript.calls["pipe"], 0);
        EXPECT_EQ(mScript.calls["unlink"], 0);
    }
}

TEST_F(DaemonizeFaults, ThePidFileIsNotLockedUnasked)
{
    EXPECT_EQ(Tried({}), (Result{1, 0, ""}));
    EXPECT_EQ(mScript.calls["flock"], 0);
    ToldAndEnded();
}

TEST_F(DaemonizeFaults, LocksNothingWithoutAPidFile)
{
    EXPECT_EQ(Tried({}, KEPT | DAEMONIZE_LOCK_PIDFILE, false), (Result{1, 0, ""}));
    EXPECT_EQ(mScript.calls["flock"], 0);
    EXPECT_EQ(ToldAndEnded().All("fd").size(), 3u);
    EXPECT_FALSE(HasPidFile());
}

TEST_F(DaemonizeFaults, OnlyTheDaemonReplacesThePidFilesText)
{
    std::ofstream(PidPath()) << "old";
    const auto check = [this] {
        if (Content(PidPath()) != "old") { _exit(77); }
    };
    const Fault looks{DAEMON, "ftruncate", 0, WORKS, 1, check};
    EXPECT_EQ(Tried({looks}), (Result{1, 0, ""}));
    EXPECT_EQ(Content(PidPath()), ToldAndEnded().The("pid") + "\n");
}

TEST_F(DaemonizeFaults, SyncsThePidBeforeTheProgramStarts)
{
    const Fault looks{DAEMON, "execv", 0, WORKS, 1, [this] {
                          if (sScript->calls["fsync"] != 1 ||
                              Content(PidPath()) != std::to_string(getpid()) + "\n") {
                              _exit(77);
                          }
                      }};
    EXPECT_EQ(Tried({looks}), (Result{1, 0, ""}));
    ToldAndEnded();
}

TEST_F(DaemonizeFaults, FailsWhenDescriptorsCannotMoveAboveStandardOnes)
{
    for (const auto &[ordinal, said] :
         {std::pair{1, "Couldn't open PID path [PIDFILE], error 24.\n"},
          std::pair{2, "Couldn't create pipe, error 24.\n"},
          std::pair{3, "Couldn't create pipe, error 24.\n"}}) { // the pipe's other end
        const std::string expected = Said(said);
        const Result result = InProcess([&, ordinal = ordinal] {
            close(0);
            close(1);
            const std::vector<int> before = OpenDescriptors();
            const Result tried = Tried({{CALLER, "F_DUPFD", EMFILE, FAILS, ordinal}}, KEPT);
            if (OpenDescriptors() != before) { return 3; }
            errno = tried.error;
            return tried.said == expected ? static_cast<int>(tried.value) : 2;
        });
        EXPECT_EQ(result.value, 0);
        EXPECT_EQ(result.error, EMFILE);
    }
}

// ---- No memory

TEST_F(DaemonizeFaults, StartsNoDaemonWithoutMemoryForTheList)
{
    const std::vector<int> many(1000, 2); // identifies the list's block by its size
    size_t granted = 0;
    const std::vector<size_t> sizes =
        Allocations::SizesIn([&] { Tried({}, KEPT, true, TELL_STATE, many); });
    ToldAndEnded();
    granted = static_cast<size_t>(std::ranges::find(sizes, (many.size() + 2) * sizeof(int)) -
                                  sizes.begin());
    ASSERT_LT(granted, sizes.size());

    errno = ENOMEM;
    Result result;
    {
        const OutOfMemory scarce(granted, 1);
        const Fault setsErrno{CALLER, "pipe", 0, WORKS, 1, [] { errno = ENOMEM; }};
        result = Tried({setsErrno}, KEPT, true, TELL_STATE, many);
        EXPECT_TRUE(scarce.Showed());
    }
    EXPECT_EQ(result, (Result{0, ENOMEM, Said("Couldn't allocate memory, error 12.\n")}));
    EXPECT_FALSE(HasPidFile());
    EXPECT_EQ(mScript.calls["fork"], 0);
}

// ---- Another start with the same PID file

TEST_F(DaemonizeFaults, RemovesThePidFileBeforeUnlockingIt)
{
    int error = 0;
    const Fault looks{CALLER, "unlink", 0, WORKS, 1, [&] {
                          const int file = open(PidPath().c_str(), O_RDONLY);
                          error = flock(file, LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
                          close(file);
                      }};
    Tried({looks}, KEPT | DAEMONIZE_LOCK_PIDFILE, true, "/missing");
    EXPECT_EQ(error, EWOULDBLOCK) << "else it could be another's by now";
    EXPECT_EQ(mScript.calls["unlink"], 1);
    Ended();
}

// ---- Failed calls that do not count as failures

TEST_F(DaemonizeFaults, KeepsStandardDescriptorsWithoutTheNullDevice)
{
    for (const auto &ordinals :
         {std::vector{1}, std::vector{2}, std::vector{3}, std::vector{1, 2, 3}}) {
        std::vector<Fault> faults;
        for (const int ordinal : ordinals) {
            faults.push_back({DAEMON, "open", ENOENT, FAILS, ordinal});
        }
        std::filesystem::remove(ReportPath());
        EXPECT_EQ(Tried(faults, 0), (Result{1, 0, ""}));
        const std::vector<std::string> fds = ToldAndEnded().All("fd");
        ASSERT_EQ(fds.size(), 3u);
        for (int fd = 0; fd <= 2; fd++) {
            const bool isKept = std::ranges::count(ordinals, fd + 1) > 0;
            const std::string &found = fds[static_cast<size_t>(fd)];
            if (!isKept) {
                EXPECT_EQ(found, std::to_string(fd) + (fd == 0 ? " r" : " w") + " /dev/null");
            } else if (fd == STDERR_FILENO) {
                EXPECT_EQ(found, "2 rw /memfd:said (deleted)");
            } else {
                EXPECT_EQ(found, OwnDescriptor(fd));
            }
        }
    }
}

TEST_F(DaemonizeFaults, InterruptedWaitsAndReadsAreTakenUpAgain)
{
    const std::vector<Fault> interruptions{{CALLER, "waitpid", EINTR},
                                           {CALLER, "waitpid", EINTR, FAILS, 2},
                                           {CALLER, "read", EINTR},
                                           {CALLER, "read", EINTR, FAILS, 2}};
    EXPECT_EQ(Tried(interruptions), (Result{1, 0, ""}));
    EXPECT_EQ(mScript.calls["waitpid"], 3);
    EXPECT_EQ(mScript.calls["read"], 3);
    ToldAndEnded();

    EXPECT_EQ(Tried(interruptions, 0, true, "/missing"),
              (Result{0, ENOENT, Said("Child could not exec PROGRAM, read 4, error 2.\n")}));
    Ended();
}

TEST_F(DaemonizeFaults, ThePipeReplacesTheChildsLostStatus)
{
    const Fault lost{CALLER, "waitpid", ECHILD};
    EXPECT_EQ(Tried({lost}), (Result{1, 0, ""}));
    EXPECT_EQ(Ended(mScript.child), 0);
    ToldAndEnded();

    EXPECT_EQ(Tried({lost}, 0, true, "/missing"),
              (Result{0, ENOENT, Said("Child could not exec PROGRAM, read 4, error 2.\n")}));
    EXPECT_EQ(Ended(mScript.child), 0);
    Ended();
}

TEST_F(DaemonizeFaults, AnUnreadablePipeCountsAsSuccess)
{
    EXPECT_EQ(Tried({{CALLER, "read", EIO}}), (Result{1, 0, ""}));
    EXPECT_TRUE(HasPidFile());
    ToldAndEnded();
}

TEST_F(DaemonizeFaults, ALimitThatCannotBeReadStays)
{
    const Result result = InProcess([&] {
        const rlimit limit = {rlim_t{1} << 50, rlim_t{1} << 51};
        if (setrlimit(RLIMIT_AS, &limit) != 0) { return 2L; }
        return Tried({{CHILD, "getrlimit", EINVAL}}).value;
    });
    EXPECT_EQ(result.value, 1);
    EXPECT_EQ(ToldAndEnded().The(LIMIT_OF_RLIMIT_AS), "1125899906842624 2251799813685248");
}

// ---- Failures while a failure is handled

TEST_F(DaemonizeFaults, ReportsTheFailureEvenWhenUnlinkFails)
{
    EXPECT_EQ(Tried({{CALLER, "fork", EAGAIN}, {CALLER, "unlink", EPERM}}),
              (Result{0, EAGAIN,
                      Said("Couldn't fork first child, error " + std::to_string(EAGAIN) +
                           ".\n"
                           "Unable to unlink PIDFILE: 1\n")}));
    EXPECT_TRUE(HasPidFile());
}

TEST_F(DaemonizeFaults, ADaemonThatCannotReportStillEnds)
{
    EXPECT_EQ(Tried({{DAEMON, "write", EIO}}, KEPT, false, "/missing"),
              (Result{1, 0,
                      Said("Couldn't exec PROGRAM, error 2.\n"
                           "Couldn't write to parent pipe: 5, original error: 2.\n")}));
    EXPECT_EQ(Ended(), 1 << 8);

    EXPECT_EQ(Tried({{DAEMON, "fsync", EIO}, {DAEMON, "write", EPIPE, FAILS, 2}}),
              (Result{1, 0,
                      Said("Couldn't flush PID to path [PIDFILE], error 5.\n"
                           "Couldn't write to parent pipe: 32, original error: 5.\n")}));
    EXPECT_EQ(Ended(), 1 << 8);
}

TEST_F(DaemonizeFaults, ATruncatedReportStillCountsAsFailure)
{
    const Fault readsWhenAllIsSaid{CALLER, "read", 0, WORKS, 1, [] {
                                       siginfo_t info;
                                       waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
                                   }};
    EXPECT_EQ(Tried({{DAEMON, "write", 0, IS_SHORT}, readsWhenAllIsSaid}, KEPT, false, "/missing"),
              (Result{0, ENOENT,
                      Said("Couldn't exec PROGRAM, error 2.\n"
                           "Couldn't write to parent pipe: 5, original error: 2.\n"
                           "Child could not exec PROGRAM, read 3, error 2.\n")}));
    EXPECT_EQ(Ended(), 1 << 8);
}

TEST_F(DaemonizeFaults, AnExecutionThatReturnsOtherwiseIsFatal)
{
    const Result result = Tried({{DAEMON, "execv", 0, RETURNS_ZERO}});
    EXPECT_EQ(result.said, "Panic: NOT_REACHED lib/misc/hostinfoPosix:3265\n");
    EXPECT_EQ(Ended(), 1 << 8);
}

// ---- Killed at any call

TEST_F(DaemonizeFaults, AChildThatIsKilledIsToldOf)
{
    for (int ordinal = 1;; ordinal++) {
        SCOPED_TRACE(ordinal);
        std::filesystem::remove(ReportPath());
        const Result result = Tried({{CHILD, "", 0, KILLS, ordinal}}, 0);
        if (result.value == 1) {
            EXPECT_GT(ordinal, 40) << "its own calls";
            break;
        }
        ASSERT_EQ(result, (Result{0, ECHILD, Said("Child CHILD exited with signal 9.\n")}));
        ASSERT_FALSE(HasPidFile());
        ASSERT_FALSE(std::filesystem::exists(ReportPath()));
    }
    ToldAndEnded();
}

TEST_F(DaemonizeFaults, ADaemonThatIsKilledEndsTheWait)
{
    for (int ordinal = 1;; ordinal++) {
        SCOPED_TRACE(ordinal);
        std::filesystem::remove(ReportPath());
        ASSERT_EQ(Tried({{DAEMON, "", 0, KILLS, ordinal}}, 0), (Result{1, 0, ""}));
        const int status = Ended();
        if (status == 0) {
            EXPECT_GT(ordinal, 12) << "its own calls";
            break;
        }
        ASSERT_EQ(status, SIGKILL);
    }
    Told();
}

// A daemon whose caller has died meanwhile has no process to report to.
TEST_F(DaemonizeFaults, AFailedDaemonEndsEvenWithoutItsCaller)
{
    int ends[2]; // closes when the caller dies
    ASSERT_EQ(pipe(ends), 0);
    Listening listening;
    const int heard = dup(STDERR_FILENO); // for the time after the caller's is closed
    const pid_t caller = fork();
    if (caller == 0) {
        const Fault waits{DAEMON, "execv", ENOENT, FAILS, 1, [&] {
                              char byte = 0;
                              if (read(ends[0], &byte, 1) != 0) { _exit(77); }
                              dup2(heard, STDERR_FILENO);
                          }};
        Tried({waits, {CALLER, "waitpid", 0, KILLS}}, 0, true, TELL_STATE, {ends[0], heard});
        _exit(0);
    }
    close(heard);
    close(ends[1]);
    EXPECT_EQ(Ended(caller), SIGKILL);
    close(ends[0]);
    int daemonStatus = 0, children = 0;
    for (int status = 0; waitpid(-1, &status, 0) > 0; children++) {
        if (status != 0) { daemonStatus = status; }
    }
    EXPECT_EQ(children, 2);
    EXPECT_EQ(daemonStatus, 1 << 8);
    EXPECT_EQ(listening.Heard(),
              Said("Couldn't exec "s + TELL_STATE +
                   ", error 2.\nCouldn't write to parent pipe: 32, original error: 2.\n"));
    EXPECT_FALSE(std::filesystem::exists(ReportPath()));
}

// ---- The caller's children

TEST_F(DaemonizeFaults, ReportsAFailedChildThatTheKernelReaped)
{
    for (const bool isIgnored : {true, false}) {
        const Result result = InProcess([&] {
            struct sigaction action = {};
            action.sa_handler = isIgnored ? SIG_IGN : SIG_DFL;
            action.sa_flags = isIgnored ? 0 : SA_NOCLDWAIT;
            sigaction(SIGCHLD, &action, nullptr);
            const Result tried = Tried({{CHILD, "setsid", EPERM}}, 0);
            errno = tried.error;
            return tried.value;
        });
        EXPECT_EQ(result, (Result{0, ECHILD, ""}));
    }
}

volatile sig_atomic_t sReaped;

TEST_F(DaemonizeFaults, ASigchldHandlerStillReapsOtherChildren)
{
    const Result result = InProcess([&] {
        signal(SIGCHLD, [](int) {
            while (waitpid(-1, nullptr, WNOHANG) > 0) {
                sReaped = sReaped + 1;
            }
        });
        const pid_t other = fork();
        if (other == 0) {
            pause();
            _exit(0);
        }
        const Fault ends{CALLER, "waitpid", 0, WORKS, 1, [&] {
                             kill(other, SIGKILL);
                             siginfo_t info;
                             waitid(P_PID, static_cast<id_t>(other), &info, WEXITED | WNOWAIT);
                         }};
        const Result tried = Tried({ends});
        return tried.value == 1 && sReaped == 1 ? 1 : 0;
    });
    EXPECT_EQ(result.value, 1);
    ToldAndEnded();
}

} // namespace
