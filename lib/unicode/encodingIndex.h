// encodingIndex.h -- the table of encodings, asked.  A row is known by its place in the table.
#ifndef PELAGO_UNICODE_ENCODINGINDEX_H
#define PELAGO_UNICODE_ENCODINGINDEX_H

#include "unicodeTypes.h"

#include <cstdint>

namespace pelago {

constexpr int ENCODING_NO_ROW = -1;

// The first row with this code page, with exactly this name, with a name that is this one once it
// is normalised; or ENCODING_NO_ROW.
int EncodingFindCodePage(int32_t codePage);
int EncodingFindName(const char *name);
int EncodingFindNormalized(const char *normalized);

// A new string of the name's ASCII letters and digits, in lower case; freed by the caller.
char *EncodingNormalize(const char *name);

// The row's encoding, or STRING_ENCODING_UNKNOWN when the library does not convert that.
StringEncoding EncodingOfRow(int row);

// The name that ICU knows the encoding by, supported or not; nullptr when there is no such
// encoding.
const char *EncodingPreferredName(StringEncoding encoding);

} // namespace pelago

#endif // PELAGO_UNICODE_ENCODINGINDEX_H
