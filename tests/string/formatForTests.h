// formatForTests.h -- formatting without the compiler's opinion of the format.
#ifndef PELAGO_TESTS_STRING_FORMATFORTESTS_H
#define PELAGO_TESTS_STRING_FORMATFORTESTS_H

#include "bsd_vsnprintf.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdlib>
#include <string>

using Engine = decltype(&bsd_vsnprintf);

// The dialect is the engine's own, so the compiler must not hold it against the C library's.
__attribute__((noinline)) inline int FormatInto(Engine engine, char *buffer, size_t size,
                                                const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = engine(&buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

// What the engine makes of the format in a buffer of its own; NULs in it are kept.
template <typename... Values>
std::string FormatWith(Engine engine, const char *format, Values... values)
{
    const auto grown = [engine](const char *text, ...) {
        char *buffer = nullptr;
        va_list arguments;
        va_start(arguments, text);
        const int length = engine(&buffer, 0, text, arguments);
        va_end(arguments);
        EXPECT_GE(length, -1);
        EXPECT_EQ(buffer == nullptr, length == -1);
        std::string result = length < 0 ? "(failed)" : std::string(buffer, length);
        if (length >= 0) { EXPECT_EQ(buffer[length], '\0'); }
        free(buffer);
        return result;
    };
    return grown(format, values...);
}

// The same in the caller's buffer as well, which must give the same.
template <typename... Values> std::string Format(const char *format, Values... values)
{
    const std::string grown = FormatWith(bsd_vsnprintf, format, values...);
    std::string fixed(grown.size() + 8, '#');
    const int length = FormatInto(bsd_vsnprintf, fixed.data(), grown.size() + 1, format, values...);
    if (length < 0) { return "(failed)"; }
    EXPECT_EQ(fixed[grown.size()], '\0') << format;
    EXPECT_EQ(fixed[grown.size() + 1], '#') << format << " writes behind its buffer";
    EXPECT_EQ(fixed.substr(0, length), grown) << format;
    return grown;
}

#endif // PELAGO_TESTS_STRING_FORMATFORTESTS_H
