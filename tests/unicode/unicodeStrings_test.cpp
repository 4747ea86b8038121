#include "unicode.h"

#include "../../lib/unicode/unicodeInt.h"
#include "allocations.h"
#include "codeset.h"
#include "encodingList.h"
#include "panic.h"
#include "useIcu.h"
#include "utf16Bytes.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

using namespace pelago;

// ---- The current encoding, which this test chooses

static StringEncoding sCurrent = STRING_ENCODING_UTF_8;

extern "C" StringEncoding __wrap_Unicode_ResolveEncoding(StringEncoding encoding)
{
    return encoding == STRING_ENCODING_DEFAULT ? sCurrent : encoding;
}

namespace {

using namespace std::string_literals;

class CurrentEncoding {
public:
    explicit CurrentEncoding(StringEncoding encoding) { sCurrent = encoding; }
    CurrentEncoding(const CurrentEncoding &) = delete;
    CurrentEncoding &operator=(const CurrentEncoding &) = delete;
    ~CurrentEncoding() { sCurrent = STRING_ENCODING_UTF_8; }
};

// ---- The two ways to convert

class WithIcu : public testing::Test {
protected:
    void SetUp() override { UseIcu(); }
};

class WithoutIcu : public testing::Test {
protected:
    void SetUp() override { CodeSet_DontUseIcu(); }
};
using WithoutIcuDeathTest = WithoutIcu;

class BothWays : public testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        if (GetParam()) {
            UseIcu();
        } else {
            CodeSet_DontUseIcu();
        }
    }
};
using BothWaysDeathTest = BothWays;
const auto NAME_OF_WAY = [](const auto &row) { return row.param ? "Icu" : "Fallback"; };
INSTANTIATE_TEST_SUITE_P(, BothWays, testing::Bool(), NAME_OF_WAY);
INSTANTIATE_TEST_SUITE_P(, BothWaysDeathTest, testing::Bool(), NAME_OF_WAY);

// ---- Texts

std::string Le32(std::u32string_view text)
{
    std::string bytes;
    for (const char32_t unit : text) {
        for (int shift = 0; shift < 32; shift += 8) {
            bytes += static_cast<char>(unit >> shift);
        }
    }
    return bytes;
}

std::string Be32(std::u32string_view text)
{
    std::string bytes;
    for (const char32_t unit : text) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes += static_cast<char>(unit >> shift);
        }
    }
    return bytes;
}

// Characters of one to four bytes.
const std::string MIXED = "a\u00e9\u20ac\U0001F600z";
constexpr char16_t MIXED_16[] = u"a\u00e9\u20ac\U0001F600z";
constexpr char32_t MIXED_32[] = U"a\u00e9\u20ac\U0001F600z";

// A block of just these bytes, so that a sanitizer sees who reads on.
class Block {
public:
    explicit Block(const std::string &bytes, size_t offset = 0)
        : mBytes(new char[offset + bytes.size()]), mOffset(offset)
    {
        std::copy(bytes.begin(), bytes.end(), mBytes.get() + offset);
    }
    const char *get() const { return mBytes.get() + mOffset; }

private:
    std::unique_ptr<char[]> mBytes;
    size_t mOffset;
};

std::string Alloc(const std::string &bytes, StringEncoding encoding)
{
    const Block block(bytes);
    return Take(Unicode_AllocWithLength(block.get(), static_cast<ssize_t>(bytes.size()), encoding));
}

const std::string NONE = "(none)";

// The bytes, and the terminator's, which has that size.
std::string GetBytes(const std::string &string, StringEncoding encoding, size_t terminator = 1)
{
    size_t size = 0;
    char *bytes = Unicode_GetAllocBytesWithLength(string.c_str(), encoding, -1, &size);
    if (bytes == nullptr) { return NONE; }
    EXPECT_EQ(std::string(bytes + size, terminator), std::string(terminator, '\0'));
    const std::string taken(bytes, size);
    free(bytes);
    return taken;
}

struct Spelling {
    const char *name;
    StringEncoding encoding;
    std::string bytes, text;
    size_t unit;
};
void PrintTo(const Spelling &row, std::ostream *out) { *out << row.name; }
const auto NAME_OF_ROW = [](const auto &row) { return std::string(row.param.name); };

const Spelling UTF_8_ROW = {"Utf8", STRING_ENCODING_UTF_8, MIXED, MIXED, 1};
const Spelling ASCII_ROW = {"Ascii", STRING_ENCODING_ASCII, "a\x7f\x01", "a\x7f\x01", 1};
const Spelling UTF_16LE_ROW = {"Utf16le", STRING_ENCODING_UTF_16LE, Le(MIXED_16), MIXED, 2};
const Spelling UTF_16BE_ROW = {"Utf16be", STRING_ENCODING_UTF_16BE, Be(MIXED_16), MIXED, 2};

struct Encoding {
    StringEncoding value;
    const char *name;
    bool isSupported;
};

const std::vector<Encoding> &AllEncodings()
{
    static const std::vector<Encoding> encodings = {
#define ROW(value, constant, name, isSupported, ...)                                               \
    {static_cast<StringEncoding>(value), name, isSupported},
        ENCODINGS(ROW)
#undef ROW
    };
    return encodings;
}

