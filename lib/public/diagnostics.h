/*
 * diagnostics.h -- where the library's messages go: its three sinks.
 *
 * The library calls Pelago_Warning(), Pelago_Log() and Pelago_Panic(); where other headers say
 * Warning(), Log() and Panic() they mean these.  Its own write to standard error; a program that
 * defines one of the three, as a function of C, has the library call that one instead:
 *
 *    void Pelago_Log(const char *format, ...) {}      (what is nobody's fault is not said)
 *
 * The definition must be in an object file of the program itself.  In an archive of the program's a
 * linker does not look for it, unless the command names it (-Wl,-u,Pelago_Log).  The shared library
 * finds what the program exports: its own definition with this header included, and where the
 * library is opened by dlopen(), with -rdynamic.
 *
 * With PELAGO_SHORT_SINKS defined before this header is included (#define PELAGO_SHORT_SINKS), the
 * three have the short names, too, and whoever defines Log() then defines Pelago_Log(); other
 * headers of the library may have come before.  Without it the short names are the program's, for
 * whatever it likes.
 *
 * Formats are printf's.  Nothing is added to the text: a message that ends a line carries its own
 * newline.  The library calls the sinks from any thread, from several at once, and in the children
 * that Hostinfo_Daemonize() makes.  A sink leaves errno as it was.
 *
 * A sink may call the library, but neither Unicode_Init() nor Unicode_InitEx(): these may be what
 * it was called from, and would wait for themselves.  What it calls may call it again.
 */
#ifndef PELAGO_DIAGNOSTICS_H
#define PELAGO_DIAGNOSTICS_H

#include "declarations.h"

PELAGO_BEGIN_DECLARATIONS

/* Tells of a failure that the caller is also told of by a result. */
void Pelago_Warning(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Tells what may be worth knowing and is nobody's fault. */
void Pelago_Log(const char *format, ...) __attribute__((format(printf, 1, 2)));

/*
 * Tells why the program cannot go on, and ends it; the library's own writes "Panic: " first, and
 * ends it by exit(1).  It must not return, and must not be left by an exception or longjmp(): the
 * call that it ends may have blocks, descriptors, blocked signals and the lock of the
 * initialisation, and nobody gives these back.  What exit() runs may call the library as a sink
 * may.
 */
void Pelago_Panic(const char *format, ...) __attribute__((format(printf, 1, 2), noreturn));

PELAGO_END_DECLARATIONS

#endif /* PELAGO_DIAGNOSTICS_H */

#if defined(PELAGO_SHORT_SINKS) && !defined(PELAGO_PREFIX)

PELAGO_BEGIN_DECLARATIONS

/* What a linker puts before a name of C: "_" on macOS. */
#define PELAGO_PREFIX PELAGO_PREFIX_TEXT(__USER_LABEL_PREFIX__)
/* The prefix as a text. */
#define PELAGO_PREFIX_TEXT(prefix) PELAGO_PREFIX_QUOTED(prefix)
/* The same of a prefix that is no macro. */
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
