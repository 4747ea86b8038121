// Conversions through ICU.
#include "codesetConversionsForTests.h"

#include "allocations.h"
#include "dynbuf.h"
#include "panic.h"
#include "utf16Bytes.h"

#include <climits>
#include <functional>

#include <unicode/ucnv.h>

namespace {

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
        deed(); // makes ICU load the data that it keeps
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

} // namespace