// ---- Strings from bytes

TEST_P(BothWays, NoBufferGivesNoString)
{
    for (const StringEncoding encoding :
         {STRING_ENCODING_DEFAULT, STRING_ENCODING_UTF_8, STRING_ENCODING_UTF_16LE}) {
        EXPECT_EQ(Unicode_AllocWithLength(nullptr, -1, encoding), nullptr);
        EXPECT_EQ(Unicode_AllocWithLength(nullptr, 0, encoding), nullptr);
        EXPECT_EQ(Unicode_AllocWithLength(nullptr, 5, encoding), nullptr);
    }
}

// ---- Strings from bytes that may be no text

// The string, or what errno says of there being none.
std::string AllocIfValid(const std::string &bytes, StringEncoding encoding)
{
    constexpr int UNTOUCHED = 4711;
    const Block block(bytes);
    errno = UNTOUCHED;
    char *string = Unicode_AllocIfValid(block.get(), static_cast<ssize_t>(bytes.size()), encoding);
    const int error = errno;
    if (string == nullptr) { return error == EILSEQ ? "EILSEQ" : error == EINVAL ? "EINVAL" : "?"; }
    EXPECT_EQ(error, UNTOUCHED);
    return Take(string);
}

TEST_P(BothWays, TextFromOutsideComesAsItIs)
{
    EXPECT_EQ(AllocIfValid(MIXED, STRING_ENCODING_UTF_8), MIXED);
    EXPECT_EQ(AllocIfValid(MIXED, STRING_ENCODING_DEFAULT), MIXED);
    EXPECT_EQ(AllocIfValid("plain", STRING_ENCODING_ASCII), "plain");
    EXPECT_EQ(AllocIfValid(Le(MIXED_16), STRING_ENCODING_UTF_16LE), MIXED);
    EXPECT_EQ(AllocIfValid("", STRING_ENCODING_UTF_8), "");
    EXPECT_EQ(AllocIfValid("", STRING_ENCODING_UTF_16LE), "");
    EXPECT_EQ(Take(Unicode_AllocIfValid("ab", -1, STRING_ENCODING_UTF_8)), "ab");
    EXPECT_EQ(Take(Unicode_AllocIfValid(u"ab", -1, STRING_ENCODING_UTF_16LE)), "ab");
    EXPECT_EQ(Unicode_AllocIfValid(nullptr, -1, STRING_ENCODING_UTF_8), nullptr);
}

TEST_P(BothWays, WhatIsNoTextFromOutsideIsRefused)
{
    EXPECT_EQ(AllocIfValid("caf\xe9", STRING_ENCODING_UTF_8), "EILSEQ");
    EXPECT_EQ(AllocIfValid("caf\xe9", STRING_ENCODING_DEFAULT), "EILSEQ");
    EXPECT_EQ(AllocIfValid("caf\xe9", STRING_ENCODING_ASCII), "EILSEQ");
    EXPECT_EQ(AllocIfValid(Le(u"a\xd800"), STRING_ENCODING_UTF_16LE), "EILSEQ");
    EXPECT_EQ(AllocIfValid("odd", STRING_ENCODING_UTF_16BE), "EILSEQ");
    EXPECT_EQ(Unicode_AllocIfValid("\xff", -1, STRING_ENCODING_UTF_8), nullptr);
}

TEST_P(BothWays, TextFromOutsideInOtherEncodingsNeedsIcu)
{
    EXPECT_EQ(AllocIfValid("caf\xe9", STRING_ENCODING_ISO_8859_1),
              CodeSet_IsIcuInUse() ? "caf\u00e9" : "EINVAL");
    EXPECT_EQ(AllocIfValid("\x83", STRING_ENCODING_SHIFT_JIS),
              CodeSet_IsIcuInUse() ? "EILSEQ" : "EINVAL");
}

TEST_P(BothWays, NoBytesAreTextInAnyEncoding)
{
    for (const Encoding &encoding : AllEncodings()) {
        EXPECT_TRUE(Unicode_IsBufferValid("", 0, encoding.value)) << encoding.name;
    }
}

// Read on either way.
class Read : public testing::TestWithParam<Spelling> {
protected:
    static void ExpectIt()
    {
        const Spelling &row = GetParam();
        EXPECT_EQ(Alloc(row.bytes, row.encoding), row.text) << "counted";
        for (size_t offset = 0; offset < 4; offset++) {
            const Block block(row.bytes + std::string(row.unit, '\0'), offset);
            EXPECT_EQ(Take(Unicode_AllocWithLength(block.get(), -1, row.encoding)), row.text)
                << "up to its terminator, at " << offset;
        }
    }
};
TEST_P(Read, WithoutIcu)
{
    CodeSet_DontUseIcu();
    ExpectIt();
}
using ReadByIcu = Read;
TEST_P(ReadByIcu, CountedOrTerminatedAtAnyAddress)
{
    UseIcu();
    ExpectIt();
}
// Zero bytes that are no terminator: within a unit, and beyond where one ends.
const Spelling UTF_16LE_ZEROS = {"Utf16leZeros", STRING_ENCODING_UTF_16LE, Le(u"a\u0100b"),
                                 "a\u0100b", 2};
