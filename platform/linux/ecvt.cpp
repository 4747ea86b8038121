// ecvt.cpp -- ecvt and fcvt with every digit exact, which the C library's of the same name are not:
// they give at most 17 digits, some of them wrong, and other signs and lengths.
//
// The result lies in memory that the next call uses again, so the caller serialises.
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t SCIENTIFIC_EXTRA = 16; // the point, the exponent and the NUL
constexpr size_t FIXED_EXTRA = 312;     // the 309 digits of the largest number, the point, the NUL
constexpr size_t SMALLEST_ROOM = 512;

// Room for that many bytes, with anything in it.  A failure leaves what there was.
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

// What needs no digits worked out.  Returns whether it was that; the text may be NULL.
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
    *sign = 0; // also of minus zero
    *position = positionOfZero;
    const size_t length = static_cast<size_t>(count);
    *text = EcvtRoom(length + 1);
    if (*text != nullptr) {
        memset(*text, '0', length);
        (*text)[length] = '\0';
    }
    return true;
}

} // namespace

extern "C" char *ecvt(double value, int count, int *position, int *sign) noexcept
{
    char *text = nullptr;
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
    exponent += exponent[1] == '+' ? 2 : 1; // a plus is not taken
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

    const size_t size = static_cast<size_t>(count) + FIXED_EXTRA;
    text = EcvtRoom(size);
    if (text == nullptr) { return nullptr; }
    char *end =
        std::to_chars(text, text + size, std::fabs(value), std::chars_format::fixed, count).ptr;
    *end = '\0';
    char *fraction = end - count;
    if (fraction - text == 2 && text[0] == '0') { // "0.": digits begin after the zeros
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
