/*
 * bsd_vsnprintf.h -- the formatting engine under the Str_ functions, which are what to call
 * instead.
 *
 * FORMATS are printf's, with these parts between "%" and the letter of the conversion, in any
 * order:
 *
 *    flags        "-" left-adjusts; "0" pads with zeros, not where an integer has a precision, nor
 *                 for numbers that are not finite; "+" and " " print a sign or a blank before what
 *                 is not negative; "#" is the alternate form; "'" groups the digits before the
 *                 point of decimal numbers as the locale does, where it has a separator
 *    width        a number, "*" for the next int argument, "*3$" for the third argument; a negative
 *                 one left-adjusts
 *    precision    "." and a number (none is 0), "*" or "*3$"; a negative argument is as none
 *    size         hh char, h short, l long, ll q L I64 64 bits or a long double, j intmax_t,
 *                 t ptrdiff_t, z Z I size_t; I32 is int
 *    position     "2$" takes the second argument.  When a format has one of these anywhere, all its
 *                 arguments are found by reading it once from the start; a conversion without a
 *                 position takes the one after that of the last one without.  An argument that
 *                 nothing names is skipped as an int.
 *
 *    d i u        decimal; D and U are ld and lu
 *    o x X        octal and hexadecimal; "#" puts "0", "0x" or "0X" before what is not zero;
 *                 O is lo
 *    p            a pointer: hexadecimal in upper case, without "0x"
 *    e E f F g G  floating numbers, correctly rounded to any precision; 6 digits unless told
 *                 otherwise.  "%.0f" rounds halves away from zero.  A long double is rounded to a
 *                 double first.  What is not finite prints "inf", "-inf" or "nan", and in upper
 *                 case for an upper-case letter.  Zero has no sign, and "nan" none but the "+" or
 *                 the blank that a flag asks for.
 *    c            a byte; lc and C a wide character in the locale's encoding
 *    s            a string up to its NUL, of at most precision bytes; ls and S a wide string as
 *                 UTF-8 whatever the locale, whole characters of at most precision bytes.  NULL
 *                 prints "(null)".
 *    n            prints nothing, and stores how long the output is so far through a pointer to
 *                 an int, short (h), char (hh), or 64-bit integer (any other size)
 *    others       print themselves, with their width: "%%" is "%"; "%a" is "a"
 *
 * A format that ends inside of a directive ends before it.  The decimal point and the separator
 * are the first byte of the locale's.
 *
 * THE FUNCTIONS format into *bufp, which holds size bytes, or, when *bufp is NULL, into a block
 * that they allocate, store there, and leave to the caller to free(); size is not used then.  They
 * return the length of the whole output in bytes, its NUL not counted.  In a buffer of the caller's
 * at most size - 1 bytes of it are stored, and a NUL.  The size must be 1 to INT_MAX: A SIZE OF 0
 * SETS NO LIMIT, the whole output is written past the end of the buffer, without a NUL; and what is
 * left of a size above INT_MAX is counted in 32 bits.  To measure, pass a buffer of one byte.
 *
 * They return -1, with *bufp as it was and without a NUL in the caller's buffer, when memory runs
 * out, when the length would exceed INT_MAX, or when "%lc" has a character that the locale cannot
 * encode.  Only "%ls", floating numbers, and positions above 7 need memory in a buffer of the
 * caller's, the latter 20 bytes for each up to the highest; without any for the types of such
 * positions the process aborts.
 *
 * Thread-safe as long as no other thread sets the locale.  The C library's digits of floating
 * numbers are taken one thread at a time.
 */
#ifndef PELAGO_BSD_VSNPRINTF_H
#define PELAGO_BSD_VSNPRINTF_H

#include "declarations.h"

#include <stdarg.h>
#include <stddef.h>

PELAGO_BEGIN_DECLARATIONS

/* Formats with the current locale's decimal point, separator and grouping.  A size of 0 sets no
 * limit to what is written to a buffer of the caller's. */
int bsd_vsnprintf(char **bufp, size_t size, const char *format, va_list arguments);

/* Formats as the "C" locale does: the decimal point is ".", and nothing is grouped.  A size of 0
 * sets no limit to what is written to a buffer of the caller's. */
int bsd_vsnprintf_c_locale(char **bufp, size_t size, const char *format, va_list arguments);

/*
 * Formats with these conventions.  grouping holds the sizes of the groups of digits from the right,
 * a byte for each: the last of them repeats, and CHAR_MAX makes a group of all that are left.  NULL
 * or "" groups nothing, as does a thousandsSeparator of '\0'.  Of decimalPoint only the first byte
 * is used; NULL is the current locale's.  A size of 0 sets no limit to what is written to a buffer
 * of the caller's.
 */
int bsd_vsnprintf_core(char **bufp, const char *grouping, char thousandsSeparator,
                       const char *decimalPoint, size_t size, const char *format,
                       va_list arguments);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_BSD_VSNPRINTF_H */
