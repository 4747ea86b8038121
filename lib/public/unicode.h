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
 * Decides, once a process, whether ICU is used: it is when ICU's data file lies in the product's
 * ICU folder, and ICU gets the file's path then.  Going without is no failure, and
 * nothing is printed of it but what Location_Get() says; CodeSet_IsIcuInUse() of codeset.h answers
 * what came of it.  Call it after Location_Init().  Later calls, of Unicode_InitEx() too, return at
 * once and change nothing. Several threads may call it together: one does the work, the others wait
 * for it in steps of a quarter of a second.
 */
void Unicode_Init(void);

/*
 * The same with the ICU folder given, or looked up when icuDataDir is NULL.  A folder without ICU's
 * data file, and a second folder after the first call, are passed over in silence; when ICU is
 * needed, ask CodeSet_IsIcuInUse() afterwards.  argc, argv and envp are there for callers that hold
 * a program's arguments; they are not used.
 */
void Unicode_InitEx(int argc, char **argv, char **envp, const char *icuDataDir);

/*
 * Releases what the look-up of names keeps.  Nothing else here may run at the same time; later
 * calls begin anew.  Whether ICU is used and what the current encoding is stay as they are.
 */
void Unicode_Shutdown(void);

/*
 * ---- Encodings and their names.  Any number of threads may call these at the same time.
 *
 * An encoding is supported when UnicodeIANALookup() gives its number.  The others have numbers and
 * names, too, but no name leads to them.  Whether a supported one converts to another now, which
 * depends on ICU, is the answer of CodeSet_CanConvert() of codeset.h.
 */

/*
 * The encoding of that name, or STRING_ENCODING_UNKNOWN when there is none or it is not supported;
 * never STRING_ENCODING_DEFAULT.  A name may be, in this order,
 *    "windows-" or "Windows-" and the decimal number of a Windows code page;
 *    an IANA charset name or alias, or one of an ICU 4.4 converter;
 *    any of these spelt with other than ASCII letters and digits left out or put in, or in
 *    another case.
 *    UnicodeIANALookup("latin1"), ("8859_1") and ("iso 8859-1")  give STRING_ENCODING_ISO_8859_1
 *    UnicodeIANALookup("EUC-JP")  gives STRING_ENCODING_UNKNOWN: there is one, but not supported
 * Where encodings share a name, it is one's only.
 *
 * What a name was found to be is kept until Unicode_Shutdown(), and is the answer to the name in
 * any case of its letters, where that matters: "WINDOWS-949" is found once "windows-949" is kept,
 * and of "ISO-8859-8-I" (107) and "iso-8859-8-i" (292, not supported) the first one that is asked
 * for decides for both.
 *
 * Each call with a name that is not found writes a Warning(); a name that is found, but not
 * supported, writes none.  A failed allocation ends the process.
 */
StringEncoding UnicodeIANALookup(const char *name);

/* The same without a word to Warning(): for names that may well be nobody's, such as a user's. */
StringEncoding Unicode_FindEncoding(const char *name);

/*
 * The name of the encoding that ICU knows it by, a constant; of an encoding that is not supported,
 * too.  STRING_ENCODING_DEFAULT stands for the current encoding.  Any other number writes a
 * Warning() and ends the process: "NOT_REACHED lib/unicode/unicodeSimpleTypes:2588".
 *    Unicode_EncodingEnumToName(STRING_ENCODING_ISO_8859_1)  gives "ISO-8859-1"
 */
const char *Unicode_EncodingEnumToName(StringEncoding encoding);

/* The current encoding for STRING_ENCODING_DEFAULT; any other number as it is. */
StringEncoding Unicode_ResolveEncoding(StringEncoding encoding);

/* The encoding of the host's code set, CodeSet_GetCurrentCodeSet() of codeset.h: UTF-8.  It is
 * looked up until it has been found once. */
StringEncoding Unicode_GetCurrentEncoding(void);

