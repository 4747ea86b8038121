// Users and groups of a C library that answers as it is told to: every layout of a record, every
// failure.  posixUsersDatabase_test asks the real one.
#include "posix.h"

#include "allocations.h"
#include "codeset.h"
#include "panic.h"
#include "together.h"
#include "useIcu.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <grp.h>
#include <ostream>
#include <pwd.h>
#include <string>
#include <tuple>
#include <vector>

using Strings = std::vector<std::string>;

namespace {

// What the C library finds, and what it was asked; each thread has its own.
struct Host {
    Strings asked;
    passwd *user = nullptr;
    group *team = nullptr;
    std::function<int(passwd *, char *, size_t, passwd **)> findUser;
    std::function<int(group *, char *, size_t, group **)> findGroup;
    std::string unconvertible; // this text cannot be converted
    bool losesMembers = false; // nor can any list
};
thread_local Host tHost;

constexpr int FROM_CALLER = 1111; // errno before a call; the C library leaves the next one
constexpr int FROM_HOST = 2222, FROM_CONVERSION = 3333;

const std::string ABSENT = "(absent)";

char *Raw(const std::string &text)
{
    return text == ABSENT ? nullptr : const_cast<char *>(text.c_str());
}
std::string Text(const char *text) { return text == nullptr ? ABSENT : text; }

int Asked(const std::string &call)
{
    EXPECT_EQ(errno, FROM_CALLER) << "nothing has left a trace before the call";
    tHost.asked.push_back(call);
    errno = FROM_HOST;
    return 0;
}

} // namespace

extern "C" {

passwd *__wrap_getpwnam(const char *name)
{
    Asked("getpwnam " + Text(name));
    return tHost.user;
}
passwd *__wrap_getpwuid(uid_t uid)
{
    Asked("getpwuid " + std::to_string(uid));
    return tHost.user;
}
passwd *__wrap_getpwent()
{
    Asked("getpwent");
    return tHost.user;
}
void __wrap_endpwent() { Asked("endpwent"); }
group *__wrap_getgrnam(const char *name)
{
    Asked("getgrnam " + Text(name));
    return tHost.team;
}
int __wrap_getpwnam_r(const char *name, passwd *record, char *buffer, size_t size, passwd **result)
{
    Asked("getpwnam_r " + Text(name));
    return tHost.findUser(record, buffer, size, result);
}
int __wrap_getpwuid_r(uid_t uid, passwd *record, char *buffer, size_t size, passwd **result)
{
    Asked("getpwuid_r " + std::to_string(uid));
    return tHost.findUser(record, buffer, size, result);
}
int __wrap_getgrnam_r(const char *name, group *record, char *buffer, size_t size, group **result)
{
    Asked("getgrnam_r " + Text(name));
    return tHost.findGroup(record, buffer, size, result);
}
int __wrap_getgrouplist(const char *user, gid_t baseGroup, gid_t *groups, int *count)
{
    Asked("getgrouplist " + Text(user) + " " + std::to_string(baseGroup) + " " +
          std::to_string(*count));
    groups[0] = 4000000000;
    *count = 7;
    return -3;
}

// Conversions are free to change errno.
Unicode __real_Unicode_AllocWithLength(const void *buffer, ssize_t length, StringEncoding encoding);
Unicode __wrap_Unicode_AllocWithLength(const void *buffer, ssize_t length, StringEncoding encoding)
{
    const bool fails = buffer != nullptr && !tHost.unconvertible.empty() &&
                       tHost.unconvertible == static_cast<const char *>(buffer);
    Unicode text = fails ? nullptr : __real_Unicode_AllocWithLength(buffer, length, encoding);
    errno = FROM_CONVERSION;
    return text;
}
Unicode *__real_Unicode_AllocList(char **list, ssize_t count, StringEncoding encoding);
Unicode *__wrap_Unicode_AllocList(char **list, ssize_t count, StringEncoding encoding)
{
    Unicode *texts = tHost.losesMembers ? nullptr : __real_Unicode_AllocList(list, count, encoding);
    errno = FROM_CONVERSION;
    return texts;
}
char *__real_Unicode_GetAllocBytes(const char *string, StringEncoding encoding);
char *__wrap_Unicode_GetAllocBytes(const char *string, StringEncoding encoding)
{
    char *bytes = __real_Unicode_GetAllocBytes(string, encoding);
    errno = FROM_CONVERSION;
    return bytes;
}

} // extern "C"

