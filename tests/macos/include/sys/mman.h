/* mman.h -- adds memfd_create(). */
#ifndef PELAGO_TESTS_MACOS_SYS_MMAN_H
#define PELAGO_TESTS_MACOS_SYS_MMAN_H

#include_next <sys/mman.h>

#ifdef __cplusplus
extern "C"
#endif
    int
    memfd_create(const char *name, unsigned flags);

#endif
