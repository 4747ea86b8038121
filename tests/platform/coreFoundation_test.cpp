// Tests of the Core Foundation subset: what the SDK promises its callers.
#include "cfTypes.h"
#include "together.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

using namespace pelago::platform;

namespace {

template <typename Ref> CFOwned<Ref> Own(Ref object) { return CFOwned<Ref>(object); }

CFOwned<CFStringRef> String(const char *text)
{
    return Own(CFStringCreateWithCString(kCFAllocatorDefault, text, kCFStringEncodingUTF8));
}

CFOwned<CFNumberRef> Number(int64_t value)
{
    return Own(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value));
}

CFOwned<CFNumberRef> Number(double value)
{
    return Own(CFNumberCreate(kCFAllocatorDefault, kCFNumberFloat64Type, &value));
}

CFOwned<CFNumberRef> Unsigned(uint64_t value) { return Own(CFNumberCreateUnsigned(value)); }

CFOwned<CFDataRef> Data(const char *bytes)
{
    return Own(CFDataCreate(kCFAllocatorDefault, reinterpret_cast<const UInt8 *>(bytes),
                            static_cast<CFIndex>(strlen(bytes))));
}

CFOwned<CFMutableArrayRef> Array(std::initializer_list<const void *> values = {},
                                 const CFArrayCallBacks *callBacks = &kCFTypeArrayCallBacks)
{
    auto array = Own(CFArrayCreateMutable(kCFAllocatorDefault, 0, callBacks));
    for (const void *value : values) {
        CFArrayAppendValue(array.get(), value);
    }
    return array;
}

CFRange All(CFArrayRef array) { return CFRangeMake(0, CFArrayGetCount(array)); }

uint32_t Count(CFTypeRef object) { return CFObjectOf(object)->mCount.load(); }

/* Objects */

TEST(CoreFoundationObject, LivesUntilTheLastRelease)
{
    const auto string = String("text");
    EXPECT_EQ(CFRetain(string.get()), string.get());
    EXPECT_EQ(Count(string.get()), 2u);
    CFRelease(string.get());
    EXPECT_EQ(Count(string.get()), 1u);
}

TEST(CoreFoundationObject, IsCountedRightByManyThreads)
{
    constexpr int THREADS = 4, ROUNDS = 20000;
    const auto string = String("shared");
    Together(THREADS, [&](int) {
        for (int j = 0; j < ROUNDS; j++) {
            CFRelease(CFRetain(string.get()));
        }
    });
    EXPECT_EQ(Count(string.get()), 1u);
}

TEST(CoreFoundationObject, TypesHaveDifferentNumbers)
{
    const CFTypeID numbers[] = {CFStringGetTypeID(), CFArrayGetTypeID(),   CFDictionaryGetTypeID(),
                                CFNumberGetTypeID(), CFBooleanGetTypeID(), CFDateGetTypeID(),
                                CFDataGetTypeID(),   CFURLGetTypeID(),     CFReadStreamGetTypeID(),
                                CFErrorGetTypeID()};
    for (const CFTypeID &one : numbers) {
        EXPECT_NE(one, 0u);
        for (const CFTypeID &other : numbers) {
            EXPECT_EQ(one == other, &one == &other);
        }
    }
}

TEST(CoreFoundationObject, TellsItsType)
{
    EXPECT_EQ(CFGetTypeID(CFSTR("x")), CFStringGetTypeID());
    EXPECT_EQ(CFGetTypeID(Array().get()), CFArrayGetTypeID());
    EXPECT_EQ(CFGetTypeID(Number(int64_t{1}).get()), CFNumberGetTypeID());
    EXPECT_EQ(CFGetTypeID(kCFBooleanTrue), CFBooleanGetTypeID());
    EXPECT_EQ(CFGetTypeID(Data("").get()), CFDataGetTypeID());
    EXPECT_EQ(CFGetTypeID(Own(CFDateCreate(nullptr, 0)).get()), CFDateGetTypeID());
    EXPECT_EQ(CFGetTypeID(Own(CFDictionaryCreateEmpty()).get()), CFDictionaryGetTypeID());
}

