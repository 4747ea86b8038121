// posixUsersHost.h -- a C library whose users and groups a test scripts: every layout of a record,
// every failure.
#ifndef PELAGO_TESTS_MISC_POSIXUSERSHOST_H
#define PELAGO_TESTS_MISC_POSIXUSERSHOST_H

#include "posix.h"

#include "allocations.h"
#include "codeset.h"
#include "panic.h"
#include "useIcu.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <grp.h>
#include <iterator>
#include <memory>
#include <ostream>
#include <pwd.h>
#include <string>
#include <vector>

using Strings = std::vector<std::string>;
template <typename Record> using Finder = std::function<int(Record *, char *, size_t, Record **)>;

// The records that the C library finds, and the names and numbers that it was called with.
struct Host {
    Strings asked;
    passwd *user = nullptr;
    group *team = nullptr;
    Finder<passwd> findUser;
    Finder<group> findGroup;
    std::string unconvertible; // this text cannot be converted
    bool losesMembers = false; // no list can be converted
};
// Returns the calling thread's own host.
Host &ThisHost();

constexpr int FROM_CALLER = 1111; // errno before a call; the C library leaves FROM_HOST
constexpr int FROM_HOST = 2222, FROM_CONVERSION = 3333;

// Makes a call after setting errno to a caller's value.
template <typename Call> auto Calling(Call call)
{
    errno = FROM_CALLER;
    return call();
}

class PosixUsers : public testing::Test {
protected:
    PosixUsers()
    {
        ThisHost() = {};
        CodeSet_DontUseIcu();
        Unicode_GetCurrentEncoding(); // fills its cache before blocks are counted
        errno = FROM_CALLER;
    }
    ~PosixUsers() override { CodeSet_DontUseIcu(); }
};

// ---- Texts

inline const std::string ABSENT = "(absent)";

inline std::string Text(const char *text) { return text == nullptr ? ABSENT : text; }

// Returns ICU's result for bytes that are not UTF-8, when each stands alone.
inline std::string Repaired(const std::string &bytes)
{
    std::string text;
    for (const char byte : bytes) {
        text += static_cast<unsigned char>(byte) < 0x80 ? std::string(1, byte) : "\xEF\xBF\xBD";
    }
    return text;
}
inline Strings Repaired(Strings texts)
{
    for (std::string &text : texts) {
        text = Repaired(text);
    }
    return texts;
}

// Returns the bytes that a text takes in a buffer.
inline size_t Size(const std::string &text) { return text == ABSENT ? 0 : text.size() + 1; }
inline size_t Size(const Strings &texts)
{
    size_t size = 0;
    for (const std::string &text : texts) {
        size += Size(text);
    }
    return size;
}

// ---- A caller's buffer

// A buffer whose address is this many bytes after a multiple of 16.  A call must not change the
// bytes around it.
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
            << "written after the buffer";
    }
    char *Start() { return mBytes.data() + AROUND / 2 + mShift; }
    size_t Size() const { return mSize; }

private:
    static constexpr size_t AROUND = 64;
    static constexpr char FILL = '#';
    const size_t mSize, mShift;
    std::string mBytes;
};

// Allocates from a buffer from its start, as the C library does.
class Layout {
public:
    Layout(char *buffer, size_t size) : mNext(buffer), mEnd(buffer + size) {}

    char *Put(const std::string &text);
    char **PutArray(size_t count);
    char **PutArrayAtEnd(size_t count); // at the last aligned address
    bool IsFull() const { return mIsFull; }

private:
    char *Take(size_t size);

    char *mNext, *mEnd;
    bool mIsFull = false;
};

// ---- The two kinds of records
// A record has texts, of which ABSENT means NULL, and numbers, which count up from the first one.

// The texts are the name, password, full name, home and shell.
struct Users {
    using Record = passwd;

    inline static const Strings FIRST = {"ada", "x", "Ada Lovelace,,,", "/home/ada", "/bin/sh"};
    inline static const Strings OTHER = {"bob", "*", "", "/", "/usr/sbin/nologin"};
    inline static const Strings LONGER = {"a\xFF", "\xFE", "\xFF\xFF\xFF", "/h\xE9", "/bin/\xFF"};
    inline static const Strings NOTHING = Strings(5, ABSENT);
    // The indices of the texts whose failed conversion makes the lookup fail, in the order in which
    // a static record is converted.
    static constexpr size_t CONVERTED[] = {1, 3, 0, 2, 4};
    static constexpr auto NAME = &passwd::pw_name;

