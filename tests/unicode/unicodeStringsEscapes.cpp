// Tests of the escapes of bytes that are no printable ASCII.
#include "unicodeStringsForTests.h"

#include "allocations.h"
#include "codeset.h"
#include "panic.h"
#include "unicodeInt.h"
#include "useIcu.h"

#include <cerrno>
#include <string>

namespace {

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
    read(); // fills the caches
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

} // namespace
