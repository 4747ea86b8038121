// The wrappers where the host's encoding is ASCII: which texts each call receives, and that no call
// is made with a text that ASCII lacks.
#include "posixCalls.h"

#include "allocations.h"
#include "codeset.h"
#include "posixKept.h"

#include <algorithm>
#include <cstdarg>
#include <initializer_list>
#include <string_view>

extern "C" const char *CodeSet_GetCurrentCodeSet() { return "US-ASCII"; }

constexpr int FROM_CALL = 88, FROM_CONVERSION = 99; // errno after each of these

// The converted texts, and the wrapped calls: their number, errno before the last one, and the
// texts that they received.  The first calls come before main().
static constinit std::vector<std::string> sConverted, sGiven;
static int sCalls, sErrorBefore, sOpenMode;
static const char *sResolved; // the buffer that realpath() received

static void Note(std::vector<std::string> &texts, const char *text)
{
    texts.emplace_back(text == nullptr ? "NULL" : text);
}
static void Note(std::vector<std::string> &texts, char *const *list)
{
    while (*list != nullptr) {
        Note(texts, *list++);
    }
}

template <typename... Texts> static void Count(Texts... texts)
{
    sErrorBefore = errno;
    sCalls++;
    (Note(sGiven, texts), ...);
    errno = FROM_CALL;
}

// Replaces the call: counts it, and fails.
#define PELAGO_COUNT_OF(call, failure, parameters, ...)                                            \
    extern "C" long __wrap_##call parameters                                                       \
    {                                                                                              \
        Count(__VA_ARGS__);                                                                        \
        return failure;                                                                            \
    }
#define PELAGO_COUNT(call, failure) PELAGO_COUNT_OF(call, failure, (const char *text), text)
#define PELAGO_COUNT_TWO(call)                                                                     \
    PELAGO_COUNT_OF(call, -1, (const char *first, const char *second), first, second)
PELAGO_COUNT(fopen, 0)
PELAGO_COUNT(freopen, 0)
PELAGO_COUNT(stat, -1)
PELAGO_COUNT(lstat, -1)
PELAGO_COUNT(statfs, -1)
PELAGO_COUNT(access, -1)
PELAGO_COUNT(chmod, -1)
PELAGO_COUNT(chown, -1)
PELAGO_COUNT(lchown, -1)
PELAGO_COUNT_TWO(rename)
PELAGO_COUNT(unlink, -1)
PELAGO_COUNT(rmdir, -1)
PELAGO_COUNT(mkdir, -1)
PELAGO_COUNT(chdir, -1)
PELAGO_COUNT(opendir, 0)
PELAGO_COUNT_TWO(link)
PELAGO_COUNT_TWO(symlink)
PELAGO_COUNT(mkfifo, -1)
PELAGO_COUNT(mknod, -1)
PELAGO_COUNT(truncate, -1)
PELAGO_COUNT(utime, -1)
PELAGO_COUNT(utimes, -1)
PELAGO_COUNT(pathconf, -1)
PELAGO_COUNT_OF(realpath, 0, (const char *text, char *resolved), (sResolved = resolved, text))
// The same call where the compiler checks the sizes of buffers.
PELAGO_COUNT_OF(__realpath_chk, 0, (const char *text, char *resolved), (sResolved = resolved, text))
PELAGO_COUNT(readlink, -1)
PELAGO_COUNT(mkstemp, -1)
PELAGO_COUNT_OF(execv, -1, (const char *path, char *const *argv), path, argv)
PELAGO_COUNT_OF(execve, -1, (const char *path, char *const *argv, char *const *envp), path, argv,
                envp)
PELAGO_COUNT_OF(execvp, -1, (const char *file, char *const *argv), file, argv)
PELAGO_COUNT(system, -1)
PELAGO_COUNT(popen, 0)
PELAGO_COUNT(getenv, 0)
extern "C" char *__real_getenv(const char *name);
PELAGO_COUNT_TWO(setenv)
PELAGO_COUNT(unsetenv, -1)

extern "C" {
int __wrap_open(const char *path, int flags, ...)
{
    Count(path);
    va_list arguments;
    va_start(arguments, flags);
    sOpenMode = va_arg(arguments, int); // a wrapper always passes a mode
    va_end(arguments);
    return -1;
}

// A conversion may change errno.
char *__real_Unicode_GetAllocBytes(const char *string, StringEncoding encoding);
char *__wrap_Unicode_GetAllocBytes(const char *string, StringEncoding encoding)
{
    Note(sConverted, string);
    char *bytes = __real_Unicode_GetAllocBytes(string, encoding);
    errno = FROM_CONVERSION;
    return bytes;
}
char **__real_Unicode_GetAllocList(Unicode *list, ssize_t count, StringEncoding encoding);
char **__wrap_Unicode_GetAllocList(Unicode *list, ssize_t count, StringEncoding encoding)
{
    Note(sConverted, list);
    char **buffers = __real_Unicode_GetAllocList(list, count, encoding);
    errno = FROM_CONVERSION;
    return buffers;
}
}

