#include "bsd_vsnprintf.h"

#include "allocations.h"
#include "formatForTests.h"
#include "scopedForTests.h"

#include <cfloat>
#include <climits>
#include <clocale>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <pthread.h>
#include <random>
#include <sys/mman.h>
#include <vector>

static const char *sDigits; // what the converters answer instead of their own answer
static int sPoint, sSign;
static bool sConverterFails;
static std::vector<int> sAsked; // how many digits the converters were asked for
static char sSharedDigits[32];  // where another thread's digits come, as soon as nothing is locked
static int sLocked;

extern "C" {
char *__real_ecvt(double value, int digits, int *point, int *sign);
char *__real_fcvt(double value, int digits, int *point, int *sign);
static char *Convert(char *(*convert)(double, int, int *, int *), double value, int digits,
                     int *point, int *sign)
{
    sAsked.push_back(digits);
    if (sDigits == sSharedDigits) { strcpy(sSharedDigits, "15"); }
    if (sConverterFails) { return nullptr; }
    if (sDigits == nullptr) { return convert(value, digits, point, sign); }
    *point = sPoint;
    *sign = sSign;
    return const_cast<char *>(sDigits);
}
char *__wrap_ecvt(double value, int digits, int *point, int *sign)
{
    return Convert(__real_ecvt, value, digits, point, sign);
}
char *__wrap_fcvt(double value, int digits, int *point, int *sign)
{
    return Convert(__real_fcvt, value, digits, point, sign);
}
int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex)
{
    sLocked++;
    return __real_pthread_mutex_lock(mutex);
}
int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex)
{
    if (--sLocked == 0) { memset(sSharedDigits, '9', sizeof sSharedDigits - 1); }
    return __real_pthread_mutex_unlock(mutex);
}
}

