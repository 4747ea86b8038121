// Tests of normalization: Unicode's own test file, row by row, and cases that are not in that file.
#include "cfTypes.h"
#include "outOfNew.h"

#include <gtest/gtest.h>
#include <unicode/uchar.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

using namespace pelago::platform;

namespace {

constexpr UChar32 LAST_CODE_POINT = 0x10FFFF;
constexpr auto FORM_C = kCFStringNormalizationFormC, FORM_D = kCFStringNormalizationFormD,
               FORM_KC = kCFStringNormalizationFormKC, FORM_KD = kCFStringNormalizationFormKD;

std::string Utf8(const std::u32string &text)
{
    std::string bytes;
    for (const char32_t c : text) {
        const auto tail = [&](int shift) {
            return static_cast<char>(0x80 | ((c >> shift) & 0x3F));
        };
        if (c < 0x80) {
            bytes += static_cast<char>(c);
        } else if (c < 0x800) {
            bytes += {static_cast<char>(0xC0 | c >> 6), tail(0)};
        } else if (c < 0x10000) {
            bytes += {static_cast<char>(0xE0 | c >> 12), tail(6), tail(0)};
        } else {
            bytes += {static_cast<char>(0xF0 | c >> 18), tail(12), tail(6), tail(0)};
        }
    }
    return bytes;
}

CFIndex UnitCount(const std::u32string &text)
{
    return static_cast<CFIndex>(text.size()) +
           std::count_if(text.begin(), text.end(), [](char32_t c) { return c > 0xFFFF; });
}

CFOwned<CFStringRef> String(const std::string &text)
{
    return CFOwned<CFStringRef>(
        CFStringCreateWithCString(kCFAllocatorDefault, text.c_str(), kCFStringEncodingUTF8));
}

CFOwned<CFMutableStringRef> MutableCopy(CFStringRef string)
{
    return CFOwned<CFMutableStringRef>(CFStringCreateMutableCopy(kCFAllocatorDefault, 0, string));
}

std::string Text(CFStringRef string)
{
    const CFIndex size =
        CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8) + 1;
    std::string text(static_cast<size_t>(size), '\0');
    if (!CFStringGetCString(string, text.data(), size, kCFStringEncodingUTF8)) {
        return "does not fit the size that its length asks for";
    }
    text.resize(strlen(text.c_str()));
    return text;
}

std::string Normalized(const std::string &text, CFStringNormalizationForm form)
{
    const auto copy = MutableCopy(String(text).get());
    CFStringNormalize(copy.get(), form);
    return Text(copy.get());
}

/* Unicode's file */

struct Row {
    std::array<std::u32string, 5> columns; // source, NFC, NFD, NFKC, NFKD
    int line;
};

// ICU and the file may be of different versions of Unicode.  Rows with characters that ICU does not
// know yet are left out, and counted.  Every row of an older file still holds: Unicode promises it.
struct UnicodeFile {
    UnicodeFile();
    std::vector<Row> rows;
    size_t leftOut = 0;
    std::set<char32_t> listed; // the sources of the section that goes through the code points
    std::string version;
};

std::u32string CodePoints(const std::string &hexadecimal)
{
    std::istringstream in(hexadecimal);
    std::u32string text;
    for (uint32_t c = 0; in >> std::hex >> c;) {
        text += static_cast<char32_t>(c);
    }
    return text;
}

bool IsAssigned(char32_t c) { return u_charType(static_cast<UChar32>(c)) != U_UNASSIGNED; }

UnicodeFile::UnicodeFile()
{
    std::ifstream in(NORMALIZATION_TEST);
    std::string text, part;
    for (int line = 1; std::getline(in, text); line++) {
        if (line == 1) { version = text.substr(0, text.rfind('.')).substr(text.find('-') + 1); }
        if (text.starts_with("@")) { part = text.substr(0, text.find(' ')); }
        if (text.empty() || text[0] == '#' || text[0] == '@') { continue; }
        Row row = {{}, line};
        std::istringstream fields(text);
        for (std::u32string &column : row.columns) {
            std::string field;
            std::getline(fields, field, ';');
            column = CodePoints(field);
        }
        const std::u32string &source = row.columns[0];
        if (part == "@Part1") { listed.insert(source[0]); }
        if (std::all_of(source.begin(), source.end(), IsAssigned)) {
            rows.push_back(row);
        } else {
            leftOut++;
        }
    }
}

const UnicodeFile &File()
{
    static const UnicodeFile file;
    return file;
}

bool IsNewerThanTheFile(char32_t c)
{
    UVersionInfo age, fileVersion;
    u_charAge(static_cast<UChar32>(c), age);
    u_versionFromString(fileVersion, File().version.c_str());
    return std::lexicographical_compare(fileVersion, fileVersion + U_MAX_VERSION_LENGTH, age,
                                        age + U_MAX_VERSION_LENGTH);
}