namespace {

constexpr char LOST[] = "caf\xC3\xA9";

class EachWrapper : public testing::TestWithParam<Wrapper> {
protected:
    static CallOutcome Make(const std::vector<const char *> &texts)
    {
        sCalls = 0;
        sGiven.clear();
        sConverted.clear();
        errno = ALONE;
        const CallOutcome outcome = GetParam().wrapped(texts.data());
        EXPECT_THAT(outcome.result, testing::AnyOf("-1", "NULL"));
        return outcome;
    }
    static bool IsOneOf(std::initializer_list<std::string_view> names)
    {
        return std::find(names.begin(), names.end(), GetParam().name) != names.end();
    }
    // As many texts as the wrapper takes.
    const std::vector<const char *> mSpelt = [] {
        std::vector<const char *> texts = {"first", "second", "third", "fourth", "fifth"};
        texts.resize(GetParam().bad.size());
        return texts;
    }();
};

TEST_P(EachWrapper, MakesItsCallOnceWithItsTexts)
{
    Make(mSpelt);
    EXPECT_EQ(sCalls, 1);
    EXPECT_THAT(sGiven, testing::ElementsAreArray(mSpelt));
}

TEST_P(EachWrapper, ConvertsItsTextsOnceAndInTheirOrder)
{
    Make(mSpelt);
    EXPECT_THAT(sConverted, testing::ElementsAreArray(mSpelt));
}

// With arguments that are passed one by one, errno is 0 before the call.
TEST_P(EachWrapper, PassesErrnoInAndTheCallsErrnoOut)
{
    const CallOutcome outcome = Make(mSpelt);
    EXPECT_EQ(sErrorBefore, IsOneOf({"Execl", "Execlp"}) ? 0 : ALONE);
    EXPECT_EQ(outcome.error, FROM_CALL);
}

TEST_P(EachWrapper, HandsOnNull)
{
    const bool hasLists = IsOneOf({"Execl", "Execlp", "Execv", "Execve", "Execvp"});
    for (size_t i = 0; i < mSpelt.size(); i++) {
        SCOPED_TRACE(i);
        std::vector<const char *> texts = mSpelt;
        texts[i] = nullptr;
        std::vector<std::string> given(mSpelt.begin(), mSpelt.end());
        if (i == 0 || !hasLists) {
            given[i] = "NULL";
        } else { // NULL ends a list: that of the 2nd and 3rd text, or that of the next two
            given.erase(given.begin() + i, given.begin() + (i + 1) / 2 * 2 + 1);
        }
        Make(texts);
        EXPECT_EQ(sCalls, 1);
        EXPECT_EQ(sGiven, given);
    }
}

TEST_P(EachWrapper, MakesNoneWhenAnyTextCannotBeSpelt)
{
    for (size_t i = 0; i < mSpelt.size(); i++) {
        SCOPED_TRACE(i);
        std::vector<const char *> texts = mSpelt;
        texts[i] = LOST;
        const ptrdiff_t before = Allocations::Live();
        const CallOutcome outcome = Make(texts);
        EXPECT_EQ(sCalls, 0);
        EXPECT_EQ(outcome.error, ERANGE);
        EXPECT_EQ(Allocations::Live(), before);
    }
}
INSTANTIATE_TEST_SUITE_P(Posix, EachWrapper, testing::ValuesIn(Wrappers()), WRAPPER_NAME);

constexpr int ALL_FLAGS = INT_MAX;

TEST(PosixOpen, PassesTheModeOnlyWhenCreating)
{
    EXPECT_EQ(Posix_Open("plain", O_RDONLY, 0600), -1);
    EXPECT_EQ(sOpenMode, 0);
    EXPECT_EQ(Posix_Open("plain", O_RDONLY | O_CREAT, 0600), -1);
    EXPECT_EQ(sOpenMode, 0600);
    for (const int flags : {O_TRUNC, O_DIRECTORY, O_EXCL, ALL_FLAGS & ~O_CREAT & ~O_DIRECTORY}) {
        EXPECT_EQ(Posix_Open("plain", flags, 0600), -1);
        EXPECT_EQ(sOpenMode, 0) << flags;
    }
#ifdef O_TMPFILE
    EXPECT_EQ(Posix_Open("plain", O_TMPFILE & ~O_DIRECTORY, 0600), -1);
    EXPECT_EQ(sOpenMode, 0) << "half of its bits";
    EXPECT_EQ(Posix_Open("plain", O_WRONLY | O_TMPFILE, 0604), -1);
    EXPECT_EQ(sOpenMode, 0604) << "a file without a name has a mode, too";
#endif
}

// Without a buffer, the C library allocates a block that the wrapper would have to free.
TEST(PosixRealPath, HasAPlaceForThePath)
{
    for (const auto call : {Posix_RealPath, Posix_TryRealPath}) {
        sResolved = nullptr;
        EXPECT_EQ(call("plain"), nullptr);
        EXPECT_NE(sResolved, nullptr);
    }
}

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

// The string for Posix_Putenv() is not converted.
TEST(PosixPutenv, TakesWhatCannotBeSpelt)
{
    static char entry[] = "PELAGO_PUT=caf\xC3\xA9";
    EXPECT_EQ(Posix_Putenv(entry), 0);
    entry[11] = 'C'; // the string is in the environment now
    bool isThere = false;
    for (char **variable = environ; *variable != nullptr; variable++) {
        isThere = isThere || *variable == entry;
    }
    EXPECT_TRUE(isThere);
}

// Reports to complete.sh that all tests have run: GoogleTest's own call reaches a stand-in.
class AllHaveRun : public testing::Environment {
    void TearDown() override
    {
        const char *running = __real_getenv("TEST_PREMATURE_EXIT_FILE");
        if (running != nullptr) { unlinkat(AT_FDCWD, running, 0); }
    }
};
const testing::Environment *const ALL_HAVE_RUN = testing::AddGlobalTestEnvironment(new AllHaveRun);

} // namespace
