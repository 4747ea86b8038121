// formatConverter.cpp -- doubles to digits, by the C library.
#include "formatConverter.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>

namespace pelago {

namespace {

// ecvt() and fcvt() return their digits in one buffer, which all threads share.  (A std::mutex can
// throw, and would add half of the C++ library to every program.)
pthread_mutex_t sConverterLock = PTHREAD_MUTEX_INITIALIZER;

} // namespace

FormatDecimal bsd_cvt(FormatMode mode, int digits, double value)
{
    FormatDecimal decimal;
    const auto convert = mode == FORMAT_SIGNIFICANT ? ecvt : fcvt;
    pthread_mutex_lock(&sConverterLock);
    const char *converted = convert(value, digits, &decimal.point, &decimal.sign);
    const size_t length = converted != nullptr ? strlen(converted) : 0;
    decimal.text = converted != nullptr ? static_cast<char *>(malloc(length + 1)) : nullptr;
    if (decimal.text != nullptr) { memcpy(decimal.text, converted, length + 1); }
    pthread_mutex_unlock(&sConverterLock);
    if (decimal.text == nullptr) { return decimal; }
    decimal.end = decimal.text + length;
    while (decimal.end > decimal.text + 1 && decimal.end[-1] == '0') {
        decimal.end--;
    }
    return decimal;
}

} // namespace pelago
