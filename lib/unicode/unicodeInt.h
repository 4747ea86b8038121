// unicodeInt.h -- what the library's own tests see of its text.
#ifndef PELAGO_UNICODE_UNICODEINT_H
#define PELAGO_UNICODE_UNICODEINT_H

#include "unicode.h"

#include <cstddef>

namespace pelago {

// Unicode_AllocWithLength without the end of the process: nullptr when the buffer cannot be
// converted.  Strict takes nothing that is invalid; otherwise that is as the converter has it.
Unicode UnicodeAllocInternal(const void *buffer, size_t length, StringEncoding encoding,
                             bool strict);

} // namespace pelago

#endif // PELAGO_UNICODE_UNICODEINT_H
