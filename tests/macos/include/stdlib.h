/* stdlib.h -- adds clearenv(). */
#ifndef PELAGO_TESTS_MACOS_STDLIB_H
#define PELAGO_TESTS_MACOS_STDLIB_H

#include_next <stdlib.h>

#ifdef __cplusplus
extern "C"
#endif
    int
    clearenv(void);

#endif
