// The PID file of a daemon, and programs that cannot be executed.
#include "daemonizeForTests.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>

namespace {

// ---- The PID file

TEST_F(Daemonize, WritesThePidFile)
{
    const mode_t mask = umask(022);
    std::ofstream(PidPath()) << "what was there before, and is longer\n";
    ASSERT_EQ(chmod(PidPath().c_str(), 0600), 0);
    ASSERT_TRUE(Start(0, PidPath()));
    EXPECT_EQ(Content(PidPath()), ToldAndEnded().The("pid") + "\n");
    EXPECT_EQ(static_cast<int>(std::filesystem::status(PidPath()).permissions()), 0600);
    umask(mask);
}

TEST_F(Daemonize, MakesThePidFileWithItsMode)
{
    for (const auto &[mask, mode] : {std::pair{0u, 0644}, {022u, 0644}, {027u, 0640}}) {
        std::filesystem::remove(PidPath());
        const mode_t before = umask(mask);
        ASSERT_TRUE(Start(0, PidPath()));
        umask(before);
        EXPECT_EQ(static_cast<int>(std::filesystem::status(PidPath()).permissions()), mode);
        ToldAndEnded();
    }
}

TEST_F(Daemonize, WritesWhereThePathLeads)
{
    const std::string target = mFolder.Path() + "/target", folder = mFolder.Path() + "/folder";
    std::filesystem::create_directory_symlink(mFolder.Path(), folder);
    std::filesystem::create_symlink("target", PidPath());
    for (const std::string &path : {PidPath(), folder + "/target"}) {
        std::filesystem::remove(target);
        ASSERT_TRUE(Start(DAEMONIZE_LOCK_PIDFILE, path));
        EXPECT_EQ(Content(target), ToldAndEnded().The("pid") + "\n");
    }
    EXPECT_TRUE(std::filesystem::is_symlink(PidPath()));
}

TEST_F(Daemonize, HasWrittenThePidFileWhenItReturns)
{
    for (int i = 0; i < 20; i++) {
        std::filesystem::remove(PidPath());
        ASSERT_TRUE(Start(0, PidPath()));
        EXPECT_THAT(Content(PidPath()), testing::MatchesRegex("[0-9]+\n"));
        Ended();
    }
}

TEST_F(Daemonize, LetsALockedPidFileBe)
{
    setenv("TELL_STAY", "1", 1);
    ASSERT_TRUE(Start(DAEMONIZE_LOCK_PIDFILE, PidPath()));
    const std::string content = Content(PidPath());
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(Tried(DAEMONIZE_LOCK_PIDFILE, PidPath(), TELL_STATE),
                  (Result{false, EWOULDBLOCK,
                          "Warning: Hostinfo_Daemonize: Lock held on PID path [" + PidPath() +
                              "], error " + std::to_string(EAGAIN) + ", not daemonizing.\n"}));
        EXPECT_EQ(Content(PidPath()), content) << "it is the running daemon's";
    }
    EXPECT_EQ(content, Told().The("pid") + "\n");

    ASSERT_EQ(kill(std::stoi(content), SIGKILL), 0);
    EXPECT_EQ(Ended(), SIGKILL);
    unsetenv("TELL_STAY");
    ASSERT_TRUE(Start(DAEMONIZE_LOCK_PIDFILE, PidPath())) << "the lock has gone with it";
    EXPECT_EQ(Content(PidPath()), ToldAndEnded().The("pid") + "\n");
}

TEST_F(Daemonize, HoldsTheLockOnTheLowestFreeDescriptor)
{
    for (const bool hasMoreOpen : {false, true}) {
        std::filesystem::remove(ReportPath());
        const Result result = InProcess([&] {
            if (hasMoreOpen) { (void)!open("/dev/null", O_RDONLY); }
            const int lowest = fcntl(STDERR_FILENO, F_DUPFD, 3);
            close(lowest);
            return Start(DAEMONIZE_LOCK_PIDFILE, PidPath()) ? lowest : -1;
        });
        EXPECT_GE(result.value, 3);
        EXPECT_EQ(ToldAndEnded().All("fd"),
                  And(NOTHING, std::to_string(result.value) + " w " + PidPath()));
    }
}

TEST_F(Daemonize, DoesNotHoldTheLockWithoutBeingAsked)
{
    setenv("TELL_STAY", "1", 1);
    ASSERT_TRUE(Start(0, PidPath()));
    const int file = open(PidPath().c_str(), O_RDONLY);
    EXPECT_EQ(flock(file, LOCK_EX | LOCK_NB), 0);
    close(file);
    ASSERT_EQ(kill(std::stoi(Content(PidPath())), SIGKILL), 0);
    EXPECT_EQ(Ended(), SIGKILL);
}

TEST_F(Daemonize, GivesUpTheLockAfterAFailure)
{
    std::filesystem::create_hard_link(
        [&] {
            std::ofstream(PidPath()) << "";
            return PidPath();
        }(),
        mFolder.Path() + "/same");
    EXPECT_FALSE(Start(DAEMONIZE_LOCK_PIDFILE, PidPath(), {}, "/missing"));
    Ended();
    const int file = open((mFolder.Path() + "/same").c_str(), O_RDONLY);
    EXPECT_EQ(flock(file, LOCK_EX | LOCK_NB), 0);
    close(file);
}

