/*
 * declarations.h -- the macros around the declarations of every other header.
 *
 * What is declared between the two macros has C linkage, also in a C++ program, and default
 * visibility, also where a program is compiled with -fvisibility=hidden: the shared library then
 * calls the program's own definition of a sink (see diagnostics.h).
 */
#ifndef PELAGO_DECLARATIONS_H
#define PELAGO_DECLARATIONS_H

#ifndef __cplusplus
/* Begins a header's declarations. */
#define PELAGO_BEGIN_DECLARATIONS _Pragma("GCC visibility push(default)")
/* Ends a header's declarations. */
#define PELAGO_END_DECLARATIONS _Pragma("GCC visibility pop")
/* Casts the value to the type, in the language's own way. */
#define PELAGO_CAST(type, value) ((type)(value))
/* The null pointer, in the language's own way. */
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
