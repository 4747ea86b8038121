// codesetUtf.cpp -- the plain kernel, for processors without SSE4.2, and the choice of a kernel.
#include "codesetUtf.h"

#include "utf.h"

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

// Converts a text at any address through aligned copies of its pieces, and stores the result's
// size.  Only measures the result when `to` is null.  Returns the offset of the first byte that is
// not well-formed, or size.
template <typename From, typename To>
size_t PlainConvert(PlainConverter<From, To> converter, const char *bytes, size_t size, char *to,
                    size_t *sizeOut)
{
    constexpr size_t PIECE = 256, UNITS_MOST = 3; // the most units that one unit is converted to
    size_t written = 0, at = 0;
    while (at < size) {
        From source[PIECE];
        To target[UNITS_MOST * PIECE];
        const size_t count = std::min((size - at) / sizeof(From), PIECE);
        memcpy(source, bytes + at, count * sizeof(From));
        const From *from = source;
        To *end = target;
        converter(&from, source + count, &end, target + UNITS_MOST * PIECE, false);
        // A character that the piece's end has cut begins the next piece.  A piece that the
        // converter refuses at its first unit is not well-formed there.
        if (from == source) { break; }

        const size_t bytesMade = static_cast<size_t>(end - target) * sizeof(To);
        if (to != nullptr) { memcpy(to + written, target, bytesMade); }
        written += bytesMade;
        at += static_cast<size_t>(from - source) * sizeof(From);
    }
    *sizeOut = written;
    return at;
}

bool PlainMeasureUtf8(const char *bytes, size_t size, size_t *sizeAsUtf16)
{
    return PlainConvert(Utf8ToUtf16, bytes, size, nullptr, sizeAsUtf16) == size;
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
    return PlainConvert(Utf16ToUtf8, bytes, size, nullptr, sizeAsUtf8) == size;
}

void PlainUtf16ToUtf8(const char *bytes, size_t size, char *to)
{
    size_t ignored;
    PlainConvert(Utf16ToUtf8, bytes, size, to, &ignored);
}

// ---- The choice

constexpr const CodeSetUtfKernel *KERNELS[] = {&CodeSetUtf::AVX2, &CodeSetUtf::SSE42,
                                               &CodeSetUtf::PLAIN};

// Returns a bit for each kind of registers that the system saves for a thread (XCR0).
[[gnu::target("xsave")]] uint64_t CodeSetUtfKeptRegisters() { return _xgetbv(0); }

// Returns the index of the first of KERNELS that this processor can run.  Executes CPUID, since the
// compiler's __builtin_cpu_supports() does not link for macOS.
size_t CodeSetUtfFirst()
{
    enum { AVX2, SSE42, PLAIN };
    unsigned a, b, c, d;
    constexpr unsigned NEEDED = bit_SSE4_2 | bit_POPCNT;
    __cpuid(1, a, b, c, d);
    if ((c & NEEDED) != NEEDED) { return PLAIN; }

    constexpr uint64_t KEPT_FOR_AVX = 0x06;
    const uint64_t kept = (c & bit_OSXSAVE) != 0 ? CodeSetUtfKeptRegisters() : 0;
    if ((kept & KEPT_FOR_AVX) != KEPT_FOR_AVX) { return SSE42; }
    const bool hasAvx2 = __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (b & bit_AVX2) != 0;
    return hasAvx2 ? AVX2 : SSE42;
}

// Under a hypervisor each CPUID takes 5 us or more, so the choice executes few of them, and is made
// once.  Threads that choose at the same time make the same choice.
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

// A text that fits a narrow vector gains nothing from wide ones, which take longer to set up.
const CodeSetUtfKernel &CodeSetUtfBestFor(size_t size)
{
    constexpr size_t NARROW = 16;
    const CodeSetUtfKernel &best = CodeSetUtfBest();
    return size <= NARROW && &best != &CodeSetUtf::PLAIN ? CodeSetUtf::SSE42 : best;
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
    return size == 0 || CodeSetUtfBestFor(size).utf8IsValid(bytes, size);
}

bool CodeSetUtf16IsValid(const char *bytes, size_t size)
{
    size_t ignored;
    return size == 0 || CodeSetUtfBestFor(size).measureUtf16(bytes, size, &ignored);
}

size_t CodeSetUtf8ValidSize(const char *bytes, size_t size)
{
    size_t ignored;
    return PlainConvert(Utf8ToUtf16, bytes, size, nullptr, &ignored);
}

size_t CodeSetUtf16ValidSize(const char *bytes, size_t size)
{
    size_t ignored;
    return PlainConvert(Utf16ToUtf8, bytes, size, nullptr, &ignored);
}

bool CodeSetUtf8ToUtf16Db(const char *bytes, size_t size, DynBuf *db)
{
    const CodeSetUtfKernel &kernel = CodeSetUtfBestFor(size);
    return CodeSetUtfAppend(kernel.measureUtf8, kernel.utf8ToUtf16, bytes, size, db);
}

bool CodeSetUtf16ToUtf8Db(const char *bytes, size_t size, DynBuf *db)
{
    const CodeSetUtfKernel &kernel = CodeSetUtfBestFor(size);
    return CodeSetUtfAppend(kernel.measureUtf16, kernel.utf16ToUtf8, bytes, size, db);
}

} // namespace pelago