TEST(CoreFoundationObject, OfAnotherTypeIsNeverEqual)
{
    const auto string = String("1"), zero = String("0");
    const auto one = Number(int64_t{1});
    const auto data = Data("1");
    const auto date = Own(CFDateCreate(nullptr, 1));
    const auto array = Array();
    const auto dictionary = Own(CFDictionaryCreateEmpty());
    const auto uid = Own(CFNew<CFUid>(1u));
    const CFTypeRef objects[] = {string.get(), one.get(),      data.get(),       date.get(),
                                 array.get(),  uid.get(),      dictionary.get(), kCFBooleanTrue,
                                 zero.get(),   kCFBooleanFalse};
    for (CFTypeRef left : objects) {
        for (CFTypeRef right : objects) {
            EXPECT_EQ(CFEqual(left, right), left == right);
        }
    }
}

TEST(CoreFoundationObjectDeathTest, NullEndsTheProcess)
{
    EXPECT_DEATH(CFRetain(nullptr), "CFRetain: NULL where an object is expected");
    EXPECT_DEATH(CFRelease(nullptr), "CFRelease: NULL where an object is expected");
    EXPECT_DEATH((void)CFGetTypeID(nullptr), "CFGetTypeID: NULL where an object is expected");
    EXPECT_DEATH((void)CFEqual(CFSTR("x"), nullptr), "CFEqual: NULL where an object is expected");
    EXPECT_DEATH((void)CFArrayGetCount(nullptr), "CFArrayGetCount: NULL where an object");
}

TEST(CoreFoundationObjectDeathTest, AnotherTypeEndsTheProcess)
{
    const CFArrayRef noArray = reinterpret_cast<CFArrayRef>(CFSTR("x"));
    EXPECT_DEATH((void)CFArrayGetCount(noArray), "CFArrayGetCount: an object of another type");
}

/* Strings */

struct Utf8Case {
    const char *name, *text;
    CFIndex unitCount; // below zero: the bytes are refused
};
class CoreFoundationUtf8 : public testing::TestWithParam<Utf8Case> {};

TEST_P(CoreFoundationUtf8, IsStrict)
{
    const auto &[name, text, unitCount] = GetParam();
    const auto string = String(text);
    ASSERT_EQ(string != nullptr, unitCount >= 0);
    if (!string) { return; }
    EXPECT_EQ(CFStringGetLength(string.get()), unitCount);
    EXPECT_STREQ(CFStringGetCStringPtr(string.get(), kCFStringEncodingUTF8), text);
}
INSTANTIATE_TEST_SUITE_P(
    Texts, CoreFoundationUtf8,
    testing::Values(
        Utf8Case{"Empty", "", 0}, Utf8Case{"Ascii", "disk", 4}, Utf8Case{"Del", "\x7F", 1},
        Utf8Case{"TwoBytesLow", "\xC2\x80", 1}, Utf8Case{"TwoBytesHigh", "\xDF\xBF", 1},
        Utf8Case{"ThreeBytesLow", "\xE0\xA0\x80", 1},
        Utf8Case{"BelowSurrogates", "\xED\x9F\xBF", 1},
        Utf8Case{"AboveSurrogates", "\xEE\x80\x80", 1},
        Utf8Case{"ThreeBytesHigh", "\xEF\xBF\xBF", 1},
        Utf8Case{"FourBytesLow", "\xF0\x90\x80\x80", 2},
        Utf8Case{"FourBytesHigh", "\xF4\x8F\xBF\xBF", 2},
        Utf8Case{"Mixed", "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", 5},
        Utf8Case{"LoneContinuation", "\x80", -1}, Utf8Case{"Overlong2", "\xC1\xBF", -1},
        Utf8Case{"Overlong3", "\xE0\x9F\xBF", -1}, Utf8Case{"Overlong4", "\xF0\x8F\xBF\xBF", -1},
        Utf8Case{"SurrogateLow", "\xED\xA0\x80", -1}, Utf8Case{"SurrogateHigh", "\xED\xBF\xBF", -1},
        Utf8Case{"AboveUnicode", "\xF4\x90\x80\x80", -1},
        Utf8Case{"LeadF5", "\xF5\x80\x80\x80", -1}, Utf8Case{"LeadFF", "\xFF", -1},
        Utf8Case{"CutShort2", "\xC3", -1}, Utf8Case{"CutShort3", "\xE2\x82", -1},
        Utf8Case{"CutShort4", "\xF0\x9F\x98", -1}, Utf8Case{"NotContinued", "\xC3(", -1},
        Utf8Case{"NotContinued4",
                 "\xF0\x9F\x98"
                 "a",
                 -1}),
    [](const auto &row) { return row.param.name; });

