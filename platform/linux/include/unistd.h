/* unistd.h -- the host's own header, and issetugid(). */
#ifndef PELAGO_PLATFORM_UNISTD_H
#define PELAGO_PLATFORM_UNISTD_H

#include_next <unistd.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Returns 1 when the process started with rights that its caller lacks (as a set-user-ID or
 * set-group-ID program, or one with capabilities of its own), else 0.  The environment of such a
 * process must not be trusted.
 */
int issetugid(void);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_PLATFORM_UNISTD_H */
