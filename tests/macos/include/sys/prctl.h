/* prctl.h -- being the parent of those who have lost theirs. */
#ifndef PELAGO_TESTS_MACOS_SYS_PRCTL_H
#define PELAGO_TESTS_MACOS_SYS_PRCTL_H

#define PR_SET_CHILD_SUBREAPER 36 /* Linux's number */

#ifdef __cplusplus
extern "C"
#endif
    int
    prctl(int option, ...);

#endif
