/*
 * util.h -- allocation that cannot fail, comparison that tells nothing by its time, the forms of a
 * fatal report, paths, and property lists.
 *
 * The safe allocators call the C library's allocator of the same name and hand on its result; when
 * it has no memory for a request that is not empty, they end the process through Panic() instead of
 * returning, so their results need no test.  Every block they return is the caller's, and is
 * released with free().  Sizes are in bytes.  Everything here is reentrant and thread-safe, unless
 * it says otherwise.
 */
#ifndef PELAGO_UTIL_H
#define PELAGO_UTIL_H

#include "declarations.h"

#include <stdbool.h>
#include <stddef.h>

PELAGO_BEGIN_DECLARATIONS

/*
 * What goes to Panic() when the program finds itself in a state that cannot be: the module's path
 * from the top of the source tree, without its suffix, and the number of the check.  Both belong to
 * the message and are constants at the check, so that they stay what they are when code moves.
 */
#define UTIL_VERIFY_REPORT          "VERIFY %s:%d\n"          /* a checked condition is false */
#define UTIL_NOT_IMPLEMENTED_REPORT "NOT_IMPLEMENTED %s:%d\n" /* a case that is not supported */
#define UTIL_NOT_REACHED_REPORT     "NOT_REACHED %s:%d\n"     /* a case that cannot happen */
#define UTIL_MEM_ALLOC_REPORT       "MEM_ALLOC %s:%d\n"       /* no memory in an inline helper */

/* What goes to Panic() when an allocation fails and it is not known who asked for it. */
#define UTIL_ALLOC_REPORT "Unrecoverable memory allocation failure\n"
/* The same with the source file and the line that asked. */
#define UTIL_ALLOC_AT_REPORT "Unrecoverable memory allocation failure at %s:%d\n"
#define UTIL_ALLOC_LINE_REPORT                                                                     \
    "Unrecoverable memory allocation failure at %s:%u\n" /* of a buffer */
/* The same with the source file, the line and a bug number. */
#define UTIL_ALLOC_BUG_REPORT "Unrecoverable memory allocation failure at %s:%d.  Bug number: %d\n"

/* The bug number of an allocation that none is known for. */
#define UTIL_NO_BUG (-1)

/* Ends the process with the report of a failed allocation. */
void Util_AllocFailure(void) __attribute__((noreturn));

/* The same with the place that asked for the memory: the path of a source file and a line in it,
 * and after these the bug number unless it is UTIL_NO_BUG. */
void Util_AllocFailureAt(int bugNumber, const char *path, int line)
    __attribute__((noreturn, nonnull(2)));

/* Of a function whose result is a new block, which must be used. */
#define UTIL_ALLOCATOR __attribute__((malloc, warn_unused_result))
/* Of one whose result must be used. */
#define UTIL_REALLOCATOR __attribute__((warn_unused_result))

/*
 * Each allocator comes in two forms.  The plain one fails with Util_AllocFailure(); the At form,
 * whose further arguments say who asks, with Util_AllocFailureAt().
 */

/* malloc().  For size 0 the result is whatever malloc(0) gives, NULL included. */
void *Util_SafeMalloc(size_t size) UTIL_ALLOCATOR;
/* Util_SafeMalloc() for the bug number, source file and line given. */
void *Util_SafeMallocAt(size_t size, int bugNumber, const char *path, int line) UTIL_ALLOCATOR;

/*
 * realloc(): block may be NULL, and is not to be used any more afterwards.  For size 0 the result
 * is whatever realloc(block, 0) gives, NULL included.  The result may be stored straight over the
 * only pointer to the block.
 */
void *Util_SafeRealloc(void *block, size_t size) UTIL_REALLOCATOR;
/* Util_SafeRealloc() for the bug number, source file and line given. */
void *Util_SafeReallocAt(void *block, size_t size, int bugNumber, const char *path,
                         int line) UTIL_REALLOCATOR;

/* calloc(): count elements of size bytes, all zero.  When either is 0, however large the other, the
 * result is whatever calloc() gives, NULL included. */
void *Util_SafeCalloc(size_t count, size_t size) UTIL_ALLOCATOR;
/* Util_SafeCalloc() for the bug number, source file and line given. */
void *Util_SafeCallocAt(size_t count, size_t size, int bugNumber, const char *path,
                        int line) UTIL_ALLOCATOR;

/* strdup().  NULL gives NULL. */
char *Util_SafeStrdup(const char *string) UTIL_ALLOCATOR;
/* Util_SafeStrdup() for the bug number, source file and line given. */
char *Util_SafeStrdupAt(const char *string, int bugNumber, const char *path,
                        int line) UTIL_ALLOCATOR;

/*
 * A new NUL-terminated string of the first n bytes, or of those before the first NUL among them.
 * NULL gives NULL.  n is the most that may be read; a length of SIZE_MAX, which leaves no room for
 * the NUL, fails like an allocation.
 *    Util_SafeStrndup("abc", 2)  gives "ab"
 */
char *Util_SafeStrndup(const char *bytes, size_t n) UTIL_ALLOCATOR;
/* Util_SafeStrndup() for the bug number, source file and line given. */
char *Util_SafeStrndupAt(const char *bytes, size_t n, int bugNumber, const char *path,
                         int line) UTIL_ALLOCATOR;

/*
 * A new block with a copy of size bytes, which the caller releases with free().  Not a safe
 * allocator: NULL when memory runs out, and when size is 0, for which nothing is allocated.
 */
