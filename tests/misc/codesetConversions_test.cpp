#include "codeset.h"

#include "allocations.h"
#include "codesetInt.h"
#include "dynbuf.h"
#include "panic.h"
#include "scopedForTests.h"
#include "together.h"
#include "unicode.h"
#include "utf16Bytes.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <sys/mman.h>
#include <vector>

#include <CoreFoundation/CoreFoundation.h>
#include <unicode/ucnv.h>

using namespace pelago;

// ---- In the place of the calls that fail on demand

namespace {

UErrorCode sToUnicodeFault, sFromUnicodeFault, sConvertFault; // U_ZERO_ERROR: none
bool sCopyFault, sCStringFault;
std::atomic<int> sConvertCalls, sWarnings;
std::atomic<ptrdiff_t> sPivotUnits;

} // namespace

// ICU's functions have its version in their names.
#define NAME_OF_WRAP(call) __wrap_##call
#define NAME_OF_REAL(call) __real_##call
#define WRAP(call)         NAME_OF_WRAP(call)
#define REAL(call)         NAME_OF_REAL(call)

extern "C" {

void REAL(ucnv_setToUCallBack)(UConverter *, UConverterToUCallback, const void *,
                               UConverterToUCallback *, const void **, UErrorCode *);
void WRAP(ucnv_setToUCallBack)(UConverter *converter, UConverterToUCallback callback,
                               const void *context, UConverterToUCallback *oldCallback,
                               const void **oldContext, UErrorCode *status)
{
    REAL(ucnv_setToUCallBack)(converter, callback, context, oldCallback, oldContext, status);
    if (sToUnicodeFault != U_ZERO_ERROR) { *status = sToUnicodeFault; }
}

void REAL(ucnv_setFromUCallBack)(UConverter *, UConverterFromUCallback, const void *,
                                 UConverterFromUCallback *, const void **, UErrorCode *);
void WRAP(ucnv_setFromUCallBack)(UConverter *converter, UConverterFromUCallback callback,
                                 const void *context, UConverterFromUCallback *oldCallback,
                                 const void **oldContext, UErrorCode *status)
{
    REAL(ucnv_setFromUCallBack)(converter, callback, context, oldCallback, oldContext, status);
    if (sFromUnicodeFault != U_ZERO_ERROR) { *status = sFromUnicodeFault; }
}

void REAL(ucnv_convertEx)(UConverter *, UConverter *, char **, const char *, const char **,
                          const char *, UChar *, UChar **, UChar **, const UChar *, UBool, UBool,
                          UErrorCode *);
void WRAP(ucnv_convertEx)(UConverter *to, UConverter *from, char **target, const char *targetLimit,
                          const char **source, const char *sourceLimit, UChar *pivotStart,
                          UChar **pivotSource, UChar **pivotTarget, const UChar *pivotLimit,
                          UBool reset, UBool flush, UErrorCode *status)
{
    sConvertCalls++;
    sPivotUnits = pivotLimit - pivotStart;
    REAL(ucnv_convertEx)
    (to, from, target, targetLimit, source, sourceLimit, pivotStart, pivotSource, pivotTarget,
     pivotLimit, reset, flush, status);
    if (sConvertFault != U_ZERO_ERROR) { *status = sConvertFault; }
}

CFMutableStringRef __real_CFStringCreateMutableCopy(CFAllocatorRef, CFIndex, CFStringRef);
CFMutableStringRef __wrap_CFStringCreateMutableCopy(CFAllocatorRef allocator, CFIndex length,
                                                    CFStringRef string)
{
    return sCopyFault ? nullptr : __real_CFStringCreateMutableCopy(allocator, length, string);
}

void __wrap_Pelago_Warning(const char *, ...) { sWarnings++; }

Boolean __real_CFStringGetCString(CFStringRef, char *, CFIndex, CFStringEncoding);
Boolean __wrap_CFStringGetCString(CFStringRef string, char *buffer, CFIndex size,
                                  CFStringEncoding encoding)
{
    return sCStringFault ? false : __real_CFStringGetCString(string, buffer, size, encoding);
}

} // extern "C"

