/*
 * codeset.h -- the code-set layer: whether ICU is used.
 * Programs call Unicode_Init() of unicode.h, which calls this.
 */
#ifndef PELAGO_CODESET_H
#define PELAGO_CODESET_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Looks for ICU's data file, "icudt44l.dat", in icuDataDir or, when that is NULL, in the folder
 * that the location service knows as "icuDir".  When there is one that is not a folder, ICU is told
 * of it and used from now on; otherwise ICU is not used.  Always returns true: going without ICU is
 * no failure.  Not thread-safe by itself.
 */
bool CodeSet_Init(const char *icuDataDir);

/* Goes on without ICU, for the rest of the process. */
void CodeSet_DontUseIcu(void);

/* Finds a file of the product by key, as a heap string that the caller releases with free(), or
 * NULL. */
typedef char *(*CodeSetLocationFunc)(const char *key);

/* The one thing that this layer asks of those above it: the location service, or NULL without one.
 * Whoever supplies the service defines this function. */
CodeSetLocationFunc CodeSetGetLocationFunc(void);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_CODESET_H */
