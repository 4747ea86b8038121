// machTime.cpp -- the monotonic clock.
#include <mach/mach_time.h>

#include <ctime>

extern "C" uint64_t mach_absolute_time(void)
{
    constexpr uint64_t NS_PER_SECOND = 1000000000;
    // Like the SDK's clock, CLOCK_MONOTONIC stands still while the host sleeps.
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * NS_PER_SECOND + static_cast<uint64_t>(now.tv_nsec);
}

extern "C" kern_return_t mach_timebase_info(mach_timebase_info_t info)
{
    *info = {1, 1};
    return KERN_SUCCESS;
}
