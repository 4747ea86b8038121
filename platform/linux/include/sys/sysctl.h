/*
 * sysctl.h -- facts about the machine, by number or by name.
 *
 * Both calls return 0, or -1 with errno:
 *    ENOENT   the name is not known, or this host does not have its value
 *    EINVAL   a name of fewer than 2 or more than CTL_MAXNAME numbers
 *    ENOTDIR  a name that has more numbers after those of a value
 *    EPERM    newValue is not NULL: nothing here can be set
 *    ENOMEM   the buffer is too small, and holds the value's first *size bytes; or memory ran out
 *    ERANGE   a number of 8 bytes above INT32_MAX, for a buffer of 4
 * With value NULL they store the size needed, in bytes, in *size.  Otherwise *size is the buffer's
 * size before the call and the value's after it.  Texts end with a NUL, which counts.  Both calls
 * are thread-safe.
 */
#ifndef PELAGO_LINUX_SYS_SYSCTL_H
#define PELAGO_LINUX_SYS_SYSCTL_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CTL_MAXNAME 12

#define CTL_HW     6
#define HW_MACHINE 1 /* text: the hardware's name, as uname() returns it */

int sysctl(int *name, unsigned int count, void *value, size_t *size, void *newValue,
           size_t newSize);

/*
 * The names and their values:
 *    hw.activecpu               4 bytes: processors that are running
 *    hw.cpufrequency_max        8 bytes, or 4 up to INT32_MAX: the highest clock rate in Hz
 *    hw.machine                 the same as HW_MACHINE
 *    hw.memsize                 8 bytes, or 4 up to INT32_MAX: physical memory in bytes
 *    hw.model                   text: the machine's model
 *    machdep.cpu.brand_string   text: the processor's name
 * No other name is known.
 */
int sysctlbyname(const char *name, void *value, size_t *size, void *newValue, size_t newSize);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_LINUX_SYS_SYSCTL_H */