TEST(CoreFoundationString, TakesUtf8Only)
{
    constexpr CFStringEncoding MAC_ROMAN = 0;
    EXPECT_EQ(CFStringCreateWithCString(nullptr, "x", MAC_ROMAN), nullptr);
    char buffer[] = "before";
    EXPECT_FALSE(CFStringGetCString(CFSTR("x"), buffer, sizeof buffer, MAC_ROMAN));
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(CFStringGetCStringPtr(CFSTR("x"), MAC_ROMAN), nullptr);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(1, MAC_ROMAN), kCFNotFound);
}

TEST(CoreFoundationString, MaximumSizeIsThreeBytesAUnit)
{
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(0, kCFStringEncodingUTF8), 0);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(7, kCFStringEncodingUTF8), 21);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(LONG_MAX / 3, kCFStringEncodingUTF8),
              LONG_MAX / 3 * 3);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(LONG_MAX / 3 + 1, kCFStringEncodingUTF8),
              kCFNotFound);
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(-1, kCFStringEncodingUTF8), kCFNotFound);
}

TEST(CoreFoundationString, IsCopiedWholeOrNotAtAll)
{
    const auto string = String("disk");
    char buffer[8];
    for (CFIndex size = 1; size <= 8; size++) {
        memset(buffer, 'x', sizeof buffer);
        const bool fits = size >= 5;
        EXPECT_EQ(CFStringGetCString(string.get(), buffer, size, kCFStringEncodingUTF8), fits);
        EXPECT_STREQ(buffer, fits ? "disk" : "") << size;
        for (size_t i = fits ? 5 : 1; i < sizeof buffer; i++) {
            EXPECT_EQ(buffer[i], 'x');
        }
    }
    memset(buffer, 'x', sizeof buffer);
    EXPECT_FALSE(CFStringGetCString(string.get(), buffer, 0, kCFStringEncodingUTF8));
    EXPECT_FALSE(CFStringGetCString(string.get(), nullptr, 8, kCFStringEncodingUTF8));
    EXPECT_EQ(buffer[0], 'x') << "no room for the terminator either";
}

TEST(CoreFoundationString, EqualsByItsUnits)
{
    EXPECT_TRUE(CFEqual(String("disk").get(), CFSTR("disk")));
    EXPECT_FALSE(CFEqual(String("Disk").get(), CFSTR("disk")));
    EXPECT_FALSE(CFEqual(String("dis").get(), CFSTR("disk")));
    EXPECT_FALSE(CFEqual(String("\xC3\xA4").get(), String("a\xCC\x88").get()))
        << "composed and decomposed";
}

TEST(CoreFoundationString, ConstantsAreTheSameObjectForEver)
{
    const CFStringRef constant = CFSTR("for ever");
    EXPECT_EQ(CFSTR("for ever"), constant);
    EXPECT_NE(CFSTR("for never"), constant);
    for (int i = 0; i < 3; i++) {
        CFRelease(constant);
    }
    EXPECT_EQ(CFRetain(constant), constant);
    EXPECT_STREQ(CFStringGetCStringPtr(constant, kCFStringEncodingUTF8), "for ever");
}

