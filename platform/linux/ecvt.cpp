// ecvt.cpp -- ecvt and fcvt with every digit exact.  The C library's functions of these names
// return at most 17 digits, some of them wrong, and other signs and lengths.
//
// The result lies in memory that the next call uses again, so the caller serialises.
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

// Handles zeros, infinities, NaNs and counts below 1, whose digits need no computation.  Returns
// whether the value was one of these; *text is then the result, NULL when memory ran out.
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
    *sign = std::signbit(value);
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

// ---- Ordinary numbers, which are most: from 2^-12 to 2^64, with few digits.  All their bits fit
// into 128 with the point in the middle, so one exact multiplication gives the digits; it takes a
// third of the time that std::to_chars does.

__extension__ using Bits128 = unsigned __int128;

constexpr auto POWERS_OF_TEN = [] {
    std::array<uint64_t, 20> powers = {1};
    for (size_t i = 1; i < powers.size(); i++) {
        powers[i] = powers[i - 1] * 10;
    }
    return powers;
}();
constexpr int MOST_ORDINARY_DIGITS = 18; // behind the point; twice the power still fits
constexpr int MANTISSA_BITS = 52, EXPONENT_BIAS = 1075, LARGEST_SHIFT = 75;

constexpr uint64_t EcvtPowerOfTen(int exponent)
{
    return POWERS_OF_TEN[static_cast<size_t>(exponent)];
}

struct Ordinary {
    uint64_t whole, digits; // before the point, and so many as were asked for behind it
};

// The value without its sign, and split at the point.  Returns whether it is ordinary.
bool EcvtIsOrdinary(double value, Bits128 *split)
{
    constexpr uint64_t HIDDEN_BIT = uint64_t{1} << MANTISSA_BITS;
    const uint64_t bits = std::bit_cast<uint64_t>(std::fabs(value));
    const int shift = static_cast<int>(bits >> MANTISSA_BITS) - EXPONENT_BIAS + 64;
    if (shift < 0 || shift > LARGEST_SHIFT) { return false; }
    *split = Bits128{(bits & (HIDDEN_BIT - 1)) | HIDDEN_BIT} << shift;
    return true;
}

// Rounds half to even, behind count digits.
Ordinary EcvtRound(Bits128 split, int count)
{
    constexpr uint64_t HALF = uint64_t{1} << 63;
    const Bits128 scaled = Bits128{static_cast<uint64_t>(split)} * EcvtPowerOfTen(count);
    Ordinary number = {static_cast<uint64_t>(split >> 64), static_cast<uint64_t>(scaled >> 64)};
    const uint64_t rest = static_cast<uint64_t>(scaled);
    const uint64_t last = count == 0 ? number.whole : number.digits;
    if (rest > HALF || (rest == HALF && last % 2 == 1)) { number.digits++; }
    if (number.digits == EcvtPowerOfTen(count)) {
        number.digits = 0;
        number.whole++;
    }
    return number;
}

constexpr size_t ORDINARY_ROOM = 20 + MOST_ORDINARY_DIGITS + 1;

// Writes all digits, none for a whole part of 0 and no zeros after it; returns how many stand
// before the point.
int EcvtWrite(const Ordinary &number, int count, char *text)
{
    char *const end = text + ORDINARY_ROOM;
    if (number.whole == 0) {
        char *last = text;
        if (number.digits != 0) { last = std::to_chars(text, end, number.digits).ptr; }
        *last = '\0';
        return static_cast<int>(last - text) - count;
    }
    char *point = std::to_chars(text, end, number.whole).ptr;
    // With the power on top the zeros in front are kept, behind a 1 that is taken back.
    const char before = point[-1];
    *std::to_chars(point - 1, end, number.digits + EcvtPowerOfTen(count)).ptr = '\0';
    point[-1] = before;
    return static_cast<int>(point - text);
}

int EcvtDecimalLength(uint64_t whole)
{
    size_t length = 1;
    while (length < POWERS_OF_TEN.size() && whole >= POWERS_OF_TEN[length]) {
        length++;
    }
    return static_cast<int>(length);
}

// As ecvt and fcvt, without the sign; NULL for what is not ordinary.

char *EcvtOrdinary(double value, int count, int *position)
{
    Bits128 split = 0;
    if (!EcvtIsOrdinary(value, &split) || (split >> 64) == 0) { return nullptr; }
    const int behind = count - EcvtDecimalLength(static_cast<uint64_t>(split >> 64));
    if (behind < 0 || behind > MOST_ORDINARY_DIGITS) { return nullptr; }
    char *text = EcvtRoom(ORDINARY_ROOM);
    if (text == nullptr) { return nullptr; }
    *position = EcvtWrite(EcvtRound(split, behind), behind, text);
    text[count] = '\0'; // 9.9 may have become 10.0
    return text;
}

char *FcvtOrdinary(double value, int count, int *position)
{
    Bits128 split = 0;
    if (count > MOST_ORDINARY_DIGITS || !EcvtIsOrdinary(value, &split)) { return nullptr; }
    char *text = EcvtRoom(ORDINARY_ROOM);
    if (text != nullptr) { *position = EcvtWrite(EcvtRound(split, count), count, text); }
    return text;
}

} // namespace

extern "C" char *ecvt(double value, int count, int *position, int *sign) noexcept
{
    char *text = nullptr;
    if (EcvtIsSpecial(value, count, 1, position, sign, &text)) { return text; }
    text = EcvtOrdinary(value, count, position);
    if (text != nullptr) { return text; }

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
    char *text = nullptr;
    if (EcvtIsSpecial(value, count, 0, position, sign, &text)) { return text; }
    text = FcvtOrdinary(value, count, position);
    if (text != nullptr) { return text; }

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
