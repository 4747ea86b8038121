/*
 * util.h -- allocation that cannot fail, comparison in constant time, the forms of a fatal report,
 * paths, and property lists.
 *
 * The safe allocators call the C library's allocator of the same name and return its result.  When
 * there is no memory for a request that is not empty, they end the process through Panic() instead,
 * so callers need not check the result.  Every block that they return is the caller's, who releases
 * it with free().  Sizes are in bytes.  Every function is reentrant and thread-safe, unless it says
 * otherwise.
 */
#ifndef PELAGO_UTIL_H
#define PELAGO_UTIL_H

#include "declarations.h"

#include <stdbool.h>
#include <stddef.h>

PELAGO_BEGIN_DECLARATIONS

/*
 * Formats of the reports that go to Panic() when a check fails: %s is the module's path in the
 * source tree without its suffix, and %d the number of the check.  Both are constants at the check,
 * so that the message stays the same when code moves.
 */
#define UTIL_VERIFY_REPORT          "VERIFY %s:%d\n"          /* a checked condition is false */
#define UTIL_NOT_IMPLEMENTED_REPORT "NOT_IMPLEMENTED %s:%d\n" /* a case that is not supported */
#define UTIL_NOT_REACHED_REPORT     "NOT_REACHED %s:%d\n"     /* a case that cannot happen */
#define UTIL_MEM_ALLOC_REPORT       "MEM_ALLOC %s:%d\n"       /* no memory in an inline helper */

/* Report of a failed allocation whose caller is not known. */
#define UTIL_ALLOC_REPORT "Unrecoverable memory allocation failure\n"
/* Report of a failed allocation with the caller's source file and line. */
#define UTIL_ALLOC_AT_REPORT "Unrecoverable memory allocation failure at %s:%d\n"
/* The same for a line of type unsigned. */
#define UTIL_ALLOC_LINE_REPORT "Unrecoverable memory allocation failure at %s:%u\n"
/* Report of a failed allocation with the caller's source file and line, and a bug number. */
#define UTIL_ALLOC_BUG_REPORT "Unrecoverable memory allocation failure at %s:%d.  Bug number: %d\n"

/* The bug number for "no known bug": the report leaves it out. */
#define UTIL_NO_BUG (-1)

/* Ends the process with the report of a failed allocation. */
void Util_AllocFailure(void) __attribute__((noreturn));

/* Does the same with the caller's source file and line in the report, followed by the bug number
 * unless it is UTIL_NO_BUG. */
void Util_AllocFailureAt(int bugNumber, const char *path, int line)
    __attribute__((noreturn, nonnull(2)));

/* Attributes of a function that returns a new block, which must be used. */
#define UTIL_ALLOCATOR __attribute__((malloc, warn_unused_result))
/* Attributes of a function whose result must be used. */
#define UTIL_REALLOCATOR __attribute__((warn_unused_result))

/*
 * Each allocator has two forms.  The plain form fails with Util_AllocFailure().  The At form fails
 * with Util_AllocFailureAt(), for which it takes a bug number, a source file and a line.
 */

/* malloc().  For size 0 it returns what malloc(0) returns, which may be NULL. */
void *Util_SafeMalloc(size_t size) UTIL_ALLOCATOR;
/* Util_SafeMalloc() in the At form. */
void *Util_SafeMallocAt(size_t size, int bugNumber, const char *path, int line) UTIL_ALLOCATOR;

/*
 * realloc(): block may be NULL, and must not be used afterwards.  For size 0 it returns what
 * realloc(block, 0) returns, which may be NULL.  Since it does not return without memory, its
 * result may be assigned to the only pointer to the block.
 */
void *Util_SafeRealloc(void *block, size_t size) UTIL_REALLOCATOR;
/* Util_SafeRealloc() in the At form. */
void *Util_SafeReallocAt(void *block, size_t size, int bugNumber, const char *path,
                         int line) UTIL_REALLOCATOR;

/* calloc(): count elements of size bytes, all zero.  When either is 0 it returns what calloc()
 * returns, which may be NULL. */
void *Util_SafeCalloc(size_t count, size_t size) UTIL_ALLOCATOR;
/* Util_SafeCalloc() in the At form. */
void *Util_SafeCallocAt(size_t count, size_t size, int bugNumber, const char *path,
                        int line) UTIL_ALLOCATOR;

/* strdup().  NULL gives NULL. */
char *Util_SafeStrdup(const char *string) UTIL_ALLOCATOR;
/* Util_SafeStrdup() in the At form. */
char *Util_SafeStrdupAt(const char *string, int bugNumber, const char *path,
                        int line) UTIL_ALLOCATOR;

/*
 * Returns a new NUL-terminated string of the first n bytes, or of those before the first NUL among
 * them.  NULL gives NULL.  No byte after the first n is read.  A length of SIZE_MAX, to which no
 * NUL can be added, fails as if memory ran out.
 *    Util_SafeStrndup("abc", 2)  gives "ab"
 */
char *Util_SafeStrndup(const char *bytes, size_t n) UTIL_ALLOCATOR;
/* Util_SafeStrndup() in the At form. */
char *Util_SafeStrndupAt(const char *bytes, size_t n, int bugNumber, const char *path,
                         int line) UTIL_ALLOCATOR;

/*
 * Returns a new block with a copy of size bytes, which the caller releases with free().  Not a safe
 * allocator: NULL when memory runs out, and when size is 0.
 */
void *Util_Memdup(const void *source, size_t size) UTIL_ALLOCATOR;

