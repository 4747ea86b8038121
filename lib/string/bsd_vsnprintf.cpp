// bsd_vsnprintf.cpp -- the formatting engine: reads a format once and writes its text as it goes.
#include "bsd_vsnprintf.h"

#include "formatDigits.h"
#include "formatField.h"

#include <cstring>

using namespace pelago;

namespace {

// Stores the length of the output so far (%n).
void Store(const FormatDirective &directive, FormatCall *call)
{
    void *place = call->arguments.Take<void *>(directive.index);
    const int length = static_cast<int>(call->output.Length());
    if (directive.flags & FORMAT_64_BITS) {
        *static_cast<int64_t *>(place) = length;
    } else if (directive.flags & FORMAT_SHORT) {
        *static_cast<short *>(place) = static_cast<short>(length);
    } else if (directive.flags & FORMAT_CHAR) {
        *static_cast<signed char *>(place) = static_cast<signed char>(length);
    } else {
        *static_cast<int *>(place) = length;
    }
}

bool Convert(const FormatDirective &directive, FormatCall *call)
{
    switch (directive.conversion) {
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
    case 'p': return FormatInteger(directive, call);
    case 'c': return FormatCharacter(directive, call);
    case 's': return FormatString(directive, call);
    case 'n': Store(directive, call); return true;
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G': return FormatFloating(directive, call);
    default: return FormatField(directive, &call->output, &directive.conversion, 1);
    }
}

// Reads a directive from the place after its "%", with its stars' arguments.  Returns the place
// after its letter, or nullptr when there is no memory for arguments by position.
const char *Read(const char *text, FormatDirective *directive, FormatCall *call)
{
    for (;;) {
        text = FormatRead(text, directive);
        const bool isPositional = directive->index != 0 || directive->star != 0;
        if (isPositional && !call->arguments.UsePositions()) { return nullptr; }
        if (!FormatIsAtStar(*directive)) { return text; }
        FormatSetStar(call->arguments.Take<int>(directive->star), directive);
    }
}

// Prints the string with that index.  False when the whole call must fail.
bool PrintString(int64_t index, FormatCall *call)
{
    if (!call->arguments.UsePositions()) { return false; }
    const char *string = call->arguments.Take<const char *>(index);
    if (string == nullptr) { string = "(null)"; }
    return call->output.Write(string, strlen(string));
}

// Prints a directive, from the place after its "%".  Returns the place after its letter, or nullptr
// when the whole call must fail.
[[gnu::noinline]] const char *PrintDirective(const char *text, FormatCall *call)
{
    if (const int64_t index = FormatPositionOfString(text)) {
        return PrintString(index, call) ? text + FORMAT_POSITION_OF_STRING_LENGTH : nullptr;
    }
    // Begins with a flag or a width, or is hexadecimal: may be a short directive.
    if ((*text <= '9' && *text != '.') || *text == 'x' || *text == 'X') {
        const FormatShortDirective brief = FormatReadShort(text);
        if (brief.IsInteger() && FormatShortInteger(brief, call)) { return brief.letter + 1; }
    }
    FormatDirective directive;
    text = Read(text, &directive, call);
    if (text == nullptr || directive.conversion == '\0') { return text; }
    return Convert(directive, call) ? text : nullptr;
}

// Prints text up to the next "%".  Where there is no room, enlarges the block or drops text.
// Returns the place after the text, or nullptr when the whole call must fail.
[[gnu::noinline]] const char *PrintRest(const char *text, FormatOutput *output)
{
    const char *end = text;
    while (*end != '%' && *end != '\0') {
        end++;
    }
    return output->Write(text, static_cast<size_t>(end - text)) ? end : nullptr;
}

// Prints text up to the next "%", as far as there is room, and returns the place after that.
inline const char *PrintText(const char *text, FormatCursor *cursor)
{
    const size_t room = cursor->Room();
    size_t length = 0;
    for (; length < room && text[length] != '%' && text[length] != '\0'; length++) {
        cursor->at[length] = text[length];
    }
    cursor->at += length;
    return text + length;
}

// Prints "%d" or "%u", also with the size "l" or "z".  Returns the place after the directive.  Does
// nothing and returns nullptr for any other directive, and when an integer might not fit.
inline const char *PrintDecimal(const char *text, FormatArguments *arguments, FormatCursor *cursor)
{
    const char *letter = text;
    while (*letter == 'l' || *letter == 'z') {
        letter++;
    }
    const bool isSigned = *letter == 'd', isLong = letter != text;
    if ((!isSigned && *letter != 'u') || cursor->Room() < FORMAT_MOST_DIGITS) { return nullptr; }
    bool isNegative = false;
    const uint64_t magnitude = FormatTakeMagnitude(isSigned, isLong, arguments, &isNegative);
    if (isNegative) { *cursor->at++ = '-'; }
    cursor->at = FormatWriteDecimal(cursor->at, magnitude);
    return letter + 1;
}

// Prints the whole format.  False when the call fails.
bool Print(const char *text, FormatCall *call)
{
    FormatCursor cursor = call->output.Cursor();
    for (;;) {
        if (*text != '%' && *text != '\0') { text = PrintText(text, &cursor); }
        if (*text == '\0') { break; }
        const bool isDirective = *text == '%';
        if (isDirective && text[1] == 's') {
            const char *string = call->arguments.Take<const char *>(0);
            if (string == nullptr) { string = "(null)"; }
            const size_t length = strlen(string);
            text += 2;
            if (length <= cursor.Room()) {
                cursor.at = FormatCopy(cursor.at, string, length);
                continue;
            }
            call->output.Finish(cursor);
            if (!call->output.Write(string, length)) { return false; }
            cursor = call->output.Cursor();
            continue;
        }
        if (isDirective) {
            const char *next = PrintDecimal(text + 1, &call->arguments, &cursor);
            if (next != nullptr) {
                text = next;
                continue;
            }
        }
        call->output.Finish(cursor);
        text = isDirective ? PrintDirective(text + 1, call) : PrintRest(text, &call->output);
        if (text == nullptr) { return false; }
        cursor = call->output.Cursor();
    }
    call->output.Finish(cursor);
    return true;
}

// Formats into a new block, and stores it in *bufp.
int FormatIntoBlock(char **bufp, FormatConventions *conventions, const char *format,
                    va_list arguments)
{
    FormatCall call = {FormatOutput(strlen(format)), {format, arguments}, *conventions};
    if (!call.output.IsOpen() || !Print(format, &call)) { return -1; }
    call.output.Terminate();
    *bufp = call.output.Release();
    return static_cast<int>(call.output.Length());
}

// Compiled into its callers: a short text takes little longer than a call.
[[gnu::always_inline]] inline int FormatInto(char **bufp, FormatConventions *conventions,
                                             size_t size, const char *format, va_list arguments)
{
    if (*bufp == nullptr) { return FormatIntoBlock(bufp, conventions, format, arguments); }
    FormatCall call = {FormatOutput(*bufp, size), {format, arguments}, *conventions};
    if (!Print(format, &call)) { return -1; }
    // A size of 0 sets no limit, and leaves no room for the NUL.
    if (size > 0) { call.output.Terminate(); }
    return static_cast<int>(call.output.Length());
}

} // namespace

extern "C" int bsd_vsnprintf_core(char **bufp, const char *grouping, char separator,
                                  const char *decimalPoint, size_t size, const char *format,
                                  va_list arguments)
{
    FormatConventions conventions(decimalPoint, separator, grouping);
    return FormatInto(bufp, &conventions, size, format, arguments);
}

extern "C" int bsd_vsnprintf(char **bufp, size_t size, const char *format, va_list arguments)
{
    FormatConventions ofTheLocale;
    return FormatInto(bufp, &ofTheLocale, size, format, arguments);
}

extern "C" int bsd_vsnprintf_c_locale(char **bufp, size_t size, const char *format,
                                      va_list arguments)
{
    return bsd_vsnprintf_core(bufp, nullptr, ',', ".", size, format, arguments);
}
