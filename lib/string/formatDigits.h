// formatDigits.h -- numbers to digits.  Those of integers are here to be inlined: they are most.
#ifndef PELAGO_STRING_FORMATDIGITS_H
#define PELAGO_STRING_FORMATDIGITS_H

#include "scoped.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace pelago {

// The trailing "?" is never printed.
constexpr char FORMAT_LOWER_DIGITS[] = "0123456789abcdef?";
constexpr char FORMAT_UPPER_DIGITS[] = "0123456789ABCDEF?";

// A group of this size has no end, as localeconv() has it.
constexpr char FORMAT_ENDLESS_GROUP = 127;
constexpr char FORMAT_NO_GROUPING[] = {FORMAT_ENDLESS_GROUP, '\0'};

// Eight digits are one word, the first in its lowest byte.  Written at once, they are also read at
// once when they are copied; written one by one, they would make the copy wait.
static_assert(std::endian::native == std::endian::little);
constexpr uint64_t FORMAT_ZERO_DIGITS = 0x3030303030303030;

// Each digit as a number, of a value below 10^8: halves, quarters, and then digits side by side.
inline uint64_t FormatEightDecimal(uint32_t value)
{
    const uint64_t halves = value / 10000 | uint64_t{value % 10000} << 32;
    const uint64_t hundreds = (halves * 10486 >> 20) & 0x0000007F0000007F; // by 100, below 10000
    const uint64_t quarters = hundreds | (halves - 100 * hundreds) << 16;
    const uint64_t tens = (quarters * 103 >> 10) & 0x000F000F000F000F; // by 10, below 100
    return tens | (quarters - 10 * tens) << 8;
}

inline uint64_t FormatEightHexadecimal(uint32_t value)
{
    uint64_t word = value;
    word = (word << 16 | word) & 0x0000FFFF0000FFFF;
    word = (word << 8 | word) & 0x00FF00FF00FF00FF;
    word = (word << 4 | word) & 0x0F0F0F0F0F0F0F0F;
    return __builtin_bswap64(word);
}

// Writes eight characters before end, and returns where they start but for zeros.
inline char *FormatWriteEight(char *end, uint64_t characters, uint64_t numbers)
{
    memcpy(end - sizeof characters, &characters, sizeof characters);
    const int zeros = numbers == 0 ? 7 : __builtin_ctzll(numbers) / 8;
    return end - sizeof characters + zeros;
}

inline char *FormatDecimalDigits(uint64_t value, char *end)
{
    constexpr uint64_t EIGHT = 100000000;
    for (; value >= EIGHT; value /= EIGHT, end -= 8) {
        const uint64_t last = FormatEightDecimal(static_cast<uint32_t>(value % EIGHT));
        FormatWriteEight(end, last + FORMAT_ZERO_DIGITS, last);
    }
    const uint64_t first = FormatEightDecimal(static_cast<uint32_t>(value));
    return FormatWriteEight(end, first + FORMAT_ZERO_DIGITS, first);
}

inline char *FormatHexadecimalDigits(uint64_t value, char *end, const char *digits)
{
    const uint64_t toLetter = static_cast<uint64_t>(digits[10] - '0' - 10);
    for (;; value >>= 32, end -= 8) {
        const uint64_t numbers = FormatEightHexadecimal(static_cast<uint32_t>(value));
        const uint64_t letters = ((numbers + 0x0606060606060606) >> 4) & 0x0101010101010101;
        const uint64_t characters = numbers + FORMAT_ZERO_DIGITS + letters * toLetter;
        char *start = FormatWriteEight(end, characters, numbers);
        if (value >> 32 == 0) { return start; }
    }
}

inline char *FormatOctalDigits(uint64_t value, char *end, const char *digits)
{
    do {
        *--end = digits[value & 7];
        value >>= 3;
    } while (value != 0);
    return end;
}

inline char *FormatGroupedDigits(uint64_t value, char *end, char separator, const char *grouping)
{
    int inGroup = 0;
    for (;;) {
        *--end = static_cast<char>('0' + value % 10);
        value /= 10;
        if (value == 0) { return end; }
        inGroup++;
        if (inGroup == *grouping) { // which FORMAT_ENDLESS_GROUP is too large for
            *--end = separator;
            inGroup = 0;
            grouping += grouping[1] != '\0';
        }
    }
}

// Writes the value backwards from end in base 8, 10 or 16, and returns where it starts; any other
// base aborts.  Zero is one digit.  alternate has octal begin with "0".  In base 10, when grouped,
// the separator stands between groups; grouping holds their sizes from the right, a byte for each,
// and the last of them repeats.  At most BSD_ULTOA_SIZE bytes are written.
inline char *bsd_ultoa(uint64_t value, char *end, int base, bool alternate, const char *digits,
                       bool grouped, char separator, const char *grouping)
{
    switch (base) {
    case 10:
        return grouped ? FormatGroupedDigits(value, end, separator, grouping)
                       : FormatDecimalDigits(value, end);
    case 8:
        end = FormatOctalDigits(value, end, digits);
        if (alternate && *end != '0') { *--end = '0'; }
        return end;
    case 16: return FormatHexadecimalDigits(value, end, digits);
    default: abort();
    }
}
constexpr size_t BSD_ULTOA_SIZE = 20 + 19; // decimal, in groups of one

// Writes letter, sign and at least two digits, and returns how many bytes these are.
size_t bsd_exponent(char *output, int exponent, char letter);
constexpr size_t BSD_EXPONENT_SIZE = 2 + 10; // "e-2147483648"

// A double in decimal: text's digits up to end, the decimal point before the one at the index
// point, which may lie outside of them.  text is NULL when there was no memory.
struct FormatDecimal {
    ScopedFree<char> text;
    const char *end = nullptr;
    int point = 0;
    int sign = 0; // not 0: negative
};

enum FormatMode : int {
    FORMAT_SIGNIFICANT = 2, // so many digits in all
    FORMAT_FRACTION = 3,    // so many behind the point
};

// The digits of a value, without the zeros at their end but for the first digit; a value that is
// not finite is spelt out.  Correctly rounded, and to any number of digits.
FormatDecimal bsd_cvt(FormatMode mode, int digits, double value);

} // namespace pelago

#endif // PELAGO_STRING_FORMATDIGITS_H
