// Conversions with ICU and without it.
#include "codesetConversionsForTests.h"

#include "allocations.h"
#include "dynbuf.h"
#include "scopedForTests.h"
#include "together.h"
#include "unicode.h"
#include "utf16Bytes.h"

#include <atomic>
#include <climits>
#include <vector>

#include <CoreFoundation/CoreFoundation.h>
#include <unicode/ucnv.h>

// The names of ICU's functions contain ICU's version.
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

INSTANTIATE_TEST_SUITE_P(, BothWays, testing::Values(Way::Icu, Way::Fallback),
                         [](const auto &row) { return NameOf(row.param); });

// ---- The operations whose names give both forms

struct NamedCase {
    const char *name;
    Operation operation;
    std::string in, out;
    std::vector<std::string> invalid;
};

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

// ---- Any encoding to any other: the cases with the same results with and without ICU

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
    UnicodeIANALookup("UTF-8"); // caches the name
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

} // namespace