namespace {

// The converters answer this, for as long as the object lives.
struct Converters {
    Converters(const char *digits, int point, int sign)
    {
        sDigits = digits;
        sPoint = point;
        sSign = sign;
    }
    ~Converters() { sDigits = nullptr; }
};

std::string Byte(int value) { return {static_cast<char>(value)}; }

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

// What the C library prints, which is the same for what both know.
template <typename Value> std::string Libc(const std::string &format, Value value)
{
    char buffer[20000];
    const int length = snprintf(buffer, sizeof buffer, format.c_str(), value);
    return std::string(buffer, length);
}

std::vector<std::string> AllFlags(const char *flags)
{
    std::vector<std::string> all;
    const size_t count = strlen(flags);
    for (size_t set = 0; set < (size_t{1} << count); set++) {
        std::string chosen;
        for (size_t i = 0; i < count; i++) {
            if (set & (size_t{1} << i)) { chosen += flags[i]; }
        }
        all.push_back(chosen);
    }
    return all;
}

// One buffer, one comparison: what is called millions of times.
template <typename Value> void ExpectAsLibc(const std::string &format, Value value)
{
    char ours[2000], libc[2000];
    const int length = FormatInto(bsd_vsnprintf, ours, sizeof ours, format.c_str(), value);
    const int wanted = snprintf(libc, sizeof libc, format.c_str(), value);
    if (length != wanted || strcmp(ours, libc) != 0) {
        ADD_FAILURE() << format << " gives " << ours << " instead of " << libc;
    }
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

// ---- Floating numbers

TEST(Format, RoundsHalvesAwayFromZeroWithoutAFraction)
{
    EXPECT_EQ(Format("%.0f %.0f %.0f %.0f", 0.5, 1.5, 2.5, -0.5), "1 2 3 -1");
    EXPECT_EQ(Format("%.0f %.0f %.0f", 0.49999999999999994, -2.5, 4503599627370495.5),
              "0 -3 4503599627370496");
    EXPECT_EQ(Format("%.0f %#.0f %.0f %.0f", 3.0, 3.0, 100.0, 1e22),
              "3 3. 100 10000000000000000000000");
    for (int i = 0; i < 2000; i++) {
        EXPECT_EQ(Format("%.0f", i + 0.5), std::to_string(i + 1));
    }
}

TEST(Format, GivesExactDigitsToAnyPrecision)
{
    EXPECT_EQ(Format("%.40f", 0.1), "0.1000000000000000055511151231257827021182");
    EXPECT_EQ(Format("%.0e", 9.5), "1e+01");
    EXPECT_EQ(Format("%.0e %.0e %.0e", 2.5, 3.5, 8.5), "2e+00 4e+00 8e+00") << "ties go to even";
    EXPECT_EQ(Format("%f", 1e300), Libc("%f", 1e300));
    EXPECT_EQ(Format("%.1074f", DBL_TRUE_MIN), Libc("%.1074f", DBL_TRUE_MIN));
    EXPECT_EQ(Format("%f", DBL_TRUE_MIN), "0.000000");
    EXPECT_EQ(Format("%e %g", DBL_TRUE_MIN, DBL_TRUE_MIN), "4.940656e-324 4.94066e-324");
    EXPECT_EQ(Format("%.17g %.16e", DBL_MAX, DBL_MAX),
              "1.7976931348623157e+308 1.7976931348623157e+308");
    EXPECT_EQ(Format("%.1500f", DBL_TRUE_MIN), Libc("%.1500f", DBL_TRUE_MIN));
    EXPECT_EQ(Format("%.1500e", 1 / 3.0), Libc("%.1500e", 1 / 3.0));
    EXPECT_EQ(Format("%.1500g", 1 / 3.0), Libc("%.1500g", 1 / 3.0));
    EXPECT_EQ(Format("%#.1500g", 0.5), Libc("%#.1500g", 0.5));
}

TEST(Format, RequestsNoMoreDigitsThanDoublesHave)
{
    for (const char *format : {"%.20000f", "%.20000e", "%.20000g"}) {
        sAsked.clear();
        Format(format, 0.5);
        ASSERT_EQ(sAsked.size(), 2u);
        EXPECT_LE(sAsked[0], 1074) << format;
    }
}

TEST(Format, ChoosesTheStyleOfG)
{
    EXPECT_EQ(Format("%g %g %g %g", 100000.0, 1e6, 0.0001, 0.00001), "100000 1e+06 0.0001 1e-05");
    EXPECT_EQ(Format("%#g %#g %#.3g %#.0g", 1.0, 0.0, 1e3, 3.0), "1.00000 0.00000 1.00e+03 3.");
    EXPECT_EQ(Format("%.0g %.1g %.3g %G", 123.0, 123.0, 123.0, 1e-10), "1e+02 1e+02 123 1E-10");
    EXPECT_EQ(Format("%g %g", 999999.5, 0.00009999995), "1e+06 0.0001");
    EXPECT_EQ(Format("%#G", 999999.5), "1.00000E+06") << "rounding up makes no digit fewer";
}

TEST(Format, GivesZeroNoSign)
{
    EXPECT_EQ(Format("%f %e %g %.0f %.0f", -0.0, -0.0, -0.0, -0.0, -0.4),
              "0.000000 0.000000e+00 0 0 0");
    EXPECT_EQ(Format("%.2f", -0.001), "-0.00") << "what only rounds to zero keeps its own";
    EXPECT_EQ(Format("%+f % f", 0.0, 0.0), "+0.000000  0.000000");
}

TEST(Format, RoundsALongDoubleToADoubleFirst)
{
    const long double third = 1.0L / 3;
    ASSERT_NE(static_cast<long double>(static_cast<double>(third)), third);
    const std::string wanted = Libc("%.20f", static_cast<double>(third));
    EXPECT_EQ(Format("%.20Lf", third), wanted);
    EXPECT_EQ(Format("%.20llf %.20qf %.20I64f %d", third, third, third, 7),
              wanted + " " + wanted + " " + wanted + " 7");
    EXPECT_EQ(Format("%lf %hf %zf %d", 1.5, 1.5, 1.5, 7), "1.500000 1.500000 1.500000 7");
    EXPECT_EQ(Format("%Lf", LDBL_MAX), "inf");
}

TEST(Format, SpellsOutWhatIsNotFinite)
{
    EXPECT_EQ(Format("%f %f %f", HUGE_VAL, -HUGE_VAL, double{NAN}), "inf -inf nan");
    EXPECT_EQ(Format("%E %F %G %e %g", HUGE_VAL, -HUGE_VAL, double{NAN}, -HUGE_VAL, HUGE_VAL),
              "INF -INF NAN -inf inf");
    EXPECT_EQ(Format("%.1f|%6f|%-6f|%06f|%+f|% f|%#f|%+6f", HUGE_VAL, HUGE_VAL, HUGE_VAL, HUGE_VAL,
                     HUGE_VAL, HUGE_VAL, HUGE_VAL, double{NAN}),
              "inf|   inf|inf   |   inf|+inf| inf|inf|  +nan");
    EXPECT_EQ(Format("%.0f %.0f", HUGE_VAL, -HUGE_VAL), "inf -inf");
}

// The bit is set in what x86-64 makes of 0.0 / 0.0.
TEST(Format, IgnoresTheSignOfNan)
{
    const double nan = NAN, negative = -nan;
    ASSERT_NE(std::signbit(nan), std::signbit(negative));
    EXPECT_EQ(Format("%f %f %E %G", nan, negative, negative, negative), "nan nan NAN NAN");
    EXPECT_EQ(Format("%+f|% f|%5f|%-5f|%05f", negative, negative, negative, negative, negative),
              "+nan| nan|  nan|nan  |  nan");
    {
        const Converters beside("nan", 0, 1);
        EXPECT_EQ(Format("%f %E", 1.0, 1.0), "nan NAN");
    }
    const Converters inTheText("-NaN", 9999, 1);
    EXPECT_EQ(Format("%f %E %+f", 1.0, 1.0, 1.0), "nan NAN +nan");
}

TEST(Format, TakesInfinitysSignFromTextOrFlag)
{
    {
        const Converters beside("inf", 0, 1);
        EXPECT_EQ(Format("%f %E", 1.0, 1.0), "-inf -INF");
    }
    {
        const Converters inTheText("-Inf", 0, 0);
        EXPECT_EQ(Format("%f %E %+f", 1.0, 1.0, 1.0), "-inf -INF -inf");
    }
    const Converters nan("NaN", 0, 0);
    EXPECT_EQ(Format("%f %G", 1.0, 1.0), "nan NAN");
}

TEST(Format, PrintsNonFiniteTextFromTheConverter)
{
    const Converters infinity("Infinity", 9999, 0);
    EXPECT_EQ(Format("%12f|%-12G|%09e", 1.0, 1.0, 1.0), "    infinity|INFINITY    | infinity");
}

TEST(Format, BearsDigitsThatAreNotThere)
{
    const Converters nothing("", -2, 0);
    EXPECT_EQ(Format("%.2f", 0.001), "0.00");
}

TEST(Format, FailsWhenTheConverterDoes)
{
    sConverterFails = true;
    EXPECT_EQ(Format("%f", 1.0), "(failed)");
    EXPECT_EQ(Format("%g and more", 1.0), "(failed)");
    sConverterFails = false;
}

TEST(Format, PrintsFloatingNumbersAsTheCLibraryDoes)
{
    std::mt19937_64 random(20101);
    std::vector<double> values = {0.0,  1.0,  1.5,  0.1,  1e-5,    0.0001,  123456.0,    1234567.0,
                                  1e15, 1e16, 1e22, 1e23, DBL_MAX, DBL_MIN, DBL_TRUE_MIN};
    for (int i = 0; i < 60; i++) {
        double value = 0;
        const uint64_t bits = random();
        memcpy(&value, &bits, sizeof value);
        if (std::isfinite(value)) { values.push_back(value); }
        values.push_back(std::ldexp(static_cast<double>(random() >> 40), static_cast<int>(i) - 40));
        values.push_back(-std::pow(10.0, i - 30));
    }
    for (const std::string &flags : AllFlags("-+ #0")) {
        for (const char *width : {"", "1", "12", "45"}) {
            for (int precision = -1; precision <= 40; precision += precision < 20 ? 1 : 5) {
                std::string format = "%" + flags + width;
                if (precision >= 0) { format += "." + std::to_string(precision); }
                for (const char letter : {'e', 'f', 'g', 'E', 'F', 'G'}) {
                    if (precision == 0 && (letter | 0x20) == 'f') {
                        continue;
                    } // rounds its own way
                    for (size_t i = random() % 7; i < values.size(); i += 7) {
                        ExpectAsLibc(format + letter, values[i]);
                    }
                }
            }
        }
        if (HasFailure()) { return; }
    }
}

TEST(Format, PrintsRandomDoublesAsTheCLibraryDoes)
{
    std::mt19937_64 random(20102);
    for (int i = 0; i < 40000; i++) {
        double value = 0;
        const uint64_t bits = random();
        memcpy(&value, &bits, sizeof value);
        if (!std::isfinite(value)) { continue; }
        const std::string precision = "%." + std::to_string(1 + random() % 40);
        ExpectAsLibc(precision + "efg"[random() % 3], value);
    }
}

TEST(Format, GivesNoMoreZerosThanTheFractionHas)
{
    const Converters nothing("", -5, 0);
    EXPECT_EQ(Format("%.2f|", 0.000001), "0.00|");
}

TEST(FormatFloating, HasItsDigitsBeforeAnotherThreadConverts)
{
    for (const char *const format : {"%g", "%.1f", "%#.2g"}) {
        const Converters shared(sSharedDigits, 1, 0);
        EXPECT_EQ(Format(format, 1.5), "1.5");
        EXPECT_STREQ(sSharedDigits, "9999999999999999999999999999999") << "another was there";
    }
}

// ---- Locales

// Locales with groups of their own, made by the C library's compiler.
class FormatInLocale : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        sFolder = new TemporaryFolder;
        setenv("LOCPATH", sFolder->Path().c_str(), 1);
        for (const char *name : {"de_DE", "en_IN", "fr_FR"}) {
            const std::string command = std::string("localedef -f UTF-8 -i ") + name + " " +
                                        sFolder->Path() + "/" + name + ".UTF-8";
            ASSERT_EQ(system(command.c_str()), 0) << command;
        }
    }
    static void TearDownTestSuite()
    {
        unsetenv("LOCPATH");
        delete sFolder;
    }
    void Use(const char *name) { ASSERT_NE(setlocale(LC_ALL, name), nullptr) << name; }
    void TearDown() override { setlocale(LC_ALL, "C"); }

private:
    static TemporaryFolder *sFolder;
};
TemporaryFolder *FormatInLocale::sFolder;

