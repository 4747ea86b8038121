// Tests of the rows in the table of encodings.
#include "promisedEncodings.h"

#include "encodingFigures.h"
#include "panic.h"
#include "plainLookup.h"
#include "unicode.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

namespace {

using testing::ElementsAre;

using Names = std::vector<std::string>;

Names NamesOf(const EncodingRow &row)
{
    return {std::begin(row.names), std::find(std::begin(row.names), std::end(row.names), nullptr)};
}

std::vector<EncodingRow> RowsOf(int encoding)
{
    std::vector<EncodingRow> rows;
    std::ranges::copy_if(ENCODING_ROWS, std::back_inserter(rows),
                         [=](const EncodingRow &row) { return row.encoding == encoding; });
    return rows;
}

TEST(EncodingTable, HasOneRowPerEncodingAndOneExtra)
{
    EXPECT_EQ(std::size(ENCODING_ROWS), 325u);
    for (int encoding = 0; encoding < 324; encoding++) {
        EXPECT_EQ(RowsOf(encoding).size(), encoding == 13 ? 2u : 1u) << encoding;
    }
}

TEST(EncodingTable, CountsAsItShould)
{
    const auto count = [](auto test) { return std::ranges::count_if(ENCODING_ROWS, test); };
    EXPECT_EQ(count([](const EncodingRow &row) { return row.mibEnum == -1; }), 67);
    EXPECT_EQ(count([](const EncodingRow &row) { return row.codePage == -1; }), 172);
    EXPECT_EQ(count([](const EncodingRow &row) { return row.codePage > 0; }), 153);
    EXPECT_EQ(count([](const EncodingRow &row) { return row.isSupported; }), 77);
}

TEST(EncodingTable, EveryRowPrefersOneOfItsNames)
{
    for (const EncodingRow &row : ENCODING_ROWS) {
        const auto count = static_cast<int32_t>(NamesOf(row).size());
        EXPECT_GE(row.preferredIndex, 0);
        EXPECT_LT(row.preferredIndex, count) << row.encoding;
        EXPECT_TRUE(count < 20 || row.encoding == STRING_ENCODING_UTF_16BE) << row.encoding;
    }
}

TEST(EncodingTable, ListsEveryValueOnce)
{
    ASSERT_EQ(PROMISED_ENCODINGS.size(), 324u);
    for (int value = 0; value < 324; value++) {
        EXPECT_EQ(PROMISED_ENCODINGS[value].value, value);
        EXPECT_EQ(PROMISED_ENCODINGS[value].constant, value);
    }
    EXPECT_EQ(STRING_ENCODING_UNKNOWN, -2);
    EXPECT_EQ(STRING_ENCODING_DEFAULT, -1);
    EXPECT_EQ(STRING_ENCODING_COUNT, 324);
}

// Returns the name in upper case, with one underscore for all bytes between letters and digits.
std::string ConstantName(const std::string &preferred)
{
    std::string name;
    for (const char byte : preferred) {
        if (isalnum(static_cast<unsigned char>(byte))) {
            name += static_cast<char>(toupper(static_cast<unsigned char>(byte)));
        } else if (name.back() != '_') {
            name += '_';
        }
    }
    return name.back() == '_' ? name.substr(0, name.size() - 1) : name;
}

TEST(EncodingTable, ConstantsBearTheirPreferredNamesUnlessTaken)
{
    std::set<std::string> taken;
    for (const PromisedEncoding &promised : PROMISED_ENCODINGS) {
        std::string name = ConstantName(promised.preferredName);
        if (!taken.insert(name).second) {
            name = "WINDOWS_" + std::to_string(promised.codePages.at(0));
        }
        EXPECT_EQ(promised.constantName, name);
    }
}

TEST(EncodingTable, HoldsThePromisedNamesSupportAndCodePages)
{
    for (const auto &[value, constant, constantName, preferred, isSupported, codePages] :
         PROMISED_ENCODINGS) {
        std::vector<int> found;
        for (const EncodingRow &row : RowsOf(value)) {
            EXPECT_EQ(row.isSupported, isSupported) << preferred;
            if (row.codePage != -1) { found.push_back(row.codePage); }
        }
        const EncodingRow first = RowsOf(value).front();
        EXPECT_EQ(first.names[first.preferredIndex], preferred);
        EXPECT_EQ(found, codePages) << preferred;
    }
}

struct Figures {
    int mibEnum, codePage, encoding, isSupported, preferredIndex, nameCount;
    uint64_t digest;
    bool operator==(const Figures &) const = default;
};
void PrintTo(const Figures &figures, std::ostream *out)
{
    *out << figures.encoding << ": " << figures.nameCount << " names, " << std::hex
         << figures.digest;
}

Figures FiguresOf(const EncodingRow &row)
{
    uint64_t digest = 0xcbf29ce484222325;
    for (const std::string &name : NamesOf(row)) {
        for (const char byte : name + '\n') {
            digest = (digest ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
        }
    }
    return {row.mibEnum,     row.codePage,       row.encoding,
            row.isSupported, row.preferredIndex, static_cast<int>(NamesOf(row).size()),
            digest};
}

TEST(EncodingTable, HasTheFiguresOfItsSources)
{
#define AS_FIGURES(...) Figures{__VA_ARGS__},
    const std::vector<Figures> promised = {ENCODING_FIGURES(AS_FIGURES)};
#undef AS_FIGURES
    ASSERT_EQ(std::size(ENCODING_ROWS), promised.size());
    for (size_t i = 0; i < promised.size(); i++) {
        EXPECT_EQ(FiguresOf(ENCODING_ROWS[i]), promised[i])
            << "row " << i << ", " << ENCODING_ROWS[i].names[0];
    }
}

struct FullRow {
    int mibEnum, codePage, encoding;
    bool isSupported;
    int preferredIndex;
    Names names;
};

// clang-format off
const FullRow FULL_ROWS[] = {
    {106, 65001, 0, true, 0,
     {"UTF-8", "ibm-1208", "ibm-1209", "ibm-5304", "ibm-5305", "ibm-13496", "ibm-13497",
      "ibm-17592", "ibm-17593", "cp1208"}},
    {1014, 1200, 1, true, 0,
     {"UTF-16LE", "x-utf-16le", "ibm-1202", "ibm-1203", "ibm-13490", "ibm-13491", "ibm-17586",
      "ibm-17587", "ibm-21682", "ibm-21683", "ibm-25778", "ibm-25779", "ibm-29874", "ibm-29875",
      "UTF16_LittleEndian", "UnicodeLittleUnmarked"}},
    {1013, 1201, 2, true, 0,
     {"UTF-16BE", "x-utf-16be", "ibm-1200", "ibm-1201", "ibm-13488", "ibm-13489", "ibm-17584",
      "ibm-17585", "ibm-21680", "ibm-21681", "ibm-25776", "ibm-25777", "ibm-29872", "ibm-29873",
      "ibm-61955", "ibm-61956", "cp1200", "cp1201", "UTF16_BigEndian", "UnicodeBigUnmarked"}},
    {1015, -1, 3, true, 0, {"UTF-16"}},
    {1019, 12000, 4, true, 0, {"UTF-32LE", "UTF32_LittleEndian", "ibm-1234", "ibm-1235"}},
    {1018, 12001, 5, true, 0, {"UTF-32BE", "UTF32_BigEndian", "ibm-1232", "ibm-1233", "ibm-9424"}},
    {1017, -1, 6, true, 0, {"UTF-32"}},
    {3, 20127, 7, true, 4,
     {"ANSI_X3.4-1968", "iso-ir-6", "ANSI_X3.4-1986", "ISO_646.irv:1991", "ASCII", "ISO646-US",
      "US-ASCII", "us", "IBM367", "cp367", "csASCII", "646", "ascii7"}},
    {4, 28591, 8, true, 3,
     {"ISO_8859-1:1987", "iso-ir-100", "ISO_8859-1", "ISO-8859-1", "latin1", "l1", "IBM819",
      "CP819", "csISOLatin1", "8859_1", "819"}},
    {2252, 1252, 35, true, 0,
     {"windows-1252", "ibm-5348_P100-1997", "ibm-5348", "cp1252", "ibm-1252_P100-2000",
      "ibm-1252"}},
    {17, 932, 27, true, 0,
     {"Shift_JIS", "MS_Kanji", "csShiftJIS", "ibm-943_P15A-2003", "ibm-943", "x-sjis", "x-ms-cp932",
      "cp932", "cp943c", "IBM-943C", "ms932", "pck", "sjis", "ibm-943_VSUB_VPUA"}},
    {18, 20932, 28, false, 2,
     {"Extended_UNIX_Code_Packed_Format_for_Japanese", "csEUCPkdFmtJapanese", "EUC-JP",
      "ibm-954_P101-2007", "ibm-954", "X-EUC-JP", "eucjis", "ujis"}},
    {9, 708, 13, true, 0, {"ASMO-708"}},
};
// clang-format on

TEST(EncodingTable, HoldsTheseRowsExactly)
{
    for (const FullRow &full : FULL_ROWS) {
        const EncodingRow row = RowsOf(full.encoding).back();
        EXPECT_EQ(row.mibEnum, full.mibEnum) << full.encoding;
        EXPECT_EQ(row.codePage, full.codePage) << full.encoding;
        EXPECT_EQ(row.isSupported, full.isSupported) << full.encoding;
        EXPECT_EQ(row.preferredIndex, full.preferredIndex) << full.encoding;
        EXPECT_EQ(NamesOf(row), full.names);
    }
}

TEST(EncodingTable, HoldsIso8859_6sMainRow)
{
    const EncodingRow row = RowsOf(13).front();
    EXPECT_EQ(row.mibEnum, 9);
    EXPECT_EQ(row.codePage, 28596);
    EXPECT_EQ(NamesOf(row).size(), 13u);
    EXPECT_STREQ(row.names[row.preferredIndex], "ISO-8859-6");
}

TEST(EncodingTable, BeginsWithAsciiAndTheIso8859s)
{
    Names first;
    for (size_t i = 0; i < 13; i++) {
        first.emplace_back(ENCODING_ROWS[i].names[ENCODING_ROWS[i].preferredIndex]);
    }
    EXPECT_THAT(first, ElementsAre("ASCII", "ISO-8859-1", "ISO-8859-2", "ISO-8859-3", "ISO-8859-4",
                                   "ISO-8859-5", "ISO-8859-6", "ASMO-708", "ISO-8859-7",
                                   "ibm-813_P100-1995", "ISO-8859-8", "ISO-8859-9", "ISO-8859-10"));
}

TEST(EncodingTable, EndsWithTheEncodingsThatOnlyWindowsNumbers)
{
    for (int i = 0; i < 61; i++) {
        const EncodingRow &row = ENCODING_ROWS[325 - 61 + i];
        EXPECT_EQ(row.encoding, 254 + i);
        EXPECT_EQ(row.mibEnum, -1);
    }
}

TEST(EncodingTable, IsSortedByMibEnumExceptTwoRows)
{
    int last = 0;
    std::vector<std::pair<int, int>> late; // and the number before each
    for (const EncodingRow &row : ENCODING_ROWS) {
        if (row.mibEnum == -1) { continue; }
        if (row.mibEnum < last) {
            late.emplace_back(row.mibEnum, last);
        } else {
            last = row.mibEnum;
        }
    }
    EXPECT_THAT(late, ElementsAre(std::pair(2011, 2043), std::pair(2010, 2045)));
}

TEST(EncodingTable, SixRowsWithoutMibEnumFollowTheirCharset)
{
    std::vector<std::pair<int, int>> found; // and the encoding before each
    for (size_t i = 1; i < 325 - 61; i++) {
        if (ENCODING_ROWS[i].mibEnum == -1) {
            found.emplace_back(ENCODING_ROWS[i].encoding, ENCODING_ROWS[i - 1].encoding);
        }
    }
    EXPECT_THAT(found, ElementsAre(std::pair(315, 14), std::pair(316, 27), std::pair(319, 318),
                                   std::pair(30, 29), std::pair(320, 24), std::pair(322, 23)));
}

// The names that several rows have, and these rows' encodings in the order of the table.
using SharedNames = std::map<std::string, std::vector<int>>;
template <typename Form> SharedNames FindShared(Form form)
{
    std::map<std::string, std::vector<int>> rows;
    for (const auto &[name, row] : PlainNames()) {
        std::vector<int> &its = rows[form(name)];
        if (its.empty() || its.back() != row) { its.push_back(row); }
    }
    SharedNames shared;
    for (const auto &[name, its] : rows) {
        if (its.size() == 1) { continue; }
        for (const int row : its) {
            shared[name].push_back(ENCODING_ROWS[row].encoding);
        }
    }
    return shared;
}

const SharedNames SHARED_NAMES{{"ASMO-708", {13, 13}},
                               {"KS_C_5601-1987", {62, 318}},
                               {"KSC_5601", {62, 318}},
                               {"5601", {62, 319}},
                               {"ISO-2022-JP", {29, 294}},
                               {"csISO2022JP", {29, 293}},
                               {"TIS-620", {323, 253}},
                               {"EUC-CN", {25, 303}},
                               {"ibm-284_P100-1995", {181, 182}},
                               {"cpibm284", {181, 182}},
                               {"284", {181, 182}}};

TEST(EncodingTable, SharesTheseNamesAndNoOthers)
{
    EXPECT_EQ(FindShared([](const std::string &name) { return name; }), SHARED_NAMES);
}

TEST(EncodingTable, SharesFourMoreOnceNormalized)
{
    SharedNames all{{"isoir91", {59, 89}},
                    {"isoir92", {60, 90}},
                    {"asmo449", {87, 254}},
                    {"iso88598i", {107, 292}}};
    for (const auto &[name, encodings] : SHARED_NAMES) {
        all[PlainNormalized(name)] = encodings;
    }
    EXPECT_EQ(FindShared(PlainNormalized), all);
}

} // namespace
