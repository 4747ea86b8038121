#include "bsd_vsnprintf.h"

#include "formatForTests.h"

#include <climits>
#include <clocale>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace {

// ---- Text

TEST(Format, CopiesWhatIsNoConversion)
{
    EXPECT_EQ(Format(""), "");
    EXPECT_EQ(Format("plain \xc3\xa9 text"), "plain \xc3\xa9 text");
}

TEST(Format, PrintsStrings)
{
    EXPECT_EQ(Format("%s%s", "/opt/p", "/Contents"), "/opt/p/Contents");
    EXPECT_EQ(Format("%s|%5s|%-5s|%2s", "", "ab", "ab", "abc"), "|   ab|ab   |abc");
    EXPECT_EQ(Format("%.3s|%.0s|%.9s|%6.2s|%-6.2s|", "abcdef", "abc", "abc", "abc", "abc"),
              "abc||abc|    ab|ab    |");
    EXPECT_EQ(Format("%.s", "abc"), "") << "a point alone is a precision of 0";
    EXPECT_EQ(Format("%05s", "ab"), "000ab");
    EXPECT_EQ(Format("%+s% s", "a", "b"), "ab");
}

TEST(Format, PrintsNullAsAWord)
{
    const char *none = nullptr;
    EXPECT_EQ(Format("%s|%8s|%.3s|%ls|%S", none, none, none, none, none),
              "(null)|  (null)|(nu|(null)|(null)");
}

TEST(Format, ReadsAStringOnlyUpToItsPrecision)
{
    const char word[3] = {'a', 'b', 'c'};
    EXPECT_EQ(Format("%.3s", word), "abc");
}

TEST(Format, PrintsBytes)
{
    EXPECT_EQ(Format("%c%c|%3c|%-3c|", 'a', 0x1e9, 'b', 'c'), "a\xe9|  b|c  |");
    EXPECT_EQ(Format("%c", 0), std::string(1, '\0'));
    EXPECT_EQ(Format("%llc", 'a'), "a") << "only one l makes it wide";
}

TEST(Format, PrintsWideStringsAsUtf8WhateverTheLocale)
{
    ASSERT_STREQ(setlocale(LC_ALL, nullptr), "C");
    EXPECT_EQ(Format("%ls %S", L"\u00e9\u20ac\U0001f600z", L"\u00e9"),
              "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z \xc3\xa9");
    EXPECT_EQ(Format("<%6ls|%-6ls>", L"\u00e9", L"\u20ac"), "<    \xc3\xa9|\xe2\x82\xac   >")
        << "widths are in bytes";
    EXPECT_EQ(Format("%ls", L""), "");
}

TEST(Format, CutsWideStringsBetweenCharacters)
{
    const wchar_t *text = L"\u00e9\u20ac\U0001f600";
    const std::string utf8 = "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80";
    const std::vector<size_t> whole = {0, 0, 2, 2, 2, 5, 5, 5, 5, 9, 9, 9};
    for (size_t precision = 0; precision < whole.size(); precision++) {
        EXPECT_EQ(Format("%.*ls", static_cast<int>(precision), text),
                  utf8.substr(0, whole[precision]))
            << precision;
    }
    EXPECT_EQ(Format("%.2ls", L"\u00e9\u00e9"), "\xc3\xa9");
}

TEST(Format, ReadsNoWideStringBeyondItsPrecision)
{
    const std::vector<wchar_t> text = {L'a', L'b', L'c'};
    EXPECT_EQ(Format("%.3ls", text.data()), "abc");
}

TEST(Format, PrintsInvalidWideCharactersWithoutFailing)
{
    const wchar_t text[] = {0xd800, 'a', 0xdfff, 0x110000, -1, 'z', 0};
    EXPECT_EQ(Format("%ls", text), "\xed\xa0\x80"
                                   "a"
                                   "\xed\xbf\xbf"
                                   "\xef\xbf\xbd"
                                   "\xef\xbf\xbd"
                                   "z");
}

TEST(Format, PrintsManyWideStrings)
{
    std::string format = "-", wanted = "-";
    for (int i = 0; i < 20; i++) {
        format += "%1$.0ls%1$ls%1$.1ls";
        wanted += "ab"
                  "a";
    }
    EXPECT_EQ(Format(format.c_str(), L"ab"), wanted);
}

