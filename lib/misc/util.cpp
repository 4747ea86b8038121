// util.cpp -- allocators that end the process when they fail, and comparison in constant time.
#include "util.h"

#include "diagnostics.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// Every allocator has two forms, which differ in the report of a failure: the plain form reports no
// site, the At form a bug number, a path and a line.  `site` below is empty or has these three.
[[noreturn]] void UtilFail() { Util_AllocFailure(); }
[[noreturn]] void UtilFail(int bugNumber, const char *path, int line)
{
    Util_AllocFailureAt(bugNumber, path, line);
}

// Returns the C library's block.  NULL is a failure unless the request was empty.
template <typename T, typename... Site> T *UtilGranted(T *block, bool isEmptyRequest, Site... site)
{
    if (block == nullptr && !isEmptyRequest) { UtilFail(site...); }
    return block;
}

template <typename... Site> void *UtilMalloc(size_t size, Site... site)
{
    return UtilGranted(malloc(size), size == 0, site...);
}

template <typename... Site> void *UtilRealloc(void *block, size_t size, Site... site)
{
    return UtilGranted(realloc(block, size), size == 0, site...);
}

template <typename... Site> void *UtilCalloc(size_t count, size_t size, Site... site)
{
    return UtilGranted(calloc(count, size), count == 0 || size == 0, site...);
}

template <typename... Site> char *UtilStrdup(const char *string, Site... site)
{
    return string == nullptr ? nullptr : UtilGranted(strdup(string), false, site...);
}

template <typename... Site> char *UtilStrndup(const char *bytes, size_t n, Site... site)
{
    if (bytes == nullptr) { return nullptr; }
    const void *end = memchr(bytes, '\0', n);
    const size_t length =
        end == nullptr ? n : static_cast<size_t>(static_cast<const char *>(end) - bytes);
    if (length == SIZE_MAX) { UtilFail(site...); }
    char *copy = UtilGranted(static_cast<char *>(malloc(length + 1)), false, site...);
    copy[length] = '\0';
    return static_cast<char *>(memcpy(copy, bytes, length));
}

constexpr size_t LANES = 16; // bytes that are compared in one step
using Lanes = uint8_t __attribute__((vector_size(LANES)));
using Words = uint64_t __attribute__((vector_size(LANES)));

template <typename Vector> Vector UtilLoad(const uint8_t *bytes)
{
    Vector vector;
    memcpy(&vector, bytes, sizeof vector);
    return vector;
}

// Returns the sum of 16 bytes: adds pairs of bytes, then all pairs by one multiplication.
size_t UtilSum(Lanes lanes)
{
    constexpr uint64_t EVEN = 0x00ff00ff00ff00ff, ONES = 0x0001000100010001;
    const Words words = reinterpret_cast<Words>(lanes);
    const Words pairs = (words & EVEN) + (words >> 8 & EVEN);
    return (pairs[0] + pairs[1]) * ONES >> 48;
}

size_t UtilCountBytes(const uint8_t *a, const uint8_t *b, size_t size)
{
    size_t count = 0;
    for (size_t i = 0; i < size; i++) {
        count += a[i] != b[i];
    }
    return count;
}

} // namespace

