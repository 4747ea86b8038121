// posixUsers.cpp -- the C library's users and groups, with their text in UTF-8.
#include "posix.h"

#include "posixInt.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>
#include <utility>

using namespace pelago;

namespace {

template <typename Record, size_t COUNT> using UsersFields = char *Record::*const[COUNT];

// The text members of a record in the order in which they are converted: those of a static record
// (OWN_), and those of a caller's record, which are packed into the caller's buffer in that order.
constexpr UsersFields<passwd, 5> OWN_PASSWD_TEXT = {
    &passwd::pw_passwd, &passwd::pw_dir, &passwd::pw_name, &passwd::pw_gecos, &passwd::pw_shell};
constexpr UsersFields<passwd, 5> PASSWD_TEXT = {
    &passwd::pw_name, &passwd::pw_passwd, &passwd::pw_gecos, &passwd::pw_dir, &passwd::pw_shell};
constexpr UsersFields<group, 2> OWN_GROUP_TEXT = {&group::gr_passwd, &group::gr_name};
constexpr UsersFields<group, 2> GROUP_TEXT = {&group::gr_name, &group::gr_passwd};

// The static records.  Their strings live until the next record is stored here.
passwd sPasswd;
group sGroup;

// ---- Conversion

// Converts these fields; returns whether all were converted.  After a failure the fields before the
// failed one are set.
template <typename Record, size_t COUNT>
bool UsersConvert(const Record &from, const UsersFields<Record, COUNT> &fields, Record *to)
{
    return std::all_of(fields, fields + COUNT, [&](auto field) {
        to->*field = PosixFromHost(from.*field);
        return to->*field != nullptr || from.*field == nullptr;
    });
}

char **UsersConvertMembers(char **members)
{
    ErrnoSaver keep;
    return members == nullptr ? nullptr : Unicode_AllocList(members, -1, STRING_ENCODING_DEFAULT);
}

template <typename Record, size_t COUNT>
void UsersFreeText(const UsersFields<Record, COUNT> &fields, Record *record)
{
    for (const auto field : fields) {
        const ScopedFree<char> text(std::exchange(record->*field, nullptr));
    }
}

void UsersFree(passwd *record) { UsersFreeText(PASSWD_TEXT, record); }

void UsersFree(group *record)
{
    UsersFreeText(GROUP_TEXT, record);
    const ScopedTextList members(std::exchange(record->gr_mem, nullptr));
}

// ---- Records of our own

passwd *UsersKeep(const passwd *found)
{
    if (found == nullptr) { return nullptr; }
    UsersFree(&sPasswd);
    sPasswd.pw_uid = found->pw_uid;
    sPasswd.pw_gid = found->pw_gid;
    if (!UsersConvert(*found, OWN_PASSWD_TEXT, &sPasswd)) {
        errno = ENOMEM;
        return nullptr;
    }
    return &sPasswd;
}

group *UsersKeep(const group *found)
{
    if (found == nullptr) { return nullptr; }
    UsersFree(&sGroup);
    sGroup.gr_gid = found->gr_gid;
    if (!UsersConvert(*found, OWN_GROUP_TEXT, &sGroup)) {
        errno = ENOMEM;
        return nullptr;
    }
    sGroup.gr_mem = UsersConvertMembers(found->gr_mem);
    return &sGroup;
}

// ---- Records of the caller's

// Returns the bytes that a string takes in a buffer.
size_t UsersSize(const char *text) { return text == nullptr ? 0 : strlen(text) + 1; }

// Packs strings into a buffer, one after another from its start.
class UsersPacker {
public:
    UsersPacker(char *buffer, size_t size) : mNext(buffer), mRoom(size) {}

    // Copies the string and stores the copy's address in *place; returns whether there was room.
    // NULL needs no room and leaves *place unchanged.
    bool Put(const char *text, char **place)
    {
        const size_t size = UsersSize(text);
        if (size > mRoom) { return false; }
        if (size == 0) { return true; }
        *place = static_cast<char *>(memcpy(mNext, text, size));
        mNext += size;
        mRoom -= size;
        return true;
    }

    template <typename Record, size_t COUNT>
    bool PutText(const Record &text, const UsersFields<Record, COUNT> &fields, Record *record)
    {
        return std::all_of(fields, fields + COUNT,
                           [&](auto field) { return Put(text.*field, &(record->*field)); });
    }