TEST_F(FormatInLocale, GroupsDecimalDigits)
{
    Use("de_DE.UTF-8");
    EXPECT_EQ(Format("%'d %'i %'u %'d %'d", 1234567, -1234, 999, 1000, 0),
              "1.234.567 -1.234 999 1.000 0");
    EXPECT_EQ(Format("%'lld %'llu", LLONG_MIN, ULLONG_MAX),
              "-9.223.372.036.854.775.808 18.446.744.073.709.551.615");
    EXPECT_EQ(Format("%d", 1234567), "1234567") << "only when it is asked to";
    EXPECT_EQ(
        Format("%'x %'o %'X %'p", 0x123456, 01234567, 0x123456, reinterpret_cast<void *>(0x123456)),
        "123456 1234567 123456 123456");
    EXPECT_EQ(Format("%'12d|%'-12d|%'012d", 1234567, 1234567, 1234567),
              "   1.234.567|1.234.567   |0001.234.567");
    EXPECT_EQ(Format("%'.9d", 1234567), "1.234.567");
    EXPECT_EQ(Format("%'.12d", 1234567), "0001.234.567");
    EXPECT_EQ(Format("%'D %'U", 1234L, 1234L), "1.234 1.234");
}

TEST_F(FormatInLocale, GroupsTheIntegerPartOfFixedNumbers)
{
    Use("de_DE.UTF-8");
    EXPECT_EQ(Format("%f %.2f", 1234567.25, 0.5), "1234567,250000 0,50");
    EXPECT_EQ(Format("%'f %'.0f %'.1f %'.2f", 1234567.25, 1234567.0, 999.0, 1000.0),
              "1.234.567,250000 1.234.567 999,0 1.000,00");
    EXPECT_EQ(Format("%'g %'.9g %'e", 123456.0, 1234567.0, 1234567.0),
              "123.456 1.234.567 1,234567e+06");
    EXPECT_EQ(Format("%'.0f", 1e21), "1.000.000.000.000.000.000.000")
        << "zeros that are not digits, too";
    EXPECT_EQ(Format("%'15.1f|%'-15.1f|%'015.1f", -1234567.5, -1234567.5, -1234567.5),
              "   -1.234.567,5|-1.234.567,5   |-0001.234.567,5");
    EXPECT_EQ(Format("%'f", HUGE_VAL), "inf");
}