TEST(UnicodeNormalizationFile, IsReadWhole)
{
    RecordProperty("rowsLeftOut", static_cast<int>(File().leftOut));
    EXPECT_GT(File().rows.size(), 18000u);
    EXPECT_GT(File().listed.size(), 16000u);
    for (const Row &row : File().rows) {
        for (const std::u32string &column : row.columns) {
            ASSERT_FALSE(column.empty()) << row.line;
        }
    }
}

TEST(UnicodeNormalizationFile, LeavesOutNoRowThatIcuKnows)
{
    UVersionInfo fileVersion, icuVersion;
    u_versionFromString(fileVersion, File().version.c_str());
    ASSERT_GE(fileVersion[0], 15);
    u_getUnicodeVersion(icuVersion);
    if (icuVersion[0] >= fileVersion[0]) { EXPECT_EQ(File().leftOut, 0u); }
    printf("Unicode %s, ICU knows %d.%d: %zu rows, %zu left out\n", File().version.c_str(),
           icuVersion[0], icuVersion[1], File().rows.size(), File().leftOut);
}

// Which column holds the result for the canonical columns (the first three), and which for the
// other two.
struct FormCase {
    const char *name;
    CFStringNormalizationForm form;
    size_t canonical, compatible;
};
class UnicodeNormalization : public testing::TestWithParam<FormCase> {};

TEST_P(UnicodeNormalization, GivesWhatEveryRowSays)
{
    const auto &[name, form, canonical, compatible] = GetParam();
    for (const auto &[columns, line] : File().rows) {
        for (size_t i = 0; i < columns.size(); i++) {
            const std::u32string &expected = columns[i < 3 ? canonical : compatible];
            const auto copy = MutableCopy(String(Utf8(columns[i])).get());
            CFStringNormalize(copy.get(), form);
            ASSERT_EQ(Text(copy.get()), Utf8(expected)) << "line " << line << ", column " << i + 1;
            ASSERT_EQ(CFStringGetLength(copy.get()), UnitCount(expected)) << "line " << line;
        }
    }
}

TEST_P(UnicodeNormalization, LeavesEveryOtherCodePointAsItIs)
{
    const CFStringNormalizationForm form = GetParam().form;
    size_t seen = 0;
    for (char32_t c = 1; c <= LAST_CODE_POINT; c++) {
        const bool isSurrogate = c >= 0xD800 && c <= 0xDFFF;
        if (isSurrogate || File().listed.contains(c) || IsNewerThanTheFile(c)) { continue; }
        const std::string text = Utf8({c});
        ASSERT_EQ(Normalized(text, form), text) << std::hex << static_cast<uint32_t>(c);
        seen++;
    }
    EXPECT_GT(seen, 1000000u);
}

INSTANTIATE_TEST_SUITE_P(Forms, UnicodeNormalization,
                         testing::Values(FormCase{"C", FORM_C, 1, 3}, FormCase{"D", FORM_D, 2, 4},
                                         FormCase{"KC", FORM_KC, 3, 3},
                                         FormCase{"KD", FORM_KD, 4, 4}),
                         [](const auto &row) { return row.param.name; });

/* Single texts */

struct TextCase {
    const char *name;
    std::u32string text, composed, decomposed;
};
class NormalizedText : public testing::TestWithParam<TextCase> {};

TEST_P(NormalizedText, HasOneFormEachWay)
{
    const auto &[name, text, composed, decomposed] = GetParam();
    EXPECT_EQ(Normalized(Utf8(text), FORM_C), Utf8(composed));
    EXPECT_EQ(Normalized(Utf8(text), FORM_D), Utf8(decomposed));
    EXPECT_EQ(Normalized(Utf8(decomposed), FORM_C), Utf8(composed));
    EXPECT_EQ(Normalized(Utf8(composed), FORM_D), Utf8(decomposed));
}
INSTANTIATE_TEST_SUITE_P(
    Texts, NormalizedText,
    testing::Values(TextCase{"Empty", U"", U"", U""},
                    TextCase{"Ascii", U"Shared Folders", U"Shared Folders", U"Shared Folders"},
                    TextCase{"Umlaut", U"\u00E4", U"\u00E4", U"a\u0308"},
                    TextCase{"HangulOfTwo", U"\uAC00", U"\uAC00", U"\u1100\u1161"},
                    TextCase{"HangulOfThree", U"\uAC01", U"\uAC01", U"\u1100\u1161\u11A8"},
                    TextCase{"HangulInPieces", U"\uAC00\u11A8", U"\uAC01", U"\u1100\u1161\u11A8"},
                    TextCase{"HangulWithAMarkBetween", U"\u1100\u0300\u1161", U"\u1100\u0300\u1161",
                             U"\u1100\u0300\u1161"},
                    TextCase{"LastHangul", U"\uD7A3", U"\uD7A3", U"\u1112\u1175\u11C2"},
                    TextCase{"MarksFirst", U"\u0301\u0316a", U"\u0316\u0301a", U"\u0316\u0301a"},
                    TextCase{"AnotherSign", U"\u212B", U"\u00C5", U"A\u030A"},
                    TextCase{"CompatibilityIsKept", U"\uFB01\u2460", U"\uFB01\u2460",
                             U"\uFB01\u2460"},
                    TextCase{"NeverComposed", U"\u0958", U"\u0915\u093C", U"\u0915\u093C"},
                    TextCase{"BeyondTheFirstPlane", U"\U0001D15E", U"\U0001D157\U0001D165",
                             U"\U0001D157\U0001D165"}),
    [](const auto &row) { return row.param.name; });

