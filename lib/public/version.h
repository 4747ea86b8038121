/*
 * version.h -- the library's version: the one place where it is written.
 *
 * It is MAJOR.MINOR.PATCH.  As long as MAJOR is 0, a new MINOR may change what a program sees, and
 * a new PATCH does not; CHANGELOG.md says what changed.  How a program asks for a version:
 *
 *    #if PELAGO_VERSION_NUMBER < 100
 *    #error "this needs 0.1.0"
 *    #endif
 */
#ifndef PELAGO_VERSION_H
#define PELAGO_VERSION_H

/* The first number of the version. */
#define PELAGO_VERSION_MAJOR 0
/* The second number of the version, below 100. */
#define PELAGO_VERSION_MINOR 1
/* The third number of the version, below 100. */
#define PELAGO_VERSION_PATCH 0

/* The version as one number that grows: 10000 * MAJOR + 100 * MINOR + PATCH. */
#define PELAGO_VERSION_NUMBER                                                                      \
    (10000 * PELAGO_VERSION_MAJOR + 100 * PELAGO_VERSION_MINOR + PELAGO_VERSION_PATCH)

/* The version as a string, such as "0.1.0". */
#define PELAGO_VERSION                                                                             \
    PELAGO_VERSION_STRING(PELAGO_VERSION_MAJOR, PELAGO_VERSION_MINOR, PELAGO_VERSION_PATCH)
/* Expands the three numbers and makes them a string.  Internal: not for callers. */
#define PELAGO_VERSION_STRING(major, minor, patch) PELAGO_VERSION_QUOTED(major, minor, patch)
/* Makes three numbers a string.  Internal: not for callers. */
#define PELAGO_VERSION_QUOTED(major, minor, patch) #major "." #minor "." #patch

#endif /* PELAGO_VERSION_H */
