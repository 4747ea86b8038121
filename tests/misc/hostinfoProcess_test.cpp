#include "hostinfo.h"

#include "inChild.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <pwd.h>
#include <unistd.h>

// What the wrapped calls return; nullopt and 0: the C library is called.
static std::optional<std::string> sUser; // "(none)", "(null)": no entry, and one without a name
static int sUserError;
static size_t sUserBufferSize;
static int sKillError;
static constexpr uid_t OWN_USER = 4711;

extern "C" {
uid_t __wrap_getuid() { return OWN_USER; }
int __real_getpwuid_r(uid_t uid, passwd *entry, char *buffer, size_t size, passwd **found);
int __wrap_getpwuid_r(uid_t uid, passwd *entry, char *buffer, size_t size, passwd **found)
{
    EXPECT_EQ(uid, OWN_USER);
    sUserBufferSize = size;
    if (!sUser && sUserError == 0) { return __real_getpwuid_r(uid, entry, buffer, size, found); }
    *found = nullptr;
    if (sUserError != 0 || *sUser == "(none)") { return sUserError; }
    entry->pw_name = *sUser == "(null)" ? nullptr : strcpy(buffer, sUser->c_str());
    *found = entry;
    return 0;
}
int __real_kill(pid_t pid, int signal);
int __wrap_kill(pid_t pid, int signal)
{
    if (sKillError == 0) { return __real_kill(pid, signal); }
    EXPECT_EQ(pid, 4711);
    EXPECT_EQ(signal, 0);
    errno = sKillError;
    return -1;
}
}

namespace {

class HostinfoUser : public testing::Test {
protected:
    void SetUp() override
    {
        sUser.reset();
        sUserError = 0;
        setenv("USER", "variable", 1);
    }
};

TEST_F(HostinfoUser, IsTheDatabases)
{
    sUser = "alpha";
    EXPECT_EQ(Take(Hostinfo_GetUser()), "alpha");
    EXPECT_EQ(sUserBufferSize, 1024u);
}

TEST_F(HostinfoUser, IsTheVariablesWithoutAnEntry)
{
    for (const char *user : {"(none)", "(null)"}) {
        sUser = user;
        EXPECT_EQ(Take(Hostinfo_GetUser()), "variable") << user;
    }
}

TEST_F(HostinfoUser, IsTheVariablesWhenTheDatabaseFails)
{
    for (const int error : {ERANGE, EIO, ENOENT}) {
        sUserError = error;
        EXPECT_EQ(Take(Hostinfo_GetUser()), "variable") << error;
    }
}

TEST_F(HostinfoUser, IsNoneWithoutEither)
{
    sUser = "(none)";
    unsetenv("USER");
    EXPECT_EQ(Hostinfo_GetUser(), nullptr);
}

TEST_F(HostinfoUser, KeepsTheHostsBytesEvenWhenInvalid)
{
    sUser = "caf\xE9";
    EXPECT_EQ(Take(Hostinfo_GetUser()), "caf\xE9");
    sUser = "(none)";
    setenv("USER", "\xFF", 1);
    EXPECT_EQ(Take(Hostinfo_GetUser()), "\xFF");
}

struct KillCase {
    int error;
    HostinfoProcessQuery answer;
};
class HostinfoProcess : public testing::TestWithParam<KillCase> {};
TEST_P(HostinfoProcess, IsJudgedByTheError)
{
    sKillError = GetParam().error;
    EXPECT_EQ(Hostinfo_QueryProcessExistence(4711), GetParam().answer) << sKillError;
    sKillError = 0;
}
INSTANTIATE_TEST_SUITE_P(Table, HostinfoProcess,
                         testing::Values(KillCase{EPERM, HOSTINFO_PROCESS_QUERY_ALIVE},
                                         KillCase{ESRCH, HOSTINFO_PROCESS_QUERY_DEAD},
                                         KillCase{ENOENT, HOSTINFO_PROCESS_QUERY_UNKNOWN},
                                         KillCase{EINVAL, HOSTINFO_PROCESS_QUERY_UNKNOWN}));

TEST(HostinfoProcessAnswers, AreTheseNumbers)
{
    EXPECT_EQ(HOSTINFO_PROCESS_QUERY_DEAD, 0);
    EXPECT_EQ(HOSTINFO_PROCESS_QUERY_ALIVE, 1);
    EXPECT_EQ(HOSTINFO_PROCESS_QUERY_UNKNOWN, 2);
}

TEST(HostinfoProcessExistence, IsSoForThisProcess)
{
    EXPECT_EQ(Hostinfo_QueryProcessExistence(getpid()), HOSTINFO_PROCESS_QUERY_ALIVE);
}

TEST(HostinfoProcessExistence, EndsWhenAChildIsReaped)
{
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    EXPECT_EQ(Hostinfo_QueryProcessExistence(child), HOSTINFO_PROCESS_QUERY_ALIVE);
    kill(child, SIGKILL);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(Hostinfo_QueryProcessExistence(child), HOSTINFO_PROCESS_QUERY_DEAD);
}

} // namespace
