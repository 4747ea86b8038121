// Users and groups on a host whose encoding is ISO 8859-1: its names have other bytes, text grows
// when it is converted to UTF-8, and the encoding lacks a character.
#include "posix.h"

#include "codeset.h"
#include "useIcu.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <grp.h>
#include <pwd.h>

// Replaces the library's function.
extern "C" const char *CodeSet_GetCurrentCodeSet() { return "ISO-8859-1"; }

namespace {

const char *const SPELT = "Ren\u00e9", *const UNSPELT = "\u0416";

std::vector<std::string> sAsked; // the names, in the host's encoding
passwd sUser;
group sGroup;
char *sMembers[3];

// Fills the record, with its text in the caller's buffer.
template <typename Record>
int Find(const char *name, const char *text, char *Record::*field, Record *record, char *buffer,
         size_t size, Record **result)
{
    sAsked.push_back(name);
    *result = nullptr;
    if (strlen(text) >= size) { return ERANGE; }
    *record = {};
    record->*field = strcpy(buffer, text);
    *result = record;
    return 0;
}

} // namespace

extern "C" {
passwd *__wrap_getpwnam(const char *name)
{
    sAsked.push_back(name);
    return &sUser;
}
passwd *__wrap_getpwuid(uid_t) { return &sUser; }
passwd *__wrap_getpwent() { return &sUser; }
void __wrap_endpwent() {}
group *__wrap_getgrnam(const char *name)
{
    sAsked.push_back(name);
    return &sGroup;
}
int __wrap_getpwnam_r(const char *name, passwd *record, char *buffer, size_t size, passwd **result)
{
    return Find(name, "Ren\xE9", &passwd::pw_name, record, buffer, size, result);
}
int __wrap_getpwuid_r(uid_t, passwd *record, char *buffer, size_t size, passwd **result)
{
    return Find("", "Ren\xE9", &passwd::pw_name, record, buffer, size, result);
}
int __wrap_getgrnam_r(const char *name, group *record, char *buffer, size_t size, group **result)
{
    return Find(name, "Ren\xE9", &group::gr_name, record, buffer, size, result);
}
int __wrap_getgrouplist(const char *user, gid_t, gid_t *, int *)
{
    sAsked.push_back(user);
    return 2;
}
}

namespace {

class PosixUsersLatin1 : public testing::Test {
protected:
    PosixUsersLatin1()
    {
        UseIcu();
        sAsked.clear();
        sUser = {};
        sGroup = {};
        sUser.pw_name = sGroup.gr_name = sMembers[0] = mName;
        sUser.pw_gecos = sGroup.gr_passwd = sMembers[1] = mOther;
        sGroup.gr_mem = sMembers;
        errno = 0;
    }
    ~PosixUsersLatin1() override { CodeSet_DontUseIcu(); }

    static void ExpectTheNameInLatin1()
    {
        EXPECT_EQ(sAsked, std::vector<std::string>{"Ren\xE9"});
        EXPECT_EQ(errno, 0);
    }
    static void ExpectNoCall()
    {
        EXPECT_EQ(sAsked, std::vector<std::string>{});
        EXPECT_EQ(errno, ERANGE);
    }

    char mName[5] = "Ren\xE9", mOther[3] = "\xFC\xFF";
    char mBuffer[100] = {};
};

TEST_F(PosixUsersLatin1, AreAskedByNameInLatin1)
{
    EXPECT_NE(Posix_Getpwnam(SPELT), nullptr);
    ExpectTheNameInLatin1();
}

TEST_F(PosixUsersLatin1, FindUsersInLatin1WithABuffer)
{
    passwd record, *result = nullptr;
    EXPECT_EQ(Posix_GetpwnamR(SPELT, &record, mBuffer, sizeof mBuffer, &result), 0);
    ExpectTheNameInLatin1();
}

TEST_F(PosixUsersLatin1, FindGroupsByNameInLatin1)
{
    EXPECT_NE(Posix_Getgrnam(SPELT), nullptr);
    ExpectTheNameInLatin1();
}

TEST_F(PosixUsersLatin1, FindGroupsInLatin1WithABuffer)
{
    group record, *result = nullptr;
    EXPECT_EQ(Posix_GetgrnamR(SPELT, &record, mBuffer, sizeof mBuffer, &result), 0);
    ExpectTheNameInLatin1();
}

TEST_F(PosixUsersLatin1, HaveTheirGroupsListedByNameInLatin1)
{
    int count = 0;
    EXPECT_EQ(Posix_Getgrouplist(SPELT, 5, nullptr, &count), 2);
    ExpectTheNameInLatin1();
}

TEST_F(PosixUsersLatin1, AreInUtf8)
{
    for (passwd *record : {Posix_Getpwnam(SPELT), Posix_Getpwuid(5), Posix_Getpwent()}) {
        ASSERT_NE(record, nullptr);
        EXPECT_STREQ(record->pw_name, SPELT);
        EXPECT_STREQ(record->pw_gecos, "\u00fc\u00ff");
    }
}

TEST_F(PosixUsersLatin1, HaveGroupsInUtf8)
{
    const group *record = Posix_Getgrnam(SPELT);
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->gr_name, SPELT);
    EXPECT_STREQ(record->gr_passwd, "\u00fc\u00ff");
    ASSERT_NE(record->gr_mem, nullptr);
    EXPECT_STREQ(record->gr_mem[0], SPELT);
    EXPECT_STREQ(record->gr_mem[1], "\u00fc\u00ff");
    EXPECT_EQ(record->gr_mem[2], nullptr);
}

