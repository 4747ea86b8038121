// formatDirective.h -- one directive of a format: what stands between "%" and its letter.
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
    // The size of the argument.  FORMAT_WIDE is 64 bits, or a long double.
    FORMAT_CHAR = 1U << 6,
    FORMAT_SHORT = 1U << 7,
    FORMAT_LONG = 1U << 8,
    FORMAT_WIDE = 1U << 9,
    FORMAT_INTMAX = 1U << 10,
    FORMAT_PTRDIFF = 1U << 11,
    FORMAT_SIZE = 1U << 12,
};

// All of these are 64 bits on the hosts that there are.
constexpr unsigned FORMAT_64_BITS =
    FORMAT_LONG | FORMAT_WIDE | FORMAT_INTMAX | FORMAT_PTRDIFF | FORMAT_SIZE;
static_assert(sizeof(long) == 8 && sizeof(intmax_t) == 8 && sizeof(size_t) == 8 &&
              sizeof(ptrdiff_t) == 8);

// More than any output may hold, so that a field this wide makes the call fail.
constexpr int64_t FORMAT_TOO_LARGE = int64_t{INT_MAX} + 1;

struct FormatDirective {
    unsigned flags = 0;
    char conversion = '\0'; // "D" is told as "d" and FORMAT_LONG, and so on; '\0': there is none
    int64_t width = 0;
    int64_t precision = -1; // -1: none is given
    int64_t index = 0;      // of the argument, from 1; 0: the next one
};

// Reads digits, and leaves text behind them.
inline int64_t FormatReadNumber(const char *&text)
{
    int64_t number = 0;
    for (; *text >= '0' && *text <= '9'; text++) {
        number = number * 10 + (*text - '0');
        number = number < FORMAT_TOO_LARGE ? number : FORMAT_TOO_LARGE;
    }
    return number;
}

// Reads "n$", and returns n.  What is something else is left where it is, for 0.
inline int64_t FormatReadPosition(const char *&text)
{
    const char *behind = text;
    const int64_t position = FormatReadNumber(behind);
    if (*behind != '$' || position == 0) { return 0; }
    text = behind + 1;
    return position;
}

// Reads a directive, from behind its "%" to behind its letter, in whatever order its parts
// come, and returns where that is.  Arguments is asked for the values of stars, in their order, and
// told of a position at the first sign of one.
template <typename Arguments>
const char *FormatRead(const char *text, Arguments *arguments, FormatDirective *result)
{
    FormatDirective
        directive; // here and not in *result, which the text might be part of for all one knows
    for (;;) {
        const char letter = *text;
        text += letter != '\0';
        switch (letter) {
        case ' ': directive.flags |= FORMAT_BLANK; break;
        case '#': directive.flags |= FORMAT_ALTERNATE; break;
        case '\'': directive.flags |= FORMAT_GROUPED; break;
        case '+': directive.flags |= FORMAT_PLUS; break;
        case '-': directive.flags |= FORMAT_LEFT; break;
        case '0': directive.flags |= FORMAT_ZEROES; break;
        case '*':
            directive.width = arguments->Star(FormatReadPosition(text));
            if (directive.width < 0) {
                directive.flags |= FORMAT_LEFT;
                directive.width = -directive.width;
            }
            break;
        case '.':
            if (*text == '*') {
                text++;
                directive.precision = arguments->Star(FormatReadPosition(text));
                if (directive.precision < 0) { directive.precision = -1; }
            } else {
                directive.precision = FormatReadNumber(text);
            }
            break;
        case '1':
        case '2':
        case '3':
        case '4':
        case '5':
        case '6':
        case '7':
        case '8':
        case '9': {
            text--;
            const int64_t number = FormatReadNumber(text);
            if (*text == '$') {
                text++;
                arguments->UsePositions();
                directive.index = number;
            } else {
                directive.width = number;
            }
            break;
        }
        case 'h': // the second makes it a char
            directive.flags ^= FORMAT_SHORT;
            directive.flags |= directive.flags & FORMAT_SHORT ? 0U : FORMAT_CHAR;
            break;
        case 'l': // the second makes it wide
            directive.flags ^= FORMAT_LONG;
            directive.flags |= directive.flags & FORMAT_LONG ? 0U : FORMAT_WIDE;
            break;
        case 'L':
        case 'q': directive.flags |= FORMAT_WIDE; break;
        case 'j': directive.flags |= FORMAT_INTMAX; break;
        case 't': directive.flags |= FORMAT_PTRDIFF; break;
        case 'z':
        case 'Z': directive.flags |= FORMAT_SIZE; break;
        case 'I':
            if (text[0] == '6' && text[1] == '4') {
                directive.flags |= FORMAT_WIDE;
                text += 2;
            } else if (text[0] == '3' && text[1] == '2') {
                text += 2;
            } else {
                directive.flags |= FORMAT_SIZE;
            }
            break;
        case 'C':
        case 'D':
        case 'O':
        case 'S':
        case 'U':
            directive.flags |= FORMAT_LONG;
            directive.conversion = static_cast<char>(letter - 'A' + 'a');
            *result = directive;
            return text;
        default:
            directive.conversion = letter;
            *result = directive;
            return text;
        }
    }
}

} // namespace pelago

#endif // PELAGO_STRING_FORMATDIRECTIVE_H
