// codesetUtf.h -- whole texts between UTF-8 and UTF-16LE, and whether a text is UTF-8.
//
// "Well-formed" is Unicode's term: nothing longer than needed, no surrogates in UTF-8 and only
// pairs of them in UTF-16, nothing above U+10FFFF.  Zero is an ordinary character.  The speed is
// the same for all mixes of characters; ASCII alone is faster.  All functions are reentrant.
#ifndef PELAGO_MISC_CODESETUTF_H
#define PELAGO_MISC_CODESETUTF_H

#include "dynbuf.h"

#include <cstddef>
#include <span>

namespace pelago {

// Sizes are in bytes, of UTF-16 too, whose units may lie at any address.  bytes may be null when
// size is 0.
bool CodeSetUtf8IsValid(const char *bytes, size_t size);
bool CodeSetUtf16IsValid(const char *bytes, size_t size);

// Returns the offset of the first byte that is not well-formed, or size.  Slower than the tests,
// and meant for texts that have failed them.
size_t CodeSetUtf8ValidSize(const char *bytes, size_t size);
size_t CodeSetUtf16ValidSize(const char *bytes, size_t size);

// Append the converted text, which takes one allocation at most: a buffer without a block gets one
// of just the size that is needed.  On return there is room for CODESET_UTF_SLACK bytes more, so
// that a terminator needs no allocation of its own.  A text of size 0 appends and allocates
// nothing.  False for a text that is not well-formed, of UTF-16 for an odd size, too, and when
// memory runs out; the contents are as they were then.
constexpr size_t CODESET_UTF_SLACK = 16;
bool CodeSetUtf8ToUtf16Db(const char *bytes, size_t size, DynBuf *db);
bool CodeSetUtf16ToUtf8Db(const char *bytes, size_t size, DynBuf *db);

// The same functions for one set of the processor's instructions.  Measuring a text also checks
// that it is well-formed; only then may it be converted, into the measured room.  The conversion
// writes whole vectors, and so up to CODESET_UTF_SLACK bytes beyond its result.  size must not be
// 0.
struct CodeSetUtfKernel {
    const char *name;
    bool (*utf8IsValid)(const char *bytes, size_t size);
    bool (*measureUtf8)(const char *bytes, size_t size, size_t *sizeAsUtf16);
    void (*utf8ToUtf16)(const char *bytes, size_t size, char *to);
    bool (*measureUtf16)(const char *bytes, size_t size, size_t *sizeAsUtf8);
    void (*utf16ToUtf8)(const char *bytes, size_t size, char *to);
};

namespace CodeSetUtf {
extern const CodeSetUtfKernel AVX2, SSE42, PLAIN;
}

// Returns the kernels that this processor can run, the fastest first.
std::span<const CodeSetUtfKernel *const> CodeSetUtfKernels();

} // namespace pelago

#endif // PELAGO_MISC_CODESETUTF_H
