// codesetUtfSse42.cpp -- the kernel in vectors of 16 bytes.  Compiled for SSE4.2.
#include "codesetUtfKernel.h"

namespace pelago {

namespace {

using Sse42Units = uint16_t __attribute__((vector_size(16)));
struct Sse42 : SqueezeByTable<Sse42, Sse42Units> {
    using Bytes = uint8_t __attribute__((vector_size(16)));
    using Units = Sse42Units;
    using SignedBytes = int8_t __attribute__((vector_size(16)));
    using Sums = uint64_t __attribute__((vector_size(16)));

    static __m128i Bits(Bytes bytes) { return __m128i(bytes); }
    static __m128i Bits(Units units) { return __m128i(units); }

    static Bytes Load(const char *from) { return LoadAs<Bytes>(from); }
    static Bytes LoadPart(const char *from, size_t size) { return Bytes(LoadPart16(from, size)); }

    static uint32_t SignBits(Bytes bytes)
    {
        return static_cast<uint32_t>(_mm_movemask_epi8(Bits(bytes)));
    }
    static bool IsZero(Units units) { return _mm_testz_si128(Bits(units), Bits(units)) != 0; }

    // Returns the vector that begins COUNT bytes before `now`; `before` is the vector before `now`.
    template <int COUNT> static Bytes Previous(Bytes now, Bytes before)
    {
        return Bytes(_mm_alignr_epi8(Bits(now), Bits(before), 16 - COUNT));
    }
    static Bytes Lookup(const Row &row, Bytes indexes)
    {
        return Bytes(_mm_shuffle_epi8(LoadRow(row), Bits(indexes)));
    }
    static Bytes Less(Bytes bytes, uint8_t amount) // 0 where the amount is larger
    {
        return Bytes(_mm_subs_epu8(Bits(bytes), _mm_set1_epi8(static_cast<char>(amount))));
    }

    static Bytes AtLeast(Bytes bytes, uint8_t amount)
    {
        return Bytes(Bytes(_mm_max_epu8(Bits(bytes), _mm_set1_epi8(static_cast<char>(amount)))) ==
                     bytes);
    }
    static Units AtLeast(Units units, uint16_t amount)
    {
        const __m128i amounts = _mm_set1_epi16(static_cast<short>(amount));
        return Units(Units(_mm_max_epu16(Bits(units), amounts)) == units);
    }
    static bool HasNone(Units units, uint16_t bits)
    {
        return _mm_testz_si128(Bits(units), _mm_set1_epi16(static_cast<short>(bits))) != 0;
    }
    static Units Choose(Units mask, Units then, Units otherwise)
    {
        return Units(_mm_blendv_epi8(Bits(otherwise), Bits(then), Bits(mask)));
    }

    static Sums SumsOf(Bytes bytes) // of eight bytes each
    {
        return Sums(_mm_sad_epu8(Bits(bytes), _mm_setzero_si128()));
    }

    // The low and the high half of the bytes, as units.
    static Units WidenLow(Bytes bytes)
    {
        return Units(_mm_unpacklo_epi8(Bits(bytes), _mm_setzero_si128()));
    }
    static Units WidenHigh(Bytes bytes)
    {
        return Units(_mm_unpackhi_epi8(Bits(bytes), _mm_setzero_si128()));
    }
    // The units of a and b in turn.
    static Units JoinLow(Units a, Units b) { return Units(_mm_unpacklo_epi16(Bits(a), Bits(b))); }
    static Units JoinHigh(Units a, Units b) { return Units(_mm_unpackhi_epi16(Bits(a), Bits(b))); }

    // Returns each unit, which must be from -128 to 127, as a byte; each half's bytes come twice.
    static Bytes Narrow(Units units) { return Bytes(_mm_packs_epi16(Bits(units), Bits(units))); }

    // Store ASCII in the other encoding form.
    static void StoreNarrow(char *to, Units first, Units second)
    {
        Store16(to, _mm_packus_epi16(Bits(first), Bits(second)));
    }
    static void StoreWide(char *to, Bytes bytes)
    {
        Store16(to, Bits(WidenLow(bytes)));
        Store16(to + 16, Bits(WidenHigh(bytes)));
    }

    template <typename F> static void ForEach(Units units, F f) { f(Bits(units)); }
    // Calls f for 16 bytes at a time, in the order of the bytes before they were widened or joined.
    template <typename F> static void ForEachOfBoth(Units low, Units high, F f)
    {
        f(Bits(low));
        f(Bits(high));
    }
};

} // namespace

const CodeSetUtfKernel CodeSetUtf::SSE42 = Kernel<Sse42>::Named("SSE42");

} // namespace pelago