TEST_F(FormatInLocale, GroupsUnevenly)
{
    Use("en_IN.UTF-8");
    EXPECT_EQ(Format("%'d %'d %'d %'d", 123, 1234, 123456, 1234567890),
              "123 1,234 1,23,456 1,23,45,67,890");
    EXPECT_EQ(Format("%'.1f %'.0f %'.0f", 1234567.5, 12345.0, 123456789.0),
              "12,34,567.5 12,345 12,34,56,789");
}

TEST_F(FormatInLocale, AgreesWithTheCLibrary)
{
    for (const char *name : {"de_DE.UTF-8", "en_IN.UTF-8"}) {
        Use(name);
        for (double value = 1; value < 1e18; value *= 7) {
            ExpectAsLibc("%'lld", static_cast<long long>(value));
            ExpectAsLibc("%'.3f", value / 3);
            ExpectAsLibc("%'30.1f|", -value);
        }
    }
}

TEST_F(FormatInLocale, PrintsOnlyTheFirstByteOfASeparator)
{
    Use("fr_FR.UTF-8");
    ASSERT_GT(strlen(localeconv()->thousands_sep), 1u);
    EXPECT_EQ(Format("%'d", 1234), "1" + Byte(localeconv()->thousands_sep[0]) + "234");
}

TEST_F(FormatInLocale, KeepsTheCConventionsOnRequest)
{
    Use("de_DE.UTF-8");
    EXPECT_EQ(FormatWith(bsd_vsnprintf_c_locale, "%.1f %'d %'.1f", 1234.5, 1234, 1234.5),
              "1234.5 1234 1234.5");
}