const Spelling UTF_16BE_ZEROS = {"Utf16beZeros", STRING_ENCODING_UTF_16BE, Be(u"\u0100a\u0100"),
                                 "\u0100a\u0100", 2};
INSTANTIATE_TEST_SUITE_P(Encodings, Read,
                         testing::Values(UTF_8_ROW, ASCII_ROW, UTF_16LE_ROW, UTF_16BE_ROW,
                                         UTF_16LE_ZEROS, UTF_16BE_ZEROS),
                         NAME_OF_ROW);
INSTANTIATE_TEST_SUITE_P(
    MoreEncodings, ReadByIcu,
    testing::Values(
        UTF_8_ROW, ASCII_ROW, UTF_16LE_ROW, UTF_16BE_ROW, UTF_16LE_ZEROS, UTF_16BE_ZEROS,
        Spelling{"Utf16Marked", STRING_ENCODING_UTF_16, Be(u"\ufeff") + Be(MIXED_16), MIXED, 2},
        Spelling{"Utf32le", STRING_ENCODING_UTF_32LE, Le32(MIXED_32), MIXED, 4},
        Spelling{"Utf32leZeros", STRING_ENCODING_UTF_32LE, Le32(U"a\U00010000b"), "a\U00010000b",
                 4},
        Spelling{"Utf32be", STRING_ENCODING_UTF_32BE, Be32(MIXED_32), MIXED, 4},
        Spelling{"Utf32beZeros", STRING_ENCODING_UTF_32BE, Be32(U"\U00010000a"), "\U00010000a", 4},
        Spelling{"Utf32Marked", STRING_ENCODING_UTF_32, Be32(U"\ufeff") + Be32(MIXED_32), MIXED, 4},
        Spelling{"Latin1", STRING_ENCODING_ISO_8859_1, "caf\xe9", "caf\u00e9", 1},
        Spelling{"Windows1252", STRING_ENCODING_WINDOWS_1252, "\x80 5", "\u20ac 5", 1},
        Spelling{"ShiftJis", STRING_ENCODING_SHIFT_JIS, "\x82\xa0", "\u3042", 1}),
    NAME_OF_ROW);

TEST_P(BothWays, OnlyTheCountedBytesAreRead)
{
    const Block block("abc\xff");
    EXPECT_EQ(Take(Unicode_AllocWithLength(block.get(), 2, STRING_ENCODING_UTF_8)), "ab");
}

TEST_P(BothWays, AZeroUnitEndsACountedString)
{
    EXPECT_EQ(Alloc("a\0b"s, STRING_ENCODING_UTF_8), "a");
    EXPECT_EQ(Alloc(Le(std::u16string_view(u"a\0b", 3)), STRING_ENCODING_UTF_16LE), "a");
}

TEST_P(BothWays, AnyEncodingReadsNoBytesAsEmptyString)
{
    const char nothing[4] = {};
    for (const Encoding &encoding : AllEncodings()) {
        EXPECT_EQ(Take(Unicode_AllocWithLength(nothing, 0, encoding.value)), "") << encoding.name;
        EXPECT_EQ(Take(Unicode_AllocWithLength(nothing, -1, encoding.value)), "") << encoding.name;
    }
}

TEST_F(WithIcu, WhatIsInvalidBecomesAReplacementCharacter)
{
    EXPECT_EQ(Alloc("caf\xe9", STRING_ENCODING_UTF_8), "caf\ufffd");
    EXPECT_EQ(Alloc("a\xff z\xc3", STRING_ENCODING_UTF_8), "a\ufffd z\ufffd");
    EXPECT_EQ(Alloc("a\xff", STRING_ENCODING_ASCII), "a\ufffd");
    EXPECT_EQ(Alloc("\x00\xd8"s + Le(u"a"), STRING_ENCODING_UTF_16LE), "\ufffd"
                                                                       "a");
    EXPECT_EQ(Alloc("\xd8\x00"s + Be(u"a"), STRING_ENCODING_UTF_16BE), "\ufffd"
                                                                       "a");
}

TEST_F(WithIcu, ALoneLeadByteBecomesTheSubstitute)
{
    EXPECT_EQ(Alloc("\x81 ", STRING_ENCODING_SHIFT_JIS), "\x1a ");
}

TEST_F(WithoutIcu, InvalidAsciiBytesAreReplaced)
{
    EXPECT_EQ(Alloc("a\xff z", STRING_ENCODING_ASCII), "a\ufffd z");
}

