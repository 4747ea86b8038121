// Tests of which bytes are valid text, of duplicates, and of lengths.
#include "unicodeStringsForTests.h"

#include "unicodeInt.h"
#include "utf16Bytes.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

// ---- Validity

bool IsValid(const std::string &bytes, StringEncoding encoding)
{
    const Block block(bytes);
    return Unicode_IsBufferValid(block.get(), static_cast<ssize_t>(bytes.size()), encoding);
}

bool IsValidTerminated(const std::string &bytes, StringEncoding encoding, size_t unit)
{
    const Block block(bytes + std::string(unit, '\0'), 1);
    return Unicode_IsBufferValid(block.get(), -1, encoding);
}

TEST_P(BothWays, NoBufferIsValid)
{
    EXPECT_TRUE(Unicode_IsBufferValid(nullptr, -1, STRING_ENCODING_UTF_8));
    EXPECT_TRUE(Unicode_IsBufferValid(nullptr, 4, STRING_ENCODING_ASCII));
    EXPECT_TRUE(Unicode_IsBufferValid(nullptr, -1, STRING_ENCODING_UTF_32LE));
    EXPECT_TRUE(Unicode_IsBufferValid(nullptr, 4, STRING_ENCODING_ISO_8859_1));
}

TEST_P(BothWays, ValidBuffersAreWellFormed)
{
    for (const Spelling &row : {UTF_8_ROW, ASCII_ROW, UTF_16LE_ROW, UTF_16BE_ROW, UTF_16LE_ZEROS}) {
        EXPECT_TRUE(IsValid(row.bytes, row.encoding)) << row.name;
        EXPECT_TRUE(IsValidTerminated(row.bytes, row.encoding, row.unit)) << row.name;
        EXPECT_TRUE(IsValid("", row.encoding)) << row.name;
        EXPECT_TRUE(IsValidTerminated("", row.encoding, row.unit)) << row.name;
    }
}

TEST_P(BothWays, InvalidBuffersAreNot)
{
    const std::vector<std::pair<std::string, StringEncoding>> rows = {
        {"a\xff", STRING_ENCODING_UTF_8},
        {"a\xc3", STRING_ENCODING_UTF_8},
        {"a\x80", STRING_ENCODING_ASCII},
        {Le(u"a") + "\x00\xd8"s, STRING_ENCODING_UTF_16LE},
        {Be(u"a") + "\xd8\x00"s, STRING_ENCODING_UTF_16BE},
    };
    for (const auto &[bytes, encoding] : rows) {
        EXPECT_FALSE(IsValid(bytes, encoding)) << encoding;
        EXPECT_FALSE(IsValidTerminated(bytes, encoding, 2)) << encoding;
    }
}

TEST_P(BothWays, OnlyTheCountedBytesAreJudged)
{
    const Block block("ab\xff");
    for (const StringEncoding encoding : {STRING_ENCODING_UTF_8, STRING_ENCODING_ASCII}) {
        EXPECT_TRUE(Unicode_IsBufferValid(block.get(), 2, encoding));
        EXPECT_FALSE(Unicode_IsBufferValid(block.get(), 3, encoding));
        EXPECT_TRUE(IsValid("a\0b"s, encoding));
        EXPECT_FALSE(IsValid("a\0\xff"s, encoding)) << "a zero byte ends nothing here";
        EXPECT_TRUE(IsValidTerminated("a\0\xff"s, encoding, 1)) << "but does here";
    }
}

TEST_F(WithIcu, OtherEncodingsAreJudged)
{
    EXPECT_TRUE(IsValid("\x82\xa0", STRING_ENCODING_SHIFT_JIS));
    EXPECT_FALSE(IsValid("\x82", STRING_ENCODING_SHIFT_JIS));
    EXPECT_TRUE(IsValidTerminated(Le32(U"a\U00010000"), STRING_ENCODING_UTF_32LE, 4));
    EXPECT_FALSE(IsValidTerminated(Le32(U"a\x110000"), STRING_ENCODING_UTF_32LE, 4));
}

TEST_F(WithoutIcu, OtherEncodingsAreNotKnown)
{
    EXPECT_FALSE(IsValid("a", STRING_ENCODING_SHIFT_JIS));
    EXPECT_FALSE(IsValidTerminated("a", STRING_ENCODING_ISO_8859_1, 1));
}

