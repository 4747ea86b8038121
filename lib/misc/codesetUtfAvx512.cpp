// codesetUtfAvx512.cpp -- the kernel in vectors of 64 bytes.  Compiled for AVX-512 with VBMI2,
// which squeezes without tables, and for BMI2.
#include "codesetUtfKernel.h"

namespace pelago {

namespace {

struct Avx512 {
    using Bytes = uint8_t __attribute__((vector_size(64)));
    using Units = uint16_t __attribute__((vector_size(64)));
    using SignedBytes = int8_t __attribute__((vector_size(64)));
    using Sums = uint64_t __attribute__((vector_size(64)));

    static __m512i Bits(Bytes bytes) { return __m512i(bytes); }
    static __m512i Bits(Units units) { return __m512i(units); }

    static Bytes Load(const char *from) { return LoadAs<Bytes>(from); }
    static Bytes LoadPart(const char *from, size_t size)
    {
        return Bytes(_mm512_maskz_loadu_epi8(Lowest(size), from));
    }

    static uint64_t SignBits(Bytes bytes) { return _mm512_movepi8_mask(Bits(bytes)); }
    static bool IsZero(Units units)
    {
        return _mm512_test_epi64_mask(Bits(units), Bits(units)) == 0;
    }
    static bool HasNone(Units units, uint16_t bits)
    {
        return _mm512_test_epi16_mask(Bits(units), _mm512_set1_epi16(static_cast<short>(bits))) ==
               0;
    }

    // The vector that begins so many bytes before this one.
    template <int COUNT> static Bytes Previous(Bytes now, Bytes before)
    {
        const __m512i between = _mm512_alignr_epi32(Bits(now), Bits(before), 12);
        return Bytes(_mm512_alignr_epi8(Bits(now), between, 16 - COUNT));
    }
    static Bytes Lookup(const Row &row, Bytes indexes)
    {
        return Bytes(_mm512_shuffle_epi8(_mm512_broadcast_i32x4(LoadRow(row)), Bits(indexes)));
    }
    static Bytes Less(Bytes bytes, uint8_t amount) // and at least 0
    {
        return Bytes(_mm512_subs_epu8(Bits(bytes), _mm512_set1_epi8(static_cast<char>(amount))));
    }
    static Bytes AtLeast(Bytes bytes, uint8_t amount)
    {
        const __m512i amounts = _mm512_set1_epi8(static_cast<char>(amount));
        return Bytes(_mm512_movm_epi8(_mm512_cmpge_epu8_mask(Bits(bytes), amounts)));
    }
    static Units AtLeast(Units units, uint16_t amount)
    {
        const __m512i amounts = _mm512_set1_epi16(static_cast<short>(amount));
        return Units(_mm512_movm_epi16(_mm512_cmpge_epu16_mask(Bits(units), amounts)));
    }
    static Units Choose(Units mask, Units then, Units otherwise)
    {
        return Units(_mm512_ternarylogic_epi64(Bits(mask), Bits(then), Bits(otherwise), 0xCA));
    }
    static Sums SumsOf(Bytes bytes) // of eight bytes each
    {
        return Sums(_mm512_sad_epu8(Bits(bytes), _mm512_setzero_si512()));
    }

    // The low and the high half of the bytes, as units.
    static Units WidenLow(Bytes bytes)
    {
        return Units(_mm512_cvtepu8_epi16(_mm512_castsi512_si256(Bits(bytes))));
    }
    static Units WidenHigh(Bytes bytes)
    {
        return Units(_mm512_cvtepu8_epi16(_mm512_extracti64x4_epi64(Bits(bytes), 1)));
    }

    // ASCII in the other form.
    static void StoreNarrow(char *to, Units first, Units second)
    {
        const __m512i order = _mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7);
        const __m512i quarters = _mm512_packus_epi16(Bits(first), Bits(second));
        _mm512_storeu_si512(to, _mm512_permutexvar_epi64(order, quarters));
    }
    static void StoreWide(char *to, Bytes bytes)
    {
        _mm512_storeu_si512(to, Bits(WidenLow(bytes)));
        _mm512_storeu_si512(to + 64, Bits(WidenHigh(bytes)));
    }

    // The units that have a bit.
    static char *PutUnits(Units low, Units high, uint64_t wanted, char *to)
    {
        const auto put = [&to](Units units, uint32_t mask) {
            const size_t count = CountBits(mask);
            _mm512_mask_storeu_epi16(to, static_cast<uint32_t>(Lowest(count)),
                                     _mm512_maskz_compress_epi16(mask, Bits(units)));
            to += 2 * count;
        };
        put(low, static_cast<uint32_t>(wanted));
        put(high, static_cast<uint32_t>(wanted >> 32));
        return to;
    }

    // The second byte of each pair, and the first one where isTwo is set.
    static char *PutPairs(Units pairs, Units isTwo, char *to)
    {
        return PutBytes(Bits(pairs), SignBits(Bytes(isTwo | 0xFF00)), to);
    }

    // The last bytes of each group of four, whose first two are in lows and last two in highs.
    // sizes has the two bits of GroupSqueezes for each group; padding has both bits of those to
    // leave out.
    static char *PutGroups(Units lows, Units highs, uint64_t sizes, uint64_t padding, char *to)
    {
        // So that the low halves of four lanes hold what belongs into the first vector.
        const __m512i order = _mm512_setr_epi64(0, 4, 1, 5, 2, 6, 3, 7),
                      firsts = _mm512_permutexvar_epi64(order, Bits(lows)),
                      lasts = _mm512_permutexvar_epi64(order, Bits(highs));
        const auto wanted = [=](int shift) {
            const uint64_t present = ~padding >> shift & 0xFFFFFFFF;
            return _pdep_u64(sizes >> shift & present, 0x6666666666666666) |
                   (_pdep_u64(present, 0xCCCCCCCCCCCCCCCC) & 0x8888888888888888);
        };
        to = PutBytes(_mm512_unpacklo_epi16(firsts, lasts), wanted(0), to);
        return PutBytes(_mm512_unpackhi_epi16(firsts, lasts), wanted(32), to);
    }

private:
    // A mask of so many bits, 64 at most.
    static uint64_t Lowest(size_t count)
    {
        return _bzhi_u64(~uint64_t{0}, static_cast<unsigned>(count));
    }
    static char *PutBytes(__m512i bytes, uint64_t wanted, char *to)
    {
        const size_t count = CountBits(wanted);
        _mm512_mask_storeu_epi8(to, Lowest(count), _mm512_maskz_compress_epi8(wanted, bytes));
        return to + count;
    }
};

} // namespace

const CodeSetUtfKernel CodeSetUtf::AVX512 = Kernel<Avx512>::Named("AVX512");

} // namespace pelago