TEST(NormalizedText, GrowsAsFarAsUnicodeSays)
{
    const auto copy = MutableCopy(String(Utf8(U"\uFDFA")).get());
    CFStringNormalize(copy.get(), FORM_KD);
    EXPECT_EQ(CFStringGetLength(copy.get()), 18);
}

std::u32string Repeated(const std::u32string &piece, size_t count)
{
    std::u32string text;
    text.reserve(piece.size() * count);
    while (count-- > 0) {
        text += piece;
    }
    return text;
}

// With this number of marks, a walk from each mark back over all earlier marks would take a quarter
// of an hour, and the test would exceed its time limit.
constexpr size_t MARK_COUNT = 1 << 20;

TEST(NormalizedText, SortsMillionsOfMarksInARow)
{
    const std::string text = Utf8(U"a" + Repeated(U"\u0301\u0316", MARK_COUNT));
    const std::string low = Utf8(Repeated(U"\u0316", MARK_COUNT));
    const std::string high = Utf8(Repeated(U"\u0301", MARK_COUNT));
    EXPECT_TRUE(Normalized(text, FORM_D) == "a" + low + high);
    EXPECT_TRUE(Normalized(text, FORM_C) == Utf8(U"\u00E1") + low + high.substr(2));
}

TEST(NormalizedText, SortsMillionsOfMarksThatDecompose)
{
    const std::string text = Utf8(Repeated(U"\u0F73", MARK_COUNT));
    const std::string sorted =
        Utf8(Repeated(U"\u0F71", MARK_COUNT)) + Utf8(Repeated(U"\u0F72", MARK_COUNT));
    EXPECT_TRUE(Normalized(text, FORM_D) == sorted);
    EXPECT_TRUE(Normalized(text, FORM_C) == sorted);
}

TEST(NormalizedText, KeepsTheOrderOfMarksOfOneClass)
{
    constexpr size_t COUNT = 1000; // short rows are often sorted by another method
    EXPECT_EQ(Normalized(Utf8(U"a" + Repeated(U"\u0301\u0300\u0316", COUNT)), FORM_D),
              Utf8(U"a" + Repeated(U"\u0316", COUNT) + Repeated(U"\u0301\u0300", COUNT)));
}

TEST(NormalizedText, ComposesMillionsOfPairs)
{
    const std::string text = Utf8(Repeated(U"a\u0308", MARK_COUNT));
    EXPECT_TRUE(Normalized(text, FORM_C) == Utf8(Repeated(U"\u00E4", MARK_COUNT)));
}

/* Mutable strings */

TEST(MutableString, IsItsOwnCopy)
{
    const auto string = String(Utf8(U"\u00E4"));
    const auto copy = MutableCopy(string.get());
    EXPECT_TRUE(CFEqual(copy.get(), string.get()));
    CFStringNormalize(copy.get(), FORM_D);
    EXPECT_EQ(Text(string.get()), Utf8(U"\u00E4"));
    EXPECT_EQ(CFStringGetLength(string.get()), 1);
    EXPECT_EQ(CFStringGetLength(copy.get()), 2);
    EXPECT_FALSE(CFEqual(copy.get(), string.get())) << "composed and decomposed";
}

TEST(MutableString, IsAString)
{
    const auto copy = MutableCopy(CFSTR("disk"));
    EXPECT_EQ(CFGetTypeID(copy.get()), CFStringGetTypeID());
    EXPECT_TRUE(CFEqual(copy.get(), CFSTR("disk")));
    EXPECT_STREQ(CFStringGetCStringPtr(copy.get(), kCFStringEncodingUTF8), "disk");
}