struct Refused {
    const char *name;
    std::string bytes;
    StringEncoding encoding;
    std::string report;
};
void PrintTo(const Refused &row, std::ostream *out) { *out << row.name; }
class RefusedDeathTest : public testing::TestWithParam<Refused> {};
TEST_P(RefusedDeathTest, EndsTheProcessWithTheEscapedBytes)
{
    const auto &[name, bytes, encoding, report] = GetParam();
    CodeSet_DontUseIcu();
    const std::string text =
        "Unicode_AllocWithLength: Couldn't convert invalid buffer " + report + " to Unicode.\n";
    EXPECT_PANIC(Alloc(bytes, encoding), text);
    const std::string terminated = bytes + std::string(4, '\0');
    EXPECT_PANIC(Unicode_AllocWithLength(terminated.data(), -1, encoding), text);
}
INSTANTIATE_TEST_SUITE_P(
    Buffers, RefusedDeathTest,
    testing::Values(Refused{"Utf8", "caf\xe9", STRING_ENCODING_UTF_8, "[caf\\xE9] from UTF-8"},
                    Refused{"Default", "\\\x7f\xff", STRING_ENCODING_DEFAULT,
                            "[\\x5C\\x7F\\xFF] from UTF-8"},
                    Refused{"Utf16le", Le(u"a") + "\x00\xd8"s, STRING_ENCODING_UTF_16LE,
                            "[a\\x00\\x00\\xD8] from UTF-16LE"},
                    Refused{"Utf16be", Be(u"a") + "\xd8\x00"s, STRING_ENCODING_UTF_16BE,
                            "[\\x00a\\xD8\\x00] from UTF-16BE"},
                    Refused{"Utf32le", Le32(U"a"), STRING_ENCODING_UTF_32LE,
                            "[a\\x00\\x00\\x00] from UTF-32LE"},
                    Refused{"Latin1", "abc", STRING_ENCODING_ISO_8859_1, "[abc] from ISO-8859-1"},
                    Refused{"Unsupported", "abc", STRING_ENCODING_EUC_JP, "[abc] from EUC-JP"}),
    NAME_OF_ROW);

TEST_P(BothWaysDeathTest, WithoutMemoryTheBytesAreNotTold)
{
    Alloc("abc", STRING_ENCODING_UTF_8); // what is kept for later conversions
    EXPECT_PANIC(
        {
            const OutOfMemory none;
            Unicode_AllocWithLength("abc", -1, STRING_ENCODING_UTF_8);
        },
        "Unicode_AllocWithLength: Couldn't convert invalid buffer [(couldn't escape bytes)] from "
        "UTF-8 to Unicode.\n");
}

TEST_F(WithoutIcu, InternallyWhatCannotBeConvertedGivesNull)
{
    EXPECT_EQ(UnicodeAllocInternal("\xff", 1, STRING_ENCODING_UTF_8, false), nullptr);
    EXPECT_EQ(UnicodeAllocInternal("abc", 3, STRING_ENCODING_ISO_8859_1, false), nullptr);
}

std::string Strict(const std::string &bytes, StringEncoding encoding)
{
    const Block block(bytes);
    return Take(UnicodeAllocInternal(block.get(), bytes.size(), encoding, true));
}

TEST_P(BothWays, StrictlyValidTextIsTaken)
{
    for (const Spelling &row : {UTF_8_ROW, ASCII_ROW, UTF_16LE_ROW, UTF_16BE_ROW}) {
        EXPECT_EQ(Strict(row.bytes, row.encoding), row.text) << row.name;
        EXPECT_EQ(Strict("", row.encoding), "") << row.name;
    }
}

TEST_P(BothWays, StrictlyNothingInvalidIsTaken)
{
    EXPECT_EQ(Strict("caf\xe9", STRING_ENCODING_UTF_8), NONE);
    EXPECT_EQ(Strict("\xed\xa0\x80", STRING_ENCODING_UTF_8), NONE);
    EXPECT_EQ(Strict("\u00e9", STRING_ENCODING_ASCII), NONE);
    EXPECT_EQ(Strict("\x00\xd8"s, STRING_ENCODING_UTF_16LE), NONE);
    EXPECT_EQ(Strict("abc", STRING_ENCODING_UTF_16LE), NONE) << "half a unit";
    EXPECT_EQ(Strict("\xd8\x00"s, STRING_ENCODING_UTF_16BE), NONE);
    EXPECT_EQ(Strict("\x81 ", STRING_ENCODING_SHIFT_JIS), NONE);
}

TEST_P(BothWays, StrictlyUtf8AndAsciiAreOnlyCopied)
{
    for (const StringEncoding encoding : {STRING_ENCODING_UTF_8, STRING_ENCODING_ASCII}) {
        const auto sizes = Allocations::SizesIn([&] { EXPECT_EQ(Strict("abc", encoding), "abc"); });
        EXPECT_EQ(sizes, std::vector<size_t>{4});
    }
}

TEST_F(WithIcu, StrictlyOtherEncodingsAreConverted)
{
    EXPECT_EQ(Strict("caf\xe9", STRING_ENCODING_ISO_8859_1), "caf\u00e9");
    EXPECT_EQ(Strict("\x82\xa0", STRING_ENCODING_SHIFT_JIS), "\u3042");
}

TEST_F(WithoutIcu, StrictlyOtherEncodingsAreNot)
{
    EXPECT_EQ(Strict("cafe", STRING_ENCODING_ISO_8859_1), NONE);
}

// ---- Lists

