/*
 * hostinfo.h -- questions about this host and this process.  All of them are reentrant.
 */
#ifndef PELAGO_HOSTINFO_H
#define PELAGO_HOSTINFO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The path of the running program, not necessarily its real path; the caller releases it with
 * free().  privilege is 0 or 1, which are the same here.  NULL after a Warning when privilege is
 * anything else, or when the path with its NUL exceeds 1024 bytes, which is macOS's own limit.
 */
char *Hostinfo_GetModulePath(uint32_t privilege);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_HOSTINFO_H */
