#include "posixUsersHost.h"

#include <cstring>
#include <utility>

Host &ThisHost()
{
    static thread_local Host host;
    return host;
}

namespace {

int Asked(const std::string &call)
{
    EXPECT_EQ(errno, FROM_CALLER) << "nothing has left a trace before the call";
    ThisHost().asked.push_back(call);
    errno = FROM_HOST;
    return 0;
}

} // namespace

extern "C" {

passwd *__wrap_getpwnam(const char *name)
{
    Asked("getpwnam " + Text(name));
    return ThisHost().user;
}
passwd *__wrap_getpwuid(uid_t uid)
{
    Asked("getpwuid " + std::to_string(uid));
    return ThisHost().user;
}
passwd *__wrap_getpwent()
{
    Asked("getpwent");
    return ThisHost().user;
}
void __wrap_endpwent() { Asked("endpwent"); }
group *__wrap_getgrnam(const char *name)
{
    Asked("getgrnam " + Text(name));
    return ThisHost().team;
}
int __wrap_getpwnam_r(const char *name, passwd *record, char *buffer, size_t size, passwd **result)
{
    Asked("getpwnam_r " + Text(name));
    return ThisHost().findUser(record, buffer, size, result);
}
int __wrap_getpwuid_r(uid_t uid, passwd *record, char *buffer, size_t size, passwd **result)
{
    Asked("getpwuid_r " + std::to_string(uid));
    return ThisHost().findUser(record, buffer, size, result);
}
int __wrap_getgrnam_r(const char *name, group *record, char *buffer, size_t size, group **result)
{
    Asked("getgrnam_r " + Text(name));
    return ThisHost().findGroup(record, buffer, size, result);
}
int __wrap_getgrouplist(const char *user, gid_t baseGroup, gid_t *groups, int *count)
{
    Asked("getgrouplist " + Text(user) + " " + std::to_string(baseGroup) + " " +
          std::to_string(*count));
    groups[0] = 4000000000;
    *count = 7;
    return -3;
}

// A conversion may change errno.
Unicode __real_Unicode_AllocWithLength(const void *buffer, ssize_t length, StringEncoding encoding);
Unicode __wrap_Unicode_AllocWithLength(const void *buffer, ssize_t length, StringEncoding encoding)
{
    const bool fails = buffer != nullptr && !ThisHost().unconvertible.empty() &&
                       ThisHost().unconvertible == static_cast<const char *>(buffer);
    Unicode text = fails ? nullptr : __real_Unicode_AllocWithLength(buffer, length, encoding);
    errno = FROM_CONVERSION;
    return text;
}
Unicode *__real_Unicode_AllocList(char **list, ssize_t count, StringEncoding encoding);
Unicode *__wrap_Unicode_AllocList(char **list, ssize_t count, StringEncoding encoding)
{
    Unicode *texts =
        ThisHost().losesMembers ? nullptr : __real_Unicode_AllocList(list, count, encoding);
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

// ---- Layouts

char *Layout::Put(const std::string &text)
{
    if (text == ABSENT) { return nullptr; }
    char *place = Take(text.size() + 1);
    return place == nullptr ? nullptr : strcpy(place, text.c_str());
}

char **Layout::PutArray(size_t count)
{
    while (reinterpret_cast<uintptr_t>(mNext) % alignof(char *) != 0) {
        if (Take(1) == nullptr) { return nullptr; }
    }
    return reinterpret_cast<char **>(Take(count * sizeof(char *)));
}

char **Layout::PutArrayAtEnd(size_t count)
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

char *Layout::Take(size_t size)
{
    if (mIsFull || mEnd - mNext < static_cast<ptrdiff_t>(size)) {
        mIsFull = true;
        return nullptr;
    }
    return std::exchange(mNext, mNext + size);
}

// ---- Users

std::vector<char *> Users::Places(const passwd &record)
{
    return {record.pw_name, record.pw_passwd, record.pw_gecos, record.pw_dir, record.pw_shell};
}

void Users::SetPlaces(const std::vector<char *> &places, char **, passwd *record)
{
    record->pw_name = places[0];
    record->pw_passwd = places[1];
    record->pw_gecos = places[2];
    record->pw_dir = places[3];
    record->pw_shell = places[4];
}

std::vector<id_t> Users::Numbers(const passwd &record) { return {record.pw_uid, record.pw_gid}; }

void Users::SetNumbers(id_t first, passwd *record)
{
    record->pw_uid = first;
    record->pw_gid = first + 1;
}

Strings Users::Without(size_t field)
{
    Strings texts = FIRST;
    texts[field] = ABSENT;
    return texts;
}

ptrdiff_t Users::Blocks(const Strings &texts)
{
    return texts.size() - std::count(texts.begin(), texts.end(), ABSENT);
}

void Users::HostHas(const Strings &texts, const std::vector<size_t> &order)
{
    AnswerInBuffer() = [=](passwd *record, char *buffer, size_t size, passwd **result) {
        *result = nullptr;
        Layout layout(buffer, size);
        std::vector<char *> places(texts.size());
        for (const size_t field : order) {
            places[field] = layout.Put(texts[field]);
        }
        if (layout.IsFull()) { return ERANGE; }
        SetPlaces(places, nullptr, record);
        SetNumbers(4000000001, record);
        *result = record;
        return 0;
    };
}

// ---- Groups

std::vector<char *> Groups::Places(const group &record)
{
    std::vector<char *> places = {record.gr_name, record.gr_passwd};
    if (record.gr_mem == nullptr) { places.push_back(nullptr); }
    for (char **member = record.gr_mem; member != nullptr && *member != nullptr; member++) {
        places.push_back(*member);
    }
    return places;
}

void Groups::SetPlaces(const std::vector<char *> &places, char **array, group *record)
{
    record->gr_name = places[0];
    record->gr_passwd = places[1];
    const bool hasArray = places.size() == 2 || places[2] != nullptr;
    record->gr_mem = hasArray ? array : nullptr;
    if (hasArray) { *std::copy(places.begin() + 2, places.end(), array) = nullptr; }
}

std::vector<id_t> Groups::Numbers(const group &record) { return {record.gr_gid}; }

void Groups::SetNumbers(id_t first, group *record) { record->gr_gid = first; }

Strings Groups::Without(size_t field)
{
    Strings texts = FIRST;
    if (field == 2) { texts.resize(3); }
    texts[field] = ABSENT;
    return texts;
}

ptrdiff_t Groups::Blocks(const Strings &texts)
{
    const bool hasArray = texts.size() == 2 || texts[2] != ABSENT;
    return texts.size() - std::count(texts.begin(), texts.end(), ABSENT) + (hasArray ? 1 : 0);
}

void Groups::ExpectArrayIsClear(const group &record, const char *start, const char *end)
{
    if (record.gr_mem == nullptr) { return; }
    const auto array = reinterpret_cast<uintptr_t>(record.gr_mem);
    const uintptr_t arrayEnd = array + (Places(record).size() - 1) * sizeof(char *);
    EXPECT_EQ(array % alignof(char *), 0u);
    EXPECT_TRUE(arrayEnd <= reinterpret_cast<uintptr_t>(start) ||
                array >= reinterpret_cast<uintptr_t>(end))
        << "clear of the texts";
}

void Groups::HostHas(const Strings &texts, Array where)
{
    const size_t count = texts.size() - 1; // not name and password, but the final null
    AnswerInBuffer() = [=, outside = std::vector<char *>(count)](
                           group *record, char *buffer, size_t size, group **result) mutable {
        *result = nullptr;
        Layout layout(buffer, size);
        char **array = outside.data();
        if (where == Array::AtEnd) { array = layout.PutArrayAtEnd(count); }
        if (where == Array::First) { array = layout.PutArray(count); }
        std::vector<char *> places = {layout.Put(texts[0]), layout.Put(texts[1])};
        if (where == Array::Middle) { array = layout.PutArray(count); }
        for (size_t i = 2; i < texts.size(); i++) {
            places.push_back(layout.Put(texts[i]));
        }
        if (where == Array::Last) { array = layout.PutArray(count); }
        if (layout.IsFull()) { return ERANGE; }
        SetPlaces(places, array, record);
        SetNumbers(4000000001, record);
        *result = record;
        return 0;
    };
}
