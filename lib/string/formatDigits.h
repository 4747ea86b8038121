// formatDigits.h -- integers to digits.
#ifndef PELAGO_STRING_FORMATDIGITS_H
#define PELAGO_STRING_FORMATDIGITS_H

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace pelago {

constexpr char FORMAT_LOWER_DIGITS[] = "0123456789abcdef";
constexpr char FORMAT_UPPER_DIGITS[] = "0123456789ABCDEF";

// Eight digits are made in one 64-bit word, the first digit in the lowest byte.
static_assert(std::endian::native == std::endian::little);
constexpr uint64_t FORMAT_EIGHT_ZEROES = 0x3030303030303030;

// Returns the eight digits of a value below 10^8, a byte each: the value is split into halves,
// these into quarters, and these into digits, each step in one word.
inline uint64_t FormatEightDecimal(uint64_t value)
{
    const uint64_t halves = value / 10000 | value % 10000 << 32;
    // x * 10486 >> 20 is x / 100 for each x below 10000; x * 103 >> 10 is x / 10 below 100.
    const uint64_t hundreds = (halves * 10486 >> 20) & 0x0000007F0000007F;
    const uint64_t quarters = hundreds | (halves - 100 * hundreds) << 16;
    const uint64_t tens = (quarters * 103 >> 10) & 0x000F000F000F000F;
    return tens | (quarters - 10 * tens) << 8;
}

inline uint64_t FormatEightHexadecimal(uint32_t value)
{
    uint64_t word = value;
    word = (word << 16 | word) & 0x0000FFFF0000FFFF;
    word = (word << 8 | word) & 0x00FF00FF00FF00FF;
    word = (word << 4 | word) & 0x0F0F0F0F0F0F0F0F;
    return __builtin_bswap64(word);
}

// Returns the characters of eight digits; digits above 9 become letters.
inline uint64_t FormatEightCharacters(uint64_t numbers, const char *digits)
{
    const uint64_t letters = ((numbers + 0x0606060606060606) >> 4) & 0x0101010101010101;
    return numbers + FORMAT_EIGHT_ZEROES + letters * static_cast<uint64_t>(digits[10] - '0' - 10);
}

template <typename Part> void FormatStoreParts(char *to, uint64_t characters, size_t count)
{
    const Part first = static_cast<Part>(characters);
    const Part last = static_cast<Part>(characters >> 8 * (count - sizeof last));
    memcpy(to, &first, sizeof first);
    memcpy(to + count - sizeof last, &last, sizeof last);
}

// Writes eight digits' characters without the leading zeros, which are found in the numbers, and
// returns the end.  The number zero keeps one digit.
inline char *FormatWriteFirst(char *to, uint64_t numbers, uint64_t characters)
{
    constexpr uint64_t LAST = uint64_t{1} << 56; // a bit of the last digit, which is always kept
    const size_t zeroes = static_cast<size_t>(__builtin_ctzll(numbers | LAST) / 8);
    const size_t count = 8 - zeroes;
    characters >>= 8 * zeroes;
    if (count >= 4) {
        FormatStoreParts<uint32_t>(to, characters, count);
    } else if (count >= 2) {
        FormatStoreParts<uint16_t>(to, characters, count);
    } else {
        *to = static_cast<char>(characters);
    }
    return to + count;
}

inline char *FormatWriteEight(char *to, uint64_t characters)
{
    memcpy(to, &characters, sizeof characters);
    return to + sizeof characters;
}

constexpr auto FORMAT_POWERS_OF_TEN = [] {
    std::array<uint64_t, 20> powers = {1};
    for (size_t i = 1; i < powers.size(); i++) {
        powers[i] = powers[i - 1] * 10;
    }
    return powers;
}();

// Returns the number of digits of a value; zero has one.

inline size_t FormatDecimalLength(uint64_t value)
{
    // 1233 / 4096 is nearly the decimal logarithm of 2.
    const size_t least = static_cast<size_t>(std::bit_width(value | 1)) * 1233 >> 12;
    return least + (value >= FORMAT_POWERS_OF_TEN[least] || least == 0);
}

inline size_t FormatHexadecimalLength(uint64_t value)
{
    return static_cast<size_t>(std::bit_width(value | 1) + 3) / 4;
}

// Each writes a value without a NUL, and returns the end of its digits.

inline char *FormatWriteDecimal(char *to, uint64_t value)
{
    constexpr uint64_t EIGHT = 100000000;
    if (value < EIGHT) {
        const uint64_t numbers = FormatEightDecimal(value);
        return FormatWriteFirst(to, numbers, numbers + FORMAT_EIGHT_ZEROES);
    }
    to = FormatWriteDecimal(to, value / EIGHT);
    return FormatWriteEight(to, FormatEightDecimal(value % EIGHT) + FORMAT_EIGHT_ZEROES);
}

inline char *FormatWriteHexadecimal(char *to, uint64_t value, const char *digits)
{
    const uint64_t numbers = FormatEightHexadecimal(static_cast<uint32_t>(value));
    const uint64_t characters = FormatEightCharacters(numbers, digits);
    if (value >> 32 == 0) { return FormatWriteFirst(to, numbers, characters); }
    return FormatWriteEight(FormatWriteHexadecimal(to, value >> 32, digits), characters);
}

inline char *FormatWriteOctal(char *to, uint64_t value)
{
    if (value >> 3 != 0) { to = FormatWriteOctal(to, value >> 3); }
    *to = static_cast<char>('0' + (value & 7));
    return to + 1;
}

constexpr size_t FORMAT_MOST_DIGITS = 23; // octal, with a zero in front

} // namespace pelago

#endif // PELAGO_STRING_FORMATDIGITS_H
