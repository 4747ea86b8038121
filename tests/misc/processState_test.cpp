// How a child changes its own state before it executes a program.
#include "hostinfoDaemonizeInt.h"

#include "startedPrograms.h"

#include <climits>
#include <cstdio>
#include <numeric>
#include <random>
#include <set>
#include <sys/resource.h>
#include <sys/time.h>

using namespace pelago;

static long sOpenMaximum;            // the result of sysconf(); 0: the real one
static std::vector<int> sActionsSet; // the signals, in order

extern "C" {
long __real_sysconf(int name);
long __wrap_sysconf(int name)
{
    return name == _SC_OPEN_MAX && sOpenMaximum != 0 ? sOpenMaximum : __real_sysconf(name);
}
int __real_sigaction(int number, const struct sigaction *action, struct sigaction *before);
int __wrap_sigaction(int number, const struct sigaction *action, struct sigaction *before)
{
    if (action != nullptr) { sActionsSet.push_back(number); }
    return __real_sigaction(number, action, before);
}
}

namespace {

class ProcessState : public StartedPrograms {
protected:
    // Runs the body in a process that it may change.  The body returns a text that says what is
    // wrong there.
    static void ExpectInProcess(const std::function<std::string()> &body)
    {
        Listening listening;
        const pid_t child = fork();
        if (child == 0) {
            const std::string wrong = body();
            fputs(wrong.c_str(), stderr);
            _exit(0);
        }
        EXPECT_EQ(Ended(child), 0);
        EXPECT_EQ(listening.Heard(), "");
    }
};

TEST_F(ProcessState, HasTheWholeAddressSpaceForAnyUser)
{
    constexpr uid_t NOBODY = 65534;
    for (const bool isNobody : {false, true}) {
        ExpectInProcess([&]() -> std::string {
            const rlimit limit = {rlim_t{1} << 50, rlim_t{1} << 51};
            if (setrlimit(RLIMIT_AS, &limit) != 0) { return "no limit"; }
            if (isNobody && geteuid() == 0 && setuid(NOBODY) != 0) { return "still root"; }
            HostinfoResetProcessState(nullptr, 0);
            rlimit after = {};
            getrlimit(RLIMIT_AS, &after);
            const bool isRaised = after.rlim_cur == limit.rlim_max;
            return isRaised && after.rlim_max == limit.rlim_max ? "" : "another limit";
        });
    }
}

TEST_F(ProcessState, HasNoTimers)
{
    ExpectInProcess([] {
        itimerval timer = {};
        timer.it_value.tv_sec = timer.it_interval.tv_sec = 1000;
        for (const int which : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
            setitimer(which, &timer, nullptr);
        }
        HostinfoResetProcessState(nullptr, 0);
        std::string wrong;
        for (const int which : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
            getitimer(which, &timer);
            if (timerisset(&timer.it_value) || timerisset(&timer.it_interval)) {
                wrong += "timer " + std::to_string(which);
            }
        }
        return wrong;
    });
}

TEST_F(ProcessState, HasDefaultActionsForTheFirst32Signals)
{
    ExpectInProcess([] {
        const auto handler = [](int) {};
        for (int number = 1; number < NSIG; number++) {
            signal(number, number % 2 == 0 ? SIG_IGN : handler);
        }
        HostinfoResetProcessState(nullptr, 0);
        sigset_t others;
        sigfillset(&others);
        sigdelset(&others, SIGKILL);
        sigdelset(&others, SIGSTOP);
        std::string wrong;
        for (int number = 1; number < NSIG; number++) {
            struct sigaction action;
            if (number == SIGKILL || number == SIGSTOP ||
                sigaction(number, nullptr, &action) != 0) {
                continue;
            }
            bool isReset = action.sa_handler == SIG_DFL && (action.sa_flags & SA_RESTART) != 0;
            for (int other = 1; other < NSIG; other++) {
                isReset =
                    isReset && sigismember(&action.sa_mask, other) == sigismember(&others, other);
            }
            if (isReset != (number <= 32)) { wrong += "signal " + std::to_string(number) + "\n"; }
        }
        return wrong;
    });
}

// The C library refuses to set the actions of some of these signals, so the test checks the calls
// instead of the actions.
TEST_F(ProcessState, SetsActionsOfTheFirst32SignalsOnly)
{
    ExpectInProcess([] {
        sActionsSet.clear();
        HostinfoResetProcessState(nullptr, 0);
        std::vector<int> expected(32);
        std::iota(expected.begin(), expected.end(), 1);
        return sActionsSet == expected ? "" : testing::PrintToString(sActionsSet);
    });
}

TEST_F(ProcessState, RaisesTheAddressSpaceLimitToItsMaximum)
{
    ExpectInProcess([] {
        rlimit limit = {rlim_t{1} << 50, rlim_t{1} << 51};
        if (setrlimit(RLIMIT_AS, &limit) != 0) { return "no limit"; }
        HostinfoResetProcessState(nullptr, 0);
        getrlimit(RLIMIT_AS, &limit);
        return limit.rlim_cur == rlim_t{1} << 51 && limit.rlim_max == rlim_t{1} << 51 ? ""
                                                                                      : "limit";
    });
}

// ---- Descriptors

std::string Listed(const std::set<int> &fds)
{
    std::string text;
    for (const int fd : fds) {
        text += " " + std::to_string(fd);
    }
    return text;
}

// Runs the closing with these descriptors open in addition to 0 to 2.  Returns the difference from
// the plain rule, or an empty string.
std::string WrongAfterClosing(const std::set<int> &open, const std::vector<int> &kept, long maximum)
{
    const int file = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (const int fd : OpenDescriptors()) {
        if (fd > 2 && fd != file && open.count(fd) == 0) { close(fd); }
    }
    for (const int fd : open) {
        dup2(file, fd);
    }
    if (open.count(file) == 0) { close(file); }
    std::set<int> expected{0, 1, 2};
    for (const int fd : open) {
        if ((maximum > 0 && fd >= maximum) || std::ranges::count(kept, fd) > 0) {
            expected.insert(fd);
        }
    }
    sOpenMaximum = maximum;
    HostinfoResetProcessState(kept.data(), kept.size());
    const std::vector<int> left = OpenDescriptors();
    const std::set<int> found(left.begin(), left.end());
    if (found == expected) { return ""; }
    return "found" + Listed(found) + ", expected" + Listed(expected) + ", kept" +
           Listed({kept.begin(), kept.end()}) + ", maximum " + std::to_string(maximum) + "\n";
}

struct Closing {
    const char *name;
    std::set<int> open;
    std::vector<int> kept;
    long maximum;
};
class ProcessStateCloses : public ProcessState, public testing::WithParamInterface<Closing> {};
TEST_P(ProcessStateCloses, WhatIsNotListedBelowTheMaximum)
{
    const Closing &row = GetParam();
    ExpectInProcess([&] { return WrongAfterClosing(row.open, row.kept, row.maximum); });
}
const std::set<int> SOME{3, 4, 5, 6, 7, 8, 40, 41, 600};
INSTANTIATE_TEST_SUITE_P(
    Each, ProcessStateCloses,
    testing::Values(Closing{"All", SOME, {}, 1024}, Closing{"TheFirstKept", SOME, {3}, 1024},
                    Closing{"TheLastKept", SOME, {600}, 601},
                    Closing{"TheLastAndTheOneBeforeIt", SOME, {41, 40}, 42},
                    Closing{"AllKept", SOME, {3, 4, 5, 6, 7, 8, 40, 41, 600}, 1024},
                    Closing{"Unsorted", SOME, {600, 3, 41, 8, 5}, 1024},
                    Closing{"Twice", SOME, {5, 40, 5, 40, 5}, 1024},
                    Closing{"Neighbours", SOME, {4, 5, 6}, 1024},
                    Closing{"NotOpen", SOME, {9, 10, 100, 599, 601}, 1024},
                    Closing{"Standard", SOME, {0, 1, 2}, 1024},
                    Closing{"Negative", SOME, {-1, INT_MIN, 7, -3}, 1024},
                    Closing{"BeyondTheMaximum", SOME, {INT_MAX, 41, 5000}, 40},
                    Closing{"AtTheMaximum", SOME, {41}, 41},
                    Closing{"NothingBelowTheMaximum", SOME, {}, 3},
                    Closing{"ALowMaximum", SOME, {4}, 1}, Closing{"NoMaximum", SOME, {41}, -1},
                    Closing{"NoMaximumAndTheLargestNumber", SOME, {INT_MAX, 41}, -1},
                    Closing{"AMaximumBeyondAnyNumber", SOME, {41}, LONG_MAX},
                    Closing{"TheLargestMaximum", SOME, {INT_MAX, INT_MAX - 1, 41}, INT_MAX},
                    Closing{"AMillion", SOME, {41, 8, 1000}, 1048576}),
    [](const auto &row) { return row.param.name; });

TEST_F(ProcessState, ClosesRandomDescriptorsByThePlainRule)
{
    std::minstd_rand random(2);
    for (int i = 0; i < 300; i++) {
        std::set<int> open;
        std::vector<int> kept;
        for (int fd = 3; fd < 30; fd++) {
            if (random() % 2 == 0) { open.insert(fd); }
            if (random() % 4 == 0) { kept.push_back(static_cast<int>(random() % 32) - 1); }
        }
        const long maximum = static_cast<long>(random() % 40) - 1;
        ExpectInProcess([&] { return WrongAfterClosing(open, kept, maximum == 0 ? -1 : maximum); });
    }
}

} // namespace
