/*
 * unicode.h -- the library's text: NUL-terminated UTF-8 on the heap, from bytes in any encoding and
 * back; and the names of encodings.
 */
#ifndef PELAGO_UNICODE_H
#define PELAGO_UNICODE_H

#include "declarations.h"
#include "unicodeTypes.h"

#include <stdbool.h>
#include <stddef.h>
#include <sys/types.h>

PELAGO_BEGIN_DECLARATIONS

/* UTF-8, NUL-terminated, owned by whoever receives it and released with free(). */
typedef char *Unicode;

/*
 * Decides, once a process, whether ICU is used: it is when ICU's data file is in the product's ICU
 * folder, and ICU then gets the file's path.  Going without ICU is no failure, and nothing is
 * printed about it but what Location_Get() prints; ask CodeSet_IsIcuInUse() of codeset.h for the
 * outcome.  Call it after Location_Init().  Later calls, also of Unicode_InitEx(), return at once
 * and change nothing.  When several threads call it at the same time, one does the work and the
 * others wait, in steps of a quarter of a second.
 */
void Unicode_Init(void);

/*
 * Does the same with ICU's folder given, or looked up when icuDataDir is NULL.  A folder without
 * ICU's data file is ignored without a message, and so is any folder after the first call; where
 * ICU is needed, ask CodeSet_IsIcuInUse() afterwards.  argc, argv and envp are not used.
 */
void Unicode_InitEx(int argc, char **argv, char **envp, const char *icuDataDir);

/*
 * Releases the cache of encoding names; later look-ups fill it anew.  No other function of this
 * header may run at the same time.  Whether ICU is used does not change, nor does the current
 * encoding.
 */
void Unicode_Shutdown(void);

/*
 * ---- Encodings and their names.  These functions are thread-safe.
 *
 * An encoding is supported when UnicodeIANALookup() returns its number.  The others have numbers
 * and names, too, but are not found by name.  Whether a supported encoding converts to another now
 * depends on ICU: ask CodeSet_CanConvert() of codeset.h.
 */

/*
 * Returns the encoding of that name, or STRING_ENCODING_UNKNOWN when there is none or it is not
 * supported; never STRING_ENCODING_DEFAULT.  A name is compared with these, in this order:
 *    "windows-" or "Windows-" and the decimal number of a Windows code page;
 *    the IANA charset names and aliases, and those of ICU 4.4's converters;
 *    the same names without regard to case and to characters other than ASCII letters and digits.
 *    UnicodeIANALookup("latin1"), ("8859_1") and ("iso 8859-1")  give STRING_ENCODING_ISO_8859_1
 *    UnicodeIANALookup("EUC-JP")  gives STRING_ENCODING_UNKNOWN: it exists, but is not supported
 * A name that several encodings share belongs to one of them only.
 *
 * The answer for a name is cached until Unicode_Shutdown(), without regard to case.  In two cases
 * that shows: "WINDOWS-949" is found once "windows-949" is cached; and of "ISO-8859-8-I" (107) and
 * "iso-8859-8-i" (292, not supported) the first that is looked up decides for both.
 *
 * Each call with a name that is not found writes a Warning(); a name that is found but not
 * supported does not.  A failed allocation ends the process.
 */
StringEncoding UnicodeIANALookup(const char *name);

/* Does the same without a Warning(): for names that may well be wrong, such as a user's input. */
StringEncoding Unicode_FindEncoding(const char *name);

/*
 * Returns ICU's name of the encoding, a constant, also of an encoding that is not supported.
 * STRING_ENCODING_DEFAULT stands for the current encoding.  A number that is no encoding's writes a
 * Warning() and ends the process: "NOT_REACHED lib/unicode/unicodeSimpleTypes:2588".
 *    Unicode_EncodingEnumToName(STRING_ENCODING_ISO_8859_1)  gives "ISO-8859-1"
 */
const char *Unicode_EncodingEnumToName(StringEncoding encoding);

/* Returns the current encoding for STRING_ENCODING_DEFAULT, and any other number unchanged. */
StringEncoding Unicode_ResolveEncoding(StringEncoding encoding);

/* Returns the encoding of the host's code set, CodeSet_GetCurrentCodeSet() of codeset.h: UTF-8.
 * Cached from the first time that it is found. */
