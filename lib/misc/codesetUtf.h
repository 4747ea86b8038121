// codesetUtf.h -- checks whole texts of UTF-8 and UTF-16LE, and converts each into the other.
//
// "Well-formed" is Unicode's term: no overlong sequences, no surrogates in UTF-8 and only pairs of
// them in UTF-16, nothing above U+10FFFF.  Zero is an ordinary character.  The speed hardly depends
// on the mix of characters; ASCII alone is faster.  All functions are reentrant.
#ifndef PELAGO_MISC_CODESETUTF_H
#define PELAGO_MISC_CODESETUTF_H

#include "dynbuf.h"

#include <cstddef>
#include <span>

namespace pelago {

// All sizes are in bytes, also of UTF-16, whose units may lie at any address.  bytes may be null
// when size is 0.
bool CodeSetUtf8IsValid(const char *bytes, size_t size);
bool CodeSetUtf16IsValid(const char *bytes, size_t size);

// Return the offset of the first byte that is not well-formed, or size.  They are slower than the
// two checks above, and meant for texts that have failed these.
size_t CodeSetUtf8ValidSize(const char *bytes, size_t size);
size_t CodeSetUtf16ValidSize(const char *bytes, size_t size);

// Append the converted text with at most one allocation: a buffer without a block gets one of
// exactly the needed size.  On return there is room for CODESET_UTF_SLACK bytes more, so that a
// terminator needs no further allocation.  A text of size 0 appends and allocates nothing.  Return
// false when the text is not well-formed, which includes UTF-16 of an odd size, and when memory
// runs out; the buffer's contents are then unchanged.
constexpr size_t CODESET_UTF_SLACK = 16;
bool CodeSetUtf8ToUtf16Db(const char *bytes, size_t size, DynBuf *db);
bool CodeSetUtf16ToUtf8Db(const char *bytes, size_t size, DynBuf *db);

// The same functions for one set of the processor's instructions.  Measuring a text also returns
// whether it is well-formed; only a well-formed text may be converted, into room of the measured
// size and CODESET_UTF_SLACK bytes, since the conversion writes whole vectors and so beyond its
// result.  size must not be 0.
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
