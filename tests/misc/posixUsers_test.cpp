// The promises of both lookups of users and lookups of groups, with a scripted C library.
// posixUsersDatabase_test uses the real one.
#include "posixUsersHost.h"

#include "together.h"

#include <cstring>

namespace {

// ---- Lookups

TEST_F(PosixUsers, HaveOneStaticRecord)
{
    Found<Users> ada(Users::FIRST);
    ThisHost().user = ada.Record();
    const passwd *record = Posix_Getpwnam("ada");
    EXPECT_EQ(Calling([] { return Posix_Getpwuid(1); }), record);
    EXPECT_EQ(Calling([] { return Posix_Getpwent(); }), record);
}

TEST_F(PosixUsers, AreLeftByEndpwent)
{
    Posix_Endpwent();
    EXPECT_EQ(errno, FROM_HOST);
    EXPECT_EQ(ThisHost().asked, Strings{"endpwent"});
}

TEST_F(PosixUsers, MayBeAskedForWithoutAName)
{
    passwd user;
    passwd *foundUser = &user;
    group team;
    group *foundTeam = &team;
    gid_t groups[9] = {};
    int count = 9;
    ThisHost().findUser = [](passwd *, char *, size_t, passwd **result) {
        *result = nullptr;
        return EINVAL;
    };
    ThisHost().findGroup = [](group *, char *, size_t, group **result) {
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
    EXPECT_EQ(ThisHost().asked,
              (Strings{"getpwnam (absent)", "getgrnam (absent)", "getpwnam_r (absent)",
                       "getgrnam_r (absent)", "getgrouplist (absent) 5 9"}));
}

TEST_F(PosixUsers, FreeTheConvertedNameAfterALookup)
{
    const ptrdiff_t live = Allocations::Live();
    EXPECT_EQ(Posix_Getpwnam("nobody"), nullptr);
    EXPECT_EQ(Calling([] { return Posix_Getgrnam("nobody"); }), nullptr);
    EXPECT_EQ(Allocations::Live(), live);
}

TEST_F(PosixUsers, HaveTheGroupsThatTheHostLists)
{
    gid_t groups[9] = {};
    int count = 9;
    const ptrdiff_t live = Allocations::Live();
    EXPECT_EQ(Posix_Getgrouplist("caf\xC3\xA9", 4000000002, groups, &count), -3);
    EXPECT_EQ(errno, FROM_HOST);
    EXPECT_EQ(count, 7);
    EXPECT_EQ(groups[0], 4000000000);
    EXPECT_EQ(ThisHost().asked, Strings{"getgrouplist caf\xC3\xA9 4000000002 9"});
    EXPECT_EQ(Allocations::Live(), live);
}

TEST_F(PosixUsers, ServeManyThreadsWithTheirOwnRecords)
{
    Together(4, [](int thread) {
        const Strings texts = {"staff", "x", "member" + std::to_string(thread)};
        Groups::HostHas(texts, Array::First);
        for (int i = 0; i < 2000; i++) {
            Buffer buffer(200, 0);
            group record = {};
            group *result = nullptr;
            errno = FROM_CALLER;
            ASSERT_EQ(Posix_GetgrnamR("staff", &record, buffer.Start(), 200, &result), 0);
            ASSERT_EQ(TextOf(record), texts);
        }
    });
}

// ---- The record that belongs to the library

using StaticCalls = testing::Types<UserByName, UserByNumber, UserInTurn, GroupByName>;
TYPED_TEST_SUITE(PosixStaticRecord, StaticCalls, NameOfCall);

TYPED_TEST(PosixStaticRecord, IsWhatTheHostFinds)
{
    using Kind = typename TypeParam::Kind;
    Found<Kind> found(Kind::FIRST, 4000000001);
    const auto *record = this->Find(found.Record());
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(TextOf(*record), Kind::FIRST);
    EXPECT_EQ(Kind::Numbers(*record), Kind::Numbers(*found.Record()));
    EXPECT_EQ(ThisHost().asked, Strings{std::string(TypeParam::CALLS) + TypeParam::WITH});
}

TYPED_TEST(PosixStaticRecord, IsACopy)
{
    using Kind = typename TypeParam::Kind;
    Found<Kind> found(Kind::FIRST);
    const auto *record = this->Find(found.Record());
    ASSERT_NE(record, nullptr);
    for (char *text : Kind::Places(*found.Record())) {
        text[0] = 'X';
    }
    EXPECT_NE(record, found.Record());
    EXPECT_EQ(TextOf(*record), Kind::FIRST);
}

TYPED_TEST(PosixStaticRecord, HasItsInvalidBytesRepairedByIcu)
{
    using Kind = typename TypeParam::Kind;
    UseIcu();
    const auto *record = this->Find(Kind::LONGER);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(TextOf(*record), Repaired(Kind::LONGER));
}

TYPED_TEST(PosixStaticRecord, LeavesErrnoToTheHost)
{
    EXPECT_NE(this->Find(TypeParam::Kind::FIRST), nullptr);
    EXPECT_EQ(errno, FROM_HOST);
}

TYPED_TEST(PosixStaticRecord, KeepsAbsentTextAbsent)
{
    using Kind = typename TypeParam::Kind;
    for (size_t field = 0; field < Kind::NOTHING.size(); field++) {
        const auto *record = this->Find(Kind::Without(field));
        ASSERT_NE(record, nullptr) << field;
        EXPECT_EQ(TextOf(*record), Kind::Without(field));
    }
    const auto *record = this->Find(Kind::NOTHING);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(TextOf(*record), Kind::NOTHING);
}

TYPED_TEST(PosixStaticRecord, TakesThePlaceOfTheOneBefore)
{
    using Kind = typename TypeParam::Kind;
    const auto *first = this->Find(Kind::FIRST, 1);
    Found<Kind> other(Kind::OTHER, 3);
    EXPECT_EQ(this->Find(other.Record()), first);
    EXPECT_EQ(TextOf(*first), Kind::OTHER);
    EXPECT_EQ(Kind::Numbers(*first), Kind::Numbers(*other.Record()));
}

TYPED_TEST(PosixStaticRecord, HasTheTextsOfTheOneBeforeFreed)
{
    using Kind = typename TypeParam::Kind;
    Strings onlyName = Kind::NOTHING;
    onlyName[0] = "only";
    this->Find(Kind::NOTHING);
    const ptrdiff_t live = Allocations::Live();
    for (const Strings &texts : {Kind::FIRST, Kind::FIRST, Kind::OTHER, onlyName, Kind::NOTHING}) {
        this->Find(texts);
        EXPECT_EQ(Allocations::Live(), live + Kind::Blocks(texts));
    }
}

TYPED_TEST(PosixStaticRecord, StaysWhenTheHostFindsNone)
{
    using Kind = typename TypeParam::Kind;
    const auto *record = this->Find(Kind::FIRST, 1);
    EXPECT_EQ(this->Find(nullptr), nullptr);
    EXPECT_EQ(errno, FROM_HOST);
    EXPECT_EQ(TextOf(*record), Kind::FIRST);
    EXPECT_EQ(Kind::Numbers(*record)[0], 1u);
}

TYPED_TEST(PosixStaticRecord, KeepsFieldsConvertedBeforeTheOneThatFails)
{
    using Kind = typename TypeParam::Kind;
    const auto *record = this->Find(Kind::OTHER);
    const ptrdiff_t live = Allocations::Live();
    Found<Kind> first(Kind::FIRST, 5);
    Strings expected = Kind::NOTHING;
    for (const size_t field : Kind::CONVERTED) {
        ThisHost().unconvertible = Kind::FIRST[field];
        EXPECT_EQ(this->Find(first.Record()), nullptr) << Kind::FIRST[field];
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(TextOf(*record), expected);
        EXPECT_EQ(Kind::Numbers(*record), Kind::Numbers(*first.Record()));
        expected[field] = Kind::FIRST[field];
    }
    ThisHost().unconvertible = "";
    EXPECT_NE(this->Find(Kind::OTHER), nullptr);
    EXPECT_EQ(Allocations::Live(), live) << "what was left of the failures is freed";
}

TYPED_TEST(PosixStaticRecord, EndsTheProcessForInvalidBytes)
{
    using Kind = typename TypeParam::Kind;
    for (size_t field = 0; field < Kind::NOTHING.size(); field++) {
        Strings texts = Kind::FIRST;
        texts[field] = "caf\xE9";
        EXPECT_PANIC(this->Find(texts), "Unicode_AllocWithLength: Couldn't convert invalid buffer "
                                        "[caf\\xE9] from UTF-8 to Unicode.\n");
    }
}

// ---- The caller's record

using CallersCalls = testing::Types<UserByName, UserByNumber, GroupByName>;
TYPED_TEST_SUITE(PosixCallersRecord, CallersCalls, NameOfCall);

TYPED_TEST(PosixCallersRecord, IsWhatTheHostFinds)
{
    using Kind = typename TypeParam::Kind;
    Kind::HostHas(Kind::FIRST);
    Buffer buffer(1000, 0);
    EXPECT_EQ(this->Find(buffer), 0);
    EXPECT_EQ(this->mResult, &this->mRecord);
    EXPECT_EQ(TextOf(this->mRecord), Kind::FIRST);
    Found<Kind> first(Kind::FIRST, 4000000001);
    EXPECT_EQ(Kind::Numbers(this->mRecord), Kind::Numbers(*first.Record()));
    EXPECT_EQ(ThisHost().asked, Strings{std::string(TypeParam::CALLS) + "_r" + TypeParam::WITH});
}

TYPED_TEST(PosixCallersRecord, IsNoneWithoutAnError)
{
    using Record = typename TypeParam::Kind::Record;
    TypeParam::Kind::AnswerInBuffer() = [](Record *, char *, size_t, Record **result) {
        *result = nullptr;
        return 0;
    };
    Buffer buffer(100, 0);
    this->mResult = &this->mRecord;
    EXPECT_EQ(this->Find(buffer), 0);
    EXPECT_EQ(this->mResult, nullptr);
}

// Only the error counts, whatever else the host returns.
TYPED_TEST(PosixCallersRecord, IsTheHostsError)
{
    using Kind = typename TypeParam::Kind;
    using Record = typename Kind::Record;
    Kind::AnswerInBuffer() = [](Record *record, char *buffer, size_t, Record **result) {
        record->*Kind::NAME = strcpy(buffer, "caf\xE9");
        *result = record;
        return EIO;
    };
    Buffer buffer(100, 0);
    EXPECT_EQ(this->Find(buffer), EIO);
    EXPECT_EQ(this->mRecord.*Kind::NAME, buffer.Start());
}

TYPED_TEST(PosixCallersRecord, MayShareItsTexts)
{
    using Kind = typename TypeParam::Kind;
    using Record = typename Kind::Record;
    UseIcu();
    char *array[4];
    Kind::AnswerInBuffer() = [&](Record *record, char *buffer, size_t, Record **result) {
        char *text = strcpy(buffer, "\xFF/bin/sh"); // other texts are the end of this one
        Kind::SetPlaces({text + 1, text + 1, text, text + 4, text + 8}, array, record);
        *result = record;
        return 0;
    };
    Buffer buffer(100, 0);
    ASSERT_EQ(this->Find(buffer), 0);
    this->ExpectPacked(buffer, {"/bin/sh", "/bin/sh", "\xEF\xBF\xBD/bin/sh", "n/sh", ""});
}

TYPED_TEST(PosixCallersRecord, MayHaveItsTextsElsewhere)
{
    using Kind = typename TypeParam::Kind;
    HostHasElsewhere<Kind>(Kind::FIRST);
    Buffer buffer(Size(Kind::FIRST), 0);
    ASSERT_EQ(this->Find(buffer), 0);
    this->ExpectPacked(buffer, Kind::FIRST);
}

TYPED_TEST(PosixCallersRecord, NeedsNoRoomForAnAbsentText)
{
    using Kind = typename TypeParam::Kind;
    for (size_t field = 0; field < Kind::NOTHING.size(); field++) {
        const Strings texts = Kind::Without(field);
        Kind::HostHas(texts);
        Buffer buffer(Size(texts), 0);
        EXPECT_EQ(this->Find(buffer), 0);
        this->ExpectPacked(buffer, texts);
    }
}

TYPED_TEST(PosixCallersRecord, MayHaveNoText)
{
    using Kind = typename TypeParam::Kind;
    Kind::HostHas(Kind::NOTHING);
    Buffer buffer(0, 0);
    EXPECT_EQ(this->Find(buffer), 0);
    EXPECT_EQ(TextOf(this->mRecord), Kind::NOTHING);
}

TYPED_TEST(PosixCallersRecord, IsUnchangedWhenAConversionFails)
{
    using Kind = typename TypeParam::Kind;
    Kind::HostHasNameLater(Kind::FIRST);
    for (const size_t field : Kind::CONVERTED) {
        ThisHost().unconvertible = Kind::FIRST[field];
        Buffer buffer(1000, 0);
        EXPECT_EQ(this->Find(buffer), ENOMEM) << field;
        EXPECT_EQ(TextOf(this->mRecord), Kind::FIRST);
        EXPECT_NE(this->mRecord.*Kind::NAME, buffer.Start()) << "nothing is packed";
    }
}

// Tests every size of the buffer.
TYPED_TEST(PosixCallersRecord, FitsOrNotToTheByte)
{
    using Kind = typename TypeParam::Kind;
    UseIcu();
    for (const Strings &found : {Kind::FIRST, Kind::OTHER, Kind::LONGER}) {
        Kind::HostHas(found);
        const Strings texts = found == Kind::LONGER ? Repaired(found) : found;
        const size_t needed = std::max(Size(found), Size(texts));
        for (size_t size = 0; size < needed + 20; size++) {
            SCOPED_TRACE(size);
            Buffer buffer(size, 0);
            ASSERT_EQ(this->Find(buffer), size < needed ? ERANGE : 0);
            if (size >= needed) { this->ExpectPacked(buffer, texts); }
        }
    }
}

// The host's texts take less room than the same texts in UTF-8.
TYPED_TEST(PosixCallersRecord, KeepsWhatFitsWhereItIsPacked)
{
    using Kind = typename TypeParam::Kind;
    UseIcu();
    HostHasElsewhere<Kind>(Kind::LONGER);
    const Strings texts = Repaired(Kind::LONGER);
    size_t used = 0;
    for (size_t count = 0; count < texts.size(); count++) {
        used += Size(texts[count]);
        Buffer tooSmall(used - 1, 0);
        EXPECT_EQ(this->Find(tooSmall), ERANGE);
        this->ExpectPacked(tooSmall, texts, count);
        EXPECT_EQ(TextOf(this->mRecord)[count], Kind::LONGER[count]) << "and no further";
        Buffer fits(used, 0);
        EXPECT_EQ(this->Find(fits), count + 1 == texts.size() ? 0 : ERANGE);
        this->ExpectPacked(fits, texts, count + 1);
    }
}

TYPED_TEST(PosixCallersRecord, EndsTheProcessForInvalidBytes)
{
    using Kind = typename TypeParam::Kind;
    for (size_t field = 0; field < Kind::NOTHING.size(); field++) {
        Strings texts = Kind::FIRST;
        texts[field] = "caf\xE9";
        Kind::HostHas(texts);
        Buffer buffer(1000, 0);
        EXPECT_PANIC(this->Find(buffer), "Unicode_AllocWithLength: Couldn't convert invalid buffer "
                                         "[caf\\xE9] from UTF-8 to Unicode.\n");
    }
}

// ---- A user's record

template <typename Call> class PosixCallersUser : public PosixCallersRecord<Call> {};
using CallersUserCalls = testing::Types<UserByName, UserByNumber>;
TYPED_TEST_SUITE(PosixCallersUser, CallersUserCalls, NameOfCall);

TYPED_TEST(PosixCallersUser, IsPackedIntoTheBufferInFieldOrder)
{
    UseIcu();
    for (const auto &order : std::vector<std::vector<size_t>>{{0, 1, 2, 3, 4}, {4, 3, 2, 1, 0}}) {
        Users::HostHas(Users::LONGER, order);
        Buffer buffer(1000, 0);
        ASSERT_EQ(this->Find(buffer), 0);
        this->ExpectPacked(buffer, Repaired(Users::LONGER));
    }
}

} // namespace
