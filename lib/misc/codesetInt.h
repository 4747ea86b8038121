// codesetInt.h -- what the library itself asks of the code-set layer, and its two ways to convert.
#ifndef PELAGO_MISC_CODESETINT_H
#define PELAGO_MISC_CODESETINT_H

#include "dynbuf.h"
#include "unicodeTypes.h"

#include <cstddef>

namespace pelago {

constexpr char CODESET_MODULE[] = "lib/misc/codeset";

// Whether conversions go through ICU.  Read it after the initialisation has returned.
bool CodeSetUsesIcu();

// ---- Through ICU

bool CodeSetIcuConvertDb(const char *codeIn, const char *bufIn, size_t sizeIn, const char *codeOut,
                         unsigned policy, DynBuf *db);
bool CodeSetIcuKnows(const char *codeName);
bool CodeSetIcuIsValid(const char *buf, size_t size, const char *codeName);

// ---- Without ICU, which only the Unicode forms, ASCII and the current code set can

bool CodeSetFallbackConvertDb(const char *codeIn, const char *bufIn, size_t sizeIn,
                              const char *codeOut, unsigned policy, DynBuf *db);
// The same by encodings, and for any current one.
bool CodeSetFallbackConvert(StringEncoding encodingIn, const char *bufIn, size_t sizeIn,
                            StringEncoding encodingOut, StringEncoding current, unsigned policy,
                            DynBuf *db);
bool CodeSetFallbackIsValid(const char *buf, size_t size, StringEncoding encoding);
// UTF-16BE to UTF-8; false for what is not well-formed, and when memory runs out.
bool CodeSetUtf16beToUtf8Db(const char *buf, size_t size, DynBuf *db);

} // namespace pelago

#endif // PELAGO_MISC_CODESETINT_H
