#include <mach-o/dyld.h>

#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;

std::string AskedPath()
{
    std::string path(4096, '\0');
    auto size = static_cast<uint32_t>(path.size());
    EXPECT_EQ(_NSGetExecutablePath(path.data(), &size), 0);
    path.resize(strlen(path.c_str()));
    return path;
}

TEST(ExecutablePath, LeadsToThisProgram)
{
    EXPECT_TRUE(fs::path(AskedPath()).is_absolute());
    EXPECT_TRUE(fs::equivalent(AskedPath(), "/proc/self/exe"));
}

TEST(ExecutablePath, FitsWithItsTerminatorOrTellsTheSize)
{
    const std::string own = AskedPath();
    const auto needed = static_cast<uint32_t>(own.size() + 1);
    for (uint32_t size : {0u, 1u, needed - 1, needed, needed + 1, needed + 100}) {
        std::string buffer(needed + 100, 'x');
        uint32_t given = size;
        const bool fits = size >= needed;
        EXPECT_EQ(_NSGetExecutablePath(buffer.data(), &given), fits ? 0 : -1) << size;
        if (fits) {
            EXPECT_EQ(given, size);
            EXPECT_STREQ(buffer.c_str(), own.c_str());
        } else {
            EXPECT_EQ(given, needed);
            EXPECT_EQ(buffer, std::string(needed + 100, 'x')) << "untouched";
        }
    }
}

TEST(ExecutablePath, NeedsNoBufferToTellTheSize)
{
    uint32_t size = 0;
    EXPECT_EQ(_NSGetExecutablePath(nullptr, &size), -1);
    EXPECT_EQ(size, AskedPath().size() + 1);
}

// A running tellPath, which prints its path whenever the test calls Path().
class Telling {
public:
    // start runs in the child and must end in exec.
    explicit Telling(const std::function<void()> &start)
    {
        int toParent[2], toChild[2];
        EXPECT_EQ(pipe2(toParent, O_CLOEXEC) | pipe2(toChild, O_CLOEXEC), 0);
        mPid = fork();
        if (mPid == 0) {
            dup2(toChild[0], STDIN_FILENO);
            dup2(toParent[1], STDOUT_FILENO);
            start();
            _exit(127);
        }
        close(toChild[0]);
        close(toParent[1]);
        mTo = toChild[1];
        mFrom = fdopen(toParent[0], "r");
    }
    ~Telling()
    {
        close(mTo);
        fclose(mFrom);
        waitpid(mPid, nullptr, 0);
    }
    Telling(const Telling &) = delete;
    Telling &operator=(const Telling &) = delete;

    std::string Path() const
    {
        char line[4200] = "";
        EXPECT_EQ(write(mTo, "?", 1), 1);
        if (fgets(line, sizeof line, mFrom) == nullptr) { return "(it did not answer)"; }
        line[strcspn(line, "\n")] = '\0';
        return line;
    }

private:
    pid_t mPid;
    int mTo;
    FILE *mFrom;
};

class StartedProgram : public testing::Test {
protected:
    void SetUp() override { fs::copy_file(TELL_PATH, mProgram); }

    static void Execute(const std::string &path)
    {
        execl(path.c_str(), "another name", static_cast<char *>(nullptr));
    }
    // Starts the program from its own folder.
    Telling StartRelative(const char *path) const
    {
        return Telling([&] {
            if (chdir(mFolder.Path().c_str()) == 0) { Execute(path); }
        });
    }

    TemporaryFolder mFolder;
    const std::string mProgram = mFolder.Path() + "/program";
};

TEST_F(StartedProgram, HasThePathItWasStartedWith)
{
    const std::string odd =
        mFolder.Path() + "/./../" + fs::path(mFolder.Path()).filename().string();
    for (const std::string &path : {mProgram, odd + "//program"}) {
        EXPECT_EQ(Telling([&] { Execute(path); }).Path(), path);
    }
}

TEST_F(StartedProgram, MayBeStartedByARelativePath)
{
    fs::create_directory(mFolder.Path() + "/below");
    for (const char *path : {"program", "./program", "below/../program"}) {
        EXPECT_EQ(StartRelative(path).Path(), mFolder.Path() + "/" + path);
    }
}

TEST_F(StartedProgram, MayBeStartedThroughALink)
{
    const std::string link = mFolder.Path() + "/link";
    fs::create_symlink("program", link);
    EXPECT_EQ(Telling([&] { Execute(link); }).Path(), link);
    EXPECT_EQ(StartRelative("link").Path(), link);
}