TEST_F(Daemonize, NeedsAPidFileThatCanBeOpened)
{
    const std::string missing = mFolder.Path() + "/missing/pid", folder = mFolder.Path();
    EXPECT_EQ(Tried(0, missing, TELL_STATE),
              (Result{false, ENOENT,
                      "Warning: Hostinfo_Daemonize: Couldn't open PID path [" + missing +
                          "], error 2.\n"}));
    EXPECT_EQ(Tried(0, folder, TELL_STATE),
              (Result{false, EISDIR,
                      "Warning: Hostinfo_Daemonize: Couldn't open PID path [" + folder +
                          "], error 21.\n"}));
    EXPECT_TRUE(std::filesystem::is_directory(folder));
}

TEST_F(Daemonize, NeedsAPidFileThatMayBeWritten)
{
    std::ofstream(PidPath()) << "kept";
    chmod(PidPath().c_str(), 0444);
    chmod(mFolder.Path().c_str(), 0777);
    const Result result = InProcess([&] {
        if (geteuid() == 0 && seteuid(65534) != 0) { return 2; }
        return Start(0, PidPath()) ? 1 : 0;
    });
    EXPECT_EQ(result, (Result{0, EACCES,
                              "Warning: Hostinfo_Daemonize: Couldn't open PID path [" + PidPath() +
                                  "], error 13.\n"}));
    EXPECT_EQ(Content(PidPath()), "kept");
}

TEST_F(Daemonize, ReportsALimitOnTheSizeOfFiles)
{
    const Result result = InProcess([&] {
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, STDERR_FILENO); // standard error is a file, too
        const rlimit none = {0, 0};
        if (setrlimit(RLIMIT_FSIZE, &none) != 0) { return 2; }
        return Start(0, PidPath()) ? 1 : 0;
    });
    EXPECT_EQ(result, (Result{0, EFBIG, ""}));
    EXPECT_EQ(Ended(), 1 << 8);
    EXPECT_FALSE(std::filesystem::exists(PidPath()));
}

// ---- Programs that cannot be executed

struct Unusable {
    const char *name;
    int error;
    std::string content;
    int mode;
};
class DaemonizeUnusable : public Daemonize, public testing::WithParamInterface<Unusable> {};
TEST_P(DaemonizeUnusable, ProgramIsToldOf)
{
    const auto &[name, error, content, mode] = GetParam();
    const std::string path = Executable(content);
    chmod(path.c_str(), static_cast<mode_t>(mode));
    if (mode < 0) { std::filesystem::remove(path); }
    const std::string number = std::to_string(error);
    const std::string inTheDaemon = "Warning: Hostinfo_Daemonize: Couldn't exec " + path +
                                    ", error " + number + ".\n",
                      inTheCaller = "Warning: Hostinfo_Daemonize: Child could not exec " + path +
                                    ", read 4, error " + number + ".\n";
    for (const unsigned lock : {0u, unsigned{DAEMONIZE_LOCK_PIDFILE}}) {
        for (const unsigned kept : {0u, unsigned{DAEMONIZE_KEEP_SESSION_AND_STDIO}}) {
            EXPECT_EQ(Tried(lock | kept, PidPath(), path),
                      (Result{false, error, (kept != 0 ? inTheDaemon : "") + inTheCaller}));
            EXPECT_FALSE(std::filesystem::exists(PidPath()));
            EXPECT_EQ(Ended(), 1 << 8);
        }
    }
    EXPECT_EQ(Tried(0, "", path), (Result{false, error, inTheCaller}));
    EXPECT_EQ(Ended(), 1 << 8);
}
INSTANTIATE_TEST_SUITE_P(Each, DaemonizeUnusable,
                         testing::Values(Unusable{"Missing", ENOENT, "", -1},
                                         Unusable{"NotExecutable", EACCES, "#!/bin/sh\n", 0644},
                                         Unusable{"OfNoFormat", ENOEXEC, "gibberish", 0755},
                                         Unusable{"WithAMissingInterpreter", ENOENT, "#!/missing\n",
                                                  0755}),
                         [](const auto &row) { return row.param.name; });

TEST_F(Daemonize, ResolvesARelativeProgramInTheDaemonsFolder)
{
    const std::string own = std::filesystem::relative(TELL_STATE).string();
    EXPECT_FALSE(Start(0, {}, {}, "./" + std::filesystem::path(TELL_STATE).filename().string()));
    EXPECT_EQ(errno, ENOENT);
    Ended();
    ASSERT_TRUE(Start(DAEMONIZE_KEEP_CWD, {}, {}, own));
    ToldAndEnded();
}

TEST_F(Daemonize, NeedsAPipe)
{
    const Result result = InProcess([&] {
        const int first = open("/dev/null", O_RDONLY), second = dup(first), last = dup(first);
        rlimit limit;
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = static_cast<rlim_t>(last) + 1;
        setrlimit(RLIMIT_NOFILE, &limit);
        close(first);  // for the PID file
        close(second); // for half a pipe
        return Start(0, PidPath()) ? 1 : 0;
    });
    EXPECT_EQ(result, (Result{0, EMFILE,
                              "Warning: Hostinfo_Daemonize: Couldn't create pipe, error 24.\n"}));
    EXPECT_FALSE(std::filesystem::exists(PidPath()));
}

} // namespace