TEST(CoreFoundationString, ConstantsAreMadeOnceByManyThreads)
{
    constexpr int THREADS = 4, ROUNDS = 200;
    std::vector<std::vector<CFStringRef>> seen(THREADS);
    Together(THREADS, [&](int thread) {
        for (int i = 0; i < ROUNDS; i++) {
            seen[thread].push_back(__CFStringMakeConstantString(std::to_string(i).c_str()));
        }
    });
    EXPECT_THAT(seen, testing::Each(seen[0]));
    EXPECT_STREQ(CFStringGetCStringPtr(seen[0][7], kCFStringEncodingUTF8), "7");
}

TEST(CoreFoundationStringDeathTest, AConstantMustBeText)
{
    EXPECT_DEATH((void)__CFStringMakeConstantString("\xFF"), "CFSTR: the text is not UTF-8");
}

/* Arrays */

TEST(CoreFoundationArray, KeepsWhatItIsGiven)
{
    const auto value = String("value");
    {
        const auto array = Array({value.get(), CFSTR("b"), value.get()});
        EXPECT_EQ(Count(value.get()), 3u);
        EXPECT_EQ(CFArrayGetCount(array.get()), 3);
        EXPECT_EQ(CFArrayGetValueAtIndex(array.get(), 0), value.get());
        EXPECT_EQ(CFArrayGetValueAtIndex(array.get(), 1), CFSTR("b"));
        CFArrayRemoveValueAtIndex(array.get(), 0);
        EXPECT_EQ(Count(value.get()), 2u);
        EXPECT_EQ(CFArrayGetValueAtIndex(array.get(), 0), CFSTR("b")) << "the gap is closed";
        EXPECT_EQ(CFArrayGetValueAtIndex(array.get(), 1), value.get());
    }
    EXPECT_EQ(Count(value.get()), 1u);
}

TEST(CoreFoundationArray, CapacityIsAHint)
{
    const auto array = Own(CFArrayCreateMutable(nullptr, 1, &kCFTypeArrayCallBacks));
    for (int i = 0; i < 5000; i++) {
        CFArrayAppendValue(array.get(), CFSTR("x"));
    }
    EXPECT_EQ(CFArrayGetCount(array.get()), 5000);
}

TEST(CoreFoundationArray, CopyIsShallowAndItsOwn)
{
    const auto inner = Array({CFSTR("inner")});
    const auto array = Array({inner.get(), CFSTR("b")});
    const auto copy = Own(CFArrayCreateMutableCopy(nullptr, 0, array.get()));
    EXPECT_TRUE(CFEqual(copy.get(), array.get()));
    EXPECT_EQ(CFArrayGetValueAtIndex(copy.get(), 0), inner.get());
    EXPECT_EQ(Count(inner.get()), 3u);
    CFArrayRemoveValueAtIndex(copy.get(), 0);
    EXPECT_EQ(CFArrayGetCount(array.get()), 2);
    EXPECT_EQ(Count(inner.get()), 2u);
}

struct SearchCase {
    const char *name, *text;
    CFIndex location, length, found;
};
class CoreFoundationArraySearch : public testing::TestWithParam<SearchCase> {};

TEST_P(CoreFoundationArraySearch, FindsTheLowestIndexInTheRange)
{
    const auto &[name, text, location, length, found] = GetParam();
    const auto array = Array({CFSTR("a"), CFSTR("b"), CFSTR("a"), CFSTR("c")});
    const auto value = String(text);
    const CFRange range = CFRangeMake(location, length);
    EXPECT_EQ(CFArrayGetFirstIndexOfValue(array.get(), range, value.get()), found);
    EXPECT_EQ(CFArrayContainsValue(array.get(), range, value.get()), found != kCFNotFound);
}
INSTANTIATE_TEST_SUITE_P(
    Ranges, CoreFoundationArraySearch,
    testing::Values(SearchCase{"First", "a", 0, 4, 0}, SearchCase{"Second", "a", 1, 3, 2},
                    SearchCase{"Last", "c", 0, 4, 3}, SearchCase{"BeforeTheRange", "a", 3, 1, -1},
                    SearchCase{"BehindTheRange", "c", 0, 3, -1},
                    SearchCase{"Unknown", "d", 0, 4, -1}, SearchCase{"EmptyRange", "a", 0, 0, -1},
                    SearchCase{"EmptyRangeAtTheEnd", "a", 4, 0, -1}),
    [](const auto &row) { return row.param.name; });

