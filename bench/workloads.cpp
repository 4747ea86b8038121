// workloads.cpp -- runs ours and its rivals in turn, and prints the times.
#include "workloads.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sched.h>
#include <string>

namespace {

constexpr double BATCH_NANOSECONDS = 1e5, REPETITION_NANOSECONDS = 2e8;
constexpr size_t FEWEST_ROUNDS = 3, MOST_ROUNDS = 400;

// The medians of each repetition, for ours or for a rival.
struct Result {
    std::string name;
    bool counts;
    std::vector<double> nanoseconds, ratios; // ratios: our time divided by this one's
};

struct Registered {
    const char *name;
    std::vector<Goal> goals;
    std::function<Contest()> make;    // runs that are timed one by one
    size_t rounds;                    // the number of these runs
    std::function<void(size_t)> ours; // timed in batches
    std::vector<Rival> rivals;
    Processors processors;
    std::vector<Result> results; // ours first
};

struct Mean {
    const char *name;
    Goal goal;
};

struct Reading {
    const char *name, *unit;
    double limit;
    std::function<double()> measure;
    std::vector<double> values;
};

std::vector<Registered> sWorkloads;
std::vector<Mean> sMeans;
std::vector<Reading> sFigures;

double Nanoseconds(const std::function<void(size_t)> &run, size_t count)
{
    const auto start = std::chrono::steady_clock::now();
    run(count);
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
        .count();
}

double Median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// ---- One repetition

struct Contender {
    std::function<void()> prepare;
    std::function<void(size_t)> run;
    size_t batch;
    std::vector<double> nanoseconds; // of one run of the work, for each round
    std::function<void()> finish = {};
};

// Returns how often a batch does the work, and stores the batch's time.
size_t BatchOf(const std::function<void(size_t)> &run, double *takes)
{
    size_t batch = 1;
    for (;;) {
        *takes = Nanoseconds(run, batch);
        if (*takes >= BATCH_NANOSECONDS / 2) { break; }
        batch *= 2;
    }
    if (batch == 1) { return 1; }
    const double once = *takes / static_cast<double>(batch);
    *takes = BATCH_NANOSECONDS;
    return static_cast<size_t>(BATCH_NANOSECONDS / once) + 1;
}

// Shuffles the order each time, because the code that runs before a contender affects its time.
void RunRounds(std::vector<Contender> *contenders, size_t rounds)
{
    static std::minstd_rand random;
    std::vector<Contender *> order;
    for (Contender &contender : *contenders) {
        order.push_back(&contender);
    }
    std::shuffle(order.begin(), order.end(), random);
    for (size_t round = 0; round < rounds; round++) {
        for (Contender *contender : order) {
            if (contender->prepare) { contender->prepare(); }
            contender->nanoseconds.push_back(Nanoseconds(contender->run, contender->batch) /
                                             static_cast<double>(contender->batch));
            if (contender->finish) { contender->finish(); }
        }
    }
}

void RunRepetition(Registered *workload)
{
    std::vector<Contender> contenders;
    size_t rounds = workload->rounds;
    std::vector<Rival> rivals = workload->rivals;
    if (workload->make) {
        const Contest contest = workload->make();
        contenders.push_back(
            {contest.prepare, [=](size_t) { contest.ours(); }, 1, {}, contest.finish});
        for (const Rival &rival : contest.rivals) {
            contenders.push_back({rival.prepare, rival.run, 1, {}, rival.finish});
        }
        rivals = contest.rivals;
    } else {
        double takes = 0, all = 0;
        const auto add = [&](const std::function<void(size_t)> &run) {
            contenders.push_back({{}, run, BatchOf(run, &takes), {}});
            all += takes;
        };
        add(workload->ours);
        for (const Rival &rival : rivals) {
            add(rival.run);
        }
        rounds = std::clamp(static_cast<size_t>(REPETITION_NANOSECONDS / all), FEWEST_ROUNDS,
                            MOST_ROUNDS);
    }
    if (workload->results.empty()) {
        workload->results.push_back({"ours", true, {}, {}});
        for (const Rival &rival : rivals) {
            workload->results.push_back({rival.name, rival.counts, {}, {}});
        }
    }

    RunRounds(&contenders, rounds);
    const std::vector<double> &ours = contenders[0].nanoseconds;
    for (size_t i = 0; i < contenders.size(); i++) {
        std::vector<double> ratios(rounds);
        std::transform(ours.begin(), ours.end(), contenders[i].nanoseconds.begin(), ratios.begin(),
                       std::divides<>());
        workload->results[i].nanoseconds.push_back(Median(contenders[i].nanoseconds));
        workload->results[i].ratios.push_back(Median(ratios));
    }
}

// ---- Processors

cpu_set_t AllProcessors()
{
    cpu_set_t all;
    if (sched_getaffinity(0, sizeof all, &all) != 0) {
        perror("sched_getaffinity");
        exit(1);
    }
    return all;
}

cpu_set_t FirstOf(const cpu_set_t &all)
{
    cpu_set_t one;
    CPU_ZERO(&one);
    size_t first = 0;
    while (!CPU_ISSET(first, &all)) {
        first++;
    }
    CPU_SET(first, &one);
    return one;
}

void RunOn(const cpu_set_t &processors)
{
    if (sched_setaffinity(0, sizeof processors, &processors) != 0) {
        perror("sched_setaffinity");
        exit(1);
    }
}

// ---- What is printed

std::string Quoted(const std::string &text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') { quoted += '\\'; }
        quoted += c;
    }
    return quoted + '"';
}

