// formatForTests.h -- formats text without the compiler's checks of the format.
#ifndef PELAGO_TESTS_STRING_FORMATFORTESTS_H
#define PELAGO_TESTS_STRING_FORMATFORTESTS_H

#include "bsd_vsnprintf.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using Engine = decltype(&bsd_vsnprintf);

// The dialect of formats is the engine's own, so the compiler must not check formats by the C
// library's dialect.
__attribute__((noinline)) inline int FormatInto(Engine engine, char *buffer, size_t size,
                                                const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = engine(&buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

// Returns the text that the engine formats into a new buffer, with the NULs in it.
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

// Returns the same text; formats into a caller's buffer, too, and expects the same text there.
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

// Returns the C library's output, which is the same for formats that both know.
template <typename Value> std::string Libc(const std::string &format, Value value)
{
    char buffer[20000];
    const int length = snprintf(buffer, sizeof buffer, format.c_str(), value);
    return std::string(buffer, length);
}

inline std::vector<std::string> AllFlags(const char *flags)
{
    std::vector<std::string> all;
    const size_t count = strlen(flags);
    for (size_t set = 0; set < (size_t{1} << count); set++) {
        std::string chosen;
        for (size_t i = 0; i < count; i++) {
            if (set & (size_t{1} << i)) { chosen += flags[i]; }
        }
        all.push_back(chosen);
    }
    return all;
}

// Formats into one buffer and compares once, because it is called millions of times.
template <typename Value> void ExpectAsLibc(const std::string &format, Value value)
{
    char ours[2000], libc[2000];
    const int length = FormatInto(bsd_vsnprintf, ours, sizeof ours, format.c_str(), value);
    const int wanted = snprintf(libc, sizeof libc, format.c_str(), value);
    if (length != wanted || strcmp(ours, libc) != 0) {
        ADD_FAILURE() << format << " gives " << ours << " instead of " << libc;
    }
}

#endif // PELAGO_TESTS_STRING_FORMATFORTESTS_H
