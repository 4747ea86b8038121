// hastyClock.cpp -- preloaded, makes a second pass between one reading of the clock and the next. A
// wait of N seconds then ends after N readings.
#include <sys/syscall.h>
#include <time.h> // NOLINT(modernize-deprecated-headers): the C library's own declaration
#include <unistd.h>

// The program under test measures time by this function.
extern "C" int clock_gettime(clockid_t clock, timespec *now)
{
    static time_t sLooks;
    const auto status = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (status == 0 && clock == CLOCK_MONOTONIC) { now->tv_sec += sLooks++; }
    return status;
}
