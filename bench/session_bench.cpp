// session_bench.cpp -- compares the tool's cost with the least cost of its work.
//
// Runs as root in a sandbox with a real disk at /Library (bench.sh sees to that).  Takes
// the programs to compare from its environment.  Every figure is wall time from just before a
// program is started to just after it is reaped.
#include "programs.h"
#include "workloads.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

const fs::path PREFS_FOLDER = "/Library/Preferences/SystemConfiguration";
const fs::path PREFS = PREFS_FOLDER / "com.apple.smb.server.plist";
const fs::path SHARES = "/opt/bench/Pelago.app/Contents/Library/shares";
constexpr const char *SCRIPTS[] = {"adduser.sh", "addshare.sh", "rmshare.sh", "rmuser.sh"};
constexpr char PREFS_TEXT[] = "<plist version=\"1.0\"><dict><key>EnabledServices</key>"
                              "<array><string>print</string></array></dict></plist>\n";

long Run(const char *const argv[], int wantedStatus)
{
    return Reap(Start(argv, {}), argv[0], wantedStatus);
}

// Runs a program as the tool runs a script: fork, exec, wait.
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

// Replaces the file durably with the least work.
void CommitBare(const std::string &content)
{
    const std::string fresh = PREFS.string() + "-bare";
    const int file = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
        fsync(file) != 0 || close(file) != 0 || rename(fresh.c_str(), PREFS.c_str()) != 0) {
        FailCall("bare commit");
    }
    const int folder = open(PREFS_FOLDER.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fsync(folder) != 0 || close(folder) != 0) { FailCall("bare commit of the folder"); }
}

void WritePrefs() { std::ofstream(PREFS) << PREFS_TEXT; }

// Puts a program where the tool belongs, each time in fresh memory.  How fast a program starts also
// depends on where its pages happen to lie; repetitions are meant to even that out.
fs::path Install(const char *variable)
{
    const fs::path place = SHARES / fs::path(variable);
    fs::remove(place);
    fs::copy_file(FromEnvironment(variable), place);
    return place;
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

// Runs a session whose scripts do nothing.  Returns the peak of its memory in KiB.
long RunSession(const fs::path &tool)
{
    const char *const argv[] = {tool.c_str(), "/srv", "Docs", "alice", "/dev/null", "rw", nullptr};
    return Run(argv, 0);
}

constexpr char BARE[] = "the four scripts and two durable writes, bare";
constexpr char BARE_AND_NOTHING[] = "the same, and a dynamic program that does nothing";
// This rival shows how much the tool's own code and size add to the work of a session.
constexpr char LEAST[] = "the least program that does the same";

Contest WholeSession()
{
    const fs::path tool = Install("PELAGO_TOOL"), nothing = Install("PELAGO_NOTHING"),
                   least = Install("PELAGO_LEAST_SESSION");
    return {WritePrefs,
            [=] { RunSession(tool); },
            {{BARE, [](size_t) { ScriptsAndCommits(); }},
             {BARE_AND_NOTHING,
              [=](size_t) {
                  ScriptsAndCommits();
                  const char *const argv[] = {nothing.c_str(), nullptr};
                  Run(argv, 2);
              }},
             {LEAST,
              [=](size_t) {
                  const char *const argv[] = {least.c_str(), SHARES.c_str(), PREFS.c_str(),
                                              PREFS_FOLDER.c_str(), nullptr};
                  Run(argv, 0);
              },
              false, WritePrefs}}};
}

Contest UsageError()
{
    const fs::path tool = Install("PELAGO_TOOL"), nothing = Install("PELAGO_NOTHING");
    const auto run = [](const fs::path &program) {
        const char *const argv[] = {program.c_str(), nullptr};
        Run(argv, 2);
    };
    return {{},
            [=] { run(tool); },
            {{"a dynamic program that does nothing", [=](size_t) { run(nothing); }}}};
}

// Starts the tool, which ends when it finds the preferences missing.
Contest StartUp()
{
    const fs::path tool = Install("PELAGO_TOOL"), sharedIcu = Install("PELAGO_SHARED_ICU"),
                   sharedRuntime = Install("PELAGO_SHARED_RUNTIME"),
                   sharedC = Install("PELAGO_SHARED_C");
    fs::remove(PREFS);
    const auto run = [](const fs::path &program) {
        const char *const argv[] = {program.c_str(), "/srv", "Docs", "alice",
                                    "/dev/null",     "rw",   nullptr};
        Run(argv, 1);
    };
    return {{},
            [=] { run(tool); },
            {{"ICU shared", [=](size_t) { run(sharedIcu); }},
             {"C++ runtime shared", [=](size_t) { run(sharedRuntime); }},
             {"C library shared", [=](size_t) { run(sharedC); }}}};
}

double PeakOfASession()
{
    WritePrefs();
    return static_cast<double>(RunSession(Install("PELAGO_TOOL"))) / 1024;
}

} // namespace

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
    Workload("a whole session, no-op scripts", {{BARE, 1.15}, {BARE_AND_NOTHING, 1}}, WholeSession,
             40);
    Workload("the usage error", {{nullptr, 1.05}}, UsageError, 200);
    Workload("start and initialisation", {{nullptr, 1, 200}}, StartUp, 200);
    Figure("resident memory of a session", "MiB", 4, PeakOfASession);
    return RunWorkloads(argc, argv);
}