void *Util_Memdup(const void *source, size_t size) UTIL_ALLOCATOR;

/* memcpy(): the blocks do not overlap; returns destination. */
void *Util_Memcpy(void *destination, const void *source, size_t size);

/* free(): block may be NULL. */
void Util_Free(void *block);

/*
 * Whether two blocks of size bytes differ anywhere.  Every position is looked at whatever was found
 * before, so the time taken depends on size alone: fit for secrets.  *count, unless count is NULL,
 * receives the number of positions that differ.
 */
bool Util_CountMemDiff(const void *a, const void *b, size_t size, size_t *count);
/* Util_CountMemDiff() without the number. */
bool Util_MemDiffers(const void *a, const void *b, size_t size);

/*
 * Util_CountMemDiff() for two NUL-terminated strings.  Each byte of a, its NUL among them, is
 * compared with b's byte at that position or, past b's end, with b's NUL.  The number of steps
 * depends on a's length alone: if either length is a secret, let it be b's.
 *    Util_CountStrDiff("abc", "abcd", &n)  gives true and n == 1: the NUL is not "d"
 *    Util_CountStrDiff("abcd", "abc", &n)  gives true and n == 1: "d" is not the NUL
 */
bool Util_CountStrDiff(const char *a, const char *b, size_t *count) __attribute__((nonnull(1, 2)));
/* Util_CountStrDiff() without the number. */
bool Util_StrDiffers(const char *a, const char *b) __attribute__((nonnull(1, 2)));

/*
 * ---- Paths and texts
 *
 * New strings are the caller's, who releases them with free().
 */

/*
 * Expands a "~" at the start, which is the folder in the user's record, and $HOME only without one;
 * a "~user" at the start, which is that user's; and every "$NAME" (letters, digits and "_" of
 * ASCII), which is the variable's value, in a copy of a file name or command.  Unless there is such
 * a variable, "$PID" is this process's number and "$USER" its user's name, in any case of their
 * ASCII letters, whatever the locale.  What is put in is not expanded again.
 *    Util_ExpandString("~/$HOST.log")  gives "/home/me/alpha.log"
 * Before either record or $HOME, "~" alone is the variable CFFIXED_USER_HOME when that is set,
 * unless the process is set-user-ID or set-group-ID.
 *
 * Homes, names and values are put in as the host has them, byte for byte: where they are not UTF-8,
 * neither is the result, and no process ends over it.  CodeSet_IsValidUtf8String() of codeset.h
 * tells whether it is.
 *
 * Log() gets what is not known: an unknown user's "~user" stays as it is, AND AN UNKNOWN
 * VARIABLE IS EMPTY, which leaves the folder above: "~/$NONE" is "/home/me/".  Where that matters,
 * ask Posix_TryGetenv() of posix.h first.  NULL after a Log() when there is no memory, or when the
 * text has more than 100 pieces: a piece is the "~" or "~user", a "$NAME", or what is between
 * these.
 *
 * Not thread-safe: it uses the C library's static user record and the environment.
 */
char *Util_ExpandString(const char *string) __attribute__((nonnull));

/* Sets what both "~" and "~user" stand for, or, with NULL, nothing any more, and returns the copy
 * that is kept.  Earlier ones stay valid.  Not thread-safe. */
const char *Util_OverrideHomeDir(const char *directory);

/* Posix_RealPath() of posix.h: over a path that is no text in the host's encoding it ends the
 * process or, with ICU, gives another path. */
char *Util_CanonicalPath(const char *path);

/* strcasecmp(): whether two names are equal but for the case of their letters. */
bool Util_IsEqualIgnoreCase(const char *a, const char *b) __attribute__((nonnull));

/* Whether the path begins with "/"; false for NULL. */
bool Util_IsAbsolutePath(const char *path);

/* Whether the text is an IPv4 address in dotted decimals. */
bool Util_IsIPv4Address(const char *text) __attribute__((nonnull));
/* Whether the text, up to a "%" and the name of an interface, is an IPv6 address. */
bool Util_IsIPv6Address(const char *text) __attribute__((nonnull));
/* Whether it is either of them. */
bool Util_IsIPAddress(const char *text) __attribute__((nonnull));

/* ---- Property lists.  The types are Core Foundation's CFStringRef and CFDictionaryRef. */

struct __CFDictionary;
struct __CFString;

/* The string in UTF-8.  NULL after a Log() when it cannot be had. */
char *Util_CFStringToUtf8(const struct __CFString *string);

/* The dictionary in the property list at the path, which the caller releases with
 * Util_ReleasePlistDictionary(); NULL when there is no such file, it cannot be read, or what is in
 * it is no dictionary. */
const struct __CFDictionary *Util_ReadPlistDictionary(const char *path) __attribute__((nonnull));

/* CFRelease() of a dictionary, which a program on Linux has no name for; nothing for NULL. */
void Util_ReleasePlistDictionary(const struct __CFDictionary *dictionary);

/*
 * Looks up the product's name, version and build ("ProductName", "ProductVersion",
 * "ProductBuildVersion"), those that are not NULL, in this order.  False when one of them is
 * missing or not a string, and after a Log() when it cannot be had: the outputs before it are
 * freed and NULL then; its own output and the later ones are as they were.
 */
bool Util_GetProductInfo(const struct __CFDictionary *dictionary, char **name, char **version,
                         char **build);

#undef UTIL_ALLOCATOR
#undef UTIL_REALLOCATOR

PELAGO_END_DECLARATIONS

#endif /* PELAGO_UTIL_H */