TEST(CoreFoundationArray, AppendsARangeInOrder)
{
    const auto from = Array({CFSTR("a"), CFSTR("b"), CFSTR("c")});
    const auto to = Array({CFSTR("x")});
    CFArrayAppendArray(to.get(), from.get(), CFRangeMake(1, 2));
    EXPECT_TRUE(CFEqual(to.get(), Array({CFSTR("x"), CFSTR("b"), CFSTR("c")}).get()));
    CFArrayAppendArray(to.get(), from.get(), CFRangeMake(3, 0));
    EXPECT_EQ(CFArrayGetCount(to.get()), 3);
}

TEST(CoreFoundationArray, CanBeAppendedToItself)
{
    const auto array = Array({CFSTR("a"), CFSTR("b")});
    CFArrayAppendArray(array.get(), array.get(), All(array.get()));
    EXPECT_TRUE(
        CFEqual(array.get(), Array({CFSTR("a"), CFSTR("b"), CFSTR("a"), CFSTR("b")}).get()));
}

TEST(CoreFoundationArray, EqualsItemByItem)
{
    const auto array = Array({CFSTR("a"), Array({CFSTR("b")}).get()});
    EXPECT_TRUE(CFEqual(array.get(), Array({String("a").get(), Array({CFSTR("b")}).get()}).get()));
    EXPECT_FALSE(CFEqual(array.get(), Array({CFSTR("a"), Array({CFSTR("c")}).get()}).get()));
    EXPECT_FALSE(CFEqual(array.get(), Array({CFSTR("a")}).get()));
}

TEST(CoreFoundationArray, WithoutCallBacksComparesPointers)
{
    const auto one = String("same"), other = String("same");
    const auto array = Array({one.get()}, nullptr);
    EXPECT_EQ(Count(one.get()), 1u);
    EXPECT_TRUE(CFArrayContainsValue(array.get(), All(array.get()), one.get()));
    EXPECT_FALSE(CFArrayContainsValue(array.get(), All(array.get()), other.get()));
    CFArrayAppendValue(array.get(), nullptr);
    EXPECT_EQ(CFArrayGetValueAtIndex(array.get(), 1), nullptr);
    EXPECT_FALSE(CFEqual(array.get(), Array({one.get(), one.get()}).get())) << "another equality";
}

TEST(CoreFoundationArray, UsesTheCallBacksItWasGiven)
{
    static int retained, released;
    retained = released = 0;
    static const char kept[] = "kept";
    const CFArrayCallBacks callBacks = {
        0,
        [](CFAllocatorRef, const void *) -> const void * { return retained++, kept; },
        [](CFAllocatorRef, const void *value) { released += value == kept; },
        nullptr,
        [](const void *one, const void *other) -> Boolean {
            return strcmp(static_cast<const char *>(one), static_cast<const char *>(other)) == 0;
        },
    };
    {
        const auto array = Array({"a", "b", "c"}, &callBacks);
        EXPECT_EQ(CFArrayGetValueAtIndex(array.get(), 0), kept) << "what retain answered is stored";
        const std::string same = "kept";
        EXPECT_EQ(CFArrayGetFirstIndexOfValue(array.get(), All(array.get()), same.c_str()), 0);
        CFArrayRemoveValueAtIndex(array.get(), 1);
        EXPECT_EQ(released, 1);
        const auto copy = Own(CFArrayCreateMutableCopy(nullptr, 0, array.get()));
        EXPECT_EQ(retained, 5) << "a copy has the same call backs";
    }
    EXPECT_EQ(released, retained);
}

