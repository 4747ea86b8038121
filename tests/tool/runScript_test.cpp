#include "runScript.h"

#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <optional>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>

constexpr pid_t SCRIPTED_CHILD = 4711;
// The status that waitpid() returns for a child that does not exist; nullopt: children are real.
static std::optional<int> sScriptedStatus;
static int sInterruptions; // how often waitpid() is interrupted first

extern "C" {
pid_t __real_fork();
pid_t __wrap_fork() { return sScriptedStatus ? SCRIPTED_CHILD : __real_fork(); }
pid_t __real_waitpid(pid_t child, int *status, int options);
pid_t __wrap_waitpid(pid_t child, int *status, int options)
{
    if (!sScriptedStatus) { return __real_waitpid(child, status, options); }
    if (child != SCRIPTED_CHILD && child != -1) {
        errno = ECHILD;
        return -1;
    }
    if (sInterruptions > 0) {
        sInterruptions--;
        *status = 0; // a caller that ignores EINTR would take this for success
        errno = EINTR;
        return -1;
    }
    *status = *sScriptedStatus;
    return SCRIPTED_CHILD;
}
}

namespace {

class RunScriptTest : public testing::Test {
protected:
    // Writes an executable script and returns its path.
    std::string Script(const std::string &body)
    {
        const std::string path = mFolder.Path() + "/a script.sh";
        std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
        chmod(path.c_str(), 0700);
        return path;
    }
    int Run(const std::string &path, const char *first = nullptr, const char *second = nullptr)
    {
        const char *const argv[] = {path.c_str(), first, second, nullptr};
        return RunScript(argv);
    }
    TemporaryFolder mFolder;
};

TEST_F(RunScriptTest, ReturnsEveryExitCode)
{
    const std::string path = Script("exit $1");
    for (const int code : {0, 1, 2, 7, 126, 127, 128, 255}) {
        EXPECT_EQ(Run(path, std::to_string(code).c_str()), code);
    }
}

TEST_F(RunScriptTest, TakesASignalForAFailure)
{
    EXPECT_EQ(Run(Script("kill -KILL $$")), 1);
    EXPECT_EQ(Run(Script("kill -TERM $$")), 1);
}

// Tries every possible status: the exit code if the low seven bits are 0, else 1, for every signal,
// with a core dump or without.
TEST_F(RunScriptTest, ReturnsExitCodeOrOneForEveryStatus)
{
    const char *const argv[] = {"/bin/true", nullptr};
    for (int status = 0; status <= 0xffff; status++) {
        sScriptedStatus = status;
        const int expected = (status & 0x7f) != 0 ? 1 : status >> 8;
        ASSERT_EQ(RunScript(argv), expected) << "status " << status;
    }
    sScriptedStatus.reset();
}

TEST_F(RunScriptTest, WaitsOnAfterEachInterruption)
{
    const char *const argv[] = {"/bin/true", nullptr};
    sScriptedStatus = 7 << 8;
    sInterruptions = 5;
    EXPECT_EQ(RunScript(argv), 7);
    EXPECT_EQ(sInterruptions, 0);
    sScriptedStatus.reset();
}

TEST_F(RunScriptTest, WaitsForAScriptThatIsStoppedMeanwhile)
{
    const std::string path = Script(
        "(until grep -q '^State:.*T' /proc/$$/status; do sleep 0.01; done; kill -CONT $$) &\n"
        "kill -STOP $$\n"
        "exit 7");
    EXPECT_EQ(Run(path), 7);
}

// A process keeps its children when it executes the tool, so they are the tool's children then.
TEST_F(RunScriptTest, TakesNoOtherChildsStatus)
{
    const pid_t other = fork();
    if (other == 0) { _exit(5); }
    siginfo_t ended;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(other), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(Run(Script("exit 3")), 3);
    int status = 0;
    EXPECT_EQ(waitpid(other, &status, WNOHANG), other) << "it was nobody's to wait for but ours";
    EXPECT_EQ(WEXITSTATUS(status), 5);
}

// Expects a message with the kernel's error number for a script that cannot be run.
void ExpectNotRun(const char *const argv[], int error)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(RunScript(argv), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "execv() failed with error " + std::to_string(error) + "\n");
}