TEST(Format, PrintsWideCharactersInTheLocale)
{
    EXPECT_EQ(Format("%lc%C|%3lc", L'a', L'b', L'c'), "ab|  c");
    EXPECT_EQ(Format("%lc", 0), std::string(1, '\0'));
    EXPECT_EQ(Format("%lc", 0x20ac), "(failed)") << "the C locale cannot encode it";
    EXPECT_EQ(Format("%C", 0x20ac), "(failed)");
    ASSERT_NE(setlocale(LC_ALL, "C.UTF-8"), nullptr);
    EXPECT_EQ(Format("%lc%C", 0x20ac, 0x1f600), "\xe2\x82\xac\xf0\x9f\x98\x80");
    EXPECT_EQ(Format("%lc", 0xd800), "(failed)");
    setlocale(LC_ALL, "C");
}

TEST(Format, PrintsWhatItDoesNotKnowAsItself)
{
    EXPECT_EQ(Format("100%%"), "100%");
    EXPECT_EQ(Format("%5%|%-5%|"), "    %|%    |");
    EXPECT_EQ(Format("%05y"), "0000y");
    EXPECT_EQ(Format("%a %A %y %k", 1.0), "a A y k");
    EXPECT_EQ(Format("%la%hv%+!"), "av!");
    EXPECT_EQ(Format("%\xc3\xa9|%\x01|%~|%{"), "\xc3\xa9|\x01|~|{");
    EXPECT_EQ(Format("%0$d", 7), "$d") << "there is no argument 0";
}

TEST(Format, TakesNoArgumentForUnknownDirectives)
{
    EXPECT_EQ(Format("%a%d%%%y%d", 1, 2), "a1%y2");
}

TEST(Format, EndsWhereADirectiveIsCutShort)
{
    for (const char *format : {"cut%", "cut%-+ #0'", "cut%12", "cut%.", "cut%.3", "cut%ll", "cut%I",
                               "cut%1$", "cut%I6"}) {
        EXPECT_EQ(Format(format, 0), std::string("cut")) << format;
    }
}

TEST(Format, TakesAStarsArgumentBeforeAZeroPosition)
{
    EXPECT_EQ(Format("%*0$d|%d", 3, 7), "00$d|7");
}

// ---- Integers

TEST(Format, PrintsIntegersOfEverySize)
{
    constexpr long long LARGE = 0x1234567890abcdefLL;
    EXPECT_EQ(Format("%d %i %u", -1, INT_MIN, -1), "-1 -2147483648 4294967295");
    for (const char *size : {"l", "ll", "q", "L", "j", "t", "z", "Z", "I", "I64", "hl", "lI32"}) {
        const std::string format = std::string("%") + size + "d %" + size + "x %" + size + "o";
        EXPECT_EQ(Format(format.c_str(), LLONG_MIN, LARGE, LARGE),
                  "-9223372036854775808 1234567890abcdef 110642547422052746757")
            << size;
    }
    EXPECT_EQ(Format("%I32d %I32u", -5, -5), "-5 4294967291");
    EXPECT_EQ(Format("%I3d %I3x %I6d", 5LL, 0xABCLL, LLONG_MIN), "  5 abc -9223372036854775808");
    EXPECT_EQ(Format("%hd %hu %hx", 0x18000, 0x18000, -1), "-32768 32768 ffff");
    EXPECT_EQ(Format("%hhd %hhu %hhx", 300, 300, -1), "44 44 ff");
    EXPECT_EQ(Format("%D %U %O", LONG_MIN, ULONG_MAX, 1L << 40),
              "-9223372036854775808 18446744073709551615 20000000000000");
    EXPECT_EQ(Format("%llu", ULLONG_MAX), "18446744073709551615");
    EXPECT_EQ(Format("%lld", LLONG_MAX), "9223372036854775807");
}

TEST(Format, ReadsExactlyOneLongLongArgument)
{
    EXPECT_EQ(Format("%Ld %d %qd %d %I64d %d %jd %d %td %d %zd %d %Zd %d %Id %d", LLONG_MAX, 1,
                     LLONG_MAX, 2, LLONG_MAX, 3, LLONG_MAX, 4, LLONG_MAX, 5, LLONG_MAX, 6,
                     LLONG_MAX, 7, LLONG_MAX, 8),
              "9223372036854775807 1 9223372036854775807 2 9223372036854775807 3 "
              "9223372036854775807 4 9223372036854775807 5 9223372036854775807 6 "
              "9223372036854775807 7 9223372036854775807 8");
}

