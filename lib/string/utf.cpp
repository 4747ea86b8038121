// utf.cpp -- one loop for all conversions, in which one form reads a character and another writes
// it.
#include "utf.h"

#include "ascii.h"

#include <algorithm>
#include <bit>

namespace pelago {

namespace {

constexpr uint32_t HIGH_FIRST = 0xD800, LOW_FIRST = 0xDC00, LOW_LAST = 0xDFFF;
constexpr uint32_t SUPPLEMENTARY_FIRST = 0x10000, LARGEST = 0x10FFFF, REPLACEMENT = 0xFFFD;
constexpr size_t UTF8_LONGEST = 4; // bytes of a character

bool UtfIsHigh(uint32_t value) { return value >= HIGH_FIRST && value < LOW_FIRST; }
bool UtfIsLow(uint32_t value) { return value >= LOW_FIRST && value <= LOW_LAST; }

// Returns the length that a leading byte announces; 0 for a byte that cannot lead.
size_t Utf8Length(uint8_t lead)
{
    if (lead < 0x80) { return 1; }
    if (lead < 0xC2) { return 0; } // a continuation, or the start of an overlong sequence
    if (lead < 0xE0) { return 2; }
    if (lead < 0xF0) { return 3; }
    return lead <= 0xF4 ? 4 : 0;
}

// Returns whether the second byte, a continuation, may follow this leading byte: a sequence must
// not be longer than needed, a surrogate, or above U+10FFFF.
bool Utf8SecondFits(uint8_t lead, uint8_t second)
{
    switch (lead) {
    case 0xE0: return second >= 0xA0;
    case 0xED: return second < 0xA0;
    case 0xF0: return second >= 0x90;
    case 0xF4: return second < 0x90;
    default: return true;
    }
}

// Returns whether the last bytes are a legal sequence.
bool Utf8EndsLegally(const char *text, size_t length)
{
    const auto *end = reinterpret_cast<const uint8_t *>(text) + length;
    for (size_t size = 1; size <= std::min(length, UTF8_LONGEST); size++) {
        if (Utf8SequenceIsLegal(end - size, size)) { return true; }
    }
    return false;
}

struct Character {
    uint32_t value;
    size_t units; // of the source
};

// A form's Read() reads the character at a place before the end, and returns Done, SourceCut or
// Illegal.  Write() writes one, in as many units as Size() returned for it.

struct Utf8 {
    using Unit = uint8_t;

    static UtfResult Read(const Unit *at, const Unit *end, Character *character)
    {
        const size_t length = Utf8Length(*at);
        if (length == 0) { return UtfResult::Illegal; }
        if (static_cast<size_t>(end - at) < length) { return UtfResult::SourceCut; }
        if (!Utf8SequenceIsLegal(at, length)) { return UtfResult::Illegal; }
        uint32_t value = length == 1 ? *at : *at & (0x7FU >> length);
        for (size_t i = 1; i < length; i++) {
            value = (value << 6) | (at[i] & 0x3FU);
        }
        *character = {value, length};
        return UtfResult::Done;
    }

    static size_t Size(uint32_t value)
    {
        if (value < 0x80) { return 1; }
        if (value < 0x800) { return 2; }
        return value < SUPPLEMENTARY_FIRST ? 3 : 4;
    }

    static void Write(uint32_t value, size_t size, Unit *to)
    {
        constexpr uint8_t LEAD[] = {0, 0x00, 0xC0, 0xE0, 0xF0};
        for (size_t i = size - 1; i > 0; i--, value >>= 6) {
            to[i] = static_cast<Unit>(0x80 | (value & 0x3F));
        }
        to[0] = static_cast<Unit>(LEAD[size] | value);
    }
};

struct Utf16 {
    using Unit = uint16_t;

    static UtfResult Read(const Unit *at, const Unit *end, Character *character)
    {
        *character = {*at, 1};
        if (!UtfIsHigh(*at)) { return UtfResult::Done; }
        if (end - at < 2) { return UtfResult::SourceCut; }
        if (UtfIsLow(at[1])) {
            *character = {SUPPLEMENTARY_FIRST + ((at[0] - HIGH_FIRST) << 10) + (at[1] - LOW_FIRST),
                          2};
        }
        return UtfResult::Done;
    }

    static size_t Size(uint32_t value) { return value < SUPPLEMENTARY_FIRST ? 1 : 2; }

    static void Write(uint32_t value, size_t size, Unit *to)
    {
        if (size == 1) {
            to[0] = static_cast<Unit>(value);
            return;
        }
        value -= SUPPLEMENTARY_FIRST;
        to[0] = static_cast<Unit>(HIGH_FIRST + (value >> 10));
        to[1] = static_cast<Unit>(LOW_FIRST + (value & 0x3FF));
    }
};

struct Utf32 {
    using Unit = uint32_t;

    static UtfResult Read(const Unit *at, const Unit *, Character *character)
    {
        *character = {*at, 1};
        return UtfResult::Done;
    }

