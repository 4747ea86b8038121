/*
 * location.h -- finds the product's root folder on this machine, and its files by key.
 *
 * A program first calls Location_Init() with its process tag.  A program inside the product's
 * bundle then finds the root from its own real path, so the bundle can be moved.  Any other program
 * takes the root from the environment variable TARVEX_LOCATION_ROOT_FULLPATH or, where that is not
 * set, from the file that Location_GetLastUsedFile() names, byte for byte; a file of 1024 bytes or
 * more counts as unreadable.  Where the variable or the file is empty, paths begin at "/".
 *
 * There is one tag, "shareTool", and these keys: "rootDir", "icuDir", "shareToolFile",
 * "shareAddUserFile", "shareRmUserFile", "shareAddShareFile" and "shareRmShareFile".
 */
#ifndef PELAGO_LOCATION_H
#define PELAGO_LOCATION_H

#include "declarations.h"

PELAGO_BEGIN_DECLARATIONS

/*
 * Sets the calling program's process tag, which must not be NULL.  Call it at the start of main(),
 * before there are other threads.  An unknown tag, or a second call, causes a Warning() and takes
 * effect all the same; a program with an unknown tag counts as outside the bundle.
 */
void Location_Init(const char *processTag);

/*
 * Returns the full path for key, which must not be NULL; the caller releases it with free().  NULL
 * without a message for an unknown key, or when memory runs out for the path itself; NULL after a
 * Warning() with the reason when the root cannot be found.  A program outside the bundle whose real
 * and effective users differ never finds the root.  Thread-safe; each call looks for the root anew.
 *
 * If the bundle lies below a folder whose name is not UTF-8, this call, and Unicode_Init(), end a
 * program of the bundle when ICU is not used; with ICU the result is a different path.
 */
char *Location_Get(const char *key);

/* Returns the constant path for key, which must not be NULL, relative to the root: "" for the root
 * itself, NULL for an unknown key. */
const char *Location_GetRelative(const char *key);

/* Returns the constant path of the file in which the product notes the root that it was last used
 * from. */
const char *Location_GetLastUsedFile(void);

/* Returns the constant path of the folder that holds the product's data by default.  It is no root.
 */
const char *Location_GetDefaultRoot(void);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_LOCATION_H */
