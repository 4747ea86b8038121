#include "diagnostics.h"

#include "panic.h"

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

TEST(DiagnosticsDeathTest, PanicEndsTheProcessWithStatus1)
{
    EXPECT_EXIT(Panic("NOT_REACHED %s:%d\n", "lib/x", 7), testing::ExitedWithCode(1),
                "^Panic: NOT_REACHED lib/x:7\n$");
}

} // namespace
