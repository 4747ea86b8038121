/*
 * unicode.h -- the library's text: NUL-terminated UTF-8 on the heap.
 */
#ifndef PELAGO_UNICODE_H
#define PELAGO_UNICODE_H

#ifdef __cplusplus
extern "C" {
#endif

/* UTF-8, NUL-terminated, owned by whoever receives it and released with free(). */
typedef char *Unicode;

/*
 * Decides, once a process, whether ICU is used: it is when ICU's data file lies in the product's
 * ICU folder, and ICU is told of the file then.  Going without is no failure and is not told.  Call
 * it after Location_Init().  Later calls return at once.  Several threads may call it together: one
 * does the work, the others wait for it in steps of a quarter of a second.
 */
void Unicode_Init(void);

/* The same with the ICU folder given, or looked up when icuDataDir is NULL.  argc, argv and envp
 * are there for callers that hold a program's arguments; they are not used. */
void Unicode_InitEx(int argc, char **argv, char **envp, const char *icuDataDir);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_UNICODE_H */
