// ascii.h -- tests and conversions of ASCII characters, independent of the locale.
#ifndef PELAGO_STRING_ASCII_H
#define PELAGO_STRING_ASCII_H

namespace pelago {

constexpr bool IsAscii(char byte) { return static_cast<unsigned char>(byte) < 0x80; }

constexpr bool AsciiIsUpper(char byte) { return byte >= 'A' && byte <= 'Z'; }
constexpr bool AsciiIsLower(char byte) { return byte >= 'a' && byte <= 'z'; }
constexpr bool AsciiIsDigit(char byte) { return byte >= '0' && byte <= '9'; }

// Return a letter in the named case, and any byte that is no ASCII letter unchanged.
constexpr char AsciiToLower(char byte)
{
    return AsciiIsUpper(byte) ? static_cast<char>(byte - 'A' + 'a') : byte;
}
constexpr char AsciiToUpper(char byte)
{
    return AsciiIsLower(byte) ? static_cast<char>(byte - 'a' + 'A') : byte;
}

// Returns the value of a hexadecimal digit of either case, or ASCII_NO_DIGIT for any other byte.
constexpr unsigned ASCII_NO_DIGIT = 16;
constexpr unsigned AsciiHexadecimalValue(char byte)
{
    if (AsciiIsDigit(byte)) { return static_cast<unsigned>(byte - '0'); }
    const char lower = AsciiToLower(byte);
    return lower >= 'a' && lower <= 'f' ? static_cast<unsigned>(lower - 'a' + 10) : ASCII_NO_DIGIT;
}

} // namespace pelago

#endif // PELAGO_STRING_ASCII_H
