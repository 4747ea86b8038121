// formatDirective.cpp -- reading a directive of a format.
#include "formatDirective.h"

#include <algorithm>
#include <array>

namespace pelago {

namespace {

// The letters that only set a flag.
constexpr auto FLAG_OF = [] {
    std::array<unsigned short, UCHAR_MAX + 1> flags = {};
    flags[' '] = FORMAT_BLANK;
    flags['#'] = FORMAT_ALTERNATE;
    flags['\''] = FORMAT_GROUPED;
    flags['+'] = FORMAT_PLUS;
    flags['-'] = FORMAT_LEFT;
    flags['0'] = FORMAT_ZEROES;
    flags['L'] = flags['q'] = FORMAT_WIDE;
    flags['j'] = flags['t'] = flags['z'] = flags['Z'] = FORMAT_SIZE;
    return flags;
}();

int64_t ReadNumber(const char **text)
{
    int64_t number = 0;
    for (; **text >= '0' && **text <= '9'; ++*text) {
        number = std::min(number * 10 + (**text - '0'), FORMAT_TOO_LARGE);
    }
    return number;
}

// Reads "n$" after a star, and returns n.  Returns 0 for anything else, which stays unread.
int64_t ReadPosition(const char **text)
{
    const char *end = *text;
    const int64_t position = ReadNumber(&end);
    if (*end != '$' || position == 0) { return 0; }
    *text = end + 1;
    return position;
}

// Reads a width, or "n$", the position of the conversion's argument.
const char *ReadWidth(const char *text, FormatDirective *directive)
{
    const int64_t number = ReadNumber(&text);
    if (*text != '$') {
        directive->width = number;
        return text;
    }
    directive->index = number;
    return text + 1;
}

// Adds a letter "h" or "l": the first one sets `once`, and the second replaces it by `twice`.
void SetSize(unsigned once, unsigned twice, unsigned *flags)
{
    *flags ^= once;
    if (!(*flags & once)) { *flags |= twice; }
}

// Reads the size after "I": "64" is long long, "32" is int, and without a number it is size_t.
const char *ReadSizeInBits(const char *text, unsigned *flags)
{
    if (text[0] == '3' && text[1] == '2') { return text + 2; }
    if (text[0] != '6' || text[1] != '4') {
        *flags |= FORMAT_SIZE;
        return text;
    }
    *flags |= FORMAT_WIDE;
    return text + 2;
}

} // namespace

const char *FormatRead(const char *text, FormatDirective *directive)
{
    for (;;) {
        const char letter = *text;
        if (letter >= '1' && letter <= '9') {
            text = ReadWidth(text, directive);
            continue;
        }
        text += letter != '\0';
        directive->flags |= FLAG_OF[static_cast<unsigned char>(letter)];
        if (FLAG_OF[static_cast<unsigned char>(letter)] != 0) { continue; }
        switch (letter) {
        case 'h': SetSize(FORMAT_SHORT, FORMAT_CHAR, &directive->flags); continue;
        case 'l': SetSize(FORMAT_LONG, FORMAT_WIDE, &directive->flags); continue;
        case 'I': text = ReadSizeInBits(text, &directive->flags); continue;
        case FORMAT_PRECISION_STAR:
            if (*text != FORMAT_WIDTH_STAR) {
                directive->precision = ReadNumber(&text);
                continue;
            }
            text++;
            [[fallthrough]];
        case FORMAT_WIDTH_STAR:
            directive->conversion = letter;
            directive->star = ReadPosition(&text);
            return text;
        case 'C':
        case 'D':
        case 'O':
        case 'S':
        case 'U':
            directive->flags |= FORMAT_LONG;
            directive->conversion = static_cast<char>(letter - 'A' + 'a');
            return text;
        default: directive->conversion = letter; return text;
        }
    }
}

void FormatSetStar(int value, FormatDirective *directive)
{
    if (directive->conversion == FORMAT_PRECISION_STAR) {
        directive->precision = std::max(value, -1);
        return;
    }
    if (value < 0) { directive->flags |= FORMAT_LEFT; }
    directive->width = std::abs(int64_t{value});
}

} // namespace pelago