class CoreFoundationArrayDeathTest : public testing::TestWithParam<CFRange> {};

TEST_P(CoreFoundationArrayDeathTest, ARangeOutsideEndsTheProcess)
{
    const auto array = Array({CFSTR("a"), CFSTR("b")}), to = Array();
    EXPECT_DEATH((void)CFArrayContainsValue(array.get(), GetParam(), CFSTR("a")),
                 "the range is outside the array");
    EXPECT_DEATH(CFArrayAppendArray(to.get(), array.get(), GetParam()),
                 "CFArrayAppendArray: the range is outside the array");
}
INSTANTIATE_TEST_SUITE_P(Ranges, CoreFoundationArrayDeathTest,
                         testing::Values(CFRange{0, 3}, CFRange{3, 0}, CFRange{-1, 1},
                                         CFRange{0, -1}, CFRange{2, 1}, CFRange{1, LONG_MAX},
                                         CFRange{LONG_MAX, 1}));

TEST(CoreFoundationArrayDeathTest, AnIndexOutsideEndsTheProcess)
{
    const auto array = Array({CFSTR("a")});
    for (CFIndex index : {CFIndex{-1}, CFIndex{1}, LONG_MAX}) {
        EXPECT_DEATH((void)CFArrayGetValueAtIndex(array.get(), index),
                     "CFArrayGetValueAtIndex: the index is outside the array");
        EXPECT_DEATH(CFArrayRemoveValueAtIndex(array.get(), index),
                     "CFArrayRemoveValueAtIndex: the index is outside the array");
    }
}

TEST(CoreFoundationArrayDeathTest, ChangingAnImmutableOneEndsTheProcess)
{
    const auto fixed = Own(CFNew<__CFArray>(&kCFTypeArrayCallBacks, false));
    const auto other = Array({CFSTR("a")});
    EXPECT_EQ(CFGetTypeID(fixed.get()), CFGetTypeID(other.get()));
    EXPECT_DEATH(CFArrayAppendValue(fixed.get(), CFSTR("a")), "the array is immutable");
    EXPECT_DEATH(CFArrayRemoveValueAtIndex(fixed.get(), 0), "the array is immutable");
    EXPECT_DEATH(CFArrayAppendArray(fixed.get(), other.get(), CFRangeMake(0, 0)),
                 "the array is immutable");
}

/* Dictionaries */

TEST(CoreFoundationDictionary, FindsByTextAndKeepsTheOrder)
{
    const auto dictionary = Own(CFDictionaryCreateEmpty());
    const auto one = Number(int64_t{1}), two = Number(int64_t{2});
    dictionary->Set(CFSTR("z"), one.get());
    dictionary->Set(String("").get(), kCFBooleanTrue);
    dictionary->Set(CFSTR("z"), two.get());
    EXPECT_EQ(CFDictionaryGetCount(dictionary.get()), 2);
    EXPECT_EQ(CFDictionaryGetValue(dictionary.get(), String("z").get()), two.get());
    EXPECT_EQ(CFDictionaryGetValue(dictionary.get(), CFSTR("")), kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetValue(dictionary.get(), CFSTR("a")), nullptr);
    EXPECT_EQ(CFDictionaryGetValue(dictionary.get(), two.get()), nullptr) << "no such key";
    EXPECT_EQ(dictionary->mEntries[0].key->mText, "z");
    EXPECT_EQ(Count(one.get()), 1u) << "released when replaced";
    EXPECT_EQ(Count(two.get()), 2u);
}

TEST(CoreFoundationDictionary, EqualsWhateverTheOrder)
{
    const auto one = Own(CFDictionaryCreateEmpty()), other = Own(CFDictionaryCreateEmpty());
    one->Set(CFSTR("a"), CFSTR("1"));
    one->Set(CFSTR("b"), CFSTR("2"));
    other->Set(CFSTR("b"), CFSTR("2"));
    EXPECT_FALSE(CFEqual(one.get(), other.get()));
    other->Set(CFSTR("a"), CFSTR("1"));
    EXPECT_TRUE(CFEqual(one.get(), other.get()));
    other->Set(CFSTR("a"), CFSTR("2"));
    EXPECT_FALSE(CFEqual(one.get(), other.get()));
}

