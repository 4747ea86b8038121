/*
 * posix.h -- the C library's calls for text in UTF-8.
 *
 * Each takes its text in UTF-8, makes the C library's call of the same name with it in the host's
 * encoding, and returns that call's result with errno as the call set it.  The host's encoding is
 * UTF-8 here, so names pass as they are.
 */
#ifndef PELAGO_POSIX_H
#define PELAGO_POSIX_H

#include "unicode.h"

#ifdef __cplusplus
extern "C" {
#endif

/* realpath(): the canonical absolute path, which the caller releases with free(); NULL with errno
 * when it cannot be had: ENOENT when there is no such file, EINVAL for a NULL path. */
Unicode Posix_RealPath(const char *path);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_POSIX_H */
