#include "escape.h"

#include "allocations.h"
#include "scoped.h"
#include "scopedForTests.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <vector>

using namespace pelago;

namespace {

using namespace std::string_literals;

// A set of bytes as the functions take it; the value of a member may be any number but 0.
struct ByteSet {
    int in[256] = {};
    explicit ByteSet(const std::string &bytes)
    {
        int number = INT_MIN;
        for (const char byte : bytes) {
            in[static_cast<uint8_t>(byte)] = number++;
        }
    }
};
const ByteSet PERCENT("%"), NONE("");

// All builders have one signature here: from bytes to a block and its size.
using Builder = std::function<char *(const std::string &in, size_t *size)>;

// Returns the result, after checking its NUL, and that the builder also works without a pointer to
// the size.
std::string Built(const Builder &build, const std::string &in)
{
    size_t size = SIZE_MAX;
    const ScopedFree<char> block(build(in, &size));
    EXPECT_NE(block, nullptr);
    if (!block) { return "(none)"; }
    EXPECT_EQ(block.get()[size], '\0') << "every result is terminated";
    const ScopedFree<char> again(build(in, nullptr));
    EXPECT_EQ(memcmp(block.get(), again.get(), size + 1), 0) << "the size is not wanted";
    return std::string(block.get(), size);
}

// The input in a block of exactly its size, so that a sanitizer detects reads after its end.
template <typename F> auto Tight(const std::string &in, F f)
{
    const std::vector<char> bytes(in.begin(), in.end());
    return f(bytes.data(), bytes.size());
}

Builder Do(char escByte, const ByteSet &set)
{
    return [=](const std::string &in, size_t *size) {
        return Tight(in, [&](auto *p, size_t n) { return Escape_Do(escByte, set.in, p, n, size); });
    };
}
Builder DoString(const char *escString, const ByteSet &set)
{
    return [=](const std::string &in, size_t *size) {
        return Tight(
            in, [&](auto *p, size_t n) { return Escape_DoString(escString, set.in, p, n, size); });
    };
}
Builder Undo(char escByte)
{
    return [=](const std::string &in, size_t *size) {
        return Tight(in, [&](auto *p, size_t n) { return Escape_Undo(escByte, p, n, size); });
    };
}
char *AnsiToUnix(const std::string &in, size_t *size)
{
    return Tight(in, [&](auto *p, size_t n) { return Escape_AnsiToUnix(p, n, size); });
}
char *Sh(const std::string &in, size_t *size)
{
    return Tight(in, [&](auto *p, size_t n) { return Escape_Sh(p, n, size); });
}
char *Bre(const std::string &in, size_t *size)
{
    return Tight(in, [&](auto *p, size_t n) { return Escape_BRE(p, n, size); });
}
// Builders of strings do not return a size.
Builder OfString(const std::function<char *(const char *)> &f)
{
    return [=](const std::string &in, size_t *size) {
        const std::vector<char> bytes(in.c_str(), in.c_str() + in.size() + 1);
        char *text = f(bytes.data());
        if (text != nullptr && size != nullptr) { *size = strlen(text); }
        return text;
    };
}
const Builder COMMA = OfString(Escape_Comma);
const Builder UNESCAPE = OfString([](const char *in) { return Escape_Unescape('\\', in); });

struct Case {
    const char *name;
    Builder build;
    std::string in, out;
};
class EscapeBuilder : public testing::TestWithParam<Case> {};
TEST_P(EscapeBuilder, Gives) { EXPECT_EQ(Built(GetParam().build, GetParam().in), GetParam().out); }
std::string CaseName(const testing::TestParamInfo<Case> &row) { return row.param.name; }

INSTANTIATE_TEST_SUITE_P(
    Do, EscapeBuilder,
    testing::Values(Case{"TheEscapeItself", Do('%', PERCENT), "a%b", "a%25b"},
                    Case{"Nothing", Do('%', PERCENT), "", ""},
                    Case{"OnlyEscapes", Do('%', PERCENT), "%%", "%25%25"},
                    Case{"NotTheEscape", Do('%', NONE), "a%b", "a%b"},
                    Case{"NulsAndHighBytes", Do('=', ByteSet("\0\xff\xab"s)), "\0\xff\xab"s,
                         "=00=FF=AB"},
                    Case{"AfterAWord", Do('%', PERCENT), "12345678%", "12345678%25"},
                    Case{"LongEscape", DoString("\\x", ByteSet("\n")), "a\nb", "a\\x0Ab"},
                    Case{"NoEscape", DoString("", ByteSet("\n")), "a\nb", "a0Ab"},
                    Case{"NothingWithLongEscape", DoString("\\x", ByteSet("\n")), "", ""}),
    CaseName);
INSTANTIATE_TEST_SUITE_P(
    Undo, EscapeBuilder,
    testing::Values(Case{"TheEscapeItself", Undo('%'), "a%25b", "a%b"},
                    Case{"Nothing", Undo('%'), "", ""}, Case{"Incomplete", Undo('%'), "%4", "%4"},
                    Case{"Alone", Undo('%'), "%", "%"}, Case{"NoDigits", Undo('%'), "%zz", "%zz"},
                    Case{"OneDigit", Undo('%'), "%4z", "%4z"},
                    Case{"LowerCase", Undo('%'), "%ab%Ff%0a", "\xab\xff\n"},
                    Case{"ZeroByte", Undo('%'), "a%00b", "a\0b"s},
                    Case{"EscapeAfterEscape", Undo('%'), "%%41", "%%41"},
                    Case{"EscapeAsSecondDigit", Undo('%'), "%4%41", "%4%41"},
                    Case{"GoesOnAfterOne", Undo('%'), "%4z%41%zz%42", "%4zA%zzB"},
                    Case{"ResultIsNoEscape", Undo('%'), "%2541", "%41"},
                    Case{"DigitAsEscape", Undo('A'), "A41AAAxA4",
                         "A\xaa"
                         "xA4"},
                    Case{"NextToTheDigits", Undo('%'), "%/0%:0%@0%G0%`0%g0%0/",
                         "%/0%:0%@0%G0%`0%g0%0/"}),
    CaseName);
INSTANTIATE_TEST_SUITE_P(AnsiToUnix, EscapeBuilder,
                         testing::Values(Case{"LineEnds", AnsiToUnix, "a\r\nb\r\n", "a\nb\n"},
                                         Case{"TwoReturns", AnsiToUnix, "\r\r\n", "\r\n"},
                                         Case{"ReturnAlone", AnsiToUnix, "\r", "\r"},
                                         Case{"ReturnWithin", AnsiToUnix, "a\rb\n", "a\rb\n"},
                                         Case{"OtherWayRound", AnsiToUnix, "\n\r", "\n\r"},
                                         Case{"Nothing", AnsiToUnix, "", ""},
                                         Case{"Nuls", AnsiToUnix, "\0\r\n\0"s, "\0\n\0"s}),
                         CaseName);
INSTANTIATE_TEST_SUITE_P(Sh, EscapeBuilder,
                         testing::Values(Case{"Quote", Sh, "it's", "'it'\"'\"'s'"},
                                         Case{"Nothing", Sh, "", "''"},
                                         Case{"OnlyAQuote", Sh, "'", "''\"'\"''"},
                                         Case{"NothingElse", Sh, "$a \"\\`\n", "'$a \"\\`\n'"},
                                         Case{"Nul", Sh, "\0'"s, "'\0'\"'\"''"s}),
                         CaseName);
INSTANTIATE_TEST_SUITE_P(
    Bre, EscapeBuilder,
    testing::Values(Case{"TheSeven", Bre, "$*.[\\]^", "\\$\\*\\.\\[\\\\\\]\\^"},
                    Case{"NothingElse", Bre, "a+?(){}|/-", "a+?(){}|/-"},
                    Case{"Nothing", Bre, "", ""}, Case{"Nul", Bre, "\0.\0"s, "\0\\.\0"s}),
    CaseName);
INSTANTIATE_TEST_SUITE_P(Comma, EscapeBuilder,
                         testing::Values(Case{"CommaAndBackslash", COMMA, "a,b\\c", "a\\,b\\\\c"},
                                         Case{"Nothing", COMMA, "", ""},
                                         Case{"OnlyCommas", COMMA, ",,", "\\,\\,"}),
                         CaseName);
INSTANTIATE_TEST_SUITE_P(Unescape, EscapeBuilder,
                         testing::Values(Case{"Commas", UNESCAPE, "a\\,b\\\\c", "a,b\\c"},
                                         Case{"LoneAtTheEnd", UNESCAPE, "ab\\", "ab"},
                                         Case{"Pairs", UNESCAPE, "\\\\\\\\", "\\\\"},
                                         Case{"PairsAndOne", UNESCAPE, "\\\\\\", "\\"},
                                         Case{"OnlyOne", UNESCAPE, "\\", ""},
                                         Case{"Nothing", UNESCAPE, "", ""},
                                         Case{"Letters", UNESCAPE, "\\n\\0", "n0"}),
                         CaseName);

// What the builders do, as plain code.
std::string Replaced(const std::string &in, const std::string &wanted,
                     const std::function<std::string(char)> &replacement)
{
    std::string out;
    for (const char byte : in) {
        const bool isWanted = wanted.find(byte) != std::string::npos;
        out += isWanted ? replacement(byte) : std::string(1, byte);
    }
    return out;
}
std::string Hex(const std::string &escape, char byte)
{
    char digits[3];
    snprintf(digits, sizeof digits, "%02X", static_cast<unsigned>(static_cast<uint8_t>(byte)));
    return escape + digits;
}
std::string WithBackslash(char byte) { return {'\\', byte}; }

// What Undo() does, as a state machine that reads one byte at a time.
std::string Undone(char escByte, const std::string &in)
{
    std::string out;
    const auto value = [](char byte) {
        const char *const digits = "0123456789abcdef0123456789ABCDEF";
        const char *at = byte == '\0' ? nullptr : strchr(digits, byte);
        return at == nullptr ? -1 : static_cast<int>((at - digits) % 16);
    };
    int state = 0, first = 0;
    for (const char byte : in) {
        out += byte;
        if (state == 0) {
            state = byte == escByte ? 1 : 0;
        } else if (state == 1) {
            first = value(byte);
            state = first >= 0 ? 2 : 0;
        } else {
            if (value(byte) >= 0) {
                out.replace(out.size() - 3, 3, 1, static_cast<char>(first * 16 + value(byte)));
            }
            state = 0;
        }
    }
    return out;
}
std::string UnixLines(std::string in)
{
    for (size_t at = 0; (at = in.find("\r\n", at)) != std::string::npos;) {
        in.erase(at, 1);
    }
    return in;
}
std::string Unescaped(const std::string &in)
{
    std::string out;
    for (size_t i = 0; i < in.size(); i++) {
        if (in[i] == '\\' && ++i == in.size()) { break; }
        out += in[i];
    }
    return out;
}

// A builder, the same function as plain code, and the bytes to mix into its inputs.
struct Law {
    const char *name;
    Builder build;
    std::function<std::string(const std::string &)> plain;
    std::string alphabet;
};
const Law LAWS[] = {
    {"Do", Do('%', ByteSet("% \xff\0"s)),
     [](const std::string &in) {
         return Replaced(in, "% \xff\0"s, [](char byte) { return Hex("%", byte); });
     },
     "a% \xff\0"s},
    {"DoString", DoString("<escaped>", ByteSet("a")),
     [](const std::string &in) {
         return Replaced(in, "a", [](char byte) { return Hex("<escaped>", byte); });
     },
     "ab"},
    {"Undo", Undo('%'), [](const std::string &in) { return Undone('%', in); }, "%%%4fFgx\0"s},
    {"UndoWithNul", Undo('\0'), [](const std::string &in) { return Undone('\0', in); },
     "\0"
     "04x"s},
    {"UndoWithADigit", Undo('a'), [](const std::string &in) { return Undone('a', in); }, "aa0x"},
    {"AnsiToUnix", AnsiToUnix, UnixLines, "\r\r\n\na"},
    {"Sh", Sh,
     [](const std::string &in) {
         return "'" + Replaced(in, "'", [](char) { return "'\"'\"'"s; }) + "'";
     },
     "a'\"\0"s},
    {"Bre", Bre, [](const std::string &in) { return Replaced(in, "$*.[\\]^", WithBackslash); },
     "$*.[\\]^abcdefg\0"s},
    {"Comma", COMMA, [](const std::string &in) { return Replaced(in, ",\\", WithBackslash); },
     ",\\abc"},
    {"Unescape", UNESCAPE, Unescaped, "\\\\abc"},
};
class EscapeLaw : public testing::TestWithParam<Law> {};
std::string LawName(const testing::TestParamInfo<Law> &row) { return row.param.name; }
INSTANTIATE_TEST_SUITE_P(Each, EscapeLaw, testing::ValuesIn(LAWS), LawName);

TEST_P(EscapeLaw, HoldsForEveryShortInput)
{
    const auto &[name, build, plain, alphabet] = GetParam();
    std::vector<std::string> inputs = {""};
    for (size_t i = 0; i < inputs.size() && inputs[i].size() < 4; i++) {
        for (const char byte : alphabet) {
            inputs.push_back(inputs[i] + byte);
        }
        ASSERT_EQ(Built(build, inputs[i]), plain(inputs[i]));
    }
}

TEST_P(EscapeLaw, HoldsForInputsOfAnyLength)
{
    const auto &[name, build, plain, alphabet] = GetParam();
    std::mt19937 random(1);
    for (size_t length = 0; length < 300; length++) {
        for (unsigned density : {0u, 1u, 16u, 40u}) { // one byte in this many is special
            std::string in;
            for (size_t i = 0; i < length; i++) {
                const bool isLetter = density == 0 || random() % density != 0;
                in += isLetter ? 'x' : alphabet[random() % alphabet.size()];
            }
            ASSERT_EQ(Built(build, in), plain(in)) << "of " << length;
        }
    }
}

TEST_P(EscapeLaw, HoldsForLongInputsThatGrowALot)
{
    const auto &[name, build, plain, alphabet] = GetParam();
    std::string in;
    for (size_t i = 0; i < 300000; i++) {
        in += alphabet[i % alphabet.size()];
    }
    EXPECT_TRUE(Built(build, in) == plain(in));
}

// Each allocation in turn is refused, alone or with all that follow.
TEST_P(EscapeLaw, GivesNothingAndLosesNothingWithoutMemory)
{
    const auto &[name, build, plain, alphabet] = GetParam();
    std::string in;
    for (size_t i = 0; i < 2000; i++) {
        in += alphabet[i % alphabet.size()];
    }
    const ptrdiff_t live = Allocations::Live();
    size_t refusals = 0;
    for (size_t refused : {size_t{1}, SIZE_MAX}) {
        for (size_t granted = 0;; granted++) {
            size_t size = 77;
            const OutOfMemory later(granted, refused);
            char *text = build(in, &size);
            if (!later.Showed()) {
                EXPECT_NE(text, nullptr);
                free(text);
                break;
            }
            refusals++;
            EXPECT_EQ(text, nullptr) << "after " << granted;
            EXPECT_EQ(size, 77u) << "no result has no size";
            EXPECT_EQ(Allocations::Live(), live) << "after " << granted;
        }
    }
    EXPECT_EQ(Allocations::Live(), live);
    EXPECT_GE(refusals, 4u) << "the first block, and giving back what is too much of it";
}

TEST_P(EscapeLaw, GivesABlockWithNothingToSpare)
{
    const auto &[name, build, plain, alphabet] = GetParam();
    const std::string in(1000, alphabet[0]);
    free(build(in, nullptr));
    EXPECT_EQ(Allocations::LastSize(), plain(in).size() + 1);
}

TEST(EscapeUndo, ReversesDoForEveryByte)
{
    std::string all;
    for (int byte = 0; byte < 256; byte++) {
        all += static_cast<char>(byte);
    }
    const std::string escaped = Built(Do('%', ByteSet(all)), all);
    EXPECT_EQ(escaped.size(), 3 * all.size());
    EXPECT_EQ(Built(Undo('%'), escaped), all);
    EXPECT_EQ(Built(Undo('%'), Built(Do('%', PERCENT), all)), all);
}

TEST(EscapeUndo, TakesNoBytesFromNowhere)
{
    size_t size = 1;
    EXPECT_EQ(Take(Escape_Undo('%', nullptr, 0, &size)), "");
    EXPECT_EQ(size, 0u);
}

TEST(EscapeFillSet, HoldsTheStringsBytesAndNoOthers)
{
    for (const std::string bytes : {"", "%", "%\n", "\xff\x80\x01", "aaa"}) {
        int set[258];
        std::fill_n(set, 258, 77);
        Escape_FillSet(set + 1, bytes.c_str());
        for (int byte = 0; byte < 256; byte++) {
            EXPECT_EQ(set[byte + 1], bytes.find(static_cast<char>(byte)) != std::string::npos)
                << byte;
        }
        EXPECT_EQ(set[0], 77);
        EXPECT_EQ(set[257], 77);
    }
}

TEST(EscapeFillSet, MakesASetForDo)
{
    int set[256];
    Escape_FillSet(set, "%\n");
    EXPECT_EQ(Take(Escape_Do('%', set, "5%\n", 3, nullptr)), "5%25%0A");
    EXPECT_EQ(Take(Escape_DoString("\\x", set, "a\n", 2, nullptr)), "a\\x0A");
    set[0] = 1;
    EXPECT_EQ(Take(Escape_Do('%', set, "a\0b", 3, nullptr)), "a%00b");
}

TEST(EscapeDo, TakesNoBytesFromNowhere)
{
    size_t size = 1;
    EXPECT_EQ(Take(Escape_Do('%', PERCENT.in, nullptr, 0, &size)), "");
    EXPECT_EQ(size, 0u);
}

TEST(EscapeSh, TakesNoBytesFromNowhere)
{
    size_t size = 0;
    EXPECT_EQ(Take(Escape_Sh(nullptr, 0, &size)), "''");
    EXPECT_EQ(size, 2u);
}

TEST(EscapeUndoFixBuf, CopiesWhatFitsWithItsNul)
{
    char block[] = "......";
    EXPECT_TRUE(Escape_UndoFixBuf('%', "a%25b", 5, block, 4));
    EXPECT_EQ(std::string(block, 6), "a%b\0.."s);
}

TEST(EscapeUndoFixBuf, WritesNothingWhenTheNulDoesNotFit)
{
    char block[] = "......";
    EXPECT_FALSE(Escape_UndoFixBuf('%', "a%25b", 5, block, 3));
    EXPECT_FALSE(Escape_UndoFixBuf('%', "", 0, block, 0));
    EXPECT_STREQ(block, "......");
}

TEST(EscapeUndoFixBuf, LeavesTheBlockAloneWithoutMemory)
{
    char block[] = "......";
    const ptrdiff_t live = Allocations::Live();
    const OutOfMemory none;
    EXPECT_FALSE(Escape_UndoFixBuf('%', "a%25b", 5, block, sizeof block));
    EXPECT_STREQ(block, "......");
    EXPECT_EQ(Allocations::Live(), live);
}

TEST(EscapeComma, GivesNothingForNothing) { EXPECT_EQ(Escape_Comma(nullptr), nullptr); }

TEST(EscapeUnescape, ReversesComma)
{
    EXPECT_EQ(Built(UNESCAPE, Built(COMMA, "a,\\b\\,,")), "a,\\b\\,,");
}

std::string OutputOf(const std::string &command)
{
    FILE *pipe = popen(command.c_str(), "r");
    std::string output;
    for (int byte; (byte = getc(pipe)) != EOF;) {
        output += static_cast<char>(byte);
    }
    EXPECT_EQ(pclose(pipe), 0) << command;
    return output;
}

TEST(EscapeSh, MakesOneShellWordOfAnyBytes)
{
    std::string all;
    for (int byte = 1; byte < 256; byte++) {
        all += static_cast<char>(byte);
    }
    EXPECT_EQ(OutputOf("printf '%s' " + Built(Sh, all)), all);
    EXPECT_EQ(OutputOf("printf '<%s>' " + Built(Sh, "it's") + " " + Built(Sh, "") + " " +
                       Built(Sh, "'' '$(exit 1)'")),
              "<it's><><'' '$(exit 1)'>");
}

TEST(EscapeBre, MatchesExactlyTheOriginalTextInGrep)
{
    const TemporaryFolder folder;
    const std::string file = folder.Path() + "/lines";
    std::string lines;
    for (int byte = 1; byte < 256; byte++) {
        if (byte != '\n') { lines += "a"s + static_cast<char>(byte) + "b\n"; }
    }
    std::ofstream(file) << lines << "ab\naab\na\\b\\b\n";
    for (int byte = 1; byte < 256; byte++) {
        if (byte == '\n') { continue; } // a newline ends a line, and a pattern
        const std::string line = "a"s + static_cast<char>(byte) + "b";
        EXPECT_EQ(OutputOf("LC_ALL=C grep -ax -e " + Built(Sh, Built(Bre, line)) + " " + file),
                  line + "\n" + (byte == 'a' ? line + "\n" : ""));
    }
}

struct StrchrCase {
    const char *name, *string;
    char wanted;
    int at; // -1: not found
};
class EscapeStrchr : public testing::TestWithParam<StrchrCase> {};
TEST_P(EscapeStrchr, FindsWhatIsNotEscaped)
{
    const auto &[name, string, wanted, at] = GetParam();
    EXPECT_EQ(Escape_Strchr('\\', string, wanted), at < 0 ? nullptr : string + at);
}
INSTANTIATE_TEST_SUITE_P(Strings, EscapeStrchr,
                         testing::Values(StrchrCase{"SecondComma", "a\\,b,c", ',', 4},
                                         StrchrCase{"FirstByte", ",", ',', 0},
                                         StrchrCase{"Escaped", "a\\,", ',', -1},
                                         StrchrCase{"EscapedEscape", "\\\\,", ',', 2},
                                         StrchrCase{"EscapedAfterPair", "\\\\\\,", ',', -1},
                                         StrchrCase{"Nothing", "", ',', -1},
                                         StrchrCase{"NotThere", "abc", ',', -1},
                                         StrchrCase{"LoneAtTheEnd", "a\\", ',', -1},
                                         StrchrCase{"TheEscape", "a\\b", '\\', 1},
                                         StrchrCase{"TheNul", "abc", '\0', -1}),
                         [](const auto &row) { return row.param.name; });

struct CStringCase {
    const char *name;
    std::string in, out;
};
class EscapeUnescapeCString : public testing::TestWithParam<CStringCase> {};
// Returns the unescaped bytes, up to the NUL at the end.
std::string CString(const std::string &in, size_t outSize)
{
    std::vector<char> bytes(in.c_str(), in.c_str() + in.size() + 1);
    EXPECT_EQ(Escape_UnescapeCString(bytes.data()), '\0') << "the last byte examined";
    EXPECT_EQ(bytes[outSize], '\0');
    return std::string(bytes.data(), outSize);
}
TEST_P(EscapeUnescapeCString, Gives)
{
    const auto &[name, in, out] = GetParam();
    EXPECT_EQ(CString(in, out.size()), out);
}
INSTANTIATE_TEST_SUITE_P(
    Strings, EscapeUnescapeCString,
    testing::Values(
        CStringCase{"Octal", "\\101", "A"}, CStringCase{"ShortOctalTakesThree", "\\7xyz", "\7z"},
        CStringCase{"TwoDigits", "\\18x", "\1"}, CStringCase{"ThreeOfFour", "\\1012", "A2"},
        CStringCase{"LowByte", "\\777", "\xff"}, CStringCase{"Backslash", "a\\\\b", "a\\b"},
        CStringCase{"BackslashThenDigits", "\\\\101", "\\101"},
        CStringCase{"LineFeed", "a\\nb", "a\nb"}, CStringCase{"Unknown", "\\q\\8", "\\q\\8"},
        CStringCase{"LoneAtTheEnd", "a\\", "a\\"}, CStringCase{"Nothing", "", ""},
        CStringCase{"EndsInTheNumber", "a\\7", "a\7"}, CStringCase{"EndsInTheThree", "\\12", "\n"},
        CStringCase{"BlanksBeforeTheNumber", "\\   7", "\a7"},
        CStringCase{"TabBeforeTheNumber", "\\\t7xy", "\ay"},
        CStringCase{"ReturnBeforeTheNumber", "\\\r7xy", "\ay"},
        CStringCase{"BackspaceIsNoBlank", "\\\b7", "\\\b7"},
        CStringCase{"WhatFollowsAReturnIsNoBlank",
                    "\\\x0e"
                    "7",
                    "\\\x0e"
                    "7"},
        CStringCase{"SignedNumber", "\\-1x", "\xff"}, CStringCase{"Plus", "\\+7x", "\7"},
        CStringCase{"SignAlone", "\\-x", "\\-x"}, CStringCase{"ZeroByte", "a\\000b", "a\0b"s}),
    [](const auto &row) { return row.param.name; });

// Compares the function with the rule as plain code, for every string of up to five of the bytes
// that the rule is about.
TEST(EscapeUnescapeCString, TakesTheThreeBytesOfWhatScanfReads)
{
    const std::string alphabet = "\\n017 -";
    std::vector<std::string> inputs = {""};
    for (size_t i = 0; i < inputs.size(); i++) {
        const std::string in = inputs[i];
        std::string out;
        for (size_t at = 0; at < in.size();) {
            unsigned number = 0;
            if (in.compare(at, 2, "\\\\") == 0 || in.compare(at, 2, "\\n") == 0) {
                out += in[at + 1] == 'n' ? '\n' : '\\';
                at += 2;
            } else if (in[at] == '\\' && sscanf(in.c_str() + at, "\\%03o", &number) == 1) {
                out += static_cast<char>(number & 0xff);
                at += 4;
            } else {
                out += in[at++];
            }
        }
        ASSERT_EQ(CString(in, out.size()), out) << in;
        for (size_t k = 0; in.size() < 5 && k < alphabet.size(); k++) {
            inputs.push_back(in + alphabet[k]);
        }
    }
}

} // namespace
