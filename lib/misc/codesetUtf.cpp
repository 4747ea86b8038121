// codesetUtf.cpp -- the kernel for processors without vectors to speak of, and the choice of one.
#include "codesetUtf.h"

#include "../string/utf.h"

#include <algorithm>
#include <atomic>
#include <cpuid.h>
#include <cstdint>
#include <cstring>
#include <immintrin.h>

namespace pelago {

namespace {

// ---- Plain: the converters of lib/string, a piece at a time

template <typename From, typename To>
using PlainConverter = UtfResult (*)(const From **, const From *, To **, To *, bool);

// Converts what lies at any address by way of aligned copies; without `to` it only measures.
template <typename From, typename To>
bool PlainConvert(PlainConverter<From, To> converter, const char *bytes, size_t size, char *to,
                  size_t *sizeOut)
{
    constexpr size_t PIECE = 256, UNITS_MOST = 3; // a unit becomes so many at most
    size_t written = 0;
    while (size > 0) {
        From source[PIECE];
        To target[UNITS_MOST * PIECE];
        const size_t count = std::min(size / sizeof(From), PIECE);
        memcpy(source, bytes, count * sizeof(From));
        const From *from = source;
        To *end = target;
        converter(&from, source + count, &end, target + UNITS_MOST * PIECE, false);
        // What stopped it is the next piece's first, and wrong when that is stopped at once.
        if (from == source) { return false; }

        const size_t bytesRead = static_cast<size_t>(from - source) * sizeof(From),
                     bytesMade = static_cast<size_t>(end - target) * sizeof(To);
        if (to != nullptr) { memcpy(to + written, target, bytesMade); }
        written += bytesMade;
        bytes += bytesRead;
        size -= bytesRead;
    }
    *sizeOut = written;
    return true;
}

bool PlainMeasureUtf8(const char *bytes, size_t size, size_t *sizeAsUtf16)
{
    return PlainConvert(Utf8ToUtf16, bytes, size, nullptr, sizeAsUtf16);
}

bool PlainUtf8IsValid(const char *bytes, size_t size)
{
    size_t ignored;
    return PlainMeasureUtf8(bytes, size, &ignored);
}

void PlainUtf8ToUtf16(const char *bytes, size_t size, char *to)
{
    size_t ignored;
    PlainConvert(Utf8ToUtf16, bytes, size, to, &ignored);
}

bool PlainMeasureUtf16(const char *bytes, size_t size, size_t *sizeAsUtf8)
{
    return PlainConvert(Utf16ToUtf8, bytes, size, nullptr, sizeAsUtf8);
}

void PlainUtf16ToUtf8(const char *bytes, size_t size, char *to)
{
    size_t ignored;
    PlainConvert(Utf16ToUtf8, bytes, size, to, &ignored);
}

// ---- The choice

constexpr const CodeSetUtfKernel *KERNELS[] = {&CodeSetUtf::AVX2, &CodeSetUtf::SSE42,
                                               &CodeSetUtf::PLAIN};

// Whether the system keeps the registers that AVX widens.
[[gnu::target("xsave")]] bool CodeSetUtfKeepsWideRegisters()
{
    constexpr uint64_t SSE_AND_AVX = 6;
    return (_xgetbv(0) & SSE_AND_AVX) == SSE_AND_AVX;
}

// The first of KERNELS that this processor can run.
size_t CodeSetUtfFirst()
{
    unsigned a = 0, b = 0, c = 0, d = 0;
    constexpr unsigned NEEDED = bit_SSE4_2 | bit_POPCNT;
    if (__get_cpuid(1, &a, &b, &c, &d) == 0 || (c & NEEDED) != NEEDED) { return 2; }
    if ((c & bit_OSXSAVE) == 0 || !CodeSetUtfKeepsWideRegisters()) { return 1; }
    return __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (b & bit_AVX2) != 0 ? 0 : 1;
}

// Under a hypervisor asking the processor takes longer than many a conversion, so it is asked once;
// threads that ask at the same time get the same answer.
const CodeSetUtfKernel &CodeSetUtfBest()
{
    static std::atomic<const CodeSetUtfKernel *> sBest;
    const CodeSetUtfKernel *best = sBest.load(std::memory_order_relaxed);
    if (best == nullptr) {
        best = KERNELS[CodeSetUtfFirst()];
        sBest.store(best, std::memory_order_relaxed);
    }
    return *best;
}

// ---- Into a buffer

bool CodeSetUtfMakeRoom(DynBuf *db, size_t count)
{
    if (db->data != nullptr) { return DynBufMakeRoom(db, count); }
    auto *block = static_cast<char *>(malloc(count));
    if (block == nullptr) { return false; }
    DynBuf_InitWithMemory(db, count, block);
    return true;
}

template <typename Measure, typename Convert>
bool CodeSetUtfAppend(Measure measure, Convert convert, const char *bytes, size_t size, DynBuf *db)
{
    if (size == 0) { return true; }
    size_t needed;
    if (!measure(bytes, size, &needed)) { return false; }
    if (!CodeSetUtfMakeRoom(db, needed + CODESET_UTF_SLACK)) { return false; }
    convert(bytes, size, db->data + db->size);
    db->size += needed;
    return true;
}

} // namespace

const CodeSetUtfKernel CodeSetUtf::PLAIN = {"plain",          PlainUtf8IsValid,  PlainMeasureUtf8,
                                            PlainUtf8ToUtf16, PlainMeasureUtf16, PlainUtf16ToUtf8};

std::span<const CodeSetUtfKernel *const> CodeSetUtfKernels()
{
    return std::span(KERNELS).subspan(CodeSetUtfFirst());
}

bool CodeSetUtf8IsValid(const char *bytes, size_t size)
{
    return size == 0 || CodeSetUtfBest().utf8IsValid(bytes, size);
}

bool CodeSetUtf16IsValid(const char *bytes, size_t size)
{
    size_t ignored;
    return size == 0 || CodeSetUtfBest().measureUtf16(bytes, size, &ignored);
}

bool CodeSetUtf8ToUtf16Db(const char *bytes, size_t size, DynBuf *db)
{
    const CodeSetUtfKernel &kernel = CodeSetUtfBest();
    return CodeSetUtfAppend(kernel.measureUtf8, kernel.utf8ToUtf16, bytes, size, db);
}

bool CodeSetUtf16ToUtf8Db(const char *bytes, size_t size, DynBuf *db)
{
    const CodeSetUtfKernel &kernel = CodeSetUtfBest();
    return CodeSetUtfAppend(kernel.measureUtf16, kernel.utf16ToUtf8, bytes, size, db);
}

} // namespace pelago
