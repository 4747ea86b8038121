// Tests of calls whose results depend on the caller's rights.  They run as root in a sandbox.
#include <mach/mach.h>
#include <unistd.h>

#include "hostFiles.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace {

constexpr uid_t NOBODY = 65534;

// Returns the exit status of a child that does the deed.
template <typename Deed> int StatusOfChild(const Deed &deed)
{
    const pid_t child = fork();
    if (child == 0) { _exit(deed()); }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    return WEXITSTATUS(status);
}

// Runs before main().  A copy of this program only reports issetugid() and ends here.
const bool sTold = [] {
    if (getenv("PELAGO_TELL_SETUGID") != nullptr) { _exit(issetugid()); }
    return false;
}();

class SetUgid : public testing::Test {
protected:
    static constexpr char COPY[] = "/tmp/copy";
    void SetUp() override
    {
        std::filesystem::copy_file("/proc/self/exe", COPY);
        setenv("PELAGO_TELL_SETUGID", "1", 1);
    }
    void TearDown() override
    {
        unsetenv("PELAGO_TELL_SETUGID");
        std::filesystem::remove(COPY);
    }
    static int StatusWith(mode_t mode, uid_t owner, gid_t group)
    {
        EXPECT_EQ(chown(COPY, owner, group), 0);
        EXPECT_EQ(chmod(COPY, mode), 0);
        return StatusOfChild([] {
            execl(COPY, COPY, static_cast<char *>(nullptr));
            return 99;
        });
    }
};

TEST_F(SetUgid, IsWhatTheKernelSaysAtTheStart)
{
    EXPECT_EQ(StatusWith(0755, NOBODY, NOBODY), 0);
    EXPECT_EQ(StatusWith(04755, NOBODY, NOBODY), 1) << "set-user-ID";
    EXPECT_EQ(StatusWith(02755, NOBODY, NOBODY), 1) << "set-group-ID";
    EXPECT_EQ(StatusWith(06755, getuid(), getgid()), 0) << "to what it is anyway";
}

TEST_F(SetUgid, IsNotChangedByChangingTheUser)
{
    EXPECT_EQ(StatusOfChild([] { return setuid(NOBODY) == 0 ? issetugid() : 99; }), 0);
    EXPECT_EQ(StatusOfChild([] { return seteuid(NOBODY) == 0 ? issetugid() : 99; }), 0);
}

// Returns the path that a program prints after it was started through a link.
std::string PathThroughLink(mode_t mode)
{
    constexpr char PROGRAM[] = "/tmp/tellPath", LINK[] = "/tmp/link";
    std::filesystem::copy_file(TELL_PATH, PROGRAM);
    EXPECT_EQ(chown(PROGRAM, NOBODY, NOBODY), 0);
    EXPECT_EQ(chmod(PROGRAM, mode), 0);
    std::filesystem::create_symlink(PROGRAM, LINK);
    char line[100] = "";
    FILE *answer = popen("echo | /tmp/link", "r");
    EXPECT_NE(fgets(line, sizeof line, answer), nullptr);
    EXPECT_EQ(pclose(answer), 0);
    std::filesystem::remove(LINK);
    std::filesystem::remove(PROGRAM);
    return line;
}

// A user who starts a program with raised rights chooses its path, and may change the link.
TEST(ExecutablePath, IsTheKernelsNameWithRaisedRights)
{
    EXPECT_EQ(PathThroughLink(0755), "/tmp/link\n");
    EXPECT_EQ(PathThroughLink(04755), "/tmp/tellPath\n") << "set-user-ID";
    EXPECT_EQ(PathThroughLink(02755), "/tmp/tellPath\n") << "set-group-ID";
}

struct OwnZones {
    OwnZones() { mCode = mach_zone_info(mach_host_self(), &mNames, &mCount, &mInfos, &mCount); }
    kern_return_t mCode;
    mach_zone_name_array_t mNames = nullptr;
    mach_zone_info_array_t mInfos = nullptr;
    mach_msg_type_number_t mCount = 0;
};

TEST(ZoneInfo, IsTheKernelsOwnForRoot)
{
    const OwnZones zones;
    ASSERT_EQ(zones.mCode, KERN_SUCCESS);
    std::istringstream lines(RealFile("/proc/slabinfo"));
    std::string line, name;
    std::getline(lines, line);
    std::getline(lines, line);
    size_t i = 0;
    for (; std::getline(lines, line); i++) {
        ASSERT_LT(i, zones.mCount);
        uint64_t used = 0, all = 0, size = 0;
        std::istringstream(line) >> name >> used >> all >> size;
        EXPECT_EQ(zones.mNames[i].mzn_name, name);
        EXPECT_EQ(zones.mInfos[i].mzi_elem_size, size) << name;
    }
    EXPECT_EQ(i, zones.mCount);
    EXPECT_GT(i, 10u);
}

TEST(ZoneInfo, IsNotForOthers)
{
    EXPECT_EQ(StatusOfChild([] { return setuid(NOBODY) == 0 ? OwnZones().mCode : 99; }),
              KERN_INVALID_HOST);
}

} // namespace
