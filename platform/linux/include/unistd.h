/* unistd.h -- the host's own, and issetugid(). */
#ifndef PELAGO_PLATFORM_UNISTD_H
#define PELAGO_PLATFORM_UNISTD_H

#include_next <unistd.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * 1 when the process started with rights that its caller lacks (a set-user-ID or set-group-ID
 * program, or one with capabilities of its own), so that its environment is not to be trusted; else
 * 0.
 */
int issetugid(void);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_PLATFORM_UNISTD_H */