TEST_F(RunScriptTest, ReportsWhyAScriptCannotBeRun)
{
    const std::string script = Script("exit 0");
    const auto path = [this](const char *name) { return mFolder.Path() + "/" + name; };
    const auto expectNotRun = [](const std::string &file, int error) {
        const char *const argv[] = {file.c_str(), nullptr};
        ExpectNotRun(argv, error);
    };
    expectNotRun(path("missing"), ENOENT);
    expectNotRun(script + "/below", ENOTDIR);
    expectNotRun(path(std::string(300, 'n').c_str()), ENAMETOOLONG);
    std::filesystem::create_symlink("around", path("around"));
    expectNotRun(path("around"), ELOOP);
    std::ofstream(path("noInterpreter")) << "#!/nonexistent\n";
    chmod(path("noInterpreter").c_str(), 0700);
    expectNotRun(path("noInterpreter"), ENOENT);
    // A shell would run a file without "#!"; RunScript only executes the file.
    std::ofstream(path("noFormat")) << "exit 0\n";
    chmod(path("noFormat").c_str(), 0700);
    expectNotRun(path("noFormat"), ENOEXEC);
    chmod(script.c_str(), 0600);
    expectNotRun(script, EACCES);
}

TEST_F(RunScriptTest, ReportsTooManyArguments)
{
    const std::string script = Script("exit 0"), word(100000, 'w');
    std::vector<const char *> argv(1000, word.c_str());
    argv.front() = script.c_str();
    argv.back() = nullptr;
    ExpectNotRun(argv.data(), E2BIG);
}

TEST_F(RunScriptTest, DoesNotSearchThePath)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(Run("true"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "execv() failed with error 2\n");
}

// Returns RunScript's status in a process that may have no child.  It changes to "nobody", because
// the limit does not apply to root.
int RunWhereThereCanBeNoChild()
{
    rlimit none;
    none.rlim_cur = none.rlim_max = 0;
    if (setrlimit(RLIMIT_NPROC, &none) != 0 || (geteuid() == 0 && setuid(65534) != 0)) {
        return -1;
    }
    const char *const argv[] = {"/bin/true", nullptr};
    return RunScript(argv);
}

TEST_F(RunScriptTest, TellsWhenThereCanBeNoChild)
{
    EXPECT_EXIT(_exit(RunWhereThereCanBeNoChild() + 40), testing::ExitedWithCode(41),
                "^fork\\(\\) failed with error " + std::to_string(EAGAIN) + "\n$");
}

TEST_F(RunScriptTest, KeepsOutputOutOfTheProtocol)
{
    const std::string path = Script("echo said; echo complained >&2");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(Run(path), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "said\ncomplained\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(RunScriptTest, PassesTheVectorAsItIs)
{
    const std::string path = Script("printf '%s;' \"$0\" \"$#\" \"$@\" >&2");
    testing::internal::CaptureStderr();
    EXPECT_EQ(Run(path, "", "two words\n$HOME"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), path + ";2;;two words\n$HOME;");
}

TEST_F(RunScriptTest, PassesOnEnvironmentAndDescriptors)
{
    setenv("PELAGO_TEST_VARIABLE", "kept", 1);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string path = Script("echo \"$PELAGO_TEST_VARIABLE\" >&$1");
    EXPECT_EQ(Run(path, std::to_string(ends[1]).c_str()), 0);
    char bytes[16] = {};
    EXPECT_EQ(read(ends[0], bytes, sizeof bytes), 5);
    EXPECT_STREQ(bytes, "kept\n");
    close(ends[0]);
    close(ends[1]);
    unsetenv("PELAGO_TEST_VARIABLE");
}

// The script is /bin/cat, because a shell would change the blocked signals.
TEST_F(RunScriptTest, ScriptInheritsTheSignals)
{
    const auto signals = [](const std::string &status) {
        const size_t at = status.find("SigBlk:");
        return status.substr(at, status.find("SigCgt:") - at);
    };
    sigset_t some, before;
    sigemptyset(&some);
    sigaddset(&some, SIGUSR1);
    sigaddset(&some, SIGCHLD);
    ASSERT_EQ(sigprocmask(SIG_BLOCK, &some, &before), 0);
    signal(SIGUSR2, SIG_IGN);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Run("/bin/cat", "/proc/self/status"), 0);
    const std::string scripts = testing::internal::GetCapturedStderr();
    std::ostringstream ours;
    ours << std::ifstream("/proc/self/status").rdbuf();
    EXPECT_EQ(signals(scripts), signals(ours.str()));
    EXPECT_NE(signals(scripts), "");
    signal(SIGUSR2, SIG_DFL);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(RunScriptTest, DoesNotTakeALostResultForSuccess)
{
    const std::string path = Script("exit 0");
    EXPECT_EXIT(
        {
            signal(SIGCHLD, SIG_IGN); // the kernel reaps the child, so its status is lost
            _exit(Run(path) + 40);
        },
        testing::ExitedWithCode(41), "");
}

} // namespace
