// utf_fuzz.cpp -- compares the conversions with ICU's, on any input.
//
// The first byte of the input chooses the room for one call of a conversion.  The rest is read as
// UTF-8, as UTF-16, and, three bytes for each value, as UTF-32.
#include "utf.h"

#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <cstdlib>
#include <vector>

using namespace pelago;

namespace {

template <typename From, typename To>
using Converter = UtfResult (*)(const From **, const From *, To **, To *, bool);

template <typename To> struct Outcome {
    UtfResult result = UtfResult::Done;
    size_t read = 0;
    std::vector<To> written;

    bool operator==(const Outcome &) const = default;
};

void Require(bool holds)
{
    if (!holds) { abort(); }
}

// ---- Ours

template <typename From, typename To>
Outcome<To> Step(Converter<From, To> converter, const From *source, size_t length, bool lenient,
                 size_t room)
{
    std::vector<To> target(room);
    const From *from = source;
    To *to = target.data();
    Outcome<To> outcome;
    outcome.result = converter(&from, source + length, &to, target.data() + room, lenient);
    outcome.read = static_cast<size_t>(from - source);
    target.resize(static_cast<size_t>(to - target.data()));
    outcome.written = std::move(target);
    return outcome;
}

// Converts the text at once, and piece by piece with little room; the results must be the same.
template <typename From, typename To>
Outcome<To> Whole(Converter<From, To> converter, const std::vector<From> &source, bool lenient,
                  size_t room)
{
    const auto whole = Step(converter, source.data(), source.size(), lenient, source.size() * 4);
    Outcome<To> joined;
    do {
        const auto piece = Step(converter, source.data() + joined.read, source.size() - joined.read,
                                lenient, room);
        Require(piece.result != UtfResult::TargetFull || piece.written.size() + 4 > room);
        joined.result = piece.result;
        joined.read += piece.read;
        joined.written.insert(joined.written.end(), piece.written.begin(), piece.written.end());
    } while (joined.result == UtfResult::TargetFull);
    // Only the piece with a value that is too large reports Illegal.
    if (whole.read == source.size() && whole.result == UtfResult::Illegal) {
        joined.result = UtfResult::Illegal;
    }
    Require(joined == whole);
    return whole;
}

// ---- ICU's

void Append(std::vector<uint8_t> &text, UChar32 value)
{
    uint8_t bytes[4];
    int32_t length = 0;
    U8_APPEND_UNSAFE(bytes, length, value);
    text.insert(text.end(), bytes, bytes + length);
}

void Append(std::vector<uint16_t> &text, UChar32 value)
{
    UChar units[2];
    int32_t length = 0;
    U16_APPEND_UNSAFE(units, length, value);
    text.insert(text.end(), units, units + length);
}

void Append(std::vector<uint32_t> &text, UChar32 value)
{
    text.push_back(static_cast<uint32_t>(value));
}

// Reads the value at a position and advances the position; negative for an invalid value.
UChar32 Next(const std::vector<uint8_t> &text, size_t &at)
{
    UChar32 value = 0;
    U8_NEXT(text.data(), at, text.size(), value);
    return value;
}

UChar32 Next(const std::vector<uint16_t> &text, size_t &at)
{
    UChar32 value = 0;
    U16_NEXT(text.data(), at, text.size(), value);
    return value;
}

UChar32 Next(const std::vector<uint32_t> &text, size_t &at)
{
    return static_cast<UChar32>(text[at++]);
}

bool IsCut(const std::vector<uint8_t> &text, size_t at)
{
    return U8_IS_LEAD(text[at]) &&
           at + static_cast<size_t>(U8_COUNT_TRAIL_BYTES(text[at])) >= text.size();
}

bool IsCut(const std::vector<uint16_t> &text, size_t at)
{
    return U16_IS_LEAD(text[at]) && at + 1 == text.size();
}

bool IsCut(const std::vector<uint32_t> &, size_t) { return false; }

constexpr UChar32 REPLACEMENT = 0xFFFD;

template <typename From, typename To>
Outcome<To> Expected(const std::vector<From> &source, bool lenient)
{
    constexpr bool isUtf8 = sizeof(To) == 1, isUtf16 = sizeof(To) == 2;
    Outcome<To> outcome;
    bool isReported = false;
    while (outcome.read < source.size()) {
        size_t next = outcome.read;
        UChar32 value = Next(source, next);
        const bool isSurrogate = U_IS_SURROGATE(value), isTooLarge = value > UCHAR_MAX_VALUE;
        if (IsCut(source, outcome.read)) {
            outcome.result = UtfResult::SourceCut;
            return outcome;
        }
        if (value < 0 || (!lenient && (isSurrogate || (isTooLarge && !isUtf8)))) {
            outcome.result = UtfResult::Illegal;
            return outcome;
        }
        isReported = isReported || (isTooLarge && isUtf8);
        Append(outcome.written, isTooLarge || (isSurrogate && isUtf16) ? REPLACEMENT : value);
        outcome.read = next;
    }
    outcome.result = isReported ? UtfResult::Illegal : UtfResult::Done;
    return outcome;
}

// Compares with ICU's own conversion of the whole text, which does not report where it stopped.
template <typename To, typename From, typename Call>
void AgreesWithIcu(Call call, const std::vector<From> &source, const Outcome<To> &strict)
{
    std::vector<To> target(source.size() * 4 + 1);
    int32_t length = 0;
    UErrorCode error = U_ZERO_ERROR;
    call(target.data(), static_cast<int32_t>(target.size()), &length, source.data(),
         static_cast<int32_t>(source.size()), &error);
    Require(U_SUCCESS(error) == (strict.result == UtfResult::Done));
    if (U_FAILURE(error)) { return; }
    target.resize(static_cast<size_t>(length));
    Require(target == strict.written);
}

// ---- Properties

// Compares both modes with ICU; a text that converts in strict mode must convert back.
template <typename From, typename To>
Outcome<To> Check(Converter<From, To> there, Converter<To, From> back,
                  const std::vector<From> &source, size_t room)
{
    const auto lenient = Whole(there, source, true, room);
    Require(lenient == (Expected<From, To>(source, true)));
    const auto strict = Whole(there, source, false, room);
    Require(strict == (Expected<From, To>(source, false)));
    if (strict.result == UtfResult::Done) {
        const auto returned = Whole(back, strict.written, false, room);
        Require(returned.result == UtfResult::Done && returned.written == source);
    }
    return strict;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) { return 0; }
    const size_t room = 4 + data[0] % 16U;
    const std::vector<uint8_t> utf8(data + 1, data + size);
    std::vector<uint16_t> utf16;
    for (size_t i = 0; i + 1 < utf8.size(); i += 2) {
        utf16.push_back(static_cast<uint16_t>(utf8[i] | utf8[i + 1] << 8));
    }
    std::vector<uint32_t> utf32;
    for (size_t i = 0; i + 2 < utf8.size(); i += 3) {
        utf32.push_back(utf8[i] | utf8[i + 1] << 8 | (utf8[i + 2] & 0x1FU) << 16);
    }

