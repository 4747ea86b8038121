/*
 * codeset.h -- the code-set layer: whether ICU is used, the host's code set, and conversions.
 * Programs call Unicode_Init() of unicode.h, which calls this.
 *
 * Three words describe an encoding.  It is known when CodeSet_Validate() accepts its name; it is
 * supported when UnicodeIANALookup() of unicode.h returns its number; and it converts to another
 * encoding when CodeSet_CanConvert() says so.  A known encoding may convert to nothing but itself,
 * as "latin1" does without ICU.
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
 * whose key in location.h is "icuDir".  If the file is there and is not a folder, ICU gets its path
 * and is used from now on; otherwise ICU is not used.  Always returns true, since going without ICU
 * is no failure, and prints nothing but what Location_Get() prints: a wrong folder is not reported.
 * Ask CodeSet_IsIcuInUse() for the outcome.  Not thread-safe: call Unicode_Init() of unicode.h
 * where several threads may be first.
 */
bool CodeSet_Init(const char *icuDataDir);

/*
 * Returns whether conversions go through ICU, because its data file was found.  The file is not
 * read before it is needed, so ask CodeSet_CanConvert() about an encoding that matters.  False
 * before the initialisation.
 */
bool CodeSet_IsIcuInUse(void);

/* Stops using ICU until CodeSet_Init() is called again.  No conversion may run at the same time. */
void CodeSet_DontUseIcu(void);

/* Returns the name of the host's own encoding, a constant: "UTF-8" on Linux and on macOS. */
const char *CodeSet_GetCurrentCodeSet(void);

/* Finds a file of the product by key, as a heap string that the caller releases with free(), or
 * NULL. */
typedef char *(*CodeSetLocationFunc)(const char *key);

/* Returns the location service's look-up function, or NULL where there is no such service.  The
 * module that supplies the service defines this function; the code-set layer only calls it. */
CodeSetLocationFunc CodeSetGetLocationFunc(void);

/*
 * CONVERSIONS.  Encodings are given by name.
 *
 * With ICU every encoding that ICU has a converter for is known, and converts to every other.
 *
 * Without ICU the supported encodings are known.  UTF-8 converts to UTF-16LE; UTF-16LE, UTF-16BE
 * and ASCII convert to UTF-8.  From one of these four to itself, the text is checked and copied;
 * from any other supported encoding to itself, it is copied without a check.  Every other
 * conversion fails, also one from an unknown encoding to itself: "EUC-JP" is not supported, so
 * "EUC-JP" to "EUC-JP" fails without ICU.
 *
 * bufIn holds sizeIn bytes, of any alignment.  When it is NULL or sizeIn is 0 the conversion
 * succeeds and its result is empty, whatever the names are.  sizeIn has no upper limit but memory.
 * The functions ending in Db append to a buffer of the caller's.  The others return a new block in
 * *bufOut, which the caller releases with free(); four zero bytes follow the text, so that it is
 * terminated in every Unicode form.  *sizeOut receives the text's size without them; sizeOut may be
 * NULL.
 *
 * All return true, or false when the input is invalid, the one encoding does not convert to the
 * other, or memory runs out; CodeSet_Convert() gives the reason.  After a failure *bufOut and
 * *sizeOut, or the size of db, are as they were.  Nothing is printed, with one exception: without
 * ICU the generic conversions look names up with UnicodeIANALookup(), which writes a Warning() for
 * an unknown name, and which may end the process for want of memory, as Util_SafeMalloc() does.
 * All of it is reentrant once the initialisation has returned.
 */

/*
 * Policies: what becomes of invalid input, and of characters that the target encoding lacks.
 * Versions of ICU that drop invisible characters (U+00AD, U+200D, variation selectors) where the
 * target lacks them do so whatever the policy, and that is no failure.
 */
enum {
    CODESET_INVALID_FAIL = 0,       /* the conversion fails */
    CODESET_INVALID_SUBSTITUTE = 1, /* each is replaced by U+FFFD in Unicode, else by the target
                                       encoding's substitute character */
    CODESET_INVALID_SKIP = 2        /* they are dropped */
};

/*
 * Converts from any encoding to any other and appends the result to db.  A policy above 2 ends the
 * process when ICU is used: "NOT_IMPLEMENTED lib/misc/codeset:988".  Without ICU the policy applies
 * only to bytes above 127 in ASCII input; invalid Unicode input fails whatever the policy, also
 * from an encoding to itself.
 */
bool CodeSet_GenericToGenericDb(const char *codeIn, const char *bufIn, size_t sizeIn,
                                const char *codeOut, unsigned policy, DynBuf *db);
/* Does the same into a new block. */
bool CodeSet_GenericToGeneric(const char *codeIn, const char *bufIn, size_t sizeIn,
                              const char *codeOut, unsigned policy, char **bufOut, size_t *sizeOut);

