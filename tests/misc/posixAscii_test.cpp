// The wrappers where the host's encoding is ASCII, for text that it cannot spell: no call is made.
#include "posixCalls.h"

#include "allocations.h"
#include "codeset.h"
#include "posixKept.h"

extern "C" const char *CodeSet_GetCurrentCodeSet() { return "US-ASCII"; }

static int sCalls;

// In the place of the call: it is counted, and fails.
#define PELAGO_COUNT(call, failure)                                                                \
    extern "C" long __wrap_##call()                                                                \
    {                                                                                              \
        sCalls++;                                                                                  \
        return failure;                                                                            \
    }
PELAGO_COUNT(open, -1)
PELAGO_COUNT(fopen, 0)
PELAGO_COUNT(freopen, 0)
PELAGO_COUNT(stat, -1)
PELAGO_COUNT(lstat, -1)
PELAGO_COUNT(statfs, -1)
PELAGO_COUNT(access, -1)
PELAGO_COUNT(chmod, -1)
PELAGO_COUNT(chown, -1)
PELAGO_COUNT(lchown, -1)
PELAGO_COUNT(rename, -1)
PELAGO_COUNT(unlink, -1)
PELAGO_COUNT(rmdir, -1)
PELAGO_COUNT(mkdir, -1)
PELAGO_COUNT(chdir, -1)
PELAGO_COUNT(opendir, 0)
PELAGO_COUNT(link, -1)
PELAGO_COUNT(symlink, -1)
PELAGO_COUNT(mkfifo, -1)
PELAGO_COUNT(mknod, -1)
PELAGO_COUNT(truncate, -1)
PELAGO_COUNT(utime, -1)
PELAGO_COUNT(utimes, -1)
PELAGO_COUNT(pathconf, -1)
PELAGO_COUNT(realpath, 0)
PELAGO_COUNT(__realpath_chk, 0) // the same where buffers are checked
PELAGO_COUNT(readlink, -1)
PELAGO_COUNT(mkstemp, -1)
PELAGO_COUNT(execv, -1)
PELAGO_COUNT(execve, -1)
PELAGO_COUNT(execvp, -1)
PELAGO_COUNT(system, -1)
PELAGO_COUNT(popen, 0)
PELAGO_COUNT(getenv, 0)
PELAGO_COUNT(setenv, -1)
PELAGO_COUNT(unsetenv, -1)

namespace {

constexpr char LOST[] = "caf\xC3\xA9";

class EachWrapper : public testing::TestWithParam<Wrapper> {
protected:
    // As many texts as it takes.
    const std::vector<const char *> mSpelt =
        std::vector<const char *>(GetParam().bad.size(), "plain");
};

TEST_P(EachWrapper, MakesItsCallOnce)
{
    errno = ALONE;
    sCalls = 0;
    const Outcome outcome = GetParam().wrapped(mSpelt.data());
    EXPECT_EQ(sCalls, 1);
    EXPECT_THAT(outcome.result, testing::AnyOf("-1", "NULL"));
}

TEST_P(EachWrapper, MakesNoneWhenAnyTextCannotBeSpelt)
{
    for (size_t i = 0; i < mSpelt.size(); i++) {
        SCOPED_TRACE(i);
        std::vector<const char *> texts = mSpelt;
        texts[i] = LOST;
        const ptrdiff_t before = Allocations::Live();
        errno = ALONE;
        sCalls = 0;
        const Outcome outcome = GetParam().wrapped(texts.data());
        EXPECT_EQ(sCalls, 0);
        EXPECT_THAT(outcome.result, testing::AnyOf("-1", "NULL"));
        EXPECT_EQ(outcome.error, ERANGE);
        EXPECT_EQ(Allocations::Live(), before);
    }
}
INSTANTIATE_TEST_SUITE_P(Posix, EachWrapper, testing::ValuesIn(Wrappers()), WRAPPER_NAME);

TEST(PosixExecl, LooksAtTheLastOfManyArguments)
{
    const ptrdiff_t before = Allocations::Live();
    sCalls = 0;
    errno = ALONE;
    EXPECT_EQ(Posix_Execl("plain", "1", "2", "3", "4", "5", "6", "7", "8", LOST, nullptr), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(sCalls, 0);
    EXPECT_EQ(Allocations::Live(), before);
}

TEST(PosixUnsupported, DoesNotLookAtItsText)
{
    errno = ALONE;
    EXPECT_EQ(Posix_Unsupported(LOST), -1);
    EXPECT_EQ(errno, ENOSYS);
}

// Its string is not converted.
TEST(PosixPutenv, TakesWhatCannotBeSpelt)
{
    static char entry[] = "PELAGO_PUT=caf\xC3\xA9";
    EXPECT_EQ(Posix_Putenv(entry), 0);
    entry[11] = 'C'; // it is the environment's now
    bool isThere = false;
    for (char **variable = environ; *variable != nullptr; variable++) {
        isThere = isThere || *variable == entry;
    }
    EXPECT_TRUE(isThere);
}

} // namespace