std::vector<std::string> TakeList(char **list, size_t count)
{
    std::vector<std::string> taken;
    for (size_t i = 0; i < count; i++) {
        taken.push_back(Take(list[i]));
    }
    free(list);
    return taken;
}

using List = std::vector<char *>;
using Strings = std::vector<std::string>;

char *Text(const std::string &bytes) { return const_cast<char *>(bytes.c_str()); }
const std::string ONE = "1\u00e9", TWO = "2", ONE_16 = Le(u"1\u00e9") + "\0\0"s,
                  TWO_16 = Le(u"2") + "\0\0"s;

TEST_P(BothWays, ACountedListKeepsItsNulls)
{
    List list = {Text(ONE_16), nullptr, Text(TWO_16), nullptr};
    Unicode *strings = Unicode_AllocList(list.data(), 4, STRING_ENCODING_UTF_16LE);
    EXPECT_EQ(TakeList(strings, 4), (Strings{ONE, NONE, TWO, NONE}));
}

TEST_P(BothWays, ATerminatedListStaysTerminated)
{
    List list = {Text(ONE_16), Text(TWO_16), nullptr};
    for (const ssize_t count : {-1, -7}) {
        Unicode *strings = Unicode_AllocList(list.data(), count, STRING_ENCODING_UTF_16LE);
        EXPECT_EQ(TakeList(strings, 3), (Strings{ONE, TWO, NONE}));
    }
}

TEST_P(BothWays, ANewListHasRoomForItsEnd)
{
    List list = {Text(TWO), nullptr};
    const auto firstSize = [&](char **(*make)(char **, ssize_t, StringEncoding)) {
        const auto sizes = Allocations::SizesIn(
            [&] { TakeList(make(list.data(), -1, STRING_ENCODING_UTF_8), 2); });
        return sizes.at(0);
    };
    EXPECT_EQ(firstSize(Unicode_AllocList), 2 * sizeof(char *));
    EXPECT_EQ(firstSize(Unicode_GetAllocList), 2 * sizeof(char *));
}

TEST_P(BothWays, AListMayHoldOnlyItsTerminator)
{
    List list = {nullptr};
    EXPECT_EQ(TakeList(Unicode_AllocList(list.data(), -1, STRING_ENCODING_UTF_8), 1),
              Strings{NONE});
    EXPECT_EQ(TakeList(Unicode_GetAllocList(list.data(), -1, STRING_ENCODING_UTF_8), 1),
              Strings{NONE});
}

TEST_P(BothWays, ACountedEmptyListIsNotRead)
{
    TakeList(Unicode_AllocList(nullptr, 0, STRING_ENCODING_UTF_8), 0);
    TakeList(Unicode_GetAllocList(nullptr, 0, STRING_ENCODING_UTF_8), 0);
}

TEST_F(WithoutIcuDeathTest, AnInvalidListEntryEndsTheProcess)
{
    const std::string bad = "\xff";
    List list = {Text(ONE), Text(bad)};
    EXPECT_PANIC(Unicode_AllocList(list.data(), 2, STRING_ENCODING_UTF_8),
                 "Unicode_AllocWithLength: Couldn't convert invalid buffer [\\xFF] from UTF-8 to "
                 "Unicode.\n");
}

// The bytes of a list in UTF-16LE, terminators included.
Strings TakeList16(char **list, size_t count)
{
    Strings taken;
    for (size_t i = 0; i < count; i++) {
        size_t size = 0;
        while (list[i] != nullptr && memcmp(list[i] + size, "\0", 2) != 0) {
            size += 2;
        }
        taken.push_back(list[i] == nullptr ? NONE : std::string(list[i], size + 2));
        free(list[i]);
    }
    free(list);
    return taken;
}

TEST_P(BothWays, ACountedListOfStringsKeepsItsNulls)
{
    List list = {Text(ONE), nullptr, Text(TWO), nullptr};
    EXPECT_EQ(TakeList16(Unicode_GetAllocList(list.data(), 4, STRING_ENCODING_UTF_16LE), 4),
              (Strings{ONE_16, NONE, TWO_16, NONE}));
}

TEST_P(BothWays, ATerminatedListOfStringsStaysTerminated)
{
    List list = {Text(ONE), Text(TWO), nullptr};
    EXPECT_EQ(TakeList16(Unicode_GetAllocList(list.data(), -1, STRING_ENCODING_UTF_16LE), 3),
              (Strings{ONE_16, TWO_16, NONE}));
}

TEST_P(BothWays, OneUnconvertibleStringFailsTheListWithoutLeaks)
{
    List list = {Text(TWO), nullptr, Text(TWO), Text(ONE), Text(TWO), nullptr};
    for (const ssize_t count : {6, -1}) {
        list[1] = count < 0 ? Text(TWO) : nullptr;
        const ptrdiff_t live = Allocations::Live();
        EXPECT_EQ(Unicode_GetAllocList(list.data(), count, STRING_ENCODING_ASCII), nullptr);
        EXPECT_EQ(Allocations::Live(), live);
    }
}

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
    Unicode_CanGetBytesWithEncoding("a", STRING_ENCODING_UTF_16LE); // what is kept for later
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

