// Tests of which property lists are refused, and that a refusal loses nothing.
#include "propertyListForTests.h"

#include "cfTypes.h"
#include "propertyLists.h"

#include <cmath>

namespace {

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

// Ten entities, each of which is ten times as long as the entity before it.
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

// Returns a whole list with one byte changed, which is counted from the list's end.
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

} // namespace
