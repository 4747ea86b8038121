// A program that makes a daemon of itself, and which process holds the daemon's lock after the
// daemon has ended.
#include "startedPrograms.h"

#include <sys/file.h>
#include <sys/stat.h>

namespace {

// How the daemon starts its child, and whether the child then holds the lock.
struct ChildCase {
    const char *way;
    bool hasLock;
};
void PrintTo(const ChildCase &row, std::ostream *out) { *out << row.way; }
class DaemonizeSelf : public StartedPrograms, public testing::WithParamInterface<ChildCase> {
protected:
    std::string ChildPath() const { return mFolder.Path() + "/child"; }
    pid_t Child() const
    {
        for (int i = 0; i < 3000 && !Content(ChildPath()).ends_with('\n'); i++) {
            usleep(10000);
        }
        return std::stoi(Content(ChildPath()));
    }
    bool IsLocked() const
    {
        const int file = open(PidPath().c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_GE(file, 0);
        const bool isLocked = flock(file, LOCK_EX | LOCK_NB) != 0;
        close(file);
        return isLocked;
    }
};

TEST_P(DaemonizeSelf, LeavesItsLockToAChildOrNot)
{
    setenv("PID_FILE", PidPath().c_str(), 1);
    setenv("CHILD_FILE", ChildPath().c_str(), 1);
    ASSERT_EQ(system((DAEMONIZE_SELF " " + std::string(GetParam().way)).c_str()), 0);
    const std::string number = Content(PidPath());
    EXPECT_EQ(Ended(std::stoi(number)), 0);
    const pid_t child = Child();
    ASSERT_EQ(kill(child, 0), 0) << "it lives";
    EXPECT_EQ(IsLocked(), GetParam().hasLock);
    kill(child, SIGKILL);
    EXPECT_EQ(Ended(child), SIGKILL);
    EXPECT_FALSE(IsLocked());
    EXPECT_EQ(Content(PidPath()), number) << "nobody removes the file";
}
INSTANTIATE_TEST_SUITE_P(Way, DaemonizeSelf,
                         testing::Values(ChildCase{"plain", true}, ChildCase{"marked", false},
                                         ChildCase{"byExecute", false}),
                         [](const auto &row) { return row.param.way; });

} // namespace
