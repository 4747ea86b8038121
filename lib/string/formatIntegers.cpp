// formatIntegers.cpp -- integers and pointers.
#include "formatDigits.h"
#include "formatField.h"

#include <algorithm>

namespace pelago {

namespace {

int64_t TakeSigned(const FormatDirective &directive, FormatArguments *arguments)
{
    if (directive.flags & FORMAT_64_BITS) { return arguments->Take<long>(directive.index); }
    const int value = arguments->Take<int>(directive.index);
    if (directive.flags & FORMAT_SHORT) { return static_cast<short>(value); }
    // NOLINTNEXTLINE(bugprone-signed-char-misuse): a number, and its sign is wanted
    if (directive.flags & FORMAT_CHAR) { return static_cast<signed char>(value); }
    return value;
}

uint64_t TakeUnsigned(const FormatDirective &directive, FormatArguments *arguments)
{
    if (directive.flags & FORMAT_64_BITS) {
        return arguments->Take<unsigned long>(directive.index);
    }
    const unsigned value = arguments->Take<unsigned>(directive.index);
    if (directive.flags & FORMAT_SHORT) { return static_cast<unsigned short>(value); }
    if (directive.flags & FORMAT_CHAR) { return static_cast<unsigned char>(value); }
    return value;
}

// An integer's text: a sign or a prefix, and digits.
struct Integer {
    char digits[FORMAT_MOST_DIGITS];
    char *end;
    std::string_view lead = "";

    int64_t Length() const { return end - digits; }
};

void WriteSigned(const FormatDirective &directive, int64_t value, Integer *integer)
{
    const uint64_t bits = static_cast<uint64_t>(value);
    integer->end = FormatWriteDecimal(integer->digits, value < 0 ? 0 - bits : bits);
    integer->lead = FormatSign(directive, value < 0);
}

void WriteOctal(const FormatDirective &directive, uint64_t value, Integer *integer)
{
    char *to = integer->digits;
    if ((directive.flags & FORMAT_ALTERNATE) && value != 0) { *to++ = '0'; }
    integer->end = FormatWriteOctal(to, value);
}

void WriteHexadecimal(const FormatDirective &directive, uint64_t value, Integer *integer)
{
    const bool isLower = directive.conversion == 'x';
    integer->end = FormatWriteHexadecimal(integer->digits, value,
                                          isLower ? FORMAT_LOWER_DIGITS : FORMAT_UPPER_DIGITS);
    if ((directive.flags & FORMAT_ALTERNATE) && value != 0) {
        integer->lead = isLower ? "0x" : "0X";
    }
}

void WriteInteger(const FormatDirective &directive, FormatArguments *arguments, Integer *integer)
{
    switch (directive.conversion) {
    case 'u':
        integer->end = FormatWriteDecimal(integer->digits, TakeUnsigned(directive, arguments));
        break;
    case 'o': WriteOctal(directive, TakeUnsigned(directive, arguments), integer); break;
    case 'x':
    case 'X': WriteHexadecimal(directive, TakeUnsigned(directive, arguments), integer); break;
    case 'p':
        integer->end = FormatWriteHexadecimal(
            integer->digits, reinterpret_cast<uintptr_t>(arguments->Take<void *>(directive.index)),
            FORMAT_UPPER_DIGITS);
        break;
    default: WriteSigned(directive, TakeSigned(directive, arguments), integer);
    }
}

bool IsDecimal(char conversion)
{
    return conversion == 'd' || conversion == 'i' || conversion == 'u';
}

bool PrintGrouped(const FormatDirective &directive, const Integer &integer, FormatCall *call)
{
    const FormatGroups groups(integer.Length(), call->conventions.Grouping());
    const int64_t size = integer.Length() + groups.Separators();
    const int64_t zeroes = std::max<int64_t>(directive.precision - size, 0);
    const auto body = [&](FormatCursor *cursor) {
        cursor->Fill('0', static_cast<size_t>(zeroes));
        groups.Print(
            [&](int64_t index, int64_t count) {
                cursor->Text(integer.digits + index, static_cast<size_t>(count));
            },
            [&] { cursor->Character(call->conventions.Separator()); });
    };
    return FormatField(directive, &call->output, integer.lead, static_cast<size_t>(zeroes + size),
                       body, /* zeroesAllowed */ directive.precision < 0);
}

// Writes an integer, padded to its width, at a place that must have room for it.  Returns the end.
char *WriteShort(const FormatShortDirective &directive, bool isNegative, uint64_t magnitude,
                 char *at)
{
    const char letter = *directive.letter;
    const bool isDecimal = letter == 'd' || letter == 'u';
    const size_t digits =
        isDecimal ? FormatDecimalLength(magnitude) : FormatHexadecimalLength(magnitude);
    const size_t length = digits + (isNegative ? 1 : 0);
    const size_t fill = std::max(directive.width, length) - length;
    if (!directive.isLeft && !directive.isZeroed) { at = FormatFill(at, ' ', fill); }
    if (isNegative) { *at++ = '-'; }
    if (directive.isZeroed) { at = FormatFill(at, '0', fill); }
    if (isDecimal) {
        at = FormatWriteDecimal(at, magnitude);
    } else {
        at = FormatWriteHexadecimal(at, magnitude,
                                    letter == 'x' ? FORMAT_LOWER_DIGITS : FORMAT_UPPER_DIGITS);
    }
    return directive.isLeft ? FormatFill(at, ' ', fill) : at;
}

} // namespace

bool FormatShortInteger(const FormatShortDirective &directive, FormatCall *call)
{
    FormatCursor cursor = call->output.Cursor();
    if (cursor.Room() < directive.width + FORMAT_MOST_DIGITS) { return false; }
    bool isNegative = false;
    const uint64_t magnitude = FormatTakeMagnitude(*directive.letter == 'd', directive.isLong,
                                                   &call->arguments, &isNegative);
    cursor.at = WriteShort(directive, isNegative, magnitude, cursor.at);
    call->output.Finish(cursor);
    return true;
}

bool FormatInteger(const FormatDirective &directive, FormatCall *call)
{
    Integer integer;
    WriteInteger(directive, &call->arguments, &integer);
    if (directive.precision == 0 && *integer.digits == '0' && integer.Length() == 1 &&
        !(directive.conversion == 'o' && (directive.flags & FORMAT_ALTERNATE))) {
        integer.end = integer.digits; // a zero with precision 0 has no digits
    }
    if ((directive.flags & FORMAT_GROUPED) && IsDecimal(directive.conversion)) {
        return PrintGrouped(directive, integer, call);
    }
    const size_t length = static_cast<size_t>(integer.Length());
    const int64_t zeroes = std::max<int64_t>(directive.precision - integer.Length(), 0);
    const auto body = [&](FormatCursor *cursor) {
        cursor->Fill('0', static_cast<size_t>(zeroes));
        cursor->Text(integer.digits, length);
    };
    return FormatField(directive, &call->output, integer.lead, static_cast<size_t>(zeroes) + length,
                       body, /* zeroesAllowed */ directive.precision < 0);
}

} // namespace pelago