struct Copy {
    bool fit;
    size_t length;
    std::string block;
    bool operator==(const Copy &) const = default;
};
void PrintTo(const Copy &copy, std::ostream *out)
{
    *out << copy.fit << ", " << copy.length << ", " << testing::PrintToString(copy.block);
}

constexpr char UNTOUCHED = 'U';

Copy CopyInto(size_t capacity, const std::string &string, StringEncoding encoding)
{
    const std::unique_ptr<char[]> block(new char[capacity]);
    memset(block.get(), UNTOUCHED, capacity);
    size_t length = 77;
    const bool fit = Unicode_CopyBytes(block.get(), string.c_str(), capacity, &length, encoding);
    return {fit, length, std::string(block.get(), capacity)};
}

// What is kept, its terminator, and nothing else.
Copy Kept(bool fit, const std::string &bytes, size_t unit, size_t capacity)
{
    std::string block = bytes + std::string(unit, '\0');
    block.resize(capacity, UNTOUCHED);
    return {fit, bytes.size(), block};
}

Copy Nothing(size_t capacity) { return {false, 0, std::string(capacity, UNTOUCHED)}; }

// As many of the characters as fit whole, and their terminator.
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

// The characters of that text, in an encoding.
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

// Bytes that are not UTF-8, how many there is room for, and what is left of them.
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
        {"\xe4\xb8\xf0\x9f.", 4, ""},  // and again
        {"\xc3\xa9\x80", 2, "\u00e9"}, // a whole character, and a byte too many
        {"\xc3\xa9\x80"s + "b", 3, "\u00e9"},
        {"a\x80\x80\x80", 3, "a"},        // bytes that nothing leads
        {"a\xc0\x80"s + "b", 3, "a"},     // longer than needed
        {"a\xed\xa0\x80"s + "b", 4, "a"}, // a surrogate
        {"a\xff"s + "b", 2, "a"},
        {"\xff"s + "ab", 2, "\xff"s + "a"}, // before the end it stays
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
    CopyInto(40, MIXED, STRING_ENCODING_UTF_16LE); // what is kept for later conversions
    CopyInto(40, MIXED, STRING_ENCODING_UTF_16BE);
    const ptrdiff_t live = Allocations::Live();
    CopyInto(40, MIXED, STRING_ENCODING_UTF_16LE);
    CopyInto(40, MIXED, STRING_ENCODING_UTF_16BE);
    EXPECT_EQ(Allocations::Live(), live);
}

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

// In characters as they are counted, for which ten more are added.
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
    {"\u20ac", 2},       // the byte that is left of it counts again
    {"\u20acx", 2},      // and takes in the next
    {"\u20ac\u20ac", 3}, // whatever that is
    {"\U0001F600", 2},
    {"\U0001F600x", 3},
    {"x\xc3", 2}, // not beyond the terminator
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
    return width == 7 ? 1 : width; // UTF-8 and what is written byte by byte
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

// ---- Escapes

std::string Escaped(const std::string &bytes)
{
    const Block block(bytes);
    return Take(Unicode_EscapeBuffer(block.get(), static_cast<ssize_t>(bytes.size()),
                                     STRING_ENCODING_UTF_8));
}

TEST(UnicodeEscapeBuffer, EscapesWhatIsNotPrintableAscii)
{
    for (int byte = 0; byte < 256; byte++) {
        const bool isPlain = byte >= ' ' && byte <= '~' && byte != '\\';
        char expected[5] = {static_cast<char>(byte)};
        if (!isPlain) { snprintf(expected, sizeof expected, "\\x%02X", byte); }
        const std::string one(1, static_cast<char>(byte));
        EXPECT_EQ(Escaped(one), expected);
        EXPECT_EQ(Escaped("a" + one + "z"), "a"s + expected + "z");
    }
}

TEST(UnicodeEscapeBuffer, EscapesUpToTheTerminatorOfTheEncoding)
{
    const auto escaped = [](const std::string &bytes, StringEncoding encoding) {
        const Block block(bytes, 1);
        return Take(Unicode_EscapeBuffer(block.get(), -1, encoding));
    };
    EXPECT_EQ(escaped("a\xe9\0b"s, STRING_ENCODING_UTF_8), "a\\xE9");
    EXPECT_EQ(escaped("a\0\0\x01\0\0"s, STRING_ENCODING_UTF_16LE), "a\\x00\\x00\\x01");
    EXPECT_EQ(escaped("\0a\0\0"s, STRING_ENCODING_UTF_16BE), "\\x00a");
    EXPECT_EQ(escaped("\0a\0\0"s, STRING_ENCODING_UTF_16), "\\x00a");
    EXPECT_EQ(escaped("a\0\0\0\0\0\0\0"s, STRING_ENCODING_UTF_32LE), "a\\x00\\x00\\x00");
    EXPECT_EQ(escaped("\0\0\0a\0\0\0\0"s, STRING_ENCODING_UTF_32BE), "\\x00\\x00\\x00a");
    EXPECT_EQ(escaped("\0\0\0a\0\0\0\0"s, STRING_ENCODING_UTF_32), "\\x00\\x00\\x00a");
    EXPECT_EQ(escaped("a\0\0"s, STRING_ENCODING_ASCII), "a");
}

