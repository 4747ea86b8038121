/*
 * util.h -- allocation that cannot fail, and the forms of a fatal report.
 * Everything here is thread-safe.
 */
#ifndef PELAGO_UTIL_H
#define PELAGO_UTIL_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * What goes to Panic() when the program finds itself in a state that cannot be: the module's path
 * from the top of the source tree, without its suffix, and the number of the check.  Both belong to
 * the message and are constants at the check, so that they stay what they are when code moves.
 */
#define UTIL_VERIFY_REPORT          "VERIFY %s:%d\n"          /* a checked condition is false */
#define UTIL_NOT_IMPLEMENTED_REPORT "NOT_IMPLEMENTED %s:%d\n" /* a case that is not supported */
#define UTIL_NOT_REACHED_REPORT     "NOT_REACHED %s:%d\n"     /* a case that cannot happen */
#define UTIL_MEM_ALLOC_REPORT       "MEM_ALLOC %s:%d\n"       /* no memory in an inline helper */

/*
 * malloc() that ends the process through Panic() when there is no memory.  For size 0 the result is
 * whatever malloc(0) gives, NULL included.  The caller releases the block with free().
 */
void *Util_SafeMalloc(size_t size);

/* Ends the process with the report of a failed allocation. */
void Util_AllocFailure(void) __attribute__((noreturn));

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_UTIL_H */
