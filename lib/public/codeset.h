/*
 * codeset.h -- the code-set layer: whether ICU is used, the host's code set, and conversions.
 * Programs call Unicode_Init() of unicode.h, which calls this.
 */
#ifndef PELAGO_CODESET_H
#define PELAGO_CODESET_H

#include "declarations.h"
#include "dynbuf.h"

#include <stdbool.h>
#include <stddef.h>

PELAGO_BEGIN_DECLARATIONS

/*
 * Looks for ICU's data file, "icudt44l.dat", in icuDataDir or, when that is NULL, in the folder
 * that the location service knows as "icuDir".  When there is one that is not a folder, ICU is told
 * of it and used from now on; otherwise ICU is not used.  Always returns true: going without ICU is
 * no failure.  Not thread-safe by itself.
 */
bool CodeSet_Init(const char *icuDataDir);

/* Goes on without ICU, until CodeSet_Init() is called again.  No conversion may run meanwhile. */
void CodeSet_DontUseIcu(void);

/* The name of the code set that the host's texts are in, a constant: "UTF-8" on either host. */
const char *CodeSet_GetCurrentCodeSet(void);

/* Finds a file of the product by key, as a heap string that the caller releases with free(), or
 * NULL. */
typedef char *(*CodeSetLocationFunc)(const char *key);

/* The one thing that this layer asks of those above it: the location service, or NULL without one.
 * Whoever supplies the service defines this function. */
CodeSetLocationFunc CodeSetGetLocationFunc(void);

/*
 * CONVERSIONS.  Encodings go by name: any that ICU knows when ICU is used.  Without ICU a name is
 * one that UnicodeIANALookup() of unicode.h knows; UTF-8, which the current code set is, goes to
 * UTF-16LE, and UTF-16LE, UTF-16BE and ASCII go to UTF-8.  What is to stay in one of these four is
 * checked and copied, what is to stay in any other is copied.  All else fails.
 *
 * bufIn holds sizeIn bytes, of any alignment; when it is NULL or sizeIn is 0 the conversion
 * succeeds with nothing.  The functions ending in Db append to a buffer of the caller's; the others
 * hand out a new block, which the caller releases with free().  Four zero bytes follow its
 * contents, so that it is terminated in any Unicode form; they do not count in *sizeOut, which may
 * be NULL.
 *
 * All return true, or false when the input is invalid, an encoding is not known or memory runs out:
 * then nothing is handed out, bufOut and sizeOut are as they were, and nothing is printed, but by
 * UnicodeIANALookup() of names that it does not know; without memory that look-up may end the
 * process, as Util_SafeMalloc() does.  A failed Db conversion leaves db's size as it was.  All of
 * it is reentrant, once the initialisation has returned.
 */

/*
 * What becomes of input that is invalid, and of characters that the target lacks.  Characters that
 * are meant to be invisible (U+00AD, U+200D, variation selectors) ICU itself drops, of a version
 * that does so, whatever the policy; that is no failure.
 */
enum {
    CODESET_INVALID_FAIL = 0,       /* the conversion fails */
    CODESET_INVALID_SUBSTITUTE = 1, /* something is written in their place: U+FFFD in Unicode, else
                                       what the target has for it */
    CODESET_INVALID_SKIP = 2        /* they are dropped */
};

/*
 * From any encoding to any other, appended to db.  A policy above 2 ends the process when ICU is
 * used: "NOT_IMPLEMENTED lib/misc/codeset:988".  Without ICU the policy only counts for single
 * bytes of what claims to be ASCII; invalid Unicode fails whatever the policy, also when it is to
 * stay in its encoding.
 */
bool CodeSet_GenericToGenericDb(const char *codeIn, const char *bufIn, size_t sizeIn,
                                const char *codeOut, unsigned policy, DynBuf *db);
/* The same into a new block. */
bool CodeSet_GenericToGeneric(const char *codeIn, const char *bufIn, size_t sizeIn,
                              const char *codeOut, unsigned policy, char **bufOut, size_t *sizeOut);

/* Between the forms that their names tell; invalid input fails. */
bool CodeSet_Utf16leToUtf8Db(const char *bufIn, size_t sizeIn, DynBuf *db);
/* UTF-16LE to UTF-8. */
bool CodeSet_Utf16leToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
/* UTF-8 to UTF-16LE. */
bool CodeSet_Utf8ToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
/* The current code set to UTF-16LE. */
bool CodeSet_CurrentToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
/* UTF-16LE to the current code set. */
bool CodeSet_Utf16leToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
/* UTF-16BE to the current code set. */
bool CodeSet_Utf16beToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);

/* UTF-8 to the current code set.  That is UTF-8, so this copies: the bytes are not looked at, and
 * one zero byte follows them, not four.  bufIn may be NULL only when sizeIn is 0. */
bool CodeSet_Utf8ToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
/* The same the other way. */
bool CodeSet_CurrentToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);

/* UTF-8 with its characters composed (Unicode's form C).  The string is NUL-terminated, and sizeIn
 * is not used. */
bool CodeSet_Utf8FormDToUtf8FormC(const char *string, size_t sizeIn, char **bufOut,
                                  size_t *sizeOut);
/* The same, decomposed (Unicode's form D). */
bool CodeSet_Utf8FormCToUtf8FormD(const char *string, size_t sizeIn, char **bufOut,
                                  size_t *sizeOut);

/* ---- Validity */

/* Whether conversions know the encoding of that name. */
bool CodeSet_Validate(const char *codeName);

/*
 * Whether the bytes are text in the encoding.  No bytes are.  With ICU: an unknown name, and a size
 * of 2 GiB or more, end the process ("VERIFY lib/misc/codeset:1723" and ":1700"), and what decodes
 * to no character at all, such as a byte order mark on its own, is not valid.  Without ICU: false
 * for what conversions do not know.
 */
bool CodeSet_IsValidBuffer(const char *buf, size_t size, const char *codeName);

/* Whether the bytes are well-formed UTF-8: no sequence cut short or longer than needed, no
 * surrogates, nothing above U+10FFFF.  Zero bytes are characters, and no bytes are valid. */
bool CodeSet_IsValidUtf8(const char *buf, size_t size);
/* The same up to the string's NUL. */
bool CodeSet_IsValidUtf8String(const char *string);
/* The same, and without a zero byte. */
bool CodeSet_IsValidUtf8NoNul(const char *buf, size_t size);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_CODESET_H */
