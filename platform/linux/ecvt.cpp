// ecvt.cpp -- ecvt and fcvt with every digit exact.  The C library's functions of these names
// return at most 17 digits, some of them wrong, and other signs and lengths.
//
// The result lies in memory that the next call uses again, so the caller serialises.
#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t SCIENTIFIC_EXTRA = 16; // the point, the exponent and the NUL
constexpr size_t FIXED_EXTRA = 312;     // the 309 digits of the largest number, the point, the NUL
constexpr size_t SMALLEST_ROOM = 512;

// Returns the static buffer, which has room for size bytes; its contents are undefined.  Returns
// nullptr, and keeps the old buffer, when memory runs out.
char *EcvtRoom(size_t size)
{
    static char *sRoom;
    static size_t sSize;
    if (size <= sSize) { return sRoom; }
    const size_t wanted = size < SMALLEST_ROOM ? SMALLEST_ROOM : size;
    char *larger = static_cast<char *>(malloc(wanted));
    if (larger == nullptr) { return nullptr; }
    free(sRoom);
    sRoom = larger;
    sSize = wanted;
    return sRoom;
}

// Handles zeros, infinities, NaNs and counts below 1, whose digits need no computation; *sign is
// the value's before the call.  Returns whether the value was one of these; *text is then the
// result, NULL when memory ran out.
bool EcvtIsSpecial(double value, int count, int positionOfZero, int *position, int *sign,
                   char **text)
{
    static char sNothing[] = "", sInfinity[] = "inf", sNotANumber[] = "nan";
    *position = 0;
    if (count <= 0) {
        *sign = value < 0;
        *text = sNothing;
        return true;
    }
    if (!std::isfinite(value)) {
        *text = std::isnan(value) ? sNotANumber : sInfinity;
        return true;
    }
    if (value != 0) { return false; }
    *sign = 0; // also for minus zero
    *position = positionOfZero;
    const size_t length = static_cast<size_t>(count);
    *text = EcvtRoom(length + 1);
    if (*text != nullptr) {
        memset(*text, '0', length);
        (*text)[length] = '\0';
    }
    return true;
}

// ---- Ordinary numbers, which are most: from about 10^-20 to 10^34 for seven digits.  Scaled by a
// power of ten they fit into 128 bits, so that the digits come exactly of one multiplication or
// division; it takes a third of the time that std::to_chars does.

__extension__ using Bits128 = unsigned __int128;

constexpr int MOST_POWER = 27, MOST_COUNT = 18; // of which five and ten fit into 64 bits

template <size_t SIZE> constexpr std::array<uint64_t, SIZE> PowersOf(uint64_t base)
{
    std::array<uint64_t, SIZE> powers = {1};
    for (size_t i = 1; i < SIZE; i++) {
        powers[i] = powers[i - 1] * base;
    }
    return powers;
}
constexpr auto POWERS_OF_FIVE = PowersOf<MOST_POWER + 1>(5);
constexpr auto POWERS_OF_TEN = PowersOf<MOST_COUNT + 1>(10);

// A double without its sign is mantissa * 2^exponent.
constexpr int MANTISSA_BITS = 52, EXPONENT_BIAS = 1075;

int EcvtExponent(double value)
{
    const uint64_t bits = std::bit_cast<uint64_t>(std::fabs(value));
    return static_cast<int>(bits >> MANTISSA_BITS) - EXPONENT_BIAS;
}

// Stores value * 10^power, rounded half to even.  Returns whether 63 bits hold it, and 128 all that
// it is made of.
bool EcvtScale(double value, int power, uint64_t *scaled)
{
    const bool grows = power >= 0;
    const int exponent = EcvtExponent(value), shift = exponent + power;
    const bool fits = grows ? shift >= -126 && shift <= 11 : shift >= -63 && shift <= 74;
    if (!fits || std::abs(power) > MOST_POWER || exponent == -EXPONENT_BIAS) { return false; }
    constexpr uint64_t HIDDEN_BIT = uint64_t{1} << MANTISSA_BITS;
    Bits128 over = (std::bit_cast<uint64_t>(value) & (HIDDEN_BIT - 1)) | HIDDEN_BIT, under = 1;
    (grows ? over : under) *= POWERS_OF_FIVE[static_cast<size_t>(std::abs(power))];
    (shift >= 0 ? over : under) <<= std::abs(shift);
    const Bits128 whole = grows ? over >> std::max(-shift, 0) : over / under;
    if (whole >> 63 != 0) { return false; }
    const Bits128 twiceTheRest = (over - whole * under) * 2;
    const bool isUp = twiceTheRest > under || (twiceTheRest == under && whole % 2 == 1);
    *scaled = static_cast<uint64_t>(whole) + (isUp ? 1 : 0);
    return true;
}

