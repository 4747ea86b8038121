// codesetUtf.h -- whole texts between UTF-8 and UTF-16LE, and whether a text is UTF-8.
//
// Well-formed is what Unicode calls so: nothing longer than needed, no surrogates in UTF-8 and only
// pairs of them in UTF-16, nothing above U+10FFFF.  A zero is a character like any other.  The
// speed does not depend on what the text is made of, but for ASCII, which is faster.  Everything
// here is reentrant.
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

// How many bytes come before the first that is not well-formed; size when all are.  This is slower
// than the questions, and meant for what has failed them.
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

// The same work in one set of the processor's instructions.  A text is measured, which also tells
// whether it is well-formed, and then, if it is, converted into so much room.  The conversion
// writes whole vectors, and so up to CODESET_UTF_SLACK bytes behind its result.  size is not 0.
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

// Those that this processor can run, the fastest first.
std::span<const CodeSetUtfKernel *const> CodeSetUtfKernels();

} // namespace pelago

#endif // PELAGO_MISC_CODESETUTF_H
