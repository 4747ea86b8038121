// Users and groups of the real C library, from files in /etc that only this process sees.  The test
// needs root for that.
#include "posix.h"

#include "allocations.h"
#include "codeset.h"
#include "panic.h"
#include "useIcu.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <type_traits>
#include <unistd.h>

using Strings = std::vector<std::string>;

namespace {

const std::string INVALID(40, '\xFF');

std::string Users()
{
    return "root:x:0:0:root:/root:/bin/bash\n"
           "ada:*:1001:100:Ada Lovelace,,,:/home/ada:/bin/sh\n"
           "caf\u00e9:x:4000000000:4000000001:Caf\u00e9 \u2615:/home/caf\u00e9:/bin/sh\n"
           "bare::1002:100:::\n"
           "broken:x:1003:100:" +
           INVALID + ":/home/" + INVALID + ":/bin/sh\n";
}

Strings ManyMembers()
{
    Strings members;
    for (int i = 0; i < 5000; i++) {
        members.push_back("member" + std::to_string(i));
    }
    members[2500] = "caf\u00e9";
    return members;
}

std::string Joined(const Strings &texts)
{
    std::string joined;
    for (const std::string &text : texts) {
        joined += (joined.empty() ? "" : ",") + text;
    }
    return joined;
}

// The longest line is last: the C library needs room for each line up to the one that it looks for.
std::string Groups()
{
    return "users:x:100:\n"
           "staff:*:200:ada,bare\n"
           "caf\u00e9s:x:4000000001:ada,caf\u00e9\n"
           "broken:x:400:ada," +
           INVALID + "," + INVALID + ",bare\n" + "big:x:300:" + Joined(ManyMembers()) + "\n";
}

class OwnDatabase : public testing::Environment {
    void SetUp() override
    {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "needs root";
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        PutInPlace("/etc/passwd", Users());
        PutInPlace("/etc/group", Groups());
        PutInPlace("/etc/nsswitch.conf", "passwd: files\ngroup: files\n");
    }
    static void PutInPlace(const std::string &path, const std::string &contents)
    {
        const TemporaryFolder folder;
        const std::string file = folder.Path() + "/file";
        std::ofstream(file) << contents;
        ASSERT_EQ(mount(file.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0) << path;
    }
};
const testing::Environment *const OWN_DATABASE = testing::AddGlobalTestEnvironment(new OwnDatabase);

Strings TextOf(const passwd &record)
{
    return {record.pw_name, record.pw_passwd, record.pw_gecos, record.pw_dir, record.pw_shell};
}
Strings TextOf(const group &record)
{
    Strings texts = {record.gr_name, record.gr_passwd};
    for (char **member = record.gr_mem; *member != nullptr; member++) {
        texts.push_back(*member);
    }
    return texts;
}

const Strings ADA = {"ada", "*", "Ada Lovelace,,,", "/home/ada", "/bin/sh"};
const Strings CAFE = {"caf\u00e9", "x", "Caf\u00e9 \u2615", "/home/caf\u00e9", "/bin/sh"};

std::string Repaired(size_t count)
{
    std::string text;
    for (size_t i = 0; i < count; i++) {
        text += "\uFFFD";
    }
    return text;
}
const Strings BROKEN = {"broken", "x", Repaired(40), "/home/" + Repaired(40), "/bin/sh"};
const Strings BROKEN_GROUP = {"broken", "x", "ada", Repaired(40), Repaired(40), "bare"};

size_t Size(const Strings &texts)
{
    size_t size = 0;
    for (const std::string &text : texts) {
        size += text.size() + 1;
    }
    return size;
}

// ---- Users

struct FoundCase {
    const char *name;
    uid_t uid, gid;
    Strings texts;
};
const FoundCase FOUND[] = {{"ada", 1001, 100, ADA},
                           {"caf\u00e9", 4000000000, 4000000001, CAFE},
                           {"bare", 1002, 100, {"bare", "", "", "", ""}}};

class PosixDatabaseUser : public testing::TestWithParam<FoundCase> {
protected:
    static void ExpectFound(const passwd *record)
    {
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(TextOf(*record), GetParam().texts);
        EXPECT_EQ(record->pw_uid, GetParam().uid);
        EXPECT_EQ(record->pw_gid, GetParam().gid);
    }
};

TEST_P(PosixDatabaseUser, IsFoundByName) { ExpectFound(Posix_Getpwnam(GetParam().name)); }
TEST_P(PosixDatabaseUser, IsFoundByNumber) { ExpectFound(Posix_Getpwuid(GetParam().uid)); }

TEST_P(PosixDatabaseUser, IsFoundByNameWithABuffer)
{
    passwd record, *result = nullptr;
    char buffer[1000];
    ASSERT_EQ(Posix_GetpwnamR(GetParam().name, &record, buffer, sizeof buffer, &result), 0);
    EXPECT_EQ(result, &record);
    ExpectFound(result);
}

TEST_P(PosixDatabaseUser, IsFoundByNumberWithABuffer)
{
    passwd record, *result = nullptr;
    char buffer[1000];
    ASSERT_EQ(Posix_GetpwuidR(GetParam().uid, &record, buffer, sizeof buffer, &result), 0);
    EXPECT_EQ(result, &record);
    ExpectFound(result);
}

INSTANTIATE_TEST_SUITE_P(Each, PosixDatabaseUser, testing::ValuesIn(FOUND));

TEST(PosixDatabase, IsReadUserByUserAndAnew)
{
    UseIcu();
    for (int round = 0; round < 2; round++) {
        Strings names;
        while (const passwd *record = Posix_Getpwent()) {
            names.push_back(record->pw_name);
        }
        EXPECT_EQ(names, Strings({"root", "ada", "caf\u00e9", "bare", "broken"}));
        Posix_Endpwent();
    }
    CodeSet_DontUseIcu();
}

TEST(PosixDatabase, BeginsAnewInTheMiddle)
{
    EXPECT_STREQ(Posix_Getpwent()->pw_name, "root");
    EXPECT_STREQ(Posix_Getpwent()->pw_name, "ada");
    Posix_Endpwent();
    EXPECT_STREQ(Posix_Getpwent()->pw_name, "root");
    Posix_Endpwent();
}

TEST(PosixDatabase, HasOneUserAtATime)
{
    const passwd *ada = Posix_Getpwnam("ada");
    const ptrdiff_t live = Allocations::Live();
    EXPECT_EQ(Posix_Getpwnam("caf\u00e9"), ada);
    EXPECT_EQ(TextOf(*ada), CAFE);
    EXPECT_EQ(Allocations::Live(), live) << "the strings of the one before are freed";
}

TEST(PosixDatabase, KeepsTheUserAfterAFailedLookup)
{
    const passwd *ada = Posix_Getpwnam("ada");
    EXPECT_EQ(Posix_Getpwnam("nobody-here"), nullptr);
    EXPECT_EQ(Posix_Getpwuid(77), nullptr);
    EXPECT_EQ(TextOf(*ada), ADA);
}

TEST(PosixDatabase, HasNoSuchUserWithoutAnError)
{
    passwd record, *result = &record;
    char buffer[1000];
    EXPECT_EQ(Posix_GetpwnamR("nobody-here", &record, buffer, sizeof buffer, &result), 0);
    EXPECT_EQ(result, nullptr);
    result = &record;
    EXPECT_EQ(Posix_GetpwuidR(77, &record, buffer, sizeof buffer, &result), 0);
    EXPECT_EQ(result, nullptr);
}

// ---- Groups

TEST(PosixDatabase, FindsAGroup)
{
    const group *record = Posix_Getgrnam("caf\u00e9s");
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(TextOf(*record), Strings({"caf\u00e9s", "x", "ada", "caf\u00e9"}));
    EXPECT_EQ(record->gr_gid, 4000000001);
}

TEST(PosixDatabase, FindsAGroupWithoutMembers)
{
    const group *record = Posix_Getgrnam("users");
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(TextOf(*record), Strings({"users", "x"}));
}

TEST(PosixDatabase, FindsAGroupOfFiveThousand)
{
    const group *record = Posix_Getgrnam("big");
    ASSERT_NE(record, nullptr);
    const Strings texts = TextOf(*record);
    EXPECT_EQ(Strings(texts.begin() + 2, texts.end()), ManyMembers());
}

TEST(PosixDatabase, FindsFiveThousandMembersWithABuffer)
{
    group record, *result = nullptr;
    std::string buffer(500000, '#');
    ASSERT_EQ(Posix_GetgrnamR("big", &record, buffer.data(), buffer.size(), &result), 0);
    ASSERT_EQ(result, &record);
    const Strings texts = TextOf(record);
    EXPECT_EQ(Strings(texts.begin() + 2, texts.end()), ManyMembers());
    EXPECT_EQ(record.gr_gid, 300u);
}

TEST(PosixDatabase, HasOneGroupAtATime)
{
    const group *big = Posix_Getgrnam("big");
    const ptrdiff_t live = Allocations::Live();
    EXPECT_EQ(Posix_Getgrnam("staff"), big);
    EXPECT_EQ(TextOf(*big), Strings({"staff", "*", "ada", "bare"}));
    EXPECT_EQ(Allocations::Live(), live - 4998) << "the strings of the one before are freed";
}

TEST(PosixDatabase, KeepsTheGroupAfterAFailedLookup)
{
    const group *staff = Posix_Getgrnam("staff");
    EXPECT_EQ(Posix_Getgrnam("nobody-here"), nullptr);
    EXPECT_EQ(TextOf(*staff), Strings({"staff", "*", "ada", "bare"}));
}

TEST(PosixDatabase, HasNoSuchGroupWithoutAnError)
{
    group record, *result = &record;
    std::string buffer(500000, '#');
    EXPECT_EQ(Posix_GetgrnamR("nobody-here", &record, buffer.data(), buffer.size(), &result), 0);
    EXPECT_EQ(result, nullptr);
}

// ---- Buffers of every size

template <typename Record>
using FindIn = int (*)(const char *, Record *, char *, size_t, Record **);

// Returns the room for strings next to the C library's other data in the buffer.
size_t Room(const passwd &, const char *, size_t size) { return size; }
size_t Room(const group &record, const char *buffer, size_t size)
{
    const size_t arraySize = (TextOf(record).size() - 1) * sizeof(char *);
    const auto start = reinterpret_cast<uintptr_t>(buffer);
    return (start + size) / sizeof(char *) * sizeof(char *) - arraySize - start;
}

// Compares the library's lookup with the C library's own in buffers of every size.  Returns the
// number of sizes that are large enough for the C library only.
template <typename Record>
size_t Sweep(FindIn<Record> hostFind, FindIn<Record> find, const char *name, const Strings &texts)
{
    size_t tooSmallForUs = 0, fitted = 0;
    for (size_t size = 0; size < 2 * Size(texts) + 100; size++) {
        SCOPED_TRACE(size);
        std::string buffer(size + 1, '#');
        Record record, *result = nullptr;
        const int hostError = hostFind(name, &record, buffer.data(), size, &result);
        const size_t room = hostError == 0 ? Room(record, buffer.data(), size) : 0;
        const int error = find(name, &record, buffer.data(), size, &result);
        EXPECT_EQ(buffer[size], '#') << "written behind the buffer";
        if (hostError != 0) {
            EXPECT_EQ(error, hostError);
            EXPECT_EQ(result, nullptr);
            continue;
        }
        EXPECT_EQ(error, Size(texts) <= room ? 0 : ERANGE);
        if (error == 0) { EXPECT_EQ(TextOf(record), texts); }
        (error == 0 ? fitted : tooSmallForUs)++;
    }
    EXPECT_GT(fitted, 0u);
    return tooSmallForUs;
}

TEST(PosixDatabase, NeedsOnlyTheHostsRoomForUnchangedText)
{
    EXPECT_EQ(Sweep(getpwnam_r, Posix_GetpwnamR, "ada", ADA), 0u);
    EXPECT_EQ(Sweep(getgrnam_r, Posix_GetgrnamR, "staff", {"staff", "*", "ada", "bare"}), 0u);
}

TEST(PosixDatabase, NeedsExtraRoomForTextThatGrows)
{
    UseIcu();
    EXPECT_GT(Sweep(getpwnam_r, Posix_GetpwnamR, "broken", BROKEN), 0u);
    EXPECT_GT(Sweep(getgrnam_r, Posix_GetgrnamR, "broken", BROKEN_GROUP), 0u);
    CodeSet_DontUseIcu();
}

// ---- Bytes that are not text

TEST(PosixDatabase, HasInvalidBytesRepairedByIcu)
{
    UseIcu();
    EXPECT_EQ(TextOf(*Posix_Getpwnam("broken")), BROKEN);
    EXPECT_EQ(TextOf(*Posix_Getgrnam("broken")), BROKEN_GROUP);
    CodeSet_DontUseIcu();
}

TEST(PosixDatabase, EndsTheProcessOverInvalidBytesWithoutIcu)
{
    std::string escaped;
    for (size_t i = 0; i < INVALID.size(); i++) {
        escaped += "\\xFF";
    }
    EXPECT_PANIC(Posix_Getgrnam("broken"),
                 "Unicode_AllocWithLength: Couldn't convert invalid buffer [" + escaped +
                     "] from UTF-8 to Unicode.\n");
}

// ---- Groups of a user

using GroupNumber = std::conditional_t<
    std::is_invocable_v<decltype(getgrouplist), const char *, gid_t, gid_t *, int *>, gid_t, int>;

// The results of the bare call for ada's four groups: how it reports that there was room, which on
// one host is the number of groups, and the number that it counts with room for three.
struct FromTheHost {
    bool isCount;
    int neededCount = 3;
    FromTheHost()
    {
        GroupNumber groups[4];
        int count = 4;
        isCount = getgrouplist("ada", 100, groups, &count) == 4;
        EXPECT_EQ(getgrouplist("ada", 100, groups, &neededCount), -1);
    }
};
int Success(int groups) { return FromTheHost().isCount ? groups : 0; }

TEST(PosixDatabase, ListsTheGroupsOfAUser)
{
    gid_t groups[8] = {};
    int count = 8;
    EXPECT_EQ(Posix_Getgrouplist("ada", 100, groups, &count), Success(4));
    ASSERT_EQ(count, 4);
    EXPECT_EQ(std::vector<gid_t>(groups, groups + 4),
              (std::vector<gid_t>{100, 200, 4000000001, 400}));
}

TEST(PosixDatabase, ListsTheGroupsOfANonAsciiName)
{
    gid_t groups[8] = {};
    int count = 8;
    EXPECT_EQ(Posix_Getgrouplist("caf\u00e9", 5, groups, &count), Success(3));
    EXPECT_EQ(std::vector<gid_t>(groups, groups + 3), (std::vector<gid_t>{5, 4000000001, 300}));
}

TEST(PosixDatabase, ReturnsTheNeededCountWhenRoomIsShort)
{
    gid_t groups[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    int count = 3;
    EXPECT_EQ(Posix_Getgrouplist("ada", 100, groups, &count), -1);
    EXPECT_EQ(count, FromTheHost().neededCount);
    EXPECT_EQ(groups[3], 9u);
}

TEST(PosixDatabase, ListsTheBaseGroupOfAnUnknownUser)
{
    gid_t groups[8] = {};
    int count = 8;
    EXPECT_EQ(Posix_Getgrouplist("nobody-here", 5, groups, &count), Success(1));
    EXPECT_EQ(count, 1);
    EXPECT_EQ(groups[0], 5u);
}

} // namespace