TEST(Format, PrintsPointersAsBareDigits)
{
    const auto pointer = [](uintptr_t value) { return reinterpret_cast<void *>(value); };
    EXPECT_EQ(Format("%p|%p|%#p|%5p|%-5p|%05p|%.4p", pointer(0x1f), pointer(0), pointer(0x1f),
                     pointer(0x1f), pointer(0x1f), pointer(0x1f), pointer(0x1f)),
              "1F|0|1F|   1F|1F   |0001F|001F");
    EXPECT_EQ(Format("%p", pointer(UINTPTR_MAX)), "FFFFFFFFFFFFFFFF");
}

TEST(Format, PutsAPrefixBeforeWhatIsNotZero)
{
    EXPECT_EQ(Format("%#x %#X %#o %#x %#X %#o", 0x1f, 0x1f, 8, 0, 0, 0), "0x1f 0X1F 010 0 0 0");
    EXPECT_EQ(Format("%#.3o|%#.2o|%#.0o|%#6.4x|%#08x|%#-8x|", 8, 8, 0, 0x1f, 0x1f, 0x1f),
              "010|010|0|0x001f|0x00001f|0x1f    |");
}

TEST(Format, TakesWidthAndPrecisionFromArguments)
{
    EXPECT_EQ(Format("%*d|%*d|%-*d|%.*d|%.*d|%*.*d", 5, 1, -5, 2, 4, 3, 3, 4, -1, 5, 6, 3, 7),
              "    1|2    |3   |004|5|   007");
    EXPECT_EQ(Format("%0*d|%0*d|", 4, 1, -4, 2), "0001|2   |");
    EXPECT_EQ(Format("%.*s|%.*f", -1, "abc", -3, 1.5), "abc|1.500000");
}

TEST(Format, ReadsDirectivePartsInAnyOrder)
{
    EXPECT_EQ(Format("%5-d|%l+d|%.3 d|%l5d|%5.3-d|%.2l5d|", 1, 2L, 3, 4L, 5, 6L),
              "1    |+2| 003|    4|005  |   06|");
    EXPECT_EQ(Format("%3 5d", 1), "    1") << "the last width counts";
    EXPECT_EQ(Format("%**d", 9, 3, 1), "  1");
    EXPECT_EQ(Format("%.1.3d", 1), "001");
}

TEST(Format, PrintsIntegersAsTheCLibraryDoes)
{
    const std::vector<long long> values = {
        0,       1,        -1,        7,        8,         9,         10,
        63,      64,       99,        100,      101,       127,       128,
        255,     256,      999,       1000,     -128,      -129,      32767,
        32768,   -32768,   65535,     65536,    99999,     100000,    INT_MAX,
        INT_MIN, UINT_MAX, 1LL << 32, -1000000, LLONG_MAX, LLONG_MIN, 999999999999999999LL};
    for (const std::string &flags : AllFlags("-+ #0")) {
        for (const char *width : {"", "1", "2", "3", "5", "8", "21"}) {
            for (int precision = -1; precision <= 8; precision++) {
                std::string format = "%" + flags + width;
                if (precision >= 0) { format += "." + std::to_string(precision); }
                for (const char letter : {'d', 'i', 'u', 'o', 'x', 'X'}) {
                    for (const long long value : values) {
                        ExpectAsLibc(format + letter, static_cast<int>(value));
                        ExpectAsLibc(format + "ll" + letter, value);
                    }
                }
            }
        }
        if (HasFailure()) { return; }
    }
}

TEST(Format, PrintsEveryShortAsTheCLibraryDoes)
{
    for (const char *format : {"%hd", "%hu", "%ho", "%#hx", "%+.3hi", "%7hX|", "%hhd", "%hhu"}) {
        for (int value = SHRT_MIN; value <= USHRT_MAX; value++) {
            ExpectAsLibc(format, value);
        }
    }
}

