// How the wrappers treat files.
#include "posixCalls.h"

#include "posixFixture.h"

#include <cstring>
#include <sys/sysmacros.h>

// The arguments of the last call.
static std::vector<unsigned long> sGiven;

extern "C" {
int __real_chown(const char *path, uid_t owner, gid_t group);
int __wrap_chown(const char *path, uid_t owner, gid_t group)
{
    sGiven = {owner, group};
    return __real_chown(path, owner, group);
}
int __real_lchown(const char *path, uid_t owner, gid_t group);
int __wrap_lchown(const char *path, uid_t owner, gid_t group)
{
    sGiven = {owner, group};
    return __real_lchown(path, owner, group);
}
int __real_mknod(const char *path, mode_t mode, dev_t device);
int __wrap_mknod(const char *path, mode_t mode, dev_t device)
{
    sGiven = {mode, static_cast<unsigned long>(device)};
    return __real_mknod(path, mode, device);
}
int __real_access(const char *path, int mode);
int __wrap_access(const char *path, int mode)
{
    sGiven = {static_cast<unsigned long>(mode)};
    return __real_access(path, mode);
}
}

namespace {

using PosixOpen = Posix;
using PosixCreat = Posix;
using PosixFopen = Posix;
using PosixFreopen = Posix;
using PosixChown = Posix;
using PosixMknod = Posix;
using PosixAccess = Posix;
using PosixTruncate = Posix;
using PosixUtime = Posix;
using PosixStat = Posix;

TEST_F(PosixOpen, GivesAUsableDescriptor)
{
    const int file = Posix_Open(FILE_NAME, O_RDWR | O_APPEND);
    ASSERT_GE(file, 0);
    char text[4] = {};
    EXPECT_EQ(read(file, text, 3), 3);
    EXPECT_STREQ(text, "one");
    EXPECT_EQ(fcntl(file, F_GETFL) & (O_ACCMODE | O_APPEND), O_RDWR | O_APPEND);
    close(file);
}

TEST_F(PosixOpen, ClosesAtAnExecWhatIsToBe)
{
    for (const int flag : {0, O_CLOEXEC}) {
        const int file = Posix_Open(FILE_NAME, O_RDONLY | flag);
        ASSERT_GE(file, 0);
        EXPECT_EQ(fcntl(file, F_GETFD), flag == 0 ? 0 : FD_CLOEXEC);
        close(file);
    }
}

TEST_F(PosixOpen, FollowsALinkUnlessItIsNotTo)
{
    close(Posix_Open(LINK_NAME, O_RDONLY));
    errno = ALONE;
    EXPECT_EQ(Posix_Open(LINK_NAME, O_RDONLY | O_NOFOLLOW), -1);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(PosixOpen, CreatesWithTheModeUnderTheMask)
{
    const mode_t mask = umask(027);
    close(Posix_Open(NEW_NAME, O_WRONLY | O_CREAT, 0666));
    umask(mask);
    EXPECT_EQ(StatusOf(NEW_NAME).st_mode, S_IFREG | 0640U);
}

#ifdef O_TMPFILE
TEST_F(PosixOpen, CreatesAnUnnamedFileWithItsMode)
{
    for (const mode_t mode : {0640U, 0604U}) {
        const int file = Posix_Open("/dev/shm", O_RDWR | O_TMPFILE, mode);
        ASSERT_GE(file, 0) << strerror(errno);
        struct stat status;
        EXPECT_EQ(fstat(file, &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | mode);
        EXPECT_EQ(status.st_nlink, 0u);
        close(file);
    }
}
#endif

TEST_F(PosixOpen, KeepsTheModeOfAnExistingFile)
{
    close(Posix_Open(FILE_NAME, O_WRONLY | O_CREAT, 0600));
    EXPECT_EQ(StatusOf(FILE_NAME).st_mode, S_IFREG | 0640U);
}

TEST_F(PosixCreat, EmptiesAFileAndOpensItForWriting)
{
    const int file = Posix_Creat(FILE_NAME, 0600);
    ASSERT_GE(file, 0);
    EXPECT_EQ(fcntl(file, F_GETFL) & O_ACCMODE, O_WRONLY);
    close(file);
    EXPECT_TRUE(SizeIs(FILE_NAME, 0));
}

TEST_F(PosixCreat, OpensWithTheFlagsOfTheBareCall)
{
    const int bare = creat(NEW_NAME, 0600), file = Posix_Creat(NEW_NAME, 0600);
    EXPECT_EQ(fcntl(file, F_GETFL), fcntl(bare, F_GETFL));
    EXPECT_EQ(fcntl(file, F_GETFD), fcntl(bare, F_GETFD));
    close(bare);
    close(file);
}

TEST_F(PosixFopen, ReadsAndWritesAsTheModeSays)
{
    FILE *file = Posix_Fopen(FILE_NAME, "a+");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fputs("three\n", file), 1);
    rewind(file);
    char text[30] = {};
    EXPECT_EQ(fread(text, 1, sizeof text, file), 14u);
    EXPECT_STREQ(text, "one\ntwo\nthree\n");
    fclose(file);
}

TEST_F(PosixFopen, RefusesAModeThatIsNone)
{
    errno = ALONE;
    EXPECT_EQ(Posix_Fopen(FILE_NAME, "x"), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(PosixFreopen, ReopensTheStreamThatItIsGiven)
{
    FILE *stream = fopen("/dev/null", "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(Posix_Freopen(FILE_NAME, "r", stream), stream);
    char text[30] = {};
    EXPECT_STREQ(fgets(text, sizeof text, stream), "one\n");
    fclose(stream);
}

TEST_F(PosixFreopen, ReopensTheSameFileForNull)
{
    FILE *stream = fopen(FILE_NAME, "r+");
    ASSERT_NE(stream, nullptr);
    char text[30] = {};
    EXPECT_STREQ(fgets(text, sizeof text, stream), "one\n");
    EXPECT_EQ(Posix_Freopen(nullptr, "r", stream), stream);
    EXPECT_STREQ(fgets(text, sizeof text, stream), "one\n") << "from its start";
    fclose(stream);
}

TEST_F(PosixStat, FollowsALinkAndLstatDoesNot)
{
    struct stat status;
    EXPECT_EQ(Posix_Stat(LINK_NAME, &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(Posix_Lstat(LINK_NAME, &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
}

TEST_F(PosixChown, HandsOnOwnerAndGroup)
{
    Posix_Chown(MISSING, 4000012345, 4000054321);
    EXPECT_THAT(sGiven, testing::ElementsAre(4000012345, 4000054321));
    Posix_Lchown(MISSING, 4000023451, 4000015432);
    EXPECT_THAT(sGiven, testing::ElementsAre(4000023451, 4000015432));
}

TEST_F(PosixChown, FollowsALinkAndLchownDoesNot)
{
    std::filesystem::create_symlink(MISSING, NEW_NAME);
    errno = ALONE;
    EXPECT_EQ(Posix_Chown(NEW_NAME, getuid(), getgid()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(Posix_Lchown(NEW_NAME, getuid(), getgid()), 0);
}

TEST_F(PosixMknod, HandsOnModeAndDevice)
{
    for (const dev_t device : {makedev(17, 260), static_cast<dev_t>(0x1234567'89ABCDEF)}) {
        Posix_Mknod(MISSING, S_IFCHR | 07600, device);
        EXPECT_THAT(sGiven, testing::ElementsAre(S_IFCHR | 07600, device));
    }
}

TEST_F(PosixTruncate, TakesALengthThatNoIntHolds)
{
    constexpr off_t LENGTH = (off_t{3} << 32) + 5;
    EXPECT_EQ(Posix_Truncate(FILE_NAME, LENGTH), 0) << strerror(errno);
    EXPECT_EQ(StatusOf(FILE_NAME).st_size, LENGTH);
}

TEST_F(PosixAccess, AsksForTheGivenModeOnly)
{
    EXPECT_EQ(Posix_Access(FILE_NAME, F_OK), 0);
    EXPECT_EQ(Posix_Access(FILE_NAME, X_OK), -1);
    EXPECT_EQ(Posix_Access(FOLDER_NAME, X_OK), 0);
}

// Root may do anything with a file, so the test checks the argument of the call instead.
TEST_F(PosixAccess, HandsOnEveryBitOfTheMode)
{
    for (const int mode : {F_OK, R_OK, W_OK, X_OK, R_OK | W_OK, R_OK | W_OK | X_OK}) {
        Posix_Access(MISSING, mode);
        EXPECT_THAT(sGiven, testing::ElementsAre(mode));
    }
}

TEST_F(PosixUtime, MeansNowWithoutTimes)
{
    for (const auto &touches : {+[] { return Posix_Utime(FILE_NAME, nullptr); },
                                +[] { return Posix_Utimes(FILE_NAME, nullptr); }}) {
        ASSERT_EQ(utimes(FILE_NAME, OLD_TIMEVALS), 0);
        EXPECT_EQ(touches(), 0);
        EXPECT_GT(StatusOf(FILE_NAME).st_mtim.tv_sec, 1'000'000'000);
        EXPECT_GT(StatusOf(FILE_NAME).st_atim.tv_sec, 1'000'000'000);
    }
}

TEST(PosixPathconf, AnswersAsTheBareCall)
{
    for (const int name : {_PC_NAME_MAX, _PC_PATH_MAX, _PC_PIPE_BUF, _PC_NO_TRUNC}) {
        EXPECT_EQ(Posix_Pathconf("/", name), pathconf("/", name));
        EXPECT_GT(Posix_Pathconf("/", name), 0);
    }
    errno = ALONE;
    EXPECT_EQ(Posix_Pathconf("/", 9999), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(PosixUnsupported, FailsWhateverItIsGiven)
{
    for (const auto &fails :
         {+[] { return Posix_Unsupported("/"); }, +[] { return Posix_Unsupported(nullptr); },
          +[] { return Posix_Unsupported("caf\xC3\xA9", 1, 2.0, "three"); }}) {
        errno = ALONE;
        EXPECT_EQ(fails(), -1);
        EXPECT_EQ(errno, ENOSYS);
    }
}

} // namespace
