// codesetUtfKernel.h -- checks and converts UTF-8 and UTF-16 a vector at a time, for any vector.
//
// There is no branch on single characters: all positions of a vector are converted at once, and a
// shuffle from a table then squeezes out the bytes that are not part of the result.  So the time
// hardly depends on the mix of characters.  A text is read in whole vectors and a last one that is
// padded with zeros.  A zero continues no character, so it shows a sequence that is cut short.
//
// This file is compiled once for each set of instructions.  All of it has internal linkage, so that
// the linker cannot replace code for one set by code for another.
#ifndef PELAGO_MISC_CODESETUTFKERNEL_H
#define PELAGO_MISC_CODESETUTFKERNEL_H

#include "codesetUtf.h"

#include <cstdint>
#include <cstring>
#include <immintrin.h>

namespace pelago {

namespace {

// ---- Tables

using Row = uint8_t[16];

// Returns a set of values of four bits: a bit for each value from first to last.
inline constexpr uint16_t Nibbles(unsigned first, unsigned last)
{
    return static_cast<uint16_t>((2U << last) - (1U << first));
}
inline constexpr uint16_t ANY = Nibbles(0x0, 0xF), ASCII = Nibbles(0x0, 0x7),
                          TAIL = Nibbles(0x8, 0xB), LEAD = Nibbles(0xC, 0xF);

// A malformed pair of neighbouring bytes: sets of values for the two halves of the first byte and
// for the high half of the second.
struct Fault {
    uint16_t firstHigh, firstLow, secondHigh;
};
inline constexpr Fault FAULTS[8] = {
    {LEAD, ANY, ASCII | LEAD},                                 // cut short
    {ASCII, ANY, TAIL},                                        // continues nothing
    {Nibbles(0xC, 0xC), Nibbles(0x0, 0x1), TAIL},              // longer than needed: below 80
    {Nibbles(0xE, 0xE), Nibbles(0x0, 0x0), Nibbles(0x8, 0x9)}, // below 800
    {Nibbles(0xF, 0xF), Nibbles(0x0, 0x0) | Nibbles(0x5, 0xF), // below 10000,
     Nibbles(0x8, 0x8)},                                       // or above 13FFFF
    {Nibbles(0xF, 0xF), Nibbles(0x4, 0xF), Nibbles(0x9, 0xB)}, // above 10FFFF
    {Nibbles(0xE, 0xE), Nibbles(0xD, 0xD), Nibbles(0xA, 0xB)}, // a surrogate
    {TAIL, ANY, TAIL},                                         // a third byte, or a fourth
};
// The last of FAULTS is one unless a leading byte stands two or three places before.  Where such a
// leading byte stands, the absence of that pair is a fault.
inline constexpr uint8_t LATER_TAIL = 1U << 7;

struct FaultTables {
    Row firstHigh = {}, firstLow = {}, secondHigh = {}; // a bit for each fault
    constexpr FaultTables()
    {
        for (unsigned nibble = 0; nibble < 16; nibble++) {
            for (unsigned i = 0; i < 8; i++) {
                const auto bit = [=](uint16_t set) {
                    return static_cast<uint8_t>((set >> nibble & 1U) << i);
                };
                firstHigh[nibble] |= bit(FAULTS[i].firstHigh);
                firstLow[nibble] |= bit(FAULTS[i].firstLow);
                secondHigh[nibble] |= bit(FAULTS[i].secondHigh);
            }
        }
    }
};
alignas(16) inline constexpr FaultTables FAULT_TABLES;

// Shuffles that move to the front of a vector those of its eight units of two bytes whose bit is
// set.
struct UnitSqueezes {
    Row rows[256] = {};
    constexpr UnitSqueezes()
    {
        for (unsigned wanted = 0; wanted < 256; wanted++) {
            unsigned to = 0;
            for (unsigned i = 0; i < 8; i++) {
                if ((wanted >> i & 1U) == 0) { continue; }
                rows[wanted][to++] = static_cast<uint8_t>(2 * i);
                rows[wanted][to++] = static_cast<uint8_t>(2 * i + 1);
            }
        }
    }
};
alignas(16) inline constexpr UnitSqueezes UNIT_SQUEEZES;

// Shuffles that move to the front the second byte of each of eight pairs, and the first byte of a
// pair whose bit is set.
struct PairSqueezes {
    Row rows[256] = {};
    constexpr PairSqueezes()
    {
        for (unsigned wanted = 0; wanted < 256; wanted++) {
            unsigned to = 0;
            for (unsigned i = 0; i < 8; i++) {
                if ((wanted >> i & 1U) != 0) { rows[wanted][to++] = static_cast<uint8_t>(2 * i); }
                rows[wanted][to++] = static_cast<uint8_t>(2 * i + 1);
            }
        }
    }
};
alignas(16) inline constexpr PairSqueezes PAIR_SQUEEZES;

// Shuffles that move to the front the last bytes of each of four groups of four bytes, as many as
// GroupSize() returns for the group's two bits.
struct GroupSqueezes {
    Row rows[256] = {};
    uint8_t size[256] = {}; // the number of bytes that are moved
    constexpr GroupSqueezes()
    {
        for (unsigned sizes = 0; sizes < 256; sizes++) {
            for (unsigned i = 0; i < 4; i++) {
                for (unsigned left = GroupSize(sizes >> 2 * i & 3U); left > 0; left--) {
                    rows[sizes][size[sizes]++] = static_cast<uint8_t>(4 * i + 4 - left);
                }
            }
        }
    }
    // Bit 0: more than two bytes; bit 1: more than one.  A group with bit 0 alone is padding.
    static constexpr unsigned GroupSize(unsigned bits)
    {
        constexpr unsigned SIZES[] = {1, 0, 2, 3};
        return SIZES[bits];
    }
};
alignas(16) inline constexpr GroupSqueezes GROUP_SQUEEZES;
inline constexpr uint32_t NO_GROUPS = 0x55555555; // bit 0 alone for each group: all are padding

// ---- Loading

template <typename T> T LoadAs(const char *from)
{
    T value;
    memcpy(&value, from, sizeof value);
    return value;
}

// Returns `size` bytes, which are fewer than 16, and zeros after them.  Reads nothing beyond them.
inline __m128i LoadPart16(const char *from, size_t size)
{
    const auto byteAt = [from](size_t i) {
        return static_cast<uint64_t>(static_cast<uint8_t>(from[i])) << 8 * i;
    };
    uint64_t low = 0, high = 0;
    if (size >= 8) {
        low = LoadAs<uint64_t>(from);
        high = LoadAs<uint64_t>(from + size - 8) >> 8 * (15 - size) >> 8;
    } else if (size >= 4) {
        low = LoadAs<uint32_t>(from) | static_cast<uint64_t>(LoadAs<uint32_t>(from + size - 4))
                                           << 8 * (size - 4);
    } else if (size > 0) {
        low = byteAt(0) | byteAt(size / 2) | byteAt(size - 1);
    }
    return _mm_set_epi64x(static_cast<int64_t>(high), static_cast<int64_t>(low));
}

inline void Store16(char *to, __m128i value)
{
    _mm_storeu_si128(reinterpret_cast<__m128i *>(to), value);
}

inline __m128i LoadRow(const Row &row)
{
    return _mm_load_si128(reinterpret_cast<const __m128i *>(row));
}

inline void StoreSqueezed(char *to, __m128i value, const Row &row)
{
    Store16(to, _mm_shuffle_epi8(value, LoadRow(row)));
}

inline unsigned CountBits(uint64_t bits)
{
    return static_cast<unsigned>(__builtin_popcountll(bits));
}

// ---- Squeezing by tables

// Vector supplies ForEach() and ForEachOfBoth(), which call a function for each 16 bytes in turn.
// Each function here writes its result at `to`, in whole vectors, and returns the result's end.
template <typename Vector, typename Units> struct SqueezeByTable {
    // Writes the units whose bit in `wanted` is set.
    static char *PutUnits(Units low, Units high, uint32_t wanted, char *to)
    {
        Vector::ForEachOfBoth(low, high, [&](__m128i eight) {
            const size_t mask = wanted & 0xFF;
            wanted >>= 8;
            StoreSqueezed(to, eight, UNIT_SQUEEZES.rows[mask]);
            to += size_t{2} * CountBits(mask);
        });
        return to;
    }

    // Writes the second byte of each pair, and before it the first one where isTwo is set.
    static char *PutPairs(Units pairs, Units isTwo, char *to)
    {
        uint32_t bits = Vector::SignBits(Vector::Narrow(isTwo));
        Vector::ForEach(pairs, [&](__m128i eight) {
            const size_t mask = bits & 0xFF;
            bits >>= 16;
            StoreSqueezed(to, eight, PAIR_SQUEEZES.rows[mask]);
            to += 8 + CountBits(mask);
        });
        return to;
    }

    // Writes the last bytes of each group of four, whose first two are in lows and last two in
    // highs.  sizes has the two bits of GroupSqueezes for each group.  padding has both bits set
    // for each group that is left out.
    static char *PutGroups(Units lows, Units highs, uint32_t sizes, uint32_t padding, char *to)
    {
        uint32_t bits = (sizes & ~padding) | (NO_GROUPS & padding);
        Vector::ForEachOfBoth(Vector::JoinLow(lows, highs), Vector::JoinHigh(lows, highs),
                              [&](__m128i four) {
                                  const size_t mask = bits & 0xFF;
                                  bits >>= 8;
                                  StoreSqueezed(to, four, GROUP_SQUEEZES.rows[mask]);
                                  to += GROUP_SQUEEZES.size[mask];
                              });
        return to;
    }
};

// ---- The kernel

// Vector supplies the types Bytes and Units, of the same size, and what the language has no
// operators for.
template <typename Vector> struct Kernel {
    using Bytes = typename Vector::Bytes;
    using Units = typename Vector::Units;
    using SignedBytes = typename Vector::SignedBytes;
    using Sums = typename Vector::Sums; // 64 bits each
    using Mask = decltype(Vector::SignBits(Bytes{}));
    static constexpr size_t WIDTH = sizeof(Bytes);

    static bool IsAscii(Bytes bytes) { return Vector::SignBits(bytes) == 0; }
    static bool IsAscii(Units units) { return Vector::HasNone(units, 0xFF80); }

    // ---- A text in parts

    // Returns a number of bytes at the text's start that are ASCII: size if all are, or else some
    // whole vectors, after which there may be more ASCII.
    template <typename V> static size_t SkipAscii(const char *bytes, size_t size)
    {
        const auto load = [bytes](size_t at) { return V(Vector::Load(bytes + at)); };
        size_t at = 0;
        for (; size - at >= 4 * WIDTH; at += 4 * WIDTH) {
            const V first = load(at) | load(at + WIDTH),
                    second = load(at + 2 * WIDTH) | load(at + 3 * WIDTH);
            if (!IsAscii(first | second)) { return at; }
        }
        for (; size - at >= WIDTH; at += WIDTH) {
            if (!IsAscii(load(at))) { return at; }
        }
        return at > 0 && IsAscii(load(size - WIDTH)) ? size : at;
    }

    // Calls looker.Look(vector, the vector before it) for the text's vectors, but skips four
    // vectors that are ASCII after an ASCII one.  The first vector comes after zeros.  A character
    // that is cut short shows in the next vector, so zeros follow the text; after a last vector
    // without such zeros looker.End(the text's end) is called.  For four vectors whose combined
    // bits looker.IsSimple() accepts, looker.LookSimply(vector) is called instead.  looker.Count()
    // is called after four vectors at most.
    template <typename V, typename Looker>
    static void LookThrough(const char *bytes, size_t size, Looker &looker)
    {
        const auto load = [](const char *from) { return V(Vector::Load(from)); };
        V last = {};
        const auto step = [&](V now) {
            looker.Look(now, last);
            last = now;
        };
        for (; size >= 4 * WIDTH; bytes += 4 * WIDTH, size -= 4 * WIDTH) {
            const V all = last | load(bytes) | load(bytes + WIDTH) | load(bytes + 2 * WIDTH) |
                          load(bytes + 3 * WIDTH);
            if (IsAscii(all)) { continue; }
            // Loops, since four vectors in a row need more registers than there are.
            if (looker.IsSimple(all)) {
                for (size_t at = 0; at < 4 * WIDTH; at += WIDTH) {
                    looker.LookSimply(load(bytes + at));
                }
                last = load(bytes + 3 * WIDTH);
            } else {
                for (size_t at = 0; at < 4 * WIDTH; at += WIDTH) {
                    step(load(bytes + at));
                }
            }
            looker.Count();
        }
        for (; size >= WIDTH; bytes += WIDTH, size -= WIDTH) {
            step(load(bytes));
        }
        if (size > 0) {
            step(V(Vector::LoadPart(bytes, size)));
        } else {
            looker.End(bytes);
        }
        looker.Count();
    }

    // Counts the set bytes of all masks.  Flush() must be called after 255 masks at most.
    struct Counter {
        Bytes pending = {};
        Sums sums = {};
        void Add(Bytes mask) { pending -= mask; }
        void Flush()
        {
            sums += Vector::SumsOf(pending);
            pending = Bytes{};
        }
        size_t Total() const
        {
            size_t total = 0;
            for (size_t i = 0; i < WIDTH / sizeof sums[0]; i++) {
                total += sums[i];
            }
            return total;
        }
    };

    // ---- UTF-8

    // Returns a vector with a byte that is not zero if `now`, after `before`, is not well-formed.
    static Bytes Faults(Bytes now, Bytes before)
    {
        const Bytes first = Vector::template Previous<1>(now, before);
        const Bytes pairs = Vector::Lookup(FAULT_TABLES.firstHigh, first >> 4) &
                            Vector::Lookup(FAULT_TABLES.firstLow, first & 0xF) &
                            Vector::Lookup(FAULT_TABLES.secondHigh, now >> 4);
        // The top bit is set where the byte two places before leads three bytes or four, or the
        // byte three places before leads four.
        const Bytes later = Vector::Less(Vector::template Previous<2>(now, before), 0xE0 - 0x80) |
                            Vector::Less(Vector::template Previous<3>(now, before), 0xF0 - 0x80);
        return pairs ^ (later & LATER_TAIL);
    }

    struct Utf8Check {
        Bytes faults = {};
        bool isCut = false;
        static bool IsSimple(Bytes bytes) { return IsAscii(bytes); }
        void LookSimply(Bytes) {}
        void Look(Bytes now, Bytes before) { faults |= Faults(now, before); }
        void End(const char *end)
        {
            isCut =
                (end[-1] & 0xC0) == 0xC0 || (end[-2] & 0xE0) == 0xE0 || (end[-3] & 0xF0) == 0xF0;
        }
        void Count() {}
        bool IsRight() const { return !isCut && Vector::IsZero(Units(faults)); }
    };

    struct Utf8Measure : Utf8Check {
        Counter tails, fours;
        void Look(Bytes now, Bytes before)
        {
            Utf8Check::Look(now, before);
            tails.Add(Bytes(SignedBytes(now) < SignedBytes(Bytes{} + 0xC0)));
            fours.Add(Vector::AtLeast(now, 0xF0));
        }
        void Count()
        {
            tails.Flush();
            fours.Flush();
        }
    };

    static bool Utf8IsValid(const char *bytes, size_t size)
    {
        const size_t ascii = SkipAscii<Bytes>(bytes, size);
        return ascii == size || RestIsValid(bytes + ascii, size - ascii);
    }

    static bool RestIsValid(const char *bytes, size_t size)
    {
        Utf8Check check;
        LookThrough<Bytes>(bytes, size, check);
        return check.IsRight();
    }

    static bool MeasureUtf8(const char *bytes, size_t size, size_t *sizeAsUtf16)
    {
        Utf8Measure measure;
        LookThrough<Bytes>(bytes, size, measure);
        *sizeAsUtf16 = 2 * (size - measure.tails.Total() + measure.fours.Total());
        return measure.IsRight();
    }

    // Writes the units of one vector of a valid text: those that end at a byte whose bit in `kept`
    // is set.  A unit ends at the last byte of its character; of a pair of surrogates the high one
    // ends at the third byte.
    [[gnu::always_inline]] static char *WriteUnits(Bytes now, Bytes before, Mask kept, char *to)
    {
        const Bytes second = Vector::template Previous<1>(now, before),
                    third = Vector::template Previous<2>(now, before),
                    fourth = Vector::template Previous<3>(now, before);
        // Of these only the top bit counts.
        const Bytes isThird = Vector::Less(third, 0xE0 - 0x80),
                    isHigh = Vector::Less(third, 0xF0 - 0x80),
                    isLow = Vector::Less(fourth, 0xF0 - 0x80);
        const Bytes isAscii = Bytes(SignedBytes(now) > -1),
                    isSecond = Bytes((second & 0xE0) == 0xC0);

        const Bytes low = now & (isAscii | 0x3F), middle = second & ~isAscii & 0x3F,
                    high = Vector::Less(third, 0xE0);
        const auto unitsOf = [](Units lows, Units middles, Units highs) {
            return lows | middles << 6 | highs << 12;
        };
        Units front =
                  unitsOf(Vector::WidenLow(low), Vector::WidenLow(middle), Vector::WidenLow(high)),
              back = unitsOf(Vector::WidenHigh(low), Vector::WidenHigh(middle),
                             Vector::WidenHigh(high));
        if (!IsAscii(isHigh | isLow)) {
            // D7C0 is D800 less 10000 >> 10: a pair encodes its character's value less 10000.
            const auto paired = [](Units unit, Units lead, Units leadOfLow) {
                const Units highSurrogate = 0xD7C0 + ((lead & 7) << 8) + ((unit & 0xFFF) >> 4);
                const Units leading =
                    Vector::Choose(Vector::AtLeast(lead, 0xF0), highSurrogate, unit);
                return Vector::Choose(Vector::AtLeast(leadOfLow, 0xF0), (unit & 0x3FF) | 0xDC00,
                                      leading);
            };
            front = paired(front, Vector::WidenLow(third), Vector::WidenLow(fourth));
            back = paired(back, Vector::WidenHigh(third), Vector::WidenHigh(fourth));
        }
        return Vector::PutUnits(front, back,
                                Vector::SignBits(isAscii | isSecond | isThird | isLow) & kept, to);
    }

    static void Utf8ToUtf16(const char *bytes, size_t size, char *to)
    {
        Bytes last = {};
        for (; size >= WIDTH; bytes += WIDTH, size -= WIDTH) {
            const Bytes now = Vector::Load(bytes);
            if (IsAscii(now)) {
                Vector::StoreWide(to, now);
                to += 2 * WIDTH;
            } else {
                to = WriteUnits(now, last, ~Mask{0}, to);
            }
            last = now;
        }
        if (size > 0) { WriteUnits(Vector::LoadPart(bytes, size), last, ~(~Mask{0} << size), to); }
    }

    // ---- UTF-16

    static Units IsSurrogate(Units units) { return Units((units & 0xF800) == 0xD800); }
    static Units IsHigh(Units units) { return Units((units & 0xFC00) == 0xD800); }
    static Units IsLow(Units units) { return Units((units & 0xFC00) == 0xDC00); }

    struct Utf16Measure {
        Units faults = {};
        bool isCut = false;
        Counter more; // counts two for each byte beyond the first that a unit is converted to
        static bool IsSimple(Units units) { return Vector::HasNone(units, 0xF800); }
        void LookSimply(Units now) { more.Add(Bytes(Vector::AtLeast(now, 0x80))); }
        void Look(Units now, Units before)
        {
            LookSimply(now);
            more.Add(Bytes(Vector::AtLeast(now, 0x800) & ~IsSurrogate(now)));
            const Units previous = Units(Vector::template Previous<2>(Bytes(now), Bytes(before)));
            faults |= IsHigh(previous) ^ IsLow(now);
        }
        void End(const char *end) { isCut = (end[-1] & 0xFC) == 0xD8; }
        void Count() { more.Flush(); }
        bool IsRight() const { return !isCut && Vector::IsZero(faults); }
    };

    static bool MeasureUtf16(const char *bytes, size_t size, size_t *sizeAsUtf8)
    {
        if (size % 2 != 0) { return false; }
        Utf16Measure measure;
        LookThrough<Units>(bytes, size, measure);
        *sizeAsUtf8 = size / 2 + measure.more.Total() / 2;
        return measure.IsRight();
    }

    // Writes the bytes of one vector of a valid text without characters of three bytes or four.
    [[gnu::always_inline]] static char *WritePairs(Units now, char *to)
    {
        const Units isTwo = Vector::AtLeast(now, 0x80), both = now << 8 | now >> 6;
        return Vector::PutPairs(Vector::Choose(isTwo, (both & 0x3F1F) | 0x80C0, both), isTwo, to);
    }

    // Returns the last two bytes of each surrogate's group, and `otherwise` for other units.  The
    // bytes of a low surrogate contain two bits of the high one before it.
    static Units SurrogateBytes(Units now, Units before, Units otherwise)
    {
        const Units value = (now & 0x3FF) + 0x40,
                    twoBits = Units(Vector::template Previous<2>(Bytes(now), Bytes(before))) & 3;
        const Units ofHigh = 0x80F0 | value >> 8 | (value << 6 & 0x3F00),
                    ofLow = 0x8080 | twoBits << 4 | (now >> 6 & 0xF) | (now << 8 & 0x3F00);
        return Vector::Choose(IsHigh(now), ofHigh, Vector::Choose(IsLow(now), ofLow, otherwise));
    }

    // Writes the bytes of one vector of a valid text.  Each unit becomes a group of bytes; the
    // group of a surrogate has two of its pair's four bytes.
    [[gnu::always_inline]] static char *WriteBytes(Units now, Units before, Mask padding, char *to)
    {
        const Units isTwo = Vector::AtLeast(now, 0x80), isLong = Vector::AtLeast(now, 0x800),
                    isSurrogate = IsSurrogate(now), isThree = isLong & ~isSurrogate;
        // The first of a group's four bytes is never used.  The second is the lead of three bytes,
        // the third a lead of two or a tail, and the fourth a tail or ASCII.
        const Units both = now << 8 | (now >> 6 & 0x3F);
        const Units marks = 0x80C0 ^ (isLong & 0x0040);
        Units highs = Vector::Choose(isTwo, (both & 0x3F3F) | marks, both);
        if (!Vector::IsZero(isSurrogate)) { highs = SurrogateBytes(now, before, highs); }
        const Units lows = now >> 4 | 0xE000;
        const Mask sizes = Vector::SignBits(Bytes((isThree & 0x00FF) | (isTwo & 0xFF00)));
        return Vector::PutGroups(lows, highs, sizes, padding, to);
    }

    // Writes the bytes of two vectors of a valid text; `before` is the vector before them.
    [[gnu::always_inline]] static char *WriteTwo(Units first, Units second, Units before, char *to)
    {
        if (IsAscii(first | second)) {
            Vector::StoreNarrow(to, first, second);
            return to + WIDTH;
        }
        if (Vector::HasNone(first | second, 0xF800)) {
            return WritePairs(second, WritePairs(first, to));
        }
        return WriteBytes(second, first, 0, WriteBytes(first, before, 0, to));
    }

    static void Utf16ToUtf8(const char *bytes, size_t size, char *to)
    {
        Units last = {};
        for (; size >= 2 * WIDTH; bytes += 2 * WIDTH, size -= 2 * WIDTH) {
            const Units second = Units(Vector::Load(bytes + WIDTH));
            to = WriteTwo(Units(Vector::Load(bytes)), second, last, to);
            last = second;
        }
        if (size >= WIDTH) {
            const Units now = Units(Vector::Load(bytes));
            to = WriteBytes(now, last, 0, to);
            last = now;
            bytes += WIDTH;
            size -= WIDTH;
        }
        if (size > 0) {
            WriteBytes(Units(Vector::LoadPart(bytes, size)), last, ~Mask{0} << size, to);
        }
    }

    static constexpr CodeSetUtfKernel Named(const char *name)
    {
        return {name, Utf8IsValid, MeasureUtf8, Utf8ToUtf16, MeasureUtf16, Utf16ToUtf8};
    }
};

} // namespace

} // namespace pelago

#endif // PELAGO_MISC_CODESETUTFKERNEL_H