TEST(UnicodeIsStringValidUtf8, ReadsToTheNul)
{
    EXPECT_TRUE(Unicode_IsStringValidUtf8(""));
    EXPECT_TRUE(Unicode_IsStringValidUtf8(MIXED.c_str()));
    EXPECT_TRUE(Unicode_IsStringValidUtf8("a\0\xff"));
    EXPECT_FALSE(Unicode_IsStringValidUtf8("a\xff"));
    EXPECT_FALSE(Unicode_IsStringValidUtf8("\xed\xa0\x80"));
}

// ---- Duplicates and lengths

TEST(UnicodeDuplicate, IsACopyOfItsOwn)
{
    const std::string string = MIXED;
    Unicode copy = Unicode_Duplicate(string.c_str());
    EXPECT_NE(copy, string.c_str());
    EXPECT_EQ(Take(copy), MIXED);
    EXPECT_EQ(Unicode_Duplicate(nullptr), nullptr);
}

TEST(UnicodeLengthInBytes, CountsBytesAndNotCharacters)
{
    EXPECT_EQ(Unicode_LengthInBytes(""), 0);
    EXPECT_EQ(Unicode_LengthInBytes("a\u00e9"), 3);
}

// A string, and its characters as Unicode_BytesRequired() counts them, before it adds ten.
struct Counted {
    const char *string;
    size_t characters;
};
const Counted COUNTED[] = {
    {"", 0},
    {"abc", 3},
    {"\x7f", 1},
    {"\u0080", 1},
    {"\u00e9x", 2},
    {"\u20ac", 2},       // the third byte counts as another character
    {"\u20acx", 2},      // and takes in the next byte
    {"\u20ac\u20ac", 3}, // whatever byte that is
    {"\U0001F600", 2},
    {"\U0001F600x", 3},
    {"x\xc3", 2}, // the count stops at the terminator
};

size_t WidthOf(StringEncoding encoding)
{
    switch (encoding) {
    case STRING_ENCODING_UTF_16LE:
    case STRING_ENCODING_UTF_16BE:
    case STRING_ENCODING_UTF_16: return 2;
    case STRING_ENCODING_UTF_32LE:
    case STRING_ENCODING_UTF_32BE:
    case STRING_ENCODING_UTF_32: return 4;
    case STRING_ENCODING_ASCII:
    case STRING_ENCODING_ISO_8859_1:
    case STRING_ENCODING_WINDOWS_1252: return 1;
    default: return 7;
    }
}

TEST(UnicodeBytesRequired, IsTheWidthTimesCharactersPlusTen)
{
    for (const auto &[string, characters] : COUNTED) {
        const Block block(std::string(string) + '\0');
        for (const Encoding &encoding : AllEncodings()) {
            const size_t size = encoding.value == STRING_ENCODING_UTF_8
                                    ? strlen(string) + 1
                                    : (characters + 10) * WidthOf(encoding.value);
            EXPECT_EQ(Unicode_BytesRequired(block.get(), encoding.value), size)
                << string << " in " << encoding.name;
        }
    }
    EXPECT_EQ(Unicode_BytesRequired("abc", STRING_ENCODING_UTF_16LE), 26);
}

size_t UnitOf(StringEncoding encoding)
{
    const size_t width = WidthOf(encoding);
    return width == 7 ? 1 : width; // UTF-8 and the encodings that are written byte by byte
}

TEST_F(WithIcu, TheBytesRequiredAreEnough)
{
    size_t tried = 0;
    const std::string texts[] = {
        "",
        "a",
        MIXED,
        "\u00e9\u00e9\u00e9",
        "\u20aca\u20aca\u20aca",
        "a\u3042b\u3044c\u3046d",
        "~",
        "\u3042",
        "\u4e00\u4e01",
        "\U0001F600\U0001F601\U0001F602",
        "\u00e9\u20ac\u00e9\u20aca",
    };
    for (const std::string &text : texts) {
        for (const Encoding &encoding : AllEncodings()) {
            if (!encoding.isSupported ||
                !Unicode_CanGetBytesWithEncoding(text.c_str(), encoding.value)) {
                continue;
            }
            const size_t required = Unicode_BytesRequired(text.c_str(), encoding.value);
            const size_t unit = UnitOf(encoding.value);
            EXPECT_LE(GetBytes(text, encoding.value).size() + unit, required)
                << text << " in " << encoding.name;
            EXPECT_TRUE(CopyInto(required, text, encoding.value).fit)
                << text << " in " << encoding.name;
            tried++;
        }
    }
    EXPECT_GT(tried, 400u);
}

} // namespace
