// Conversions without ICU.
#include "codesetConversionsForTests.h"

#include "codesetInt.h"
#include "dynbuf.h"
#include "unicode.h"
#include "utf16Bytes.h"

#include <algorithm>
#include <climits>
#include <vector>

using namespace pelago;

namespace {

// ---- Without ICU

const GenericCase FALLBACK_CASES[] = {
    {"OthersStayAsTheyAre",
     "ISO-8859-1",
     "\x80\xff",
     "latin1",
     {"\x80\xff", "\x80\xff", "\x80\xff"}},
    {"OtherFormsToo", "UTF-32LE", "odd", "UTF-32LE", {"odd", "odd", "odd"}},
    {"NotSupported", "EUC-JP", "text", "EUC-JP", {FAILED, FAILED, FAILED}},
    {"TwoNotSupported", "EUC-JP", "text", "GB18030", {FAILED, FAILED, FAILED}},
    {"BadAsciiStaysAscii", "ASCII", "a\x80", "US-ASCII", {FAILED, FAILED, FAILED}},
};

TEST_F(WithoutIcu, ConvertsByPolicy)
{
    for (const GenericCase &row : FALLBACK_CASES) {
        ExpectByPolicy(row);
    }
}

TEST_F(WithoutIcu, NoPolicyRepairsUnicode)
{
    for (unsigned policy = 0; policy <= 4; policy++) {
        for (const std::string &in : INVALID_8) {
            EXPECT_EQ(Convert("UTF-8", in, "UTF-8", policy), FAILED);
            EXPECT_EQ(Convert("UTF-8", in, "UTF-16LE", policy), FAILED);
        }
        for (const std::string &in : Invalid16(Le)) {
            EXPECT_EQ(Convert("UTF-16LE", in, "UTF-16LE", policy), FAILED);
            EXPECT_EQ(Convert("UTF-16LE", in, "UTF-8", policy), FAILED);
        }
        for (const std::string &in : Invalid16(Be)) {
            EXPECT_EQ(Convert("UTF-16BE", in, "UTF-16BE", policy), FAILED);
            EXPECT_EQ(Convert("UTF-16BE", in, "UTF-8", policy), FAILED);
        }
    }
}

TEST_F(WithoutIcu, KnowsFourWaysBetweenTwoEncodings)
{
    const std::vector<std::string> names = {"UTF-8",  "UTF-16LE",     "UTF-16BE",
                                            "UTF-16", "UTF-32",       "UTF-32LE",
                                            "ASCII",  "windows-1252", "GBK"};
    const std::vector<std::pair<std::string, std::string>> ways = {
        {"UTF-8", "UTF-16LE"}, {"UTF-16LE", "UTF-8"}, {"UTF-16BE", "UTF-8"}, {"ASCII", "UTF-8"}};
    for (const std::string &in : names) {
        for (const std::string &out : names) {
            const bool knows =
                in == out || std::ranges::find(ways, std::pair(in, out)) != ways.end();
            for (unsigned policy = 0; policy < 3; policy++) {
                EXPECT_EQ(Convert(in.c_str(), "text", out.c_str(), policy).has_value(), knows)
                    << in << " to " << out;
            }
        }
    }
}

TEST_F(WithoutIcu, OnlyPolicyZeroFails)
{
    for (const unsigned policy : {1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 254U, 255U, 256U, 257U,
                                  0x7FFFFFFFU, 0x80000000U, 0x80000001U, UINT_MAX}) {
        const std::string substitute = policy % 2 == 1 ? REPLACED : "";
        EXPECT_EQ(Convert("ASCII",
                          "a\xff"
                          "b",
                          "UTF-8", policy),
                  "a" + substitute + "b")
            << policy;
    }
}

TEST_F(WithoutIcu, TheLowestBitOfAnyPolicySubstitutes)
{
    EXPECT_EQ(Convert("ASCII", "a\xff", "UTF-8", 3), "a" + REPLACED);
    EXPECT_EQ(Convert("ASCII", "a\xff", "UTF-8", 4), "a");
    EXPECT_EQ(Convert("ASCII", "a\xff", "UTF-8", UINT_MAX), "a" + REPLACED);
}

// Returns what a host gets whose current code set is another one.
Result WhereCurrentIs(StringEncoding current, StringEncoding out, const std::string &in,
                      unsigned policy)
{
    return Appended(
        [=](const char *bufIn, size_t sizeIn, DynBuf *db) {
            return CodeSetFallbackConvert(STRING_ENCODING_UTF_8, bufIn, sizeIn, out, current,
                                          policy, db);
        },
        in);
}

struct ToAsciiCase {
    std::string in;
    Result byPolicy[4];
};

TEST_F(WithoutIcu, Utf8GoesToAsciiWhereThatIsCurrent)
{
    const ToAsciiCase cases[] = {
        {"A\0\x7f"s, {"A\0\x7f"s, "A\0\x7f"s, "A\0\x7f"s, "A\0\x7f"s}},
        {"a\u00e9\u4e2d\U0001F600z", {FAILED, "a\x1a\x1a\x1az", "az", "a\x1a\x1a\x1az"}},
        {"\u00e9", {FAILED, "\x1a", "", "\x1a"}},
        {"a\xff\xffz", {FAILED, "a\x1a\x1az", "az", "a\x1a\x1az"}},
        {"a\xe4\xb8z", {FAILED, "a\x1a\x1az", "az", "a\x1a\x1az"}},
        {"a\xe4\xb8", {FAILED, "a\x1a\x1a", "a", "a\x1a\x1a"}},
        {"\xed\xa0\x80", {FAILED, "\x1a\x1a\x1a", "", "\x1a\x1a\x1a"}},
        {"", {"", "", "", ""}},
    };
    for (const ToAsciiCase &row : cases) {
        for (unsigned policy = 0; policy < 4; policy++) {
            EXPECT_EQ(WhereCurrentIs(STRING_ENCODING_ASCII, STRING_ENCODING_ASCII, row.in, policy),
                      row.byPolicy[policy])
                << testing::PrintToString(row.in) << ", policy " << policy;
        }
    }
}

TEST_F(WithoutIcu, Utf8GoesToAsciiNowhereElse)
{
    EXPECT_EQ(WhereCurrentIs(STRING_ENCODING_UTF_8, STRING_ENCODING_ASCII, "a", 1), FAILED);
    EXPECT_EQ(WhereCurrentIs(STRING_ENCODING_UTF_16LE, STRING_ENCODING_ASCII, "a", 1), FAILED);
}

TEST_F(WithoutIcu, Utf8GoesToUtf16leWhereThatIsCurrent)
{
    EXPECT_EQ(WhereCurrentIs(STRING_ENCODING_UTF_16LE, STRING_ENCODING_UTF_16LE, TEXT_8, 0),
              Le(TEXT_16));
}

TEST_F(WithoutIcu, ACurrentCodeSetDoesNotHelpOthers)
{
    EXPECT_EQ(WhereCurrentIs(STRING_ENCODING_UTF_16BE, STRING_ENCODING_UTF_16BE, "a", 0), FAILED);
    EXPECT_EQ(WhereCurrentIs(STRING_ENCODING_ISO_8859_1, STRING_ENCODING_ISO_8859_1, "a", 0),
              FAILED);
}

} // namespace