// Conventions as they come, without a locale that has them.
std::string FormatGrouped(const char *grouping, char separator, const char *point,
                          const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char *text = nullptr;
    EXPECT_GE(bsd_vsnprintf_core(&text, grouping, separator, point, 0, format, arguments), 0);
    va_end(arguments);
    return Take(text);
}

TEST(FormatConventions, GroupAsTheyAreTold)
{
    const auto integer = [](const char *grouping) {
        return FormatGrouped(grouping, ',', ".", "%'d|%'.0f|%'llu", 12345678, 12345678.0,
                             ULLONG_MAX);
    };
    EXPECT_EQ(integer("\3"), "12,345,678|12,345,678|18,446,744,073,709,551,615");
    EXPECT_EQ(integer("\1"),
              "1,2,3,4,5,6,7,8|1,2,3,4,5,6,7,8|1,8,4,4,6,7,4,4,0,7,3,7,0,9,5,5,1,6,1,5");
    EXPECT_EQ(integer("\2\3\1"), "1,2,3,456,78|1,2,3,456,78|1,8,4,4,6,7,4,4,0,7,3,7,0,9,5,516,15");
    EXPECT_EQ(integer("\2\x7f"), "123456,78|123456,78|184467440737095516,15");
    for (const char *none : {"", "\x7f", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(integer(none), "12345678|12345678|18446744073709551615");
    }
}

TEST(FormatConventions, GroupNothingWithoutASeparator)
{
    EXPECT_EQ(FormatGrouped("\3", '\0', ".", "%'d %'.1f", 1234567, 1234567.0), "1234567 1234567.0");
}

TEST(FormatConventions, PrintTheFirstByteOfThePoint)
{
    EXPECT_EQ(FormatGrouped(nullptr, ',', "::", "%.1f %#.0f %.0f %.1e", 1.5, 1.0, 1.0, 1.0),
              "1:5 1: 1 1:0e+00");
}

TEST(FormatConventions, GroupNothingBySizesBelowNothing)
{
    EXPECT_EQ(FormatGrouped("\x80", ',', ".", "%'d %'.0f", 1234567, 1234567.0), "1234567 1234567");
}

// ---- Positions

TEST(FormatPositions, TakeArgumentsByNumber)
{
    EXPECT_EQ(Format("%2$s %1$s", "a", "b"), "b a");
    EXPECT_EQ(Format("%1$s%1$s%2$d%1$s", "x", 5), "xx5x");
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
        char stack[4096]; // where the next call has its table
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

// ---- How long the output is so far

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

// ---- Buffers

TEST(FormatBuffer, TakesWhatFitsAndTellsTheWholeLength)
{
    const std::string whole = Format("%s-%5d|%.3f", "word", 42, 1.5);
    for (size_t size = 1; size < whole.size() + 3; size++) {
        std::string buffer(whole.size() + 4, '#');
        EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer.data(), size, "%s-%5d|%.3f", "word", 42, 1.5),
                  static_cast<int>(whole.size()));
        const size_t kept = std::min(size - 1, whole.size());
        EXPECT_EQ(buffer.substr(0, kept), whole.substr(0, kept));
        EXPECT_EQ(buffer[kept], '\0');
        EXPECT_EQ(buffer.substr(kept + 1), std::string(buffer.size() - kept - 1, '#'));
    }
}

TEST(FormatBuffer, IsUnlimitedAndUnterminatedWithSizeZero)
{
    char buffer[8] = "#######";
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, 0, "%s", "abc"), 3);
    EXPECT_STREQ(buffer, "abc####");
}

TEST(FormatBuffer, CountsItsRoomIn32Bits)
{
    char buffer[16] = "###############";
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, SIZE_MAX, "%s%d", "abc", 12), 5);
    EXPECT_STREQ(buffer, "abc12");
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, size_t{3} << 30, "%s%d", "def", 12), 5);
    EXPECT_STREQ(buffer, "def12");
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, (size_t{1} << 32) + 4, "%s", "uvwxyz"), 6);
    EXPECT_STREQ(buffer, "uvw");
}

TEST(FormatBuffer, HoldsManyFields)
{
    std::string format, wanted;
    for (int i = 0; i < 100; i++) {
        format += "%1$s%2$d-%3$c%4$.1f%5$ls%6$#x";
        wanted += "ab12-c1.5\xc3\xa9"
                  "0x1f";
        EXPECT_EQ(Format(format.c_str(), "ab", 12, 'c', 1.5, L"\u00e9", 0x1f), wanted);
    }
}

