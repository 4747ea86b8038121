// utf16Bytes.h -- returns UTF-16 as bytes, little-endian or big-endian.
#ifndef PELAGO_TESTS_SUPPORT_UTF16BYTES_H
#define PELAGO_TESTS_SUPPORT_UTF16BYTES_H

#include <string>
#include <string_view>

inline std::string Le(std::u16string_view text)
{
    std::string bytes;
    for (const char16_t unit : text) {
        bytes += {static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8)};
    }
    return bytes;
}

inline std::string Be(std::u16string_view text)
{
    std::string bytes;
    for (const char16_t unit : text) {
        bytes += {static_cast<char>(unit >> 8), static_cast<char>(unit & 0xFF)};
    }
    return bytes;
}

#endif // PELAGO_TESTS_SUPPORT_UTF16BYTES_H
