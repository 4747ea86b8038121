// formatDigits.cpp -- numbers to digits.
#include "formatDigits.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>

namespace {

// "00" to "99", so that two digits take one division.
constexpr struct DigitPairs {
    char text[200];
    constexpr DigitPairs() : text()
    {
        for (int i = 0; i < 100; i++) {
            text[2 * i] = static_cast<char>('0' + i / 10);
            text[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
    }
} DIGIT_PAIRS;

char *FormatPlain(uint64_t value, char *end)
{
    for (; value >= 100; value /= 100) {
        end -= 2;
        memcpy(end, DIGIT_PAIRS.text + 2 * (value % 100), 2);
    }
    if (value < 10) {
        *--end = static_cast<char>('0' + value);
        return end;
    }
    end -= 2;
    memcpy(end, DIGIT_PAIRS.text + 2 * value, 2);
    return end;
}

char *FormatGrouped(uint64_t value, char *end, char separator, const char *grouping)
{
    int inGroup = 0;
    for (;;) {
        *--end = static_cast<char>('0' + value % 10);
        value /= 10;
        if (value == 0) { return end; }
        inGroup++;
        if (inGroup == *grouping && *grouping != FORMAT_ENDLESS_GROUP) {
            *--end = separator;
            inGroup = 0;
            grouping += grouping[1] != '\0';
        }
    }
}

char *FormatBits(uint64_t value, char *end, int bits, const char *digits)
{
    do {
        *--end = digits[value & ((1U << bits) - 1)];
        value >>= bits;
    } while (value != 0);
    return end;
}

// The C library has one place for the digits that it returns.  (A std::mutex can throw, and would
// bring half of the C++ library into every program for it.)
pthread_mutex_t sConverterLock = PTHREAD_MUTEX_INITIALIZER;

} // namespace

char *bsd_ultoa(uint64_t value, char *end, int base, bool alternate, const char *digits,
                bool grouped, char separator, const char *grouping)
{
    switch (base) {
    case 10:
        return grouped ? FormatGrouped(value, end, separator, grouping) : FormatPlain(value, end);
    case 8:
        end = FormatBits(value, end, 3, digits);
        if (alternate && *end != '0') { *--end = '0'; }
        return end;
    case 16: return FormatBits(value, end, 4, digits);
    default: abort();
    }
}

size_t bsd_exponent(char *output, int exponent, char letter)
{
    char digits[BSD_EXPONENT_SIZE];
    char *end = digits + sizeof digits;
    const int64_t magnitude = exponent < 0 ? -int64_t{exponent} : exponent;
    char *start = FormatPlain(static_cast<uint64_t>(magnitude), end);
    while (end - start < 2) {
        *--start = '0';
    }
    output[0] = letter;
    output[1] = exponent < 0 ? '-' : '+';
    memcpy(output + 2, start, static_cast<size_t>(end - start));
    return 2 + static_cast<size_t>(end - start);
}

FormatDecimal bsd_cvt(FormatMode mode, int digits, double value)
{
    FormatDecimal decimal;
    const auto convert = mode == FORMAT_SIGNIFICANT ? ecvt : fcvt;
    pthread_mutex_lock(&sConverterLock);
    const char *converted = convert(value, digits, &decimal.point, &decimal.sign);
    if (converted != nullptr) { decimal.text.reset(strdup(converted)); }
    pthread_mutex_unlock(&sConverterLock);
    if (!decimal.text) { return decimal; }
    const char *first = decimal.text.get();
    decimal.end = first + strlen(first);
    while (decimal.end > first + 1 && decimal.end[-1] == '0') {
        decimal.end--;
    }
    return decimal;
}

FormatDecimal bsd_ldcvt(FormatMode mode, int digits, long double value)
{
    return bsd_cvt(mode, digits, static_cast<double>(value));
}