/* Numbers */

constexpr double TWO_TO_53 = 9007199254740992.0, TWO_TO_63 = 9223372036854775808.0;
constexpr double INFINITE = std::numeric_limits<double>::infinity();
const double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();

TEST(CoreFoundationNumber, EqualsByValue)
{
    EXPECT_TRUE(CFEqual(Number(int64_t{-5}).get(), Number(int64_t{-5}).get()));
    EXPECT_FALSE(CFEqual(Number(int64_t{-5}).get(), Number(int64_t{5}).get()));
    EXPECT_TRUE(CFEqual(Number(int64_t{1}).get(), Number(1.0).get()));
    EXPECT_TRUE(CFEqual(Number(1.0).get(), Number(int64_t{1}).get()));
    EXPECT_FALSE(CFEqual(Number(int64_t{1}).get(), Number(1.5).get()));
    EXPECT_FALSE(CFEqual(Number(int64_t{-1}).get(), Unsigned(UINT64_MAX).get()));
    EXPECT_TRUE(CFEqual(Unsigned(7).get(), Number(int64_t{7}).get()));
    EXPECT_TRUE(CFEqual(Unsigned(uint64_t{1} << 63).get(), Number(TWO_TO_63).get()));
    EXPECT_FALSE(CFEqual(Number(INT64_MAX).get(), Number(TWO_TO_63).get()));
    EXPECT_TRUE(CFEqual(Number(INT64_MIN).get(), Number(-TWO_TO_63).get()));
    EXPECT_FALSE(CFEqual(Number(int64_t{9007199254740993}).get(), Number(TWO_TO_53).get()))
        << "not rounded before it is compared";
    EXPECT_FALSE(CFEqual(Unsigned(UINT64_MAX).get(), Number(2 * TWO_TO_63).get()));
    EXPECT_TRUE(CFEqual(Number(NOT_A_NUMBER).get(), Number(NOT_A_NUMBER).get()));
    EXPECT_FALSE(CFEqual(Number(NOT_A_NUMBER).get(), Number(int64_t{0}).get()));
    EXPECT_FALSE(CFEqual(Number(INFINITE).get(), Number(INT64_MAX).get()));
    EXPECT_TRUE(CFEqual(Number(INFINITE).get(), Number(INFINITE).get()));
}

struct ToIntegerCase {
    double real;
    int64_t integer;
    bool isExact;
};
class CoreFoundationNumberToInteger : public testing::TestWithParam<ToIntegerCase> {};

TEST_P(CoreFoundationNumberToInteger, GivesTheNearestAndSaysSo)
{
    const auto &[real, integer, isExact] = GetParam();
    int64_t value = 42;
    EXPECT_EQ(CFNumberGetValue(Number(real).get(), kCFNumberSInt64Type, &value), isExact);
    EXPECT_EQ(value, integer);
}
INSTANTIATE_TEST_SUITE_P(
    Reals, CoreFoundationNumberToInteger,
    testing::Values(ToIntegerCase{3.0, 3, true}, ToIntegerCase{-3.5, -3, false},
                    ToIntegerCase{TWO_TO_63, INT64_MAX, false},
                    ToIntegerCase{-TWO_TO_63, INT64_MIN, true},
                    ToIntegerCase{-2 * TWO_TO_63, INT64_MIN, false},
                    ToIntegerCase{INFINITE, INT64_MAX, false},
                    ToIntegerCase{-INFINITE, INT64_MIN, false},
                    ToIntegerCase{std::numeric_limits<double>::quiet_NaN(), 0, false}));