namespace {

using namespace std::string_literals;

// ---- The two ways, switched as programs switch them

class IcuFolder {
public:
    IcuFolder() { std::ofstream(mFolder.Path() + "/icudt44l.dat") << "data"; }
    void Use() const { ASSERT_TRUE(CodeSet_Init(mFolder.Path().c_str())); }

private:
    const TemporaryFolder mFolder;
};

void UseIcu() { IcuFolder().Use(); }

enum class Way { Icu, Fallback };

void Use(Way way)
{
    if (way == Way::Icu) {
        UseIcu();
    } else {
        CodeSet_DontUseIcu();
    }
}

std::string NameOf(Way way) { return way == Way::Icu ? "Icu" : "Fallback"; }

class BothWays : public testing::TestWithParam<Way> {
protected:
    void SetUp() override { Use(GetParam()); }
};
INSTANTIATE_TEST_SUITE_P(, BothWays, testing::Values(Way::Icu, Way::Fallback),
                         [](const auto &row) { return NameOf(row.param); });

class WithIcu : public testing::Test {
protected:
    void SetUp() override
    {
        UseIcu();
        sConvertCalls = 0;
    }
    void TearDown() override { sToUnicodeFault = sFromUnicodeFault = sConvertFault = U_ZERO_ERROR; }
};
using WithIcuDeathTest = WithIcu;

class WithoutIcu : public testing::Test {
protected:
    void SetUp() override { CodeSet_DontUseIcu(); }
};

// ---- Texts

std::string Times(size_t count, const std::string &text)
{
    std::string all;
    for (size_t i = 0; i < count; i++) {
        all += text;
    }
    return all;
}

const std::string TEXT_8 = "A\u00e9\u4e2d\U0001F600\0z"s;
const std::u16string TEXT_16 = u"A\u00e9\u4e2d\U0001F600\0z"s;

// ---- One conversion, watched

using Result = std::optional<std::string>; // nothing: it failed
const Result FAILED = std::nullopt;

using Operation =
    std::function<bool(const char *bufIn, size_t sizeIn, char **out, size_t *sizeOut)>;

// The input at an odd address, in a block that ends where it ends: a sanitizer sees what is read
// behind it.
class OddlyPlaced {
public:
    explicit OddlyPlaced(const std::string &bytes) : mBlock(bytes.size() + 1)
    {
        memcpy(Data(), bytes.data(), bytes.size());
    }
    char *Data() { return mBlock.data() + 1; }

private:
    std::vector<char> mBlock;
};

// What is handed out, after a look at the zero bytes behind it.
Result Out(const Operation &operation, const std::string &in, size_t zeros = 4)
{
    OddlyPlaced input(in);
    char untouched = 0;
    char *out = &untouched;
    size_t size = 77;
    if (!operation(input.Data(), in.size(), &out, &size)) {
        EXPECT_EQ(out, &untouched) << "nothing is handed out";
        EXPECT_EQ(size, 77);
        return FAILED;
    }
    EXPECT_EQ(std::string(out + size, zeros), std::string(zeros, '\0'));
    const std::string bytes(out, size);
    free(out);
    EXPECT_TRUE(operation(input.Data(), in.size(), &out, nullptr)) << "the size is not wanted";
    EXPECT_EQ(std::string(out, size + zeros), bytes + std::string(zeros, '\0'));
    free(out);
    return bytes;
}

using DbOperation = std::function<bool(const char *bufIn, size_t sizeIn, DynBuf *db)>;

// What is appended, to that many bytes that are there.
Result Appended(const DbOperation &operation, const std::string &in, size_t there = 5)
{
    OddlyPlaced input(in);
    const std::string before(there, 'b');
    DynBuf db;
    DynBuf_Init(&db);
    EXPECT_TRUE(DynBuf_Append(&db, before.data(), before.size()));
    const bool succeeded = operation(input.Data(), in.size(), &db);
    EXPECT_LE(db.size, db.allocated);
    const std::string all(db.data, db.size);
    DynBuf_Destroy(&db);
    EXPECT_EQ(all.substr(0, there), before);
    if (succeeded) { return all.substr(there); }
    EXPECT_EQ(all.size(), there) << "a failure leaves the size as it was";
    return FAILED;
}

Operation Generic(const char *codeIn, const char *codeOut, unsigned policy)
{
    return [=](const char *bufIn, size_t sizeIn, char **out, size_t *size) {
        return CodeSet_GenericToGeneric(codeIn, bufIn, sizeIn, codeOut, policy, out, size);
    };
}

DbOperation GenericDb(const char *codeIn, const char *codeOut, unsigned policy)
{
    return [=](const char *bufIn, size_t sizeIn, DynBuf *db) {
        return CodeSet_GenericToGenericDb(codeIn, bufIn, sizeIn, codeOut, policy, db);
    };
}

// Both forms of the generic conversion, which agree.
Result Convert(const char *codeIn, const std::string &in, const char *codeOut, unsigned policy = 0)
{
    const Result appended = Appended(GenericDb(codeIn, codeOut, policy), in);
    EXPECT_EQ(Out(Generic(codeIn, codeOut, policy), in), appended);
    return appended;
}

// The bytes as the encoding's, in a block that ends where they end.
bool IsValid(const char *codeName, const std::string &bytes)
{
    return CodeSet_IsValidBuffer(OddlyPlaced(bytes).Data(), bytes.size(), codeName);
}

// ---- The operations between two forms that their names tell

struct NamedCase {
    const char *name;
    Operation operation;
    std::string in, out;
    std::vector<std::string> invalid;
};

const std::vector<std::string> INVALID_8 = {
    "\x80",         "a\xff",    "\xc0\x80",         "\xe4\xb8",         "\xe0\x80\x80",
    "\xed\xa0\x80", "\xf0\x9f", "\xf0\x80\x80\x80", "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80"};
const std::vector<std::u16string> INVALID_16 = {u"\xd800"
                                                u"A",
                                                u"A\xd800", u"\xdc00", u"\xdc00\xd800",
                                                u"\xd800\xd800\xdc00"};

std::vector<std::string> Invalid16(std::string (*inOrder)(std::u16string_view))
{
    std::vector<std::string> all;
    for (const std::u16string &text : INVALID_16) {
        all.push_back(inOrder(text));
    }
    all.push_back("A");                          // half a unit
    all.push_back(inOrder(u"A") + "B");          // and after a whole one
    all.push_back(inOrder(u"A\xd83d") + "\xde"); // and in a pair
    return all;
}

const NamedCase NAMED_CASES[] = {
    {"Utf16leToUtf8", CodeSet_Utf16leToUtf8, Le(TEXT_16), TEXT_8, Invalid16(Le)},
    {"Utf8ToUtf16le", CodeSet_Utf8ToUtf16le, TEXT_8, Le(TEXT_16), INVALID_8},
    {"CurrentToUtf16le", CodeSet_CurrentToUtf16le, TEXT_8, Le(TEXT_16), INVALID_8},
    {"Utf16leToCurrent", CodeSet_Utf16leToCurrent, Le(TEXT_16), TEXT_8, Invalid16(Le)},
    {"Utf16beToCurrent", CodeSet_Utf16beToCurrent, Be(TEXT_16), TEXT_8, Invalid16(Be)},
};

class Named : public testing::TestWithParam<std::tuple<Way, NamedCase>> {
protected:
    void SetUp() override { Use(std::get<0>(GetParam())); }
    const NamedCase &Row() const { return std::get<1>(GetParam()); }
};
INSTANTIATE_TEST_SUITE_P(, Named,
                         testing::Combine(testing::Values(Way::Icu, Way::Fallback),
                                          testing::ValuesIn(NAMED_CASES)),
                         [](const auto &row) {
                             return std::get<1>(row.param).name + NameOf(std::get<0>(row.param));
                         });

TEST_P(Named, ConvertsOneOfEachLength) { EXPECT_EQ(Out(Row().operation, Row().in), Row().out); }

TEST_P(Named, ConvertsALongText)
{
    EXPECT_EQ(Out(Row().operation, Times(5000, Row().in)), Times(5000, Row().out));
}

TEST_P(Named, RefusesWhatIsInvalid)
{
    for (const std::string &in : Row().invalid) {
        EXPECT_EQ(Out(Row().operation, in), FAILED) << testing::PrintToString(in);
    }
}

TEST_P(Named, RefusesWhatIsInvalidBehindALongText)
{
    for (const std::string &in : Row().invalid) {
        EXPECT_EQ(Out(Row().operation, Times(5000, Row().in) + in), FAILED);
    }
}

TEST_P(Named, GivesNothingForNothing)
{
    EXPECT_EQ(Out(Row().operation, ""), "");
    const Operation absent = [&](const char *, size_t, char **out, size_t *size) {
        return Row().operation(nullptr, 9, out, size);
    };
    EXPECT_EQ(Out(absent, ""), "");
}

TEST_P(Named, ReturnsABlockAtMostSixteenBytesLarger)
{
    char *out = nullptr;
    ASSERT_TRUE(Row().operation(Row().in.data(), Row().in.size(), &out, nullptr));
    EXPECT_GE(Allocations::LastSize(), Row().out.size() + 4);
    EXPECT_LE(Allocations::LastSize(), Row().out.size() + 16);
    free(out);
}

TEST_P(BothWays, Utf16leToUtf8DbAppends)
{
    EXPECT_EQ(Appended(CodeSet_Utf16leToUtf8Db, Le(TEXT_16)), TEXT_8);
    EXPECT_EQ(Appended(CodeSet_Utf16leToUtf8Db, ""), "");
    const DbOperation absent = [](const char *, size_t, DynBuf *db) {
        return CodeSet_Utf16leToUtf8Db(nullptr, 9, db);
    };
    EXPECT_EQ(Appended(absent, ""), "");
}

TEST_P(BothWays, AFailedUtf16AppendKeepsTheBuffer)
{
    for (const std::string &in : Invalid16(Le)) {
        EXPECT_EQ(Appended(CodeSet_Utf16leToUtf8Db, Le(u"before") + in), FAILED);
    }
}

TEST_P(BothWays, AnEmojiBecomesAPairOfSurrogates)
{
    EXPECT_EQ(Out(CodeSet_Utf8ToUtf16le, "\xf0\x9f\x98\x80"), "\x3d\xd8\x00\xde"s);
}

// ---- The copies

const NamedCase COPIES[] = {{"Utf8ToCurrent", CodeSet_Utf8ToCurrent, {}, {}, {}},
                            {"CurrentToUtf8", CodeSet_CurrentToUtf8, {}, {}, {}}};

TEST_P(BothWays, CopiesDoNotLookAtTheBytes)
{
    for (const NamedCase &copy : COPIES) {
        for (const std::string &in : {TEXT_8, "\xff\0\xed\xa0"s, ""s}) {
            EXPECT_EQ(Out(copy.operation, in, 1), in) << copy.name;
        }
    }
}

TEST_P(BothWays, CopiesTakeOneByteMore)
{
    for (const NamedCase &copy : COPIES) {
        const auto sizes = Allocations::SizesIn([&] { Out(copy.operation, "text", 1); });
        EXPECT_EQ(sizes.back(), 5) << copy.name;
    }
}

TEST_P(BothWays, CopiesOfNothingNeedNoBytes)
{
    const Operation absent = [](const char *, size_t, char **out, size_t *size) {
        return CodeSet_Utf8ToCurrent(nullptr, 0, out, size);
    };
    EXPECT_EQ(Out(absent, "", 1), "");
}

TEST_P(BothWays, CopiesFailWhenTheTerminatorOverflowsTheSize)
{
    for (const NamedCase &copy : COPIES) {
        for (const size_t size : {SIZE_MAX, SIZE_MAX - 1}) {
            const Operation tooLong = [&](const char *bufIn, size_t, char **out, size_t *sizeOut) {
                return copy.operation(bufIn, size, out, sizeOut);
            };
            EXPECT_EQ(Out(tooLong, "a", 1), FAILED) << copy.name;
        }
    }
}

// ---- Any encoding to any other: what both ways have in common

struct GenericCase {
    const char *name;
    const char *codeIn;
    std::string in;
    const char *codeOut;
    Result byPolicy[3];
};

void ExpectByPolicy(const GenericCase &row)
{
    for (unsigned policy = 0; policy < 3; policy++) {
        EXPECT_EQ(Convert(row.codeIn, row.in, row.codeOut, policy), row.byPolicy[policy])
            << row.name << ", policy " << policy;
    }
}

const std::string REPLACED = "\xef\xbf\xbd";

const GenericCase COMMON_CASES[] = {
    {"BadAscii", "ASCII", "A\xff"s + "B", "UTF-8", {FAILED, "A" + REPLACED + "B", "AB"}},
    {"BadAsciiFirst", "ASCII", "\x80"s + "B", "UTF-8", {FAILED, REPLACED + "B", "B"}},
    {"BadAsciiLast", "ASCII", "A\xff", "UTF-8", {FAILED, "A" + REPLACED, "A"}},
    {"BadAsciiTwice", "ASCII", "\xff\xfe", "UTF-8", {FAILED, REPLACED + REPLACED, ""}},
    {"GoodAscii", "US-ASCII", "A\0\x7f"s, "utf8", {"A\0\x7f"s, "A\0\x7f"s, "A\0\x7f"s}},
    {"ToUtf16", "UTF-8", TEXT_8, "UTF-16LE", {Le(TEXT_16), Le(TEXT_16), Le(TEXT_16)}},
    {"FromUtf16", "UTF-16LE", Le(TEXT_16), "UTF-8", {TEXT_8, TEXT_8, TEXT_8}},
    {"FromUtf16be", "UTF-16BE", Be(TEXT_16), "UTF-8", {TEXT_8, TEXT_8, TEXT_8}},
    {"SameUtf8", "UTF-8", TEXT_8, "UTF-8", {TEXT_8, TEXT_8, TEXT_8}},
    {"SameUtf16", "UTF-16LE", Le(TEXT_16), "UTF-16LE", {Le(TEXT_16), Le(TEXT_16), Le(TEXT_16)}},
    {"SameUtf16be", "UTF-16BE", Be(TEXT_16), "UTF-16BE", {Be(TEXT_16), Be(TEXT_16), Be(TEXT_16)}},
    {"SameAscii", "ASCII", "A\0\x7f"s, "ASCII", {"A\0\x7f"s, "A\0\x7f"s, "A\0\x7f"s}},
    {"MarkInUtf8",
     "UTF-8",
     "\ufeffA",
     "UTF-16LE",
     {Le(u"\ufeffA"), Le(u"\ufeffA"), Le(u"\ufeffA")}},
    {"MarkInUtf16", "UTF-16LE", Le(u"\ufeffA"), "UTF-8", {"\ufeffA", "\ufeffA", "\ufeffA"}},
    {"Nothing", "UTF-8", "", "UTF-16LE", {"", "", ""}},
    {"NothingInNoEncoding", "no encoding", "", "nor this", {"", "", ""}},
    {"FromNoEncoding", "no encoding", "text", "UTF-8", {FAILED, FAILED, FAILED}},
    {"ToNoEncoding", "UTF-8", "text", "no encoding", {FAILED, FAILED, FAILED}},
    {"BothNoEncoding", "no encoding", "text", "no encoding", {FAILED, FAILED, FAILED}},
};

TEST_P(BothWays, AgreeOnWhatBothKnow)
{
    for (const GenericCase &row : COMMON_CASES) {
        ExpectByPolicy(row);
    }
}

TEST_P(BothWays, AnAbsentInputSucceedsWhateverElseIsAsked)
{
    for (const char *name : {"UTF-8", "no encoding"}) {
        for (const unsigned policy : {0U, 3U, UINT_MAX}) {
            EXPECT_EQ(Convert(name, "", name, policy), "");
            const DbOperation absent = [&](const char *, size_t, DynBuf *db) {
                return CodeSet_GenericToGenericDb(name, nullptr, 9, name, policy, db);
            };
            EXPECT_EQ(Appended(absent, ""), "");
        }
    }
}

TEST_P(BothWays, AnAbsentInputAllocatesNothing)
{
    UnicodeIANALookup("UTF-8"); // keeps the name
    Unicode_GetCurrentEncoding();
    DynBuf db;
    DynBuf_Init(&db);
    const size_t calls = Allocations::Calls();
    EXPECT_TRUE(CodeSet_GenericToGenericDb("UTF-8", "x", 0, "UTF-8", 0, &db));
    EXPECT_EQ(Allocations::Calls(), calls);
    EXPECT_EQ(db.data, nullptr);
}

TEST_P(BothWays, CurrentIsUtf8)
{
    const char *current = CodeSet_GetCurrentCodeSet();
    EXPECT_EQ(Convert(current, TEXT_8, "UTF-16LE"), Le(TEXT_16));
    EXPECT_EQ(Convert("UTF-16BE", Be(TEXT_16), current), TEXT_8);
}

TEST_P(BothWays, AppendsToABufferOfAnyFullness)
{
    for (size_t there = 0; there <= 260; there++) {
        EXPECT_EQ(Appended(GenericDb("UTF-8", "UTF-16LE", 0), "text", there), Le(u"text"));
        EXPECT_EQ(Appended(GenericDb("ASCII", "UTF-8", 1), "a\xff", there), "a" + REPLACED);
    }
}

TEST_P(BothWays, AFailureIsNotTold)
{
    sWarnings = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(Convert("UTF-8", "\xff", "UTF-16LE"), FAILED);
    EXPECT_EQ(Convert("ASCII", "\xff", "UTF-8"), FAILED);
    EXPECT_EQ(Out(CodeSet_Utf16leToUtf8, "A"), FAILED);
    EXPECT_FALSE(IsValid("UTF-8", "\xff"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(sWarnings, 0);
}

TEST_F(WithoutIcu, NamesAreLookedUpEvenForEmptyInput)
{
    sWarnings = 0;
    DynBuf db;
    DynBuf_Init(&db);
    EXPECT_TRUE(CodeSet_GenericToGenericDb("no encoding", "", 0, "UTF-8", 0, &db));
    EXPECT_TRUE(CodeSet_GenericToGenericDb("UTF-8", nullptr, 9, "no encoding", 0, &db));
    EXPECT_EQ(sWarnings, 2);
}

TEST_F(WithoutIcu, TheLookUpTellsOfUnknownNames)
{
    sWarnings = 0;
    DynBuf db;
    DynBuf_Init(&db);
    EXPECT_FALSE(CodeSet_GenericToGenericDb("no encoding", "a", 1, "nor this", 0, &db));
    EXPECT_EQ(sWarnings, 2);
}

TEST(CodeSetSwitch, DecidesOnEachConversion)
{
    const IcuFolder icu;
    const TemporaryFolder empty;
    const auto converts = [] { return Convert("UTF-8", "\u00e9", "ISO-8859-1") == "\xe9"; };
    icu.Use();
    EXPECT_TRUE(converts());
    CodeSet_DontUseIcu();
    EXPECT_FALSE(converts());
    icu.Use();
    EXPECT_TRUE(converts());
    CodeSet_Init(empty.Path().c_str());
    EXPECT_FALSE(converts()) << "no data file";
}

// ---- Through ICU

const GenericCase ICU_CASES[] = {
    {"Latin1LacksIt", "UTF-8", "a\u00e9\u4e2d.", "ISO-8859-1", {FAILED, "a\xe9\x1a.", "a\xe9."}},
    {"ShiftJisLacksIt", "UTF-8", "a\u00e9.", "Shift_JIS", {FAILED, "a\xfc\xfc.", "a."}},
    {"AsciiLacksIt", "UTF-8", "\u00e9\u4e2d\U0001F600", "ASCII", {FAILED, "\x1a\x1a\x1a", ""}},
    {"BadUtf8", "UTF-8", "a\x80.", "UTF-16LE", {FAILED, Le(u"a\ufffd."), Le(u"a.")}},
    {"BadUtf8StaysThere", "UTF-8", "a\x80.", "UTF-8", {FAILED, "a" + REPLACED + ".", "a."}},
    {"CutUtf8", "UTF-8", "a\xe9", "UTF-8", {FAILED, "a" + REPLACED, "a"}},
    {"LoneSurrogate", "UTF-16LE", Le(u"\xd800z"), "UTF-8", {FAILED, REPLACED + "z", "z"}},
    {"CutUtf16", "UTF-16BE", "\0a\0"s, "UTF-8", {FAILED, "a" + REPLACED, "a"}},
    {"BadGbk", "GBK", "a\x81\x20.", "UTF-8", {FAILED, "a" + REPLACED + " .", "a ."}},
    {"BadShiftJis", "Shift_JIS", "\x83"s + "1", "UTF-8", {FAILED, "\x1a"s + "1", "1"}},
    {"Utf16WritesAMark", "UTF-8", "A", "UTF-16", {Le(u"\ufeffA"), Le(u"\ufeffA"), Le(u"\ufeffA")}},
    {"Utf16TakesALittleMark", "UTF-16", Le(u"\ufeffA"), "UTF-8", {"A", "A", "A"}},
    {"Utf16TakesABigMark", "UTF-16", Be(u"\ufeffA"), "UTF-8", {"A", "A", "A"}},
    {"Utf16IsBigWithoutAMark", "UTF-16", Be(u"AB"), "UTF-8", {"AB", "AB", "AB"}},
    {"NameWithWarning", "windows-1252", "\x80", "UTF-8", {"\u20ac", "\u20ac", "\u20ac"}},
    {"NameInAnyShape", "u.t.f-8", "\u00e9", "LATIN1", {"\xe9", "\xe9", "\xe9"}},
    {"Utf16Turned",
     "UTF-16LE",
     Le(u"A\u4e2d"),
     "UTF-16BE",
     {Be(u"A\u4e2d"), Be(u"A\u4e2d"), Be(u"A\u4e2d")}},
};

TEST_F(WithIcu, ConvertsByPolicy)
{
    for (const GenericCase &row : ICU_CASES) {
        ExpectByPolicy(row);
    }
}

TEST_F(WithIcu, GrowsInAFewSteps)
{
    const size_t count = 1000000;
    EXPECT_EQ(Appended(GenericDb("ASCII", "UTF-32LE", 0), std::string(count, 'a'), 0),
              Times(count, "a\0\0\0"s));
    EXPECT_EQ(sConvertCalls, 3) << "room for the input, twice that and four times that";
}

TEST_F(WithIcu, TheRoomIsTheInputAndFourBytes)
{
    DynBuf db;
    DynBuf_Init(&db);
    const std::string in(1000, 'a');
    ASSERT_TRUE(CodeSet_GenericToGenericDb("ASCII", in.data(), in.size(), "UTF-8", 0, &db));
    EXPECT_EQ(db.allocated, 1004);
    DynBuf_Destroy(&db);
}

TEST_F(WithIcu, RoomThatIsThereIsUsed)
{
    DynBuf db;
    DynBuf_Init(&db);
    ASSERT_TRUE(DynBuf_Enlarge(&db, 1004));
    const std::string in(1000, 'a');
    ASSERT_TRUE(CodeSet_GenericToGenericDb("ASCII", in.data(), in.size(), "UTF-8", 0, &db));
    EXPECT_EQ(db.allocated, 1004);
    DynBuf_Destroy(&db);
}

TEST_F(WithIcu, GrowingDoublesTheRoom)
{
    DynBuf db;
    DynBuf_Init(&db);
    const std::string in(1000000, 'a');
    ASSERT_TRUE(CodeSet_GenericToGenericDb("ASCII", in.data(), in.size(), "UTF-16LE", 0, &db));
    EXPECT_EQ(db.allocated, 2000008);
    DynBuf_Destroy(&db);
}

TEST_F(WithIcu, OutputMayFillTheRoomExactly)
{
    for (size_t count = 1; count <= 300; count++) {
        const std::string in(count, 'a');
        EXPECT_EQ(Convert("ASCII", in, "UTF-16LE"), Times(count, "a\0"s));
        EXPECT_EQ(Convert("ASCII", in, "UTF-32BE"), Times(count, "\0\0\0a"s));
    }
}

TEST_F(WithIcu, AStatefulEncodingIsClosedOnce)
{
    for (size_t count = 1; count <= 300; count++) {
        EXPECT_EQ(Convert("UTF-16LE", Times(count, Le(u"\u65e5")), "ISO-2022-JP"),
                  "\x1b$B" + Times(count, "F|") + "\x1b(B");
    }
}

TEST_F(WithIcu, ThePivotHas1024Units)
{
    EXPECT_EQ(Convert("GBK", "text", "UTF-8"), "text");
    EXPECT_EQ(sPivotUnits, 1024);
}

TEST_F(WithIcu, TextLongerThanThePivotComesThroughWhole)
{
    for (const size_t count : {1023U, 1024U, 1025U, 2048U, 5000U}) {
        const std::string in = Times(count, "\U0001F600");
        const Result there = Convert("UTF-8", "a" + in, "UTF-16BE");
        ASSERT_EQ(there, Be(u"a") + Times(count, Be(u"\U0001F600")));
        EXPECT_EQ(Convert("UTF-16BE", *there, "UTF-8"), "a" + in);
    }
}

TEST_F(WithIcu, ASizeThatCannotBeCountedFails)
{
    for (const size_t there : {size_t{0}, size_t{5}}) {
        for (size_t lacking = 0; lacking <= 16; lacking++) {
            const DbOperation tooLong = [&](const char *bufIn, size_t, DynBuf *db) {
                return CodeSet_GenericToGenericDb("UTF-8", bufIn, SIZE_MAX - lacking, "UTF-8", 0,
                                                  db);
            };
            EXPECT_EQ(Appended(tooLong, "a", there), FAILED);
        }
    }
    EXPECT_EQ(sConvertCalls, 0);
}

TEST_F(WithIcu, AnyOtherErrorOfIcuFails)
{
    for (const UErrorCode error : {U_INTERNAL_PROGRAM_ERROR, U_TRUNCATED_CHAR_FOUND,
                                   U_MEMORY_ALLOCATION_ERROR, U_INDEX_OUTOFBOUNDS_ERROR}) {
        sConvertFault = error;
        EXPECT_EQ(Convert("ASCII", "text", "UTF-8"), FAILED) << error;
    }
}

TEST_F(WithIcu, AWarningOfIcuIsNoError)
{
    sConvertFault = U_STRING_NOT_TERMINATED_WARNING;
    EXPECT_EQ(Convert("ASCII", "text", "UTF-8"), "text");
}

TEST_F(WithIcu, APolicyThatIcuRefusesFails)
{
    sToUnicodeFault = U_ILLEGAL_ARGUMENT_ERROR;
    EXPECT_EQ(Convert("ASCII", "text", "UTF-8"), FAILED);
    sToUnicodeFault = U_ZERO_ERROR;
    sFromUnicodeFault = U_ILLEGAL_ARGUMENT_ERROR;
    EXPECT_EQ(Convert("ASCII", "text", "UTF-8"), FAILED);
}

TEST_F(WithIcu, NoConverterStaysOpenWhateverHappens)
{
    const std::function<void()> deeds[] = {
        [] { EXPECT_EQ(Convert("GBK", "text", "UTF-8"), "text"); },
        [] { EXPECT_EQ(Convert("GBK", "\x81", "UTF-8"), FAILED); },
        [] { EXPECT_EQ(Convert("GBK", "text", "no encoding"), FAILED); },
        [] { EXPECT_EQ(Convert("no encoding", "text", "GBK"), FAILED); },
        [] {
            sFromUnicodeFault = U_ILLEGAL_ARGUMENT_ERROR;
            EXPECT_EQ(Convert("GBK", "text", "UTF-8"), FAILED);
            sFromUnicodeFault = U_ZERO_ERROR;
        },
        [] { EXPECT_TRUE(CodeSet_Validate("GBK")); },
        [] { EXPECT_TRUE(CodeSet_IsValidBuffer("text", 4, "GBK")); },
        [] { EXPECT_FALSE(CodeSet_IsValidBuffer("\x81", 1, "GBK")); },
    };
    for (const auto &deed : deeds) {
        deed(); // loads what ICU keeps
        const ptrdiff_t live = Allocations::Live();
        deed();
        EXPECT_EQ(Allocations::Live(), live) << &deed - deeds;
    }
}

TEST_F(WithIcuDeathTest, APolicyAboveSkipEndsTheProcess)
{
    const std::string report = "NOT_IMPLEMENTED lib/misc/codeset:988\n";
    EXPECT_PANIC(Convert("ASCII", "text", "UTF-8", 3), report);
    EXPECT_PANIC(Convert("ASCII", "text", "UTF-8", UINT_MAX), report);
}

TEST_F(WithIcu, UnknownNamesFailDespiteThePolicy)
{
    EXPECT_EQ(Convert("no encoding", "text", "UTF-8", 3), FAILED);
    EXPECT_EQ(Convert("UTF-8", "text", "no encoding", 3), FAILED);
}

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

// What hosts get whose current code set is another.
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

// ---- Threads

TEST_P(BothWays, ThreadsConvertSideBySide)
{
    std::atomic<int> wrong = 0;
    Together(4, [&](int) {
        for (int i = 0; i < 300; i++) {
            char *there = nullptr, *back = nullptr;
            size_t size = 0, sizeBack = 0;
            const bool done = CodeSet_GenericToGeneric("UTF-8", TEXT_8.data(), TEXT_8.size(),
                                                       "UTF-16LE", 0, &there, &size) &&
                              CodeSet_Utf16leToCurrent(there, size, &back, &sizeBack);
            if (!done || std::string(back, sizeBack) != TEXT_8) { wrong++; }
            free(there);
            free(back);
        }
    });
    EXPECT_EQ(wrong, 0);
}

// ---- Normalisation

struct FormCase {
    const char *name;
    Operation operation;
};
const FormCase FORMS[] = {{"FormC", CodeSet_Utf8FormDToUtf8FormC},
                          {"FormD", CodeSet_Utf8FormCToUtf8FormD}};

Result Normalised(const Operation &operation, const char *string, size_t length = 0)
{
    return Out([=](const char *, size_t, char **out,
                   size_t *size) { return operation(string, length, out, size); },
               "");
}

TEST_P(BothWays, FormCComposes)
{
    EXPECT_EQ(Normalised(CodeSet_Utf8FormDToUtf8FormC, "e\u0301"), "\u00e9");
    EXPECT_EQ(Normalised(CodeSet_Utf8FormDToUtf8FormC, "\u1112\u1161\u11ab"), "\ud55c");
    EXPECT_EQ(Normalised(CodeSet_Utf8FormDToUtf8FormC, "a\u0323\u0307"), "\u1ea1\u0307");
    EXPECT_EQ(Normalised(CodeSet_Utf8FormDToUtf8FormC, "a\u0307\u0323"), "\u1ea1\u0307")
        << "sorted first";
    EXPECT_EQ(Normalised(CodeSet_Utf8FormDToUtf8FormC, "\u212b"), "\u00c5");
    EXPECT_EQ(Normalised(CodeSet_Utf8FormDToUtf8FormC, "\ufb01"), "\ufb01") << "no compatibility";
}

TEST_P(BothWays, FormDDecomposes)
{
    EXPECT_EQ(Normalised(CodeSet_Utf8FormCToUtf8FormD, "\u00e9"), "e\u0301");
    EXPECT_EQ(Normalised(CodeSet_Utf8FormCToUtf8FormD, "\ud55c"), "\u1112\u1161\u11ab");
    EXPECT_EQ(Normalised(CodeSet_Utf8FormCToUtf8FormD, "\u1ea1\u0307"), "a\u0323\u0307");
    EXPECT_EQ(Normalised(CodeSet_Utf8FormCToUtf8FormD, "\ufb01"), "\ufb01");
    EXPECT_EQ(Normalised(CodeSet_Utf8FormCToUtf8FormD, "plain \U0001F600"), "plain \U0001F600");
}

TEST_P(BothWays, NormalisationReadsToTheNul)
{
    for (const FormCase &form : FORMS) {
        for (const size_t length : {size_t{0}, size_t{1}, SIZE_MAX}) {
            EXPECT_EQ(Normalised(form.operation, "text\0more", length), "text") << form.name;
        }
    }
}

TEST_P(BothWays, NormalisationOfNothingIsNothing)
{
    for (const FormCase &form : FORMS) {
        EXPECT_EQ(Normalised(form.operation, ""), "") << form.name;
    }
}

TEST_P(BothWays, NormalisationRefusesWhatIsInvalid)
{
    for (const FormCase &form : FORMS) {
        for (const std::string &in : INVALID_8) {
            EXPECT_EQ(Normalised(form.operation, in.c_str(), in.size()), FAILED) << form.name;
        }
    }
}

TEST_P(BothWays, NormalisationFailsWithThePlatformsStrings)
{
    for (bool *fault : {&sCopyFault, &sCStringFault}) {
        *fault = true;
        for (const FormCase &form : FORMS) {
            EXPECT_EQ(Normalised(form.operation, "text", 4), FAILED) << form.name;
        }
        *fault = false;
    }
}

TEST_P(BothWays, NormalisationReturnsABlockOfExactSize)
{
    char *out = nullptr;
    ASSERT_TRUE(CodeSet_Utf8FormCToUtf8FormD("\u00e9", 2, &out, nullptr));
    EXPECT_EQ(Allocations::LastSize(), 3 + 4);
    free(out);
}

// ---- Validity

TEST_F(WithIcu, ValidateKnowsWhatIcuKnows)
{
    for (const char *name : {"UTF-8", "utf8", "EUC-JP", "Shift_JIS", "windows-1252"}) {
        EXPECT_TRUE(CodeSet_Validate(name)) << name;
    }
    for (const char *name : {"no encoding", "", "IBM038"}) {
        EXPECT_FALSE(CodeSet_Validate(name)) << name;
    }
}

TEST_F(WithoutIcu, ValidateKnowsWhatTheLookUpKnows)
{
    for (const char *name : {"UTF-8", "utf8", "Shift_JIS", "windows-1252"}) {
        EXPECT_TRUE(CodeSet_Validate(name)) << name;
    }
    for (const char *name : {"no encoding", "", "EUC-JP"}) {
        EXPECT_FALSE(CodeSet_Validate(name)) << name;
    }
}

TEST_P(BothWays, ValidBuffersAreText)
{
    EXPECT_TRUE(IsValid("UTF-8", TEXT_8));
    EXPECT_TRUE(IsValid("UTF-8", Times(5000, TEXT_8)));
    EXPECT_TRUE(IsValid("UTF-16LE", Le(TEXT_16)));
    EXPECT_TRUE(IsValid("UTF-16LE", Times(5000, Le(TEXT_16))));
    EXPECT_TRUE(IsValid("UTF-16BE", Be(TEXT_16)));
    EXPECT_TRUE(IsValid("ASCII", "A\0\x7f"s));
}

TEST_P(BothWays, InvalidBuffersAreNot)
{
    for (const std::string &before : {""s, Times(5000, TEXT_8)}) {
        for (const std::string &in : INVALID_8) {
            EXPECT_FALSE(IsValid("UTF-8", before + in)) << testing::PrintToString(in);
        }
    }
    for (const std::string &in : Invalid16(Le)) {
        EXPECT_FALSE(IsValid("UTF-16LE", in)) << testing::PrintToString(in);
        EXPECT_FALSE(IsValid("UTF-16LE", Times(5000, Le(TEXT_16)) + in));
    }
    for (const std::string &in : Invalid16(Be)) {
        EXPECT_FALSE(IsValid("UTF-16BE", in)) << testing::PrintToString(in);
    }
    EXPECT_FALSE(IsValid("ASCII", "A\x80"));
    EXPECT_FALSE(IsValid("ASCII", "\xff"s + "A"));
}

TEST_P(BothWays, NoBytesAreText)
{
    for (const char *name : {"UTF-8", "UTF-16LE", "UTF-16BE", "ASCII", "UTF-32LE", "ISO-8859-1",
                             "EUC-JP", "no encoding"}) {
        EXPECT_TRUE(CodeSet_IsValidBuffer(nullptr, 0, name)) << name;
        EXPECT_TRUE(CodeSet_IsValidBuffer("", 0, name)) << name;
    }
}

TEST_F(WithIcu, LegacyTextIsLookedAt)
{
    EXPECT_TRUE(IsValid("Shift_JIS", "\x83\x41"));
    EXPECT_FALSE(IsValid("Shift_JIS", "\x83"));
    EXPECT_FALSE(IsValid("Shift_JIS", "\x83\x31"));
    EXPECT_TRUE(IsValid("windows-1252", "\x80\xff"));
}

TEST_F(WithIcu, WhatDecodesToNothingIsNotText)
{
    EXPECT_FALSE(IsValid("UTF-16", Le(u"\ufeff")));
    EXPECT_TRUE(IsValid("UTF-16", Le(u"\ufeffA")));
    EXPECT_FALSE(IsValid("ISO-2022-JP", "\x1b$B"));
    EXPECT_TRUE(IsValid("UTF-16LE", Le(u"\ufeff"))) << "a character there";
}

TEST_F(WithoutIcu, WhatIsNotConvertedIsNotJudged)
{
    for (const char *name : {"ISO-8859-1", "UTF-32LE", "EUC-JP", "no encoding"}) {
        EXPECT_FALSE(IsValid(name, "text")) << name;
    }
}

// A buffer of that size, which takes no memory: zeros, but for the first byte.
class Huge {
public:
    explicit Huge(size_t size)
        : mSize(size), mBlock(mmap(nullptr, size, PROT_READ | PROT_WRITE,
                                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))
    {
        if (mBlock == MAP_FAILED) { abort(); }
        *static_cast<char *>(mBlock) = '\xff';
    }
    Huge(const Huge &) = delete;
    Huge &operator=(const Huge &) = delete;
    ~Huge() { munmap(mBlock, mSize); }
    const char *Data() const { return static_cast<const char *>(mBlock); }

private:
    size_t mSize;
    void *mBlock;
};

TEST_F(WithIcuDeathTest, ValidityTestPanicsFromTwoGibibytesOn)
{
    const size_t limit = size_t{1} << 31;
    const Huge buffer(limit);
    for (const size_t size : {limit, 2 * limit, 2 * limit + 1, SIZE_MAX}) {
        for (const char *name : {"UTF-8", "no encoding"}) {
            EXPECT_PANIC(CodeSet_IsValidBuffer(buffer.Data(), size, name),
                         "VERIFY lib/misc/codeset:1700\n");
        }
    }
    EXPECT_FALSE(CodeSet_IsValidBuffer(buffer.Data(), limit - 1, "UTF-8")) << "not yet";
}

TEST_F(WithoutIcu, AValidityTestHasNoLimit)
{
    const size_t size = (size_t{1} << 31) + 2;
    const Huge buffer(size);
    for (const char *name : {"UTF-8", "ASCII"}) {
        EXPECT_FALSE(CodeSet_IsValidBuffer(buffer.Data(), size, name)) << name;
    }
}

TEST_F(WithIcuDeathTest, ValidityTestPanicsForUnsupportedEncodings)
{
    for (const char *name : {"no encoding", "", "IBM038"}) {
        EXPECT_PANIC(CodeSet_IsValidBuffer("text", 4, name), "VERIFY lib/misc/codeset:1723\n");
    }
}

TEST_F(WithIcuDeathTest, ValidityTestPanicsWhenIcuRefusesItsCallback)
{
    sToUnicodeFault = U_ILLEGAL_ARGUMENT_ERROR;
    EXPECT_PANIC(CodeSet_IsValidBuffer("text", 4, "UTF-8"), "VERIFY lib/misc/codeset:1725\n");
}

struct Utf8Case {
    std::string bytes;
    bool isValid;
};

TEST(CodeSetIsValidUtf8, TakesWellFormedTextOnly)
{
    std::vector<Utf8Case> cases = {{"", true},
                                   {"plain", true},
                                   {"\x7f\u0080\u07ff\u0800\uffff", true},
                                   {"\ud7ff\ue000", true},
                                   {"\U00010000\U0010FFFF", true}};
    for (const std::string &in : INVALID_8) {
        cases.push_back({in, false});
        cases.push_back({"before" + in + "after", false});
    }
    for (const auto &[bytes, isValid] : cases) {
        OddlyPlaced placed(bytes);
        EXPECT_EQ(CodeSet_IsValidUtf8(placed.Data(), bytes.size()), isValid)
            << testing::PrintToString(bytes);
        EXPECT_EQ(CodeSet_IsValidUtf8NoNul(placed.Data(), bytes.size()), isValid);
        EXPECT_EQ(CodeSet_IsValidUtf8String(bytes.c_str()), isValid);
    }
}

TEST(CodeSetIsValidUtf8, AcceptsANulThatItsVariantsDoNot)
{
    for (const std::string &in : {"\0"s, "a\0b"s, "ab\0"s}) {
        EXPECT_TRUE(CodeSet_IsValidUtf8(in.data(), in.size()));
        EXPECT_FALSE(CodeSet_IsValidUtf8NoNul(in.data(), in.size()));
    }
    EXPECT_TRUE(CodeSet_IsValidUtf8String("a\0\xff")) << "what is behind the end does not count";
    EXPECT_FALSE(CodeSet_IsValidUtf8("a\0\xff", 3));
}

TEST(CodeSetIsValidUtf8, NoBytesAreValid)
{
    EXPECT_TRUE(CodeSet_IsValidUtf8(nullptr, 0));
    EXPECT_TRUE(CodeSet_IsValidUtf8NoNul(nullptr, 0));
    EXPECT_TRUE(CodeSet_IsValidUtf8String(""));
}

} // namespace
