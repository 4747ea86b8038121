// Tests of floating numbers, and of numbers in other locales.
#include "bsd_vsnprintf.h"

#include "formatForTests.h"
#include "scopedForTests.h"

#include <cfloat>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <pthread.h>
#include <random>
#include <vector>

static const char *sDigits; // what the converters return instead of their own result
static int sPoint, sSign;
static bool sConverterFails;
static std::vector<int> sAsked; // the number of digits in each call of a converter
static char sSharedDigits[32];  // another thread's digits overwrite it once nothing is locked
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

// While the object lives, the converters return these digits.
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

// On x86-64 the result of 0.0 / 0.0 has its sign bit set.
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
                    } // the engine rounds these in its own way
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

// Makes locales that group digits differently, with the C library's compiler of locales.
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

// Formats with the given conventions, for which no locale is needed.
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

} // namespace
