// codesetInt.h -- the code-set layer's two ways to convert: through ICU, and without it.
#ifndef PELAGO_MISC_CODESETINT_H
#define PELAGO_MISC_CODESETINT_H

#include "codeset.h"
#include "dynbuf.h"
#include "unicodeTypes.h"

#include <cstddef>

namespace pelago {

constexpr char CODESET_MODULE[] = "lib/misc/codeset";

// ---- Through ICU

CodeSetReason CodeSetIcuConvertDb(const char *codeIn, const char *bufIn, size_t sizeIn,
                                  const char *codeOut, unsigned policy, DynBuf *db);
// Returns the offset of the sequence that stops a conversion, and whether the sequence is invalid
// or its character is lacking in codeOut.
CodeSetFailure CodeSetIcuLocate(const char *codeIn, const char *bufIn, size_t sizeIn,
                                const char *codeOut);
bool CodeSetIcuConverts(const char *codeIn, const char *codeOut);
bool CodeSetIcuKnows(const char *codeName);
bool CodeSetIcuIsValid(const char *buf, size_t size, const char *codeName);

// ---- Without ICU, between the Unicode forms, ASCII and the current code set

// `current` is the encoding of the current code set.
bool CodeSetFallbackConverts(StringEncoding encodingIn, StringEncoding encodingOut,
                             StringEncoding current);
bool CodeSetFallbackConvert(StringEncoding encodingIn, const char *bufIn, size_t sizeIn,
                            StringEncoding encodingOut, StringEncoding current, unsigned policy,
                            DynBuf *db);
// Returns why CodeSetFallbackConvert() failed with these arguments.
CodeSetFailure CodeSetFallbackFailure(StringEncoding encodingIn, const char *bufIn, size_t sizeIn,
                                      StringEncoding encodingOut, StringEncoding current,
                                      unsigned policy);
bool CodeSetFallbackIsValid(const char *buf, size_t size, StringEncoding encoding);
// Appends UTF-16BE as UTF-8; false when it is not well-formed, and when memory runs out.
bool CodeSetUtf16beToUtf8Db(const char *buf, size_t size, DynBuf *db);

} // namespace pelago

#endif // PELAGO_MISC_CODESETINT_H