TEST(UnicodeEscapeBuffer, OfNothingIsAnEmptyString) { EXPECT_EQ(Escaped(""), ""); }

TEST(UnicodeEscapeBuffer, FailsWithoutMemory)
{
    const OutOfMemory none;
    EXPECT_EQ(Unicode_EscapeBuffer("a", 1, STRING_ENCODING_UTF_8), nullptr);
}

struct Unescaped {
    const char *name;
    std::string ascii, text;
};
void PrintTo(const Unescaped &row, std::ostream *out) { *out << row.name; }
class UnicodeAllocFromEscapedAscii : public testing::TestWithParam<Unescaped> {};
TEST_P(UnicodeAllocFromEscapedAscii, ReadsEscapesOnEitherWay)
{
    const auto &[name, ascii, text] = GetParam();
    const Block block(ascii + '\0');
    UseIcu();
    EXPECT_EQ(Take(Unicode_AllocFromEscapedAscii(block.get(), true)), text);
    CodeSet_DontUseIcu();
    EXPECT_EQ(Take(Unicode_AllocFromEscapedAscii(block.get(), true)), text);
    EXPECT_EQ(Take(Unicode_AllocFromEscapedAscii(block.get(), false)), ascii) << "as it is";
}
INSTANTIATE_TEST_SUITE_P(
    Texts, UnicodeAllocFromEscapedAscii,
    testing::Values(Unescaped{"Empty", "", ""}, Unescaped{"Plain", "a b~\x7f\x01", "a b~\x7f\x01"},
                    Unescaped{"Four", "caf\\u00e9", "caf\u00e9"},
                    Unescaped{"FourInTheMiddle", "caf\\u00E9s", "caf\u00e9s"},
                    Unescaped{"FourOfEightDigits", "\\u00e90041",
                              "\u00e9"
                              "0041"},
                    Unescaped{"DigitsOfEitherCase", "\\uaBcD\\uEfEf", "\uabcd\uefef"},
                    Unescaped{"AllDigits", "\\u0123\\u4567\\u89ab\\ucdef",
                              "\u0123\u4567\u89ab\ucdef"},
                    Unescaped{"Eight", "\\U0001F600", "\U0001F600"},
                    Unescaped{"EightInTheMiddle", "a\\U0001f600f",
                              "a\U0001F600"
                              "f"},
                    Unescaped{"EightForASmallOne", "\\U000000e9", "\u00e9"},
                    Unescaped{"LastWithoutAPair", "\\U0000ffff", "\uffff"},
                    Unescaped{"FirstPair", "\\U00010000", "\U00010000"},
                    Unescaped{"LastPair", "\\U0010fFfF", "\U0010FFFF"},
                    Unescaped{"BeyondTheLast", "\\U00110000", "\ufffd"},
                    Unescaped{"FarBeyondTheLast", "\\UFFFFFFFFa",
                              "\ufffd"
                              "a"},
                    Unescaped{"PairOfFours", "\\ud83d\\ude00", "\U0001F600"},
                    Unescaped{"ZeroEndsIt", "a\\u0000b", "a"}, Unescaped{"Backslash", "\\\\", "\\"},
                    Unescaped{"BackslashBeforeDigits", "\\\\u00e9", "\\u00e9"},
                    Unescaped{"AnyOther", "\\n\\x\\\"\\'\\ \\0", "nx\"' 0"},
                    Unescaped{"AtTheEnd", "abc\\", "abc"}, Unescaped{"Alone", "\\", ""}),
    NAME_OF_ROW);

TEST(UnicodeAllocFromEscapedAscii, AsksForTwoBytesEachAndATerminator)
{
    CodeSet_DontUseIcu();
    const auto sizes =
        Allocations::SizesIn([] { Take(Unicode_AllocFromEscapedAscii("abcde", true)); });
    EXPECT_EQ(sizes.at(0), 12);
}

TEST_P(BothWays, TextWithEscapesLeavesNothingBehind)
{
    const auto read = [] { Take(Unicode_AllocFromEscapedAscii("caf\\u00e9", true)); };
    read(); // what is kept for later conversions
    const ptrdiff_t live = Allocations::Live();
    read();
    EXPECT_EQ(Allocations::Live(), live);
}

TEST(UnicodeAllocFromEscapedAscii, WithoutEscapesIsNotLookedAt)
{
    EXPECT_EQ(Take(Unicode_AllocFromEscapedAscii("\xff\\uZZ", false)), "\xff\\uZZ");
    EXPECT_EQ(Unicode_AllocFromEscapedAscii(nullptr, false), nullptr);
}

TEST_F(WithIcu, AnEscapedHalfOfAPairIsReplaced)
{
    EXPECT_EQ(Take(Unicode_AllocFromEscapedAscii("a\\ud800b", true)), "a\ufffd"
                                                                      "b");
}

