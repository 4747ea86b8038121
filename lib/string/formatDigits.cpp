// formatDigits.cpp -- numbers to digits.
#include "formatDigits.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>

namespace pelago {

namespace {

// The C library has one place for the digits that it returns.  (A std::mutex can throw, and would
// bring half of the C++ library into every program for it.)
pthread_mutex_t sConverterLock = PTHREAD_MUTEX_INITIALIZER;

} // namespace

size_t bsd_exponent(char *output, int exponent, char letter)
{
    char digits[BSD_ULTOA_SIZE];
    char *end = digits + sizeof digits;
    const int64_t magnitude = exponent < 0 ? -int64_t{exponent} : exponent;
    char *start = FormatDecimalDigits(static_cast<uint64_t>(magnitude), end);
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
    const size_t length = converted != nullptr ? strlen(converted) : 0;
    char *text = converted != nullptr ? static_cast<char *>(malloc(length + 1)) : nullptr;
    if (text != nullptr) { memcpy(text, converted, length + 1); }
    pthread_mutex_unlock(&sConverterLock);
    decimal.text.reset(text);
    if (text == nullptr) { return decimal; }
    const char *first = text;
    decimal.end = first + length;
    while (decimal.end > first + 1 && decimal.end[-1] == '0') {
        decimal.end--;
    }
    return decimal;
}

} // namespace pelago
