// formatConverter.h -- doubles to digits, by the C library.
#ifndef PELAGO_STRING_FORMATCONVERTER_H
#define PELAGO_STRING_FORMATCONVERTER_H

namespace pelago {

// A double in decimal.  The digits reach from text to end.  The decimal point is before the digit
// with the index `point`, which may lie outside of the digits.  text is a block, which the caller
// frees; NULL when there was no memory.
struct FormatDecimal {
    char *text = nullptr;
    const char *end = nullptr;
    int point = 0;
    int sign = 0; // not 0: negative
};

enum FormatMode : int {
    FORMAT_SIGNIFICANT = 2, // digits in all
    FORMAT_FRACTION = 3,    // digits after the point
};

// Returns the digits of a value, correctly rounded to any number of digits.  Zeros at the end are
// left out, except for a first digit.  A value that is not finite is spelt out.
FormatDecimal bsd_cvt(FormatMode mode, int digits, double value);

} // namespace pelago

#endif // PELAGO_STRING_FORMATCONVERTER_H
