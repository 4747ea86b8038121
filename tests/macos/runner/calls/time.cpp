// time.cpp -- clocks and timers.
#include "../darwinTypes.h"
#include "../rows.h"

#include <cstdlib>
#include <ctime>
#include <mach/mach_time.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr Pair CLOCKS[] = {
    PAIR(CLOCK_REALTIME),           PAIR(CLOCK_MONOTONIC),
    PAIR(CLOCK_PROCESS_CPUTIME_ID), PAIR(CLOCK_THREAD_CPUTIME_ID),
    PAIR(CLOCK_MONOTONIC_RAW),      {CLOCK_MONOTONIC, DARWIN_CLOCK_UPTIME_RAW}};
constexpr Pair TIMERS[] = {PAIR(ITIMER_REAL), PAIR(ITIMER_VIRTUAL), PAIR(ITIMER_PROF)};
static_assert(sizeof(mach_timebase_info_data_t) == DARWIN_SIZEOF_mach_timebase_info_data_t);

DarwinTimeval ToDarwin(const timeval &host)
{
    return {host.tv_sec, static_cast<int32_t>(host.tv_usec)};
}
timeval ToHost(const DarwinTimeval &darwin) { return {darwin.tv_sec, darwin.tv_usec}; }

int Gettimeofday(DarwinTimeval *to, void *zone)
{
    const HandOnErrno handOn;
    timeval host = {};
    const int result = gettimeofday(&host, static_cast<struct timezone *>(zone));
    if (result == 0 && to != nullptr) { *to = ToDarwin(host); }
    return result;
}

int ClockGettime(int clock, timespec *to)
{
    const HandOnErrno handOn;
    return clock_gettime(HostOption("clock_gettime", "clock", CLOCKS, clock), to);
}

int Setitimer(int which, const DarwinItimerval *wanted, DarwinItimerval *before)
{
    const HandOnErrno handOn;
    itimerval host = {}, old = {};
    if (wanted != nullptr) { host = {ToHost(wanted->it_interval), ToHost(wanted->it_value)}; }
    const auto timer = static_cast<__itimer_which>(HostOption("setitimer", "timer", TIMERS, which));
    const int result = setitimer(timer, wanted == nullptr ? nullptr : &host, &old);
    if (result == 0 && before != nullptr) {
        *before = {ToDarwin(old.it_interval), ToDarwin(old.it_value)};
    }
    return result;
}

int Getitimer(int which, DarwinItimerval *to)
{
    const HandOnErrno handOn;
    itimerval host = {};
    const int result = getitimer(
        static_cast<__itimer_which>(HostOption("getitimer", "timer", TIMERS, which)), &host);
    if (result == 0) { *to = {ToDarwin(host.it_interval), ToDarwin(host.it_value)}; }
    return result;
}

const Row ROWS[] = {
    TRANSLATED(clock_gettime, ClockGettime),
    WITH_ERRNO(getloadavg),
    TRANSLATED(getitimer, Getitimer),
    TRANSLATED(gettimeofday, Gettimeofday),
    ALIKE(gmtime),
    ALIKE(gmtime_r),
    ALIKE(localtime),
    ALIKE(localtime_r),
    ALIKE(mach_absolute_time),
    ALIKE(mach_timebase_info),
    WITH_ERRNO(mktime),
    WITH_ERRNO(nanosleep),
    TRANSLATED(setitimer, Setitimer),
    WITH_ERRNO(sleep),
    ALIKE(strftime),
    WITH_ERRNO(time),
    ALIKE(timezone),
    ALIKE(tzname),
    ALIKE(tzset),
    WITH_ERRNO(usleep),
};

} // namespace

Rows TimeRows() { return ROWS; }
