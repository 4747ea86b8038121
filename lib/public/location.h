/*
 * location.h -- where the product lives on this machine, and each of its files in it.
 *
 * A program declares once, with its process tag, who it is.  From then on every file of the product
 * that has a key can be asked for.  A program inside the product's bundle finds the root from its
 * own real path, so a bundle that was moved is found; any other program takes it from the variable
 * TARVEX_LOCATION_ROOT_FULLPATH or else from the file that Location_GetLastUsedFile() names, as it
 * stands there, 1023 bytes of it at most.  Where either is empty, paths begin at "/".
 *
 * There is one tag, "shareTool", and these keys: "rootDir", "icuDir", "shareToolFile",
 * "shareAddUserFile", "shareRmUserFile", "shareAddShareFile" and "shareRmShareFile".
 */
#ifndef PELAGO_LOCATION_H
#define PELAGO_LOCATION_H

#include "declarations.h"

PELAGO_BEGIN_DECLARATIONS

/*
 * Declares the calling program by its tag, not NULL.  Call it first thing in main(), before there
 * are other threads.  An unknown tag, or a second call, causes a Warning and takes effect
 * all the same; with an unknown tag the program counts as outside the bundle.
 */
void Location_Init(const char *processTag);

/*
 * The full path for key, which is not NULL; the caller releases it with free().  NULL, silently,
 * for a key that is not known or when memory runs out at the end; NULL after a Warning that says
 * why when the root cannot be found.  A program outside the bundle whose real and effective users
 * differ never finds it.  Any thread may call this; each call looks for the root anew.
 *
 * Of a bundle below a folder whose name is not UTF-8, a program in it ends here without ICU, and so
 * it does in Unicode_Init(); with ICU the path is another one.
 */
char *Location_Get(const char *key);

/* The constant path for key, which is not NULL, below the root; "" for the root itself, NULL for an
 * unknown key. */
const char *Location_GetRelative(const char *key);

/* The constant path of the file in which the product notes the root that it was last used from. */
const char *Location_GetLastUsedFile(void);

/* The constant path of the folder that holds the product's data by default.  Not a root. */
const char *Location_GetDefaultRoot(void);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_LOCATION_H */
