// Tests that many descriptors are closed, in each way that a kernel may allow.
#include <closeDescriptors.h>

#include "closingWays.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace pelago::platform;

namespace {

constexpr int ABOVE = 2000; // another open descriptor, above MANY

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

class CloseDescriptors : public testing::TestWithParam<WayCase> {
protected:
    // Runs the body in a child in which the descriptors 3 to MANY and ABOVE are open.  Returns what
    // the body finds wrong; "" for nothing.
    static std::string WrongIn(const std::function<std::string()> &body)
    {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        if (child == 0) {
            rlimit limit;
            getrlimit(RLIMIT_NOFILE, &limit);
            limit.rlim_cur = limit.rlim_max;
            setrlimit(RLIMIT_NOFILE, &limit); // the soft limit is often 1024
            const int report = ABOVE + 1, file = open("/dev/null", O_RDWR);
            dup2(ends[1], report);
            for (int fd = 3; fd <= MANY; fd++) {
                if (fd != file) { dup2(file, fd); }
            }
            dup2(file, ABOVE);
            sTrouble = GetParam().trouble;
            sCloses = 0;
            const std::string wrong = body();
            const bool isTold =
                write(report, wrong.data(), wrong.size()) == static_cast<ssize_t>(wrong.size());
            _exit(isTold ? 0 : 1);
        }
        close(ends[1]);
        std::string wrong;
        char piece[256];
        for (ssize_t size; (size = read(ends[0], piece, sizeof piece)) > 0;) {
            wrong.append(piece, static_cast<size_t>(size));
        }
        close(ends[0]);
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        return wrong;
    }
    static std::string WrongAfter(int first, int last)
    {
        Host_CloseDescriptors(first, last);
        std::string wrong;
        for (int fd = 3; fd <= ABOVE; fd++) {
            const bool wasOpen = fd <= MANY || fd == ABOVE;
            if (IsOpen(fd) != (wasOpen && (fd < first || fd > last))) {
                wrong += std::to_string(fd) + " ";
            }
        }
        return wrong;
    }
};

TEST_P(CloseDescriptors, ClosesThoseInTheRangeAndNoOthers)
{
    EXPECT_EQ(WrongIn([] { return WrongAfter(3, MANY); }), "");
    EXPECT_EQ(WrongIn([] { return WrongAfter(3, 3); }), "");
    EXPECT_EQ(WrongIn([] { return WrongAfter(MANY, MANY); }), "");
    EXPECT_EQ(WrongIn([] { return WrongAfter(100, 700); }), "");
    EXPECT_EQ(WrongIn([] { return WrongAfter(700, 1500); }), "");
    EXPECT_EQ(WrongIn([] { return WrongAfter(MANY + 1, ABOVE - 1); }), "");
}

TEST_P(CloseDescriptors, AnEmptyRangeIsNone)
{
    EXPECT_EQ(WrongIn([] { return WrongAfter(50, 49); }), "");
    EXPECT_EQ(WrongIn([] { return WrongAfter(50, 3); }), "");
}

TEST_P(CloseDescriptors, WorksAtTheDescriptorLimit)
{
    const std::string wrong = WrongIn([] {
        rlimit limit;
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = MANY + 1;
        setrlimit(RLIMIT_NOFILE, &limit);
        const std::string wrong = WrongAfter(10, ABOVE - 1);
        return sCloses > GetParam().mostCloses ? std::to_string(sCloses) + " calls" : wrong;
    });
    EXPECT_EQ(wrong, "");
}

using CloseDescriptorsThatAreOpen = CloseDescriptors;

TEST_P(CloseDescriptorsThatAreOpen, NeedsCallsForOpenDescriptorsOnly)
{
    const std::string wrong = WrongIn([] {
        Host_CloseDescriptors(3, ABOVE - 1);
        Host_CloseDescriptors(ABOVE + 2, INT_MAX);
        return sCloses > GetParam().mostCloses ? std::to_string(sCloses) + " calls" : "";
    });
    EXPECT_EQ(wrong, "");
}

const auto WAY_NAME = [](const auto &row) { return row.param.name; };
INSTANTIATE_TEST_SUITE_P(By, CloseDescriptors, testing::ValuesIn(KNOWING), WAY_NAME);
INSTANTIATE_TEST_SUITE_P(ByEach, CloseDescriptors, testing::ValuesIn(LAST_RESORT), WAY_NAME);
INSTANTIATE_TEST_SUITE_P(By, CloseDescriptorsThatAreOpen, testing::ValuesIn(KNOWING), WAY_NAME);

} // namespace
