// startedPrograms.h -- for tests that start programs: reads a started program's report, and checks
// that the program leaves no process.
#ifndef PELAGO_TESTS_MISC_STARTEDPROGRAMS_H
#define PELAGO_TESTS_MISC_STARTEDPROGRAMS_H

#include "scopedForTests.h"
#include "tellState.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

inline std::string Content(const std::string &path)
{
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

inline std::vector<int> OpenDescriptors()
{
    std::vector<int> open;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        open.push_back(std::stoi(entry.path().filename()));
    }
    // The listing includes its own descriptor, which was the lowest free number.
    std::erase_if(open, [](int fd) { return fcntl(fd, F_GETFD) == -1; });
    std::ranges::sort(open);
    return open;
}

// Returns a descriptor of this process in the form that tellState writes.
inline std::string OwnDescriptor(int fd)
{
    const int access = fcntl(fd, F_GETFL) & O_ACCMODE;
    return std::to_string(fd) +
           (access == O_RDONLY   ? " r "
            : access == O_WRONLY ? " w "
                                 : " rw ") +
           std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).string();
}

// The name that tellState uses for the limit RLIMIT_AS on this host.
inline const std::string LIMIT_OF_RLIMIT_AS =
    static_cast<int>(RLIMIT_AS) == static_cast<int>(RLIMIT_RSS) ? "residentSet" : "addressSpace";

// Collects what this process and its children write to standard error meanwhile.  GoogleTest's
// capture cannot be used a second time in a child.
class Listening {
public:
    Listening() : mSaved(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, ABOVE_ALL))
    {
        const int file = memfd_create("said", 0);
        mFile = fcntl(file, F_DUPFD_CLOEXEC, ABOVE_ALL);
        EXPECT_EQ(dup2(mFile, STDERR_FILENO), STDERR_FILENO);
        if (file != STDERR_FILENO) { close(file); }
    }
    Listening(const Listening &) = delete;
    Listening &operator=(const Listening &) = delete;
    ~Listening()
    {
        if (mFile != -1) { Heard(); }
    }
    std::string Heard()
    {
        std::string text;
        char piece[512];
        for (ssize_t size;
             (size = pread(mFile, piece, sizeof piece, static_cast<off_t>(text.size()))) > 0;) {
            text.append(piece, static_cast<size_t>(size));
        }
        if (mSaved == -1) {
            close(STDERR_FILENO);
        } else {
            dup2(mSaved, STDERR_FILENO);
            close(mSaved);
        }
        close(mFile);
        mFile = -1;
        return text;
    }

private:
    static constexpr int ABOVE_ALL = 300; // tests may rely on the lowest free numbers
    int mSaved, mFile = -1;
};

// The result of a function that also sets errno.
struct Result {
    long value;
    int error;
    std::string said; // on standard error, by all processes
};
inline bool operator==(const Result &a, const Result &b)
{
    return a.value == b.value && a.error == b.error && a.said == b.said;
}
inline std::ostream &operator<<(std::ostream &out, const Result &result)
{
    return out << result.value << ", error " << result.error << ", \"" << result.said << '"';
}

// A process without a parent becomes a child of the test.  So the test knows when a daemon has
// ended, and checks that it has left no process.
class StartedPrograms : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        ASSERT_EQ(setenv("TELL_STATE", ReportPath().c_str(), 1), 0);
        unsetenv("TELL_STAY");
        mDescriptors = OpenDescriptors();
    }
    void TearDown() override
    {
        EXPECT_EQ(OpenDescriptors(), mDescriptors) << "the caller has others open than before";
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process is left";
        EXPECT_EQ(errno, ECHILD);
    }

    std::string ReportPath() const { return mFolder.Path() + "/report"; }
    std::string PidPath() const { return mFolder.Path() + "/pid file"; }

    // Waits for the only child, and returns its status.
    static int Ended(pid_t child = -1)
    {
        int status = -1;
        EXPECT_GT(waitpid(child, &status, 0), 0);
        return status;
    }
    // Returns the report of a program that still runs.
    State Told() const
    {
        for (int i = 0; i < 3000 && !std::filesystem::exists(ReportPath()); i++) {
            usleep(10000);
        }
        return State(Content(ReportPath()));
    }
    // Waits for the only child, which writes its report and ends; returns the report.
    State ToldAndEnded() const
    {
        EXPECT_EQ(Ended(), 0);
        return State(Content(ReportPath()));
    }

    // Returns the body's result from a process of its own, which the body may change as it likes;
    // the value is 99 when the process ends by itself.
    static Result InProcess(const std::function<long()> &body)
    {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        const int high = fcntl(ends[1], F_DUPFD_CLOEXEC, 10); // it may close the first three
        Listening listening;
        const pid_t child = fork();
        if (child == 0) {
            close(ends[0]);
            close(ends[1]);
            long outcome[2] = {body(), errno};
            const bool isSent = write(high, outcome, sizeof outcome) == sizeof outcome;
            _exit(isSent ? 0 : 2);
        }
        close(ends[1]);
        close(high);
        long outcome[2] = {99, 0};
        const ssize_t size = read(ends[0], outcome, sizeof outcome);
        EXPECT_TRUE(size == 0 || size == sizeof outcome);
        close(ends[0]);
        EXPECT_EQ(Ended(child), 0);
        return {outcome[0], static_cast<int>(outcome[1]), listening.Heard()};
    }

    // Gives this process a state unlike any other's, and has it execute tellState: the report then
    // lists what any program inherits.
    bool ChangeAndTell() const
    {
        umask(0137);
        setenv("PELAGO_ODD", "a=b \n\xC3\xA9", 1);
        unsetenv("LANG");
        rlimit files = {600, 700}, core = {4096, 8192};
        if (setrlimit(RLIMIT_NOFILE, &files) != 0 || setrlimit(RLIMIT_CORE, &core) != 0 ||
            setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0) + 2) != 0 ||
            setpgid(0, 0) != 0) {
            return false;
        }
        const pid_t child = fork();
        if (child == 0) {
            execl(TELL_STATE, TELL_STATE, nullptr);
            _exit(1);
        }
        return Ended(child) == 0 &&
               rename(ReportPath().c_str(), (ReportPath() + ".inherited").c_str()) == 0;
    }
    // Checks that the program inherited the state of the changed process.
    void ExpectInherited(const State &state, const std::vector<std::string> &more = {}) const
    {
        const State inherited(Content(ReportPath() + ".inherited"));
        std::vector<std::string> names{"variable", "mask", "priority", "limit"};
        names.insert(names.end(), more.begin(), more.end());
        for (const std::string &name : names) {
            EXPECT_FALSE(inherited.All(name).empty()) << name;
            EXPECT_EQ(state.All(name), inherited.All(name)) << name;
        }
    }

    TemporaryFolder mFolder;

private:
    std::vector<int> mDescriptors;
};

#endif // PELAGO_TESTS_MISC_STARTEDPROGRAMS_H
