#include "diagnostics.h"

#include "panic.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace {

TEST(Diagnostics, AddNothingToATextOnStandardError)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Warning("%s: %d", "warned", 1);
    Log("|%s\n", "logged");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "warned: 1|logged\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(Diagnostics, LeaveErrnoAsItWas)
{
    for (const auto sink : {Warning, Log}) {
        const int kept = dup(STDERR_FILENO);
        close(STDERR_FILENO); // so that writing fails
        errno = EDOM;
        sink("lost\n");
        const int error = errno;
        dup2(kept, STDERR_FILENO);
        close(kept);
        clearerr(stderr);
        EXPECT_EQ(error, EDOM);
    }
}

// The names in a message are the caller's, and as long as these are.
TEST(Diagnostics, CutNothing)
{
    const std::string text(200000, 'x');
    for (const auto sink : {Warning, Log}) {
        testing::internal::CaptureStderr();
        sink("<%s>", text.c_str());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "<" + text + ">");
    }
}

TEST(DiagnosticsDeathTest, PanicCutsNothingEither)
{
    const std::string text(200000, 'x');
    EXPECT_PANIC(Panic("<%s>", text.c_str()), "<" + text + ">");
}

TEST(DiagnosticsDeathTest, PanicEndsTheProcessWithStatus1)
{
    EXPECT_EXIT(Panic("NOT_REACHED %s:%d\n", "lib/x", 7), testing::ExitedWithCode(1),
                "^Panic: NOT_REACHED lib/x:7\n$");
}

} // namespace