TEST(FormatBuffer, PadsToAnyWidth)
{
    for (int width = 0; width < 200; width++) {
        const std::string blanks(std::max(width - 1, 0), ' '), zeroes(std::max(width - 1, 0), '0');
        EXPECT_EQ(Format("%*d", width, 7), blanks + "7");
        EXPECT_EQ(Format("%-*d", width, 7), "7" + blanks);
        EXPECT_EQ(Format("%0*d", width, 7), zeroes + "7");
    }
}

TEST(FormatBuffer, PadsToWidthsOfAnyNumberOfDigits)
{
    for (const int width : {9, 10, 99, 100, 999, 1000, 1001, 9999, 10000, 12345}) {
        for (const char *flag : {"", "-", "0", "-0", "0-", "00", "+"}) {
            for (const char *letter : {"d", "ld", "u", "x", "X", "lo", "i"}) {
                const std::string format = std::string("%") + flag + std::to_string(width) + letter;
                EXPECT_EQ(Format(format.c_str(), 305419896L), Libc(format.c_str(), 305419896L))
                    << format;
            }
        }
    }
}

TEST(FormatBuffer, GrowsToWholeMultiplesOfItsFirstSize)
{
    const auto blocksOf = [](const char *format, const std::string &word) {
        return Allocations::SizesIn([&] { FormatWith(bsd_vsnprintf, format, word.c_str()); });
    };
    EXPECT_EQ(blocksOf("%s", std::string(200, 'x')), (std::vector<size_t>{64, 256}));
    EXPECT_EQ(blocksOf("%s", std::string(63, 'x')), (std::vector<size_t>{64}));
    EXPECT_EQ(blocksOf("%s", std::string(64, 'x')), (std::vector<size_t>{64, 128}));
    EXPECT_EQ(blocksOf("", ""), (std::vector<size_t>{1}));
    EXPECT_EQ(blocksOf(std::string(63, '-').c_str(), ""), (std::vector<size_t>{64}));
    EXPECT_EQ(blocksOf(std::string(64, '-').c_str(), ""), (std::vector<size_t>{128}));
}

TEST(FormatBuffer, GrowsFieldByField)
{
    const auto blocksOf = [](const char *format) {
        return Allocations::SizesIn(
            [&] { FormatWith(bsd_vsnprintf, format, std::string(30, 'x').c_str()); });
    };
    EXPECT_EQ(blocksOf("%1$s%1$s"), (std::vector<size_t>{64}));
    EXPECT_EQ(blocksOf("%1$s%1$s%1$s%1$s"), (std::vector<size_t>{64, 128}));
    EXPECT_EQ(blocksOf("%1$s%1$s%1$s%1$s%1$s"), (std::vector<size_t>{64, 128, 256}));
    EXPECT_EQ(blocksOf("%1$200s"), (std::vector<size_t>{64, 256})) << "by all of a field at once";
    EXPECT_EQ(blocksOf("%1$30s%1$170s"), (std::vector<size_t>{64, 256}));
    EXPECT_EQ(blocksOf("%1$s%1$300s%1$50s"), (std::vector<size_t>{64, 384}));
}

TEST(FormatBuffer, GrowsAtEveryLengthAroundItsSteps)
{
    for (size_t length = 0; length < 600; length++) {
        const std::string word(length, 'w');
        EXPECT_EQ(Format("<%s|%s>", word.c_str(), word.c_str()), "<" + word + "|" + word + ">");
    }
}

// Field by field: each is written at once where all of it has room, and otherwise as far as it has.
TEST(FormatBuffer, CutsAFieldAnywhereAndTouchesNothingAfterIt)
{
    for (const char *directive :
         {"%d",      "%lld", "%zu",   "%x",     "%llX", "%12d", "%-12d", "%012lld", "%-24lld",
          "%024lld", "%8X",  "%08lx", "%-20lx", "%i",   "%+d",  "% .9d", "%#o",     "%#llx",
          "%#20llX", "%p",   "%c",    "%5c",    "%%",   "%6%",  "%.25d"}) {
        const std::string format = std::string("<") + directive;
        for (const long long value :
             {0LL, -7LL, 1234LL, -54321LL, 12345678LL, 123456789LL, LLONG_MIN, LLONG_MAX}) {
            const std::string whole = FormatWith(bsd_vsnprintf, format.c_str(), value);
            for (size_t size = 1; size < whole.size() + 30; size++) {
                std::string buffer(whole.size() + 32, '#'), wanted = buffer;
                const size_t kept = std::min(size - 1, whole.size());
                wanted.replace(0, kept + 1, whole.substr(0, kept) + '\0');
                EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer.data(), size, format.c_str(), value),
                          static_cast<int>(whole.size()));
                EXPECT_EQ(buffer, wanted) << format << " " << value << " " << size;
            }
        }
    }
}

