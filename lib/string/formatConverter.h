// formatConverter.h -- doubles to digits, by the C library.
#ifndef PELAGO_STRING_FORMATCONVERTER_H
#define PELAGO_STRING_FORMATCONVERTER_H

namespace pelago {

// A double in decimal: text's digits up to end, the decimal point before the one at the index
// point, which may lie outside of them.  text is a block, which the caller frees; NULL when there
// was no memory.
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

// The digits of a value, without the zeros at their end but for the first digit; a value that is
// not finite is spelt out.  Correctly rounded, and to any number of digits.
FormatDecimal bsd_cvt(FormatMode mode, int digits, double value);

} // namespace pelago

#endif // PELAGO_STRING_FORMATCONVERTER_H