extern "C" {

void Util_AllocFailure() { Panic(UTIL_ALLOC_REPORT); }

void Util_AllocFailureAt(int bugNumber, const char *path, int line)
{
    if (bugNumber == UTIL_NO_BUG) { Panic(UTIL_ALLOC_AT_REPORT, path, line); }
    Panic(UTIL_ALLOC_BUG_REPORT, path, line, bugNumber);
}

void *Util_SafeMalloc(size_t size) { return UtilMalloc(size); }
void *Util_SafeMallocAt(size_t size, int bugNumber, const char *path, int line)
{
    return UtilMalloc(size, bugNumber, path, line);
}

void *Util_SafeRealloc(void *block, size_t size) { return UtilRealloc(block, size); }
void *Util_SafeReallocAt(void *block, size_t size, int bugNumber, const char *path, int line)
{
    return UtilRealloc(block, size, bugNumber, path, line);
}

void *Util_SafeCalloc(size_t count, size_t size) { return UtilCalloc(count, size); }
void *Util_SafeCallocAt(size_t count, size_t size, int bugNumber, const char *path, int line)
{
    return UtilCalloc(count, size, bugNumber, path, line);
}

char *Util_SafeStrdup(const char *string) { return UtilStrdup(string); }
char *Util_SafeStrdupAt(const char *string, int bugNumber, const char *path, int line)
{
    return UtilStrdup(string, bugNumber, path, line);
}

char *Util_SafeStrndup(const char *bytes, size_t n) { return UtilStrndup(bytes, n); }
char *Util_SafeStrndupAt(const char *bytes, size_t n, int bugNumber, const char *path, int line)
{
    return UtilStrndup(bytes, n, bugNumber, path, line);
}

void *Util_Memdup(const void *source, size_t size)
{
    if (size == 0) { return nullptr; }
    void *copy = malloc(size);
    return copy == nullptr ? nullptr : memcpy(copy, source, size);
}

void *Util_Memcpy(void *destination, const void *source, size_t size)
{
    // memcpy() must not get NULL even for 0 bytes; callers of this function may pass it.
    return size == 0 ? destination : memcpy(destination, source, size);
}

void Util_Free(void *block) { free(block); }

bool Util_CountMemDiff(const void *a, const void *b, size_t size, size_t *count)
{
    // MOST_STEPS: a step adds up to 4 to each lane of 8 bits.
    constexpr size_t STEP = 4 * LANES, MOST_STEPS = UINT8_MAX / 4;
    const auto *left = static_cast<const uint8_t *>(a), *right = static_cast<const uint8_t *>(b);
    // A comparison gives -1 in the lanes where it holds.
    const auto equalAt = [left, right](size_t at) {
        return reinterpret_cast<Lanes>(UtilLoad<Lanes>(left + at) == UtilLoad<Lanes>(right + at));
    };
    size_t equal = 0, i = 0;
    while (size - i >= STEP) {
        Lanes lanes = {};
        const size_t end = i + std::min((size - i) / STEP, MOST_STEPS) * STEP;
        for (; i < end; i += STEP) {
            lanes -= (equalAt(i) + equalAt(i + LANES)) +
                     (equalAt(i + 2 * LANES) + equalAt(i + 3 * LANES));
        }
        equal += UtilSum(lanes);
    }
    Lanes lanes = {};
    for (; size - i >= LANES; i += LANES) {
        lanes -= equalAt(i);
    }
    equal += UtilSum(lanes);
    const size_t different = i - equal + UtilCountBytes(left + i, right + i, size - i);
    if (count != nullptr) { *count = different; }
    return different != 0;
}

bool Util_MemDiffers(const void *a, const void *b, size_t size)
{
    const auto *left = static_cast<const uint8_t *>(a), *right = static_cast<const uint8_t *>(b);
    if (size < LANES) { return UtilCountBytes(left, right, size) != 0; }
    const auto differencesAt = [left, right](size_t at) {
        return UtilLoad<Words>(left + at) ^ UtilLoad<Words>(right + at);
    };
    // The last step may overlap the one before, so that every position is compared.
    const size_t last = size - LANES;
    Words differences = differencesAt(last);
    size_t i = 0;
    for (; last - i >= 4 * LANES; i += 4 * LANES) {
        differences |= (differencesAt(i) | differencesAt(i + LANES)) |
                       (differencesAt(i + 2 * LANES) | differencesAt(i + 3 * LANES));
    }
    for (; i < last; i += LANES) {
        differences |= differencesAt(i);
    }
    return (differences[0] | differences[1]) != 0;
}

bool Util_CountStrDiff(const char *a, const char *b, size_t *count)
{
    size_t different = 0;
    for (bool more = true; more; a++) {
        different += *a != *b;
        // Advances b unless it is at its NUL; a branch would reveal by its time where the NUL is.
        b += (static_cast<uint8_t>(*b) + 0xffu) >> 8;
        more = *a != '\0';
    }
    if (count != nullptr) { *count = different; }
    return different != 0;
}

bool Util_StrDiffers(const char *a, const char *b) { return Util_CountStrDiff(a, b, nullptr); }

} // extern "C"
