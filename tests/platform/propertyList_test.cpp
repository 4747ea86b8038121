// Tests of what is read from a property list, and that nothing is lost when it is written back.
#include "propertyListForTests.h"

#include "cfTypes.h"
#include "propertyLists.h"
#include "scopedForTests.h"

#include <clocale>
#include <cmath>

namespace {

struct TextCase {
    const char *name;
    std::string bytes, text;
};
class PropertyListText : public testing::TestWithParam<TextCase> {};

TEST_P(PropertyListText, IsReadAndWrittenAsItIs)
{
    const auto &[name, bytes, text] = GetParam();
    EXPECT_EQ(TextOf(ValueIn(bytes).get()), text);
    const std::string written = Rewritten(bytes);
    EXPECT_EQ(TextOf(ValueIn(written).get()), text);
    EXPECT_EQ(Rewritten(written), written);
}
INSTANTIATE_TEST_SUITE_P(
    Forms, PropertyListText,
    testing::Values(
        TextCase{"Plain", XmlWithValue("<string>disk</string>"), "disk"},
        TextCase{"Empty", XmlWithValue("<string></string>"), ""},
        TextCase{"Whole", XmlWithValue("<string/>"), ""},
        TextCase{"Markup", XmlWithValue("<string>&lt;&amp;&gt;&quot;&apos;</string>"), "<&>\"'"},
        TextCase{"AmpersandOfAnEntity", XmlWithValue("<string>&amp;lt;</string>"), "&lt;"},
        TextCase{"References", XmlWithValue("<string>&#65;&#x41;&#x1F600;</string>"),
                 "AA\xF0\x9F\x98\x80"},
        TextCase{"Cdata", XmlWithValue("<string>a<![CDATA[<b>&amp;]]>c</string>"), "a<b>&amp;c"},
        TextCase{"Blanks", XmlWithValue("<string>  a\t\n </string>"), "  a\t\n "},
        TextCase{"CarriageReturns", XmlWithValue("<string>a&#13;b&#13;&#10;</string>"), "a\rb\r\n"},
        TextCase{"BareCarriageReturns", XmlWithValue("<string>a\r\r\nb\n\r</string>"),
                 "a\n\nb\n\n"},
        TextCase{"EndOfCdataInText", XmlWithValue("<string>]]&gt;</string>"), "]]>"},
        TextCase{"BlanksInTags",
                 "<plist ><dict ><key >k</key ><string >x</string\n></dict ></plist >", "x"},
        TextCase{"CommentInText", XmlWithValue("<string>a<!-- b -->c</string>"), "ac"},
        TextCase{"LongReference", XmlWithValue("<string>&#00000000065;</string>"), "A"},
        TextCase{"EmptyKey", "<dict><key/><true/><key>k</key><string>x</string></dict>", "x"},
        TextCase{"EndOfATagInAnAttribute",
                 "<plist a='>'><dict><key>k</key><string>x</string></dict></plist>", "x"},
        TextCase{"ShortestComments",
                 "<!--><dict/>--><!---><dict/>--><dict><key>k</key><string>x</string></dict>", "x"},
        TextCase{"CdataBetweenValues",
                 "<dict><![CDATA[ ]]><key>k</key><![CDATA[]]><string>x</string></dict>", "x"},
        TextCase{"NoPlist", "<dict><key>k</key><string>x</string></dict>", "x"},
        TextCase{"Comments",
                 "<!-- a --><plist><!----><dict><key>k</key><!-- <dict> "
                 "--><string>x</string></dict></plist><!-- b -->",
                 "x"},
        TextCase{"Prolog",
                 "\n<?xml version='1.0' encoding='utf-8'?><!-- a --><!DOCTYPE plist PUBLIC \"a\" "
                 "\"b\"> <dict><key>k</key><string>x</string></dict>\n",
                 "x"},
        TextCase{"ByteOrderMark", "\xEF\xBB\xBF" + XmlWithValue("<string>x</string>"), "x"},
        TextCase{"LastOfTwoKeys", "<dict><key>k</key><true/><key>k</key><string>x</string></dict>",
                 "x"},
        TextCase{"BinaryAscii", BinaryWithValue(BinaryAscii("disk")), "disk"},
        TextCase{"BinaryEmpty", BinaryWithValue("\x50"), ""},
        TextCase{"BinaryEmptyUtf16", BinaryWithValue("\x60"), ""},
        TextCase{"BinaryUtf16", BinaryWithValue(std::string("\x63\0\xE4\xD8\x3D\xDE\0", 7)),
                 "\xC3\xA4\xF0\x9F\x98\x80"},
        TextCase{"BinaryLong", BinaryWithValue(BinaryAscii(std::string(300, 'x'))),
                 std::string(300, 'x')},
        TextCase{"BinaryCarriageReturn", BinaryWithValue(BinaryAscii("a\rb")), "a\rb"}),
    [](const auto &row) { return row.param.name; });

struct NumberCase {
    const char *name;
    std::string bytes;
    CFOwned<CFTypeRef> (*value)();
};
template <int64_t VALUE> CFOwned<CFTypeRef> Signed()
{
    const int64_t value = VALUE;
    return CFOwned<CFTypeRef>(CFNumberCreate(nullptr, kCFNumberSInt64Type, &value));
}
template <uint64_t VALUE> CFOwned<CFTypeRef> Unsigned()
{
    return CFOwned<CFTypeRef>(CFNumberCreateUnsigned(VALUE));
}
CFOwned<CFTypeRef> Real(double value)
{
    return CFOwned<CFTypeRef>(CFNumberCreate(nullptr, kCFNumberFloat64Type, &value));
}
CFOwned<CFTypeRef> Date(double at) { return CFOwned<CFTypeRef>(CFDateCreate(nullptr, at)); }

class PropertyListScalar : public testing::TestWithParam<NumberCase> {};

TEST_P(PropertyListScalar, KeepsItsTypeAndValue)
{
    const auto expected = GetParam().value();
    for (const std::string &bytes : {GetParam().bytes, Rewritten(GetParam().bytes)}) {
        const auto value = ValueIn(bytes);
        ASSERT_NE(value, nullptr);
        EXPECT_TRUE(CFEqual(value.get(), expected.get())) << bytes;
        if (CFGetTypeID(value.get()) != CFNumberGetTypeID()) { continue; }
        const auto number = static_cast<CFNumberRef>(value.get());
        EXPECT_EQ(CFNumberIsFloatType(number),
                  CFNumberIsFloatType(static_cast<CFNumberRef>(expected.get())));
    }
    // Sets the same value: it must come back from both formats.
    for (const std::string &before : {XmlWithValue("<true/>"), BinaryWithValue("\x09")}) {
        PropertyList list;
        ASSERT_EQ(list.Read(before), Fault::None);
        ASSERT_EQ(list.SetValue("k", expected.get()), Fault::None);
        EXPECT_TRUE(CFEqual(ValueIn(Written(list)).get(), expected.get())) << before;
        EXPECT_EQ(list.IsBinary(), before.starts_with("bplist"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Values, PropertyListScalar,
    testing::Values(
        NumberCase{"Zero", XmlWithValue("<integer>0</integer>"), Signed<0>},
        NumberCase{"Blanks", XmlWithValue("<integer>\n 12 \t</integer>"), Signed<12>},
        NumberCase{"Plus", XmlWithValue("<integer>+12</integer>"), Signed<12>},
        NumberCase{"MinusZero", XmlWithValue("<integer>-0</integer>"), Signed<0>},
        NumberCase{"Hexadecimal", XmlWithValue("<integer>0x0fF</integer>"), Signed<255>},
        NumberCase{"HexadecimalBelowZero", XmlWithValue("<integer>-0X10</integer>"), Signed<-16>},
        NumberCase{"ByReference", XmlWithValue("<integer>&#49;&#x32;</integer>"), Signed<12>},
        NumberCase{"WithAComment", XmlWithValue("<integer>1<!-- a -->2</integer>"), Signed<12>},
        NumberCase{"Smallest", XmlWithValue("<integer>-9223372036854775808</integer>"),
                   Signed<INT64_MIN>},
        NumberCase{"Largest", XmlWithValue("<integer>18446744073709551615</integer>"),
                   Unsigned<UINT64_MAX>},
        NumberCase{"MinusOne", XmlWithValue("<integer>-1</integer>"), Signed<-1>},
        NumberCase{"BinaryByte", BinaryWithValue("\x10\xFF"), Signed<255>},
        NumberCase{"BinaryMinusOne", BinaryWithValue("\x13" + std::string(8, '\xFF')), Signed<-1>},
        NumberCase{"BinaryFourBytes", BinaryWithValue("\x12" + std::string(4, '\xFF')),
                   Signed<0xFFFFFFFF>},
        NumberCase{"BinaryLargest",
                   BinaryWithValue("\x14" + std::string(8, '\0') + std::string(8, '\xFF')),
                   Unsigned<UINT64_MAX>},
        NumberCase{"BinarySixteenBytes", BinaryWithValue("\x14" + std::string(15, '\0') + "\x05"),
                   Signed<5>}),
    [](const auto &row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Reals, PropertyListScalar,
    testing::Values(
        NumberCase{"Tenth", XmlWithValue("<real>0.1</real>"), [] { return Real(0.1); }},
        NumberCase{"SeventeenDigits", XmlWithValue("<real>0.30000000000000004</real>"),
                   [] { return Real(0.1 + 0.2); }},
        NumberCase{"Exponent", XmlWithValue("<real>+.5E+1</real>"), [] { return Real(5); }},
        NumberCase{"Whole", XmlWithValue("<real>5.</real>"), [] { return Real(5); }},
        NumberCase{"Smallest", XmlWithValue("<real>5e-324</real>"), [] { return Real(5e-324); }},
        NumberCase{"Large", XmlWithValue("<real>-1e300</real>"), [] { return Real(-1e300); }},
        NumberCase{"NotANumber", XmlWithValue("<real>NaN</real>"), [] { return Real(NAN); }},
        NumberCase{"Infinity", XmlWithValue("<real>+infinity</real>"),
                   [] { return Real(INFINITY); }},
        NumberCase{"MinusInf", XmlWithValue("<real>-Inf</real>"), [] { return Real(-INFINITY); }},
        NumberCase{"BinaryFloat", BinaryWithValue(std::string("\x22\x3F\x80\0\0", 5)),
                   [] { return Real(1); }}),
    [](const auto &row) { return row.param.name; });

constexpr double DAY = 86400;
INSTANTIATE_TEST_SUITE_P(
    Dates, PropertyListScalar,
    testing::Values(NumberCase{"Epoch", XmlWithValue("<date>2001-01-01T00:00:00Z</date>"),
                               [] { return Date(0); }},
                    NumberCase{"Before", XmlWithValue("<date> 2000-12-31T23:59:59Z </date>"),
                               [] { return Date(-1); }},
                    NumberCase{"LeapDay", XmlWithValue("<date>2000-02-29T12:00:00Z</date>"),
                               [] { return Date(-307 * DAY + DAY / 2); }},
                    NumberCase{"Year1", XmlWithValue("<date>0001-01-01T00:00:00Z</date>"),
                               [] { return Date(-730485 * DAY); }},
                    NumberCase{"Year0", XmlWithValue("<date>0000-03-01T00:00:00Z</date>"),
                               [] { return Date(-730791 * DAY); }},
                    NumberCase{"FirstDayOfYear0", XmlWithValue("<date>0000-01-01T00:00:00Z</date>"),
                               [] { return Date(-63145526400); }},
                    NumberCase{"LeapDayOfYear0", XmlWithValue("<date>0000-02-29T00:00:00Z</date>"),
                               [] { return Date(-63140428800); }},
                    NumberCase{"Year500", XmlWithValue("<date>0500-01-02T03:04:05Z</date>"),
                               [] { return Date(-47366888155); }},
                    NumberCase{"Year9999", XmlWithValue("<date>9999-12-31T23:59:59Z</date>"),
                               [] { return Date(252423993599); }},
                    NumberCase{"BinaryBefore1904",
                               BinaryWithValue(std::string("\x33\xC1\xE7\x53\x53\x80\0\0\0", 9)),
                               [] { return Date(-3130694656.0); }}),
    [](const auto &row) { return row.param.name; });

TEST(PropertyListDate, KeepsItsFractionInBinary)
{
    const std::string bytes = BinaryWithValue(std::string("\x33\x3F\xE0\0\0\0\0\0\0", 9));
    EXPECT_TRUE(CFEqual(ValueIn(Rewritten(bytes)).get(), Date(0.5).get()));
}

TEST(PropertyListDate, IsRefusedOutsideTheYearsOfXml)
{
    for (double at : {1e12, -1e12, 3e11, -7e10, double(NAN), double(INFINITY)}) {
        PropertyList list;
        ASSERT_EQ(list.SetValue("k", Date(at).get()), Fault::None);
        std::string bytes;
        EXPECT_EQ(list.Write(&bytes), Fault::NotRepresentable) << at;
    }
}

TEST(PropertyListReal, KeepsTheSignOfZero)
{
    for (const std::string &bytes :
         {XmlWithValue("<real>-0.0</real>"), BinaryWithValue(std::string("\x22\x80\0\0\0", 5))}) {
        double value = 1;
        const auto number = ValueIn(Rewritten(bytes));
        ASSERT_TRUE(
            CFNumberGetValue(static_cast<CFNumberRef>(number.get()), kCFNumberFloat64Type, &value));
        EXPECT_EQ(value, 0.0);
        EXPECT_TRUE(std::signbit(value));
    }
}

TEST(PropertyListReal, KeepsPlusAndMinusZeroApart)
{
    for (const bool isMinusFirst : {false, true}) {
        const std::string plus = std::string("\x22\0\0\0\0", 5),
                          minus = std::string("\x22\x80\0\0\0", 5);
        const std::string bytes = BinaryWithValue(
            BinaryArray({3, 4}), {isMinusFirst ? minus : plus, isMinusFirst ? plus : minus});
        const auto value = ValueIn(Rewritten(bytes));
        const auto array = static_cast<CFArrayRef>(value.get());
        for (CFIndex i = 0; i < 2; i++) {
            double real = 1;
            CFNumberGetValue(static_cast<CFNumberRef>(CFArrayGetValueAtIndex(array, i)),
                             kCFNumberFloat64Type, &real);
            EXPECT_EQ(std::signbit(real), isMinusFirst == (i == 0));
        }
    }
}

TEST(PropertyListReal, IsReadWithAPointInEveryLocale)
{
    const TemporaryFolder folder;
    const std::string make =
        "localedef -i de_DE -f UTF-8 '" + folder.Path() + "/de_DE.UTF-8' >/dev/null 2>&1";
    if (system(make.c_str()) != 0) { FAIL() << "no localedef to make a German locale with"; }
    setenv("LOCPATH", folder.Path().c_str(), 1);
    ASSERT_STREQ(setlocale(LC_ALL, "de_DE.UTF-8"), "de_DE.UTF-8");
    ASSERT_STREQ(localeconv()->decimal_point, ",");
    const std::string bytes = XmlWithValue("<real>1.5</real>");
    EXPECT_TRUE(CFEqual(ValueIn(bytes).get(), Real(1.5).get()));
    EXPECT_TRUE(CFEqual(ValueIn(Rewritten(bytes)).get(), Real(1.5).get()));
    EXPECT_STREQ(localeconv()->decimal_point, ",") << "the caller's locale is left alone";
    setlocale(LC_ALL, "C");
}

TEST(PropertyListData, KeepsEveryLengthAndByte)
{
    std::vector<UInt8> bytes;
    for (int size = 0; size <= 300; size++) {
        const CFOwned<CFDataRef> data(CFDataCreate(nullptr, bytes.data(), size));
        for (const std::string &before : {XmlWithValue("<true/>"), BinaryWithValue("\x09")}) {
            PropertyList list;
            ASSERT_EQ(list.Read(before), Fault::None);
            ASSERT_EQ(list.SetValue("k", data.get()), Fault::None);
            ASSERT_TRUE(CFEqual(ValueIn(Written(list)).get(), data.get())) << size;
        }
        bytes.push_back(static_cast<UInt8>(size * 7));
    }
}

TEST(PropertyListContainers, SurviveWithTheirOrder)
{
    const std::string xml =
        "<dict><key>z</key><array><dict/><array/><true/><false/></array><key></key>"
        "<dict><key>b</key><integer>1</integer><key>a</key><data>AAE=</data></dict>"
        "<key>k\r&#13;</key><string/></dict>";
    PropertyList list;
    ASSERT_EQ(list.Read(xml), Fault::None);
    const CFOwned<CFDictionaryRef> values = Values(list);
    EXPECT_EQ(values->mEntries[0].key->mText, "z");
    EXPECT_EQ(values->mEntries[1].key->mText, "");
    EXPECT_EQ(values->mEntries[2].key->mText, "k\n\r");
    EXPECT_EQ(Written(list), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                             "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                             "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                             "<plist version=\"1.0\">\n<dict>\n"
                             "\t<key>z</key>\n\t<array>\n\t\t<dict/>\n\t\t<array/>\n\t\t<true/"
                             ">\n\t\t<false/>\n\t</array>\n"
                             "\t<key></key>\n\t<dict>\n\t\t<key>b</key>\n\t\t<integer>1</integer>\n"
                             "\t\t<key>a</key>\n\t\t<data>\n\t\tAAE=\n\t\t</data>\n\t</dict>\n"
                             "\t<key>k\n&#13;</key>\n\t<string></string>\n</dict>\n</plist>\n");
}

TEST(PropertyListContainers, SharedPartsAreEachTheirOwnAfterwards)
{
    const std::string bytes =
        BinaryList({BinaryDict({1, 2, 3, 3}), BinaryAscii("a"), BinaryAscii("b"),
                    BinaryArray({4, 4}), BinaryAscii("shared")});
    PropertyList list;
    ASSERT_EQ(list.Read(bytes), Fault::None);
    ASSERT_EQ(list.SetValue("a", CFSTR("set")), Fault::None);
    const std::string written = Written(list);
    EXPECT_EQ(TextOf(ValueIn(written, "a").get()), "set");
    const auto kept = ValueIn(written, "b");
    ASSERT_EQ(CFGetTypeID(kept.get()), CFArrayGetTypeID());
    EXPECT_EQ(TextOf(CFArrayGetValueAtIndex(static_cast<CFArrayRef>(kept.get()), 1)), "shared");
}

// An object that a file shares stays shared in the next file, however often it is referred to.
TEST(PropertyListContainers, SharedPartsAreWrittenOnce)
{
    const std::vector<size_t> items(1000, 3);
    const std::string bytes =
        BinaryWithValue(BinaryArray(items), {BinaryAscii(std::string(1000, 'x'))});
    EXPECT_LE(Rewritten(bytes).size(), bytes.size());
}

TEST(PropertyListContainers, ReadAloneKeepTheLastOfTwoKeys)
{
    const std::string bytes =
        BinaryList({BinaryDict({1, 1, 2, 3}), BinaryAscii("k"), "\x08", "\x09"});
    CFTypeRef object = nullptr;
    bool isBinary = false;
    ASSERT_EQ(PropertyListCopyObject(bytes, &object, &isBinary), Fault::None);
    const CFOwned<CFDictionaryRef> values(static_cast<CFDictionaryRef>(object));
    EXPECT_EQ(CFDictionaryGetCount(values.get()), 1);
    EXPECT_EQ(CFDictionaryGetValue(values.get(), CFSTR("k")), kCFBooleanTrue);
}

TEST(PropertyListContainers, AValueThatWasSetMayChangeAfterwards)
{
    const CFOwned<CFMutableArrayRef> array(
        CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
    PropertyList list;
    ASSERT_EQ(list.SetValue("k", array.get()), Fault::None);
    CFArrayAppendValue(array.get(), CFSTR("later"));
    const auto value = ValueIn(Written(list));
    EXPECT_EQ(CFArrayGetCount(static_cast<CFArrayRef>(value.get())), 0);
}

TEST(PropertyListContainers, AValueThatIsSetKeepsItsPlace)
{
    PropertyList list;
    ASSERT_EQ(list.Read("<dict><key>a</key><true/><key>b</key><true/></dict>"), Fault::None);
    ASSERT_EQ(list.SetValue("c", CFSTR("3")), Fault::None);
    ASSERT_EQ(list.SetValue("a", CFSTR("1")), Fault::None);
    const CFOwned<CFDictionaryRef> values = Values(list);
    EXPECT_EQ(values->mEntries[0].key->mText + values->mEntries[1].key->mText +
                  values->mEntries[2].key->mText,
              "abc");
    EXPECT_EQ(TextOf(values->mEntries[0].value.get()), "1");
}

TEST(PropertyListContainers, StartEmptyAndInXml)
{
    PropertyList list;
    EXPECT_EQ(list.CopyValue("k"), nullptr);
    EXPECT_EQ(CFDictionaryGetCount(Values(list).get()), 0);
    EXPECT_EQ(FaultOf(Written(list)), Fault::None);
    EXPECT_FALSE(list.IsBinary());
}

TEST(PropertyListContainers, HoldPropertyListTypesOnly)
{
    const CFOwned<CFTypeRef> other(CFNew<CFUid>(1u));
    CFClass cls = {CF_TYPE_PREFERENCES, nullptr, nullptr};
    const CFObject stranger(cls, true);
    EXPECT_EQ(PropertyList().SetValue("k", &stranger), Fault::NotRepresentable);
    EXPECT_EQ(PropertyList().SetValue("k", other.get()), Fault::None);
}

TEST(PropertyListText, WithoutAFormInXmlIsRefused)
{
    const CFOwned<CFStringRef> control(CFStringCreateWithText("\x01"));
    PropertyList xml, binary;
    std::string bytes;
    ASSERT_EQ(xml.SetValue("k", control.get()), Fault::None);
    EXPECT_EQ(xml.Write(&bytes), Fault::NotRepresentable);
    ASSERT_EQ(binary.Read(BinaryWithValue("\x09")), Fault::None);
    ASSERT_EQ(binary.SetValue("k", control.get()), Fault::None);
    EXPECT_EQ(TextOf(ValueIn(Written(binary)).get()), "\x01");
}

TEST(PropertyListUid, IsKeptInBinary)
{
    for (const std::string &value : {std::string("\x80\x07"), std::string("\x81\x01\x02"),
                                     std::string("\x83\xFF\xFF\xFF\xFF")}) {
        const auto before = ValueIn(BinaryWithValue(value));
        ASSERT_EQ(CFGetTypeID(before.get()), CF_TYPE_UID);
        EXPECT_TRUE(CFEqual(ValueIn(Rewritten(BinaryWithValue(value))).get(), before.get()));
        PropertyList list;
        ASSERT_EQ(list.Read(BinaryWithValue("\x09")), Fault::None);
        ASSERT_EQ(list.SetValue("k", before.get()), Fault::None);
        EXPECT_TRUE(CFEqual(ValueIn(Written(list)).get(), before.get()));
    }
}

TEST(PropertyListUid, BecomesTheSdksDictionaryInXml)
{
    PropertyList list;
    const CFOwned<CFTypeRef> uid(CFNew<CFUid>(70000u));
    ASSERT_EQ(list.SetValue("k", uid.get()), Fault::None);
    const auto value = ValueIn(Written(list));
    ASSERT_EQ(CFGetTypeID(value.get()), CFDictionaryGetTypeID());
    const void *number =
        CFDictionaryGetValue(static_cast<CFDictionaryRef>(value.get()), CFSTR("CF$UID"));
    EXPECT_TRUE(CFEqual(number, Signed<70000>().get()));
}

TEST(PropertyListFaultTexts, AreOnePhraseEach)
{
    for (int i = 0; i <= static_cast<int>(Fault::NoMemory); i++) {
        const std::string text = PropertyListFaultText(static_cast<Fault>(i));
        EXPECT_GT(text.size(), 5u);
        EXPECT_NE(text.back(), '.');
        for (int j = 0; j < i; j++) {
            EXPECT_NE(text, PropertyListFaultText(static_cast<Fault>(j)));
        }
    }
}

} // namespace