TEST(Format, PrintsRandomIntegersAsTheCLibraryDoes)
{
    std::mt19937_64 random(20103);
    for (int i = 0; i < 200000; i++) {
        const unsigned long long value = random() >> (random() % 64);
        ExpectAsLibc("%llu", value);
        ExpectAsLibc("%llx", value);
        ExpectAsLibc("%#llX", value);
        ExpectAsLibc("%lld", static_cast<long long>(0 - value));
    }
    for (unsigned long long power = 1; power < ULLONG_MAX / 10; power *= 10) {
        for (const char *format : {"%llu", "%llx", "%llo"}) {
            ExpectAsLibc(format, power - 1);
            ExpectAsLibc(format, power);
        }
    }
}

// ---- Positions

TEST(FormatPositions, TakeArgumentsByNumber)
{
    EXPECT_EQ(Format("%2$s %1$s", "a", "b"), "b a");
    EXPECT_EQ(Format("%1$s%1$s%2$d%1$s", "x", 5), "xx5x");
    EXPECT_EQ(Format("<%1$s|%2$5s>", nullptr, nullptr), "<(null)|(null)>");
    EXPECT_EQ(Format("%9$s", 1, 2, 3, 4, 5, 6, 7, 8, "i"), "i");
    EXPECT_EQ(Format("%10$s", 1, 2, 3, 4, 5, 6, 7, 8, 9, "j"), "j");
    EXPECT_EQ(Format("%3$.2f %1$d %2$s %4$c", 1, "two", 3.0, '4'), "3.00 1 two 4");
    EXPECT_EQ(Format("%2$05d|%1$-5s|", "ab", 42), "00042|ab   |");
}

TEST(FormatPositions, TakeEveryType)
{
    long long length = 0;
    EXPECT_EQ(Format("%8$n%1$d %2$ld %3$f %4$Lf %5$s %6$ls %7$p", -1, LONG_MIN, 1.5, 2.5L, "s",
                     L"\u00e9", reinterpret_cast<void *>(0xab), &length),
              "-1 -9223372036854775808 1.500000 2.500000 s \xc3\xa9 AB");
    EXPECT_EQ(
        Format("%8$Lf %7$hhd %6$zu %5$C %4$u %3$e %2$td %1$jd", 1LL, 2L, 3.0, 4, 'C', 6L, 7, 8.0L),
        "8.000000 7 6 C 4 3.000000e+00 2 1");
}

TEST(FormatPositions, TakeWhatEachLetterTakes)
{
    for (const char letter : std::string("diouxXcp")) {
        const std::string plain = std::string("%") + letter, placed = std::string("%1$") + letter;
        EXPECT_EQ(Format(placed.c_str(), 0x41LL), Format(plain.c_str(), 0x41LL)) << letter;
    }
    for (const char letter : std::string("diouxXDOU")) {
        const std::string size = strchr("DOU", letter) == nullptr ? "ll" : "";
        const std::string plain = "%" + size + letter, placed = "%1$" + size + letter;
        EXPECT_EQ(Format(placed.c_str(), LLONG_MAX), Format(plain.c_str(), LLONG_MAX)) << letter;
    }
    for (const char letter : std::string("aAeEfFgG")) {
        const std::string plain = std::string("%") + letter, placed = std::string("%1$") + letter;
        EXPECT_EQ(Format(placed.c_str(), 1.5e-3), Format(plain.c_str(), 1.5e-3)) << letter;
        const std::string longPlain = std::string("%L") + letter,
                          longPlaced = std::string("%1$L") + letter;
        EXPECT_EQ(Format(longPlaced.c_str(), 1.5e-3L), Format(longPlain.c_str(), 1.5e-3L))
            << letter;
    }
}

TEST(FormatPositions, TakeWidthAndPrecision)
{
    EXPECT_EQ(Format("%3$*1$.*2$f|", 8, 2, 1.5), "    1.50|");
    EXPECT_EQ(Format("%1$*2$d|%1$-*2$d|%1$*3$d|", 7, 3, -3), "  7|7  |7  |");
    EXPECT_EQ(Format("%2$.*1$s", 2, "abc"), "ab");
    EXPECT_EQ(Format("%*2$d", 7, 3), "  7") << "a star's position alone switches them on";
    EXPECT_EQ(Format("%.*2$d", 7, 3), "007");
}

TEST(FormatPositions, SkipWhatNothingNamesAsInts)
{
    EXPECT_EQ(Format("%3$d", 1, 2, 3), "3");
    EXPECT_EQ(Format("%5$s %1$s", "a", 0, 0, 0, "e"), "e a");
}