TEST(CoreFoundationNumber, IsGivenInBothTypes)
{
    int64_t integer = 0;
    double real = 0;
    EXPECT_TRUE(CFNumberGetValue(Number(INT64_MIN).get(), kCFNumberSInt64Type, &integer));
    EXPECT_EQ(integer, INT64_MIN);
    EXPECT_FALSE(CFNumberGetValue(Unsigned(UINT64_MAX).get(), kCFNumberSInt64Type, &integer));
    EXPECT_EQ(integer, INT64_MAX);
    EXPECT_TRUE(CFNumberGetValue(Number(0.1).get(), kCFNumberFloat64Type, &real));
    EXPECT_EQ(real, 0.1);
    EXPECT_TRUE(CFNumberGetValue(Number(int64_t{5}).get(), kCFNumberFloat64Type, &real));
    EXPECT_EQ(real, 5.0);
    EXPECT_FALSE(CFNumberGetValue(Number(INT64_MAX).get(), kCFNumberFloat64Type, &real));
    EXPECT_EQ(real, TWO_TO_63);
    constexpr CFNumberType UNKNOWN_TYPE = 99;
    EXPECT_FALSE(CFNumberGetValue(Number(0.1).get(), UNKNOWN_TYPE, &real));
    EXPECT_EQ(CFNumberCreate(nullptr, UNKNOWN_TYPE, &real), nullptr);
}

TEST(CoreFoundationNumber, TellsRealsFromIntegers)
{
    EXPECT_TRUE(CFNumberIsFloatType(Number(1.0).get()));
    EXPECT_FALSE(CFNumberIsFloatType(Number(int64_t{1}).get()));
    EXPECT_FALSE(CFNumberIsFloatType(Unsigned(UINT64_MAX).get()));
}

/* Booleans, dates, data */

TEST(CoreFoundationBoolean, HasTwoConstants)
{
    EXPECT_TRUE(CFBooleanGetValue(kCFBooleanTrue));
    EXPECT_FALSE(CFBooleanGetValue(kCFBooleanFalse));
    EXPECT_FALSE(CFEqual(kCFBooleanTrue, kCFBooleanFalse));
    CFRelease(kCFBooleanTrue);
    CFRelease(kCFBooleanTrue);
    EXPECT_TRUE(CFBooleanGetValue(static_cast<CFBooleanRef>(CFRetain(kCFBooleanTrue))));
}

TEST(CoreFoundationDate, KeepsFractions)
{
    const auto date = Own(CFDateCreate(nullptr, -0.25));
    EXPECT_EQ(CFDateGetAbsoluteTime(date.get()), -0.25);
    EXPECT_TRUE(CFEqual(date.get(), Own(CFDateCreate(nullptr, -0.25)).get()));
    EXPECT_FALSE(CFEqual(date.get(), Own(CFDateCreate(nullptr, 0)).get()));
}

TEST(CoreFoundationData, CopiesItsBytes)
{
    UInt8 bytes[] = {0, 1, 255};
    const auto data = Own(CFDataCreate(nullptr, bytes, sizeof bytes));
    bytes[0] = 9;
    ASSERT_EQ(CFDataGetLength(data.get()), 3);
    EXPECT_EQ(CFDataGetBytePtr(data.get())[0], 0);
    EXPECT_EQ(CFDataGetBytePtr(data.get())[2], 255);
    const UInt8 same[] = {0, 1, 255};
    EXPECT_TRUE(CFEqual(data.get(), Own(CFDataCreate(nullptr, same, 3)).get()));
    EXPECT_FALSE(CFEqual(data.get(), Own(CFDataCreate(nullptr, same, 2)).get()));
    EXPECT_EQ(CFDataGetLength(Own(CFDataCreate(nullptr, nullptr, 0)).get()), 0);
}

TEST(CoreFoundationDataDeathTest, ALengthBelowZeroEndsTheProcess)
{
    EXPECT_DEATH((void)CFDataCreate(nullptr, nullptr, -1), "CFDataCreate: a length below zero");
}

} // namespace
