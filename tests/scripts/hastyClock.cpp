// hastyClock.cpp -- preloaded, lets a second pass between one look at the clock and the next: a
// wait that ends by the clock ends after as many looks as it has seconds.
#include <sys/syscall.h>
#include <time.h> // NOLINT(modernize-deprecated-headers): the C library's own declaration
#include <unistd.h>

// What measures time in the program under test asks here.
extern "C" int clock_gettime(clockid_t clock, timespec *now)
{
    static time_t sLooks;
    const auto status = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (status == 0 && clock == CLOCK_MONOTONIC) { now->tv_sec += sLooks++; }
    return status;
}
