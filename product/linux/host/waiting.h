/*
 * waiting.h -- waiting with a time limit, by a clock that nobody can set.
 */
#ifndef PELAGO_HOST_WAITING_H
#define PELAGO_HOST_WAITING_H

#include "report.h"

#include <chrono>
#include <ctime>

// A point in time, in seconds from its construction.
class Deadline {
public:
    explicit Deadline(int seconds)
        : mEnd(std::chrono::steady_clock::now() + std::chrono::seconds(seconds))
    {}
    bool IsOver() const { return std::chrono::steady_clock::now() >= mEnd; }

private:
    std::chrono::steady_clock::time_point mEnd;
};

// Sleeps for 10 ms, between two checks.  Throws Interruption when a signal has arrived.
inline void Pause()
{
    constexpr timespec MOMENT = {0, 10'000'000};
    nanosleep(&MOMENT, nullptr);
    CheckForSignal();
}

// Checks condition() every 10 ms until it holds; returns whether it did before the time was over.
template <typename Condition> bool WaitUntil(int seconds, const Condition &condition)
{
    const Deadline deadline(seconds);
    while (!condition()) {
        if (deadline.IsOver()) { return false; }
        Pause();
    }
    return true;
}

#endif // PELAGO_HOST_WAITING_H
