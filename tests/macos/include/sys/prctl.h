/* prctl.h -- makes a process the parent of its orphaned descendants. */
#ifndef PELAGO_TESTS_MACOS_SYS_PRCTL_H
#define PELAGO_TESTS_MACOS_SYS_PRCTL_H

#define PR_SET_CHILD_SUBREAPER 36 /* Linux's number */

#ifdef __cplusplus
extern "C"
#endif
    int
    prctl(int option, ...);

#endif