StringEncoding Unicode_GetCurrentEncoding(void);

/* Returns the same without the cache. */
StringEncoding Unicode_LookUpCurrentEncoding(void);

/* Returns whether the number is an encoding's, supported or not: STRING_ENCODING_UNKNOWN, _DEFAULT
 * and _COUNT are not. */
bool Unicode_IsEncodingValid(StringEncoding encoding);

/*
 * ---- STRINGS
 *
 * Lengths of buffers are in bytes and do not count the terminator.  A length of -1 means that the
 * buffer ends with a terminator: two zero bytes in the UTF-16 encodings, four in the UTF-32 ones,
 * else one.  UTF-16 and UTF-32 without LE or BE in their names are read by their byte order mark
 * and, without one, as big-endian.
 *
 * STRING_ENCODING_DEFAULT is the current encoding.  New strings, buffers and lists are the
 * caller's, who releases them, and a list's entries, with free().  codeset.h says which encodings
 * convert to which.  A number that is no encoding's, such as STRING_ENCODING_UNKNOWN, ends the
 * process as in Unicode_EncodingEnumToName() wherever there is text to convert.  All of it is
 * reentrant.  When memory runs out the process ends, unless the function says otherwise.
 *
 * Bytes from outside, such as a file's name or a variable's value, may be invalid in their
 * encoding.  Each function says what it does with such bytes.  Unicode_IsBufferValid() and
 * Unicode_IsStringValidUtf8() check them beforehand; Unicode_AllocIfValid() checks and copies.
 */

/*
 * Returns a new string of the buffer's text; NULL for NULL.  With ICU an invalid sequence becomes
 * U+FFFD or, for a single byte in some East Asian encodings, U+001A; without ICU an invalid byte in
 * ASCII becomes U+FFFD.  All other invalid text without ICU, an encoding that does not convert, and
 * a lack of memory end the process:
 *    "Unicode_AllocWithLength: Couldn't convert invalid buffer [caf\xE9] from UTF-8 to Unicode."
 * When memory runs out "(couldn't escape bytes)" may stand for the bytes.  Ask
 * Unicode_IsBufferValid() beforehand, or use Unicode_AllocIfValid().
 */
Unicode Unicode_AllocWithLength(const void *buffer, ssize_t length, StringEncoding encoding);

/*
 * Returns a new string of the buffer's text, which is never altered; for bytes from outside, such
 * as file names.  NULL for NULL; NULL with errno EILSEQ when the bytes are not valid in the
 * encoding, EINVAL when the encoding does not convert to UTF-8, ENOMEM when memory runs out.  A
 * success leaves errno unchanged.  ICU makes no difference, but for encodings that only ICU
 * converts.
 *    Unicode_AllocIfValid("caf\xE9", -1, STRING_ENCODING_UTF_8)  gives NULL
 */
Unicode Unicode_AllocIfValid(const void *buffer, ssize_t length, StringEncoding encoding);

/*
 * Returns a new list of new strings, each made as by Unicode_AllocWithLength() with length -1: with
 * ICU invalid text is altered, and without ICU it ends the process.  count is the number of entries
 * or, when it is negative, NULL ends the list, and the new list as well.  A NULL among the entries
 * stays NULL.
 */
Unicode *Unicode_AllocList(char **list, ssize_t count, StringEncoding encoding);

/*
 * Returns a new string of ASCII text; NULL for NULL.  When unescape is false this is a copy of the
 * string, whatever its bytes are.  When unescape is true, a backslash and "u" with four hexadecimal
 * digits, or "U" with eight, become that character, or U+FFFD above U+10FFFF.  A backslash before
 * any other character is removed, and so is one at the end.  A character of value 0 ends the
 * string.
 *
 * With unescape a byte above 127 ends the process, with ICU and without: "VERIFY
 * lib/unicode/unicodeSimpleBase:815", or ":831" after a backslash.  So does a character that is no
 * hexadecimal digit where one must be ("NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:869"), and,
 * without ICU, half of a surrogate pair.  Ask Unicode_IsBufferValid() about ASCII from outside
 * beforehand.
 *    Unicode_AllocFromEscapedAscii("caf\\u00e9", true)  gives "café"
 */
