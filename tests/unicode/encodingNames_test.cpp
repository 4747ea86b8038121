#include "unicode.h"

#include "allocations.h"
#include "codeset.h"
#include "panic.h"
#include "plainLookup.h"
#include "promisedEncodings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

#include <unistd.h>

static std::string sWarnings; // the text of all warnings
static const char *sCodeSet;  // replaces the host's code set; nullptr: the real one
static int sCodeSetQuestions; // calls that ask for the code set

extern "C" {
void __wrap_Pelago_Warning(const char *format, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    sWarnings += text;
    fputs(text, stderr);
}
const char *__real_CodeSet_GetCurrentCodeSet();
const char *__wrap_CodeSet_GetCurrentCodeSet()
{
    sCodeSetQuestions++;
    return sCodeSet != nullptr ? sCodeSet : __real_CodeSet_GetCurrentCodeSet();
}
}

// A locale in which every byte above ASCII is a letter, and "I" has no dot in lower case.
static bool sIsElsewhere;
#define PELAGO_ELSEWHERE(call, answer)                                                             \
    extern "C" int __real_##call(int byte);                                                        \
    extern "C" int __wrap_##call(int byte)                                                         \
    {                                                                                              \
        if (!sIsElsewhere) { return __real_##call(byte); }                                         \
        return answer;                                                                             \
    }
PELAGO_ELSEWHERE(isalpha, byte > 0x7F || __real_isalpha(byte))
PELAGO_ELSEWHERE(isalnum, byte > 0x7F || __real_isalnum(byte))
PELAGO_ELSEWHERE(isupper, byte >= 0xC0 || __real_isupper(byte))
PELAGO_ELSEWHERE(islower, byte >= 0xE0 || __real_islower(byte))
PELAGO_ELSEWHERE(isdigit, byte == 0xB2 || __real_isdigit(byte))
PELAGO_ELSEWHERE(tolower, byte == 'I' ? 0xFD : __real_tolower(byte))
PELAGO_ELSEWHERE(toupper, byte == 'i' ? 0xDD : __real_toupper(byte))

namespace {

using testing::ElementsAre;

StringEncoding Number(int64_t number) { return static_cast<StringEncoding>(number); }

// ---- From a name to an encoding ----

// Every test starts with an empty cache.
class EncodingLookup : public testing::Test {
protected:
    void SetUp() override
    {
        Unicode_Shutdown();
        sWarnings.clear();
    }
    void TearDown() override
    {
        Unicode_Shutdown();
        EXPECT_EQ(Allocations::Live(), mBefore) << "Unicode_Shutdown leaves nothing";
    }
    // Returns the encoding of a name that is not cached.
    static StringEncoding Afresh(const std::string &name)
    {
        Unicode_Shutdown();
        return UnicodeIANALookup(name.c_str());
    }
    // Returns the number of blocks that the look-up requests.
    static size_t Blocks(const char *name)
    {
        return Allocations::SizesIn([=] { UnicodeIANALookup(name); }).size();
    }
    const ptrdiff_t mBefore = Allocations::Live();
    static constexpr int TABLE = 2, ENTRY = 1, COPY = 1; // numbers of blocks
};

struct NameCase {
    std::string name;
    int encoding;
};
void PrintTo(const NameCase &row, std::ostream *out) { *out << row.name; }

class EncodingLookupOf : public EncodingLookup, public testing::WithParamInterface<NameCase> {};
TEST_P(EncodingLookupOf, FindsWithoutAWarning)
{
    EXPECT_EQ(UnicodeIANALookup(GetParam().name.c_str()), GetParam().encoding);
    EXPECT_EQ(sWarnings, "");
}
INSTANTIATE_TEST_SUITE_P(Spellings, EncodingLookupOf,
                         testing::Values(NameCase{"UTF-8", 0}, NameCase{"utf-8", 0},
                                         NameCase{"UTF8", 0}, NameCase{"utf_8", 0},
                                         NameCase{" U t F ( 8 ) ", 0}, NameCase{"{UTF~8}", 0},
                                         NameCase{"UTF\xE2\x80\x90"
                                                  "8",
                                                  0},
                                         NameCase{"8859_1", 8}, NameCase{"us", 7},
                                         NameCase{"646", 7}));
INSTANTIATE_TEST_SUITE_P(CodePages, EncodingLookupOf,
                         testing::Values(NameCase{"windows-1252", 35}, NameCase{"Windows-1252", 35},
                                         NameCase{"windows-0001252", 35},
                                         NameCase{"windows-65001", 0}, NameCase{"windows-950", 22},
                                         NameCase{"windows-1200", 1}, NameCase{"windows-949", 318},
                                         NameCase{"windows-708", 13},
                                         NameCase{"windows-50221", 293},
                                         NameCase{"windows-51932", -2}));
INSTANTIATE_TEST_SUITE_P(NamesThatBeginLikeCodePages, EncodingLookupOf,
                         testing::Values(NameCase{"Windows-31J", 170},
                                         NameCase{"windows-949-2000", 318},
                                         NameCase{"windows-874-2000", 253},
                                         NameCase{"windows31j", 170},
                                         NameCase{"WINDOWS-1252", 35}));
INSTANTIATE_TEST_SUITE_P(
    NamesThatRowsShare, EncodingLookupOf,
    testing::Values(NameCase{"ASMO-708", 13}, NameCase{"KS_C_5601-1987", 62},
                    NameCase{"KSC_5601", 62}, NameCase{"5601", 62}, NameCase{"ISO-2022-JP", 29},
                    NameCase{"csISO2022JP", 29}, NameCase{"TIS-620", 323}, NameCase{"EUC-CN", -2},
                    NameCase{"ibm-284_P100-1995", -2}, NameCase{"cpibm284", -2},
                    NameCase{"284", -2}, NameCase{"ISO_8859-8-I", 107},
                    NameCase{"ISO-8859-8-I", 107}, NameCase{"iso88598i", 107}));
INSTANTIATE_TEST_SUITE_P(KnownButNotConverted, EncodingLookupOf,
                         testing::Values(NameCase{"EUC-JP", -2}, NameCase{"GB18030", -2},
                                         NameCase{"gb-18030", -2}));

class EncodingLookupMiss : public EncodingLookup,
                           public testing::WithParamInterface<std::string> {};
TEST_P(EncodingLookupMiss, WarnsEachTime)
{
    const std::string name = GetParam();
    const std::string warning =
        "UnicodeIANALookup: Did not find an IANA match for encoding \"" + name + "\"\n";
    EXPECT_EQ(UnicodeIANALookup(name.c_str()), STRING_ENCODING_UNKNOWN);
    EXPECT_EQ(sWarnings, warning);
    EXPECT_EQ(UnicodeIANALookup(name.c_str()), STRING_ENCODING_UNKNOWN);
    EXPECT_EQ(sWarnings, warning + warning);
}
TEST_P(EncodingLookupMiss, KeepsNothing)
{
    UnicodeIANALookup(GetParam().c_str());
    EXPECT_EQ(Allocations::Live() - mBefore, TABLE);
}
INSTANTIATE_TEST_SUITE_P(Names, EncodingLookupMiss,
                         testing::Values("", "-", "no such encoding", "windows-", "Windows-",
                                         "windows", "windows-0", "windows--1", "windows-+949",
                                         "windows- 949", "windows-1252x", "windows-9999",
                                         // No number overflows to a code page of the table.
                                         "windows-4294968548", "windows-18446744073709552868",
                                         "WINDOWS-949", "UTF-8x", "UTF-", "%s%n"));

TEST_F(EncodingLookup, KeepsTheAnswer)
{
    EXPECT_EQ(Blocks("latin-1"), size_t{TABLE + COPY + ENTRY});
    EXPECT_EQ(Blocks("latin-1"), 0u);
    EXPECT_EQ(UnicodeIANALookup("latin-1"), STRING_ENCODING_ISO_8859_1);
    EXPECT_EQ(Allocations::Live() - mBefore, TABLE + ENTRY) << "the copy is released";
}

TEST_F(EncodingLookup, KeepsThatANameIsNotConverted)
{
    EXPECT_EQ(Blocks("euc jp"), size_t{TABLE + COPY + ENTRY});
    EXPECT_EQ(Blocks("euc jp"), 0u);
    EXPECT_EQ(UnicodeIANALookup("euc jp"), STRING_ENCODING_UNKNOWN);
    EXPECT_EQ(sWarnings, "");
}

TEST_F(EncodingLookup, CachesTheAnswerForAnyCase)
{
    UnicodeIANALookup("UTF-8");
    EXPECT_EQ(Blocks("utf-8"), 0u);
    EXPECT_EQ(UnicodeIANALookup("utf-8"), STRING_ENCODING_UTF_8);
}

TEST_F(EncodingLookup, CachesTheAnswerUnderTheGivenSpelling)
{
    UnicodeIANALookup("U T F 8");
    EXPECT_EQ(Blocks("u t f 8"), 0u);
    EXPECT_EQ(Blocks("utf8"), size_t{COPY + ENTRY});
}

TEST_F(EncodingLookup, FindsACapitalPrefixOnlyAfterCaching)
{
    EXPECT_EQ(UnicodeIANALookup("WINDOWS-949"), STRING_ENCODING_UNKNOWN);
    EXPECT_EQ(UnicodeIANALookup("windows-949"), STRING_ENCODING_WINDOWS_949_2000);
    EXPECT_EQ(UnicodeIANALookup("WINDOWS-949"), STRING_ENCODING_WINDOWS_949_2000);
}

TEST_F(EncodingLookup, CachesTheFirstOfTwoCaseVariants)
{
    EXPECT_EQ(UnicodeIANALookup("ISO-8859-8-I"), STRING_ENCODING_ISO_8859_8_I);
    EXPECT_EQ(UnicodeIANALookup("iso-8859-8-i"), STRING_ENCODING_ISO_8859_8_I);
    EXPECT_EQ(Afresh("iso-8859-8-i"), STRING_ENCODING_UNKNOWN) << "292 is not converted";
    EXPECT_EQ(UnicodeIANALookup("ISO-8859-8-I"), STRING_ENCODING_UNKNOWN);
}

TEST_F(EncodingLookup, JudgesLettersAndDigitsWithoutTheLocale)
{
    sIsElsewhere = true;
    EXPECT_EQ(UnicodeIANALookup("i\xe9so 8859\xb2-1"), STRING_ENCODING_ISO_8859_1);
    EXPECT_EQ(UnicodeIANALookup("Iso_8859_1"), STRING_ENCODING_ISO_8859_1);
    EXPECT_EQ(UnicodeIANALookup("WINDOWS_1252"), STRING_ENCODING_WINDOWS_1252);
    EXPECT_EQ(UnicodeIANALookup("windows-1252\xb2"), STRING_ENCODING_WINDOWS_1252);
    sIsElsewhere = false;
    EXPECT_EQ(sWarnings, "");
}

TEST_F(EncodingLookup, IsTheSameWithoutAWarning)
{
    for (const char *name : {"utf 8", "ISO-8859-1", "windows-949", "EUC-JP", "no such encoding"}) {
        const StringEncoding promised = Afresh(name);
        Unicode_Shutdown();
        sWarnings.clear();
        EXPECT_EQ(Unicode_FindEncoding(name), promised) << name;
        EXPECT_EQ(Unicode_FindEncoding(name), promised) << name;
        EXPECT_EQ(sWarnings, "");
    }
    EXPECT_EQ(Unicode_FindEncoding("UTF-8"), STRING_ENCODING_UTF_8);
    EXPECT_EQ(Blocks("utf-8"), 0u) << "what it finds is kept for both";
}

TEST_F(EncodingLookup, TakesANameOfAnyLength)
{
    const std::string hyphens(1'000'000, '-');
    EXPECT_EQ(UnicodeIANALookup(("utf" + hyphens + "8").c_str()), STRING_ENCODING_UTF_8);
    EXPECT_EQ(UnicodeIANALookup(("windows-" + std::string(1'000'000, '0') + "1252").c_str()),
              STRING_ENCODING_WINDOWS_1252);
}

// ---- The same results as a search from the first row to the last ----

class EncodingLookupAndPlainSearch : public EncodingLookup {
protected:
    static void Expect(const std::string &name)
    {
        const int row = PlainFindRow(name);
        sWarnings.clear();
        EXPECT_EQ(Afresh(name), PlainAnswer(row)) << name;
        EXPECT_EQ(sWarnings.empty(), row != PLAIN_NO_ROW) << name;
    }
    void SetUp() override
    {
        EncodingLookup::SetUp();
        testing::internal::CaptureStderr(); // thousands of warnings
    }
    void TearDown() override
    {
        testing::internal::GetCapturedStderr();
        EncodingLookup::TearDown();
    }
};

TEST_F(EncodingLookupAndPlainSearch, AgreeOnEveryName)
{
    for (const auto &[name, row] : PlainNames()) {
        Expect(name);
    }
}

template <typename Change> std::string Changed(const std::string &name, Change change)
{
    std::string changed;
    for (const char byte : name) {
        changed += change(byte);
    }
    return changed;
}

TEST_F(EncodingLookupAndPlainSearch, AgreeOnEveryNameSpeltOtherwise)
{
    for (const auto &[name, row] : PlainNames()) {
        Expect(Changed(name, [](char byte) { return static_cast<char>(tolower(byte)); }));
        Expect(Changed(name, [](char byte) { return static_cast<char>(toupper(byte)); }));
        Expect(Changed(name, [](char byte) { return byte == '-' ? '_' : byte; }));
        Expect(Changed(name, [](char byte) { return std::string{'_', byte, '\xFF'}; }));
        Expect(PlainNormalized(name));
    }
}

TEST_F(EncodingLookupAndPlainSearch, AgreeOnNamesAByteLongerOrShorter)
{
    for (const auto &[name, row] : PlainNames()) {
        Expect(name + "0");
        Expect("x" + name);
        Expect(name.substr(0, name.size() - 1));
        Expect(name.substr(1));
        Expect("windows-" + name);
    }
}

TEST_F(EncodingLookupAndPlainSearch, AgreeOnEveryCodePageAndItsNeighbours)
{
    for (const EncodingRow &row : ENCODING_ROWS) {
        for (int number = row.codePage - 1; number <= row.codePage + 1; number++) {
            Expect("windows-" + std::to_string(number));
            Expect("Windows-0" + std::to_string(number));
        }
    }
    for (int number = 0; number < 2000; number++) {
        Expect("windows-" + std::to_string(number));
    }
}

TEST_F(EncodingLookupAndPlainSearch, AgreeOnRandomTexts)
{
    std::mt19937 random(1);
    const std::string_view alphabet = "IBMibmcpCPutfUTFkoiKOI0123456789-_ ";
    for (int i = 0; i < 20'000; i++) {
        std::string name;
        for (size_t length = random() % 8; name.size() < length;) {
            name += alphabet[random() % alphabet.size()];
        }
        Expect(name);
    }
}

// ---- From an encoding to its name ----

TEST(EncodingName, IsThePreferredOneSupportedOrNot)
{
    for (const PromisedEncoding &promised : PROMISED_ENCODINGS) {
        EXPECT_EQ(Unicode_EncodingEnumToName(promised.constant), promised.preferredName);
    }
}

TEST(EncodingName, IsAConstant)
{
    const char *name = Unicode_EncodingEnumToName(STRING_ENCODING_BIG5);
    Unicode_Shutdown();
    EXPECT_EQ(Unicode_EncodingEnumToName(STRING_ENCODING_BIG5), name);
    EXPECT_STREQ(name, "Big5");
}

class NoEncodingDeathTest : public testing::TestWithParam<int64_t> {};
TEST_P(NoEncodingDeathTest, HasNoNameAndEndsTheProcess)
{
    const std::string report = "Unicode_EncodingEnumToName: Unknown encoding " +
                               std::to_string(GetParam()) +
                               ".\nPanic: NOT_REACHED lib/unicode/unicodeSimpleTypes:2588\n";
    EXPECT_EXIT(Unicode_EncodingEnumToName(Number(GetParam())), testing::ExitedWithCode(1),
                testing::EndsWith(report));
}
INSTANTIATE_TEST_SUITE_P(Numbers, NoEncodingDeathTest,
                         testing::Values(-2, 324, -3, 511, 512, INT32_MAX, INT32_MIN));

TEST(EncodingValidity, IsHavingAValue)
{
    for (int encoding = 0; encoding < 324; encoding++) {
        EXPECT_TRUE(Unicode_IsEncodingValid(Number(encoding))) << encoding;
    }
    for (const int64_t number : {-1, -2, 324, 325, 512, INT32_MAX, INT32_MIN}) {
        EXPECT_FALSE(Unicode_IsEncodingValid(Number(number))) << number;
    }
}

// ---- The current encoding ----

// A process finds its current encoding once, so each case gets a process of its own; this process
// never asks for it.
template <typename Body> int StatusOf(Body body)
{
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

TEST(CurrentCodeSet, IsUtf8) { EXPECT_STREQ(__real_CodeSet_GetCurrentCodeSet(), "UTF-8"); }

TEST(CurrentEncoding, IsUtf8)
{
    EXPECT_EQ(StatusOf([] {
                  EXPECT_EQ(Unicode_GetCurrentEncoding(), STRING_ENCODING_UTF_8);
                  EXPECT_EQ(Unicode_LookUpCurrentEncoding(), STRING_ENCODING_UTF_8);
              }),
              0);
}

TEST(CurrentEncoding, IsLookedUpOnceOrEachTime)
{
    EXPECT_EQ(StatusOf([] {
                  sCodeSetQuestions = 0;
                  Unicode_GetCurrentEncoding();
                  Unicode_GetCurrentEncoding();
                  EXPECT_EQ(sCodeSetQuestions, 1);
                  Unicode_LookUpCurrentEncoding();
                  Unicode_LookUpCurrentEncoding();
                  EXPECT_EQ(sCodeSetQuestions, 3);
              }),
              0);
}

TEST(CurrentEncoding, LastsBeyondAShutdown)
{
    EXPECT_EQ(StatusOf([] {
                  sCodeSet = "latin1";
                  EXPECT_EQ(Unicode_GetCurrentEncoding(), STRING_ENCODING_ISO_8859_1);
                  Unicode_Shutdown();
                  sCodeSet = "UTF-8";
                  EXPECT_EQ(Unicode_GetCurrentEncoding(), STRING_ENCODING_ISO_8859_1);
                  EXPECT_EQ(Unicode_LookUpCurrentEncoding(), STRING_ENCODING_UTF_8);
              }),
              0);
}

TEST(CurrentEncoding, IsLookedUpUntilItIsFound)
{
    EXPECT_EQ(StatusOf([] {
                  for (const char *codeSet : {"no such code set", "EUC-JP"}) {
                      sCodeSet = codeSet;
                      EXPECT_EQ(Unicode_GetCurrentEncoding(), STRING_ENCODING_UNKNOWN);
                  }
                  sCodeSet = "latin1";
                  EXPECT_EQ(Unicode_GetCurrentEncoding(), STRING_ENCODING_ISO_8859_1);
              }),
              0);
}

TEST(CurrentEncoding, IsWhatTheDefaultStandsFor)
{
    EXPECT_EQ(StatusOf([] {
                  EXPECT_STREQ(Unicode_EncodingEnumToName(STRING_ENCODING_DEFAULT), "UTF-8");
                  EXPECT_EQ(Unicode_ResolveEncoding(STRING_ENCODING_DEFAULT),
                            STRING_ENCODING_UTF_8);
              }),
              0);
    EXPECT_EQ(StatusOf([] {
                  sCodeSet = "latin1";
                  EXPECT_EQ(Unicode_ResolveEncoding(STRING_ENCODING_DEFAULT),
                            STRING_ENCODING_ISO_8859_1);
                  EXPECT_STREQ(Unicode_EncodingEnumToName(STRING_ENCODING_DEFAULT), "ISO-8859-1");
              }),
              0);
}

TEST(CurrentEncodingDeathTest, HasNoNameWhileItIsUnknown)
{
    EXPECT_EXIT(
        {
            sCodeSet = "no such code set";
            Unicode_EncodingEnumToName(STRING_ENCODING_DEFAULT);
        },
        testing::ExitedWithCode(1),
        testing::EndsWith("Unicode_EncodingEnumToName: Unknown encoding -2.\n"
                          "Panic: NOT_REACHED lib/unicode/unicodeSimpleTypes:2588\n"));
}

TEST(ResolveEncoding, LeavesEverythingElseAsItIs)
{
    for (const int64_t number : {-2, 0, 28, 323, 324, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(Unicode_ResolveEncoding(Number(number)), number);
    }
}

// ---- The cache ----

TEST_F(EncodingLookup, BeginsAnewAfterAShutdown)
{
    UnicodeIANALookup("UTF-8");
    Unicode_Shutdown();
    EXPECT_EQ(Allocations::Live(), mBefore);
    EXPECT_EQ(Blocks("UTF-8"), size_t{TABLE + ENTRY});
    EXPECT_EQ(UnicodeIANALookup("UTF-8"), STRING_ENCODING_UTF_8);
}

TEST_F(EncodingLookup, IsShutDownAlsoWhenNothingIsKept)
{
    Unicode_Shutdown();
    Unicode_Shutdown();
    EXPECT_EQ(Allocations::Live(), mBefore);
}

// ---- Without memory ----

class EncodingLookupDeathTest : public EncodingLookup, public testing::WithParamInterface<int> {};
TEST_P(EncodingLookupDeathTest, EndsTheProcessWhicheverBlockIsRefused)
{
    EXPECT_PANIC(
        {
            const OutOfMemory outOfMemory(GetParam());
            UnicodeIANALookup("utf 8");
        },
        "Unrecoverable memory allocation failure\n");
}
INSTANTIATE_TEST_SUITE_P(Blocks, EncodingLookupDeathTest,
                         testing::Range(0, 4)); // the blocks of the table, the copy and the entry

} // namespace