    static passwd *&Answer() { return ThisHost().user; }
    static Finder<passwd> &AnswerInBuffer() { return ThisHost().findUser; }

    static std::vector<char *> Places(const passwd &record);
    static void SetPlaces(const std::vector<char *> &places, char **array, passwd *record);
    static std::vector<id_t> Numbers(const passwd &record);
    static void SetNumbers(id_t first, passwd *record);

    // Returns FIRST without one of its fields.
    static Strings Without(size_t field);
    // Returns how many blocks of memory a static record with these texts has.
    static ptrdiff_t Blocks(const Strings &texts);
    // A user's record has no array.
    static void ExpectArrayIsClear(const passwd &, const char *, const char *) {}

    // Has the host put these texts into the buffer, in this order of the fields.
    static void HostHas(const Strings &texts, const std::vector<size_t> &order = {0, 1, 2, 3, 4});
    // The same, with the name not at the buffer's start.
    static void HostHasNameLater(const Strings &texts) { HostHas(texts, {4, 3, 2, 1, 0}); }
};

// The place of a group's array of members: in the buffer among its texts, or outside.
enum class Array { First, Middle, Last, AtEnd, Outside };
inline void PrintTo(Array where, std::ostream *out)
{
    constexpr const char *NAMES[] = {"first", "in the middle", "last", "at the end", "outside"};
    *out << "array " << NAMES[static_cast<int>(where)];
}

// The texts are the name, the password, and the members; or ABSENT instead of the members, where
// the array is NULL.
struct Groups {
    using Record = group;

    inline static const Strings FIRST = {"staff", "x", "ada", "bob", "", "caf\xC3\xA9"};
    inline static const Strings OTHER = {"none", ""};
    inline static const Strings LONGER = {"gr\xFC", "\xFF", "\xE9", "plain", "\xFF\xFF"};
    inline static const Strings NOTHING = Strings(3, ABSENT);
    static constexpr size_t CONVERTED[] = {1, 0}; // a group may be found without its members
    static constexpr auto NAME = &group::gr_name;

    static group *&Answer() { return ThisHost().team; }
    static Finder<group> &AnswerInBuffer() { return ThisHost().findGroup; }

    static std::vector<char *> Places(const group &record);
    // The array has room for the members and their end.
    static void SetPlaces(const std::vector<char *> &places, char **array, group *record);
    static std::vector<id_t> Numbers(const group &record);
    static void SetNumbers(id_t first, group *record);

    static Strings Without(size_t field);
    static ptrdiff_t Blocks(const Strings &texts);
    // Expects that the array is aligned, and clear of the texts from start to end.
    static void ExpectArrayIsClear(const group &record, const char *start, const char *end);

    // Has the host put these texts into the buffer, and the array at this place.
    static void HostHas(const Strings &texts, Array where = Array::Outside);
    static void HostHasNameLater(const Strings &texts) { HostHas(texts, Array::First); }
};

inline Strings TextOf(const std::vector<char *> &places)
{
    Strings texts;
    std::transform(places.begin(), places.end(), std::back_inserter(texts), Text);
    return texts;
}
inline Strings TextOf(const passwd &record) { return TextOf(Users::Places(record)); }
inline Strings TextOf(const group &record) { return TextOf(Groups::Places(record)); }

// A record in memory of its own.
template <typename Kind> class Found {
public:
    explicit Found(const Strings &texts, id_t number = 0) : mTexts(texts), mArray(texts.size())
    {
        std::vector<char *> places;
        for (std::string &text : mTexts) {
            places.push_back(text == ABSENT ? nullptr : text.data());
        }
        Kind::SetPlaces(places, mArray.data(), &mRecord);
        Kind::SetNumbers(number, &mRecord);
    }
    Found(const Found &) = delete;
    Found &operator=(const Found &) = delete;
    typename Kind::Record *Record() { return &mRecord; }

private:
    Strings mTexts;
    std::vector<char *> mArray;
    typename Kind::Record mRecord = {};
};

