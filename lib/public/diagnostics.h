/*
 * diagnostics.h -- where the library's messages go.
 *
 * The program supplies these three; the library only calls them.  Formats are printf's, and nothing
 * is added to the text: a message that ends a line carries its own newline.  The library calls them
 * from any thread.
 */
#ifndef PELAGO_DIAGNOSTICS_H
#define PELAGO_DIAGNOSTICS_H

#ifdef __cplusplus
extern "C" {
#endif

/* Tells of a failure that the caller is also told of by a result. */
void Warning(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Tells what may be worth knowing and is nobody's fault. */
void Log(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Tells why the program cannot go on, and ends it.  Must not return. */
void Panic(const char *format, ...) __attribute__((format(printf, 1, 2), noreturn));

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_DIAGNOSTICS_H */
