// workloads.h -- compares the time of our code with that of its rivals.
//
// The speed of a shared machine changes by half within a minute, for everything that runs on it.
// So ours and its rivals run in turn, in batches of about a tenth of a millisecond.  A ratio
// compares two batches of the same round; the result is the median of many ratios.
//
// A program registers its workloads in main() and ends with RunWorkloads, which prints all results
// as JSON; tools/bench_report.py makes a table of them.
#ifndef PELAGO_BENCH_WORKLOADS_H
#define PELAGO_BENCH_WORKLOADS_H

#include <cstddef>
#include <functional>
#include <type_traits>
#include <vector>

struct Rival {
    const char *name;
    std::function<void(size_t)> run; // does the work that many times
    bool counts = true;              // false: does only a part of the work, and is never the best
    std::function<void()> prepare = {}, finish = {}; // in a contest: before and after, not timed
};

// Ours must take at most ratio times the rival's time, plus the given microseconds.
struct Goal {
    const char *rival; // nullptr: the best of those that count
    double ratio;
    double microseconds = 0;
};

// The processors that a workload may use.  One by default: the cost of waking another processor is
// not the program's own, and varies more than anything else.
enum class Processors { One, All };

// Registers one workload.  same must be true if ours and every rival have the same result;
// otherwise the program ends with status 1 and times nothing, because a wrong result's time is
// worthless.
void Workload(const char *name, std::vector<Goal> goals, std::function<void(size_t)> ours,
              std::vector<Rival> rivals, bool same = true, Processors processors = Processors::One);

// The same for work that takes long enough to time each run by itself.
struct Contest {
    std::function<void()> prepare; // before each of ours, not timed
    std::function<void()> ours;
    std::vector<Rival> rivals;
    std::function<void()> finish = {}; // after each of ours, not timed
};

// Registers a workload that is made anew for each repetition and runs that number of rounds.
void Workload(const char *name, std::vector<Goal> goals, std::function<Contest()> make,
              size_t rounds, Processors processors = Processors::One);

// Registers the geometric mean of the ratios to that rival, over all the program's workloads that
// have it.
void GeometricMean(const char *name, Goal goal);

// Registers a figure other than a time, and its limit.
void Figure(const char *name, const char *unit, double limit, std::function<double()> measure);

// Measures what was registered, and returns main's result.
//    --repetitions=N   runs each workload N times, in another order each time; 9 by default
//    --filter=TEXT     only the workloads with this text in their name
int RunWorkloads(int argc, char **argv);

// Returns the value, and keeps the compiler from knowing it.
template <typename T> T Opaque(T value)
{
    asm volatile("" : "+m"(value) : : "memory");
    return value;
}

// Returns a function that calls f(), which does the work once, count times; its result is not
// optimised away.
template <typename F> std::function<void(size_t)> Repeat(F f)
{
    return [f](size_t count) mutable {
        for (; count > 0; count--) {
            if constexpr (std::is_void_v<decltype(f())>) {
                f();
                asm volatile("" : : : "memory");
            } else {
                auto result = f();
                asm volatile("" : : "m"(result) : "memory");
            }
        }
    };
}

#endif // PELAGO_BENCH_WORKLOADS_H
