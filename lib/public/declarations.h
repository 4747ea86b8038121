/*
 * declarations.h -- what stands around the declarations of every other header.
 *
 * Between the two are functions of C, also for a program in C++, and names that a shared library
 * exports, also for a program or a library that is compiled with -fvisibility=hidden: what such a
 * program defines of them, as in diagnostics.h, is what the library calls.
 */
#ifndef PELAGO_DECLARATIONS_H
#define PELAGO_DECLARATIONS_H

#ifndef __cplusplus
/* Comes before a header's declarations. */
#define PELAGO_BEGIN_DECLARATIONS _Pragma("GCC visibility push(default)")
/* Comes after them. */
#define PELAGO_END_DECLARATIONS _Pragma("GCC visibility pop")
/* The value as the type, in the language's own way. */
#define PELAGO_CAST(type, value) ((type)(value))
/* The null pointer, likewise. */
#define PELAGO_NULL NULL
#else
#define PELAGO_BEGIN_DECLARATIONS                                                                  \
    extern "C" {                                                                                   \
    _Pragma("GCC visibility push(default)")
#define PELAGO_END_DECLARATIONS                                                                    \
    _Pragma("GCC visibility pop")                                                                  \
    }
#define PELAGO_CAST(type, value) static_cast<type>(value)
#define PELAGO_NULL              nullptr
#endif

#endif /* PELAGO_DECLARATIONS_H */
