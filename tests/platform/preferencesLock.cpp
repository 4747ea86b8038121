// Tests of the lock of preferences: between sessions, processes, threads and users.
#include "preferencesForTests.h"

#include "together.h"

#include <chrono>
#include <sys/mount.h>
#include <thread>

// Runs once, just before the next call of flock().
static std::function<void()> sBeforeFlock;

extern "C" {
int __real_flock(int fd, int operation);
int __wrap_flock(int fd, int operation)
{
    if (sBeforeFlock) { std::exchange(sBeforeFlock, nullptr)(); }
    return __real_flock(fd, operation);
}
}

namespace {

TEST_F(Preferences, LockWritesThePidAndUnlockRemovesIt)
{
    const Session session = Open();
    ASSERT_TRUE(SCPreferencesLock(session.get(), false));
    EXPECT_EQ(Read("-lock"), std::to_string(getpid()) + "\n");
    EXPECT_FALSE(IsLockFree());
    ASSERT_TRUE(SCPreferencesUnlock(session.get()));
    EXPECT_EQ(Files(), Strings{});
}

TEST_F(Preferences, LockTakesOverWhatAKilledHolderLeft)
{
    Write("123456789012345678901234567890\n", "-lock");
    const Session session = Open();
    ASSERT_TRUE(SCPreferencesLock(session.get(), false));
    EXPECT_EQ(Read("-lock"), std::to_string(getpid()) + "\n");
}

TEST_F(Preferences, LockDoesNotNest)
{
    const Session session = Open();
    ASSERT_TRUE(SCPreferencesLock(session.get(), true));
    EXPECT_SC_ERROR(SCPreferencesLock(session.get(), true), kSCStatusLocked);
    EXPECT_FALSE(IsLockFree()) << "still held";
    EXPECT_TRUE(SCPreferencesUnlock(session.get()));
    EXPECT_SC_ERROR(SCPreferencesUnlock(session.get()), kSCStatusNeedLock);
}

TEST_F(Preferences, LockIsForRootOnly)
{
    chmod(mFolder.Path().c_str(), 0777);
    const auto isRefused = [&] {
        const Session session = Open();
        const bool refused =
            !SCPreferencesLock(session.get(), true) && SCError() == kSCStatusAccessError;
        // A commit without the lock takes it, and is refused, too.
        return refused && SetServices(session.get(), {"disk"}) &&
               !SCPreferencesCommitChanges(session.get()) && SCError() == kSCStatusAccessError;
    };
    EXPECT_TRUE(HoldsForNobody(isRefused, false));
    EXPECT_EQ(Files(), Strings{});
}

TEST_F(Preferences, LockRemembersWhoOpenedTheSession)
{
    const Session session = Open();
    chmod(mFolder.Path().c_str(), 0777);
    EXPECT_TRUE(HoldsForNobody([&] { return SCPreferencesLock(session.get(), true) != 0; }, false));
}

TEST_F(Preferences, LockMakesNoFolder)
{
    const CFOwned<CFStringRef> path(CFStringCreateWithText(mFolder.Path() + "/none/x.plist"));
    const Session session(SCPreferencesCreate(nullptr, CFSTR("a test"), path.get()));
    ASSERT_NE(session, nullptr);
    EXPECT_SC_ERROR(SCPreferencesLock(session.get(), true), ENOENT);
    EXPECT_SC_ERROR(SCPreferencesUnlock(session.get()), kSCStatusNeedLock);
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    EXPECT_SC_ERROR(SCPreferencesCommitChanges(session.get()), ENOENT);
    EXPECT_EQ(Files(), Strings{});
}

TEST_F(Preferences, LockFollowsNoLink)
{
    Write("important", "-target");
    fs::create_symlink(mPath + "-target", mPath + "-lock");
    const Session session = Open();
    EXPECT_SC_ERROR(SCPreferencesLock(session.get(), true), ELOOP);
    EXPECT_EQ(Read("-target"), "important");
}

TEST_F(Preferences, LockExcludesOtherSessions)
{
    const Session one = Open(), other = Open();
    ASSERT_TRUE(SCPreferencesLock(one.get(), false));
    EXPECT_SC_ERROR(SCPreferencesLock(other.get(), false), kSCStatusPrefsBusy);
    EXPECT_SC_ERROR(SCPreferencesUnlock(other.get()), kSCStatusNeedLock);
    EXPECT_FALSE(IsLockFree()) << "the refused one took nothing away";
    ASSERT_TRUE(SCPreferencesUnlock(one.get()));
    EXPECT_TRUE(SCPreferencesLock(other.get(), false));
}

TEST_F(Preferences, LockExcludesOtherProcesses)
{
    Child child([&](const auto &ready) {
        const Session session = Open();
        const bool isLocked = SCPreferencesLock(session.get(), true);
        ready();
        return isLocked && SCPreferencesUnlock(session.get());
    });
    const Session session = Open();
    EXPECT_SC_ERROR(SCPreferencesLock(session.get(), false), kSCStatusPrefsBusy);
    std::atomic<bool> isLocked = false;
    std::thread waiting([&] { isLocked = SCPreferencesLock(session.get(), true); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(isLocked) << "waits for as long as it takes";
    child.GoOn();
    waiting.join();
    EXPECT_TRUE(isLocked);
    EXPECT_TRUE(child.Finish());
}

TEST_F(Preferences, LockLosingARaceLeavesTheWinnersFile)
{
    const std::string lockPath = mPath + "-lock";
    const int first = open(lockPath.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_EQ(__real_flock(first, LOCK_EX), 0);
    int next = -1;
    // Between our open and our flock(), the first holder releases the lock and another one takes
    // it.
    sBeforeFlock = [&] {
        unlink(lockPath.c_str());
        close(first);
        next = open(lockPath.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
        ASSERT_EQ(__real_flock(next, LOCK_EX), 0);
    };
    const Session session = Open();
    EXPECT_FALSE(SCPreferencesLock(session.get(), false));
    EXPECT_EQ(SCError(), kSCStatusPrefsBusy);
    EXPECT_EQ(access(lockPath.c_str(), F_OK), 0) << "it is the next holder's";
    const Session third = Open();
    EXPECT_FALSE(SCPreferencesLock(third.get(), false));
    close(next);
}

TEST_F(Preferences, LockFileIsForRootAlone)
{
    const Session session = Open();
    ASSERT_TRUE(SCPreferencesLock(session.get(), true));
    struct stat status = {};
    ASSERT_EQ(stat((mPath + "-lock").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u) << "who can open it can lock it";
}

TEST_F(Preferences, LockDoesNotWaitForAPipe)
{
    ASSERT_EQ(mkfifo((mPath + "-lock").c_str(), 0600), 0);
    const Session session = Open();
    EXPECT_FALSE(SCPreferencesLock(session.get(), true));
    EXPECT_EQ(SCError(), ENXIO);
}

TEST_F(Preferences, LockDiesWithItsHolder)
{
    Child child([&](const auto &ready) {
        const Session session = Open();
        const bool isLocked = SCPreferencesLock(session.get(), true);
        ready();
        return isLocked;
    });
    const Session session = Open();
    EXPECT_SC_ERROR(SCPreferencesLock(session.get(), false), kSCStatusPrefsBusy);
    child.Kill();
    EXPECT_EQ(Files(), Strings{"com.apple.smb.server.plist-lock"}) << "left behind";
    EXPECT_TRUE(SCPreferencesLock(session.get(), false));
}

TEST_F(Preferences, LockGoesWithItsSession)
{
    Session session = Open();
    ASSERT_TRUE(SCPreferencesLock(session.get(), false));
    session.reset();
    EXPECT_EQ(Files(), Strings{});
    EXPECT_TRUE(SCPreferencesLock(Open().get(), false));
}

TEST_F(Preferences, LockIsNotInheritedByPrograms)
{
    const Session session = Open();
    ASSERT_TRUE(SCPreferencesLock(session.get(), false));
    int count = 0;
    for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (fs::read_symlink(entry.path(), error) != mPath + "-lock") { continue; }
        EXPECT_TRUE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC);
        count++;
    }
    EXPECT_EQ(count, 1);
}

// Every waiting thread has the old lock file open.  After that file is removed, none of them may
// believe that it holds the lock.
TEST_F(Preferences, LockExcludesOtherThreads)
{
    constexpr int THREADS = 4, ROUNDS = 250;
    std::atomic<int> holders = 0, tooMany = 0, locked = 0;
    Together(THREADS, [&](int) {
        const Session session = Open();
        for (int round = 0; round < ROUNDS; round++) {
            locked += SCPreferencesLock(session.get(), true);
            tooMany += ++holders > 1;
            std::this_thread::yield();
            holders--;
            SCPreferencesUnlock(session.get());
        }
    });
    EXPECT_EQ(locked, THREADS * ROUNDS);
    EXPECT_EQ(tooMany, 0);
    EXPECT_EQ(Files(), Strings{});
}

TEST_F(Preferences, CountAsLockedOnReadOnlyFileSystems)
{
    Write(XmlServices({"disk"}));
    const char *folder = mFolder.Path().c_str();
    if (mount(folder, folder, nullptr, MS_BIND, nullptr) != 0) { FAIL() << "no mounts here"; }
    EXPECT_EQ(mount(nullptr, folder, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    {
        const Session session = Open();
        EXPECT_TRUE(SCPreferencesLock(session.get(), true));
        EXPECT_SC_ERROR(SCPreferencesLock(session.get(), true), kSCStatusLocked);
        EXPECT_EQ(ServicesOf(session.get()), Strings{"disk"});
        EXPECT_TRUE(SetServices(session.get(), {}));
        EXPECT_SC_ERROR(SCPreferencesCommitChanges(session.get()), EROFS);
        EXPECT_EQ(Files(), Strings{"com.apple.smb.server.plist"});
        EXPECT_TRUE(SCPreferencesUnlock(session.get()));
    }
    EXPECT_EQ(umount(folder), 0);
}

} // namespace