/* The same, looked up each time. */
StringEncoding Unicode_LookUpCurrentEncoding(void);

/* Whether the number is an encoding's: STRING_ENCODING_UNKNOWN, _DEFAULT and _COUNT are not.  It
 * may be one that is not supported. */
bool Unicode_IsEncodingValid(StringEncoding encoding);

/*
 * ---- STRINGS
 *
 * Lengths of buffers are in bytes; -1 is up to the terminator, which is a zero unit of the
 * encoding: two bytes for the UTF-16 encodings, four for the UTF-32 ones, else one.  The terminator
 * does not count.  STRING_ENCODING_DEFAULT is the current encoding.  New strings, buffers and lists
 * are the caller's, who releases them, and a list's entries, with free().  codeset.h says which
 * encodings convert to which; a number that is no encoding's, STRING_ENCODING_UNKNOWN among them,
 * ends the process as in Unicode_EncodingEnumToName() wherever there is text to convert.  All
 * of it is reentrant; a failed safe allocation ends the process.
 *
 * Bytes from outside, such as a file's name or a variable's value, may be no text.  Each function
 * says what it does with such bytes; Unicode_IsBufferValid() and Unicode_IsStringValidUtf8() tell
 * beforehand, and Unicode_AllocIfValid() does both in one.
 */

/*
 * A new string of the buffer's text; NULL for NULL.  With ICU what is invalid becomes U+FFFD or, of
 * a single byte in some East Asian encodings, U+001A; so it does in ASCII without ICU.  What cannot
 * be converted, which without ICU is all else that is invalid, ends the process: ask
 * Unicode_IsBufferValid() beforehand, or use Unicode_AllocIfValid().  So does a lack of memory;
 * "(couldn't escape bytes)" may then stand for the bytes:
 *    "Unicode_AllocWithLength: Couldn't convert invalid buffer [caf\xE9] from UTF-8 to Unicode."
 */
Unicode Unicode_AllocWithLength(const void *buffer, ssize_t length, StringEncoding encoding);

/*
 * A new string of the buffer's text, as it is: what is not text in the encoding is neither repaired
 * nor the end of the process, so this is for bytes from outside, such as file names.  NULL for
 * NULL; NULL with errno EILSEQ when the bytes are not text in the encoding, EINVAL when the
 * encoding cannot be converted, ENOMEM without memory.  A success leaves errno alone.  All of this
 * is the same with ICU and without it, but for the encodings that only ICU converts.
 *    Unicode_AllocIfValid("caf\xE9", -1, STRING_ENCODING_UTF_8)  gives NULL
 */
Unicode Unicode_AllocIfValid(const void *buffer, ssize_t length, StringEncoding encoding);

/*
 * A new list of new strings, each made as by Unicode_AllocWithLength() of a terminated buffer: one
 * that is no text is altered with ICU, and ends the process without.
 * count is how many entries the list has, or negative when NULL ends it; that NULL is in the new
 * list, too.  A NULL among the entries stays NULL.
 */
Unicode *Unicode_AllocList(char **list, ssize_t count, StringEncoding encoding);

/*
 * A new string of ASCII text, in which, when unescape is true, a backslash and "u" with four
 * hexadecimal digits, or "U" with eight, are a character; what is above U+10FFFF is U+FFFD.  A
 * backslash before anything else stands for that, and at the end for nothing.  A character of value
 * 0 ends the string.  Other bytes than ASCII, and other than digits where they belong, end the
 * process with ICU and without, so ask Unicode_IsBufferValid() beforehand about ASCII from outside
 * ("VERIFY lib/unicode/unicodeSimpleBase:815", "VERIFY ...:831" behind a backslash,
 * "NOT_IMPLEMENTED ...:869"), and so does half of a pair of surrogates without ICU.  When unescape
 * is false, a copy of the string, whatever is in it; NULL for NULL.
 *    Unicode_AllocFromEscapedAscii("caf\\u00e9", true)  gives "café"
 */
