// encodingIndex.h -- looks up encodings.  A row is an index into ENCODING_ROWS.
#ifndef PELAGO_UNICODE_ENCODINGINDEX_H
#define PELAGO_UNICODE_ENCODINGINDEX_H

#include "unicodeTypes.h"

#include <cstdint>

namespace pelago {

constexpr int ENCODING_NO_ROW = -1;

// Return the first row with this code page, with exactly this name, or with a name whose normal
// form this is; ENCODING_NO_ROW if there is none.
int EncodingFindCodePage(int32_t codePage);
int EncodingFindName(const char *name);
int EncodingFindNormalized(const char *normalized);

// Returns the name's normal form as a new string, which the caller frees: its ASCII letters and
// digits, in lower case.
char *EncodingNormalize(const char *name);

// Returns the row's encoding, or STRING_ENCODING_UNKNOWN if the library does not convert it.
StringEncoding EncodingOfRow(int row);

// Returns ICU's name for the encoding, whether the library converts it or not; nullptr for a number
// that is no encoding's.
const char *EncodingPreferredName(StringEncoding encoding);

} // namespace pelago

#endif // PELAGO_UNICODE_ENCODINGINDEX_H
