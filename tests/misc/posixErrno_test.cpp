// The wrappers' errno, with an allocator that changes errno: it may do so when it succeeds, and
// free() may do so on some hosts.
#include "posixCalls.h"

#include <grp.h>
#include <pwd.h>

namespace {

thread_local bool tSpoils;
bool sLinkIsLong;
int sErrorBeforeGetenv;
int sErrorOfGetenv; // 0: getenv() leaves errno alone

// While this object exists, each call of the allocator by this thread changes errno.
struct SpoilingAllocator {
    SpoilingAllocator() { tSpoils = true; }
    ~SpoilingAllocator() { tSpoils = false; }
};

void Spoil()
{
    if (tSpoils) { errno = EXDEV; }
}

} // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size)
{
    void *block = __real_malloc(size);
    Spoil();
    return block;
}
void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size)
{
    void *block = __real_calloc(count, size);
    Spoil();
    return block;
}
void *__real_realloc(void *block, size_t size);
void *__wrap_realloc(void *block, size_t size)
{
    void *moved = __real_realloc(block, size);
    Spoil();
    return moved;
}
char *__real_strdup(const char *string);
char *__wrap_strdup(const char *string)
{
    char *copy = __real_strdup(string);
    Spoil();
    return copy;
}
void __real_free(void *block);
void __wrap_free(void *block)
{
    __real_free(block);
    Spoil();
}
char *__real_getenv(const char *name);
char *__wrap_getenv(const char *name)
{
    sErrorBeforeGetenv = errno;
    char *value = __real_getenv(name);
    errno = sErrorOfGetenv == 0 ? sErrorBeforeGetenv : sErrorOfGetenv;
    return value;
}
ssize_t __real_readlink(const char *path, char *buffer, size_t size);
ssize_t __wrap_readlink(const char *path, char *buffer, size_t size)
{
    if (!sLinkIsLong) { return __real_readlink(path, buffer, size); }
    if (size < 4096) { return static_cast<ssize_t>(size); }
    errno = EIO;
    return -1;
}
// With that allocator, the file is already gone when the wrapper removes it.
int __real_mkstemp(char *name);
int __wrap_mkstemp(char *name)
{
    if (!tSpoils) { return __real_mkstemp(name); }
    const int error = errno;
    const int file = __real_mkstemp(name);
    if (file < 0) { return file; }
    close(file);
    unlink(name);
    errno = error;
    return file;
}
}

namespace {

// Returns the call's outcome with that allocator.
CallOutcome Spoilt(CallOutcome (*call)(Texts), const std::vector<const char *> &texts)
{
    const SpoilingAllocator allocator;
    errno = ALONE;
    return call(texts.data());
}

class ErrnoOfEach : public testing::TestWithParam<Wrapper> {
protected:
    const WorkingFolder mFolder;
};

TEST_P(ErrnoOfEach, IsTheCallsOwn)
{
    const Wrapper &wrapper = GetParam();
    EXPECT_EQ(Spoilt(wrapper.wrapped, wrapper.bad).error,
              wrapper.error == 0 ? ALONE : wrapper.error);
    if (!wrapper.good.empty()) {
        EXPECT_EQ(Spoilt(wrapper.wrapped, wrapper.good), SuccessOf(wrapper));
    }
}
INSTANTIATE_TEST_SUITE_P(Posix, ErrnoOfEach, testing::ValuesIn(Wrappers()), WRAPPER_NAME);

TEST(ErrnoOfReadLink, IsTheCallsOwnOnALaterFailure)
{
    sLinkIsLong = true;
    EXPECT_EQ(Spoilt([](Texts text) { return Taken(Posix_ReadLink(text[0])); }, {"any"}),
              (CallOutcome{"NULL", EIO}));
    sLinkIsLong = false;
}

TEST(ErrnoOfMkTemp, IsLeftAlone)
{
    const TemporaryFolder folder;
    const std::string pathTemplate = folder.Path() + "/XXXXXX";
    EXPECT_EQ(
        Spoilt([](Texts text) { return Taken(Posix_MkTemp(text[0])); }, {pathTemplate.c_str()})
            .error,
        ALONE);
}

TEST(ErrnoOfPerror, IsLeftAlone)
{
    EXPECT_EXIT(
        {
            const SpoilingAllocator allocator;
            errno = ENOENT;
            Posix_Perror("caf\xC3\xA9");
            _exit(errno);
        },
        testing::ExitedWithCode(ENOENT), "caf\xC3\xA9: No such file or directory\n");
}

TEST(ErrnoOfPerror, IsLeftAloneEvenWhenWritingFails)
{
    EXPECT_EXIT(
        {
            close(STDERR_FILENO);
            errno = ENOENT;
            Posix_Perror("text");
            _exit(errno);
        },
        testing::ExitedWithCode(ENOENT), "");
}

// The new record replaces one whose strings are freed.
TEST(ErrnoOfUsersAndGroups, IsTheCallsOwn)
{
    const auto user = [](Texts) { return Kept(Bare(getpwuid)(0)->pw_name); };
    const auto group = [](Texts) { return Kept(Bare(getgrgid)(0)->gr_name); };
    const std::string groupName = getgrgid(0)->gr_name;
    const auto errorOf = [](const auto &call) {
        errno = ALONE;
        return call(nullptr).error;
    };
    const int errorOfUser = errorOf(user), errorOfGroup = errorOf(group);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(Spoilt([](Texts) { return Kept(Posix_Getpwuid(0)->pw_name); }, {}).error,
                  errorOfUser);
        EXPECT_EQ(Spoilt([](Texts text) { return Kept(Posix_Getgrnam(text[0])->gr_name); },
                         {groupName.c_str()})
                      .error,
                  errorOfGroup);
    }
}

// Checks errno for each state of a variable: new, unchanged, changed, changed twice and more,
// unset.
void ExpectErrnoInEachStep(const char *name, int expected)
{
    for (const char *value :
         {"one", "one", "two", "three", "four", "five", (const char *)nullptr}) {
        value == nullptr ? unsetenv(name) : setenv(name, value, 1);
        const SpoilingAllocator allocator;
        errno = ALONE;
        const char *got = Posix_Getenv(name);
        const int error = errno;
        EXPECT_EQ(sErrorBeforeGetenv, ALONE) << (value == nullptr ? "unset" : value);
        EXPECT_EQ(error, expected) << (value == nullptr ? "unset" : value);
        EXPECT_STREQ(got, value);
    }
}

TEST(ErrnoOfGetenv, IsLeftAlone) { ExpectErrnoInEachStep("PELAGO_STEPS", ALONE); }

TEST(ErrnoOfGetenv, IsTheCallsOwn)
{
    sErrorOfGetenv = ENOTTY;
    ExpectErrnoInEachStep("PELAGO_STEPS_WITH_AN_ERROR", ENOTTY);
    sErrorOfGetenv = 0;
}

} // namespace