Unicode Unicode_AllocFromEscapedAscii(const char *ascii, bool unescape);

/* A copy of the string, whatever its bytes are; NULL for NULL. */
Unicode Unicode_Duplicate(const char *string);

/*
 * The string's text in the encoding, as a new terminated buffer.  NULL for NULL, and when UTF-8
 * does not convert to the encoding or that lacks one of the characters.  With ICU and without, a
 * string that is not UTF-8 is copied as it is for UTF-8, ends the process for UTF-16LE
 * ("NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:741"), and gives NULL for all else;
 * Unicode_IsStringValidUtf8() tells beforehand.
 */
char *Unicode_GetAllocBytes(const char *string, StringEncoding encoding);

/* The same for the first length bytes of the string, or all of it for -1.  The buffer's length goes
 * to *lengthOut unless that is NULL. */
char *Unicode_GetAllocBytesWithLength(const char *string, StringEncoding encoding, ssize_t length,
                                      size_t *lengthOut);

/* A new list of what Unicode_GetAllocBytes() gives for each string; count is as for
 * Unicode_AllocList().  NULL, with nothing left behind, when one of them cannot be had. */
char **Unicode_GetAllocList(Unicode *list, ssize_t count, StringEncoding encoding);

/*
 * Copies the string's text in the encoding into capacity bytes, terminated (with one byte, but for
 * UTF-16LE with two).  True when all of it fit.  What does not fit is cut, in UTF-8, ASCII and
 * UTF-16LE between characters, in other encodings between bytes.  False, with the terminator alone
 * written, when UTF-8 does not convert to the encoding, that lacks one of the characters, or memory
 * runs out.  False with nothing written when not even the terminator fits, and for ASCII when a
 * character is not ASCII.  Unless lengthOut is NULL, *lengthOut becomes how many bytes were copied,
 * the terminator not counted.
 *
 * With ICU and without, a string that is not UTF-8 is copied as it is for UTF-8, and when it is
 * cut, what is left ends with a whole character all the same; for UTF-16LE it ends the process
 * ("NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:554"); for all else the conversion fails.
 * Unicode_IsStringValidUtf8() tells beforehand.
 */
bool Unicode_CopyBytes(void *destination, const char *string, size_t capacity, size_t *lengthOut,
                       StringEncoding encoding);

/* Whether Unicode_GetAllocBytes() can be had; true for NULL.  A string that is not UTF-8 ends the
 * process for UTF-16LE as it does there. */
bool Unicode_CanGetBytesWithEncoding(const char *string, StringEncoding encoding);

/*
 * Whether the buffer is text in the encoding; true for NULL, and of no bytes for any encoding.  In
 * UTF-8 and ASCII it is the same with ICU and without.  For the others this is
 * CodeSet_IsValidBuffer() of codeset.h: without ICU false in all encodings but UTF-16LE and
 * UTF-16BE, and with ICU there are sizes and encodings that end the process.
 */
bool Unicode_IsBufferValid(const void *buffer, ssize_t length, StringEncoding encoding);

/* Whether the NUL-terminated bytes are UTF-8. */
bool Unicode_IsStringValidUtf8(const char *string);

/* How many bytes the string has, its NUL not counted, whatever they are. */
size_t Unicode_LengthInBytes(const char *string);

/*
 * How many bytes are enough for the string's text in the encoding, with a terminator and a byte
 * order mark.  Exact only for UTF-8.
 *    Unicode_BytesRequired("abc", STRING_ENCODING_UTF_16LE)  gives 26
 */
size_t Unicode_BytesRequired(const char *string, StringEncoding encoding);

/* The buffer's bytes in printable ASCII, as a new string for diagnostics: each control character,
 * backslash and byte above ASCII is "\x" and two hexadecimal digits.  NULL when memory runs out. */
char *Unicode_EscapeBuffer(const void *buffer, ssize_t length, StringEncoding encoding);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_UNICODE_H */
