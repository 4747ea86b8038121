/*
 * err.h -- the C library's error numbers as text.
 *
 * Each number's text is made once and kept: the same number always gives the same pointer, which
 * the caller neither owns nor releases.  No operation fails or changes errno; without memory the
 * process ends as util.h says.  Everything but Err_Shutdown may be called by any threads at the
 * same time.
 */
#ifndef PELAGO_ERR_H
#define PELAGO_ERR_H

#include "declarations.h"

PELAGO_BEGIN_DECLARATIONS

/*
 * The text for a number, in the words of the C library and in the locale of the first call for that
 * number; never NULL.
 *    Err_NumberToText(ENOENT)  gives "No such file or directory"
 *    Err_NumberToText(9999)    gives "Unknown error 9999"
 */
const char *Err_NumberToText(int number);

/* The text for errno. */
const char *Err_CurrentText(void);

/* The number of a text that Err_NumberToText returned, known by its pointer; -1 for any other
 * pointer, a copy of the text included. */
int Err_TextToNumber(const char *text);

/* Releases all texts: pointers received before are no longer valid.  Nothing else here may run at
 * the same time; later calls begin anew. */
void Err_Shutdown(void);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_ERR_H */
