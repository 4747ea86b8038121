// Why and where conversions fail, and the functions that check before a conversion.
#include "codeset.h"

#include "allocations.h"
#include "inChild.h"
#include "unicode.h"
#include "useIcu.h"
#include "utf16Bytes.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>
#include <sys/mman.h>
#include <vector>

#include <unicode/ucnv.h>

// ---- Wrapped calls: they count warnings, and skip inputs that are too long for ICU at once

namespace {

int sWarnings;

// The pieces of a huge input that ICU receives.  The wrapped calls do not read the input.
struct Piece {
    size_t input, room;
    bool isLast;
    bool operator==(const Piece &) const = default;
};
bool sIsHuge, sFillsTheRoom;
std::vector<Piece> sPieces;

} // namespace

#define NAME_OF_WRAP(call) __wrap_##call
#define NAME_OF_REAL(call) __real_##call
#define WRAP(call)         NAME_OF_WRAP(call)
#define REAL(call)         NAME_OF_REAL(call)

extern "C" {

void __wrap_Pelago_Warning(const char *, ...) { sWarnings++; }

void REAL(ucnv_convertEx)(UConverter *, UConverter *, char **, const char *, const char **,
                          const char *, UChar *, UChar **, UChar **, const UChar *, UBool, UBool,
                          UErrorCode *);
void WRAP(ucnv_convertEx)(UConverter *to, UConverter *from, char **target, const char *targetLimit,
                          const char **source, const char *sourceLimit, UChar *pivotStart,
                          UChar **pivotSource, UChar **pivotTarget, const UChar *pivotLimit,
                          UBool reset, UBool flush, UErrorCode *status)
{
    if (!sIsHuge) {
        return REAL(ucnv_convertEx)(to, from, target, targetLimit, source, sourceLimit, pivotStart,
                                    pivotSource, pivotTarget, pivotLimit, reset, flush, status);
    }
    sPieces.push_back({static_cast<size_t>(sourceLimit - *source),
                       static_cast<size_t>(targetLimit - *target), flush != 0});
    if (sFillsTheRoom) {
        sFillsTheRoom = false;
        *target += targetLimit - *target;
        *status = U_BUFFER_OVERFLOW_ERROR;
        return;
    }
    *source = sourceLimit;
    if (flush) { *status = U_TRUNCATED_CHAR_FOUND; }
}

UChar32 REAL(ucnv_getNextUChar)(UConverter *, const char **, const char *, UErrorCode *);
UChar32 WRAP(ucnv_getNextUChar)(UConverter *from, const char **source, const char *sourceLimit,
                                UErrorCode *status)
{
    if (!sIsHuge) { return REAL(ucnv_getNextUChar)(from, source, sourceLimit, status); }
    EXPECT_LE(sourceLimit - *source, INT32_MAX);
    if (sourceLimit - *source == 1) {
        *status = U_TRUNCATED_CHAR_FOUND;
        return 0;
    }
    *source = sourceLimit - 1; // all bytes but the last are one character
    return 'x';
}

} // extern "C"

