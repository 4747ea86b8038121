// formatFloating.cpp -- floating numbers: the converter's digits around a point.
#include "formatConverter.h"
#include "formatDigits.h"
#include "formatField.h"

#include <algorithm>
#include <cmath>
#include <strings.h>

namespace pelago {

namespace {

constexpr int64_t DEFAULT_PRECISION = 6;
// No double has more digits than the 1074 of the smallest one's fraction.  More would only be
// zeros, and need memory.
constexpr int64_t MOST_DIGITS = 1074;
constexpr int NO_POINT = 9999; // the converter's position of the point for infinities and NaNs

bool IsSpelt(const FormatDecimal &decimal)
{
    const char *text = decimal.text;
    if (decimal.point == NO_POINT) { return true; }
    if (*text >= '0' && *text <= '9') { return false; } // nearly always
    return strcasecmp(text, "-inf") == 0 || strcasecmp(text, "inf") == 0 ||
           strcasecmp(text, "nan") == 0;
}

// C libraries return an infinity's sign in the text or separately.  A NaN is printed without a
// minus sign, since its sign bit means nothing: on x86-64 0.0 / 0.0 has it set.
bool PrintSpelt(const FormatDirective &directive, const FormatDecimal &decimal,
                FormatOutput *output)
{
    char *text = decimal.text;
    const bool hasSign = *text == '-' || decimal.sign != 0;
    text += *text == '-';
    const bool negative = hasSign && strcasecmp(text, "nan") != 0;
    const char first = directive.conversion >= 'a' ? 'A' : 'a';
    const int toOther = first == 'A' ? 'a' - 'A' : 'A' - 'a';
    size_t length = 0;
    for (; text[length] != '\0'; length++) { // into the case of the conversion's letter
        const int place = text[length] - first;
        if (place >= 0 && place < 26) { text[length] = static_cast<char>(text[length] + toOther); }
    }
    return FormatField(
        directive, output, FormatSign(directive, negative), length,
        [&](FormatCursor *cursor) { cursor->Text(text, length); }, /* zeroesAllowed */ false);
}

// Prints count digits from an index on, and zeros for digits beyond the number's last.
void PrintDigits(const FormatDecimal &decimal, int64_t index, int64_t count, FormatCursor *cursor)
{
    const int64_t there = std::min(std::max<int64_t>(decimal.end - decimal.text - index, 0), count);
    cursor->Text(decimal.text + (there > 0 ? index : 0), static_cast<size_t>(there));
    cursor->Fill('0', static_cast<size_t>(count - there));
}

// Prints the digits before the point, in groups.
[[gnu::noinline]] void PrintGroups(const FormatDecimal &decimal, int64_t whole,
                                   FormatConventions *conventions, FormatCursor *cursor)
{
    FormatGroups(whole, conventions->Grouping())
        .Print([&](int64_t index, int64_t count) { PrintDigits(decimal, index, count, cursor); },
               [&] { cursor->Character(conventions->Separator()); });
}

bool PrintFixed(const FormatDirective &directive, int64_t fraction, const FormatDecimal &decimal,
                FormatCall *call)
{
    const int64_t whole = std::max(decimal.point, 0); // digits before the point
    const bool pointed = fraction > 0 || (directive.flags & FORMAT_ALTERNATE);
    const bool grouped = (directive.flags & FORMAT_GROUPED) != 0;
    const int64_t separators =
        grouped ? FormatGroups(whole, call->conventions.Grouping()).Separators() : 0;
    const auto body = [&](FormatCursor *cursor) {
        if (whole == 0) {
            cursor->Character('0');
        } else if (separators == 0) {
            PrintDigits(decimal, 0, whole, cursor);
        } else {
            PrintGroups(decimal, whole, &call->conventions, cursor);
        }
        if (pointed) { cursor->Character(call->conventions.DecimalPoint()); }
        const int64_t zeroes = std::min(std::max<int64_t>(-decimal.point, 0), fraction);
        cursor->Fill('0', static_cast<size_t>(zeroes));
        PrintDigits(decimal, whole, fraction - zeroes, cursor);
    };
    const int64_t size = std::max<int64_t>(whole, 1) + separators + (pointed ? 1 : 0) + fraction;
    return FormatField(directive, &call->output, FormatSign(directive, decimal.sign != 0),
                       static_cast<size_t>(size), body);
}

// Writes letter, sign and at least two digits, and returns how many bytes these are.
size_t bsd_exponent(char *output, int exponent, char letter)
{
    const int64_t magnitude = std::abs(int64_t{exponent});
    char *to = output;
    *to++ = letter;
    *to++ = exponent < 0 ? '-' : '+';
    if (magnitude < 10) { *to++ = '0'; }
    return static_cast<size_t>(FormatWriteDecimal(to, static_cast<uint64_t>(magnitude)) - output);
}
constexpr size_t EXPONENT_SIZE = 2 + 10; // "e-2147483648"

bool PrintExponential(const FormatDirective &directive, int64_t fraction,
                      const FormatDecimal &decimal, FormatCall *call)
{
    const bool pointed = fraction > 0 || (directive.flags & FORMAT_ALTERNATE);
    char exponent[EXPONENT_SIZE];
    const size_t exponentSize =
        bsd_exponent(exponent, decimal.point - 1, directive.conversion >= 'a' ? 'e' : 'E');
    const auto body = [&](FormatCursor *cursor) {
        PrintDigits(decimal, 0, 1, cursor);
        if (pointed) { cursor->Character(call->conventions.DecimalPoint()); }
        PrintDigits(decimal, 1, fraction, cursor);
        cursor->Text(exponent, exponentSize);
    };
    return FormatField(directive, &call->output, FormatSign(directive, decimal.sign != 0),
                       1 + (pointed ? 1 : 0) + static_cast<size_t>(fraction) + exponentSize, body);
}

bool PrintFinite(const FormatDirective &directive, char letter, int64_t precision,
                 const FormatDecimal &decimal, FormatCall *call)
{
    if (letter == 'f') { return PrintFixed(directive, precision, decimal, call); }
    if (letter == 'e') { return PrintExponential(directive, precision, decimal, call); }
    // Without "#" only the number's own digits are printed, so there are no zeros at the end.
    const bool fixed = decimal.point >= -3 && decimal.point <= precision;
    const int64_t digits =
        directive.flags & FORMAT_ALTERNATE ? precision : decimal.end - decimal.text;
    return fixed
               ? PrintFixed(directive, std::max<int64_t>(digits - decimal.point, 0), decimal, call)
               : PrintExponential(directive, digits - 1, decimal, call);
}

} // namespace

bool FormatFloating(const FormatDirective &directive, FormatCall *call)
{
    // A long double is rounded to a double: no C library converts its digits.
    double value = directive.flags & FORMAT_WIDE
                       ? static_cast<double>(call->arguments.Take<long double>(directive.index))
                       : call->arguments.Take<double>(directive.index);
    const char letter = static_cast<char>(directive.conversion | 0x20); // in lower case
    int64_t precision = directive.precision < 0 ? DEFAULT_PRECISION : directive.precision;
    int64_t digits = precision; // how many the converter must return
    if (letter == 'e') { digits = precision + 1; }
    if (letter == 'g' && precision == 0) { digits = precision = 1; }
    if (letter == 'f' && precision == 0) {
        // Rounds halves away from zero.  The one digit after the point is then a zero, which
        // bsd_cvt() leaves out.
        value = round(value);
        digits = 1;
    }
    const FormatDecimal decimal = bsd_cvt(letter == 'f' ? FORMAT_FRACTION : FORMAT_SIGNIFICANT,
                                          static_cast<int>(std::min(digits, MOST_DIGITS)), value);
    if (decimal.text == nullptr) { return false; }
    const bool isPrinted = IsSpelt(decimal)
                               ? PrintSpelt(directive, decimal, &call->output)
                               : PrintFinite(directive, letter, precision, decimal, call);
    free(decimal.text);
    return isPrinted;
}

} // namespace pelago
