/*
 * bsd_vsnprintf.h -- the formatting engine of the Str_ functions.  Programs call those instead.
 *
 * FORMATS are printf's, with these parts between "%" and the conversion's letter, in any order:
 *
 *    flags        "-" left-adjusts; "0" pads with zeros, not where an integer has a precision, nor
 *                 for numbers that are not finite; "+" and " " print a sign or a blank before what
 *                 is not negative; "#" is the alternate form; "'" groups the digits before the
 *                 point of decimal numbers as the locale does, where it has a separator
 *    width        a number, "*" for the next int argument, "*3$" for the third argument; a negative
 *                 one left-adjusts
 *    precision    "." and a number (none is 0), "*" or "*3$"; a negative argument counts as no
 *                 precision
 *    size         hh char, h short, l long, ll q L I64 64 bits or a long double, j intmax_t,
 *                 t ptrdiff_t, z Z I size_t; I32 is int
 *    position     "2$" takes the second argument.  In a format with a position anywhere, a
 *                 conversion without one takes the argument after that of the last conversion
 *                 without one; an argument that no conversion names is skipped as an int.
 *
 *    d i u        decimal; D and U are ld and lu
 *    o x X        octal and hexadecimal; "#" puts "0", "0x" or "0X" before what is not zero;
 *                 O is lo
 *    p            a pointer: hexadecimal in upper case, without "0x"
 *    e E f F g G  floating numbers, correctly rounded to any precision; 6 digits by default.
 *                 "%.0f" rounds halves away from zero.  A long double is rounded to a double first.
 *                 Infinities and NaNs print "inf", "-inf" or "nan", in upper case for an upper-case
 *                 letter.  Zero and "nan" never have a minus sign; the flags "+" and " " apply.
 *    c            a byte; lc and C a wide character in the locale's encoding
 *    s            a string up to its NUL, of at most precision bytes; ls and S a wide string as
 *                 UTF-8 whatever the locale, whole characters of at most precision bytes.  NULL
 *                 prints "(null)".
 *    n            prints nothing, and stores the length of the output so far through a pointer to
 *                 an int, short (h), char (hh), or 64-bit integer (any other size)
 *    others       print themselves, with their width: "%%" is "%"; "%a" is "a"
 *
 * A format that ends inside a directive is printed up to that directive.  Of the locale's decimal
 * point and separator only the first byte is used.
 *
 * THE FUNCTIONS format into *bufp, a buffer of size bytes.  When *bufp is NULL they ignore size,
 * allocate a block, and store it in *bufp; the caller releases it with free().  They return the
 * length of the whole output in bytes, its NUL not counted.  Of a caller's buffer they write at
 * most size - 1 bytes of output, and a NUL.
 *
 * The size must be 1 to INT_MAX.  A SIZE OF 0 SETS NO LIMIT: the whole output is written past the
 * end of the buffer, without a NUL.  For a size above INT_MAX the room left is counted in 32 bits.
 * To measure an output, pass a buffer of one byte.
 *
 * They return -1, with *bufp unchanged and without a NUL in the caller's buffer, when memory runs
 * out, when the length would exceed INT_MAX, or when "%lc" has a character that the locale cannot
 * encode.  With a caller's buffer only these need memory: "%ls", floating numbers, and positions
 * above 7, which need 20 bytes for each position up to the highest.  When there is no memory for
 * the types of such positions, the process aborts.
 *
 * Thread-safe as long as no other thread sets the locale.  A lock guards the C library's conversion
 * of floating numbers, so one thread at a time has them converted.
 */
#ifndef PELAGO_BSD_VSNPRINTF_H
#define PELAGO_BSD_VSNPRINTF_H

#include "declarations.h"

#include <stdarg.h>
#include <stddef.h>

PELAGO_BEGIN_DECLARATIONS

/* Formats with the current locale's decimal point, separator and grouping.  A SIZE OF 0 SETS NO
 * LIMIT to what is written into a caller's buffer. */
int bsd_vsnprintf(char **bufp, size_t size, const char *format, va_list arguments);

/* Formats as in the "C" locale: the decimal point is ".", and nothing is grouped.  A SIZE OF 0 SETS
 * NO LIMIT to what is written into a caller's buffer. */
int bsd_vsnprintf_c_locale(char **bufp, size_t size, const char *format, va_list arguments);

/*
 * Formats with the conventions given.  grouping contains the sizes of the groups of digits from the
 * right, a byte for each: the last one repeats, and CHAR_MAX makes one group of all further digits.
 * NULL or "" groups nothing, and so does a thousandsSeparator of '\0'.  Of decimalPoint only the
 * first byte is used; NULL stands for the current locale's.  A SIZE OF 0 SETS NO LIMIT to what is
 * written into a caller's buffer.
 */
int bsd_vsnprintf_core(char **bufp, const char *grouping, char thousandsSeparator,
                       const char *decimalPoint, size_t size, const char *format,
                       va_list arguments);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_BSD_VSNPRINTF_H */
