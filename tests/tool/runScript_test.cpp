#include "runScript.h"

#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sys/resource.h>
#include <sys/wait.h>

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

TEST_F(RunScriptTest, TellsWhyAScriptCannotBeRun)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(Run(mFolder.Path() + "/missing"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "execv() failed with error 2\n");

    const std::string path = Script("exit 0");
    chmod(path.c_str(), 0600);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Run(path), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "execv() failed with error 13\n");
}

TEST_F(RunScriptTest, DoesNotSearchThePath)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(Run("true"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "execv() failed with error 2\n");
}

// The status that RunScript gives nobody, who may have no child.  Root would be exempt from the
// limit.
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

TEST_F(RunScriptTest, DoesNotTakeALostResultForSuccess)
{
    const std::string path = Script("exit 0");
    EXPECT_EXIT(
        {
            signal(SIGCHLD, SIG_IGN); // the kernel reaps the child, and its result is gone
            _exit(Run(path) + 40);
        },
        testing::ExitedWithCode(41), "");
}

} // namespace
