// The library's own sinks, in a program that defines none, such as the tool.
#include "diagnostics.h"

#include "panic.h"
#include "util.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <unistd.h>

namespace {

TEST(OwnSinks, AddNothingToATextOnStandardError)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Pelago_Warning("%s: %d", "warned", 1);
    Pelago_Log("|%s\n", "logged");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "warned: 1|logged\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(OwnSinks, AreWhatTheShortNamesMean)
{
    testing::internal::CaptureStderr();
    Warning("%d", 1);
    Log("%d", 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "12");
    EXPECT_EQ(&Warning, &Pelago_Warning);
    EXPECT_EQ(&Log, &Pelago_Log);
    EXPECT_EQ(&Panic, &Pelago_Panic);
}

TEST(OwnSinks, LeaveErrnoAsItWas)
{
    const int kept = dup(STDERR_FILENO);
    close(STDERR_FILENO); // so that writing fails
    errno = EDOM;
    Pelago_Warning("lost\n");
    const int afterWarning = errno;
    Pelago_Log("lost\n");
    const int afterLog = errno;
    dup2(kept, STDERR_FILENO);
    close(kept);
    clearerr(stderr);
    EXPECT_EQ(afterWarning, EDOM);
    EXPECT_EQ(afterLog, EDOM);
}

// A message may contain a path of any length.
TEST(OwnSinks, CutNothing)
{
    const std::string text(200000, 'x');
    for (const auto sink : {Warning, Log}) {
        testing::internal::CaptureStderr();
        sink("<%s>", text.c_str());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "<" + text + ">");
    }
}

TEST(OwnSinksDeathTest, PanicCutsNothingEither)
{
    const std::string text(200000, 'x');
    EXPECT_PANIC(Panic("<%s>", text.c_str()), "<" + text + ">");
}

TEST(OwnSinksDeathTest, PanicEndsTheProcessWithStatus1)
{
    EXPECT_EXIT(Panic("NOT_REACHED %s:%d\n", "lib/x", 7), testing::ExitedWithCode(1),
                "^Panic: NOT_REACHED lib/x:7\n$");
}

TEST(OwnSinksDeathTest, PanicIsNotAnException)
{
    const auto panic = [] {
        try {
            Util_AllocFailure();
        } catch (...) {
            _exit(2);
        }
    };
    EXPECT_EXIT(panic(), testing::ExitedWithCode(1), "^Panic: Unrecoverable memory allocation");
}

} // namespace