std::string Listed(const std::vector<double> &values)
{
    std::string list;
    for (const double value : values) {
        char number[40];
        snprintf(number, sizeof number, "%s%.6g", list.empty() ? "" : ", ", value);
        list += number;
    }
    return "[" + list + "]";
}

// Prints the members of a JSON list, each on a line of its own.
class Lines {
public:
    ~Lines() { printf("%s]", mIsFirst ? "" : "\n"); }
    void Next()
    {
        printf("%s", mIsFirst ? "\n" : ",\n");
        mIsFirst = false;
    }

private:
    bool mIsFirst = true;
};

void PrintGoal(const Goal &goal)
{
    printf("{\"rival\": %s, \"ratio\": %g, \"plus_us\": %g}",
           goal.rival == nullptr ? "null" : Quoted(goal.rival).c_str(), goal.ratio,
           goal.microseconds);
}

void PrintWorkload(const Registered &workload)
{
    printf("  {\"name\": %s, \"goals\": [", Quoted(workload.name).c_str());
    for (size_t i = 0; i < workload.goals.size(); i++) {
        printf("%s", i > 0 ? ", " : "");
        PrintGoal(workload.goals[i]);
    }
    printf("],\n   \"ours_ns\": %s, \"rivals\": [",
           Listed(workload.results[0].nanoseconds).c_str());
    Lines lines;
    for (size_t i = 1; i < workload.results.size(); i++) {
        const Result &rival = workload.results[i];
        lines.Next();
        printf("    {\"name\": %s, \"counts\": %s, \"ns\": %s, \"ratios\": %s}",
               Quoted(rival.name).c_str(), rival.counts ? "true" : "false",
               Listed(rival.nanoseconds).c_str(), Listed(rival.ratios).c_str());
    }
}

void PrintAll(const char *program)
{
    printf("{\"program\": %s, \"workloads\": [", Quoted(program).c_str());
    {
        Lines lines;
        for (const Registered &workload : sWorkloads) {
            lines.Next();
            PrintWorkload(workload);
            printf("}");
        }
    }
    printf(", \"means\": [");
    {
        Lines lines;
        for (const Mean &mean : sMeans) {
            lines.Next();
            printf("  {\"name\": %s, \"goal\": ", Quoted(mean.name).c_str());
            PrintGoal(mean.goal);
            printf("}");
        }
    }
    printf(", \"figures\": [");
    {
        Lines lines;
        for (const Reading &figure : sFigures) {
            lines.Next();
            printf("  {\"name\": %s, \"unit\": %s, \"limit\": %g, \"values\": %s}",
                   Quoted(figure.name).c_str(), Quoted(figure.unit).c_str(), figure.limit,
                   Listed(figure.values).c_str());
        }
    }
    printf("}\n");
}

// Returns the value of the option, or nullptr if the argument is another one.
const char *OptionValue(const char *argument, const char *option)
{
    const size_t length = strlen(option);
    return strncmp(argument, option, length) == 0 ? argument + length : nullptr;
}

template <typename T> void KeepNamed(std::vector<T> *registered, const char *part)
{
    std::erase_if(*registered, [part](const T &one) { return strstr(one.name, part) == nullptr; });
}

} // namespace

void Workload(const char *name, std::vector<Goal> goals, std::function<void(size_t)> ours,
              std::vector<Rival> rivals, bool same, Processors processors)
{
    if (!same) {
        fprintf(stderr, "not the same result: %s\n", name);
        exit(1);
    }
    sWorkloads.push_back(
        {name, std::move(goals), {}, 0, std::move(ours), std::move(rivals), processors, {}});
}

void Workload(const char *name, std::vector<Goal> goals, std::function<Contest()> make,
              size_t rounds, Processors processors)
{
    sWorkloads.push_back({name, std::move(goals), std::move(make), rounds, {}, {}, processors, {}});
}

void GeometricMean(const char *name, Goal goal) { sMeans.push_back({name, goal}); }

void Figure(const char *name, const char *unit, double limit, std::function<double()> measure)
{
    sFigures.push_back({name, unit, limit, std::move(measure), {}});
}

int RunWorkloads(int argc, char **argv)
{
    int repetitions = 9;
    for (int i = 1; i < argc; i++) {
        if (const char *number = OptionValue(argv[i], "--repetitions=")) {
            repetitions = atoi(number);
        } else if (const char *part = OptionValue(argv[i], "--filter=")) {
            KeepNamed(&sWorkloads, part);
            KeepNamed(&sFigures, part);
            sMeans.clear(); // a mean of some workloads is not the mean that was registered
        } else {
            repetitions = 0;
        }
    }
    if (repetitions < 1) {
        fprintf(stderr, "usage: %s [--repetitions=N] [--filter=TEXT]\n", argv[0]);
        return 2;
    }

    const cpu_set_t all = AllProcessors(), one = FirstOf(all);
    for (int i = 0; i < repetitions; i++) {
        fprintf(stderr, "%s: repetition %d of %d\n", program_invocation_short_name, i + 1,
                repetitions);
        for (Registered &workload : sWorkloads) {
            RunOn(workload.processors == Processors::One ? one : all);
            RunRepetition(&workload);
        }
        for (Reading &figure : sFigures) {
            figure.values.push_back(figure.measure());
        }
    }
    PrintAll(program_invocation_short_name);
    return 0;
}
