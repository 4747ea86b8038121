/* dyld.h -- the running program's path. */
#ifndef PELAGO_LINUX_MACH_O_DYLD_H
#define PELAGO_LINUX_MACH_O_DYLD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Copies the NUL-terminated path of the running program to buffer, which has room for *bufferSize
 * bytes, and returns 0.  Returns -1 with the size needed in *bufferSize when the path does not fit,
 * and -1 with *bufferSize unchanged when the path is not known.
 * It is the path by which the program was started, made absolute.  Links in it are not resolved,
 * and it stays the same when the file is replaced, moved or removed.
 */
int _NSGetExecutablePath(char *buffer, uint32_t *bufferSize);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_LINUX_MACH_O_DYLD_H */
