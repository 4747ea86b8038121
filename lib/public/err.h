/*
 * err.h -- the C library's error numbers as text.
 *
 * Each number's text is made once and kept: the same number always gives the same pointer, which
 * the caller does not own.  No function fails or changes errno; when memory runs out the process
 * ends as util.h says.  All functions but Err_Shutdown() are thread-safe.
 */
#ifndef PELAGO_ERR_H
#define PELAGO_ERR_H

#include "declarations.h"

PELAGO_BEGIN_DECLARATIONS

/*
 * Returns the C library's text for a number, in the locale of the first call for that number; never
 * NULL.
 *    Err_NumberToText(ENOENT)  gives "No such file or directory"
 *    Err_NumberToText(9999)    gives "Unknown error 9999"
 */
const char *Err_NumberToText(int number);

/* Returns the text for errno. */
const char *Err_CurrentText(void);

/* Returns the number whose text Err_NumberToText() returned at this very address; -1 for any other
 * pointer, a copy of the text included. */
int Err_TextToNumber(const char *text);

/* Releases all texts: pointers that were returned before are no longer valid.  No other function of
 * this header may run at the same time; later calls make the texts anew. */
void Err_Shutdown(void);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_ERR_H */