constexpr auto PAIRS_OF_DIGITS = [] {
    std::array<std::array<char, 2>, 100> pairs = {};
    for (size_t i = 0; i < pairs.size(); i++) {
        pairs[i] = {static_cast<char>('0' + i / 10), static_cast<char>('0' + i % 10)};
    }
    return pairs;
}();

// Writes what was scaled, nothing for 0.  NULL without memory.
char *EcvtWrite(uint64_t scaled, int power, int *position)
{
    constexpr size_t SIZE = 20;
    char *text = EcvtRoom(SIZE + 1);
    if (text == nullptr) { return nullptr; }
    char *const end = text + SIZE, *start = end;
    *end = '\0';
    for (; scaled >= 10; scaled /= 100) {
        start -= 2;
        memcpy(start, PAIRS_OF_DIGITS[scaled % 100].data(), 2);
    }
    if (scaled != 0) { *--start = static_cast<char>('0' + scaled); }
    *position = static_cast<int>(end - start) - power;
    return start;
}

// As ecvt and fcvt, without the sign; NULL for what is not ordinary, such as a zero, an infinity, a
// NaN and a count below 1.

char *EcvtOrdinary(double value, int count, int *position)
{
    if (count <= 0 || count > MOST_COUNT) { return nullptr; }
    // The position of the value's first bit is within one of that of its first digit: 1233 / 4096
    // is the logarithm of 2.
    int power = count - 1 - ((EcvtExponent(value) + MANTISSA_BITS) * 1233 >> 12);
    for (;; power--) {
        uint64_t scaled = 0;
        if (!EcvtScale(value, power, &scaled)) { return nullptr; }
        if (scaled < POWERS_OF_TEN[static_cast<size_t>(count)]) {
            return EcvtWrite(scaled, power, position);
        }
    }
}

char *FcvtOrdinary(double value, int count, int *position)
{
    uint64_t scaled = 0;
    if (count <= 0 || count > MOST_POWER || !EcvtScale(value, count, &scaled)) { return nullptr; }
    return EcvtWrite(scaled, count, position);
}

} // namespace

extern "C" char *ecvt(double value, int count, int *position, int *sign) noexcept
{
    *sign = std::signbit(value);
    char *text = EcvtOrdinary(value, count, position);
    if (text != nullptr) { return text; }
    if (EcvtIsSpecial(value, count, 1, position, sign, &text)) { return text; }

    const size_t length = static_cast<size_t>(count), size = length + SCIENTIFIC_EXTRA;
    text = EcvtRoom(size);
    if (text == nullptr) { return nullptr; }
    const char *end =
        std::to_chars(text, text + size, std::fabs(value), std::chars_format::scientific, count - 1)
            .ptr;
    const char *exponent = end - 1;
    while (*exponent != 'e') {
        exponent--;
    }
    exponent += exponent[1] == '+' ? 2 : 1; // std::from_chars does not accept a plus
    std::from_chars(exponent, end, *position);
    ++*position;
    if (count > 1) { // the first digit takes the place of the point
        text[1] = text[0];
        text++;
    }
    text[length] = '\0';
    return text;
}

extern "C" char *fcvt(double value, int count, int *position, int *sign) noexcept
{
    *sign = std::signbit(value);
    char *text = FcvtOrdinary(value, count, position);
    if (text != nullptr) { return text; }
    if (EcvtIsSpecial(value, count, 0, position, sign, &text)) { return text; }

    const size_t size = static_cast<size_t>(count) + FIXED_EXTRA;
    text = EcvtRoom(size);
    if (text == nullptr) { return nullptr; }
    char *end =
        std::to_chars(text, text + size, std::fabs(value), std::chars_format::fixed, count).ptr;
    *end = '\0';
    char *fraction = end - count;
    if (fraction - text == 2 && text[0] == '0') { // "0.": the digits begin after the zeros
        char *digits = fraction;
        while (*digits == '0') {
            digits++;
        }
        *position = static_cast<int>(fraction - digits);
        return digits;
    }
    *position = static_cast<int>(fraction - 1 - text);
    memmove(text + 1, text, static_cast<size_t>(*position)); // over the point
    return text + 1;
}
