// formatDirective.h -- one directive of a format: "%", its parts, and the letter of its conversion.
#ifndef PELAGO_STRING_FORMATDIRECTIVE_H
#define PELAGO_STRING_FORMATDIRECTIVE_H

#include <climits>
#include <cstddef>
#include <cstdint>

namespace pelago {

enum FormatFlag : unsigned {
    FORMAT_ALTERNATE = 1U << 0,
    FORMAT_BLANK = 1U << 1,
    FORMAT_GROUPED = 1U << 2,
    FORMAT_LEFT = 1U << 3,
    FORMAT_PLUS = 1U << 4,
    FORMAT_ZEROES = 1U << 5,
    // The size of the argument.
    FORMAT_CHAR = 1U << 6,
    FORMAT_SHORT = 1U << 7,
    FORMAT_LONG = 1U << 8,
    FORMAT_WIDE = 1U << 9,  // long long or long double
    FORMAT_SIZE = 1U << 10, // size_t, ptrdiff_t or intmax_t
};

// All of these are 64 bits on both hosts.
constexpr unsigned FORMAT_64_BITS = FORMAT_LONG | FORMAT_WIDE | FORMAT_SIZE;
static_assert(sizeof(long) == 8 && sizeof(intmax_t) == 8 && sizeof(size_t) == 8 &&
              sizeof(ptrdiff_t) == 8);

// More than any output may hold, so that a field this wide makes the call fail.
constexpr int64_t FORMAT_TOO_LARGE = int64_t{INT_MAX} + 1;

struct FormatDirective {
    unsigned flags = 0;
    char conversion = '\0'; // "D" reads as "d" with FORMAT_LONG, and so on; '\0': the format ends
    int64_t width = 0;
    int64_t precision = -1; // -1: none is given
    // Positions of arguments, from 1; 0 is the next argument.
    int64_t index = 0; // the conversion's
    int64_t star = 0;  // the star's, where the reader stopped at one
};

// What the reader stores as the conversion when it stops at a star.
constexpr char FORMAT_WIDTH_STAR = '*';
constexpr char FORMAT_PRECISION_STAR = '.';

inline bool FormatIsAtStar(const FormatDirective &directive)
{
    return directive.conversion == FORMAT_WIDTH_STAR ||
           directive.conversion == FORMAT_PRECISION_STAR;
}

// Continues to read a directive, whose parts come in any order, up to the next part that takes an
// argument: a star or the conversion's letter.  Returns the place after that part.
const char *FormatRead(const char *text, FormatDirective *directive);

// Returns the position if the text after a "%" begins with "1$s" to "9$s", the most frequent
// directives with a position; 0 for any other text.
inline int64_t FormatPositionOfString(const char *text)
{
    const bool isOne = text[0] >= '1' && text[0] <= '9' && text[1] == '$' && text[2] == 's';
    return isOne ? text[0] - '0' : 0;
}
constexpr size_t FORMAT_POSITION_OF_STRING_LENGTH = 3;

// Stores the argument of the star at which the reader stopped.
void FormatSetStar(int value, FormatDirective *directive);

} // namespace pelago

#endif // PELAGO_STRING_FORMATDIRECTIVE_H
