// errInt.h -- the system's own text for an error number.
#ifndef PELAGO_MISC_ERRINT_H
#define PELAGO_MISC_ERRINT_H

#include <cstddef>

namespace pelago {

// Fills the buffer with the system's text for the number, or with "Unknown error %d", which must
// fit, when there is none or it does not fit.  Returns the buffer.  May change errno.
char *ErrFormatSystemText(int number, char *buffer, size_t size);

} // namespace pelago

#endif // PELAGO_MISC_ERRINT_H
