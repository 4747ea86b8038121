/*
 * diagnostics.h -- the library's three message sinks.
 *
 * The library reports through Pelago_Warning(), Pelago_Log() and Pelago_Panic().  Where other
 * headers say Warning(), Log() and Panic() they mean these three.  The library has a definition of
 * each, which writes to standard error.  A program replaces one by defining it as a C function:
 *
 *    void Pelago_Log(const char *format, ...) {}      (log messages are dropped)
 *
 * The definition must be in an object file of the program.  If it is in an archive, the link
 * command must ask for it (-Wl,-u,Pelago_Log), for a linker searches archives only for names that
 * are still undefined.  For the shared library the program must export its definition: including
 * this header does that, and a program that opens the library by dlopen() is linked with -rdynamic
 * as well.
 *
 * If PELAGO_SHORT_SINKS is defined before this header is included (#define PELAGO_SHORT_SINKS), the
 * three sinks have their short names, too: a program that then defines Log() defines Pelago_Log().
 * Other headers of the library may have been included before.  Without PELAGO_SHORT_SINKS the
 * library leaves the short names to the program.
 *
 * Formats are printf's.  Nothing is added to the text: a message that ends a line contains its
 * newline.  The library calls the sinks from any thread, from several at once, and in the child
 * processes that Hostinfo_Daemonize() makes.  A sink must leave errno unchanged.
 *
 * A sink may call the library, and may be called again by what it calls.  It must not call
 * Unicode_Init() or Unicode_InitEx(): if one of these called the sink, it would wait for itself.
 */
#ifndef PELAGO_DIAGNOSTICS_H
#define PELAGO_DIAGNOSTICS_H

#include "declarations.h"

PELAGO_BEGIN_DECLARATIONS

/* Reports a failure that the caller also learns from a result. */
void Pelago_Warning(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Reports an event that may be worth knowing and is no failure. */
void Pelago_Log(const char *format, ...) __attribute__((format(printf, 1, 2)));

/*
 * Reports why the process cannot go on, and ends it.  The library's own definition writes
 * "Panic: " and the message, and calls exit(1).  It must not return, nor be left by an exception or
 * longjmp(): the call that failed may hold blocks, descriptors, blocked signals and the
 * initialisation's lock, which nothing would release.  Functions that exit() runs may call the
 * library under the same rule as a sink.
 */
void Pelago_Panic(const char *format, ...) __attribute__((format(printf, 1, 2), noreturn));

PELAGO_END_DECLARATIONS

#endif /* PELAGO_DIAGNOSTICS_H */

#if defined(PELAGO_SHORT_SINKS) && !defined(PELAGO_PREFIX)

PELAGO_BEGIN_DECLARATIONS

/* The prefix that the compiler gives C names in object files, as a string: "_" on macOS. */
#define PELAGO_PREFIX PELAGO_PREFIX_TEXT(__USER_LABEL_PREFIX__)
/* Expands the prefix, a macro, and makes it a string. */
#define PELAGO_PREFIX_TEXT(prefix) PELAGO_PREFIX_QUOTED(prefix)
/* Makes the prefix a string without expanding it. */
#define PELAGO_PREFIX_QUOTED(prefix) #prefix

/* Pelago_Warning() under a short name. */
void Warning(const char *format, ...) __asm__(PELAGO_PREFIX "Pelago_Warning")
    __attribute__((format(printf, 1, 2)));

/* Pelago_Log() under a short name. */
void Log(const char *format, ...) __asm__(PELAGO_PREFIX "Pelago_Log")
    __attribute__((format(printf, 1, 2)));

/* Pelago_Panic() under a short name. */
void Panic(const char *format, ...) __asm__(PELAGO_PREFIX "Pelago_Panic")
    __attribute__((format(printf, 1, 2), noreturn));

PELAGO_END_DECLARATIONS

#endif /* PELAGO_SHORT_SINKS */