TEST(MutableString, IsCopiedFromAMutableOne)
{
    const auto first = MutableCopy(String(Utf8(U"\u00E4")).get());
    CFStringNormalize(first.get(), FORM_D);
    const auto second = MutableCopy(first.get());
    CFStringNormalize(second.get(), FORM_C);
    EXPECT_EQ(Text(first.get()), Utf8(U"a\u0308"));
    EXPECT_EQ(Text(second.get()), Utf8(U"\u00E4"));
}

TEST(MutableStringDeathTest, NothingElseIsNormalized)
{
    const auto string = String("text");
    const auto immutable = const_cast<CFMutableStringRef>(string.get());
    const auto constant = const_cast<CFMutableStringRef>(CFSTR("text"));
    const auto noString = const_cast<CFMutableStringRef>(
        static_cast<CFStringRef>(static_cast<const void *>(kCFBooleanTrue)));
    EXPECT_DEATH(CFStringNormalize(immutable, FORM_C),
                 "CFStringNormalize: the string is immutable");
    EXPECT_DEATH(CFStringNormalize(constant, FORM_C), "CFStringNormalize: the string is immutable");
    EXPECT_DEATH(CFStringNormalize(nullptr, FORM_C), "CFStringNormalize: NULL where an object");
    EXPECT_DEATH(CFStringNormalize(noString, FORM_C),
                 "CFStringNormalize: an object of another type");
}

TEST(MutableStringDeathTest, ThereAreFourForms)
{
    const auto copy = MutableCopy(CFSTR("text"));
    EXPECT_DEATH(CFStringNormalize(copy.get(), 4), "CFStringNormalize: no such form");
    EXPECT_DEATH(CFStringNormalize(copy.get(), -1), "CFStringNormalize: no such form");
}

TEST(MutableStringDeathTest, OnlyStringsWithoutALimitAreCopied)
{
    EXPECT_DEATH((void)CFStringCreateMutableCopy(nullptr, 9, CFSTR("text")), "a maximum length");
    EXPECT_DEATH((void)CFStringCreateMutableCopy(nullptr, 0, nullptr),
                 "CFStringCreateMutableCopy: NULL where an object is expected");
}

/* Out of memory */

// This text is too long to be kept inside a string object.
const std::string LONG_TEXT = Utf8(Repeated(U"a\u0308\u0316", 100));
// One allocation for the object, one for its text.
constexpr size_t ALLOCATIONS_OF_A_STRING = 2;

TEST(StringWithoutMemory, IsNotCreated)
{
    for (size_t granted = 0; granted <= ALLOCATIONS_OF_A_STRING; granted++) {
        CFStringRef string = nullptr;
        {
            OutOfNew limit(granted);
            string = CFStringCreateWithCString(nullptr, LONG_TEXT.c_str(), kCFStringEncodingUTF8);
        }
        EXPECT_EQ(string != nullptr, granted == ALLOCATIONS_OF_A_STRING) << granted;
        if (string != nullptr) { CFRelease(string); }
    }
}

TEST(StringWithoutMemory, IsNotCopied)
{
    const auto string = String(LONG_TEXT);
    for (size_t granted = 0; granted <= ALLOCATIONS_OF_A_STRING; granted++) {
        CFMutableStringRef copy = nullptr;
        {
            OutOfNew limit(granted);
            copy = CFStringCreateMutableCopy(nullptr, 0, string.get());
        }
        EXPECT_EQ(copy != nullptr, granted == ALLOCATIONS_OF_A_STRING) << granted;
        if (copy != nullptr) { CFRelease(copy); }
    }
}

// Normalizes with this number of allocations granted.  Returns whether they were enough.
bool NormalizesWith(size_t granted, CFMutableStringRef string)
{
    OutOfNew limit(granted);
    CFStringNormalize(string, FORM_C);
    return !limit.Showed();
}

TEST(StringWithoutMemory, GivesNoTextOnceItWasNotNormalized)
{
    char buffer[1000];
    for (size_t granted = 0;; granted++) {
        const auto copy = MutableCopy(String(LONG_TEXT).get());
        const bool done = NormalizesWith(granted, copy.get());
        buffer[0] = 'x';
        EXPECT_EQ(CFStringGetCString(copy.get(), buffer, sizeof buffer, kCFStringEncodingUTF8),
                  done);
        EXPECT_EQ(CFStringGetCStringPtr(copy.get(), kCFStringEncodingUTF8) != nullptr, done);
        EXPECT_EQ(MutableCopy(copy.get()) != nullptr, done);
        if (done) {
            EXPECT_GT(granted, 1u) << "it does ask for memory";
            return;
        }
        EXPECT_EQ(buffer[0], '\0');
    }
}

} // namespace