TEST(FormatBuffer, CutsAStringAnywhereAndTouchesNothingAfterIt)
{
    for (const char *format :
         {"%s", "<%s>", "%40s", "%-40s|", "%045s", "%.9s|", "a long text %s"}) {
        const std::string whole = Format(format, "thirty-three bytes, this text has");
        for (size_t size = 1; size < whole.size() + 8; size++) {
            std::string buffer(whole.size() + 8, '#'), wanted = buffer;
            const size_t kept = std::min(size - 1, whole.size());
            wanted.replace(0, kept + 1, whole.substr(0, kept) + '\0');
            EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer.data(), size, format,
                                 "thirty-three bytes, this text has"),
                      static_cast<int>(whole.size()));
            EXPECT_EQ(buffer, wanted) << format << " " << size;
        }
    }
}

TEST(FormatBuffer, HoldsManyConvertedTexts)
{
    std::string format, wanted;
    for (int i = 0; i < 40; i++) {
        format += "%1$.1f-%2$ls";
        wanted += "1.5-w";
    }
    EXPECT_EQ(Format(format.c_str(), 1.5, L"w"), wanted);
    format.clear();
    wanted.clear();
    for (int i = 0; i < 40; i++) {
        format += "%1$.1f-";
        wanted += "1.5-";
    }
    EXPECT_EQ(Format(format.c_str(), 1.5), wanted);
}

TEST(FormatBuffer, IsNotTerminatedWhenTheCallFails)
{
    ASSERT_STREQ(setlocale(LC_ALL, nullptr), "C");
    char buffer[] = "#######";
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "ab%lc", 0x20ac), -1);
    EXPECT_EQ(memchr(buffer, '\0', sizeof buffer - 1), nullptr);
}

// ---- Memory

// Into a block of its own, which is the caller's to free.
__attribute__((noinline)) int FormatNew(char **block, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = bsd_vsnprintf(block, 0, format, arguments);
    va_end(arguments);
    return length;
}

TEST(FormatMemory, IsNotNeededInTheCallersBuffer)
{
    char buffer[200];
    const auto blocks = Allocations::SizesIn([&] {
        int length = 0;
        FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%s %5d %08llX %c %p %lc %n%%", "text", 42,
                   7LL, 'c', buffer, L'w', &length);
        FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%7$d %2$s %1$*3$d", 1, "two", 3, 4, 5, 6,
                   7);
        FormatInto(bsd_vsnprintf_c_locale, buffer, sizeof buffer, "%'d%100s", 1234567, "");
    });
    EXPECT_EQ(blocks, std::vector<size_t>());
}

