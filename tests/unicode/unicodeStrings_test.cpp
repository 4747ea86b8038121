// Tests of strings from bytes, of lists of strings, and of the current encoding.
#include "unicodeStringsForTests.h"

#include "allocations.h"
#include "codeset.h"
#include "panic.h"
#include "unicodeInt.h"
#include "useIcu.h"
#include "utf16Bytes.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

extern "C" StringEncoding __wrap_Unicode_ResolveEncoding(StringEncoding encoding)
{
    return encoding == STRING_ENCODING_DEFAULT ? sCurrent : encoding;
}

namespace {

INSTANTIATE_TEST_SUITE_P(, BothWays, testing::Bool(), NAME_OF_WAY);
INSTANTIATE_TEST_SUITE_P(, BothWaysDeathTest, testing::Bool(), NAME_OF_WAY);

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

// Returns the string; if there is none, the name of the error in errno.
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

// A row's bytes, which must be read as its text, with ICU or without.
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
    Alloc("abc", STRING_ENCODING_UTF_8); // fills the caches
    EXPECT_PANIC(
        {
            const OutOfMemory none;
            Unicode_AllocWithLength("abc", -1, STRING_ENCODING_UTF_8);
        },
        "Unicode_AllocWithLength: Couldn't convert invalid buffer [(couldn't escape bytes)] "
        "from "
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

// Returns the bytes of a list in UTF-16LE, terminators included.
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
