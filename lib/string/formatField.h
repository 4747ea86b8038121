// formatField.h -- prints the field of a conversion, padded to its width.
#ifndef PELAGO_STRING_FORMATFIELD_H
#define PELAGO_STRING_FORMATFIELD_H

#include "formatArguments.h"
#include "formatConventions.h"
#include "formatDirective.h"
#include "formatOutput.h"

#include <string_view>

namespace pelago {

// One call of the engine.
struct FormatCall {
    FormatOutput output;
    FormatArguments arguments;
    FormatConventions &conventions;
};

// Each takes the directive's argument and prints it.  False when the whole call must fail.
bool FormatInteger(const FormatDirective &directive, FormatCall *call); // d i u o x X p
bool FormatCharacter(const FormatDirective &directive, FormatCall *call);
bool FormatString(const FormatDirective &directive, FormatCall *call);
bool FormatFloating(const FormatDirective &directive, FormatCall *call); // e E f F g G

// A directive of at most a flag "-" or "0", a width, a size "l", "ll" or "z", and the letter.
struct FormatShortDirective {
    bool isLeft, isZeroed, isLong;
    size_t width;
    const char *letter; // the next character, which need not be a conversion's

    bool IsInteger() const
    {
        return *letter == 'd' || *letter == 'u' || *letter == 'x' || *letter == 'X';
    }
};

// Reads a short directive from the place after its "%".
inline FormatShortDirective FormatReadShort(const char *text)
{
    const bool isLeft = *text == '-', isZeroed = *text == '0';
    text += isLeft || isZeroed;
    constexpr size_t LARGE_WIDTH =
        1000; // ends the width, so that its next digit becomes the letter
    size_t width = 0;
    for (; *text >= '0' && *text <= '9' && width < LARGE_WIDTH; text++) {
        width = width * 10 + static_cast<size_t>(*text - '0');
    }
    const char *letter = text;
    while (*letter == 'l' || *letter == 'z') {
        letter++;
    }
    return {isLeft, isZeroed, letter != text, width, letter};
}

// Takes an int or, if isLong, an integer of 64 bits, and returns its magnitude.
inline uint64_t FormatTakeMagnitude(bool isSigned, bool isLong, FormatArguments *arguments,
                                    bool *isNegative)
{
    const int64_t value = isLong ? arguments->Take<long>(0) : arguments->Take<int>(0);
    *isNegative = isSigned && value < 0;
    if (*isNegative) { return 0 - static_cast<uint64_t>(value); }
    return isLong ? static_cast<uint64_t>(value) : static_cast<unsigned>(value);
}

// Takes an integer and prints it.  False, with nothing done, when there may be no room for it.
bool FormatShortInteger(const FormatShortDirective &directive, FormatCall *call);

// Prints a field: the lead, which is a sign or a prefix, and the bodySize bytes that body writes at
// a cursor.
template <typename Body>
bool FormatField(const FormatDirective &directive, FormatOutput *output, std::string_view lead,
                 size_t bodySize, const Body &body, bool zeroesAllowed = true)
{
    const size_t size = lead.size() + bodySize;
    const size_t total = std::max(size, static_cast<size_t>(directive.width));
    if (!output->Begin(total)) { return false; }
    size_t left = 0, zeroes = 0, right = 0; // what fills the width
    const size_t fill = total - size;
    if (directive.flags & FORMAT_LEFT) {
        right = fill;
    } else {
        (zeroesAllowed && (directive.flags & FORMAT_ZEROES) ? zeroes : left) = fill;
    }
    FormatCursor cursor = output->Cursor();
    cursor.Fill(' ', left);
    for (const char character : lead) {
        cursor.Character(character);
    }
    cursor.Fill('0', zeroes);
    body(&cursor);
    cursor.Fill(' ', right);
    output->Finish(cursor, total);
    return true;
}

inline bool FormatField(const FormatDirective &directive, FormatOutput *output, const char *text,
                        size_t length)
{
    return FormatField(directive, output, "", length,
                       [&](FormatCursor *cursor) { cursor->Text(text, length); });
}

inline std::string_view FormatSign(const FormatDirective &directive, bool negative)
{
    if (negative) { return "-"; }
    if (directive.flags & FORMAT_PLUS) { return "+"; }
    return directive.flags & FORMAT_BLANK ? " " : "";
}

} // namespace pelago

#endif // PELAGO_STRING_FORMATFIELD_H
