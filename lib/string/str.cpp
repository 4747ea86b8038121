// str.cpp -- NUL-terminated strings: formatting, copying, searching, ASCII case.
#include "str.h"

#include "ascii.h"
#include "bsd_vsnprintf.h"
#include "diagnostics.h"
#include "utf.h"
#include "util.h"

#include <cstring>

using namespace pelago;

namespace {

constexpr char MODULE_PATH[] = "lib/string/str";
constexpr char TOO_SMALL_REPORT[] = "%s:%d Buffer too small\n";

// The numbers of the checks that end the process.
constexpr int SPRINTF_C_LOCALE_LINE = 177;
constexpr int SPRINTF_LINE = 214;
constexpr int STRCPY_LINE = 284;
constexpr int STRNCPY_LINE = 322;
constexpr int STRCAT_LINE = 444;
constexpr int STRNCAT_LINE = 498;
constexpr int SAFE_ASPRINTF_LINE = 657;

[[noreturn]] void StrTooSmall(int line) { Panic(TOO_SMALL_REPORT, MODULE_PATH, line); }

using StrEngine = decltype(&bsd_vsnprintf);

// Formats into the buffer.  Returns -1 when the output does not fit, the engine fails, or there is
// no buffer.
template <StrEngine Engine>
int StrFormat(char *buffer, size_t size, const char *format, va_list arguments)
{
    if (buffer == nullptr) { return -1; } // the engine would make a buffer of its own
    const int length = Engine(&buffer, size, format, arguments);
    if (length >= 0 && static_cast<size_t>(length) < size) { return length; }
    if (size > 0) {
        buffer[size - 1] = '\0';
        buffer[Utf8WholeLength(buffer, size - 1)] = '\0';
    }
    return -1;
}

} // namespace

// ---- Formatting

extern "C" int Str_Vsnprintf(char *buffer, size_t size, const char *format, va_list arguments)
{
    return StrFormat<bsd_vsnprintf>(buffer, size, format, arguments);
}

extern "C" int Str_Snprintf(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = StrFormat<bsd_vsnprintf>(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

extern "C" int Str_Sprintf(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = StrFormat<bsd_vsnprintf>(buffer, size, format, arguments);
    va_end(arguments);
    if (length < 0) { StrTooSmall(SPRINTF_LINE); }
    return length;
}

extern "C" int Str_SprintfCLocale(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = StrFormat<bsd_vsnprintf_c_locale>(buffer, size, format, arguments);
    va_end(arguments);
    if (length < 0) { StrTooSmall(SPRINTF_C_LOCALE_LINE); }
    return length;
}

extern "C" char *Str_Vasprintf(size_t *lengthOut, const char *format, va_list arguments)
{
    char *text = nullptr;
    const int length = bsd_vsnprintf(&text, 0, format, arguments);
    if (length < 0) { return nullptr; }
    if (lengthOut != nullptr) { *lengthOut = static_cast<size_t>(length); }
    return text;
}

extern "C" char *Str_Asprintf(size_t *lengthOut, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char *text = Str_Vasprintf(lengthOut, format, arguments);
    va_end(arguments);
    return text;
}

extern "C" char *Str_SafeVasprintf(size_t *lengthOut, const char *format, va_list arguments)
{
    char *text = Str_Vasprintf(lengthOut, format, arguments);
    if (text == nullptr) { Panic(UTIL_VERIFY_REPORT, MODULE_PATH, SAFE_ASPRINTF_LINE); }
    return text;
}

extern "C" char *Str_SafeAsprintf(size_t *lengthOut, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char *text = Str_SafeVasprintf(lengthOut, format, arguments);
    va_end(arguments);
    return text;
}

// ---- Copying

extern "C" char *Str_Strcpy(char *destination, const char *source, size_t size)
{
    const size_t length = strlen(source);
    if (length >= size) { StrTooSmall(STRCPY_LINE); }
    memcpy(destination, source, length + 1);
    return destination;
}

extern "C" char *Str_Strncpy(char *destination, size_t size, const char *source, size_t n)
{
    const size_t length = strnlen(source, n);
    if (length >= size) { StrTooSmall(STRNCPY_LINE); }
    memcpy(destination, source, length);
    destination[length] = '\0';
    return destination;
}

extern "C" char *Str_Strcat(char *destination, const char *source, size_t size)
{
    const size_t used = strnlen(destination, size);
    const size_t length = strlen(source);
    // The sum cannot overflow: both strings are in memory.
    if (used + length >= size) { StrTooSmall(STRCAT_LINE); }
    memcpy(destination + used, source, length + 1);
    return destination;
}

extern "C" char *Str_Strncat(char *destination, size_t size, const char *source, size_t n)
{
    const size_t used = strnlen(destination, size);
    if (strnlen(source, n) >= size - used) { StrTooSmall(STRNCAT_LINE); }
    return strncat(destination, source, n);
}

// ---- Searching and measuring

extern "C" size_t Str_Strlen(const char *string, size_t maximum)
{
    return strnlen(string, maximum);
}

extern "C" char *Str_Strnstr(const char *haystack, const char *needle, size_t n)
{
    const size_t needleLength = strlen(needle);
    if (needleLength == 0) { return const_cast<char *>(haystack); }
    const char *end = haystack + strnlen(haystack, n);
    const char *place = haystack;
    while (static_cast<size_t>(end - place) >= needleLength) {
        const size_t starts = static_cast<size_t>(end - place) - needleLength + 1;
        place = static_cast<const char *>(memchr(place, *needle, starts));
        if (place == nullptr) { return nullptr; }
        if (memcmp(place, needle, needleLength) == 0) { return const_cast<char *>(place); }
        place++;
    }
    return nullptr;
}

// ---- Case

extern "C" char *Str_ToLower(char *string)
{
    for (char *c = string; *c != '\0'; c++) {
        *c = AsciiToLower(*c);
    }
    return string;
}

extern "C" char *Str_ToUpper(char *string)
{
    for (char *c = string; *c != '\0'; c++) {
        *c = AsciiToUpper(*c);
    }
    return string;
}
