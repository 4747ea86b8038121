// codesetInt.h -- what the library itself asks of the code-set layer.
#ifndef PELAGO_MISC_CODESETINT_H
#define PELAGO_MISC_CODESETINT_H

// Whether conversions go through ICU.  Read it after the initialisation has returned.
bool CodeSetUsesIcu();

#endif // PELAGO_MISC_CODESETINT_H
