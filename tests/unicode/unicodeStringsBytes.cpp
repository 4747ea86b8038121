// Tests of bytes from strings, and of copies into a buffer.
#include "unicodeStringsForTests.h"

#include "allocations.h"
#include "codeset.h"
#include "panic.h"
#include "unicodeInt.h"
#include "useIcu.h"
#include "utf16Bytes.h"

#include <string>
#include <string_view>
#include <vector>

namespace {

// ---- Bytes from strings

class Written : public testing::TestWithParam<Spelling> {
protected:
    static void ExpectIt()
    {
        const Spelling &row = GetParam();
        EXPECT_EQ(GetBytes(row.text, row.encoding, row.unit), row.bytes);
        EXPECT_TRUE(Unicode_CanGetBytesWithEncoding(row.text.c_str(), row.encoding));
        char *bytes = Unicode_GetAllocBytes(row.text.c_str(), row.encoding);
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(std::string(bytes, row.bytes.size() + row.unit),
                  row.bytes + std::string(row.unit, '\0'));
        free(bytes);
    }
};
TEST_P(Written, WithoutIcu)
{
    CodeSet_DontUseIcu();
    ExpectIt();
}
using WrittenByIcu = Written;
TEST_P(WrittenByIcu, AndTerminatedWithAUnit)
{
    UseIcu();
    ExpectIt();
}
INSTANTIATE_TEST_SUITE_P(Encodings, Written, testing::Values(UTF_8_ROW, ASCII_ROW, UTF_16LE_ROW),
                         NAME_OF_ROW);
INSTANTIATE_TEST_SUITE_P(
    MoreEncodings, WrittenByIcu,
    testing::Values(UTF_8_ROW, ASCII_ROW, UTF_16LE_ROW, UTF_16BE_ROW,
                    Spelling{"Utf32le", STRING_ENCODING_UTF_32LE, Le32(MIXED_32), MIXED, 4},
                    Spelling{"Latin1", STRING_ENCODING_ISO_8859_1, "caf\xe9", "caf\u00e9", 1},
                    Spelling{"ShiftJis", STRING_ENCODING_SHIFT_JIS, "\x82\xa0", "\u3042", 1}),
    NAME_OF_ROW);

TEST_P(BothWays, NoStringGivesNoBytes)
{
    size_t size = 77;
    for (const StringEncoding encoding :
         {STRING_ENCODING_UTF_8, STRING_ENCODING_ASCII, STRING_ENCODING_UTF_16LE,
          STRING_ENCODING_ISO_8859_1, STRING_ENCODING_DEFAULT}) {
        EXPECT_EQ(Unicode_GetAllocBytes(nullptr, encoding), nullptr);
        EXPECT_EQ(Unicode_GetAllocBytesWithLength(nullptr, encoding, 3, &size), nullptr);
        EXPECT_TRUE(Unicode_CanGetBytesWithEncoding(nullptr, encoding));
    }
}

TEST_P(BothWays, OnlyAStringsCountedPartIsWritten)
{
    for (const ssize_t length : {0, 1, 3}) {
        const std::string part = MIXED.substr(0, static_cast<size_t>(length));
        for (const StringEncoding encoding : {STRING_ENCODING_UTF_8, STRING_ENCODING_UTF_16LE}) {
            size_t size = 77;
            char *bytes = Unicode_GetAllocBytesWithLength(MIXED.c_str(), encoding, length, &size);
            ASSERT_NE(bytes, nullptr);
            EXPECT_EQ(std::string(bytes, size), GetBytes(part, encoding));
            EXPECT_EQ(bytes[size], '\0');
            free(bytes);
        }
    }
}

TEST_P(BothWays, OnlyTheCountedPartNeedsToBeAscii)
{
    EXPECT_EQ(Take(Unicode_GetAllocBytesWithLength("ab\u00e9", STRING_ENCODING_ASCII, 2, nullptr)),
              "ab");
    EXPECT_EQ(Unicode_GetAllocBytesWithLength("ab\u00e9", STRING_ENCODING_ASCII, 3, nullptr),
              nullptr);
}

TEST_P(BothWays, TheLengthNeedNotBeWanted)
{
    for (const StringEncoding encoding :
         {STRING_ENCODING_UTF_8, STRING_ENCODING_ASCII, STRING_ENCODING_UTF_16LE}) {
        free(Unicode_GetAllocBytesWithLength("a", encoding, -1, nullptr));
        char out[8];
        EXPECT_TRUE(Unicode_CopyBytes(out, "a", sizeof out, nullptr, encoding));
        EXPECT_FALSE(Unicode_CopyBytes(out, "a", 0, nullptr, encoding));
    }
    char out[8];
    EXPECT_FALSE(Unicode_CopyBytes(out, "\u00e9", sizeof out, nullptr, STRING_ENCODING_ASCII));
}

TEST_P(BothWays, Utf8IsWrittenAsItIs)
{
    const auto sizes =
        Allocations::SizesIn([] { EXPECT_EQ(GetBytes("a\xff", STRING_ENCODING_UTF_8), "a\xff"); });
    EXPECT_EQ(sizes, std::vector<size_t>{3});
}

TEST_P(BothWays, AStringWithUnrepresentableCharactersIsNotWritten)
{
    EXPECT_EQ(GetBytes("caf\u00e9", STRING_ENCODING_ASCII), NONE);
    EXPECT_FALSE(Unicode_CanGetBytesWithEncoding("caf\u00e9", STRING_ENCODING_ASCII));
    EXPECT_EQ(GetBytes("\u20ac", STRING_ENCODING_ISO_8859_1), NONE);
    EXPECT_FALSE(Unicode_CanGetBytesWithEncoding("\u20ac", STRING_ENCODING_ISO_8859_1));
}

TEST_F(WithoutIcu, AStringIsNotWrittenInOtherEncodings)
{
    for (const StringEncoding encoding :
         {STRING_ENCODING_UTF_16BE, STRING_ENCODING_UTF_32LE, STRING_ENCODING_ISO_8859_1}) {
        EXPECT_EQ(GetBytes("a", encoding), NONE);
        EXPECT_FALSE(Unicode_CanGetBytesWithEncoding("a", encoding));
    }
}

TEST_P(BothWays, CheckingWhetherAStringConvertsLeaksNothing)
{
    Unicode_CanGetBytesWithEncoding("a", STRING_ENCODING_UTF_16LE); // fills the caches
    const ptrdiff_t live = Allocations::Live();
    for (const StringEncoding encoding :
         {STRING_ENCODING_UTF_8, STRING_ENCODING_ASCII, STRING_ENCODING_UTF_16LE}) {
        EXPECT_TRUE(Unicode_CanGetBytesWithEncoding("a", encoding));
    }
    EXPECT_EQ(Allocations::Live(), live);
}

constexpr char NO_GET[] = "NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:741\n";
constexpr char NO_COPY[] = "NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:554\n";

TEST_P(BothWaysDeathTest, AnInvalidStringPanicsInUtf16le)
{
    char out[8];
    EXPECT_PANIC(Unicode_GetAllocBytes("\xff", STRING_ENCODING_UTF_16LE), NO_GET);
    EXPECT_PANIC(Unicode_CanGetBytesWithEncoding("\xff", STRING_ENCODING_UTF_16LE), NO_GET);
    EXPECT_PANIC(Unicode_CopyBytes(out, "\xff", sizeof out, nullptr, STRING_ENCODING_UTF_16LE),
                 NO_COPY);
}

// ---- Copies

Copy Nothing(size_t capacity) { return {false, 0, std::string(capacity, UNTOUCHED)}; }

// Returns the copy with as many whole characters as fit, and their terminator.
Copy KeptWhole(const Strings &characters, size_t unit, size_t capacity)
{
    std::string bytes;
    for (const std::string &character : characters) {
        if (bytes.size() + character.size() + unit > capacity) {
            return Kept(false, bytes, unit, capacity);
        }
        bytes += character;
    }
    return Kept(true, bytes, unit, capacity);
}

const std::u32string CUT = U"a\u00e9\u20ac\U0001F600z\U00010000\uffff\u00ff\u0080\U0010FFFF";

// Returns the characters of the text in the encoding.
Strings Characters(std::string_view utf8, StringEncoding encoding)
{
    Strings characters;
    while (!utf8.empty()) {
        size_t length = 1;
        while (length < utf8.size() && (utf8[length] & 0xC0) == 0x80) {
            length++;
        }
        characters.push_back(GetBytes(std::string(utf8.substr(0, length)), encoding));
        utf8.remove_prefix(length);
    }
    return characters;
}

std::string Utf8OfCut() { return "a\u00e9\u20ac\U0001F600z\U00010000\uffff\u00ff\u0080\U0010FFFF"; }

TEST_P(BothWays, ACopyIsCutBetweenCharacters)
{
    for (const StringEncoding encoding : {STRING_ENCODING_UTF_8, STRING_ENCODING_UTF_16LE}) {
        const size_t unit = encoding == STRING_ENCODING_UTF_8 ? 1 : 2;
        const Strings characters = Characters(Utf8OfCut(), encoding);
        ASSERT_EQ(characters.size(), CUT.size());
        for (size_t capacity = unit; capacity < 40; capacity++) {
            EXPECT_EQ(CopyInto(capacity, Utf8OfCut(), encoding),
                      KeptWhole(characters, unit, capacity))
                << capacity << " bytes in " << encoding;
        }
    }
}

TEST_P(BothWays, ACopyInAsciiIsCutAnywhere)
{
    for (size_t capacity = 1; capacity < 8; capacity++) {
        EXPECT_EQ(CopyInto(capacity, "abcde", STRING_ENCODING_ASCII),
                  Kept(capacity > 5, "abcde"s.substr(0, capacity - 1), 1, capacity));
    }
}

TEST_F(WithIcu, CopiesInOtherEncodingsAreCutBetweenBytes)
{
    const auto expect = [](const std::string &string, StringEncoding encoding,
                           const std::string &bytes) {
        for (size_t capacity = 1; capacity < bytes.size() + 4; capacity++) {
            EXPECT_EQ(CopyInto(capacity, string, encoding),
                      Kept(capacity > bytes.size(), bytes.substr(0, capacity - 1), 1, capacity))
                << capacity << " bytes in " << encoding;
        }
    };
    expect("caf\u00e9", STRING_ENCODING_ISO_8859_1, "caf\xe9");
    expect("a\u3042", STRING_ENCODING_SHIFT_JIS, "a\x82\xa0");
    expect(MIXED, STRING_ENCODING_UTF_16BE, Be(MIXED_16));
    expect(MIXED, STRING_ENCODING_UTF_32LE, Le32(MIXED_32));
    expect("", STRING_ENCODING_ISO_8859_1, "");
}

TEST_P(BothWays, ACharacterThatIsCutIsDropped)
{
    EXPECT_EQ(CopyInto(3, "a\u00e9", STRING_ENCODING_UTF_8), Kept(false, "a", 1, 3));
}

TEST_P(BothWays, ThePairThatIsCutIsDropped)
{
    EXPECT_EQ(CopyInto(6, "a\U0001F600", STRING_ENCODING_UTF_16LE), Kept(false, "a\0"s, 2, 6));
    EXPECT_EQ(CopyInto(4, "\U0001F600", STRING_ENCODING_UTF_16LE), Kept(false, "", 2, 4));
}

TEST_P(BothWays, AnEmptyStringFitsIntoItsTerminator)
{
    EXPECT_EQ(CopyInto(1, "", STRING_ENCODING_UTF_8), Kept(true, "", 1, 1));
    EXPECT_EQ(CopyInto(1, "", STRING_ENCODING_ASCII), Kept(true, "", 1, 1));
    EXPECT_EQ(CopyInto(2, "", STRING_ENCODING_UTF_16LE), Kept(true, "", 2, 2));
}

TEST_P(BothWays, NothingIsWrittenWhereNoTerminatorFits)
{
    for (const StringEncoding encoding : {STRING_ENCODING_UTF_8, STRING_ENCODING_ASCII,
                                          STRING_ENCODING_UTF_16LE, STRING_ENCODING_ISO_8859_1}) {
        EXPECT_EQ(CopyInto(0, "", encoding), Nothing(0));
        EXPECT_EQ(CopyInto(0, "abc", encoding), Nothing(0));
    }
    EXPECT_EQ(CopyInto(1, "abc", STRING_ENCODING_UTF_16LE), Nothing(1));
}

TEST_P(BothWays, NothingIsWrittenOfWhatIsNotAscii)
{
    EXPECT_EQ(CopyInto(9, "abc\u00e9", STRING_ENCODING_ASCII), Nothing(9));
    EXPECT_EQ(CopyInto(3, "abc\u00e9", STRING_ENCODING_ASCII), Nothing(3))
        << "also where it would be cut";
}

TEST_P(BothWays, AFailedConversionLeavesATerminator)
{
    EXPECT_EQ(CopyInto(9, "abc\u20ac", STRING_ENCODING_ISO_8859_1), Kept(false, "", 1, 9));
    EXPECT_EQ(CopyInto(1, "abc\u20ac", STRING_ENCODING_ISO_8859_1), Kept(false, "", 1, 1));
    EXPECT_EQ(CopyInto(9, "abc\xff", STRING_ENCODING_UTF_16BE), Kept(false, "", 1, 9));
}

TEST_F(WithoutIcu, ACopyInAnotherEncodingLeavesATerminator)
{
    EXPECT_EQ(CopyInto(9, "a", STRING_ENCODING_UTF_16BE), Kept(false, "", 1, 9));
    EXPECT_EQ(CopyInto(9, "a", STRING_ENCODING_ISO_8859_1), Kept(false, "", 1, 9));
}

// Bytes that are not UTF-8, the number of bytes that fit, and the bytes that are kept.
struct IllFormedCut {
    std::string bytes;
    size_t limit;
    std::string left;
};

TEST_P(BothWays, ACutOfInvalidTextEndsBetweenCharacters)
{
    const IllFormedCut cuts[] = {
        {"a\xc3"s + "b", 2, "a"},      // a leading byte without the rest
        {"\xf0\x9f"s + "b", 2, ""},    // two bytes of four
        {"\xe4\xb8\xf0\x9f.", 4, ""},  // the same
        {"\xc3\xa9\x80", 2, "\u00e9"}, // a whole character, and a byte too many
        {"\xc3\xa9\x80"s + "b", 3, "\u00e9"},
        {"a\x80\x80\x80", 3, "a"},        // no leading byte
        {"a\xc0\x80"s + "b", 3, "a"},     // longer than needed
        {"a\xed\xa0\x80"s + "b", 4, "a"}, // a surrogate
        {"a\xff"s + "b", 2, "a"},
        {"\xff"s + "ab", 2, "\xff"s + "a"}, // before the end the byte stays
        {"\x80\x80\x80", 2, ""},
        {"a\xf0\x9f\x98\x80"s + "b", 4, "a"},
        {"a\xf0\x9f\x98\x80"s + "b", 5, "a\U0001F600"},
    };
    for (const IllFormedCut &cut : cuts) {
        const size_t capacity = cut.limit + 1;
        EXPECT_EQ(CopyInto(capacity, cut.bytes, STRING_ENCODING_UTF_8),
                  Kept(false, cut.left, 1, capacity))
            << testing::PrintToString(cut.bytes);
    }
    EXPECT_EQ(CopyInto(4, "\xc3\xa9\x80", STRING_ENCODING_UTF_8), Kept(true, "\xc3\xa9\x80", 1, 4))
        << "what fits is copied as it is";
}

TEST_P(BothWays, ACopyLeavesNothingBehind)
{
    CopyInto(40, MIXED, STRING_ENCODING_UTF_16LE); // fills the caches
    CopyInto(40, MIXED, STRING_ENCODING_UTF_16BE);
    const ptrdiff_t live = Allocations::Live();
    CopyInto(40, MIXED, STRING_ENCODING_UTF_16LE);
    CopyInto(40, MIXED, STRING_ENCODING_UTF_16BE);
    EXPECT_EQ(Allocations::Live(), live);
}

} // namespace
