// unicodeInt.h -- a string function that is not public, for the library's own tests.
#ifndef PELAGO_UNICODE_UNICODEINT_H
#define PELAGO_UNICODE_UNICODEINT_H

#include "unicode.h"

#include <cstddef>

namespace pelago {

// Does what Unicode_AllocWithLength() does, but returns nullptr where that ends the process because
// the buffer cannot be converted.  Strict refuses all invalid text; otherwise the converter may
// substitute it.
Unicode UnicodeAllocInternal(const void *buffer, size_t length, StringEncoding encoding,
                             bool strict);

} // namespace pelago

#endif // PELAGO_UNICODE_UNICODEINT_H
