// session_bench.cpp -- what the tool costs beside what its work must cost.
//
// Runs as root on a machine of its own with a real disk at /Library (bench.sh sees to that).  Takes
// the programs to compare from its environment.  Every figure is wall time from just before a
// program is started to just after it is reaped.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <functional>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path PREFS_FOLDER = "/Library/Preferences/SystemConfiguration";
const fs::path PREFS = PREFS_FOLDER / "com.apple.smb.server.plist";
const fs::path SHARES = "/opt/bench/Pelago.app/Contents/Library/shares";
constexpr const char *SCRIPTS[] = {"adduser.sh", "addshare.sh", "rmshare.sh", "rmuser.sh"};
constexpr char PREFS_TEXT[] = "<plist version=\"1.0\"><dict><key>EnabledServices</key>"
                              "<array><string>print</string></array></dict></plist>\n";

[[noreturn]] void Fail(const std::string &what)
{
    perror(what.c_str());
    exit(1);
}

// Waits for the child, which must end with that status, and returns its peak of resident memory in
// KiB.
long Reap(pid_t child, const char *name, int wantedStatus)
{
    int status = -1;
    rusage usage = {};
    if (wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) != wantedStatus) {
        Fail(std::string("not the wanted status: ") + name);
    }
    return usage.ru_maxrss;
}

// As a lean caller starts a program, without a copy of itself that would count as the program's
// cost.
long Run(const char *const argv[], int wantedStatus)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
    }
    pid_t child = -1;
    if (posix_spawn(&child, argv[0], &actions, nullptr, const_cast<char *const *>(argv), environ) !=
        0) {
        Fail(argv[0]);
    }
    posix_spawn_file_actions_destroy(&actions);
    return Reap(child, argv[0], wantedStatus);
}

// As the tool starts a script: fork, exec, wait.
void RunForked(const char *const argv[])
{
    const pid_t child = fork();
    if (child == 0) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        execv(argv[0], const_cast<char *const *>(argv));
        _exit(127);
    }
    Reap(child, argv[0], 0);
}

// The least that a durable replacement of the file can be.
void CommitBare(const std::string &content)
{
    const std::string fresh = PREFS.string() + "-bare";
    const int file = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
        fsync(file) != 0 || close(file) != 0 || rename(fresh.c_str(), PREFS.c_str()) != 0) {
        Fail("bare commit");
    }
    const int folder = open(PREFS_FOLDER.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fsync(folder) != 0 || close(folder) != 0) { Fail("bare commit of the folder"); }
}

void WritePrefs() { std::ofstream(PREFS) << PREFS_TEXT; }

const char *Program(const char *variable)
{
    const char *path = getenv(variable);
    if (path == nullptr) { Fail(std::string("no ") + variable); }
    return path;
}

// Puts a program where the tool belongs.  Each time in fresh memory: how fast a program starts also
// depends on where its pages happen to lie, and repetitions are to even that out.
fs::path Install(const char *variable)
{
    const fs::path place = SHARES / fs::path(variable);
    fs::remove(place);
    fs::copy_file(Program(variable), place);
    return place;
}

double Microseconds(const std::function<void()> &work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
        .count();
}

double Median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

struct Rival {
    const char *name;
    std::function<void()> work;
};

// Runs ours and its rivals in turn, so that a machine that changes its speed changes it for all,
// and tells the median of each, and of the ratios of ours to each rival beside it.  prepare is not
// timed.
void InTurn(benchmark::State &state, const std::function<void()> &prepare,
            const std::function<void()> &ours, const std::vector<Rival> &rivals)
{
    std::vector<double> mine;
    std::vector<std::vector<double>> theirs(rivals.size()), ratios(rivals.size());
    for (auto _ : state) {
        prepare();
        mine.push_back(Microseconds(ours));
        state.SetIterationTime(mine.back() / 1e6);
        for (size_t i = 0; i < rivals.size(); i++) {
            theirs[i].push_back(Microseconds(rivals[i].work));
            ratios[i].push_back(mine.back() / theirs[i].back());
        }
    }
    state.counters["ours"] = Median(mine);
    for (size_t i = 0; i < rivals.size(); i++) {
        state.counters[rivals[i].name] = Median(theirs[i]);
        state.counters[std::string("ratio to ") + rivals[i].name] = Median(ratios[i]);
    }
}

void ScriptsAndCommits()
{
    static const std::string content(300, '#'); // as long as the preferences that the tool writes
    CommitBare(content);
    for (const char *script : SCRIPTS) {
        const std::string path = SHARES / script;
        const char *const argv[] = {path.c_str(), "alice", nullptr};
        RunForked(argv);
    }
    CommitBare(content);
}

void BM_WholeSession(benchmark::State &state)
{
    const fs::path tool = Install("PELAGO_TOOL"), nothing = Install("PELAGO_NOTHING");
    const char *const argv[] = {tool.c_str(), "/srv", "Docs", "alice", "/dev/null", "rw", nullptr};
    const char *const bare[] = {nothing.c_str(), nullptr};
    long peak = 0;
    const auto session = [&] { peak = std::max(peak, Run(argv, 0)); };
    InTurn(state, WritePrefs, session,
           {{"the four scripts and two durable writes, bare", ScriptsAndCommits},
            {"the same, and a program that does nothing", [&] {
                 ScriptsAndCommits();
                 Run(bare, 2);
             }}});
    state.counters["peak KiB"] = static_cast<double>(peak);
}

void BM_UsageError(benchmark::State &state)
{
    const fs::path tool = Install("PELAGO_TOOL"), nothing = Install("PELAGO_NOTHING");
    const auto run = [](const fs::path &program) {
        const char *const argv[] = {program.c_str(), nullptr};
        Run(argv, 2);
    };
    InTurn(
        state, [] {}, [&] { run(tool); },
        {{"a program that does nothing, same libraries", [&] { run(nothing); }}});
}

// Up to where the preferences are found to be missing.
void BM_Start(benchmark::State &state)
{
    const fs::path tool = Install("PELAGO_TOOL"), sharedIcu = Install("PELAGO_SHARED_ICU"),
                   sharedRuntime = Install("PELAGO_SHARED_RUNTIME");
    fs::remove(PREFS);
    const auto run = [](const fs::path &program) {
        const char *const argv[] = {program.c_str(), "/srv", "Docs", "alice",
                                    "/dev/null",     "rw",   nullptr};
        Run(argv, 1);
    };
    InTurn(
        state, [] {}, [&] { run(tool); },
        {{"ICU shared", [&] { run(sharedIcu); }},
         {"C++ runtime shared", [&] { run(sharedRuntime); }}});
}

} // namespace

BENCHMARK(BM_WholeSession)->UseManualTime()->Iterations(40)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_UsageError)->UseManualTime()->Iterations(200)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Start)->UseManualTime()->Iterations(200)->Unit(benchmark::kMicrosecond);

int main(int argc, char **argv)
{
    fs::create_directories(PREFS_FOLDER);
    fs::create_directories(SHARES);
    fs::create_directories(SHARES.parent_path() / "icu");
    std::ofstream(SHARES.parent_path() / "icu/icudt44l.dat");
    for (const char *script : SCRIPTS) {
        std::ofstream(SHARES / script) << "#!/bin/sh\nexit 0\n";
        chmod((SHARES / script).c_str(), 0755);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
