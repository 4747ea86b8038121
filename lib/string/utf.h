// utf.h -- conversion between UTF-8, UTF-16 and UTF-32 in the machine's byte order.
//
// All converters work alike.  *source and *target advance a whole character at a time, up to
// sourceEnd and targetEnd, and end at the first unit that was not converted or written.  A
// character is written only if all of it fits.  NUL is a character like any other, and no
// terminator is written.  Source and target may not overlap.  All functions are reentrant.
//
// An illegal value stops the conversion in strict mode.  Lenient mode converts it to:
//
//                   a lone surrogate                    a value above U+10FFFF
//   Utf32ToUtf16    U+FFFD                              U+FFFD
//   Utf32ToUtf8     encoded in three bytes              U+FFFD, in strict mode too, and the result
//                                                       is Illegal once the source is converted
//   Utf16ToUtf32    copied                              -
//   Utf16ToUtf8     encoded in three bytes              -
//
// Utf32ToUtf16 does not copy lone surrogates, since two of them could form a pair in UTF-16.
//
// In UTF-8 both are sequences that Utf8SequenceIsLegal refuses.  Such a sequence stops the
// conversion in either mode, since nobody can know where a damaged sequence ends.
#ifndef PELAGO_STRING_UTF_H
#define PELAGO_STRING_UTF_H

#include <cstddef>
#include <cstdint>

namespace pelago {

// A character is checked before the room for it.  Values that were replaced make the result Illegal
// only when the target is not full, so that a caller who makes room and calls again loses nothing.
enum class UtfResult : int {
    Done = 0,
    SourceCut = 1,  // the source ends inside a character: a UTF-8 sequence is shorter than its
                    // leading byte announces, or a high surrogate is the last unit
    TargetFull = 2, // the character at *source does not fit
    Illegal = 3,    // the character at *source is illegal; with Utf32ToUtf8, *source may be at the
                    // end, with U+FFFD written for each value that is too large
};

UtfResult Utf32ToUtf16(const uint32_t **source, const uint32_t *sourceEnd, uint16_t **target,
                       uint16_t *targetEnd, bool lenient);
UtfResult Utf32ToUtf8(const uint32_t **source, const uint32_t *sourceEnd, uint8_t **target,
                      uint8_t *targetEnd, bool lenient);
UtfResult Utf16ToUtf32(const uint16_t **source, const uint16_t *sourceEnd, uint32_t **target,
                       uint32_t *targetEnd, bool lenient);
UtfResult Utf16ToUtf8(const uint16_t **source, const uint16_t *sourceEnd, uint8_t **target,
                      uint8_t *targetEnd, bool lenient);
UtfResult Utf8ToUtf16(const uint8_t **source, const uint8_t *sourceEnd, uint16_t **target,
                      uint16_t *targetEnd, bool lenient);
UtfResult Utf8ToUtf32(const uint8_t **source, const uint8_t *sourceEnd, uint32_t **target,
                      uint32_t *targetEnd, bool lenient);

constexpr bool Utf8IsContinuation(uint8_t byte) { return (byte & 0xC0) == 0x80; }

// Returns whether the bytes are one whole character: a leading byte that announces this length (1
// to 4), then continuation bytes; not longer than needed, no surrogate, not above U+10FFFF.
bool Utf8SequenceIsLegal(const uint8_t *sequence, size_t length);

// Return how many of the bytes to keep so that the text does not end inside a character.  Both
// return the same for UTF-8 that was cut anywhere.  They differ where bytes are not UTF-8:
//
//   Utf8WholeLength keeps all bytes, or drops the last sequence if it has fewer or more bytes than
//   its leading byte announces: the number of its leading one bits, up to 8.  Continuation bytes
//   after ASCII are kept; a text of nothing else is dropped.
//
//   Utf8LegalLength drops bytes until the text ends with a sequence that Utf8SequenceIsLegal
//   accepts, or is empty.
size_t Utf8WholeLength(const char *text, size_t length);
size_t Utf8LegalLength(const char *text, size_t length);

} // namespace pelago

#endif // PELAGO_STRING_UTF_H
