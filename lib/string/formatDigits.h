// formatDigits.h -- numbers to digits.
#ifndef PELAGO_STRING_FORMATDIGITS_H
#define PELAGO_STRING_FORMATDIGITS_H

#include "scoped.h"

#include <cstddef>
#include <cstdint>

// The trailing "?" is never printed.
constexpr char FORMAT_LOWER_DIGITS[] = "0123456789abcdef?";
constexpr char FORMAT_UPPER_DIGITS[] = "0123456789ABCDEF?";

// A group of this size has no end, as localeconv() has it.
constexpr char FORMAT_ENDLESS_GROUP = 127;
constexpr char FORMAT_NO_GROUPING[] = {FORMAT_ENDLESS_GROUP, '\0'};

// Writes the value backwards from end in base 8, 10 or 16, and returns where it starts; any other
// base aborts.  Zero is one digit.  alternate has octal begin with "0".  In base 10, when grouped,
// the separator stands between groups; grouping holds their sizes from the right, a byte for each,
// and the last of them repeats.  At most BSD_ULTOA_SIZE bytes are written.
char *bsd_ultoa(uint64_t value, char *end, int base, bool alternate, const char *digits,
                bool grouped, char separator, const char *grouping);
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
