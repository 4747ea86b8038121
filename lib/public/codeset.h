/*
 * codeset.h -- the code-set layer: whether ICU is used, the host's code set, and conversions.
 * Programs call Unicode_Init() of unicode.h, which calls this.
 *
 * Three words, of encodings: one is known when its name is known to conversions, which is the
 * answer of CodeSet_Validate(); it is supported when UnicodeIANALookup() of unicode.h gives its
 * number; and one converts to another when CodeSet_CanConvert() says so.  Known is less than that
 * it converts: without ICU "latin1" is known, and converts to nothing but itself.
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
 * that the location service knows as "icuDir".  When there is one that is not a folder, ICU gets
 * its path and is used from now on; otherwise ICU is not used.  Always returns true, and prints
 * nothing but what Location_Get() says: going without ICU is no failure, and a wrong folder looks
 * like none.
 * CodeSet_IsIcuInUse() answers what came of it.  Not thread-safe by itself.
 */
bool CodeSet_Init(const char *icuDataDir);

/*
 * Whether conversions go through ICU: ICU's data file was found.  What the file holds shows when it
 * is needed, so ask CodeSet_CanConvert() about an encoding that matters.  False before the
 * initialisation.
 */
bool CodeSet_IsIcuInUse(void);

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
 * CONVERSIONS.  Encodings go by name.  When ICU is used, any that ICU has a converter of is known
 * and converts to any other.  Without ICU the supported ones are known; UTF-8, which the current
 * code set is, converts to UTF-16LE, and UTF-16LE, UTF-16BE and ASCII convert to UTF-8.  What is to
 * stay in one of these four is checked and copied, what is to stay in any other supported encoding
 * is copied.  All else fails; so does a name that is not known, also to itself: "EUC-JP", which is
 * not supported, cannot be copied to "EUC-JP" without ICU.
 *
 * bufIn holds sizeIn bytes, of any alignment; when it is NULL or sizeIn is 0 the conversion
 * succeeds with nothing, whatever the names are.  There is no upper limit to sizeIn but memory.
 * The functions ending in Db append to a buffer of the caller's; the others hand out a new block,
 * which the caller releases with free().  Four zero bytes follow its contents, so that it is
 * terminated in any Unicode form; they do not count in *sizeOut, which may be NULL.
 *
 * All return true, or false when the input is invalid, the one encoding does not convert to the
 * other or memory runs out: then nothing is handed out, and bufOut and sizeOut are as they were.
 * CodeSet_Convert() says which of these it was.  Nothing is printed, but that the generic
 * conversions without ICU look names up with UnicodeIANALookup(), which tells Warning() of one that
 * is not known, once a name; without memory a look-up may end the process, as Util_SafeMalloc()
 * does.  A failed Db conversion leaves db's size as it was.  All of it is reentrant, once the
 * initialisation has returned.
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

/* Why a conversion failed. */
typedef enum CodeSetReason {
    CODESET_REASON_NONE = 0,      /* it did not fail */
    CODESET_REASON_INVALID,       /* the input is not text in its encoding */
    CODESET_REASON_LACKING,       /* the other encoding lacks a character of the input */
    CODESET_REASON_UNKNOWN,       /* one of the names is not known */
    CODESET_REASON_UNCONVERTIBLE, /* both are known, but ICU is not used, and without it the one
                                     does not convert to the other */
    CODESET_REASON_NO_MEMORY,     /* there was no memory for the result */
    CODESET_REASON_TOO_LONG,      /* the result's size is more than a size_t holds */
    CODESET_REASON_ICU            /* ICU could not, and did not say that it is any of these */
} CodeSetReason;

/* Why, and where. */
typedef struct CodeSetFailure {
    CodeSetReason reason; /* the first that was met */
    size_t offset; /* of CODESET_REASON_INVALID and _LACKING: how many bytes of the input come
                      before the sequence or character that stopped the conversion; else 0 */
} CodeSetFailure;

/*
 * CodeSet_GenericToGeneric(), which also says why it failed, and where, unless failure is NULL.
 * After a success failure holds CODESET_REASON_NONE.  Prints nothing, of unknown names neither.
 * The place is sought when the conversion has failed, which takes about as long again.
 *    CodeSet_Convert("UTF-8", "caf\xE9!", 5, "UTF-16LE", CODESET_INVALID_FAIL, &out, &size,
 *                    &failure)  gives false, CODESET_REASON_INVALID and offset 3
 */
bool CodeSet_Convert(const char *codeIn, const char *bufIn, size_t sizeIn, const char *codeOut,
                     unsigned policy, char **bufOut, size_t *sizeOut, CodeSetFailure *failure);

/*
 * Whether the one encoding converts to the other now: whether CodeSet_GenericToGeneric() fails for
 * no other reason than its input and memory.  Prints nothing.  Without memory the answer is false
 * with ICU, and without it the look-up of a new name may end the process.
 *    CodeSet_CanConvert("latin1", "UTF-8")  gives CodeSet_IsIcuInUse()
 */
bool CodeSet_CanConvert(const char *codeIn, const char *codeOut);

/* Between the forms that their names tell; input that is not text in its form fails, with ICU and
 * without. */
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

/*
 * UTF-8 with its characters composed (Unicode's form C), by the host's own strings, whether ICU is
 * used or not.  The string is NUL-terminated, and sizeIn is not used.  What is not UTF-8 fails.  On
 * Linux a lack of memory at the first use makes all further uses fail, until the process ends.
 */
bool CodeSet_Utf8FormDToUtf8FormC(const char *string, size_t sizeIn, char **bufOut,
                                  size_t *sizeOut);
/* The same, decomposed (Unicode's form D). */
bool CodeSet_Utf8FormCToUtf8FormD(const char *string, size_t sizeIn, char **bufOut,
                                  size_t *sizeOut);

/* ---- Validity */

/*
 * Whether the name is known: with ICU, whether ICU has a converter of it; without, whether it is a
 * supported encoding's, which need not convert to any other: CodeSet_CanConvert() answers that.
 * Prints nothing.
 */
bool CodeSet_Validate(const char *codeName);

/*
 * Whether the bytes are text in the encoding.  With ICU: a name that is not known, and a size of
 * 2 GiB or more, end the process ("VERIFY lib/misc/codeset:1723" and ":1700"), which
 * CodeSet_Validate() answers beforehand; and what decodes to no character at all, such as a byte
 * order mark on its own, is not valid.  Without ICU: false for all encodings but UTF-8, UTF-16LE,
 * UTF-16BE and ASCII, since nothing is known of their text.  No bytes are text, whatever the name.
 * Prints nothing but the reports.
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
