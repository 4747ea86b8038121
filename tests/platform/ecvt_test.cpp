// ecvt_test.cpp -- tests that ecvt and fcvt are as the SDK's: exact, with its signs and lengths.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>

extern "C" {
void *__real_malloc(size_t size);
static bool sNoMemory; // malloc() refuses blocks of a megabyte and more
void *__wrap_malloc(size_t size);
void *__wrap_malloc(size_t size)
{
    return sNoMemory && size >= 1U << 20 ? nullptr : __real_malloc(size);
}
}

namespace {

struct Digits {
    std::string text;
    int position, sign;

    bool operator==(const Digits &) const = default;
};

std::ostream &operator<<(std::ostream &stream, const Digits &digits)
{
    return stream << '"' << digits.text << "\", position " << digits.position << ", sign "
                  << digits.sign;
}

using Function = char *(*)(double, int, int *, int *);

Digits Call(Function function, double value, int count)
{
    Digits digits = {"", 12345, 12345};
    const char *text = function(value, count, &digits.position, &digits.sign);
    digits.text = text == nullptr ? "(none)" : text;
    return digits;
}

Digits Ecvt(double value, int count) { return Call(ecvt, value, count); }
Digits Fcvt(double value, int count) { return Call(fcvt, value, count); }

constexpr double INFINITE = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();

// ---- What the SDK's calls return

struct Row {
    const char *name;
    Function function;
    double value;
    int count;
    Digits expected;
};

class CvtTable : public testing::TestWithParam<Row> {};

TEST_P(CvtTable, GivesTheSame)
{
    const Row &row = GetParam();
    EXPECT_EQ(Call(row.function, row.value, row.count), row.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, CvtTable,
    testing::Values(Row{"EcvtHasTheDigitsAskedFor", ecvt, 9.5, 1, {"1", 2, 0}},
                    Row{"EcvtHalfToEven", ecvt, 99.5, 2, {"10", 3, 0}},
                    Row{"EcvtOneDigit", ecvt, 7, 1, {"7", 1, 0}},
                    Row{"EcvtSmall", ecvt, 0.00123, 3, {"123", -2, 0}},
                    Row{"EcvtNegative", ecvt, -12.5, 4, {"1250", 2, 1}},
                    Row{"EcvtLargest", ecvt, DBL_MAX, 17, {"17976931348623157", 309, 0}},
                    Row{"EcvtSmallest", ecvt, 5e-324, 5, {"49407", -323, 0}},
                    Row{"FcvtManyDigits", fcvt, 0.1, 20, {"10000000000000000555", 0, 0}},
                    Row{"FcvtSmallest", fcvt, 5e-324, 330, {"4940656", -323, 0}},
                    Row{"FcvtToNothing", fcvt, 0.001, 1, {"", -1, 0}},
                    Row{"FcvtNegativeToNothing", fcvt, -0.001, 2, {"", -2, 1}},
                    Row{"FcvtDropsLeadingZeros", fcvt, 0.05, 2, {"5", -1, 0}},
                    Row{"FcvtUpToOne", fcvt, 0.999, 2, {"100", 1, 0}},
                    Row{"FcvtWithIntegerPart", fcvt, -1234.5678, 2, {"123457", 4, 1}},
                    Row{"FcvtTieToEven", fcvt, 0.125, 2, {"12", 0, 0}}),
    [](const auto &row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(Zeros, CvtTable,
                         testing::Values(Row{"Ecvt", ecvt, 0.0, 6, {"000000", 1, 0}},
                                         Row{"EcvtMinus", ecvt, -0.0, 6, {"000000", 1, 0}},
                                         Row{"Fcvt", fcvt, 0.0, 6, {"000000", 0, 0}},
                                         Row{"FcvtMinus", fcvt, -0.0, 6, {"000000", 0, 0}}),
                         [](const auto &row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    NotFinite, CvtTable,
    testing::Values(Row{"Ecvt", ecvt, INFINITE, 6, {"inf", 0, 0}},
                    Row{"EcvtMinus", ecvt, -INFINITE, 6, {"inf", 0, 1}},
                    Row{"EcvtNan", ecvt, NOT_A_NUMBER, 6, {"nan", 0, 0}},
                    Row{"EcvtMinusNan", ecvt, -NOT_A_NUMBER, 6, {"nan", 0, 1}},
                    Row{"Fcvt", fcvt, INFINITE, 6, {"inf", 0, 0}},
                    Row{"FcvtMostDigits", fcvt, INFINITE, INT_MAX, {"inf", 0, 0}},
                    Row{"FcvtMinus", fcvt, -INFINITE, 6, {"inf", 0, 1}},
                    Row{"FcvtNan", fcvt, NOT_A_NUMBER, 6, {"nan", 0, 0}},
                    Row{"FcvtMinusNan", fcvt, -NOT_A_NUMBER, 6, {"nan", 0, 1}}),
    [](const auto &row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(NoDigits, CvtTable,
                         testing::Values(Row{"Ecvt", ecvt, 12.5, 0, {"", 0, 0}},
                                         Row{"EcvtMinus", ecvt, -12.5, 0, {"", 0, 1}},
                                         Row{"EcvtFewerThanNone", ecvt, -12.5, -3, {"", 0, 1}},
                                         Row{"EcvtFewest", ecvt, 12.5, INT_MIN, {"", 0, 0}},
                                         Row{"Fcvt", fcvt, 12.5, 0, {"", 0, 0}},
                                         Row{"FcvtMinus", fcvt, -12.5, 0, {"", 0, 1}},
                                         Row{"FcvtFewerThanNone", fcvt, -12.5, -3, {"", 0, 1}},
                                         Row{"FcvtFewest", fcvt, 12.5, INT_MIN, {"", 0, 0}},
                                         Row{"EcvtZero", ecvt, -0.0, 0, {"", 0, 0}},
                                         Row{"FcvtInfinity", fcvt, -INFINITE, 0, {"", 0, 1}}),
                         [](const auto &row) { return row.param.name; });

TEST(Ecvt, HasEveryDigitThereIs)
{
    EXPECT_EQ(Ecvt(0x1p-60, 42), (Digits{"867361737988403547205962240695953369140625", -18, 0}));
}

TEST(Cvt, EndsLongTextWithZeros)
{
    EXPECT_EQ(Ecvt(0.5, 5000).text, "5" + std::string(4999, '0'));
    EXPECT_EQ(Fcvt(0.5, 5000).text, "5" + std::string(4999, '0'));
    EXPECT_EQ(Ecvt(0.0, 5000).text, std::string(5000, '0'));
}

TEST(Cvt, KeepsNoDigitsOfALongerCall)
{
    Fcvt(1e300, 2000);
    EXPECT_EQ(Ecvt(1.5, 2), (Digits{"15", 1, 0}));
    EXPECT_EQ(Fcvt(0.0, 1), (Digits{"0", 0, 0}));
}

TEST(Cvt, HasRoomForMoreDigitsEachTime)
{
    for (int count = 100; count < 100000; count += count / 2) {
        EXPECT_EQ(Fcvt(1e300, count).text.size(), 301U + static_cast<size_t>(count));
        EXPECT_EQ(Ecvt(1e300, count + 350).text.size(), static_cast<size_t>(count + 350));
    }
}

// ---- Without memory

TEST(Cvt, GivesNothingWhenMemoryRunsOut)
{
    sNoMemory = true;
    const Digits results[] = {Ecvt(1.5, 1 << 20), Fcvt(1.5, 1 << 20), Ecvt(0.0, 1 << 20),
                              Fcvt(0.0, INT_MAX)};
    sNoMemory = false;
    for (const Digits &result : results) {
        EXPECT_EQ(result.text, "(none)");
    }
}

TEST(Cvt, WorksAgainAfterMemoryRanOut)
{
    sNoMemory = true;
    EXPECT_EQ(Ecvt(1.5, INT_MAX).text, "(none)");
    sNoMemory = false;
    EXPECT_EQ(Ecvt(1.5, 3), (Digits{"150", 1, 0}));
}

// ---- Exactness, compared with the C library's printf, which is exact to any number of digits

std::string Print(const char *format, int precision, double value)
{
    char text[3000];
    snprintf(text, sizeof text, format, precision, value);
    return text;
}

std::string WithoutPoint(std::string text)
{
    if (const size_t point = text.find('.'); point != std::string::npos) { text.erase(point, 1); }
    return text;
}

Digits EcvtExpected(double value, int count)
{
    const std::string text = Print("%.*e", count - 1, std::fabs(value));
    const size_t exponent = text.find('e');
    return {WithoutPoint(text.substr(0, exponent)), std::stoi(text.substr(exponent + 1)) + 1,
            std::signbit(value)};
}

Digits FcvtExpected(double value, int count)
{
    const std::string text = Print("%.*f", count, std::fabs(value));
    const size_t point = text.find('.');
    if (text.substr(0, point) != "0") {
        return {WithoutPoint(text), static_cast<int>(point), std::signbit(value)};
    }
    const std::string fraction = text.substr(point + 1);
    const size_t zeros = std::min(fraction.find_first_not_of('0'), fraction.size());
    return {fraction.substr(zeros), -static_cast<int>(zeros), std::signbit(value)};
}

void ExpectExact(double value, int count)
{
    ASSERT_EQ(Ecvt(value, count), EcvtExpected(value, count)) << value << ", " << count;
    ASSERT_EQ(Fcvt(value, count), FcvtExpected(value, count)) << value << ", " << count;
}

constexpr int COUNTS[] = {1, 2, 3, 6, 7, 15, 16, 17, 18, 20, 40, 100, 330, 767, 1100};

TEST(Cvt, IsExactForEveryPowerOfTwo)
{
    for (int exponent = -1074; exponent <= 1023; exponent++) {
        for (const int count : COUNTS) {
            ExpectExact(std::ldexp(1.0, exponent), count);
        }
    }
}

TEST(Cvt, IsExactForEveryPowerOfTen)
{
    for (int exponent = -323; exponent <= 308; exponent++) {
        const double power = strtod(("1e" + std::to_string(exponent)).c_str(), nullptr);
        for (const int count : COUNTS) {
            ExpectExact(power, count);
            ExpectExact(std::nextafter(power, 0), count);
        }
    }
}

TEST(Cvt, IsExactForAnyBits)
{
    std::mt19937_64 random(20);
    for (int i = 0; i < 40000; i++) {
        const uint64_t bits = random();
        double value = 0;
        memcpy(&value, &bits, sizeof value);
        if (!std::isfinite(value) || value == 0) { continue; }
        ExpectExact(value, 1 + static_cast<int>(random() % 40));
    }
}

TEST(Cvt, IsExactForDenormals)
{
    std::mt19937_64 random(21);
    for (int i = 0; i < 2000; i++) {
        const double value = std::ldexp(static_cast<double>(1 + random() % (1ULL << 52)), -1074);
        ExpectExact(value, 1 + static_cast<int>(random() % 1100));
    }
}

TEST(Cvt, RoundsTiesToEven)
{
    // k / 2^n has n digits after the point, the last of them 5.
    for (int shift = 1; shift <= 20; shift++) {
        for (int k = 1; k < 400; k += 2) {
            ExpectExact(std::ldexp(k, -shift), std::max(shift - 1, 1));
        }
    }
    EXPECT_EQ(Fcvt(0.375, 2).text, "38");
    EXPECT_EQ(Fcvt(0.625, 2).text, "62");
    EXPECT_EQ(Ecvt(2.5, 1).text, "2");
    EXPECT_EQ(Ecvt(3.5, 1).text, "4");
}

// Outside the ordinary numbers another algorithm finds the digits.
TEST(Cvt, IsExactOnBothSidesOfOrdinaryNumbers)
{
    std::mt19937_64 random(23);
    for (int exponent = -100; exponent <= 160; exponent++) {
        for (int i = 0; i < 40; i++) {
            const double value =
                std::ldexp(1 + static_cast<double>(random() >> 11) * 0x1p-53, exponent);
            for (int count = 1; count <= 24; count++) {
                ExpectExact(value, count);
            }
        }
        for (int count = 1; count <= 24; count++) {
            ExpectExact(std::nextafter(std::ldexp(1, exponent), 0), count);
        }
    }
}

TEST(Cvt, RoundsUpThroughEveryNine)
{
    for (int digits = 1; digits <= 19; digits++) {
        for (const int behind : {0, 1, 2, 5}) {
            const double value = strtod(
                (std::string(static_cast<size_t>(digits), '9') + "." + "99999").c_str(), nullptr);
            ExpectExact(value, digits + behind);
            ExpectExact(-value, digits);
        }
    }
    EXPECT_EQ(Ecvt(9.5, 1), (Digits{"1", 2, 0}));
    EXPECT_EQ(Ecvt(8.5, 1), (Digits{"8", 1, 0}));
    EXPECT_EQ(Fcvt(0.9999, 3), (Digits{"1000", 1, 0}));
}

TEST(Cvt, IsExactForOrdinaryNumbers)
{
    std::mt19937_64 random(22);
    for (int i = 0; i < 100000; i++) {
        const double value =
            static_cast<double>(1 + random() % 10000000000ULL) / std::pow(10, random() % 10);
        ExpectExact(value, 1 + static_cast<int>(random() % 9));
    }
}

} // namespace