    bool PutMembers(char **members, char **places)
    {
        if (members == nullptr) { return true; }
        while (*members != nullptr) {
            if (!Put(*members++, places++)) { return false; }
        }
        return true;
    }

private:
    char *mNext;
    size_t mRoom;
};

// Clears pw_class, which macOS has and Linux has not: it would point into overwritten text.
template <typename Record> void UsersForgetClass(Record *record)
{
    if constexpr (requires { record->pw_class; }) { record->pw_class = nullptr; }
}

bool UsersPack(const passwd &text, passwd *record, char *buffer, size_t size)
{
    UsersForgetClass(record);
    return UsersPacker(buffer, size).PutText(text, PASSWD_TEXT, record);
}

size_t UsersSize(const group &text)
{
    size_t size = UsersSize(text.gr_name) + UsersSize(text.gr_passwd);
    for (char **member = text.gr_mem; member != nullptr && *member != nullptr; member++) {
        size += UsersSize(*member);
    }
    return size;
}

// The C library puts the array of members anywhere into the same buffer.  If the strings would
// overwrite it, it is moved to the buffer's end.  Returns the room for the strings.
size_t UsersMakeRoom(const group &text, group *record, char *buffer, size_t size)
{
    if (record->gr_mem == nullptr) { return size; }
    size_t count = 1;
    while (record->gr_mem[count - 1] != nullptr) {
        count++;
    }
    const size_t arraySize = count * sizeof(char *);
    const auto start = reinterpret_cast<uintptr_t>(buffer);
    const uintptr_t offset = reinterpret_cast<uintptr_t>(record->gr_mem) - start;
    // The offset of an array before the buffer wraps around, and is larger than any buffer.
    if (arraySize > size || offset > size - arraySize) { return size; }
    if (UsersSize(text) <= offset) { return offset; }
    const uintptr_t end = (start + size - arraySize) / alignof(char *) * alignof(char *) - start;
    record->gr_mem = static_cast<char **>(memmove(buffer + end, record->gr_mem, arraySize));
    return end;
}

bool UsersPack(const group &text, group *record, char *buffer, size_t size)
{
    UsersPacker packer(buffer, UsersMakeRoom(text, record, buffer, size));
    return packer.PutText(text, GROUP_TEXT, record) &&
           packer.PutMembers(text.gr_mem, record->gr_mem);
}

bool UsersConvert(const passwd &from, passwd *to) { return UsersConvert(from, PASSWD_TEXT, to); }

bool UsersConvert(const group &from, group *to)
{
    if (!UsersConvert(from, GROUP_TEXT, to)) { return false; }
    to->gr_mem = UsersConvertMembers(from.gr_mem);
    return true;
}

// Converts everything before it packs anything, since packing overwrites the original text.
template <typename Record> int UsersRewrite(Record *record, char *buffer, size_t size)
{
    Record text = {};
    int error = ENOMEM;
    if (UsersConvert(*record, &text)) {
        error = UsersPack(text, record, buffer, size) ? 0 : ERANGE;
    }
    UsersFree(&text);
    return error;
}

// Rewrites the record if the C library has found one.  After an error *result is NULL, whatever the
// C library has stored there, since the record may be half rewritten.
template <typename Record>
int UsersRewriteFound(int error, Record *record, char *buffer, size_t size, Record **result)
{
    if (error == 0 && *result != nullptr) { error = UsersRewrite(record, buffer, size); }
    if (error != 0) { *result = nullptr; }
    return error;
}

template <typename Record>
int UsersFind(int (*find)(const char *, Record *, char *, size_t, Record **), const char *name,
              Record *record, char *buffer, size_t size, Record **result)
{
    const HostText hostName(name);
    if (hostName.IsUnspellable()) {
        errno = ERANGE;
        return ERANGE;
    }
    return find(hostName, record, buffer, size, result);
}

// getgrouplist() takes groups as gid_t on Linux, and as int on macOS.
template <typename Group>
int UsersGroupList(int (*list)(const char *, Group, Group *, int *), const HostText &user,
                   gid_t baseGroup, gid_t *groups, int *count)
{
    static_assert(sizeof(Group) == sizeof(gid_t));
    return list(user, static_cast<Group>(baseGroup), reinterpret_cast<Group *>(groups), count);
}

} // namespace

extern "C" {

struct passwd *Posix_Getpwnam(const char *name)
{
    const passwd *found = PosixCall(getpwnam, HostText(name));
    return UsersKeep(found);
}

struct passwd *Posix_Getpwuid(uid_t uid) { return UsersKeep(getpwuid(uid)); }

struct passwd *Posix_Getpwent() { return UsersKeep(getpwent()); }

void Posix_Endpwent() { endpwent(); }

struct group *Posix_Getgrnam(const char *name)
{
    const group *found = PosixCall(getgrnam, HostText(name));
    return UsersKeep(found);
}

int Posix_GetpwnamR(const char *name, struct passwd *record, char *buffer, size_t size,
                    struct passwd **result)
{
    const int error = UsersFind(getpwnam_r, name, record, buffer, size, result);
    return UsersRewriteFound(error, record, buffer, size, result);
}

int Posix_GetpwuidR(uid_t uid, struct passwd *record, char *buffer, size_t size,
                    struct passwd **result)
{
    const int error = getpwuid_r(uid, record, buffer, size, result);
    return UsersRewriteFound(error, record, buffer, size, result);
}

int Posix_GetgrnamR(const char *name, struct group *record, char *buffer, size_t size,
                    struct group **result)
{
    const int error = UsersFind(getgrnam_r, name, record, buffer, size, result);
    return UsersRewriteFound(error, record, buffer, size, result);
}

int Posix_Getgrouplist(const char *user, gid_t baseGroup, gid_t *groups, int *count)
{
    const HostText hostUser(user);
    if (!hostUser.IsUnspellable()) {
        return UsersGroupList(getgrouplist, hostUser, baseGroup, groups, count);
    }
    errno = ERANGE;
    if (std::exchange(*count, 1) <= 0) { return -1; }
    groups[0] = baseGroup;
    return 1;
}

} // extern "C"
