// formatDigits.h -- numbers to digits.  Those of integers are here to be inlined: they are most.
#ifndef PELAGO_STRING_FORMATDIGITS_H
#define PELAGO_STRING_FORMATDIGITS_H

#include "scoped.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

// The trailing "?" is never printed.
constexpr char FORMAT_LOWER_DIGITS[] = "0123456789abcdef?";
constexpr char FORMAT_UPPER_DIGITS[] = "0123456789ABCDEF?";

// A group of this size has no end, as localeconv() has it.
constexpr char FORMAT_ENDLESS_GROUP = 127;
constexpr char FORMAT_NO_GROUPING[] = {FORMAT_ENDLESS_GROUP, '\0'};

// "00" to "99", so that two digits take one division.
inline constexpr struct FormatDigitPairs {
    char text[200];
    constexpr FormatDigitPairs() : text()
    {
        for (int i = 0; i < 100; i++) {
            text[2 * i] = static_cast<char>('0' + i / 10);
            text[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
    }
} FORMAT_DIGIT_PAIRS;

inline char *FormatDecimalDigits(uint64_t value, char *end)
{
    for (; value >= 100; value /= 100) {
        end -= 2;
        memcpy(end, FORMAT_DIGIT_PAIRS.text + 2 * (value % 100), 2);
    }
    if (value < 10) {
        *--end = static_cast<char>('0' + value);
        return end;
    }
    end -= 2;
    memcpy(end, FORMAT_DIGIT_PAIRS.text + 2 * value, 2);
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
        if (inGroup == *grouping && *grouping != FORMAT_ENDLESS_GROUP) {
            *--end = separator;
            inGroup = 0;
            grouping += grouping[1] != '\0';
        }
    }
}

inline char *FormatBitDigits(uint64_t value, char *end, int bits, const char *digits)
{
    do {
        *--end = digits[value & ((1U << bits) - 1)];
        value >>= bits;
    } while (value != 0);
    return end;
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
        end = FormatBitDigits(value, end, 3, digits);
        if (alternate && *end != '0') { *--end = '0'; }
        return end;
    case 16: return FormatBitDigits(value, end, 4, digits);
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
FormatDecimal bsd_ldcvt(FormatMode mode, int digits, long double value);

#endif // PELAGO_STRING_FORMATDIGITS_H
