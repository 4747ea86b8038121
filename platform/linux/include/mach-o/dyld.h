/* dyld.h -- the running program's own path. */
#ifndef PELAGO_LINUX_MACH_O_DYLD_H
#define PELAGO_LINUX_MACH_O_DYLD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Copies the NUL-terminated path of the running program to buffer, which holds *bufferSize bytes,
 * and returns 0; -1, with the size needed in *bufferSize, when it does not fit; -1, with
 * *bufferSize as it was, when the path cannot be had.  It is the path that the program was started
 * by, made absolute: links on the way are not resolved, and it stays the same when the file is
 * replaced, moved or removed.
 */
int _NSGetExecutablePath(char *buffer, uint32_t *bufferSize);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_LINUX_MACH_O_DYLD_H */
