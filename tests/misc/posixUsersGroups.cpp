// The promises of lookups of groups alone: their array of members, which the C library may put
// anywhere in the caller's buffer.
#include "posixUsersHost.h"

#include <cstring>
#include <tuple>

namespace {

// ---- The group that belongs to the library

using PosixStaticGroup = PosixStaticRecord<GroupByName>;

TEST_F(PosixStaticGroup, MayHaveNoMembers)
{
    const group *record = Find(Groups::OTHER);
    ASSERT_NE(record, nullptr);
    EXPECT_NE(record->gr_mem, nullptr);
    EXPECT_EQ(TextOf(*record), Groups::OTHER);
}

TEST_F(PosixStaticGroup, HasNoMembersWhenTheyCannotBeConverted)
{
    ThisHost().losesMembers = true;
    const group *record = Find(Groups::FIRST, 5);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(errno, FROM_HOST);
    EXPECT_EQ(TextOf(*record), Strings({"staff", "x", ABSENT}));
    EXPECT_EQ(record->gr_gid, 5);
}

// ---- The caller's group

using PosixCallersGroup = PosixCallersRecord<GroupByName>;

TEST_F(PosixCallersGroup, KeepsItsMembersWhenTheyCannotBeConverted)
{
    ThisHost().losesMembers = true;
    Groups::HostHas(Groups::FIRST, Array::Last);
    Buffer buffer(1000, 0);
    EXPECT_EQ(Find(buffer), 0);
    EXPECT_EQ(TextOf(mRecord), Groups::FIRST);
    EXPECT_EQ(mRecord.gr_name, buffer.Start());
}

TEST_F(PosixCallersGroup, KeepsAnArrayOutsideTheBufferInPlace)
{
    static char *members[] = {const_cast<char *>("ada"), nullptr};
    ThisHost().findGroup = [](group *record, char *, size_t, group **result) {
        *record = {const_cast<char *>("g"), const_cast<char *>("x"), 5, members};
        *result = record;
        return 0;
    };
    Buffer buffer(8, 0);
    EXPECT_EQ(Find(buffer), 0);
    EXPECT_EQ(mRecord.gr_mem, members);
    ExpectPacked(buffer, {"g", "x", "ada"});
}

// Tests an array right before the buffer, right after it, and at either end of it.
TEST_F(PosixCallersGroup, KnowsWhereTheBufferEnds)
{
    UseIcu();
    alignas(char *) char block[16 + 96 + 16];
    char *const start = block + 16;
    for (const ptrdiff_t offset : {-16, 0, 80, 96}) {
        ThisHost().findGroup = [=](group *record, char *buffer, size_t, group **result) {
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
    ThisHost().findGroup = [](group *record, char *buffer, size_t, group **result) {
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
    Strings texts = {"big", "x"};
    for (int i = 0; i < 5000; i++) {
        texts.push_back("\xFF" + std::to_string(i));
    }
    const Strings repaired = Repaired(texts);
    const size_t fits = Size(repaired) + 5001 * sizeof(char *);
    for (const Array where : {Array::First, Array::Middle, Array::Last, Array::AtEnd}) {
        Groups::HostHas(texts, where);
        Buffer buffer(fits / sizeof(char *) * sizeof(char *) + sizeof(char *), 0);
        ASSERT_EQ(Find(buffer), 0);
        ExpectPacked(buffer, repaired);
        Buffer tooSmall(fits - 1, 0);
        EXPECT_EQ(Find(tooSmall), ERANGE);
    }
}

class PosixCallersGroupArray
    : public PosixCallersGroup,
      public testing::WithParamInterface<std::tuple<Array, Strings, size_t>> {};

// Tests every size of the buffer, at every alignment of its start.
TEST_P(PosixCallersGroupArray, FitsOrNotToTheByte)
{
    UseIcu();
    const auto &[where, found, shift] = GetParam();
    Groups::HostHas(found, where);
    const Strings texts = Repaired(found);
    const size_t arraySize = (texts.size() - 1) * sizeof(char *); // with the final null
    size_t foundIn = 0, fittedIn = 0;
    for (size_t size = 0; size < Size(texts) + arraySize + 40; size++) {
        SCOPED_TRACE(size);
        Buffer buffer(size, shift);
        group hostRecord = {};
        group *hostResult = nullptr;
        const int hostError = ThisHost().findGroup(&hostRecord, buffer.Start(), size, &hostResult);
        const int error = Find(buffer);
        if (hostError != 0) {
            ASSERT_EQ(error, hostError);
            EXPECT_EQ(mResult, nullptr);
            continue;
        }
        foundIn++;
        // The best place for the array is at the end, from an aligned address on.
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
                << "an array that the texts do not reach stays";
        } else if (Size(texts[0]) <= room) {
            EXPECT_EQ(mRecord.gr_name, buffer.Start()) << "what fitted is there";
            EXPECT_EQ(Text(mRecord.gr_name), texts[0]);
        }
    }
    EXPECT_GT(fittedIn, 0u);
    // A text that grows by less may fit into the gap that the array's alignment has left.
    if (Size(texts) > Size(found) + alignof(char *)) { EXPECT_LT(fittedIn, foundIn); }
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, PosixCallersGroupArray,
    testing::Combine(
        testing::Values(Array::First, Array::Middle, Array::Last, Array::AtEnd, Array::Outside),
        testing::Values(Strings{"staff", "x", "ada", "bob", "", "long-name"}, Groups::OTHER,
                        Strings{"\xFF\xFF\xFF", "\xFE", "\xFF", "\xE9", "", "caf\xE9"},
                        Strings{"g", "", "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"},
                        Strings{"g", "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"},
                        Strings{"up to", "the array", "no more"}, Strings{"\xFF-more", "by one."}),
        testing::Values(0, 1, 7)));

} // namespace