Unicode Unicode_AllocFromEscapedAscii(const char *ascii, bool unescape);

/* Returns a copy of the string, whatever its bytes are; NULL for NULL. */
Unicode Unicode_Duplicate(const char *string);

/*
 * Returns the string's text in the encoding, as a new terminated buffer.  NULL for NULL, and when
 * UTF-8 does not convert to the encoding or the encoding lacks one of the characters.
 *
 * A string that is not UTF-8 is copied unchanged when the encoding is UTF-8, ends the process when
 * it is UTF-16LE ("NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:741"), and gives NULL otherwise,
 * with ICU and without.  Unicode_IsStringValidUtf8() checks a string beforehand.
 */
char *Unicode_GetAllocBytes(const char *string, StringEncoding encoding);

/* Does the same for the first length bytes of the string, or for all of it when length is -1.
 * *lengthOut receives the buffer's length; lengthOut may be NULL. */
char *Unicode_GetAllocBytesWithLength(const char *string, StringEncoding encoding, ssize_t length,
                                      size_t *lengthOut);

/* Returns a new list of what Unicode_GetAllocBytes() returns for each string; count is as for
 * Unicode_AllocList().  NULL when one of the strings fails; nothing is left allocated then. */
char **Unicode_GetAllocList(Unicode *list, ssize_t count, StringEncoding encoding);

/*
 * Copies the string's text in the encoding into destination, which has capacity bytes, and
 * terminates it, in UTF-16LE with two zero bytes, else with one.  *lengthOut receives the number of
 * bytes copied without the terminator; lengthOut may be NULL.
 *
 * True when all of the text fit.  Otherwise false, and destination holds
 *    as much of a too long text as fits: whole characters in UTF-8, ASCII and UTF-16LE, else bytes;
 *    the terminator alone, when UTF-8 does not convert to the encoding, the encoding lacks one of
 *    the characters, or memory runs out;
 *    what it held before, when not even the terminator fits, and for ASCII when a character is not
 *    ASCII.
 *
 * A string that is not UTF-8 is copied unchanged when the encoding is UTF-8, and still cut after a
 * whole character; it ends the process when the encoding is UTF-16LE ("NOT_IMPLEMENTED
 * lib/unicode/unicodeSimpleBase:554"); otherwise the conversion fails.  All this is the same with
 * ICU and without.  Unicode_IsStringValidUtf8() checks a string beforehand.
 */
bool Unicode_CopyBytes(void *destination, const char *string, size_t capacity, size_t *lengthOut,
                       StringEncoding encoding);

/* Returns whether Unicode_GetAllocBytes() would succeed; true for NULL.  A string that is not UTF-8
 * ends the process for UTF-16LE as it does there. */
bool Unicode_CanGetBytesWithEncoding(const char *string, StringEncoding encoding);

/*
 * Returns whether the buffer is valid text in the encoding; true for NULL and for a length of 0.
 * For UTF-8 and ASCII ICU makes no difference.  For the other encodings this is
 * CodeSet_IsValidBuffer() of codeset.h: without ICU false for all but UTF-16LE and UTF-16BE, and
 * with ICU some sizes and encodings end the process.
 */
bool Unicode_IsBufferValid(const void *buffer, ssize_t length, StringEncoding encoding);

/* Returns whether the NUL-terminated bytes are UTF-8. */
bool Unicode_IsStringValidUtf8(const char *string);

/* Returns the string's length in bytes without its NUL. */
size_t Unicode_LengthInBytes(const char *string);

/*
 * Returns a number of bytes that is enough for the string's text in the encoding with a terminator
 * and a byte order mark.  Exact only for UTF-8.
 *    Unicode_BytesRequired("abc", STRING_ENCODING_UTF_16LE)  gives 26
 */
size_t Unicode_BytesRequired(const char *string, StringEncoding encoding);

/* Returns the buffer's bytes in printable ASCII, as a new string for diagnostics: each control
 * character, backslash and byte above 127 becomes "\x" and two hexadecimal digits.  NULL when
 * memory runs out. */
char *Unicode_EscapeBuffer(const void *buffer, ssize_t length, StringEncoding encoding);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_UNICODE_H */
