/*
 * escape.h -- make bytes safe for one context, and undo it.
 *
 * Input is bytes with a length, which may contain NULs, or, where a function takes no length, a
 * NUL-terminated string.  Every function that builds a text returns it as a new NUL-terminated
 * block, which the caller releases with free(), or NULL when memory runs out; nothing is printed.
 * *sizeOut receives the result's length in bytes without the NUL, and is unchanged when the result
 * is NULL; sizeOut may be NULL.  All of it is reentrant.  The input is not changed, unless a
 * function says so.
 */
#ifndef PELAGO_ESCAPE_H
#define PELAGO_ESCAPE_H

#include "declarations.h"

#include <stdbool.h>
#include <stddef.h>

PELAGO_BEGIN_DECLARATIONS

/*
 * Fills a set for Escape_DoString() and Escape_Do(): byteSet[b] becomes 1 for each byte b of the
 * string bytes, and 0 for all others of the 256.  To add the NUL, set byteSet[0] afterwards.
 *    int set[256];
 *    Escape_FillSet(set, "%\n");
 *    Escape_Do('%', set, "5%\n", 3, NULL)  gives "5%25%0A"
 */
void Escape_FillSet(int *byteSet, const char *bytes);

/*
 * Returns a copy in which each byte b whose byteSet[b] is not 0 is replaced by escString and the
 * two upper-case hexadecimal digits of b.  byteSet has 256 entries, as Escape_FillSet() makes them.
 * The result can be undone only if the set contains the bytes of escString.
 *    Escape_DoString("\\x", set, "a\n", 2, &n)  gives "a\x0A" and n == 5, for a set of the newline
 */
char *Escape_DoString(const char *escString, const int *byteSet, const void *buf, size_t size,
                      size_t *sizeOut);

/* Does what Escape_DoString() does with an escape of one byte, which may be any. */
char *Escape_Do(char escByte, const int *byteSet, const void *buf, size_t size, size_t *sizeOut);

/*
 * Reverses Escape_Do() with a set that contained escByte: escByte and two hexadecimal digits, of
 * either case, become one byte.  Any other escByte is copied together with the next byte, or with
 * the next two if the first of them is a hexadecimal digit; the search for the next escape goes on
 * after these.
 *    Escape_Undo('%', "a%25b", 5, &n)  gives "a%b" and n == 3
 *    Escape_Undo('%', "%%41", 4, NULL) gives "%%41"
 */
char *Escape_Undo(char escByte, const void *buf, size_t size, size_t *sizeOut);

/*
 * Does what Escape_Undo() does into a block of the caller's, of capacity bytes.  True when the
 * result and its NUL fit; false, with the block unchanged, when they do not or memory runs out.
 */
bool Escape_UndoFixBuf(char escByte, const void *buf, size_t size, void *destination,
                       size_t capacity);

/* Returns a copy without the carriage returns (13) that precede a line feed (10). */
char *Escape_AnsiToUnix(const void *buf, size_t size, size_t *sizeOut);

/*
 * Returns the bytes as one word for a POSIX shell, in single quotes.  A shell's word cannot contain
 * a NUL; one in the input is copied all the same.
 *    Escape_Sh("it's", 4, &n)  gives 'it'"'"'s' and n == 10
 */
char *Escape_Sh(const void *buf, size_t size, size_t *sizeOut);

/* Returns a basic regular expression that matches the bytes: a backslash precedes each of
 * $ * . [ \ ] ^. */
char *Escape_BRE(const void *buf, size_t size, size_t *sizeOut);

/* Returns the string as an item for a list with commas: a backslash precedes each comma and each
 * backslash.  NULL for NULL. */
char *Escape_Comma(const char *string);

/*
 * Returns the first byte of string that is wanted and not escaped, or NULL.  escByte escapes
 * exactly the next byte, which may be another escByte; wanted may be escByte itself.  The NUL at
 * the end is never found.
 *    Escape_Strchr('\\', "a\\,b,c", ',')  finds the second comma
 */
const char *Escape_Strchr(char escByte, const char *string, char wanted);

/* Returns a copy without the escBytes; the byte after each is kept, also if it is an escByte.  An
 * escByte at the very end is dropped. */
char *Escape_Unescape(char escByte, const char *string);

/*
 * Replaces escapes in string itself: two backslashes become one; a backslash and "n" become a line
 * feed; a backslash and an octal number, as sscanf() reads it with "%03o", become the number's low
 * byte.  The number always takes three bytes of the string (fewer at its end), even if sscanf()
 * read fewer: "\7xyz" gives the byte 7 and "z".  Any other backslash stays.  A number of 0 gives a
 * NUL, which ends the string for its readers.
 * Returns the last byte examined, which is the NUL at the end of the input.
 */
char Escape_UnescapeCString(char *string);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_ESCAPE_H */