namespace {

using namespace std::string_literals;

enum class Way { Icu, Fallback };

void Use(Way way)
{
    if (way == Way::Icu) {
        UseIcu();
    } else {
        CodeSet_DontUseIcu();
    }
}

class BothWays : public testing::TestWithParam<Way> {
protected:
    void SetUp() override
    {
        Use(GetParam());
        sWarnings = 0;
    }
};
INSTANTIATE_TEST_SUITE_P(, BothWays, testing::Values(Way::Icu, Way::Fallback), [](const auto &row) {
    return row.param == Way::Icu ? "Icu" : "Fallback";
});

class WithoutIcu : public testing::Test {
protected:
    void SetUp() override
    {
        CodeSet_DontUseIcu();
        sWarnings = 0;
    }
};

class WithIcu : public testing::Test {
protected:
    void SetUp() override { UseIcu(); }
    void TearDown() override { sIsHuge = sFillsTheRoom = false; }
};

// ---- Why and where

struct Told {
    CodeSetReason reason;
    size_t offset;
    bool operator==(const Told &) const = default;
};
void PrintTo(const Told &told, std::ostream *out) { *out << told.reason << " at " << told.offset; }

const Told NO_FAILURE = {CODESET_REASON_NONE, 0}, UNKNOWN = {CODESET_REASON_UNKNOWN, 0},
           UNCONVERTIBLE = {CODESET_REASON_UNCONVERTIBLE, 0};
Told Invalid(size_t offset) { return {CODESET_REASON_INVALID, offset}; }
Told Lacking(size_t offset) { return {CODESET_REASON_LACKING, offset}; }

// Returns the reason and the offset that CodeSet_Convert() reports.  Its result and its output must
// be those of the generic conversion.
Told Tell(const char *codeIn, const std::string &in, const char *codeOut,
          unsigned policy = CODESET_INVALID_FAIL)
{
    char untouched = 0, *out = &untouched, *expected = nullptr;
    size_t size = 77, expectedSize = 0;
    CodeSetFailure failure = {CODESET_REASON_ICU, 88};
    const bool succeeded =
        CodeSet_Convert(codeIn, in.data(), in.size(), codeOut, policy, &out, &size, &failure);
    EXPECT_EQ(succeeded, failure.reason == CODESET_REASON_NONE);
    EXPECT_EQ(succeeded, CodeSet_GenericToGeneric(codeIn, in.data(), in.size(), codeOut, policy,
                                                  &expected, &expectedSize));
    if (succeeded) {
        EXPECT_EQ(std::string(out, size + 4), std::string(expected, expectedSize + 4));
        free(out);
    } else {
        EXPECT_EQ(out, &untouched);
        EXPECT_EQ(size, 77);
    }
    free(expected);
    return {failure.reason, failure.offset};
}

struct FailureCase {
    const char *codeIn;
    std::string in;
    const char *codeOut;
    Told told;
};

const FailureCase ON_BOTH_WAYS[] = {
    {"UTF-8", "caf\u00e9", "UTF-16LE", NO_FAILURE},
    {"UTF-8", "caf\xe9!", "UTF-16LE", Invalid(3)},
    {"UTF-8", "\xff", "UTF-16LE", Invalid(0)},
    {"UTF-8", "\u00e9\u4e2d\xe4\xb8", "UTF-16LE", Invalid(5)},       // cut short
    {"UTF-8", "a\xe4\xb8z", "UTF-16LE", Invalid(1)},                 // and followed
    {"UTF-8", "ab\xed\xa0\x80", "UTF-16LE", Invalid(2)},             // a surrogate
    {"UTF-8", "abc\xc0\x80", "UTF-16LE", Invalid(3)},                // longer than needed
    {"UTF-8", "\U0001F600\xf4\x90\x80\x80", "UTF-16LE", Invalid(4)}, // above U+10FFFF
    {"UTF-8", "a\x80", "UTF-8", Invalid(1)},
    {"UTF-16LE", Le(u"\u00e9\U0001F600\xd800z"), "UTF-8", Invalid(6)},
    {"UTF-16LE", Le(u"ab\xdc00"), "UTF-8", Invalid(4)},
    {"UTF-16LE", Le(u"ab\xd83d"), "UTF-8", Invalid(4)},
    {"UTF-16LE", Le(u"ab") + "c", "UTF-8", Invalid(4)}, // half a unit
    {"UTF-16BE", Be(u"\u00e9\U0001F600\xd800z"), "UTF-8", Invalid(6)},
    {"UTF-16BE", Be(u"ab\xdc00"), "UTF-8", Invalid(4)},
    {"UTF-16BE", Be(u"ab\xd83d"), "UTF-8", Invalid(4)},
    {"UTF-16BE", "a", "UTF-8", Invalid(0)},
    {"ASCII", "plain\x80", "UTF-8", Invalid(5)},
    {"no encoding", "text", "UTF-8", UNKNOWN},
    {"UTF-8", "text", "no encoding", UNKNOWN},
    {"no encoding", "text", "no encoding", UNKNOWN},
    {"no encoding", "", "nor this", NO_FAILURE},
};

TEST_P(BothWays, AFailureTellsWhyAndWhere)
{
    for (const FailureCase &row : ON_BOTH_WAYS) {
        EXPECT_EQ(Tell(row.codeIn, row.in, row.codeOut), row.told)
            << row.codeIn << " " << testing::PrintToString(row.in);
    }
}

TEST_P(BothWays, ThePlaceIsRightInALongText)
{
    for (const size_t count : {255U, 256U, 257U, 1023U, 1024U, 1025U, 100'000U}) {
        const std::string before(count, 'a');
        EXPECT_EQ(Tell("UTF-8", before + "\u00e9\xff" + before, "UTF-16LE"), Invalid(count + 2));
        std::string before16;
        for (size_t i = 0; i < count; i++) {
            before16 += Le(u"\u4e2d");
        }
        EXPECT_EQ(Tell("UTF-16LE", before16 + Le(u"\xdc00"), "UTF-8"), Invalid(2 * count));
    }
}

TEST_P(BothWays, WhatThePolicyRepairsIsNoFailure)
{
    EXPECT_EQ(Tell("ASCII", "a\xff", "UTF-8", CODESET_INVALID_SUBSTITUTE), NO_FAILURE);
    EXPECT_EQ(Tell("ASCII", "a\xff", "UTF-8", CODESET_INVALID_SKIP), NO_FAILURE);
}

TEST_P(BothWays, NobodyNeedsToBeTold)
{
    char *out = nullptr;
    EXPECT_FALSE(CodeSet_Convert("UTF-8", "\xff", 1, "UTF-16LE", 0, &out, nullptr, nullptr));
    EXPECT_TRUE(CodeSet_Convert("UTF-8", "a", 1, "UTF-16LE", 0, &out, nullptr, nullptr));
    free(out);
    CodeSetFailure failure = {CODESET_REASON_ICU, 88};
    EXPECT_TRUE(CodeSet_Convert("UTF-8", nullptr, 9, "UTF-8", 0, &out, nullptr, &failure));
    EXPECT_EQ(failure.reason, CODESET_REASON_NONE);
    free(out);
}

const FailureCase THROUGH_ICU[] = {
    {"UTF-8", "a\u00e9\u4e2d!", "ISO-8859-1", Lacking(3)},
    {"UTF-8", "\u4e2d\U0001F600", "GBK", Lacking(3)},
    {"UTF-16LE", Le(u"ab\U0001F600"), "windows-1252", Lacking(4)},
    {"UTF-8", "a\u00e9\x80\u4e2d", "ISO-8859-1", Invalid(3)}, // the invalid byte comes first
    {"UTF-8", "a\u4e2d\x80", "ISO-8859-1", Lacking(1)},
    {"Shift_JIS", "\x83\x41\x83\x31", "UTF-8", Invalid(2)},
    {"GBK", "text\x81", "UTF-8", Invalid(4)},
    {"UTF-32LE", "a\0\0\0\0\0\x11\0"s, "UTF-8", Invalid(4)},
    {"UTF-32LE", "a\0\0\0b\0"s, "UTF-8", Invalid(4)},
    {"UTF-16", Le(u"\ufeffa\xdc00"), "UTF-8", Invalid(4)}, // the offset includes the mark
    {"ISO-2022-JP", "\x1b$B\x46\x7c\x1b(B\x80", "UTF-8", Invalid(8)},
    {"Big5-HKSCS", "\x88\x62\xff", "UTF-8", Invalid(2)}, // one sequence of two characters
    {"BOCU-1", "\x80$\xdc\xff", "UTF-8", Invalid(1)},    // of which ICU keeps no bytes
    {"EUC-JP", "text", "UTF-8", NO_FAILURE},
};

TEST_F(WithIcu, AFailureTellsWhyAndWhere)
{
    for (const FailureCase &row : THROUGH_ICU) {
        EXPECT_EQ(Tell(row.codeIn, row.in, row.codeOut), row.told)
            << row.codeIn << " " << testing::PrintToString(row.in);
    }
}

const FailureCase WITHOUT_ICU[] = {
    {"latin1", "text", "UTF-8", UNCONVERTIBLE},       {"UTF-8", "text", "UTF-16BE", UNCONVERTIBLE},
    {"UTF-8", "text", "ASCII", UNCONVERTIBLE},        {"EUC-JP", "text", "EUC-JP", UNKNOWN},
    {"EUC-JP", "text", "GB18030", UNKNOWN},           {"UTF-8", "text", "EUC-JP", UNKNOWN},
    {"latin1", "\xff\x80", "latin1", NO_FAILURE},     {"ASCII", "ab\x80", "US-ASCII", Invalid(2)},
    {"UTF-16BE", "\0a\xdc"s, "UTF-16BE", Invalid(2)},
};

TEST_F(WithoutIcu, AFailureTellsWhyAndWhere)
{
    for (const FailureCase &row : WITHOUT_ICU) {
        EXPECT_EQ(Tell(row.codeIn, row.in, row.codeOut), row.told)
            << row.codeIn << " " << testing::PrintToString(row.in);
    }
    EXPECT_EQ(Tell("ASCII", "ab\x80", "ASCII", CODESET_INVALID_SKIP), Invalid(2))
        << "no policy repairs what stays in its encoding";
    EXPECT_EQ(Tell("UTF-8", "ab\x80", "UTF-16LE", CODESET_INVALID_SUBSTITUTE), Invalid(2));
}

TEST_P(BothWays, ALackOfMemoryIsReportedAsSuch)
{
    const std::string in = Le(u"text");
    EXPECT_EQ(Tell("UTF-16LE", in, "UTF-8"), NO_FAILURE); // fills the caches
    char *out = nullptr;
    CodeSetFailure failure = {};
    {
        const OutOfMemory none;
        EXPECT_FALSE(
            CodeSet_Convert("UTF-16LE", in.data(), in.size(), "UTF-8", 0, &out, nullptr, &failure));
    }
    EXPECT_EQ(failure.reason, CODESET_REASON_NO_MEMORY);
    EXPECT_EQ(failure.offset, 0);
}

TEST_F(WithIcu, AnOverflowingSizeIsReportedAsTooLong)
{
    for (size_t lacking = 0; lacking < 4; lacking++) {
        char *out = nullptr;
        CodeSetFailure failure = {};
        EXPECT_FALSE(
            CodeSet_Convert("UTF-8", "a", SIZE_MAX - lacking, "UTF-8", 0, &out, nullptr, &failure));
        EXPECT_EQ(failure.reason, CODESET_REASON_TOO_LONG) << lacking;
    }
}

// ICU loads its data of normal forms on first use, so each case runs in a process of its own.
TEST(NormalForms, FailWithoutMemoryForIcusNormalisationData)
{
    size_t refused = 0;
    for (const size_t count : {size_t{1}, SIZE_MAX}) {
        bool wasRefused = true;
        for (size_t granted = 0; wasRefused; granted++) {
            const Outcome outcome = InChild([&]() -> std::string {
                char *out = nullptr;
                const OutOfMemory scarcity(granted, count);
                const bool done = CodeSet_Utf8FormDToUtf8FormC("e\u0301", 0, &out, nullptr);
                if (!done) { return out == nullptr ? "failed" : "handed out"; }
                return scarcity.Showed() ? "done without" : out;
            });
            wasRefused = outcome.result == "failed";
            refused += wasRefused;
            EXPECT_TRUE(wasRefused || outcome.result == "\u00e9") << outcome.result;
            EXPECT_EQ(outcome.errors, "");
        }
    }
    EXPECT_GT(refused, 4u) << "ICU does ask for memory";
}

// ---- Inputs longer than ICU takes at once

// That many zero bytes; they take no memory.
class Zeros {
public:
    explicit Zeros(size_t size)
        : mSize(size),
          mBlock(mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))
    {
        if (mBlock == MAP_FAILED) { abort(); }
    }
    Zeros(const Zeros &) = delete;
    Zeros &operator=(const Zeros &) = delete;
    ~Zeros() { munmap(mBlock, mSize); }
    const char *Data() const { return static_cast<const char *>(mBlock); }

private:
    size_t mSize;
    void *mBlock;
};

constexpr size_t ICU_MOST = INT32_MAX;

TEST_F(WithIcu, AHugeInputIsConvertedInPieces)
{
    const size_t size = ICU_MOST + 6;
    const Zeros input(size);
    sIsHuge = true;
    sPieces.clear();
    char *out = nullptr;
    CodeSetFailure failure = {};
    EXPECT_FALSE(CodeSet_Convert("UTF-8", input.Data(), size, "UTF-8", 0, &out, nullptr, &failure));
    EXPECT_EQ(sPieces, (std::vector<Piece>{{ICU_MOST, ICU_MOST, false}, {6, ICU_MOST, true}}));
    EXPECT_EQ(failure.reason, CODESET_REASON_INVALID);
    EXPECT_EQ(failure.offset, size - 1) << "beyond what an int counts";
}

TEST_F(WithIcu, AHugeRoomIsFilledInPieces)
{
    const size_t size = ICU_MOST + 6, room = size + 4;
    const Zeros input(size);
    sIsHuge = sFillsTheRoom = true;
    sPieces.clear();
    DynBuf db;
    DynBuf_Init(&db);
    EXPECT_FALSE(CodeSet_GenericToGenericDb("UTF-8", input.Data(), size, "UTF-8", 0, &db));
    EXPECT_EQ(db.allocated, room) << "there was room: it has not grown";
    DynBuf_Destroy(&db);
    EXPECT_EQ(sPieces, (std::vector<Piece>{{ICU_MOST, ICU_MOST, false},
                                           {ICU_MOST, room - ICU_MOST, false},
                                           {6, room - ICU_MOST, true}}));
}

// ---- The functions that check before a conversion

// The names of encodings as ICU knows them; those that the library does not support are last.
const char *const NAMES[] = {"UTF-8",    "UTF-16LE",    "UTF-16BE", "UTF-16",
                             "UTF-32LE", "ASCII",       "GBK",      "windows-1252",
                             "latin1",   "no encoding", "EUC-JP"};

TEST_P(BothWays, WhatCanBeConvertedIsWhatConverts)
{
    size_t can = 0;
    for (const char *in : NAMES) {
        for (const char *out : NAMES) {
            char *converted = nullptr;
            const std::string text(4, '\0');
            const bool converts = CodeSet_GenericToGeneric(
                in, text.data(), text.size(), out, CODESET_INVALID_SUBSTITUTE, &converted, nullptr);
            free(converted);
            EXPECT_EQ(CodeSet_CanConvert(in, out), converts) << in << " to " << out;
            can += converts;
        }
    }
    EXPECT_EQ(can, GetParam() == Way::Icu ? 100 : 13)
        << "all but one; four pairs, and nine that stay";
}

TEST_P(BothWays, KnownIsLessThanThatItConverts)
{
    EXPECT_TRUE(CodeSet_Validate("latin1"));
    EXPECT_EQ(CodeSet_CanConvert("latin1", "UTF-8"), CodeSet_IsIcuInUse());
    EXPECT_EQ(CodeSet_CanConvert("UTF-8", "latin1"), CodeSet_IsIcuInUse());
    EXPECT_TRUE(CodeSet_CanConvert("latin1", "iso 8859-1"));
    EXPECT_EQ(CodeSet_IsIcuInUse(), GetParam() == Way::Icu);
}

// ---- Who warns of unknown names

TEST_P(BothWays, QuestionsAreAskedInSilence)
{
    EXPECT_FALSE(CodeSet_CanConvert("no encoding", "nor this"));
    EXPECT_FALSE(CodeSet_Validate("no encoding"));
    EXPECT_EQ(Unicode_FindEncoding("no encoding"), STRING_ENCODING_UNKNOWN);
    char *out = nullptr;
    CodeSetFailure failure = {};
    EXPECT_FALSE(CodeSet_Convert("no encoding", "text", 4, "UTF-8", 0, &out, nullptr, &failure));
    if (GetParam() == Way::Fallback) { // with ICU this ends the process
        EXPECT_FALSE(CodeSet_IsValidBuffer("text", 4, "no encoding"));
    }
    EXPECT_EQ(sWarnings, 0);
}

TEST_F(WithoutIcu, AConversionWarnsOnceOfAName)
{
    DynBuf db;
    DynBuf_Init(&db);
    EXPECT_FALSE(CodeSet_GenericToGenericDb("no encoding", "text", 4, "UTF-8", 0, &db));
    EXPECT_EQ(sWarnings, 1);
    EXPECT_FALSE(CodeSet_GenericToGenericDb("no encoding", "text", 4, "no encoding", 0, &db));
    EXPECT_EQ(sWarnings, 2) << "one for both";
    EXPECT_EQ(UnicodeIANALookup("no encoding"), STRING_ENCODING_UNKNOWN);
    EXPECT_EQ(sWarnings, 3);
}

} // namespace