// Has the host find a record whose texts are in memory of their own, and not in the buffer.
template <typename Kind> void HostHasElsewhere(const Strings &texts)
{
    using Record = typename Kind::Record;
    Kind::AnswerInBuffer() = [texts, found = std::shared_ptr<Found<Kind>>()](
                                 Record *record, char *, size_t, Record **result) mutable {
        found = std::make_shared<Found<Kind>>(texts);
        *record = *found->Record();
        *result = record;
        return 0;
    };
}

// ---- The ways to a record

// Each Call has a Find() for the record that belongs to the library, and most a FindInBuffer() for
// the caller's, which calls the C library's function with _r at its name's end.
struct UserByName {
    using Kind = Users;
    static constexpr const char *NAME = "UserByName", *CALLS = "getpwnam", *WITH = " caf\xC3\xA9";
    static passwd *Find() { return Posix_Getpwnam("caf\xC3\xA9"); }
    static int FindInBuffer(passwd *record, char *buffer, size_t size, passwd **result)
    {
        return Posix_GetpwnamR("caf\xC3\xA9", record, buffer, size, result);
    }
};
struct UserByNumber {
    using Kind = Users;
    static constexpr const char *NAME = "UserByNumber", *CALLS = "getpwuid", *WITH = " 4000000000";
    static passwd *Find() { return Posix_Getpwuid(4000000000); }
    static int FindInBuffer(passwd *record, char *buffer, size_t size, passwd **result)
    {
        return Posix_GetpwuidR(4000000000, record, buffer, size, result);
    }
};
struct UserInTurn {
    using Kind = Users;
    static constexpr const char *NAME = "UserInTurn", *CALLS = "getpwent", *WITH = "";
    static passwd *Find() { return Posix_Getpwent(); }
};
struct GroupByName {
    using Kind = Groups;
    static constexpr const char *NAME = "GroupByName", *CALLS = "getgrnam", *WITH = " caf\xC3\xA9";
    static group *Find() { return Posix_Getgrnam("caf\xC3\xA9"); }
    static int FindInBuffer(group *record, char *buffer, size_t size, group **result)
    {
        return Posix_GetgrnamR("caf\xC3\xA9", record, buffer, size, result);
    }
};

struct NameOfCall {
    template <typename Call> static std::string GetName(int) { return Call::NAME; }
};

// The record that belongs to the library.
template <typename Call> class PosixStaticRecord : public PosixUsers {
protected:
    using Kind = typename Call::Kind;
    using Record = typename Kind::Record;

    static Record *Find(Record *found)
    {
        Kind::Answer() = found;
        return Calling(Call::Find);
    }
    static Record *Find(const Strings &texts, id_t number = 0)
    {
        return Find(Found<Kind>(texts, number).Record());
    }
};

// The record that the caller has, with a buffer for its texts.
template <typename Call> class PosixCallersRecord : public PosixUsers {
protected:
    using Kind = typename Call::Kind;
    using Record = typename Kind::Record;

    int Find(Buffer &buffer) { return Find(buffer.Start(), buffer.Size()); }
    int Find(char *start, size_t size)
    {
        const ptrdiff_t live = Allocations::Live();
        const int error =
            Calling([&] { return Call::FindInBuffer(&mRecord, start, size, &mResult); });
        EXPECT_EQ(Allocations::Live(), live);
        EXPECT_EQ(errno, FROM_HOST);
        if (error != 0) { EXPECT_EQ(mResult, nullptr) << "after error " << error; }
        return error;
    }

    // Checks that the first count texts follow one another from the start of the buffer.
    void ExpectPacked(Buffer &buffer, const Strings &texts, size_t count = SIZE_MAX)
    {
        const std::vector<char *> places = Kind::Places(mRecord);
        ASSERT_EQ(places.size(), texts.size());
        const char *next = buffer.Start();
        for (size_t i = 0; i < std::min(count, texts.size()); i++) {
            EXPECT_EQ(Text(places[i]), texts[i]);
            if (texts[i] == ABSENT) { continue; }
            EXPECT_EQ(static_cast<const void *>(places[i]), next) << i;
            next += Size(texts[i]);
        }
        Kind::ExpectArrayIsClear(mRecord, buffer.Start(), next);
    }

    Record mRecord = {};
    Record *mResult = nullptr;
};

#endif // PELAGO_TESTS_MISC_POSIXUSERSHOST_H