TEST_F(WithoutIcuDeathTest, AnEscapedLoneSurrogateEndsTheProcess)
{
    EXPECT_PANIC(Unicode_AllocFromEscapedAscii("\\ud800", true),
                 "Unicode_AllocWithLength: Couldn't convert invalid buffer [\\x00\\xD8] from "
                 "UTF-16LE to Unicode.\n");
}

TEST(UnicodeAllocFromEscapedAsciiDeathTest, OtherBytesThanAsciiEndTheProcess)
{
    constexpr char PLAIN[] = "VERIFY lib/unicode/unicodeSimpleBase:815\n";
    constexpr char ESCAPED[] = "VERIFY lib/unicode/unicodeSimpleBase:831\n";
    EXPECT_PANIC(Unicode_AllocFromEscapedAscii("\x80", true), PLAIN);
    EXPECT_PANIC(Unicode_AllocFromEscapedAscii("abc\u00e9", true), PLAIN);
    EXPECT_PANIC(Unicode_AllocFromEscapedAscii("\\\x80", true), ESCAPED);
    EXPECT_PANIC(Unicode_AllocFromEscapedAscii("abc\\\xff", true), ESCAPED);
}

TEST(UnicodeAllocFromEscapedAsciiDeathTest, OnlyTheDigitsAreDigits)
{
    const std::string digits = "0123456789abcdefABCDEF";
    for (int byte = 1; byte < 256; byte++) {
        const std::string input = "\\u004"s + static_cast<char>(byte);
        if (digits.find(static_cast<char>(byte)) != std::string::npos) {
            const auto value = static_cast<char>(std::stoi(input.substr(2), nullptr, 16));
            EXPECT_EQ(Take(Unicode_AllocFromEscapedAscii(input.c_str(), true)),
                      std::string(1, value));
        } else {
            EXPECT_PANIC(Unicode_AllocFromEscapedAscii(input.c_str(), true),
                         "NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:869\n")
                << byte;
        }
    }
}

TEST(UnicodeAllocFromEscapedAsciiDeathTest, OtherThanDigitsEndTheProcess)
{
    const std::string inputs[] = {"\\uZZ",
                                  "\\u",
                                  "\\u1",
                                  "\\u123",
                                  "\\u123g",
                                  "\\u12 4",
                                  "\\u/000",
                                  "\\u:000",
                                  "\\u@000",
                                  "\\uG000",
                                  "\\u`000",
                                  "\\ug000",
                                  "\\u00\xe9"
                                  "0",
                                  "\\U",
                                  "\\U0001F60",
                                  "\\U0001F60G",
                                  "\\U0001",
                                  "\\u\\u0041",
                                  "\\u00\\",
                                  "\\u-001"};
    for (const std::string &input : inputs) {
        const Block block(input + '\0');
        EXPECT_PANIC(Unicode_AllocFromEscapedAscii(block.get(), true),
                     "NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:869\n")
            << input;
    }
}

// ---- The current encoding

TEST_P(BothWays, TheDefaultIsTheCurrentEncoding)
{
    const CurrentEncoding current(STRING_ENCODING_UTF_16LE);
    constexpr StringEncoding DEFAULT = STRING_ENCODING_DEFAULT;
    const std::string units = Le(u"1\u00e9"), text = "1\u00e9";
    const std::string terminated = units + "\0\0"s;

    EXPECT_EQ(Take(Unicode_AllocWithLength(terminated.data(), -1, DEFAULT)), text);
    EXPECT_EQ(Take(UnicodeAllocInternal(units.data(), units.size(), DEFAULT, true)), text);
    EXPECT_EQ(Take(UnicodeAllocInternal(units.data(), units.size(), DEFAULT, false)), text);
    EXPECT_EQ(GetBytes(text, DEFAULT, 2), units);
    EXPECT_EQ(CopyInto(8, text, DEFAULT), Kept(true, units, 2, 8));
    EXPECT_EQ(Take(Unicode_EscapeBuffer(terminated.data(), -1, DEFAULT)), "1\\x00\\xE9\\x00");
    EXPECT_EQ(Unicode_BytesRequired(text.c_str(), DEFAULT), 24);
    EXPECT_TRUE(Unicode_IsBufferValid(terminated.data(), -1, DEFAULT));
    EXPECT_FALSE(Unicode_IsBufferValid("abc", 3, DEFAULT)) << "half a unit";

    List buffers = {Text(terminated), nullptr}, strings = {Text(text), nullptr};
    EXPECT_EQ(TakeList(Unicode_AllocList(buffers.data(), -1, DEFAULT), 2), (Strings{text, NONE}));
    EXPECT_EQ(TakeList16(Unicode_GetAllocList(strings.data(), -1, DEFAULT), 2),
              (Strings{terminated, NONE}));

    sCurrent = STRING_ENCODING_ASCII;
    EXPECT_FALSE(Unicode_CanGetBytesWithEncoding(text.c_str(), DEFAULT));
    EXPECT_EQ(Unicode_GetAllocBytes(text.c_str(), DEFAULT), nullptr);
    EXPECT_FALSE(Unicode_IsBufferValid(text.c_str(), -1, DEFAULT));
}

} // namespace
