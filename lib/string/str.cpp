// str.cpp -- formatting into strings.
#include "str.h"

#include "bsd_vsnprintf.h"

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