TEST(FormatPositions, ZeroExtendAnArgumentAlsoNamedAsLonger)
{
    const auto filled = [](const char *format, auto... values) {
        char stack[4096]; // the next call has its table here
        memset(stack, 0xAA, sizeof stack);
        asm volatile("" : : "r"(stack) : "memory");
        return FormatWith(bsd_vsnprintf, format, values...);
    };
    EXPECT_EQ(filled("%1$zu %1$d", -2), "4294967294 -2");
    EXPECT_EQ(filled("%1$lld %d", 7), "7 7");
}

TEST(FormatPositions, MayBeMoreThanEight)
{
    EXPECT_EQ(Format("%7$d%6$d%5$d%4$d%3$d%2$d%1$d", 1, 2, 3, 4, 5, 6, 7), "7654321");
    EXPECT_EQ(Format("%8$d%1$d", 1, 2, 3, 4, 5, 6, 7, 8), "81");
    EXPECT_EQ(Format("%9$d%1$d", 1, 2, 3, 4, 5, 6, 7, 8, 9), "91");
    EXPECT_EQ(Format("%17$s%16$d%1$d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, "s"),
              "s161");
    EXPECT_EQ(Format("%9$d %40$f %17$d %33$d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15,
                     16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35,
                     36, 37, 38, 39, 40.0),
              "9 40.000000 17 33");
}

TEST(FormatPositions, LeaveTheOthersInTheirOrder)
{
    EXPECT_EQ(Format("%s %2$s %s", "a", "b"), "a b b");
    EXPECT_EQ(Format("%2$d %d %d", 1, 2), "2 1 2");
    EXPECT_EQ(Format("%1$s %s %s", "a", "b"), "a a b");
    EXPECT_EQ(Format("%d %d %1$d %*d", 1, 2, 4, 7), "1 2 1    7");
}

TEST(FormatPositions, CountFromTheFirstArgumentEvenWhenLate)
{
    EXPECT_EQ(Format("%d %s %f %1$d %2$s %3$f", 1, "two", 3.0), "1 two 3.000000 1 two 3.000000");
}

TEST(FormatPositions, AreNotConsumedByDirectivesWithoutArguments)
{
    EXPECT_EQ(Format("%2$s %% %y %s", "a", "b"), "b % y a");
}

TEST(FormatPositions, KeepTypesFoundBeforeTheTableGrew)
{
    EXPECT_EQ(Format("%1$s %2$f %3$Lf %9$d", "a", 1.5, 2.5L, 4, 5, 6, 7, 8, 9),
              "a 1.500000 2.500000 9");
}

// ---- The length of the output so far

TEST(FormatLengthSoFar, IsStoredInEverySize)
{
    int plain = -1;
    short small = -1;
    signed char tiny = -1;
    EXPECT_EQ(Format("abc%n%hn%hhn", &plain, &small, &tiny), "abc");
    EXPECT_EQ(plain, 3);
    EXPECT_EQ(small, 3);
    EXPECT_EQ(tiny, 3);
    for (const char *size : {"l", "ll", "L", "q", "I64", "z", "Z", "I", "t", "j"}) {
        int64_t large[2] = {-1, -1};
        EXPECT_EQ(Format((std::string("%5d%") + size + "n%d").c_str(), 1, &large[0], 2), "    12");
        EXPECT_EQ(large[0], 5) << size;
        EXPECT_EQ(large[1], -1) << size;
    }
}

TEST(FormatLengthSoFar, TouchesNothingBesideItsPlace)
{
    short small[2] = {-1, -1};
    signed char tiny[2] = {-1, -1};
    int plain[2] = {-1, -1};
    EXPECT_EQ(Format("a%hn%hhn%I32n", &small[0], &tiny[0], &plain[0]), "a");
    EXPECT_EQ(small[1], -1);
    EXPECT_EQ(tiny[1], -1);
    EXPECT_EQ(plain[0], 1);
    EXPECT_EQ(plain[1], -1);
}

TEST(FormatLengthSoFar, CountsWhatDoesNotFit)
{
    char buffer[4];
    int length = 0;
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%s%n%s", "abcdef", &length, "gh"),
              8);
    EXPECT_EQ(length, 6);
    EXPECT_STREQ(buffer, "abc");
}

} // namespace
