/* mach_time.h -- a monotonic clock. */
#ifndef PELAGO_LINUX_MACH_MACH_TIME_H
#define PELAGO_LINUX_MACH_MACH_TIME_H

#include <mach/kern_return.h>

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct mach_timebase_info {
    uint32_t numer;
    uint32_t denom;
};
typedef struct mach_timebase_info *mach_timebase_info_t;
typedef struct mach_timebase_info mach_timebase_info_data_t;

/* Returns the ticks since the host started, without the time that it slept. */
uint64_t mach_absolute_time(void);

/* Stores the factor from ticks to nanoseconds, which are ticks * numer / denom; here both are 1.
 * Always returns KERN_SUCCESS. */
kern_return_t mach_timebase_info(mach_timebase_info_t info);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_LINUX_MACH_MACH_TIME_H */
