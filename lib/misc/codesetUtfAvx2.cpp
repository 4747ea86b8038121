// codesetUtfAvx2.cpp -- the kernel in vectors of 32 bytes.  Compiled for AVX2.
#include "codesetUtfKernel.h"

namespace pelago {

namespace {

// Most instructions work in each half of 16 bytes by itself.
using Avx2Units = uint16_t __attribute__((vector_size(32)));
struct Avx2 : SqueezeByTable<Avx2, Avx2Units> {
    using Bytes = uint8_t __attribute__((vector_size(32)));
    using Units = Avx2Units;
    using SignedBytes = int8_t __attribute__((vector_size(32)));
    using Sums = uint64_t __attribute__((vector_size(32)));

    static __m256i Bits(Bytes bytes) { return __m256i(bytes); }
    static __m256i Bits(Units units) { return __m256i(units); }

    static Bytes Load(const char *from) { return LoadAs<Bytes>(from); }
    static Bytes LoadPart(const char *from, size_t size)
    {
        if (size < 16) { return Bytes(_mm256_zextsi128_si256(LoadPart16(from, size))); }
        return Bytes(_mm256_set_m128i(LoadPart16(from + 16, size - 16), LoadAs<__m128i>(from)));
    }

    static uint32_t SignBits(Bytes bytes)
    {
        return static_cast<uint32_t>(_mm256_movemask_epi8(Bits(bytes)));
    }
    static bool IsZero(Units units) { return _mm256_testz_si256(Bits(units), Bits(units)) != 0; }

    // Returns the vector that begins COUNT bytes before `now`; `before` is the vector before `now`.
    template <int COUNT> static Bytes Previous(Bytes now, Bytes before)
    {
        const __m256i between = _mm256_permute2x128_si256(Bits(before), Bits(now), 0x21);
        return Bytes(_mm256_alignr_epi8(Bits(now), between, 16 - COUNT));
    }
    static Bytes Lookup(const Row &row, Bytes indexes)
    {
        const __m128i half = LoadRow(row);
        return Bytes(_mm256_shuffle_epi8(_mm256_broadcastsi128_si256(half), Bits(indexes)));
    }
    static Bytes Less(Bytes bytes, uint8_t amount) // 0 where the amount is larger
    {
        return Bytes(_mm256_subs_epu8(Bits(bytes), _mm256_set1_epi8(static_cast<char>(amount))));
    }

    static Bytes AtLeast(Bytes bytes, uint8_t amount)
    {
        return Bytes(Bytes(_mm256_max_epu8(Bits(bytes),
                                           _mm256_set1_epi8(static_cast<char>(amount)))) == bytes);
    }
    static Units AtLeast(Units units, uint16_t amount)
    {
        const __m256i amounts = _mm256_set1_epi16(static_cast<short>(amount));
        return Units(Units(_mm256_max_epu16(Bits(units), amounts)) == units);
    }
    static bool HasNone(Units units, uint16_t bits)
    {
        return _mm256_testz_si256(Bits(units), _mm256_set1_epi16(static_cast<short>(bits))) != 0;
    }
    static Units Choose(Units mask, Units then, Units otherwise)
    {
        return Units(_mm256_blendv_epi8(Bits(otherwise), Bits(then), Bits(mask)));
    }

    static Sums SumsOf(Bytes bytes) // of eight bytes each
    {
        return Sums(_mm256_sad_epu8(Bits(bytes), _mm256_setzero_si256()));
    }

    // The low and the high part of each half of the bytes, as units.
    static Units WidenLow(Bytes bytes)
    {
        return Units(_mm256_unpacklo_epi8(Bits(bytes), _mm256_setzero_si256()));
    }
    static Units WidenHigh(Bytes bytes)
    {
        return Units(_mm256_unpackhi_epi8(Bits(bytes), _mm256_setzero_si256()));
    }
    // The units of a and b in turn.
    static Units JoinLow(Units a, Units b)
    {
        return Units(_mm256_unpacklo_epi16(Bits(a), Bits(b)));
    }
    static Units JoinHigh(Units a, Units b)
    {
        return Units(_mm256_unpackhi_epi16(Bits(a), Bits(b)));
    }

    // Returns each unit, which must be from -128 to 127, as a byte; each half's bytes come twice.
    static Bytes Narrow(Units units) { return Bytes(_mm256_packs_epi16(Bits(units), Bits(units))); }

    // Store ASCII in the other encoding form.
    static void StoreNarrow(char *to, Units first, Units second)
    {
        const __m256i halves = _mm256_packus_epi16(Bits(first), Bits(second));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(to),
                            _mm256_permute4x64_epi64(halves, 0xD8));
    }
    static void StoreWide(char *to, Bytes bytes)
    {
        const auto store = [to](size_t at, __m128i half) {
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(to + at), _mm256_cvtepu8_epi16(half));
        };
        store(0, _mm256_castsi256_si128(Bits(bytes)));
        store(32, _mm256_extracti128_si256(Bits(bytes), 1));
    }

    template <typename F> static void ForEach(Units units, F f)
    {
        f(_mm256_castsi256_si128(Bits(units)));
        f(_mm256_extracti128_si256(Bits(units), 1));
    }
    // Calls f for 16 bytes at a time, in the order of the bytes before they were widened or joined.
    template <typename F> static void ForEachOfBoth(Units low, Units high, F f)
    {
        f(_mm256_castsi256_si128(Bits(low)));
        f(_mm256_castsi256_si128(Bits(high)));
        f(_mm256_extracti128_si256(Bits(low), 1));
        f(_mm256_extracti128_si256(Bits(high), 1));
    }
};

} // namespace

const CodeSetUtfKernel CodeSetUtf::AVX2 = Kernel<Avx2>::Named("AVX2");

} // namespace pelago
