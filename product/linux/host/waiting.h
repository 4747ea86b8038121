/*
 * waiting.h -- waits that end, by a clock that nobody sets.
 */
#ifndef PELAGO_HOST_WAITING_H
#define PELAGO_HOST_WAITING_H

#include "report.h"

#include <chrono>
#include <ctime>

class Deadline {
public:
    explicit Deadline(int seconds)
        : mEnd(std::chrono::steady_clock::now() + std::chrono::seconds(seconds))
    {}
    bool IsOver() const { return std::chrono::steady_clock::now() >= mEnd; }

private:
    std::chrono::steady_clock::time_point mEnd;
};

// A moment between two looks.  Throws Interruption when a signal has arrived.
inline void Pause()
{
    constexpr timespec MOMENT = {0, 10'000'000};
    nanosleep(&MOMENT, nullptr);
    CheckForSignal();
}

// Looks until condition() holds; whether it did in time.
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
