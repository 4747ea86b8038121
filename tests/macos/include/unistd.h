/* unistd.h -- adds environ, which macOS declares nowhere. */
#ifndef PELAGO_TESTS_MACOS_UNISTD_H
#define PELAGO_TESTS_MACOS_UNISTD_H

#include_next <unistd.h>

#ifdef __cplusplus
extern "C"
#else
extern
#endif
    char **environ;

#endif