/* memcpy(): the blocks must not overlap; returns destination. */
void *Util_Memcpy(void *destination, const void *source, size_t size);

/* free(): block may be NULL. */
void Util_Free(void *block);

/*
 * Returns whether two blocks of size bytes differ.  All positions are compared, whatever was found
 * before, so the time depends on size alone: use it for secrets.  *count receives the number of
 * positions that differ; count may be NULL.
 */
bool Util_CountMemDiff(const void *a, const void *b, size_t size, size_t *count);
/* Util_CountMemDiff() without the count. */
bool Util_MemDiffers(const void *a, const void *b, size_t size);

/*
 * Util_CountMemDiff() for two NUL-terminated strings.  Each byte of a, its NUL included, is
 * compared with b's byte at that position or, past b's end, with b's NUL.  The number of steps
 * depends on a's length alone: pass a string whose length is secret as b.
 *    Util_CountStrDiff("abc", "abcd", &n)  gives true and n == 1: the NUL is not "d"
 *    Util_CountStrDiff("abcd", "abc", &n)  gives true and n == 1: "d" is not the NUL
 */
bool Util_CountStrDiff(const char *a, const char *b, size_t *count) __attribute__((nonnull(1, 2)));
/* Util_CountStrDiff() without the count. */
bool Util_StrDiffers(const char *a, const char *b) __attribute__((nonnull(1, 2)));

/*
 * ---- Paths and texts
 *
 * New strings are the caller's, who releases them with free().
 */

/*
 * Returns a copy of a file name or command in which these are replaced:
 *    "~" at the start      the home of this process's user: the variable CFFIXED_USER_HOME where it
 *                          is set and the process is not set-user-ID or set-group-ID, else the home
 *                          in the user's record, else $HOME
 *    "~user" at the start  the home in that user's record
 *    "$NAME"               the variable's value; a name is ASCII letters, digits and "_"
 *    "$PID", "$USER"       this process's number and its user's name, unless there is such a
 *                          variable; the ASCII letters may be in either case
 *    Util_ExpandString("~/$HOST.log")  gives "/home/me/alpha.log"
 * A replacement is not expanded again.  Homes, names and values are copied byte for byte: where
 * they are not UTF-8 the result is not either, which CodeSet_IsValidUtf8String() of codeset.h
 * checks.
 *
 * An unknown "~user" stays as it is, after a Log(), AND AN UNKNOWN VARIABLE BECOMES EMPTY, after a
 * Log(), so that "~/$NONE" is "/home/me/", the folder above.  Where that matters, ask
 * Posix_TryGetenv() of posix.h first.  NULL after a Log() when memory runs out, or when the text
 * has more than 100 pieces: a piece is "~" or "~user", a "$NAME", or the text between these.  errno
 * says nothing.
 *
 * Not thread-safe: it uses the C library's static user record, and the environment.
 */
char *Util_ExpandString(const char *string) __attribute__((nonnull));

/* Makes Util_ExpandString() replace "~" and "~user" by this folder or, with NULL, by the homes
 * again.  Returns the library's copy of the folder; copies that were returned before stay valid.
 * Not thread-safe. */
const char *Util_OverrideHomeDir(const char *directory);

/* Posix_RealPath() of posix.h: a path that is not valid text in the host's encoding ends the
 * process or, with ICU, gives a different path. */
char *Util_CanonicalPath(const char *path);

/* Returns whether strcasecmp() finds two names equal. */
bool Util_IsEqualIgnoreCase(const char *a, const char *b) __attribute__((nonnull));

/* Returns whether the path begins with "/"; false for NULL. */
bool Util_IsAbsolutePath(const char *path);

/* Returns whether the text is an IPv4 address in dotted decimals. */
bool Util_IsIPv4Address(const char *text) __attribute__((nonnull));
/* Returns whether the text is an IPv6 address, which a "%" and an interface's name may follow. */
bool Util_IsIPv6Address(const char *text) __attribute__((nonnull));
/* Returns whether the text is an IPv4 or an IPv6 address. */
bool Util_IsIPAddress(const char *text) __attribute__((nonnull));

/* ---- Property lists.  The types are Core Foundation's CFStringRef and CFDictionaryRef. */

struct __CFDictionary;
struct __CFString;

/* Returns the string in UTF-8.  NULL after a Log() when it has no such form or memory runs out. */
char *Util_CFStringToUtf8(const struct __CFString *string);

/* Returns the dictionary in the property list at the path, which the caller releases with
 * Util_ReleasePlistDictionary().  NULL when there is no such file, or it cannot be read, or it
 * contains no dictionary. */
const struct __CFDictionary *Util_ReadPlistDictionary(const char *path) __attribute__((nonnull));

/* Releases the dictionary, which may be NULL; CFRelease(), which is not visible on Linux. */
void Util_ReleasePlistDictionary(const struct __CFDictionary *dictionary);

/*
 * Looks up the product's name, version and build ("ProductName", "ProductVersion",
 * "ProductBuildVersion") in this order, and stores each as a new string that the caller releases
 * with free().  An output that is NULL is not looked up.  False when one is missing or not a
 * string, and, after a Log(), when it cannot be converted: the outputs before it are then freed and
 * NULL; its own output and those after it are unchanged.
 */
bool Util_GetProductInfo(const struct __CFDictionary *dictionary, char **name, char **version,
                         char **build);

#undef UTIL_ALLOCATOR
#undef UTIL_REALLOCATOR

PELAGO_END_DECLARATIONS

#endif /* PELAGO_UTIL_H */