    AgreesWithIcu<uint16_t>(
        [](uint16_t *to, int32_t room, int32_t *length, const uint8_t *from, int32_t count,
           UErrorCode *error) {
            u_strFromUTF8(reinterpret_cast<UChar *>(to), room, length,
                          reinterpret_cast<const char *>(from), count, error);
        },
        utf8, Check(Utf8ToUtf16, Utf16ToUtf8, utf8, room));
    Check(Utf8ToUtf32, Utf32ToUtf8, utf8, room);
    AgreesWithIcu<uint8_t>(
        [](uint8_t *to, int32_t room, int32_t *length, const uint16_t *from, int32_t count,
           UErrorCode *error) {
            u_strToUTF8(reinterpret_cast<char *>(to), room, length,
                        reinterpret_cast<const UChar *>(from), count, error);
        },
        utf16, Check(Utf16ToUtf8, Utf8ToUtf16, utf16, room));
    AgreesWithIcu<uint32_t>(
        [](uint32_t *to, int32_t room, int32_t *length, const uint16_t *from, int32_t count,
           UErrorCode *error) {
            u_strToUTF32(reinterpret_cast<UChar32 *>(to), room, length,
                         reinterpret_cast<const UChar *>(from), count, error);
        },
        utf16, Check(Utf16ToUtf32, Utf32ToUtf16, utf16, room));
    AgreesWithIcu<uint16_t>(
        [](uint16_t *to, int32_t room, int32_t *length, const uint32_t *from, int32_t count,
           UErrorCode *error) {
            u_strFromUTF32(reinterpret_cast<UChar *>(to), room, length,
                           reinterpret_cast<const UChar32 *>(from), count, error);
        },
        utf32, Check(Utf32ToUtf16, Utf16ToUtf32, utf32, room));
    Check(Utf32ToUtf8, Utf8ToUtf32, utf32, room);
    return 0;
}