namespace {

// ---- Texts

// What ICU makes of bytes that are not UTF-8, when each stands alone.
std::string Repaired(const std::string &bytes)
{
    std::string text;
    for (const char byte : bytes) {
        text += static_cast<unsigned char>(byte) < 0x80 ? std::string(1, byte) : "\xEF\xBF\xBD";
    }
    return text;
}
Strings Repaired(Strings texts)
{
    for (std::string &text : texts) {
        text = Repaired(text);
    }
    return texts;
}
size_t Size(const std::string &text) { return text == ABSENT ? 0 : text.size() + 1; }
size_t Size(const Strings &texts)
{
    size_t size = 0;
    for (const std::string &text : texts) {
        size += Size(text);
    }
    return size;
}

// Name, password, full name, home, shell.
using PasswdText = Strings;
const PasswdText ADA = {"ada", "x", "Ada Lovelace,,,", "/home/ada", "/bin/sh"};
const PasswdText BOB = {"bob", "*", "", "/", "/usr/sbin/nologin"};
const PasswdText LONGER = {"a\xFF", "\xFE", "\xFF\xFF\xFF", "/h\xE9", "/bin/\xFF"};

passwd Passwd(const PasswdText &texts, uid_t uid = 0, gid_t gid = 0)
{
    passwd record = {};
    record.pw_name = Raw(texts[0]);
    record.pw_passwd = Raw(texts[1]);
    record.pw_gecos = Raw(texts[2]);
    record.pw_dir = Raw(texts[3]);
    record.pw_shell = Raw(texts[4]);
    record.pw_uid = uid;
    record.pw_gid = gid;
    return record;
}
PasswdText TextOf(const passwd &record)
{
    return {Text(record.pw_name), Text(record.pw_passwd), Text(record.pw_gecos),
            Text(record.pw_dir), Text(record.pw_shell)};
}

// Name, password and members.
struct GroupText {
    std::string name, password;
    Strings members;
    Strings All() const
    {
        Strings all = {name, password};
        all.insert(all.end(), members.begin(), members.end());
        return all;
    }
};
void PrintTo(const GroupText &text, std::ostream *out)
{
    *out << testing::PrintToString(text.All());
}
const GroupText STAFF = {"staff", "x", {"ada", "bob", "", "caf\xC3\xA9"}};
const GroupText EMPTY = {"none", "", {}};

// A group as the C library keeps one.
class HostGroup {
public:
    explicit HostGroup(const GroupText &text, gid_t gid = 0) : mText(text)
    {
        for (const std::string &member : mText.members) {
            mMembers.push_back(Raw(member));
        }
        mMembers.push_back(nullptr);
        mRecord.gr_name = Raw(mText.name);
        mRecord.gr_passwd = Raw(mText.password);
        mRecord.gr_gid = gid;
        mRecord.gr_mem = mMembers.data();
    }
    HostGroup(const HostGroup &) = delete;
    HostGroup &operator=(const HostGroup &) = delete;
    group *Record() { return &mRecord; }

private:
    const GroupText mText;
    std::vector<char *> mMembers;
    group mRecord = {};
};

Strings Members(const group &record)
{
    if (record.gr_mem == nullptr) { return {ABSENT}; }
    Strings members;
    for (char **member = record.gr_mem; *member != nullptr; member++) {
        members.push_back(*member);
    }
    return members;
}
Strings TextOf(const group &record)
{
    Strings all = {Text(record.gr_name), Text(record.gr_passwd)};
    const Strings members = Members(record);
    all.insert(all.end(), members.begin(), members.end());
    return all;
}

class PosixUsers : public testing::Test {
protected:
    PosixUsers()
    {
        tHost = {};
        CodeSet_DontUseIcu();
        Unicode_GetCurrentEncoding(); // what it keeps is not counted
        errno = FROM_CALLER;
    }
    ~PosixUsers() override { CodeSet_DontUseIcu(); }
};

// Makes a call with errno as a caller has it.
template <typename Call> auto Calling(Call call)
{
    errno = FROM_CALLER;
    return call();
}

// ---- Users, in the record that belongs to the library

struct StaticUser {
    const char *name;
    passwd *(*find)();
    std::string asks;
};
void PrintTo(const StaticUser &row, std::ostream *out) { *out << row.name; }

class PosixStaticUser : public PosixUsers, public testing::WithParamInterface<StaticUser> {
protected:
    static passwd *Find(passwd *found)
    {
        tHost.user = found;
        return Calling(GetParam().find);
    }
    static passwd *Find(const PasswdText &texts, uid_t uid = 0, gid_t gid = 0)
    {
        passwd record = Passwd(texts, uid, gid);
        return Find(&record);
    }
};

TEST_P(PosixStaticUser, IsWhatTheHostFinds)
{
    const passwd *record = Find(ADA, 4000000001, 4000000002);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(TextOf(*record), ADA);
    EXPECT_EQ(record->pw_uid, 4000000001);
    EXPECT_EQ(record->pw_gid, 4000000002);
    EXPECT_EQ(tHost.asked, Strings{GetParam().asks});
}

TEST_P(PosixStaticUser, IsACopy)
{
    std::string name = "ada";
    passwd found = Passwd(ADA);
    found.pw_name = name.data();
    const passwd *record = Find(&found);
    ASSERT_NE(record, nullptr);
    name[0] = 'X';
    EXPECT_NE(record, &found);
    EXPECT_EQ(Text(record->pw_name), "ada");
}

TEST_P(PosixStaticUser, HasItsInvalidBytesRepairedByIcu)
{
    UseIcu();
    const passwd *record = Find(LONGER);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(TextOf(*record), Repaired(LONGER));
}

TEST_P(PosixStaticUser, LeavesErrnoToTheHost)
{
    EXPECT_NE(Find(ADA), nullptr);
    EXPECT_EQ(errno, FROM_HOST);
}

TEST_P(PosixStaticUser, KeepsAbsentTextAbsent)
{
    for (size_t field = 0; field < 5; field++) {
        PasswdText texts = ADA;
        texts[field] = ABSENT;
        const passwd *record = Find(texts);
        ASSERT_NE(record, nullptr) << field;
        EXPECT_EQ(TextOf(*record), texts);
    }
}

TEST_P(PosixStaticUser, TakesThePlaceOfTheOneBefore)
{
    const passwd *ada = Find(ADA, 1, 2);
    const passwd *bob = Find(BOB, 3, 4);
    EXPECT_EQ(ada, bob);
    EXPECT_EQ(TextOf(*bob), BOB);
    EXPECT_EQ(bob->pw_uid, 3);
    EXPECT_EQ(bob->pw_gid, 4);
}

TEST_P(PosixStaticUser, HasTheStringsOfTheOneBeforeFreed)
{
    Find({ABSENT, ABSENT, ABSENT, ABSENT, ABSENT});
    const ptrdiff_t live = Allocations::Live();
    Find(ADA);
    EXPECT_EQ(Allocations::Live(), live + 5);
    Find(BOB);
    EXPECT_EQ(Allocations::Live(), live + 5);
    Find({"only", ABSENT, ABSENT, ABSENT, ABSENT});
    EXPECT_EQ(Allocations::Live(), live + 1);
}

TEST_P(PosixStaticUser, StaysWhenTheHostFindsNone)
{
    const passwd *ada = Find(ADA, 1, 2);
    EXPECT_EQ(Find(nullptr), nullptr);
    EXPECT_EQ(errno, FROM_HOST);
    EXPECT_EQ(TextOf(*ada), ADA);
    EXPECT_EQ(ada->pw_uid, 1);
}

TEST_P(PosixStaticUser, KeepsFieldsConvertedBeforeTheOneThatFails)
{
    passwd *const record = Find(BOB);
    const ptrdiff_t live = Allocations::Live();
    const size_t order[] = {1, 3, 0, 2, 4};
    PasswdText expected(5, ABSENT);
    for (const size_t field : order) {
        tHost.unconvertible = ADA[field];
        EXPECT_EQ(Find(ADA, 5, 6), nullptr) << ADA[field];
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(TextOf(*record), expected);
        EXPECT_EQ(record->pw_uid, 5);
        EXPECT_EQ(record->pw_gid, 6);
        expected[field] = ADA[field];
    }
    tHost.unconvertible = "";
    EXPECT_NE(Find(BOB), nullptr);
    EXPECT_EQ(Allocations::Live(), live) << "what was left of the failures is gone";
}

TEST_P(PosixStaticUser, EndsTheProcessForInvalidBytes)
{
    EXPECT_PANIC(Find({"ada", "x", "caf\xE9", "/", "/bin/sh"}),
                 "Unicode_AllocWithLength: Couldn't convert invalid buffer [caf\\xE9] from UTF-8 "
                 "to Unicode.\n");
}

INSTANTIATE_TEST_SUITE_P(
    Calls, PosixStaticUser,
    testing::Values(
        StaticUser{"ByName", [] { return Posix_Getpwnam("caf\xC3\xA9"); }, "getpwnam caf\xC3\xA9"},
        StaticUser{"ByNumber", [] { return Posix_Getpwuid(4000000000); }, "getpwuid 4000000000"},
        StaticUser{"InTurn", [] { return Posix_Getpwent(); }, "getpwent"}),
    [](const auto &row) { return row.param.name; });

TEST_F(PosixUsers, HaveOneStaticRecord)
{
    passwd ada = Passwd(ADA);
    tHost.user = &ada;
    const passwd *record = Posix_Getpwnam("ada");
    EXPECT_EQ(Calling([] { return Posix_Getpwuid(1); }), record);
    EXPECT_EQ(Calling([] { return Posix_Getpwent(); }), record);
}

TEST_F(PosixUsers, AreLeftByEndpwent)
{
    Posix_Endpwent();
    EXPECT_EQ(errno, FROM_HOST);
    EXPECT_EQ(tHost.asked, Strings{"endpwent"});
}

TEST_F(PosixUsers, MayBeAskedForWithoutAName)
{
    passwd user;
    passwd *foundUser = &user;
    group team;
    group *foundTeam = &team;
    gid_t groups[9] = {};
    int count = 9;
    tHost.findUser = [](passwd *, char *, size_t, passwd **result) {
        *result = nullptr;
        return EINVAL;
    };
    tHost.findGroup = [](group *, char *, size_t, group **result) {
        *result = nullptr;
        return EINVAL;
    };
    EXPECT_EQ(Calling([] { return Posix_Getpwnam(nullptr); }), nullptr);
    EXPECT_EQ(Calling([] { return Posix_Getgrnam(nullptr); }), nullptr);
    EXPECT_EQ(Calling([&] { return Posix_GetpwnamR(nullptr, &user, nullptr, 0, &foundUser); }),
              EINVAL);
    EXPECT_EQ(Calling([&] { return Posix_GetgrnamR(nullptr, &team, nullptr, 0, &foundTeam); }),
              EINVAL);
    EXPECT_EQ(Calling([&] { return Posix_Getgrouplist(nullptr, 5, groups, &count); }), -3);
    EXPECT_EQ(foundUser, nullptr);
    EXPECT_EQ(foundTeam, nullptr);
    EXPECT_EQ(tHost.asked, (Strings{"getpwnam (absent)", "getgrnam (absent)", "getpwnam_r (absent)",
                                    "getgrnam_r (absent)", "getgrouplist (absent) 5 9"}));
}

TEST_F(PosixUsers, FreeTheConvertedNameAfterALookup)
{
    const ptrdiff_t live = Allocations::Live();
    EXPECT_EQ(Posix_Getpwnam("nobody"), nullptr);
    EXPECT_EQ(Calling([] { return Posix_Getgrnam("nobody"); }), nullptr);
    EXPECT_EQ(Allocations::Live(), live);
}

// ---- Groups, in the record that belongs to the library

class PosixStaticGroup : public PosixUsers {
protected:
    static group *Find(group *found)
    {
        tHost.team = found;
        return Calling([] { return Posix_Getgrnam("caf\xC3\xA9"); });
    }
    static group *Find(const GroupText &text, gid_t gid = 0)
    {
        return Find(HostGroup(text, gid).Record());
    }
};

TEST_F(PosixStaticGroup, IsWhatTheHostFinds)
{
    const group *record = Find(STAFF, 4000000001);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(TextOf(*record), STAFF.All());
    EXPECT_EQ(record->gr_gid, 4000000001);
    EXPECT_EQ(tHost.asked, Strings{"getgrnam caf\xC3\xA9"});
}

TEST_F(PosixStaticGroup, HasItsInvalidBytesRepairedByIcu)
{
    UseIcu();
    const group *record = Find({"gr\xFC", "\xFF", {"\xE9", "plain"}});
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(TextOf(*record), Repaired({"gr\xFC", "\xFF", "\xE9", "plain"}));
}

TEST_F(PosixStaticGroup, LeavesErrnoToTheHost)
{
    EXPECT_NE(Find(STAFF), nullptr);
    EXPECT_EQ(errno, FROM_HOST);
}

TEST_F(PosixStaticGroup, MayHaveNoMembers)
{
    const group *record = Find(EMPTY);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(Members(*record), Strings{});
}

TEST_F(PosixStaticGroup, KeepsAbsentTextAbsent)
{
    HostGroup found({ABSENT, ABSENT, {}});
    found.Record()->gr_mem = nullptr;
    const group *record = Find(found.Record());
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(TextOf(*record), Strings({ABSENT, ABSENT, ABSENT}));
}

TEST_F(PosixStaticGroup, TakesThePlaceOfTheOneBefore)
{
    const group *staff = Find(STAFF, 1);
    EXPECT_EQ(Find(EMPTY, 2), staff);
    EXPECT_EQ(TextOf(*staff), EMPTY.All());
    EXPECT_EQ(staff->gr_gid, 2);
}

TEST_F(PosixStaticGroup, FreesThePreviousStringsAndMembers)
{
    HostGroup absent({ABSENT, ABSENT, {}});
    absent.Record()->gr_mem = nullptr;
    Find(absent.Record());
    const ptrdiff_t live = Allocations::Live();
    for (int i = 0; i < 2; i++) {
        Find(STAFF);
        EXPECT_EQ(Allocations::Live(), live + 7) << "two texts, the array, four members";
    }
    Find(EMPTY);
    EXPECT_EQ(Allocations::Live(), live + 3);
    Find(absent.Record());
    EXPECT_EQ(Allocations::Live(), live);
}

TEST_F(PosixStaticGroup, StaysWhenTheHostFindsNone)
{
    const group *staff = Find(STAFF, 1);
    EXPECT_EQ(Find(nullptr), nullptr);
    EXPECT_EQ(errno, FROM_HOST);
    EXPECT_EQ(TextOf(*staff), STAFF.All());
    EXPECT_EQ(staff->gr_gid, 1);
}

TEST_F(PosixStaticGroup, KeepsFieldsConvertedBeforeTheOneThatFails)
{
    const group *record = Find(STAFF);
    tHost.unconvertible = "*";
    EXPECT_EQ(Find({"wheel", "*", {"ada"}}, 5), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(TextOf(*record), Strings({ABSENT, ABSENT, ABSENT}));
    EXPECT_EQ(record->gr_gid, 5);
    tHost.unconvertible = "wheel";
    EXPECT_EQ(Find({"wheel", "*", {"ada"}}), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(TextOf(*record), Strings({ABSENT, "*", ABSENT}));
}

TEST_F(PosixStaticGroup, HasNoMembersWhenTheyCannotBeConverted)
{
    tHost.losesMembers = true;
    const group *record = Find(STAFF, 5);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(errno, FROM_HOST);
    EXPECT_EQ(TextOf(*record), Strings({"staff", "x", ABSENT}));
    EXPECT_EQ(record->gr_gid, 5);
}

TEST_F(PosixStaticGroup, EndsTheProcessForAnInvalidMember)
{
    EXPECT_PANIC(Find({"staff", "x", {"ada", "\xFF"}}),
                 "Unicode_AllocWithLength: Couldn't convert invalid buffer [\\xFF] from UTF-8 to "
                 "Unicode.\n");
}

// ---- A caller's buffer

// So many bytes at an address that is by so much no multiple of 16; what is around them must stay.
class Buffer {
public:
    Buffer(size_t size, size_t shift) : mSize(size), mShift(shift), mBytes(size + 2 * AROUND, FILL)
    {}
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    ~Buffer()
    {
        const auto isFill = [](char byte) { return byte == FILL; };
        EXPECT_TRUE(std::all_of(mBytes.data(), Start(), isFill)) << "written before the buffer";
        EXPECT_TRUE(std::all_of(Start() + mSize, mBytes.data() + mBytes.size(), isFill))
            << "written behind the buffer";
    }
    char *Start() { return mBytes.data() + AROUND / 2 + mShift; }
    size_t Size() const { return mSize; }

private:
    static constexpr size_t AROUND = 64;
    static constexpr char FILL = '#';
    const size_t mSize, mShift;
    std::string mBytes;
};

// Hands out a buffer from its start, as the C library does.
class Layout {
public:
    Layout(char *buffer, size_t size) : mNext(buffer), mEnd(buffer + size) {}

    char *Put(const std::string &text)
    {
        if (text == ABSENT) { return nullptr; }
        char *place = Take(text.size() + 1);
        return place == nullptr ? nullptr : strcpy(place, text.c_str());
    }
    char **PutArray(size_t count)
    {
        while (reinterpret_cast<uintptr_t>(mNext) % alignof(char *) != 0) {
            if (Take(1) == nullptr) { return nullptr; }
        }
        return reinterpret_cast<char **>(Take(count * sizeof(char *)));
    }
    // The last ones that it has.
    char **PutArrayAtEnd(size_t count)
    {
        while (reinterpret_cast<uintptr_t>(mEnd) % alignof(char *) != 0) {
            mEnd--;
        }
        if (mEnd - mNext < static_cast<ptrdiff_t>(count * sizeof(char *))) {
            mIsFull = true;
            return nullptr;
        }
        mEnd -= count * sizeof(char *);
        return reinterpret_cast<char **>(mEnd);
    }
    bool IsFull() const { return mIsFull; }

private:
    char *Take(size_t size)
    {
        if (mIsFull || mEnd - mNext < static_cast<ptrdiff_t>(size)) {
            mIsFull = true;
            return nullptr;
        }
        return std::exchange(mNext, mNext + size);
    }

    char *mNext, *mEnd;
    bool mIsFull = false;
};

// ---- Users, in the caller's record

struct CallersUser {
    const char *name;
    int (*find)(passwd *record, char *buffer, size_t size, passwd **result);
    std::string asks;
};
void PrintTo(const CallersUser &row, std::ostream *out) { *out << row.name; }

class PosixCallersUser : public PosixUsers, public testing::WithParamInterface<CallersUser> {
protected:
    int Find(Buffer &buffer)
    {
        const ptrdiff_t live = Allocations::Live();
        const int error = Calling(
            [&] { return GetParam().find(&mRecord, buffer.Start(), buffer.Size(), &mResult); });
        EXPECT_EQ(Allocations::Live(), live);
        EXPECT_EQ(errno, FROM_HOST);
        if (error != 0) { EXPECT_EQ(mResult, nullptr) << "after error " << error; }
        return error;
    }

    // The host puts these strings into the buffer, in that order of the fields.
    static void HostHas(const PasswdText &texts, const std::vector<size_t> &order = {0, 1, 2, 3, 4})
    {
        tHost.findUser = [=](passwd *record, char *buffer, size_t size, passwd **result) {
            *result = nullptr;
            Layout layout(buffer, size);
            char *places[5];
            for (const size_t field : order) {
                places[field] = layout.Put(texts[field]);
            }
            if (layout.IsFull()) { return ERANGE; }
            record->pw_name = places[0];
            record->pw_passwd = places[1];
            record->pw_gecos = places[2];
            record->pw_dir = places[3];
            record->pw_shell = places[4];
            record->pw_uid = 4000000001;
            record->pw_gid = 4000000002;
            *result = record;
            return 0;
        };
    }

    // What is packed into so much room when the host finds these.
    static PasswdText Packed(const PasswdText &found, const PasswdText &texts, size_t size,
                             bool *fits)
    {
        PasswdText packed = found;
        size_t used = 0;
        *fits = true;
        for (size_t i = 0; i < texts.size() && *fits; i++) {
            used += Size(texts[i]);
            *fits = used <= size;
            if (*fits) { packed[i] = texts[i]; }
        }
        return packed;
    }

    // Where the strings are: one after another from the start of the buffer, as far as they go.
    void ExpectPlaces(Buffer &buffer, const PasswdText &texts, size_t count)
    {
        char *const places[] = {mRecord.pw_name, mRecord.pw_passwd, mRecord.pw_gecos,
                                mRecord.pw_dir, mRecord.pw_shell};
        size_t used = 0;
        for (size_t i = 0; i < count; i++) {
            if (texts[i] == ABSENT) {
                EXPECT_EQ(places[i], nullptr);
                continue;
            }
            EXPECT_EQ(places[i] - buffer.Start(), static_cast<ptrdiff_t>(used)) << i;
            EXPECT_EQ(Text(places[i]), texts[i]);
            used += Size(texts[i]);
        }
    }

    passwd mRecord = {};
    passwd *mResult = nullptr;
};

TEST_P(PosixCallersUser, IsWhatTheHostFinds)
{
    HostHas(ADA);
    Buffer buffer(1000, 0);
    EXPECT_EQ(Find(buffer), 0);
    EXPECT_EQ(mResult, &mRecord);
    EXPECT_EQ(TextOf(mRecord), ADA);
    EXPECT_EQ(mRecord.pw_uid, 4000000001);
    EXPECT_EQ(mRecord.pw_gid, 4000000002);
    EXPECT_EQ(tHost.asked, Strings{GetParam().asks});
}

TEST_P(PosixCallersUser, IsNoneWithoutAnError)
{
    tHost.findUser = [](passwd *, char *, size_t, passwd **result) {
        *result = nullptr;
        return 0;
    };
    Buffer buffer(100, 0);
    mResult = &mRecord;
    EXPECT_EQ(Find(buffer), 0);
    EXPECT_EQ(mResult, nullptr);
}

TEST_P(PosixCallersUser, IsTheHostsError)
{
    // Whatever else there is, an error is all that counts.
    tHost.findUser = [](passwd *record, char *buffer, size_t, passwd **result) {
        record->pw_name = strcpy(buffer, "caf\xE9");
        *result = record;
        return EIO;
    };
    Buffer buffer(100, 0);
    EXPECT_EQ(Find(buffer), EIO);
    EXPECT_EQ(mRecord.pw_name, buffer.Start());
}

TEST_P(PosixCallersUser, IsPackedIntoTheBufferInFieldOrder)
{
    UseIcu();
    for (const auto &order : std::vector<std::vector<size_t>>{{0, 1, 2, 3, 4}, {4, 3, 2, 1, 0}}) {
        HostHas(LONGER, order);
        Buffer buffer(1000, 0);
        ASSERT_EQ(Find(buffer), 0);
        ExpectPlaces(buffer, Repaired(LONGER), 5);
    }
}

TEST_P(PosixCallersUser, MayShareItsStrings)
{
    UseIcu();
    tHost.findUser = [](passwd *record, char *buffer, size_t, passwd **result) {
        record->pw_gecos = strcpy(buffer, "\xFF/bin/sh"); // and others are its end
        record->pw_name = record->pw_passwd = buffer + 1;
        record->pw_dir = buffer + 4;
        record->pw_shell = buffer + 8;
        *result = record;
        return 0;
    };
    Buffer buffer(100, 0);
    ASSERT_EQ(Find(buffer), 0);
    ExpectPlaces(buffer, {"/bin/sh", "/bin/sh", "\xEF\xBF\xBD/bin/sh", "n/sh", ""}, 5);
}

TEST_P(PosixCallersUser, MayHaveItsStringsElsewhere)
{
    tHost.findUser = [](passwd *record, char *, size_t, passwd **result) {
        *record = Passwd(ADA);
        *result = record;
        return 0;
    };
    Buffer buffer(Size(ADA), 0);
    ASSERT_EQ(Find(buffer), 0);
    ExpectPlaces(buffer, ADA, 5);
}

TEST_P(PosixCallersUser, KeepsAbsentTextAbsent)
{
    for (size_t field = 0; field < 5; field++) {
        PasswdText texts = ADA;
        texts[field] = ABSENT;
        HostHas(texts);
        Buffer buffer(Size(texts), 0);
        EXPECT_EQ(Find(buffer), 0);
        ExpectPlaces(buffer, texts, 5);
    }
}

TEST_P(PosixCallersUser, IsUnchangedWhenAConversionFails)
{
    HostHas(ADA, {4, 3, 2, 1, 0});
    for (const std::string &text : ADA) {
        tHost.unconvertible = text;
        Buffer buffer(1000, 0);
        EXPECT_EQ(Find(buffer), ENOMEM) << text;
        EXPECT_EQ(TextOf(mRecord), ADA);
        EXPECT_EQ(mRecord.pw_shell, buffer.Start()) << "nothing is packed";
    }
}

// Every size of the buffer.
TEST_P(PosixCallersUser, FitsOrNotToTheByte)
{
    UseIcu();
    for (const PasswdText &found : {ADA, BOB, LONGER}) {
        HostHas(found);
        const PasswdText texts = Repaired(found);
        for (size_t size = 0; size < Size(texts) + 20; size++) {
            SCOPED_TRACE(size);
            Buffer buffer(size, 0);
            bool fits = false;
            const PasswdText packed = Packed(found, texts, size, &fits);
            fits = fits && size >= Size(found);
            ASSERT_EQ(Find(buffer), fits ? 0 : ERANGE);
            if (fits) { ExpectPlaces(buffer, texts, 5); }
        }
    }
}

// What the host found fits in less than it does in UTF-8.
TEST_P(PosixCallersUser, KeepsWhatFitsWhereItIsPacked)
{
    UseIcu();
    tHost.findUser = [](passwd *record, char *, size_t, passwd **result) {
        *record = Passwd(LONGER);
        *result = record;
        return 0;
    };
    const PasswdText texts = Repaired(LONGER);
    size_t used = 0;
    for (size_t count = 0; count < 5; count++) {
        used += Size(texts[count]);
        Buffer tooSmall(used - 1, 0);
        EXPECT_EQ(Find(tooSmall), ERANGE);
        ExpectPlaces(tooSmall, texts, count);
        EXPECT_EQ(TextOf(mRecord)[count], LONGER[count]) << "and no further";
        Buffer fits(used, 0);
        EXPECT_EQ(Find(fits), count == 4 ? 0 : ERANGE);
        ExpectPlaces(fits, texts, count + 1);
    }
}

TEST_P(PosixCallersUser, EndsTheProcessForInvalidBytes)
{
    HostHas({"ada", "x", "", "/", "/bin/\xFF"});
    Buffer buffer(1000, 0);
    EXPECT_PANIC(Find(buffer), "Unicode_AllocWithLength: Couldn't convert invalid buffer "
                               "[/bin/\\xFF] from UTF-8 to Unicode.\n");
}

INSTANTIATE_TEST_SUITE_P(
    Calls, PosixCallersUser,
    testing::Values(CallersUser{"ByName",
                                [](passwd *record, char *buffer, size_t size, passwd **result) {
                                    return Posix_GetpwnamR("caf\xC3\xA9", record, buffer, size,
                                                           result);
                                },
                                "getpwnam_r caf\xC3\xA9"},
                    CallersUser{"ByNumber",
                                [](passwd *record, char *buffer, size_t size, passwd **result) {
                                    return Posix_GetpwuidR(4000000000, record, buffer, size,
                                                           result);
                                },
                                "getpwuid_r 4000000000"}),
    [](const auto &row) { return row.param.name; });

// ---- Groups, in the caller's record

enum class Array { First, Middle, Last, AtEnd, Outside };
void PrintTo(Array where, std::ostream *out)
{
    constexpr const char *NAMES[] = {"first", "in the middle", "last", "at the end", "outside"};
    *out << "array " << NAMES[static_cast<int>(where)];
}

// The group is laid out with its array there.
void HostHasGroup(const GroupText &text, Array where)
{
    tHost.findGroup = [=](group *record, char *buffer, size_t size, group **result) {
        static thread_local std::vector<char *> outside;
        const size_t count = text.members.size() + 1;
        Layout layout(buffer, size);
        char **members = nullptr;
        *result = nullptr;
        if (where == Array::AtEnd) { members = layout.PutArrayAtEnd(count); }
        if (where == Array::First) { members = layout.PutArray(count); }
        char *name = layout.Put(text.name), *password = layout.Put(text.password);
        if (where == Array::Middle) { members = layout.PutArray(count); }
        std::vector<char *> places;
        for (const std::string &member : text.members) {
            places.push_back(layout.Put(member));
        }
        places.push_back(nullptr);
        if (where == Array::Last) { members = layout.PutArray(count); }
        if (where == Array::Outside) {
            outside.assign(count, nullptr);
            members = outside.data();
        }
        if (layout.IsFull()) { return ERANGE; }
        std::copy(places.begin(), places.end(), members);
        *record = {name, password, 4000000001, members};
        *result = record;
        return 0;
    };
}

class PosixCallersGroup : public PosixUsers {
protected:
    int Find(Buffer &buffer) { return Find(buffer.Start(), buffer.Size()); }
    int Find(char *start, size_t size)
    {
        const ptrdiff_t live = Allocations::Live();
        const int error = Calling(
            [&] { return Posix_GetgrnamR("caf\xC3\xA9", &mRecord, start, size, &mResult); });
        EXPECT_EQ(Allocations::Live(), live);
        EXPECT_EQ(errno, FROM_HOST);
        if (error != 0) { EXPECT_EQ(mResult, nullptr) << "after error " << error; }
        return error;
    }

    // The strings stand one after another from the start of the buffer, and the array, wherever it
    // is, clear of them.
    void ExpectPacked(Buffer &buffer, const Strings &texts)
    {
        std::vector<const char *> places = {mRecord.gr_name, mRecord.gr_passwd};
        for (char **member = mRecord.gr_mem; *member != nullptr; member++) {
            places.push_back(*member);
        }
        ASSERT_EQ(places.size(), texts.size());
        const char *next = buffer.Start();
        for (size_t i = 0; i < texts.size(); i++) {
            if (texts[i] == ABSENT) {
                EXPECT_EQ(places[i], nullptr);
                continue;
            }
            ASSERT_EQ(static_cast<const void *>(places[i]), next) << i;
            EXPECT_EQ(Text(places[i]), texts[i]);
            next += Size(texts[i]);
        }
        const auto array = reinterpret_cast<uintptr_t>(mRecord.gr_mem);
        const uintptr_t arrayEnd = array + (texts.size() - 1) * sizeof(char *);
        EXPECT_EQ(array % alignof(char *), 0u);
        EXPECT_TRUE(arrayEnd <= reinterpret_cast<uintptr_t>(buffer.Start()) ||
                    array >= reinterpret_cast<uintptr_t>(next))
            << "clear of the strings";
    }

    group mRecord = {};
    group *mResult = nullptr;
};

TEST_F(PosixCallersGroup, IsWhatTheHostFinds)
{
    HostHasGroup(STAFF, Array::Last);
    Buffer buffer(1000, 0);
    EXPECT_EQ(Find(buffer), 0);
    EXPECT_EQ(mResult, &mRecord);
    EXPECT_EQ(TextOf(mRecord), STAFF.All());
    EXPECT_EQ(mRecord.gr_gid, 4000000001);
    EXPECT_EQ(tHost.asked, Strings{"getgrnam_r caf\xC3\xA9"});
}

TEST_F(PosixCallersGroup, IsNoneWithoutAnError)
{
    tHost.findGroup = [](group *, char *, size_t, group **result) {
        *result = nullptr;
        return 0;
    };
    Buffer buffer(100, 0);
    mResult = &mRecord;
    EXPECT_EQ(Find(buffer), 0);
    EXPECT_EQ(mResult, nullptr);
}

TEST_F(PosixCallersGroup, IsTheHostsError)
{
    tHost.findGroup = [](group *record, char *buffer, size_t, group **result) {
        record->gr_name = strcpy(buffer, "caf\xE9");
        *result = record;
        return EIO;
    };
    Buffer buffer(100, 0);
    EXPECT_EQ(Find(buffer), EIO);
    EXPECT_EQ(mRecord.gr_name, buffer.Start());
}

TEST_F(PosixCallersGroup, IsUnchangedWhenAConversionFails)
{
    HostHasGroup(STAFF, Array::First);
    for (const char *text : {"staff", "x"}) {
        tHost.unconvertible = text;
        Buffer buffer(1000, 0);
        EXPECT_EQ(Find(buffer), ENOMEM) << text;
        EXPECT_EQ(TextOf(mRecord), STAFF.All());
        EXPECT_NE(mRecord.gr_name, buffer.Start()) << "nothing is packed";
    }
}

TEST_F(PosixCallersGroup, KeepsItsMembersWhenTheyCannotBeConverted)
{
    tHost.losesMembers = true;
    HostHasGroup(STAFF, Array::Last);
    Buffer buffer(1000, 0);
    EXPECT_EQ(Find(buffer), 0);
    EXPECT_EQ(TextOf(mRecord), STAFF.All());
    EXPECT_EQ(mRecord.gr_name, buffer.Start());
}

TEST_F(PosixCallersGroup, MayHaveNoTextAndNoArray)
{
    tHost.findGroup = [](group *record, char *, size_t, group **result) {
        *record = {nullptr, nullptr, 5, nullptr};
        *result = record;
        return 0;
    };
    Buffer buffer(0, 0);
    EXPECT_EQ(Find(buffer), 0);
    EXPECT_EQ(TextOf(mRecord), Strings({ABSENT, ABSENT, ABSENT}));
}

TEST_F(PosixCallersGroup, NeedsNoRoomForAnAbsentText)
{
    const GroupText text = {ABSENT, "x", {"ada"}};
    HostHasGroup(text, Array::Outside);
    Buffer buffer(Size(text.All()), 0);
    EXPECT_EQ(Find(buffer), 0);
    ExpectPacked(buffer, text.All());
}

TEST_F(PosixCallersGroup, KeepsAnArrayOutsideTheBufferInPlace)
{
    static char *members[] = {const_cast<char *>("ada"), nullptr};
    tHost.findGroup = [](group *record, char *, size_t, group **result) {
        *record = {const_cast<char *>("g"), const_cast<char *>("x"), 5, members};
        *result = record;
        return 0;
    };
    Buffer buffer(8, 0);
    EXPECT_EQ(Find(buffer), 0);
    EXPECT_EQ(mRecord.gr_mem, members);
    ExpectPacked(buffer, {"g", "x", "ada"});
}

// Right before the buffer, right behind it, and at either end of it.
TEST_F(PosixCallersGroup, KnowsWhereTheBufferEnds)
{
    UseIcu();
    alignas(char *) char block[16 + 96 + 16];
    char *const start = block + 16;
    for (const ptrdiff_t offset : {-16, 0, 80, 96}) {
        tHost.findGroup = [=](group *record, char *buffer, size_t, group **result) {
            auto members = reinterpret_cast<char **>(buffer + offset);
            strcpy(buffer + 20, "\xFF");
            members[0] = buffer + 20;
            members[1] = nullptr;
            *record = {buffer + 20, buffer + 20, 5, members};
            *result = record;
            return 0;
        };
        ASSERT_EQ(Find(start, 96), 0) << offset;
        EXPECT_EQ(TextOf(mRecord), Repaired({"\xFF", "\xFF", "\xFF"}));
        const ptrdiff_t expected = offset == 0 ? 80 : offset;
        EXPECT_EQ(reinterpret_cast<char *>(mRecord.gr_mem) - start, expected);
    }
}

TEST_F(PosixCallersGroup, MayHaveMembersThatShareTheirStrings)
{
    UseIcu();
    tHost.findGroup = [](group *record, char *buffer, size_t, group **result) {
        auto members = reinterpret_cast<char **>(buffer);
        char *text = strcpy(buffer + 40, "\xFF-jbob");
        members[0] = text + 3;
        members[1] = text;
        members[2] = text + 2;
        members[3] = text + 6;
        members[4] = nullptr;
        *record = {text + 1, text, 5, members};
        *result = record;
        return 0;
    };
    Buffer buffer(128, 0);
    ASSERT_EQ(Find(buffer), 0);
    const std::string whole = "\xEF\xBF\xBD-jbob";
    ExpectPacked(buffer, {"-jbob", whole, "bob", whole, "jbob", ""});
}

TEST_F(PosixCallersGroup, HasFiveThousandMembersThatAllGetLonger)
{
    UseIcu();
    GroupText text = {"big", "x", {}};
    for (int i = 0; i < 5000; i++) {
        text.members.push_back("\xFF" + std::to_string(i));
    }
    const Strings repaired = Repaired(text.All());
    const size_t fits = Size(repaired) + 5001 * sizeof(char *);
    for (const Array where : {Array::First, Array::Middle, Array::Last, Array::AtEnd}) {
        HostHasGroup(text, where);
        Buffer buffer(fits / sizeof(char *) * sizeof(char *) + sizeof(char *), 0);
        ASSERT_EQ(Find(buffer), 0);
        ExpectPacked(buffer, repaired);
        Buffer tooSmall(fits - 1, 0);
        EXPECT_EQ(Find(tooSmall), ERANGE);
    }
}

TEST_F(PosixCallersGroup, EndsTheProcessForAnInvalidMember)
{
    HostHasGroup({"staff", "x", {"ada", "\xFF"}}, Array::Last);
    Buffer buffer(1000, 0);
    EXPECT_PANIC(Find(buffer), "Unicode_AllocWithLength: Couldn't convert invalid buffer [\\xFF] "
                               "from UTF-8 to Unicode.\n");
}

class PosixCallersGroupArray
    : public PosixCallersGroup,
      public testing::WithParamInterface<std::tuple<Array, GroupText, size_t>> {};

// Every size of the buffer, with its start on an address of every kind.
TEST_P(PosixCallersGroupArray, FitsOrNotToTheByte)
{
    UseIcu();
    const auto &[where, text, shift] = GetParam();
    HostHasGroup(text, where);
    const Strings texts = Repaired(text.All());
    const size_t arraySize = (text.members.size() + 1) * sizeof(char *);
    size_t foundIn = 0, fittedIn = 0;
    for (size_t size = 0; size < Size(texts) + arraySize + 40; size++) {
        SCOPED_TRACE(size);
        Buffer buffer(size, shift);
        group hostRecord = {};
        group *hostResult = nullptr;
        const int hostError = tHost.findGroup(&hostRecord, buffer.Start(), size, &hostResult);
        const int error = Find(buffer);
        if (hostError != 0) {
            ASSERT_EQ(error, hostError);
            EXPECT_EQ(mResult, nullptr);
            continue;
        }
        foundIn++;
        // The array is best kept at the end, from an aligned address on.
        const auto start = reinterpret_cast<uintptr_t>(buffer.Start());
        const size_t room =
            where == Array::Outside
                ? size
                : (start + size) / sizeof(char *) * sizeof(char *) - arraySize - start;
        ASSERT_EQ(error, Size(texts) <= room ? 0 : ERANGE);
        EXPECT_EQ(mResult, error == 0 ? &mRecord : nullptr);
        if (error == 0) {
            fittedIn++;
            ExpectPacked(buffer, texts);
            if (hostRecord.gr_mem == mRecord.gr_mem) { continue; }
            EXPECT_GT(buffer.Start() + Size(texts), reinterpret_cast<char *>(hostRecord.gr_mem))
                << "an array that is in nobody's way stays";
        } else if (Size(texts[0]) <= room) {
            EXPECT_EQ(mRecord.gr_name, buffer.Start()) << "what fitted is there";
            EXPECT_EQ(Text(mRecord.gr_name), texts[0]);
        }
    }
    EXPECT_GT(fittedIn, 0u);
    // What gets longer by less may go where the array's alignment has left a gap.
    if (Size(texts) > Size(text.All()) + alignof(char *)) { EXPECT_LT(fittedIn, foundIn); }
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, PosixCallersGroupArray,
    testing::Combine(
        testing::Values(Array::First, Array::Middle, Array::Last, Array::AtEnd, Array::Outside),
        testing::Values(GroupText{"staff", "x", {"ada", "bob", "", "long-name"}}, EMPTY,
                        GroupText{"\xFF\xFF\xFF", "\xFE", {"\xFF", "\xE9", "", "caf\xE9"}},
                        GroupText{"g", "", {"\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"}},
                        GroupText{"g", "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", {}},
                        GroupText{"up to", "the array", {"no more"}},
                        GroupText{"\xFF-more", "by one.", {}}),
        testing::Values(0, 1, 7)));

// ---- Groups of a user

TEST_F(PosixUsers, HaveTheGroupsThatTheHostLists)
{
    gid_t groups[9] = {};
    int count = 9;
    const ptrdiff_t live = Allocations::Live();
    EXPECT_EQ(Posix_Getgrouplist("caf\xC3\xA9", 4000000002, groups, &count), -3);
    EXPECT_EQ(errno, FROM_HOST);
    EXPECT_EQ(count, 7);
    EXPECT_EQ(groups[0], 4000000000);
    EXPECT_EQ(tHost.asked, Strings{"getgrouplist caf\xC3\xA9 4000000002 9"});
    EXPECT_EQ(Allocations::Live(), live);
}

// ---- Threads

TEST_F(PosixUsers, ServeManyThreadsWithTheirOwnRecords)
{
    Together(4, [](int thread) {
        const std::string member = "member" + std::to_string(thread);
        HostHasGroup({"staff", "x", {member}}, Array::First);
        for (int i = 0; i < 2000; i++) {
            Buffer buffer(200, 0);
            group record = {};
            group *result = nullptr;
            errno = FROM_CALLER;
            ASSERT_EQ(Posix_GetgrnamR("staff", &record, buffer.Start(), 200, &result), 0);
            ASSERT_EQ(TextOf(record), Strings({"staff", "x", member}));
        }
    });
}

} // namespace