    static size_t Size(uint32_t) { return 1; }
    static void Write(uint32_t value, size_t, Unit *to) { to[0] = value; }
};

// What happens to a value that is no character.
enum class Fate { Stops, Kept, Replaced, ReplacedAndReported };

struct Fates {
    Fate surrogate, tooLarge;
};

Fate UtfFate(uint32_t value, const Fates &fates)
{
    if (value > LARGEST) { return fates.tooLarge; }
    return UtfIsHigh(value) || UtfIsLow(value) ? fates.surrogate : Fate::Kept;
}

template <typename From, typename To>
UtfResult UtfConvert(const typename From::Unit **source, const typename From::Unit *sourceEnd,
                     typename To::Unit **target, const typename To::Unit *targetEnd,
                     const Fates &fates)
{
    UtfResult atEnd = UtfResult::Done;
    while (*source < sourceEnd) {
        Character character;
        const UtfResult read = From::Read(*source, sourceEnd, &character);
        if (read != UtfResult::Done) { return read; }

        const Fate fate = UtfFate(character.value, fates);
        if (fate == Fate::Stops) { return UtfResult::Illegal; }
        if (fate != Fate::Kept) { character.value = REPLACEMENT; }

        const size_t size = To::Size(character.value);
        if (static_cast<size_t>(targetEnd - *target) < size) { return UtfResult::TargetFull; }
        To::Write(character.value, size, *target);
        *target += size;
        *source += character.units;
        if (fate == Fate::ReplacedAndReported) { atEnd = UtfResult::Illegal; }
    }
    return atEnd;
}

constexpr Fates STRICT = {Fate::Stops, Fate::Stops};

} // namespace

UtfResult Utf32ToUtf16(const uint32_t **source, const uint32_t *sourceEnd, uint16_t **target,
                       uint16_t *targetEnd, bool lenient)
{
    constexpr Fates LENIENT = {Fate::Replaced, Fate::Replaced};
    return UtfConvert<Utf32, Utf16>(source, sourceEnd, target, targetEnd,
                                    lenient ? LENIENT : STRICT);
}

UtfResult Utf32ToUtf8(const uint32_t **source, const uint32_t *sourceEnd, uint8_t **target,
                      uint8_t *targetEnd, bool lenient)
{
    return UtfConvert<Utf32, Utf8>(source, sourceEnd, target, targetEnd,
                                   {lenient ? Fate::Kept : Fate::Stops, Fate::ReplacedAndReported});
}

UtfResult Utf16ToUtf32(const uint16_t **source, const uint16_t *sourceEnd, uint32_t **target,
                       uint32_t *targetEnd, bool lenient)
{
    constexpr Fates LENIENT = {Fate::Kept, Fate::Stops};
    return UtfConvert<Utf16, Utf32>(source, sourceEnd, target, targetEnd,
                                    lenient ? LENIENT : STRICT);
}

UtfResult Utf16ToUtf8(const uint16_t **source, const uint16_t *sourceEnd, uint8_t **target,
                      uint8_t *targetEnd, bool lenient)
{
    constexpr Fates LENIENT = {Fate::Kept, Fate::Stops};
    return UtfConvert<Utf16, Utf8>(source, sourceEnd, target, targetEnd,
                                   lenient ? LENIENT : STRICT);
}

// Both modes are strict here, since reading UTF-8 stops at every illegal value.

UtfResult Utf8ToUtf16(const uint8_t **source, const uint8_t *sourceEnd, uint16_t **target,
                      uint16_t *targetEnd, bool /*lenient*/)
{
    return UtfConvert<Utf8, Utf16>(source, sourceEnd, target, targetEnd, STRICT);
}

UtfResult Utf8ToUtf32(const uint8_t **source, const uint8_t *sourceEnd, uint32_t **target,
                      uint32_t *targetEnd, bool /*lenient*/)
{
    return UtfConvert<Utf8, Utf32>(source, sourceEnd, target, targetEnd, STRICT);
}

bool Utf8SequenceIsLegal(const uint8_t *sequence, size_t length)
{
    if (length == 0 || Utf8Length(sequence[0]) != length) { return false; }
    for (size_t i = 1; i < length; i++) {
        if (!Utf8IsContinuation(sequence[i])) { return false; }
    }
    return length == 1 || Utf8SecondFits(sequence[0], sequence[1]);
}

size_t Utf8WholeLength(const char *text, size_t length)
{
    if (length == 0) { return 0; }
    size_t start = length - 1;
    while (start > 0 && Utf8IsContinuation(static_cast<uint8_t>(text[start]))) {
        start--;
    }
    const auto lead = static_cast<uint8_t>(text[start]);
    if (IsAscii(text[start])) { return length; }
    if (Utf8IsContinuation(lead)) { return start; }
    return length - start == static_cast<size_t>(std::countl_one(lead)) ? length : start;
}

size_t Utf8LegalLength(const char *text, size_t length)
{
    while (length > 0 && !Utf8EndsLegally(text, length)) {
        length--;
    }
    return length;
}

} // namespace pelago