TEST(FormatMemory, IsNeededForWideStringsAndFloatingNumbers)
{
    char buffer[200];
    EXPECT_EQ(Allocations::SizesIn([&] {
                  FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%f", 0.5);
              }).size(),
              1u);
    EXPECT_EQ(Allocations::SizesIn(
                  [&] { FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%ls", L"ab"); }),
              (std::vector<size_t>{4 * 2 + 4}));
    EXPECT_EQ(Allocations::SizesIn(
                  [&] { FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%.5ls", L"ab"); }),
              (std::vector<size_t>{5 + 4}));
}

TEST(FormatMemory, IsNeededForPositionsAboveSeven)
{
    char buffer[200];
    const auto blocksOf = [&](const char *format) {
        return Allocations::SizesIn([&] {
            FormatInto(bsd_vsnprintf, buffer, sizeof buffer, format, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10,
                       11, 12, 13, 14, 15, 16, 17, 18, 19, 20);
        });
    };
    EXPECT_EQ(blocksOf("%7$d"), std::vector<size_t>());
    EXPECT_EQ(blocksOf("%8$d"), (std::vector<size_t>{16 * 4, 9 * 16}));
    EXPECT_EQ(blocksOf("%15$d"), (std::vector<size_t>{16 * 4, 16 * 16}));
    EXPECT_EQ(blocksOf("%16$d"), (std::vector<size_t>{17 * 4, 17 * 16}));
    EXPECT_EQ(blocksOf("%8$d%20$d"), (std::vector<size_t>{16 * 4, 32 * 4, 21 * 16}));
}

TEST(FormatMemory, MakesTheCallFailWhenItRunsOut)
{
    char buffer[16];
    for (size_t granted = 1;; granted++) { // without the first one it aborts
        const OutOfMemory once(granted, 1);
        const int length = FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%9$s%f%ls%1$g", 1.5,
                                      L"wide", 0, 0, 0, 0, 0, 0, "word");
        if (!once.Showed()) {
            EXPECT_EQ(granted, 5u) << "types, arguments, two numbers, a wide string";
            break;
        }
        EXPECT_EQ(length, -1) << granted;
    }
}

TEST(FormatMemory, IsNotRequestedAgainAfterARefusal)
{
    char buffer[16];
    const OutOfMemory once(1, 1);
    EXPECT_EQ(
        FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%*9$.*8$d", 1, 2, 3, 4, 5, 6, 7, 8, 9),
        -1);
    EXPECT_TRUE(once.Showed());
}

TEST(FormatMemoryDeathTest, AbortsWithoutAnyForThePositionsTypes)
{
    EXPECT_EXIT(
        {
            const OutOfMemory once(0, 1);
            char buffer[16];
            FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%8$d", 1, 2, 3, 4, 5, 6, 7, 8);
        },
        testing::KilledBySignal(SIGABRT), "");
}

TEST(FormatMemory, FailsTheCallWhenTheBlockCannotGrow)
{
    const std::string word(200, 'x');
    const OutOfMemory once(1, 1);
    EXPECT_EQ(FormatWith(bsd_vsnprintf, "%s", word.c_str()), "(failed)");
    EXPECT_TRUE(once.Showed());
}

TEST(FormatMemory, IsAllGivenBack)
{
    Format("%f", 1.5); // the converter keeps what it takes the first time
    const std::string word(200, 'x');
    for (size_t granted = 0;; granted++) {
        if (granted == 1) { continue; } // without the types' table it aborts
        char *buffer = nullptr;
        const ptrdiff_t before = Allocations::Live();
        const OutOfMemory once(granted, 1);
        const int length =
            FormatNew(&buffer, "%9$s%f%ls%1$g", 1.5, L"wide", 0, 0, 0, 0, 0, 0, word.c_str());
        free(buffer);
        EXPECT_EQ(Allocations::Live(), before) << granted;
        if (!once.Showed()) {
            EXPECT_GT(length, 200);
            break;
        }
    }
}

// ---- What is too long

TEST(FormatTooLong, IsWhatAnIntCannotCount)
{
    char buffer[8];
    for (const char *format :
         {"%2147483648d", "x%2147483647d", "%99999999999999999999d", "%.2147483648d",
          "%.2147483647f", "%#.2147483646x", "%-2147483648d", "%2147483648%"}) {
        EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, sizeof buffer, format, 1), -1) << format;
    }
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%*d", INT_MIN, 1), -1);
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%.99999999999s", "abc"), 3)
        << "a precision only limits";
}

TEST(FormatTooLong, TakesNoMemoryToSay)
{
    EXPECT_EQ(Allocations::SizesIn(
                  [] { EXPECT_EQ(FormatWith(bsd_vsnprintf, "%2147483648d", 1), "(failed)"); }),
              (std::vector<size_t>{64}));
}

TEST(FormatTooLong, IsCountedByTheByte)
{
    // One word of a gigabyte, which is the same two megabytes over and over.
    constexpr size_t CHUNK = 2 << 20, CHUNKS = 512, SIZE = CHUNK * CHUNKS;
    const int file = memfd_create("word", 0);
    ASSERT_EQ(ftruncate(file, CHUNK), 0);
    void *place = mmap(nullptr, SIZE + CHUNK, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(place, MAP_FAILED);
    char *word = static_cast<char *>(place);
    for (size_t i = 0; i < CHUNKS; i++) {
        ASSERT_NE(
            mmap(word + i * CHUNK, CHUNK, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0),
            MAP_FAILED);
    }
    memset(word, 'x', CHUNK);
    char buffer[4];
    const auto length = [&](const char *format, auto... words) {
        return FormatInto(bsd_vsnprintf, buffer, sizeof buffer, format, words...);
    };
    EXPECT_EQ(length("%s%s", word, word + 1), INT_MAX);
    EXPECT_EQ(length("%s%s", word, word), -1);
    EXPECT_EQ(length("%s%s%s%s%s", word, word, word, word, word), -1)
        << "nor what 32 bits leave of it";
    EXPECT_EQ(length("%s%s%%", word, word + 1), -1);
    EXPECT_EQ(length("%s%s%lc", word, word + 1, L'x'), -1);
    EXPECT_EQ(length("%s%sx", word, word + 1), -1) << "literal text counts as well";
    munmap(place, SIZE + CHUNK);
    close(file);
}

TEST(FormatTooLong, DoesNotBecomeSmallAgain)
{
    char buffer[8];
    for (const char *format : {"%18446744073709551617d", "%.18446744073709551618d"}) {
        EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, sizeof buffer, format, 1), -1) << format;
    }
}

} // namespace
