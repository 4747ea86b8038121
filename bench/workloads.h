// workloads.h -- ours beside its rivals.
//
// A machine that is shared changes its speed by half within a minute, for everything that runs on
// it.  So ours and its rivals run in turn, in batches of about a tenth of a millisecond, the ratio
// is taken between batches of the same round, and what is told is the median of many.
//
// A program registers its workloads in main() and ends with RunWorkloads, which prints all results
// in JSON; tools/bench_report.py makes a table of them.
#ifndef PELAGO_BENCH_WORKLOADS_H
#define PELAGO_BENCH_WORKLOADS_H

#include <cstddef>
#include <functional>
#include <type_traits>
#include <vector>

struct Rival {
    const char *name;
    std::function<void(size_t)> run; // does the work that many times
    bool counts = true; // false: a part of the work, or the least of it, never the best
    std::function<void()> prepare = {}, finish = {}; // of a contest: around each run, not timed
};

// Ours is to take at most ratio times as long as the rival, and so many microseconds.
struct Goal {
    const char *rival; // nullptr: the best of those that count
    double ratio;
    double microseconds = 0;
};

// Where a workload runs.  On one processor by default: what it costs to wake another one is no
// program's own, and varies most of all.
enum class Processors { One, All };

// Registers one workload.  same tells that ours and every rival give the same result: when they do
// not, the program ends with status 1 and nothing is timed, for a fast wrong answer is not fast.
void Workload(const char *name, std::vector<Goal> goals, std::function<void(size_t)> ours,
              std::vector<Rival> rivals, bool same = true, Processors processors = Processors::One);

// The same for work that is long enough to be timed one by one.
struct Contest {
    std::function<void()> prepare; // before each of ours, not timed
    std::function<void()> ours;
    std::vector<Rival> rivals;
    std::function<void()> finish = {}; // after each of ours, not timed
};

// Registers a workload that is made afresh for each repetition and runs for so many rounds.
void Workload(const char *name, std::vector<Goal> goals, std::function<Contest()> make,
              size_t rounds, Processors processors = Processors::One);

// Registers the geometric mean of the ratios to that rival, over all the program's workloads that
// have it.
void GeometricMean(const char *name, Goal goal);

// Registers a figure that is no time, and the most that it may be.
void Figure(const char *name, const char *unit, double limit, std::function<double()> measure);

// Measures what was registered, and returns main's result.
//    --repetitions=N   each workload so often, in another order each time; 9 when not given
//    --filter=TEXT     only the workloads with this text in their name
int RunWorkloads(int argc, char **argv);

// The value, of which the compiler knows nothing any more.
template <typename T> T Opaque(T value)
{
    asm volatile("" : "+m"(value) : : "memory");
    return value;
}

// f() does the work once, and its result is kept from being optimised away.
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
