/*
 * escape.h -- make bytes safe for one context, and undo it.
 *
 * Input is bytes with a length, so it may hold NULs, or a NUL-terminated string where no length is
 * asked for.  Every builder returns a new NUL-terminated block that the caller releases with
 * free(), or NULL when memory runs out; nothing is printed.  sizeOut may be NULL; otherwise it
 * receives the result's length in bytes, the NUL not counted, and is left alone without a result.
 * All of it is reentrant, and leaves its input as it was unless it says otherwise.
 */
#ifndef PELAGO_ESCAPE_H
#define PELAGO_ESCAPE_H

#include "declarations.h"

#include <stdbool.h>
#include <stddef.h>

PELAGO_BEGIN_DECLARATIONS

/*
 * Fills a set for Escape_DoString() and Escape_Do(): of the 256 entries of byteSet, those of the
 * string's bytes become 1 and all others 0.  To have NULs in it, too, set byteSet[0] afterwards.
 *    int set[256];
 *    Escape_FillSet(set, "%\n");
 *    Escape_Do('%', set, "5%\n", 3, NULL)  gives "5%25%0A"
 */
void Escape_FillSet(int *byteSet, const char *bytes);

/*
 * A copy in which each byte b with byteSet[b] not 0 has become escString and the two upper-case
 * hexadecimal digits of b.  byteSet has 256 entries, as Escape_FillSet() makes them.  For the
 * result to be undone, the set must hold the escape's own bytes.
 *    Escape_DoString("\\x", set, "a\n", 2, &n)  gives "a\x0A" and n == 5, for a set of the newline
 */
char *Escape_DoString(const char *escString, const int *byteSet, const void *buf, size_t size,
                      size_t *sizeOut);

/* Escape_DoString() with an escape of one byte, whichever. */
char *Escape_Do(char escByte, const int *byteSet, const void *buf, size_t size, size_t *sizeOut);

/*
 * Reverses Escape_Do(), whose set held escByte: escByte and two hexadecimal digits of either case
 * become one byte.  Any other escByte stays, with the byte that follows it, or with the two when
 * the first is a digit; the search for the next escape goes on after these.
 *    Escape_Undo('%', "a%25b", 5, &n)  gives "a%b" and n == 3
 *    Escape_Undo('%', "%%41", 4, NULL) gives "%%41"
 */
char *Escape_Undo(char escByte, const void *buf, size_t size, size_t *sizeOut);

/*
 * Escape_Undo() into a block of the caller's, of capacity bytes.  True when the result and its NUL
 * fit; false, with the block as it was, when they do not or memory runs out.
 */
bool Escape_UndoFixBuf(char escByte, const void *buf, size_t size, void *destination,
                       size_t capacity);

/* A copy without the carriage returns (13) that have a line feed (10) right after them. */
char *Escape_AnsiToUnix(const void *buf, size_t size, size_t *sizeOut);

/*
 * One word for a POSIX shell, in single quotes.  A shell's word cannot hold a NUL; one in the input
 * is copied.
 *    Escape_Sh("it's", 4, &n)  gives 'it'"'"'s' and n == 10
 */
char *Escape_Sh(const void *buf, size_t size, size_t *sizeOut);

/* A basic regular expression that matches the bytes: each of $ * . [ \ ] ^ gets a backslash. */
char *Escape_BRE(const void *buf, size_t size, size_t *sizeOut);

/* An item for a list with commas: each comma and each backslash gets a backslash; NULL for NULL. */
char *Escape_Comma(const char *string);

/*
 * The first wanted byte in string that is not escaped, or NULL.  escByte escapes exactly the next
 * byte, which may be another escByte; wanted may be escByte itself.  The NUL at the end is not
 * found.
 *    Escape_Strchr('\\', "a\\,b,c", ',')  finds the second comma
 */
const char *Escape_Strchr(char escByte, const char *string, char wanted);

/* A copy with each escByte removed and the byte after it kept, whatever it is.  One at the very end
 * is dropped. */
char *Escape_Unescape(char escByte, const char *string);

/*
 * Replaces, in string itself, two backslashes by one, a backslash and "n" by a line feed, and a
 * backslash before an octal number, as sscanf() reads one with "%03o", by the number's low byte.
 * Of a number's place exactly three bytes are taken, or what there is of them, however few of them
 * sscanf() read: "\7xyz" gives the byte 7 and "z".  Any other backslash stays.  A number of 0 gives
 * a NUL, which ends the string for those who read on.
 * Returns the last byte examined: the NUL at the end of what was given.
 */
char Escape_UnescapeCString(char *string);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_ESCAPE_H */