// The name takes five bytes in the host's encoding, and six in UTF-8.
TEST_F(PosixUsersLatin1, NeedABufferForTheirTextInUtf8)
{
    passwd record, *result = nullptr;
    EXPECT_EQ(Posix_GetpwnamR(SPELT, &record, mBuffer, 4, &result), ERANGE);
    EXPECT_EQ(result, nullptr) << "the host itself has no room";
    EXPECT_EQ(Posix_GetpwnamR(SPELT, &record, mBuffer, 5, &result), ERANGE);
    EXPECT_EQ(Posix_GetpwuidR(5, &record, mBuffer, 5, &result), ERANGE);
    EXPECT_EQ(Posix_GetpwnamR(SPELT, &record, mBuffer, 6, &result), 0);
    EXPECT_STREQ(record.pw_name, SPELT);
    EXPECT_EQ(Posix_GetpwuidR(5, &record, mBuffer, 6, &result), 0);
    EXPECT_STREQ(record.pw_name, SPELT);
}

TEST_F(PosixUsersLatin1, NeedRoomForGroupTextInUtf8)
{
    group record, *result = nullptr;
    EXPECT_EQ(Posix_GetgrnamR(SPELT, &record, mBuffer, 5, &result), ERANGE);
    EXPECT_EQ(Posix_GetgrnamR(SPELT, &record, mBuffer, 6, &result), 0);
    EXPECT_STREQ(record.gr_name, SPELT);
}

TEST_F(PosixUsersLatin1, RefuseAnUnrepresentableUserName)
{
    EXPECT_EQ(Posix_Getpwnam(UNSPELT), nullptr);
    ExpectNoCall();
}

TEST_F(PosixUsersLatin1, RefuseAnUnrepresentableUserNameWithABuffer)
{
    passwd record, *result = &record;
    EXPECT_EQ(Posix_GetpwnamR(UNSPELT, &record, mBuffer, sizeof mBuffer, &result), ERANGE);
    EXPECT_EQ(result, nullptr);
    ExpectNoCall();
}

TEST_F(PosixUsersLatin1, RefuseAnUnrepresentableGroupName)
{
    EXPECT_EQ(Posix_Getgrnam(UNSPELT), nullptr);
    ExpectNoCall();
}

TEST_F(PosixUsersLatin1, RefuseAnUnrepresentableGroupNameWithABuffer)
{
    group record, *result = &record;
    EXPECT_EQ(Posix_GetgrnamR(UNSPELT, &record, mBuffer, sizeof mBuffer, &result), ERANGE);
    EXPECT_EQ(result, nullptr);
    ExpectNoCall();
}

TEST_F(PosixUsersLatin1, KeepTheirRecordsAfterAnUnrepresentableName)
{
    const passwd *user = Posix_Getpwnam(SPELT);
    const group *team = Posix_Getgrnam(SPELT);
    Posix_Getpwnam(UNSPELT);
    Posix_Getgrnam(UNSPELT);
    EXPECT_STREQ(user->pw_name, SPELT);
    EXPECT_STREQ(team->gr_name, SPELT);
}

struct UnspeltCase {
    int room, result;
    gid_t first;
};
class PosixGetgrouplistLatin1 : public PosixUsersLatin1,
                                public testing::WithParamInterface<UnspeltCase> {};
TEST_P(PosixGetgrouplistLatin1, ListsOnlyTheBaseGroupForUnrepresentableNames)
{
    const auto &[room, result, first] = GetParam();
    gid_t groups[4] = {9, 9, 9, 9};
    int count = room;
    EXPECT_EQ(Posix_Getgrouplist(UNSPELT, 4000000000, groups, &count), result);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(groups[0], first);
    EXPECT_EQ(groups[1], 9u);
    ExpectNoCall();
}
INSTANTIATE_TEST_SUITE_P(Rooms, PosixGetgrouplistLatin1,
                         testing::Values(UnspeltCase{4, 1, 4000000000},
                                         UnspeltCase{1, 1, 4000000000}, UnspeltCase{0, -1, 9},
                                         UnspeltCase{-1, -1, 9}));

} // namespace