/* Why a conversion failed. */
typedef enum CodeSetReason {
    CODESET_REASON_NONE = 0,      /* it did not fail */
    CODESET_REASON_INVALID,       /* the input is not text in its encoding */
    CODESET_REASON_LACKING,       /* the target encoding lacks a character of the input */
    CODESET_REASON_UNKNOWN,       /* one of the names is not known */
    CODESET_REASON_UNCONVERTIBLE, /* both names are known, but ICU is not used, and without it the
                                     one encoding does not convert to the other */
    CODESET_REASON_NO_MEMORY,     /* there was no memory for the result */
    CODESET_REASON_TOO_LONG,      /* the result's size does not fit a size_t */
    CODESET_REASON_ICU            /* ICU failed for a reason of its own */
} CodeSetReason;

/* Why and where a conversion failed. */
typedef struct CodeSetFailure {
    CodeSetReason reason; /* the first reason that was met */
    size_t offset; /* for CODESET_REASON_INVALID and _LACKING the offset in the input, in bytes, of
                      the sequence or character that stopped the conversion; else 0 */
} CodeSetFailure;

/*
 * Does what CodeSet_GenericToGeneric() does, and stores in *failure why and where it failed, or
 * CODESET_REASON_NONE; failure may be NULL.  Prints nothing, not even about unknown names.  A
 * failed conversion takes about twice as long, since the offset is then searched for.
 *    CodeSet_Convert("UTF-8", "caf\xE9!", 5, "UTF-16LE", CODESET_INVALID_FAIL, &out, &size,
 *                    &failure)  gives false, CODESET_REASON_INVALID and offset 3
 */
bool CodeSet_Convert(const char *codeIn, const char *bufIn, size_t sizeIn, const char *codeOut,
                     unsigned policy, char **bufOut, size_t *sizeOut, CodeSetFailure *failure);

/*
 * Returns whether the one encoding converts to the other now.  If so, CodeSet_GenericToGeneric()
 * can fail only because of its input or for want of memory.  Prints nothing.  When memory runs out
 * here, the result is false with ICU, and without it the look-up of a new name may end the process.
 *    CodeSet_CanConvert("latin1", "UTF-8")  gives CodeSet_IsIcuInUse()
 */
bool CodeSet_CanConvert(const char *codeIn, const char *codeOut);

/* ---- Between Unicode forms.  Invalid input fails, with ICU and without. */

/* UTF-16LE to UTF-8, appended to db. */
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

/* UTF-8 to the current code set.  That is UTF-8, so this copies: the bytes are not checked, and one
 * zero byte follows them, not four.  bufIn may be NULL only when sizeIn is 0. */
bool CodeSet_Utf8ToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
/* Does the same from the current code set to UTF-8. */
bool CodeSet_CurrentToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);

/*
 * Composes the characters of a UTF-8 string (Unicode's normal form C) by the host's own string
 * functions, whether ICU is used or not.  The string is NUL-terminated, and sizeIn is ignored.  A
 * string that is not UTF-8 fails.  If memory runs out at the first call on Linux, all later calls
 * of this process fail.
 */
bool CodeSet_Utf8FormDToUtf8FormC(const char *string, size_t sizeIn, char **bufOut,
                                  size_t *sizeOut);
/* Does the same to decompose the characters (Unicode's normal form D). */
bool CodeSet_Utf8FormCToUtf8FormD(const char *string, size_t sizeIn, char **bufOut,
                                  size_t *sizeOut);

/* ---- Validity */

/*
 * Returns whether the name is known: with ICU whether ICU has a converter for it, without ICU
 * whether it is a supported encoding's.  Whether that encoding converts to another is the answer of
 * CodeSet_CanConvert().  Prints nothing.
 */
bool CodeSet_Validate(const char *codeName);

/*
 * Returns whether the bytes are valid text in the encoding; a size of 0 is valid in every encoding,
 * whatever the name.
 *
 * With ICU an unknown name ends the process ("VERIFY lib/misc/codeset:1723"), so ask
 * CodeSet_Validate() first; so does a size of 2 GiB or more ("VERIFY lib/misc/codeset:1700").
 * Bytes that decode to no character at all, such as a byte order mark alone, are not valid.
 *
 * Without ICU the result is false for all encodings but UTF-8, UTF-16LE, UTF-16BE and ASCII.
 *
 * Prints nothing but the reports.
 */
bool CodeSet_IsValidBuffer(const char *buf, size_t size, const char *codeName);

/* Returns whether the bytes are well-formed UTF-8: no sequence cut short or longer than needed, no
 * surrogates, nothing above U+10FFFF.  Zero bytes are allowed, and so is a size of 0. */
bool CodeSet_IsValidUtf8(const char *buf, size_t size);
/* Returns the same for a NUL-terminated string. */
bool CodeSet_IsValidUtf8String(const char *string);
/* Returns whether the bytes are well-formed UTF-8 without a zero byte. */
bool CodeSet_IsValidUtf8NoNul(const char *buf, size_t size);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_CODESET_H */
