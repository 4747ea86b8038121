// randomFloats.cpp -- random floating-point formats, each compared with the C library's exact
// digits.
//
// randomFloats COUNT [SEED] compares COUNT outputs: conversions e, f and g in both cases, with
// flags, widths and precisions of 0 to 40, of values that are drawn from all bit patterns, from
// short decimals, from halves and from powers of two and ten.  Exit status: 0 when all are equal;
// else 1, after the first that is not.
#include "bsd_vsnprintf.h"

#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

namespace {

constexpr size_t ROOM = 512; // more than 309 digits, a point and 40 digits

struct Directive {
    char format[32];
    int width;
    int precision;
    bool isWhole; // "%.0f": the library rounds halves away from zero, the C library to even
};

__attribute__((noinline)) int Ours(char *room, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = bsd_vsnprintf_c_locale(&room, ROOM, format, arguments);
    va_end(arguments);
    return length;
}

double Value(std::mt19937_64 &random)
{
    const uint64_t bits = random();
    switch (random() % 6) {
    case 0: return static_cast<double>(static_cast<int64_t>(bits >> 44)) / 1000.0;
    case 1: return static_cast<double>(bits % 2000001) / 2 - 500000;
    case 2: return std::ldexp(1.0, static_cast<int>(bits % 2098) - 1074);
    case 3: return std::pow(10.0, static_cast<int>(bits % 632) - 323);
    default:
        double value;
        memcpy(&value, &bits, sizeof value);
        return value;
    }
}

Directive RandomDirective(std::mt19937_64 &random)
{
    const uint64_t bits = random();
    const char letter = "eEfFgG"[bits % 6];
    const bool isGeneral = letter == 'g' || letter == 'G';
    Directive directive = {"%", static_cast<int>(bits >> 8 & 63),
                           static_cast<int>((bits >> 16) % 41), false};
    char *end = directive.format + 1;
    // The C library's "#" with "g" loses zeros if rounding adds a digit.
    for (const char flag : {'-', '+', ' ', '0', '#'}) {
        const bool isSet = (bits >> (24 + flag % 16) & 3) == 0;
        if (isSet && !(flag == '#' && isGeneral)) { *end++ = flag; }
    }
    memcpy(end, "*.*", 3);
    end[3] = letter;
    directive.isWhole = (letter == 'f' || letter == 'F') && directive.precision == 0;
    return directive;
}

bool IsEqual(const Directive &directive, double value)
{
    char ours[ROOM], exact[ROOM];
    const int length = Ours(ours, directive.format, directive.width, directive.precision, value);
    // The library writes zero and NaN without a sign; std::round() is exact.
    double same = directive.isWhole ? std::round(value) : value;
    if (same == 0 || std::isnan(same)) { same = std::fabs(same); }
    const int expected =
        snprintf(exact, sizeof exact, directive.format, directive.width, directive.precision, same);
    if (length == expected && strcmp(ours, exact) == 0) { return true; }
    fprintf(stderr, "\"%s\" with %d, %d and %a gives \"%s\", not \"%s\"\n", directive.format,
            directive.width, directive.precision, value, ours, exact);
    return false;
}

} // namespace

int main(int argc, char **argv)
{
    const uint64_t count = argc > 1 ? strtoull(argv[1], nullptr, 10) : 0;
    if (count == 0) {
        fputs("usage: randomFloats COUNT [SEED]\n", stderr);
        return 2;
    }
    std::mt19937_64 random(argc > 2 ? strtoull(argv[2], nullptr, 10) : 1);
    for (uint64_t i = 0; i < count; i++) {
        const Directive directive = RandomDirective(random);
        if (!IsEqual(directive, Value(random))) { return 1; }
    }
    printf("%llu outputs are equal\n", static_cast<unsigned long long>(count));
}
