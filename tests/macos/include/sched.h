/* sched.h -- adds unshare(), for a test that replaces files that the host reads. */
#ifndef PELAGO_TESTS_MACOS_SCHED_H
#define PELAGO_TESTS_MACOS_SCHED_H

#include_next <sched.h>

#define CLONE_NEWNS 0x20000 /* Linux's number */

#ifdef __cplusplus
extern "C"
#endif
    int
    unshare(int flags);

#endif
