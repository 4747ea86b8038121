// What is read from a property list, what is refused, and that nothing is lost on the way back.
#include "propertyList.h"

#include "cfTypes.h"
#include "propertyLists.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <thread>

using namespace pelago::platform;

// How GoogleTest shows a fault.
void PrintTo(PropertyListFault fault, std::ostream *out);
void PrintTo(PropertyListFault fault, std::ostream *out) { *out << PropertyListFaultText(fault); }

namespace {

using Fault = PropertyListFault;

Fault FaultOf(std::string_view bytes) { return PropertyList().Read(bytes); }

CFOwned<CFTypeRef> ValueIn(std::string_view bytes, const char *key = "k")
{
    PropertyList list;
    EXPECT_EQ(list.Read(bytes), Fault::None);
    return CFOwned<CFTypeRef>(list.CopyValue(key));
}

std::string Written(const PropertyList &list)
{
    std::string bytes;
    EXPECT_EQ(list.Write(&bytes), Fault::None);
    return bytes;
}

// The list that comes of reading the bytes and writing them again.
std::string Rewritten(std::string_view bytes)
{
    PropertyList list;
    EXPECT_EQ(list.Read(bytes), Fault::None);
    return Written(list);
}

// All values, as they are in the file that the list becomes.
CFOwned<CFDictionaryRef> Values(const PropertyList &list)
{
    CFTypeRef object = nullptr;
    bool isBinary = false;
    EXPECT_EQ(PropertyListCopyObject(Written(list), &object, &isBinary), Fault::None);
    EXPECT_EQ(isBinary, list.IsBinary());
    return CFOwned<CFDictionaryRef>(static_cast<CFDictionaryRef>(object));
}

std::string TextOf(CFTypeRef object)
{
    if (object == nullptr || CFGetTypeID(object) != CFStringGetTypeID()) { return "(no string)"; }
    return static_cast<CFStringRef>(object)->mText;
}

/* What is refused */

struct FaultCase {
    const char *name;
    std::string bytes;
    Fault fault;
};
class PropertyListFaults : public testing::TestWithParam<FaultCase> {};

TEST_P(PropertyListFaults, AreFoundBeforeAnythingIsLost)
{
    PropertyList list;
    ASSERT_EQ(list.Read(XmlWithValue("<string>before</string>")), Fault::None);
    EXPECT_EQ(list.Read(GetParam().bytes), GetParam().fault);
    EXPECT_EQ(TextOf(CFOwned<CFTypeRef>(list.CopyValue("k")).get()), "before");
}

std::string Cut(const std::string &bytes, size_t fromEnd)
{
    return bytes.substr(0, bytes.size() - fromEnd);
}

// Ten entities, each ten times the one before.
std::string EntitiesThatMultiply()
{
    std::string subset = "<!ENTITY e0 'x'>";
    for (int i = 1; i <= 9; i++) {
        const std::string before = "&e" + std::to_string(i - 1) + ";";
        subset += "<!ENTITY e" + std::to_string(i) + " '" + Repeat(before, 10) + "'>";
    }
    return "<!DOCTYPE plist [" + subset + "]>" + XmlWithValue("<string>&e9;</string>");
}

const std::string XML_DECLARATION = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

INSTANTIATE_TEST_SUITE_P(
    Files, PropertyListFaults,
    testing::Values(
        FaultCase{"Nothing", "", Fault::Empty}, FaultCase{"Blanks", " \n\t ", Fault::Malformed},
        FaultCase{"Junk", "these are not preferences", Fault::Malformed},
        FaultCase{"Zeros", std::string(100, '\0'), Fault::Malformed},
        FaultCase{"TextForm", "{ EnabledServices = (disk); }", Fault::Malformed},
        FaultCase{"Json", "{\"EnabledServices\": [\"disk\"]}", Fault::Malformed},
        FaultCase{"TooLarge", std::string(PROPERTY_LIST_MAX_BYTES + 1, ' '), Fault::TooLarge},
        FaultCase{"ArrayRoot", "<plist><array/></plist>", Fault::NotADictionary},
        FaultCase{"StringRoot", "<string>x</string>", Fault::NotADictionary},
        FaultCase{"BinaryArrayRoot", BinaryList({BinaryArray({})}), Fault::NotADictionary},
        FaultCase{"Utf16", std::string("\xFF\xFE<\0p\0", 6), Fault::Malformed},
        FaultCase{"NotUtf8", XmlWithValue("<string>\xE4</string>"), Fault::Encoding},
        FaultCase{"Latin1", "<?xml version='1.0' encoding='ISO-8859-1'?><dict/>", Fault::Encoding},
        FaultCase{"EncodingCutShort", "<?xml encoding=\"utf-8?><dict/>", Fault::Malformed},
        FaultCase{"DeclarationWithoutVersion", "<?xml encoding='utf-8'?><dict/>", Fault::Malformed},
        FaultCase{"OtherVersion", "bplist01" + BinaryWithValue("\x09").substr(8),
                  Fault::Malformed}),
    [](const auto &row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    XmlGrammar, PropertyListFaults,
    testing::Values(
        FaultCase{"Truncated", Cut(XmlWithValue("<true/>"), 1), Fault::Malformed},
        FaultCase{"TruncatedInText", "<dict><key>k</key><string>te", Fault::Malformed},
        FaultCase{"TruncatedInTag", "<dict><key>k</key><str", Fault::Malformed},
        FaultCase{"TextBehind", "<dict/>junk", Fault::Malformed},
        FaultCase{"SecondRoot", "<plist><dict/><dict/></plist>", Fault::Malformed},
        FaultCase{"SecondPlist", "<plist><dict/></plist><plist><dict/></plist>", Fault::Malformed},
        FaultCase{"NoRoot", "<plist></plist>", Fault::Malformed},
        FaultCase{"NoRootAtAll", "<plist/>", Fault::Malformed},
        FaultCase{"PlistInPlist", "<plist><plist><dict/></plist></plist>", Fault::Malformed},
        FaultCase{"TextInPlist", "<plist>x<dict/></plist>", Fault::Malformed},
        FaultCase{"TextInDict", "<dict>x</dict>", Fault::Malformed},
        FaultCase{"TextInArray", XmlWithValue("<array>x</array>"), Fault::Malformed},
        FaultCase{"KeyWithoutValue", "<dict><key>k</key></dict>", Fault::Malformed},
        FaultCase{"ValueWithoutKey", "<dict><string>x</string></dict>", Fault::Malformed},
        FaultCase{"TwoKeys", "<dict><key>a</key><key>b</key></dict>", Fault::Malformed},
        FaultCase{"TwoValues", XmlWithValue("<true/><true/>"), Fault::Malformed},
        FaultCase{"KeyInArray", XmlWithValue("<array><key>a</key></array>"), Fault::Malformed},
        FaultCase{"KeyAsRoot", "<key>a</key>", Fault::Malformed},
        FaultCase{"WrongEnd", XmlWithValue("<array></dict>"), Fault::Malformed},
        FaultCase{"WrongLeafEnd", XmlWithValue("<string>x</key>"), Fault::Malformed},
        FaultCase{"LoneEnd", "</dict>", Fault::Malformed},
        FaultCase{"ElementInText", XmlWithValue("<string><b/></string>"), Fault::Malformed},
        FaultCase{"UnknownElement", XmlWithValue("<set/>"), Fault::Malformed},
        FaultCase{"OtherCase", "<Dict/>", Fault::Malformed},
        FaultCase{"Attribute", XmlWithValue("<string a='b'>x</string>"), Fault::Malformed},
        FaultCase{"AttributeOfADictionary", "<dict a='b'/>", Fault::Malformed},
        FaultCase{"AttributeTwice", "<plist a='1' a='2'><dict/></plist>", Fault::Malformed},
        FaultCase{"Prefix", "<a:dict xmlns:a='b'/>", Fault::Malformed},
        FaultCase{"EndTagWhole", "<dict></dict/>", Fault::Malformed},
        FaultCase{"BlankInTheTag", "<dict/ >", Fault::Malformed},
        FaultCase{"Instruction", "<dict><?x?></dict>", Fault::Malformed},
        FaultCase{"InstructionInFront", "<?x?><dict/>", Fault::Malformed},
        FaultCase{"InstructionBehind", "<dict/><?x?>", Fault::Malformed},
        FaultCase{"DeclarationTwice", XML_DECLARATION + XML_DECLARATION + "<dict/>",
                  Fault::Malformed},
        FaultCase{"DeclarationHidesATag", "<?xml version=\"<dict>\"?><dict/>", Fault::Malformed},
        FaultCase{"InternalSubset", "<!DOCTYPE plist [<!ENTITY a 'b'>]><dict/>", Fault::Malformed},
        FaultCase{"EntityOfAnInternalSubset",
                  "<!DOCTYPE plist [<!ENTITY a 'b'>]>" + XmlWithValue("<string>&a;</string>"),
                  Fault::Malformed},
        FaultCase{"EntitiesThatMultiply", EntitiesThatMultiply(), Fault::Malformed},
        FaultCase{"EntityOfAFile",
                  "<!DOCTYPE plist [<!ENTITY a SYSTEM '/etc/passwd'>]>" +
                      XmlWithValue("<string>&a;</string>"),
                  Fault::Malformed},
        FaultCase{"ParameterEntity", "<!DOCTYPE plist [<!ENTITY % a SYSTEM 'b'> %a;]><dict/>",
                  Fault::Malformed},
        FaultCase{"EmptyInternalSubset", "<!DOCTYPE plist []><dict/>", Fault::Malformed},
        FaultCase{"EntityOfAnotherFile",
                  "<!DOCTYPE plist SYSTEM 'a.dtd'>" + XmlWithValue("<string>&a;</string>"),
                  Fault::Malformed},
        FaultCase{"EntityBetweenValues", "<!DOCTYPE plist SYSTEM 'a.dtd'><dict>&a;</dict>",
                  Fault::Malformed},
        FaultCase{"DoctypeTwice", "<!DOCTYPE plist><!DOCTYPE plist><dict/>", Fault::Malformed},
        FaultCase{"DoctypeHidesATag", "<!DOCTYPE plist '<dict>'><dict/>", Fault::Malformed},
        FaultCase{"DoctypeHidesItsEnd", "<!DOCTYPE plist '>'><dict/>", Fault::Malformed},
        FaultCase{"CommentNeverEnds", "<!-- <dict/>", Fault::Malformed},
        FaultCase{"CommentWithDashes", "<!-- a -- b --><dict/>", Fault::Malformed},
        FaultCase{"CdataNeverEnds", XmlWithValue("<string><![CDATA[</string>"), Fault::Malformed}),
    [](const auto &row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    XmlValues, PropertyListFaults,
    testing::Values(
        FaultCase{"BareAmpersand", XmlWithValue("<string>a & b</string>"), Fault::Malformed},
        FaultCase{"UnknownEntity", XmlWithValue("<string>&nbsp;</string>"), Fault::Malformed},
        FaultCase{"EntityCutShort", XmlWithValue("<string>&amp</string>"), Fault::Malformed},
        FaultCase{"ReferenceToNul", XmlWithValue("<string>&#0;</string>"), Fault::Malformed},
        FaultCase{"ReferenceToSurrogate", XmlWithValue("<string>&#xD800;</string>"),
                  Fault::Malformed},
        FaultCase{"ReferenceTooHigh", XmlWithValue("<string>&#x110000;</string>"),
                  Fault::Malformed},
        FaultCase{"ReferenceEmpty", XmlWithValue("<string>&#;</string>"), Fault::Malformed},
        FaultCase{"ReferenceNoNumber", XmlWithValue("<string>&#1a;</string>"), Fault::Malformed},
        FaultCase{"ReferenceToAControl", XmlWithValue("<string>&#1;</string>"), Fault::Malformed},
        FaultCase{"ControlInText", XmlWithValue("<string>\x01</string>"), Fault::Malformed},
        FaultCase{"NoCharacter", XmlWithValue("<string>\xEF\xBF\xBF</string>"), Fault::Malformed},
        FaultCase{"EndOfCdataInText", XmlWithValue("<string>]]></string>"), Fault::Malformed},
        FaultCase{"NulInText", XmlWithValue(std::string("<string>a\0b</string>", 20)),
                  Fault::Malformed},
        FaultCase{"IntegerWithLetters", XmlWithValue("<integer>12x</integer>"), Fault::Malformed},
        FaultCase{"IntegerEmpty", XmlWithValue("<integer></integer>"), Fault::Malformed},
        FaultCase{"IntegerWhole", XmlWithValue("<integer/>"), Fault::Malformed},
        FaultCase{"IntegerLikeOctal", XmlWithValue("<integer>010</integer>"), Fault::Malformed},
        FaultCase{"IntegerSigns", XmlWithValue("<integer>-+1</integer>"), Fault::Malformed},
        FaultCase{"IntegerTooLarge", XmlWithValue("<integer>18446744073709551616</integer>"),
                  Fault::Malformed},
        FaultCase{"IntegerTooSmall", XmlWithValue("<integer>-9223372036854775809</integer>"),
                  Fault::Malformed},
        FaultCase{"IntegerHexEmpty", XmlWithValue("<integer>0x</integer>"), Fault::Malformed},
        FaultCase{"RealWithComma", XmlWithValue("<real>1,5</real>"), Fault::Malformed},
        FaultCase{"RealEmpty", XmlWithValue("<real></real>"), Fault::Malformed},
        FaultCase{"RealPoint", XmlWithValue("<real>.</real>"), Fault::Malformed},
        FaultCase{"RealExponent", XmlWithValue("<real>1e</real>"), Fault::Malformed},
        FaultCase{"RealSigns", XmlWithValue("<real>+-1</real>"), Fault::Malformed},
        FaultCase{"RealNanWithText", XmlWithValue("<real>nan(1)</real>"), Fault::Malformed},
        FaultCase{"RealTooLarge", XmlWithValue("<real>1e309</real>"), Fault::Malformed},
        FaultCase{"RealTooSmall", XmlWithValue("<real>-1e-330</real>"), Fault::Malformed},
        FaultCase{"RealHex", XmlWithValue("<real>0x1p3</real>"), Fault::Malformed},
        FaultCase{"DateOnly", XmlWithValue("<date>2020-01-01</date>"), Fault::Malformed},
        FaultCase{"DateEmpty", XmlWithValue("<date/>"), Fault::Malformed},
        FaultCase{"DateShortYear", XmlWithValue("<date>500-01-01T00:00:00Z</date>"),
                  Fault::Malformed},
        FaultCase{"DateNoSuchDay", XmlWithValue("<date>2021-02-29T00:00:00Z</date>"),
                  Fault::Malformed},
        FaultCase{"DateNoSuchMonth", XmlWithValue("<date>2021-13-01T00:00:00Z</date>"),
                  Fault::Malformed},
        FaultCase{"DateNoSuchHour", XmlWithValue("<date>2021-01-01T24:00:00Z</date>"),
                  Fault::Malformed},
        FaultCase{"DateLeapSecond", XmlWithValue("<date>2016-12-31T23:59:60Z</date>"),
                  Fault::Malformed},
        FaultCase{"DateCentury", XmlWithValue("<date>1900-02-29T00:00:00Z</date>"),
                  Fault::Malformed},
        FaultCase{"DateFraction", XmlWithValue("<date>2001-01-01T00:00:00.5Z</date>"),
                  Fault::Malformed},
        FaultCase{"DataCutShort", XmlWithValue("<data>AAE</data>"), Fault::Malformed},
        FaultCase{"DataWithJunk", XmlWithValue("<data>A*AE</data>"), Fault::Malformed},
        FaultCase{"DataBehindPadding", XmlWithValue("<data>AA==AAEC</data>"), Fault::Malformed},
        FaultCase{"DataAllPadding", XmlWithValue("<data>A===</data>"), Fault::Malformed},
        FaultCase{"BooleanWithText", XmlWithValue("<true>x</true>"), Fault::Malformed}),
    [](const auto &row) { return row.param.name; });

// A whole list with one byte changed, counted from its end.
std::string WithTrailerByte(size_t fromEnd, char value)
{
    std::string bytes = BinaryWithValue("\x09");
    bytes[bytes.size() - fromEnd] = value;
    return bytes;
}

INSTANTIATE_TEST_SUITE_P(
    Binary, PropertyListFaults,
    testing::Values(
        FaultCase{"MagicOnly", "bplist00", Fault::Malformed},
        FaultCase{"Truncated", Cut(BinaryWithValue("\x09"), 1), Fault::Malformed},
        FaultCase{"BytesBehind", BinaryWithValue("\x09") + "x", Fault::Malformed},
        FaultCase{"OffsetWidthZero", WithTrailerByte(26, 0), Fault::Malformed},
        FaultCase{"OffsetWidthNine", WithTrailerByte(26, 9), Fault::Malformed},
        FaultCase{"ReferenceWidthZero", WithTrailerByte(25, 0), Fault::Malformed},
        FaultCase{"ReferenceWidthNine", WithTrailerByte(25, 9), Fault::Malformed},
        FaultCase{"NoObjects", WithTrailerByte(17, 0), Fault::Malformed},
        FaultCase{"MoreObjects", WithTrailerByte(17, 4), Fault::Malformed},
        FaultCase{"ObjectsWithoutEnd", WithTrailerByte(24, '\x7F'), Fault::Malformed},
        FaultCase{"RootOutside", WithTrailerByte(9, 3), Fault::Malformed},
        FaultCase{"TableOutside", WithTrailerByte(8, 1), Fault::Malformed},
        FaultCase{"TableAtTheMagic", WithTrailerByte(1, 8), Fault::Malformed},
        FaultCase{"ReferenceOutside", BinaryWithValue(BinaryArray({3})), Fault::Malformed},
        FaultCase{"ContainsItself", BinaryWithValue(BinaryArray({2})), Fault::Malformed},
        FaultCase{"ContainsItsParent", BinaryWithValue(BinaryArray({0})), Fault::Malformed},
        FaultCase{"KeyIsNoString", BinaryList({BinaryDict({1, 1}), "\x09"}), Fault::Malformed},
        FaultCase{"Null", BinaryWithValue(std::string(1, '\0')), Fault::Malformed},
        FaultCase{"Fill", BinaryWithValue("\x0F"), Fault::Malformed},
        FaultCase{"Set", BinaryWithValue("\xC0"), Fault::Malformed},
        FaultCase{"UnknownMarker", BinaryWithValue("\x70"), Fault::Malformed},
        FaultCase{"RealOfTwoBytes", BinaryWithValue("\x21zz"), Fault::Malformed},
        FaultCase{"DateOfFourBytes", BinaryWithValue("\x32zzzz"), Fault::Malformed},
        FaultCase{"UidOfFiveBytes", BinaryWithValue("\x84zzzzz"), Fault::Malformed},
        FaultCase{"StringTooLong", BinaryWithValue("\x5F\x11\x01\x01x"), Fault::Malformed},
        FaultCase{"ArrayTooLong", BinaryWithValue("\xAF\x13\x40" + std::string(7, '\0')),
                  Fault::Malformed},
        FaultCase{"CountIsNoInteger", BinaryWithValue("\x4F\x23zzzzzzzz"), Fault::Malformed},
        FaultCase{"CountOfSixteenBytes", BinaryWithValue("\x4F\x14" + std::string(16, '\0')),
                  Fault::Malformed},
        FaultCase{"RootKeyTwice",
                  BinaryList({BinaryDict({1, 1, 2, 3}), BinaryAscii("k"), "\x08", "\x09"}),
                  Fault::NotRepresentable},
        FaultCase{"KeyTwiceInAValue",
                  BinaryWithValue(BinaryDict({3, 3, 4, 5}), {BinaryAscii("a"), "\x08", "\x09"}),
                  Fault::NotRepresentable},
        FaultCase{"NulInString",
                  BinaryWithValue(std::string("\x53"
                                              "a\0b",
                                              4)),
                  Fault::NotRepresentable},
        FaultCase{"AsciiIsNot", BinaryWithValue("\x51\xE4"), Fault::NotRepresentable},
        FaultCase{"NulInUtf16",
                  BinaryWithValue(std::string("\x62"
                                              "\0a\0\0",
                                              5)),
                  Fault::NotRepresentable},
        FaultCase{"LoneHighSurrogate", BinaryWithValue(std::string("\x62\xD8\x3D\0a", 5)),
                  Fault::NotRepresentable},
        FaultCase{"HighSurrogateAtEnd", BinaryWithValue("\x61\xD8\x3D"), Fault::NotRepresentable},
        FaultCase{"LoneLowSurrogate", BinaryWithValue(std::string("\x61\xDE\0", 3)),
                  Fault::NotRepresentable},
        FaultCase{"IntegerOf65Bits",
                  BinaryWithValue(std::string("\x14\0\0\0\0\0\0\0\1", 9) + std::string(8, '\0')),
                  Fault::NotRepresentable}),
    [](const auto &row) { return row.param.name; });

/* Limits */

TEST(PropertyListLimits, HoldForTheNesting)
{
    constexpr size_t ARRAYS = PROPERTY_LIST_MAX_DEPTH - 1; // the root is a level too
    EXPECT_EQ(FaultOf(DeepXml(ARRAYS)), Fault::None);
    EXPECT_EQ(FaultOf(DeepXml(ARRAYS + 1)), Fault::TooDeep);
    EXPECT_EQ(FaultOf(DeepXml(1000000)), Fault::TooDeep);
    EXPECT_EQ(FaultOf("<plist>" + DeepXml(ARRAYS) + "</plist>"), Fault::None);
    EXPECT_EQ(FaultOf("<plist>" + DeepXml(ARRAYS + 1) + "</plist>"), Fault::TooDeep);
    EXPECT_EQ(FaultOf(Rewritten(DeepXml(ARRAYS))), Fault::None);
    EXPECT_EQ(FaultOf(DeepBinary(ARRAYS)), Fault::None);
    EXPECT_EQ(FaultOf(DeepBinary(ARRAYS + 1)), Fault::TooDeep);
    EXPECT_EQ(FaultOf(DeepBinary(30000)), Fault::TooDeep);
}

// A branch that was measured near the root, and then hangs at the end of a long one.
TEST(PropertyListLimits, HoldForANestingThatIsReachedTwice)
{
    constexpr size_t HALF = PROPERTY_LIST_MAX_DEPTH / 2 + 10;
    std::vector<std::string> objects = {BinaryDict({1, 2, 3, 3 + HALF}), BinaryAscii("a"),
                                        BinaryAscii("b")};
    for (size_t i = 0; i < 2 * HALF; i++) {
        const size_t own = 3 + i;
        if (i + 1 == HALF) {
            objects.push_back(BinaryArray({}));
        } else {
            objects.push_back(BinaryArray({i + 1 == 2 * HALF ? 3 : own + 1}));
        }
    }
    EXPECT_EQ(FaultOf(BinaryList(objects)), Fault::TooDeep);
}

TEST(PropertyListLimits, HoldForReferencesThatMultiply)
{
    const std::string list = SelfMultiplyingBinary();
    EXPECT_LT(list.size(), 1000u);
    EXPECT_EQ(FaultOf(list), Fault::TooManyValues);
}

TEST(PropertyListLimits, HoldForBytesThatMultiply)
{
    constexpr size_t SIZE = 1 << 20;
    const std::vector<size_t> items(PROPERTY_LIST_MAX_EXPANDED_BYTES / SIZE + 1, 3);
    const std::string block = BinaryAscii(std::string(SIZE, 'x'));
    EXPECT_EQ(FaultOf(BinaryWithValue(BinaryArray(items), {block})), Fault::TooLarge);
}

TEST(PropertyListLimits, HoldForTheNumberOfValues)
{
    const std::string xml =
        "<array>" + Repeat("<true/>", PROPERTY_LIST_MAX_XML_VALUES) + "</array>";
    EXPECT_EQ(FaultOf(XmlWithValue(xml)), Fault::TooManyValues);
    const std::vector<size_t> items(PROPERTY_LIST_MAX_BINARY_VALUES, 1);
    EXPECT_EQ(FaultOf(BinaryWithValue(BinaryArray(items))), Fault::TooManyValues);
}

TEST(PropertyListLimits, AreTheSameForWriting)
{
    CFOwned<CFMutableArrayRef> deep(CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
    for (size_t i = 0; i + 1 < PROPERTY_LIST_MAX_DEPTH; i++) {
        CFOwned<CFMutableArrayRef> outer(CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
        CFArrayAppendValue(outer.get(), deep.get());
        deep = std::move(outer);
    }
    PropertyList list;
    EXPECT_EQ(list.SetValue("k", deep.get()), Fault::None);
    std::string bytes;
    EXPECT_EQ(list.Write(&bytes), Fault::TooDeep) << "with the dictionary it is one too many";
    const CFOwned<CFStringRef> large(
        CFStringCreateWithText(std::string(PROPERTY_LIST_MAX_BYTES, 'x')));
    EXPECT_EQ(list.SetValue("k", large.get()), Fault::None);
    EXPECT_EQ(list.Write(&bytes), Fault::TooLarge);
}

TEST(PropertyListLimits, AnArrayInItselfIsRefused)
{
    CFOwned<CFMutableArrayRef> array(CFArrayCreateMutable(nullptr, 0, nullptr));
    CFArrayAppendValue(array.get(), array.get());
    EXPECT_EQ(PropertyList().SetValue("k", array.get()), Fault::TooDeep);
    for (int i = 0; i < 9; i++) {
        CFArrayAppendValue(array.get(), array.get());
    }
    EXPECT_EQ(PropertyList().SetValue("k", array.get()), Fault::TooDeep);
}

struct LargeCase {
    const char *name;
    std::string (*make)();
};
class PropertyListLarge : public testing::TestWithParam<LargeCase> {};

TEST_P(PropertyListLarge, IsReadAndWritten)
{
    const std::string bytes = GetParam().make();
    PropertyList list;
    ASSERT_EQ(list.Read(bytes), Fault::None);
    ASSERT_EQ(list.SetValue("added", kCFBooleanTrue), Fault::None);
    const std::string written = Written(list);
    EXPECT_EQ(ValueIn(written, "added").get(), kCFBooleanTrue);
}

std::string LargeXmlArray()
{
    std::string items;
    for (int i = 0; i < 300000; i++) {
        items += "<integer>" + std::to_string(i) + "</integer>";
    }
    return XmlWithValue("<array>" + items + "</array>");
}
std::string LargeXmlDictionary()
{
    std::string pairs;
    for (int i = 0; i < 200000; i++) {
        pairs += "<key>key " + std::to_string(i) + "</key><string>value</string>";
    }
    return "<dict>" + pairs + "</dict>";
}
std::string LargeXmlText()
{
    return XmlWithValue("<string>" + std::string(10000000, 'x') + "</string>");
}
std::string LargeBinaryText() { return BinaryWithValue(BinaryAscii(std::string(10000000, 'x'))); }
std::string LargeBinaryArray()
{
    std::vector<size_t> items;
    std::vector<std::string> strings;
    for (size_t i = 0; i + 10 < PROPERTY_LIST_MAX_BINARY_VALUES; i++) {
        items.push_back(3 + i);
        strings.push_back(
            BinaryAscii("a value of fifty bytes, and here " + std::to_string(1000000000 + i)));
    }
    return BinaryWithValue(BinaryArray(items), strings);
}
std::string LargeBinaryDictionary()
{
    std::vector<size_t> keys, values;
    std::vector<std::string> objects = {""};
    for (size_t i = 0; i < PROPERTY_LIST_MAX_BINARY_VALUES / 2 - 10; i++) {
        keys.push_back(objects.size());
        objects.push_back(BinaryAscii("key " + std::to_string(i)));
        values.push_back(1);
    }
    keys.insert(keys.end(), values.begin(), values.end());
    objects[0] = BinaryDict(keys);
    return BinaryList(objects);
}
INSTANTIATE_TEST_SUITE_P(Files, PropertyListLarge,
                         testing::Values(LargeCase{"XmlArray", LargeXmlArray},
                                         LargeCase{"XmlDictionary", LargeXmlDictionary},
                                         LargeCase{"XmlText", LargeXmlText},
                                         LargeCase{"BinaryText", LargeBinaryText},
                                         LargeCase{"BinaryArray", LargeBinaryArray},
                                         LargeCase{"BinaryDictionary", LargeBinaryDictionary}),
                         [](const auto &row) { return row.param.name; });

// At the limit of the nesting, on a stack as small as threads are given.
TEST(PropertyListLimits, AreSafeOnASmallStack)
{
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 512 << 10), 0);
    const auto work = [](void *) -> void * {
        for (const std::string &bytes :
             {DeepXml(PROPERTY_LIST_MAX_DEPTH - 1), DeepBinary(PROPERTY_LIST_MAX_DEPTH - 1)}) {
            PropertyList list;
            std::string written;
            if (list.Read(bytes) != Fault::None || list.Write(&written) != Fault::None) {
                return nullptr;
            }
            if (!CFEqual(Values(list).get(), Values(list).get())) { return nullptr; }
        }
        return const_cast<char *>("done");
    };
    pthread_t thread;
    void *result = nullptr;
    ASSERT_EQ(pthread_create(&thread, &attributes, work, nullptr), 0);
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_NE(result, nullptr);
    pthread_attr_destroy(&attributes);
}

/* What is accepted */

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
    // The same value, set: it must come back from both formats.
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

// What is shared in a file stays shared in the next one, however often it is referred to.
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