TEST_F(StartedProgram, KeepsItsPathWhenItIsReplaced)
{
    const Telling telling([&] { Execute(mProgram); });
    ASSERT_EQ(telling.Path(), mProgram) << "before";
    fs::copy_file(TELL_PATH, mProgram + ".new");
    fs::rename(mProgram + ".new", mProgram);
    EXPECT_EQ(telling.Path(), mProgram);
    EXPECT_EQ(fs::canonical(telling.Path()), mProgram) << "where the newer one lies";
}

TEST_F(StartedProgram, KeepsItsPathWhenMovedOrRemoved)
{
    const Telling telling([&] { Execute(mProgram); });
    ASSERT_EQ(telling.Path(), mProgram) << "before";
    fs::rename(mProgram, mProgram + ".moved");
    EXPECT_EQ(telling.Path(), mProgram);
    fs::remove(mProgram + ".moved");
    EXPECT_EQ(telling.Path(), mProgram);
}

TEST_F(StartedProgram, KeepsItsPathWhenItsFolderIsRenamed)
{
    const std::string folder = mFolder.Path() + "/folder";
    fs::create_directory(folder);
    fs::copy_file(TELL_PATH, folder + "/program");
    const Telling telling([&] {
        if (chdir(folder.c_str()) == 0) { Execute("./program"); }
    });
    ASSERT_EQ(telling.Path(), folder + "/./program") << "before";
    fs::rename(folder, folder + ".moved");
    EXPECT_EQ(telling.Path(), folder + "/./program");
}

// The path is the kernel's name: the descriptor may lead elsewhere by the time of the call.
TEST_F(StartedProgram, OfADescriptorHasTheKernelsName)
{
    for (const int flags : {O_CLOEXEC, 0}) {
        const int fd = open(mProgram.c_str(), O_PATH | flags);
        char name[] = "program", *arguments[] = {name, nullptr};
        EXPECT_EQ(Telling([&] { fexecve(fd, arguments, environ); }).Path(), mProgram) << flags;
        const std::string own = "/proc/self/fd/" + std::to_string(fd);
        EXPECT_EQ(Telling([&] { Execute(own); }).Path(), mProgram) << flags;
        close(fd);
    }
}

TEST_F(StartedProgram, HasTheKernelsNameWhenStartedAfterDeletion)
{
    const int fd = open(mProgram.c_str(), O_PATH | O_CLOEXEC);
    fs::remove(mProgram);
    char name[] = "program", *arguments[] = {name, nullptr};
    EXPECT_EQ(Telling([&] { fexecve(fd, arguments, environ); }).Path(), mProgram + " (deleted)");
    close(fd);
}

// The path that was started is the script's, not the program's.
TEST_F(StartedProgram, ThatRunsAScriptHasTheKernelsName)
{
    const std::string script = mFolder.Path() + "/script";
    std::ofstream(script) << "#!" << mProgram << "\n";
    fs::permissions(script, fs::perms::owner_all);
    EXPECT_EQ(Telling([&] { Execute(script); }).Path(), mProgram);
}

TEST_F(StartedProgram, HasTheKernelsNameInADeletedFolder)
{
    const std::string folder = mFolder.Path() + "/folder";
    const Telling telling([&] {
        if (mkdir(folder.c_str(), 0700) == 0 && chdir(folder.c_str()) == 0 &&
            rmdir(folder.c_str()) == 0) {
            Execute("../program");
        }
    });
    EXPECT_EQ(telling.Path(), mProgram);
}

// The path is nearly as long as a path may be.
TEST_F(StartedProgram, HasItsWholePathHoweverLong)
{
    std::string path = mFolder.Path();
    for (constexpr size_t LIMIT = 4096 - 200 - 10; path.size() < LIMIT;) {
        path += "/" + std::string(199, 'd');
    }
    fs::create_directories(path);
    path += "/program";
    fs::copy_file(TELL_PATH, path);
    EXPECT_EQ(Telling([&] { Execute(path); }).Path(), path);
}

// The path is longer than any that the kernel reports, so that only a relative path could start the
// program.
TEST_F(StartedProgram, HasNoPathThatIsTooLong)
{
    const Telling telling([&] {
        const std::string deep(250, 'd');
        if (chdir(mFolder.Path().c_str()) != 0) { return; }
        for (int i = 0; i < 17; i++) {
            if (mkdir(deep.c_str(), 0700) != 0 || chdir(deep.c_str()) != 0) { return; }
        }
        if (link(mProgram.c_str(), "program") == 0) { Execute("./program"); }
    });
    EXPECT_EQ(telling.Path(), "");
}

} // namespace
