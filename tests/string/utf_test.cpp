// utf_test.cpp -- tests the conversions between UTF-8, UTF-16 and UTF-32.
#include "utf.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

using namespace pelago;

namespace {

using Bytes = std::vector<uint8_t>;
using Units = std::vector<uint16_t>;
using Values = std::vector<uint32_t>;

template <typename From, typename To>
using Converter = UtfResult (*)(const From **, const From *, To **, To *, bool);

constexpr uint32_t LARGEST = 0x10FFFF;
constexpr bool STRICT = false, LENIENT = true;

template <typename To> struct Outcome {
    UtfResult result;
    size_t read; // units of the source that were converted
    std::vector<To> written;

    bool operator==(const Outcome &) const = default;
};

template <typename To> std::ostream &operator<<(std::ostream &stream, const Outcome<To> &outcome)
{
    stream << "result " << static_cast<int>(outcome.result) << ", read " << outcome.read
           << ", written" << std::hex;
    for (const To unit : outcome.written) {
        stream << ' ' << static_cast<uint32_t>(unit);
    }
    return stream << std::dec;
}

// Converts into exactly this much room.  The units after the cursor must be unchanged.
template <typename From, typename To>
Outcome<To> Convert(Converter<From, To> converter, const std::vector<From> &source, bool lenient,
                    size_t room = 64)
{
    constexpr To UNTOUCHED = static_cast<To>(0xA5A5A5A5);
    std::vector<To> target(room, UNTOUCHED);
    const From *from = source.data();
    To *to = target.data();
    const UtfResult result =
        converter(&from, from + source.size(), &to, target.data() + room, lenient);
    const size_t written = static_cast<size_t>(to - target.data());
    for (size_t i = written; i < room; i++) {
        EXPECT_EQ(target[i], UNTOUCHED) << "written beyond the cursor, at " << i;
    }
    target.resize(written);
    return {result, static_cast<size_t>(from - source.data()), target};
}

bool IsSurrogate(uint32_t value) { return value >= 0xD800 && value <= 0xDFFF; }

// Returns the value in UTF-8 by the standard's table of bit patterns, surrogates included.
Bytes InUtf8(uint32_t value)
{
    const auto tail = [value](int shift) {
        return static_cast<uint8_t>(0x80 | ((value >> shift) & 0x3F));
    };
    if (value <= 0x7F) { return {static_cast<uint8_t>(value)}; }
    if (value <= 0x7FF) { return {static_cast<uint8_t>(0xC0 | (value >> 6)), tail(0)}; }
    if (value <= 0xFFFF) { return {static_cast<uint8_t>(0xE0 | (value >> 12)), tail(6), tail(0)}; }
    return {static_cast<uint8_t>(0xF0 | (value >> 18)), tail(12), tail(6), tail(0)};
}

Units InUtf16(uint32_t value)
{
    if (value <= 0xFFFF) { return {static_cast<uint16_t>(value)}; }
    const uint32_t rest = value - 0x10000;
    return {static_cast<uint16_t>(0xD800 | (rest >> 10)),
            static_cast<uint16_t>(0xDC00 | (rest & 0x3FF))};
}

// ---- Every value there is

// Converts all of the source into exactly the room that it needs, in both modes.
template <typename From, typename To>
void ExpectConverted(Converter<From, To> converter, const std::vector<From> &source,
                     const std::vector<To> &expected)
{
    for (const bool lenient : {STRICT, LENIENT}) {
        ASSERT_EQ(Convert(converter, source, lenient, expected.size()),
                  (Outcome<To>{UtfResult::Done, source.size(), expected}));
    }
}

TEST(Utf, ConvertsEveryCharacterBetweenAllForms)
{
    constexpr uint32_t BLOCK = 0x800;
    for (uint32_t first = 0; first <= LARGEST; first += BLOCK) {
        if (IsSurrogate(first)) { continue; } // the surrogates fill one block
        Bytes utf8;
        Units utf16;
        Values utf32;
        for (uint32_t value = first; value < first + BLOCK; value++) {
            const Bytes bytes = InUtf8(value);
            const Units units = InUtf16(value);
            utf8.insert(utf8.end(), bytes.begin(), bytes.end());
            utf16.insert(utf16.end(), units.begin(), units.end());
            utf32.push_back(value);
        }
        ExpectConverted(Utf32ToUtf16, utf32, utf16);
        ExpectConverted(Utf32ToUtf8, utf32, utf8);
        ExpectConverted(Utf16ToUtf32, utf16, utf32);
        ExpectConverted(Utf16ToUtf8, utf16, utf8);
        ExpectConverted(Utf8ToUtf16, utf8, utf16);
        ExpectConverted(Utf8ToUtf32, utf8, utf32);
    }
}

// Returns "a", the value, "b", which show where a conversion stops and whether it goes on.
Values Between(uint32_t value) { return {'a', value, 'b'}; }

TEST(Utf, StrictModeStopsAtEverySurrogate)
{
    for (uint32_t value = 0xD800; value <= 0xDFFF; value++) {
        const Values utf32 = Between(value);
        const Units utf16(utf32.begin(), utf32.end());
        ASSERT_EQ(Convert(Utf32ToUtf16, utf32, STRICT),
                  (Outcome<uint16_t>{UtfResult::Illegal, 1, {'a'}}));
        ASSERT_EQ(Convert(Utf32ToUtf8, utf32, STRICT),
                  (Outcome<uint8_t>{UtfResult::Illegal, 1, {'a'}}));
        ASSERT_EQ(Convert(Utf16ToUtf32, utf16, STRICT),
                  (Outcome<uint32_t>{UtfResult::Illegal, 1, {'a'}}));
        ASSERT_EQ(Convert(Utf16ToUtf8, utf16, STRICT),
                  (Outcome<uint8_t>{UtfResult::Illegal, 1, {'a'}}));
    }
}

TEST(Utf, LenientModeKeepsOrReplacesEverySurrogate)
{
    for (uint32_t value = 0xD800; value <= 0xDFFF; value++) {
        const Values utf32 = Between(value);
        const Units utf16(utf32.begin(), utf32.end());
        Bytes utf8 = InUtf8(value);
        utf8.insert(utf8.begin(), 'a');
        utf8.push_back('b');
        ASSERT_EQ(Convert(Utf32ToUtf16, utf32, LENIENT),
                  (Outcome<uint16_t>{UtfResult::Done, 3, {'a', 0xFFFD, 'b'}}));
        ASSERT_EQ(Convert(Utf32ToUtf8, utf32, LENIENT),
                  (Outcome<uint8_t>{UtfResult::Done, 3, utf8}));
        ASSERT_EQ(Convert(Utf16ToUtf32, utf16, LENIENT),
                  (Outcome<uint32_t>{UtfResult::Done, 3, utf32}));
        ASSERT_EQ(Convert(Utf16ToUtf8, utf16, LENIENT),
                  (Outcome<uint8_t>{UtfResult::Done, 3, utf8}));
    }
}

TEST(Utf, AnEncodedSurrogateStopsUtf8InBothModes)
{
    for (uint32_t value = 0xD800; value <= 0xDFFF; value++) {
        Bytes utf8 = InUtf8(value);
        utf8.insert(utf8.begin(), 'a');
        for (const bool lenient : {STRICT, LENIENT}) {
            ASSERT_EQ(Convert(Utf8ToUtf16, utf8, lenient),
                      (Outcome<uint16_t>{UtfResult::Illegal, 1, {'a'}}));
            ASSERT_EQ(Convert(Utf8ToUtf32, utf8, lenient),
                      (Outcome<uint32_t>{UtfResult::Illegal, 1, {'a'}}));
        }
    }
}

// ---- Cases

template <typename From, typename To> struct Case {
    const char *name;
    Converter<From, To> converter;
    std::vector<From> source;
    Outcome<To> strict, lenient;
    size_t room = 64;
};

template <typename From, typename To> void Check(const std::vector<Case<From, To>> &cases)
{
    for (const auto &[name, converter, source, strict, lenient, room] : cases) {
        EXPECT_EQ(Convert(converter, source, STRICT, room), strict) << name << ", strict";
        EXPECT_EQ(Convert(converter, source, LENIENT, room), lenient) << name << ", lenient";
    }
}

// Returns a case that has the same outcome in both modes.
template <typename From, typename To>
Case<From, To> Both(const char *name, Converter<From, To> converter, std::vector<From> source,
                    Outcome<To> outcome, size_t room = 64)
{
    return {name, converter, std::move(source), outcome, outcome, room};
}

constexpr UtfResult DONE = UtfResult::Done, CUT = UtfResult::SourceCut,
                    FULL = UtfResult::TargetFull, ILLEGAL = UtfResult::Illegal;

TEST(Utf, ResultsAreNumberedInTheirOrder)
{
    EXPECT_EQ(static_cast<int>(DONE), 0);
    EXPECT_EQ(static_cast<int>(CUT), 1);
    EXPECT_EQ(static_cast<int>(FULL), 2);
    EXPECT_EQ(static_cast<int>(ILLEGAL), 3);
}

TEST(Utf, ToUtf16RefusesOrReplacesLargeNumbers)
{
    Check<uint32_t, uint16_t>({
        {"just too large",
         Utf32ToUtf16,
         {'a', 0x110000, 'b'},
         {ILLEGAL, 1, {'a'}},
         {DONE, 3, {'a', 0xFFFD, 'b'}}},
        {"the largest number", Utf32ToUtf16, {0xFFFFFFFF}, {ILLEGAL, 0, {}}, {DONE, 1, {0xFFFD}}},
    });
}

TEST(Utf, Utf32ToUtf16PairsNoSurrogates)
{
    EXPECT_EQ(Convert(Utf32ToUtf16, {0xD83D, 0xDE00}, LENIENT),
              (Outcome<uint16_t>{DONE, 2, {0xFFFD, 0xFFFD}}));
}

TEST(Utf, ToUtf8ReplacesAndReportsLargeNumbers)
{
    const Bytes replaced = {'a', 0xEF, 0xBF, 0xBD, 'b'};
    Check<uint32_t, uint8_t>({
        Both<uint32_t, uint8_t>("just too large", Utf32ToUtf8, {'a', 0x110000, 'b'},
                                {ILLEGAL, 3, replaced}),
        Both<uint32_t, uint8_t>("the largest number", Utf32ToUtf8, {'a', 0xFFFFFFFF, 'b'},
                                {ILLEGAL, 3, replaced}),
        Both<uint32_t, uint8_t>("at the end", Utf32ToUtf8, {0x200000},
                                {ILLEGAL, 1, {0xEF, 0xBF, 0xBD}}),
        Both<uint32_t, uint8_t>("a target that fills up later is what is told", Utf32ToUtf8,
                                {0x110000, 'b'}, {FULL, 1, {0xEF, 0xBF, 0xBD}}, 3),
        Both<uint32_t, uint8_t>("no room for what it is replaced with", Utf32ToUtf8, {0x110000},
                                {FULL, 0, {}}, 2),
        {"a surrogate later",
         Utf32ToUtf8,
         {0x110000, 0xD800},
         {ILLEGAL, 1, {0xEF, 0xBF, 0xBD}},
         {ILLEGAL, 2, {0xEF, 0xBF, 0xBD, 0xED, 0xA0, 0x80}}},
    });
}

TEST(Utf, AFinalHighSurrogateIsACutCharacter)
{
    Check<uint16_t, uint32_t>({
        Both<uint16_t, uint32_t>("alone", Utf16ToUtf32, {0xD800}, {CUT, 0, {}}),
        Both<uint16_t, uint32_t>("after text", Utf16ToUtf32, {'a', 0xDBFF}, {CUT, 1, {'a'}}),
        Both<uint16_t, uint32_t>("with no room", Utf16ToUtf32, {0xD800}, {CUT, 0, {}}, 0),
    });
    Check<uint16_t, uint8_t>({
        Both<uint16_t, uint8_t>("alone", Utf16ToUtf8, {0xD800}, {CUT, 0, {}}),
        Both<uint16_t, uint8_t>("after text", Utf16ToUtf8, {'a', 0xDBFF}, {CUT, 1, {'a'}}),
    });
}

TEST(Utf, UnpairedSurrogatesDoNotTakeTheirNeighbours)
{
    Check<uint16_t, uint32_t>({
        {"high, then a pair",
         Utf16ToUtf32,
         {0xD83D, 0xD83D, 0xDE00},
         {ILLEGAL, 0, {}},
         {DONE, 3, {0xD83D, 0x1F600}}},
        {"low, then a pair",
         Utf16ToUtf32,
         {0xDE00, 0xD83D, 0xDE00},
         {ILLEGAL, 0, {}},
         {DONE, 3, {0xDE00, 0x1F600}}},
        {"low, then high",
         Utf16ToUtf32,
         {0xDE00, 0xD83D, 'a'},
         {ILLEGAL, 0, {}},
         {DONE, 3, {0xDE00, 0xD83D, 'a'}}},
        {"low at the end",
         Utf16ToUtf32,
         {'a', 0xDC00},
         {ILLEGAL, 1, {'a'}},
         {DONE, 2, {'a', 0xDC00}}},
    });
}

TEST(Utf, AnIncompleteUtf8SequenceIsReportedCut)
{
    const Bytes whole[] = {{0xC3, 0xA9}, {0xE3, 0x81, 0x82}, {0xF0, 0x9F, 0x98, 0x80}};
    for (const Bytes &character : whole) {
        for (size_t length = 1; length < character.size(); length++) {
            Bytes source(character.begin(), character.begin() + static_cast<ptrdiff_t>(length));
            source.insert(source.begin(), 'a');
            for (const bool lenient : {STRICT, LENIENT}) {
                EXPECT_EQ(Convert(Utf8ToUtf16, source, lenient),
                          (Outcome<uint16_t>{CUT, 1, {'a'}}));
                EXPECT_EQ(Convert(Utf8ToUtf32, source, lenient),
                          (Outcome<uint32_t>{CUT, 1, {'a'}}));
            }
        }
    }
}

TEST(Utf, IllegalUtf8StopsInBothModes)
{
    const Bytes illegal[] = {
        {0x80},                   // a continuation
        {0xBF},                   //
        {0xC0, 0x80},             // longer than needed
        {0xC1, 0xBF},             //
        {0xE0, 0x9F, 0xBF},       //
        {0xF0, 0x8F, 0xBF, 0xBF}, //
        {0xC0},                   // no leading byte, so it is not cut either
        {0xF5},                   //
        {0xFF},                   //
        {0xF4, 0x90, 0x80, 0x80}, // too large
        {0xC3, 'b'},              // no continuation
        {0xE3, 0x81, 'b'},        //
        {0xE3, 'b', 0x82},        //
        {0xF0, 0x9F, 0x98, 'b'},  //
    };
    for (Bytes source : illegal) {
        source.insert(source.begin(), 'a');
        for (const bool lenient : {STRICT, LENIENT}) {
            EXPECT_EQ(Convert(Utf8ToUtf16, source, lenient), (Outcome<uint16_t>{ILLEGAL, 1, {'a'}}))
                << static_cast<int>(source[1]);
            EXPECT_EQ(Convert(Utf8ToUtf32, source, lenient), (Outcome<uint32_t>{ILLEGAL, 1, {'a'}}))
                << static_cast<int>(source[1]);
        }
    }
}

TEST(Utf, NulIsACharacter)
{
    EXPECT_EQ(Convert(Utf8ToUtf32, {'a', 0, 'b'}, STRICT),
              (Outcome<uint32_t>{DONE, 3, {'a', 0, 'b'}}));
}

// ---- Room

// Converts characters of every size.  With any room the conversion ends before the first character
// that does not fit, and a second call goes on from there.
template <typename From, typename To>
void FillsWholeCharacters(Converter<From, To> converter, const std::vector<From> characters[],
                          const std::vector<To> expected[], size_t count)
{
    std::vector<From> source;
    std::vector<To> all;
    for (size_t i = 0; i < count; i++) {
        source.insert(source.end(), characters[i].begin(), characters[i].end());
        all.insert(all.end(), expected[i].begin(), expected[i].end());
    }
    for (const bool lenient : {STRICT, LENIENT}) {
        for (size_t room = 0; room <= all.size() + 1; room++) {
            Outcome<To> fits = {DONE, 0, {}};
            for (size_t i = 0; i < count && fits.result == DONE; i++) {
                if (fits.written.size() + expected[i].size() > room) {
                    fits.result = FULL;
                } else {
                    fits.read += characters[i].size();
                    fits.written.insert(fits.written.end(), expected[i].begin(), expected[i].end());
                }
            }
            const Outcome<To> outcome = Convert(converter, source, lenient, room);
            EXPECT_EQ(outcome, fits) << "room " << room;
            const std::vector<From> rest(source.begin() + static_cast<ptrdiff_t>(outcome.read),
                                         source.end());
            std::vector<To> joined = outcome.written;
            const auto later = Convert(converter, rest, lenient).written;
            joined.insert(joined.end(), later.begin(), later.end());
            EXPECT_EQ(joined, all) << "room " << room;
        }
    }
}

TEST(Utf, AFullTargetHoldsWholeCharactersOnly)
{
    constexpr uint32_t SAMPLES[] = {'a', 0xE9, 0x20AC, 0x1F600, 0x7FF, 0x10FFFF, 0xFFFF, 'z'};
    constexpr size_t COUNT = std::size(SAMPLES);
    Bytes utf8[COUNT];
    Units utf16[COUNT];
    Values utf32[COUNT];
    for (size_t i = 0; i < COUNT; i++) {
        utf8[i] = InUtf8(SAMPLES[i]);
        utf16[i] = InUtf16(SAMPLES[i]);
        utf32[i] = {SAMPLES[i]};
    }
    FillsWholeCharacters(Utf32ToUtf16, utf32, utf16, COUNT);
    FillsWholeCharacters(Utf32ToUtf8, utf32, utf8, COUNT);
    FillsWholeCharacters(Utf16ToUtf32, utf16, utf32, COUNT);
    FillsWholeCharacters(Utf16ToUtf8, utf16, utf8, COUNT);
    FillsWholeCharacters(Utf8ToUtf16, utf8, utf16, COUNT);
    FillsWholeCharacters(Utf8ToUtf32, utf8, utf32, COUNT);
}

TEST(Utf, NothingIsConvertedOfAnEmptySource)
{
    EXPECT_EQ(Convert(Utf32ToUtf8, {}, STRICT, 0), (Outcome<uint8_t>{DONE, 0, {}}));
    EXPECT_EQ(Convert(Utf16ToUtf32, {}, STRICT, 0), (Outcome<uint32_t>{DONE, 0, {}}));
    EXPECT_EQ(Convert(Utf8ToUtf16, {}, STRICT, 0), (Outcome<uint16_t>{DONE, 0, {}}));
}

TEST(Utf, AnIllegalCharacterIsReportedWithoutRoom)
{
    EXPECT_EQ(Convert(Utf8ToUtf16, {0xFF}, STRICT, 0), (Outcome<uint16_t>{ILLEGAL, 0, {}}));
    EXPECT_EQ(Convert(Utf32ToUtf16, {0xD800}, STRICT, 0), (Outcome<uint16_t>{ILLEGAL, 0, {}}));
    EXPECT_EQ(Convert(Utf32ToUtf16, {0xD800}, LENIENT, 0), (Outcome<uint16_t>{FULL, 0, {}}));
}

// ---- Legal sequences

// A row of the standard's table of well-formed sequences: the ranges of the first byte and of each
// next byte.
struct WellFormed {
    size_t length;
    uint8_t low[4], high[4];
};
constexpr WellFormed WELL_FORMED[] = {
    {1, {0x00}, {0x7F}},
    {2, {0xC2, 0x80}, {0xDF, 0xBF}},
    {3, {0xE0, 0xA0, 0x80}, {0xE0, 0xBF, 0xBF}},
    {3, {0xE1, 0x80, 0x80}, {0xEC, 0xBF, 0xBF}},
    {3, {0xED, 0x80, 0x80}, {0xED, 0x9F, 0xBF}},
    {3, {0xEE, 0x80, 0x80}, {0xEF, 0xBF, 0xBF}},
    {4, {0xF0, 0x90, 0x80, 0x80}, {0xF0, 0xBF, 0xBF, 0xBF}},
    {4, {0xF1, 0x80, 0x80, 0x80}, {0xF3, 0xBF, 0xBF, 0xBF}},
    {4, {0xF4, 0x80, 0x80, 0x80}, {0xF4, 0x8F, 0xBF, 0xBF}},
};

bool IsWellFormed(const uint8_t *sequence, size_t length)
{
    for (const WellFormed &row : WELL_FORMED) {
        bool fits = row.length == length;
        for (size_t i = 0; fits && i < length; i++) {
            fits = sequence[i] >= row.low[i] && sequence[i] <= row.high[i];
        }
        if (fits) { return true; }
    }
    return false;
}

TEST(Utf8SequenceIsLegal, AgreesOnEverySequenceBelowFourBytes)
{
    for (uint32_t number = 0; number < 1U << 24; number++) {
        const uint8_t sequence[] = {static_cast<uint8_t>(number >> 16),
                                    static_cast<uint8_t>(number >> 8),
                                    static_cast<uint8_t>(number)};
        ASSERT_EQ(Utf8SequenceIsLegal(sequence, 3), IsWellFormed(sequence, 3)) << number;
        if (sequence[2] != 0) { continue; }
        ASSERT_EQ(Utf8SequenceIsLegal(sequence, 2), IsWellFormed(sequence, 2)) << number;
        if (sequence[1] != 0) { continue; }
        ASSERT_EQ(Utf8SequenceIsLegal(sequence, 1), IsWellFormed(sequence, 1)) << number;
    }
}

TEST(Utf8SequenceIsLegal, AgreesOnFourBytesAtAllBoundaries)
{
    constexpr uint8_t TAILS[] = {0x00, 0x7F, 0x80, 0x81, 0x8F, 0x90, 0x9F,
                                 0xA0, 0xBE, 0xBF, 0xC0, 0xF0, 0xFF};
    for (uint32_t lead = 0; lead <= 0xFF; lead++) {
        for (const uint8_t third : TAILS) {
            for (const uint8_t fourth : TAILS) {
                for (uint32_t second = 0; second <= 0xFF; second++) {
                    const uint8_t sequence[] = {static_cast<uint8_t>(lead),
                                                static_cast<uint8_t>(second), third, fourth};
                    ASSERT_EQ(Utf8SequenceIsLegal(sequence, 4), IsWellFormed(sequence, 4))
                        << lead << ' ' << second << ' ' << int{third} << ' ' << int{fourth};
                }
            }
        }
    }
}

TEST(Utf8SequenceIsLegal, TakesLengthsOfOneToFourOnly)
{
    const uint8_t sequence[] = {'a', 0x80, 0x80, 0x80, 0x80};
    EXPECT_FALSE(Utf8SequenceIsLegal(sequence, 0));
    EXPECT_TRUE(Utf8SequenceIsLegal(sequence, 1));
    EXPECT_FALSE(Utf8SequenceIsLegal(sequence, 5));
}

// ---- Where to cut ----

std::string Whole(const std::string &text)
{
    return text.substr(0, Utf8WholeLength(text.data(), text.size()));
}

std::string Legal(const std::string &text)
{
    return text.substr(0, Utf8LegalLength(text.data(), text.size()));
}

TEST(Utf8Cut, KeepsWholeCharactersWhereverTextIsCut)
{
    const std::string characters[] = {"a", "\x7f", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80",
                                      "z"};
    std::string text;
    for (const std::string &character : characters) {
        for (size_t kept = 0; kept < character.size(); kept++) {
            EXPECT_EQ(Whole(text + character.substr(0, kept)), text);
            EXPECT_EQ(Legal(text + character.substr(0, kept)), text);
        }
        text += character;
        EXPECT_EQ(Whole(text), text);
        EXPECT_EQ(Legal(text), text);
    }
}

TEST(Utf8Cut, JudgesOtherBytesByTwoRules)
{
    struct {
        std::string text, whole, legal;
    } const rows[] = {
        {"\x80", "", ""},                                // has no leading byte
        {"\x80\x80", "", ""},                            // the same
        {"a\x80\xbf", "a\x80\xbf", "a"},                 // after ASCII
        {"a\xc3\xa9\x80", "a", "a\xc3\xa9"},             // a byte more than announced
        {"a\xc0\x80", "a\xc0\x80", "a"},                 // longer than needed
        {"a\xed\xa0\x80", "a\xed\xa0\x80", "a"},         // a surrogate
        {"a\xf4\x90\x80\x80", "a\xf4\x90\x80\x80", "a"}, // above U+10FFFF
        {"a\xe2\x82\xf0\x9f", "a\xe2\x82", "a"},         // two cut characters
        {"\xc3\xff", "\xc3", ""},                        // announces eight bytes
        {std::string("\0\x80", 2), std::string("\0\x80", 2), std::string(1, '\0')},
    };
    for (const auto &[text, whole, legal] : rows) {
        EXPECT_EQ(Whole(text), whole) << testing::PrintToString(text);
        EXPECT_EQ(Legal(text), legal) << testing::PrintToString(text);
    }
}

TEST(Utf8WholeLength, TakesAnyAnnouncedLength)
{
    for (size_t announced = 2; announced <= 8; announced++) {
        const char lead = static_cast<char>(0xFF00 >> announced);
        for (size_t length = 1; length < 40; length++) {
            const std::string sequence = lead + std::string(length - 1, '\x80');
            EXPECT_EQ(Whole("a" + sequence), length == announced ? "a" + sequence : "a")
                << announced << " announced, " << length << " there";
        }
    }
}

} // namespace
