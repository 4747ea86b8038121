// The preferences session: call by call, between processes, and on damaged files.  Runs on a
// machine of its own as its root: it becomes another user, mounts, and writes in the system's
// folder.
#include "preferencesForTests.h"
#include "propertyLists.h"
#include "together.h"

#include <chrono>
#include <sys/mount.h>
#include <thread>

using namespace pelago::platform;

// What happens just before the next lock is asked for, once.
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

// Whether the check holds for a user that is not root.
bool HoldsForNobody(const std::function<bool()> &check, bool alsoReally)
{
    constexpr uid_t NOBODY = 65534;
    const pid_t pid = fork();
    if (pid == 0) {
        const int changed = alsoReally ? setresuid(NOBODY, NOBODY, NOBODY) : seteuid(NOBODY);
        _exit(changed == 0 && check() ? 0 : 1);
    }
    int status = 1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status == 0;
}

/* Create */

TEST_F(Preferences, OfAMissingFileAreASessionToo)
{
    const Session session = Open();
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(SCError(), kSCStatusNoConfigFile);
    EXPECT_EQ(Files(), Strings{}) << "nothing is locked or made yet";
}

TEST_F(Preferences, AreOpenedWithoutLookingInside)
{
    Write("junk");
    EXPECT_NE(Open(), nullptr);
}

TEST_F(Preferences, BelowAFileCannotBeOpened)
{
    Write("junk");
    const CFOwned<CFStringRef> path(CFStringCreateWithText(mPath + "/x"));
    EXPECT_SC_ERROR(SCPreferencesCreate(nullptr, CFSTR("a test"), path.get()), kSCStatusFailed);
}

TEST_F(Preferences, ThatMayNotBeReadCannotBeOpened)
{
    Write(XmlServices({}));
    chmod(mFolder.Path().c_str(), 0755);
    chmod(mPath.c_str(), 0600);
    EXPECT_TRUE(HoldsForNobody(
        [&] { return Open() == nullptr && SCError() == kSCStatusAccessError; }, true));
}

TEST_F(Preferences, WithoutAFolderAreAmongTheSystems)
{
    const fs::path folder = "/Library/Preferences/SystemConfiguration";
    fs::create_directories(folder);
    std::ofstream(folder / "bare.plist") << XmlServices({"disk"});
    const Session session(SCPreferencesCreate(nullptr, CFSTR("a test"), CFSTR("bare.plist")));
    EXPECT_EQ(ServicesOf(session.get()), Strings{"disk"});
}

TEST_F(Preferences, NeedASession)
{
    const auto error = [](bool result) { return result ? kSCStatusOK : SCError(); };
    EXPECT_EQ(error(SCPreferencesLock(nullptr, true)), kSCStatusNoPrefsSession);
    EXPECT_EQ(error(SCPreferencesUnlock(nullptr)), kSCStatusNoPrefsSession);
    EXPECT_EQ(error(SCPreferencesSetValue(nullptr, CFSTR("k"), CFSTR("v"))),
              kSCStatusNoPrefsSession);
    EXPECT_EQ(error(SCPreferencesCommitChanges(nullptr)), kSCStatusNoPrefsSession);
    EXPECT_EQ(error(SCPreferencesGetValue(nullptr, CFSTR("k")) != nullptr),
              kSCStatusNoPrefsSession);
    SCPreferencesSynchronize(nullptr);
    EXPECT_EQ(SCError(), kSCStatusNoPrefsSession);
}

/* Lock and unlock */

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
        // A commit takes the lock for itself.
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
    // Between our open and our lock the first holder gives it back, and another one takes it.
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

// Everybody who waits has the old file open: none may believe that it holds the lock after the
// file is gone.
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

/* Get and set */

TEST_F(Preferences, AreReadOnceAndThenAnsweredFromMemory)
{
    Write(XmlServices({"disk"}));
    const Session session = Open();
    Write(XmlServices({"print"}));
    EXPECT_EQ(ServicesOf(session.get()), Strings{"print"}) << "read at the first access";
    Write(XmlServices({"disk"}));
    EXPECT_EQ(ServicesOf(session.get()), Strings{"print"});
    SCPreferencesSynchronize(session.get());
    EXPECT_EQ(ServicesOf(session.get()), Strings{"disk"});
}

TEST_F(Preferences, AnswerNothingForAnUnknownKey)
{
    Write(XmlServices({}));
    const Session session = Open();
    EXPECT_SC_ERROR(SCPreferencesGetValue(session.get(), CFSTR("none")), kSCStatusNoKey);
    EXPECT_EQ(ServicesOf(session.get()), Strings{});
}

TEST_F(Preferences, ValuesBelongToTheSession)
{
    Write(XmlServices({"disk"}));
    const Session session = Open();
    const CFTypeRef value = SCPreferencesGetValue(session.get(), CFSTR("EnabledServices"));
    const uint32_t count = CFObjectOf(value)->mCount.load();
    EXPECT_EQ(SCPreferencesGetValue(session.get(), CFSTR("EnabledServices")), value);
    EXPECT_EQ(CFObjectOf(value)->mCount.load(), count) << "nothing for the caller to release";
    // It lives on, whatever else is done with the session.
    ASSERT_TRUE(SCPreferencesLock(session.get(), true));
    ASSERT_TRUE(SCPreferencesSetValue(session.get(), CFSTR("Other"), CFSTR("value")));
    ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
    ASSERT_TRUE(SCPreferencesUnlock(session.get()));
    EXPECT_EQ(CFArrayGetCount(static_cast<CFArrayRef>(value)), 1);
    EXPECT_EQ(SCPreferencesGetValue(session.get(), CFSTR("EnabledServices")), value);
}

TEST_F(Preferences, KeepTheObjectThatIsSet)
{
    const Session session = Open();
    const auto array = ArrayOf({"disk"});
    ASSERT_TRUE(SCPreferencesSetValue(session.get(), CFSTR("EnabledServices"), array.get()));
    EXPECT_EQ(SCPreferencesGetValue(session.get(), CFSTR("EnabledServices")), array.get());
    EXPECT_EQ(CFObjectOf(array.get())->mCount.load(), 2u);
    CFArrayAppendValue(array.get(), CFSTR("print"));
    ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Services(), (Strings{"disk", "print"})) << "as it is when it is committed";
    CFArrayRemoveValueAtIndex(array.get(), 0);
    ASSERT_TRUE(SCPreferencesSetValue(session.get(), CFSTR("Other"), CFSTR("value")));
    ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Services(), (Strings{"print"})) << "and at the next commit as it is then";
    ASSERT_TRUE(SetServices(session.get(), {}));
    EXPECT_EQ(CFObjectOf(array.get())->mCount.load(), 1u);
}

TEST_F(Preferences, ForgetWhatWasNotCommitted)
{
    Write(XmlServices({"disk"}));
    const Session session = Open();
    ASSERT_TRUE(SetServices(session.get(), {}));
    SCPreferencesSynchronize(session.get());
    EXPECT_EQ(ServicesOf(session.get()), Strings{"disk"});
    const auto before = Status();
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Status().st_ino, before.st_ino);
}

/* What others have written meanwhile */

TEST_F(Preferences, LockRereadsTheFileWithoutUncommittedChanges)
{
    Write(XmlServices({"disk"}));
    const Session session = Open();
    EXPECT_EQ(ServicesOf(session.get()), Strings{"disk"});
    Replace(XmlServices({"print"}));
    EXPECT_TRUE(SCPreferencesLock(session.get(), true));
    EXPECT_EQ(ServicesOf(session.get()), Strings{"print"});
}

TEST_F(Preferences, AreStaleAtTheLockWithSomethingUncommitted)
{
    Write(XmlServices({"disk"}));
    const Session session = Open();
    ASSERT_TRUE(SetServices(session.get(), {}));
    Replace(XmlServices({"print"}));
    EXPECT_SC_ERROR(SCPreferencesLock(session.get(), true), kSCStatusStale);
    EXPECT_EQ(Files(), Strings{"com.apple.smb.server.plist"}) << "the lock is given back";
    EXPECT_SC_ERROR(SCPreferencesUnlock(session.get()), kSCStatusNeedLock);
    EXPECT_SC_ERROR(SCPreferencesCommitChanges(session.get()), kSCStatusStale);
    EXPECT_EQ(Services(), Strings{"print"});
    SCPreferencesSynchronize(session.get());
    EXPECT_TRUE(SCPreferencesLock(session.get(), true));
}

struct ChangeCase {
    const char *name;
    void (*change)(const std::string &path);
    bool isSeen;
};
class PreferencesChange : public Preferences, public testing::WithParamInterface<ChangeCase> {};

TEST_P(PreferencesChange, IsSeenInTheSignature)
{
    Write(XmlServices({"disk"}));
    const Session session = Open();
    ASSERT_TRUE(SetServices(session.get(), {}));
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // file times come in such steps
    GetParam().change(mPath);
    EXPECT_EQ(SCPreferencesLock(session.get(), true), !GetParam().isSeen);
    if (GetParam().isSeen) { EXPECT_EQ(SCError(), kSCStatusStale); }
}
INSTANTIATE_TEST_SUITE_P(
    Changes, PreferencesChange,
    testing::Values(
        ChangeCase{"None", [](const std::string &) {}, false},
        ChangeCase{"Mode", [](const std::string &path) { chmod(path.c_str(), 0600); }, false},
        ChangeCase{"Touched",
                   [](const std::string &path) { utimensat(AT_FDCWD, path.c_str(), nullptr, 0); },
                   true},
        ChangeCase{"Removed", [](const std::string &path) { unlink(path.c_str()); }, true},
        ChangeCase{"Longer",
                   [](const std::string &path) {
                       struct stat status;
                       stat(path.c_str(), &status);
                       std::ofstream(path, std::ios::app) << "\n";
                       const struct timespec times[2] = {status.st_atim, status.st_mtim};
                       utimensat(AT_FDCWD, path.c_str(), times, 0);
                   },
                   true},
        ChangeCase{"Replaced",
                   [](const std::string &path) {
                       struct stat status;
                       stat(path.c_str(), &status);
                       fs::copy(path, path + "-other");
                       const struct timespec times[2] = {status.st_atim, status.st_mtim};
                       utimensat(AT_FDCWD, (path + "-other").c_str(), times, 0);
                       fs::rename(path + "-other", path);
                   },
                   true}),
    [](const auto &row) { return row.param.name; });

TEST_F(Preferences, AreStaleWhenTheirMissingFileAppears)
{
    const Session session = Open();
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    Write(XmlServices({"print"}));
    EXPECT_SC_ERROR(SCPreferencesLock(session.get(), true), kSCStatusStale);
}

TEST_F(Preferences, AreNotStaleByTheirOwnCommit)
{
    Write(XmlServices({}));
    const Session session = Open();
    for (const Strings &services : {Strings{"disk"}, Strings{}, Strings{"disk", "print"}}) {
        ASSERT_TRUE(SetServices(session.get(), services));
        ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
        EXPECT_EQ(Services(), services);
    }
}

/* Commit */

TEST_F(Preferences, CommitWithoutChangesWritesNothing)
{
    Write(XmlServices({}));
    const Session session = Open();
    const auto before = Status();
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(ServicesOf(session.get()), Strings{});
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Status().st_ino, before.st_ino);
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    const auto written = Status();
    EXPECT_NE(written.st_ino, before.st_ino);
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Status().st_ino, written.st_ino) << "once is enough";
}

TEST_F(Preferences, CommitKeepsTheLockThatItFound)
{
    const Session session = Open();
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Files(), Strings{"com.apple.smb.server.plist"}) << "it took one for itself";
    ASSERT_TRUE(SCPreferencesLock(session.get(), true));
    ASSERT_TRUE(SetServices(session.get(), {}));
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_FALSE(IsLockFree());
}

TEST_F(Preferences, CommitWaitsForTheLock)
{
    for (const bool otherWrites : {false, true}) {
        Write(XmlServices({}));
        Child child([&](const auto &ready) {
            const Session session = Open();
            const bool isLocked = SCPreferencesLock(session.get(), true);
            ready();
            return isLocked && (!otherWrites || (SetServices(session.get(), {"print"}) &&
                                                 SCPreferencesCommitChanges(session.get())));
        });
        const Session session = Open();
        ASSERT_TRUE(SetServices(session.get(), {"disk"}));
        std::atomic<bool> isDone = false;
        bool isCommitted = false;
        int error = 0;
        std::thread committing([&] {
            isCommitted = SCPreferencesCommitChanges(session.get());
            error = SCError(); // each thread has its own
            isDone = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        EXPECT_FALSE(isDone);
        child.GoOn();
        committing.join();
        EXPECT_TRUE(child.Finish());
        EXPECT_EQ(isCommitted, !otherWrites);
        if (otherWrites) { EXPECT_EQ(error, kSCStatusStale); }
        EXPECT_EQ(Services(), Strings{otherWrites ? "print" : "disk"});
    }
}

TEST_F(Preferences, CommitKeepsOwnerGroupAndMode)
{
    Write(XmlServices({}));
    const bool canChangeOwner = chown(mPath.c_str(), 1234, 2345) == 0;
    chmod(mPath.c_str(), 0640);
    const auto before = Status();
    const Session session = Open();
    const mode_t mask = umask(0777);
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    umask(mask);
    const auto after = Status();
    EXPECT_NE(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
    if (!canChangeOwner) { FAIL() << "no second user here"; }
    EXPECT_EQ(after.st_uid, 1234u);
    EXPECT_EQ(after.st_gid, 2345u);
}

TEST_F(Preferences, CommitMakesANewFileReadableForAll)
{
    const Session session = Open();
    const mode_t mask = umask(0077);
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    umask(mask);
    EXPECT_EQ(Status().st_mode & 07777, 0644u);
    EXPECT_EQ(Status().st_uid, geteuid());
    EXPECT_EQ(Services(), Strings{"disk"});
}

TEST_F(Preferences, CommitIgnoresWhatAKilledOneLeft)
{
    Write(XmlServices({}));
    const std::string before = Read();
    Write(std::string(100000, 'x'), "-new");
    chmod((mPath + "-new").c_str(), 0666);
    const Session session = Open();
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Services(), Strings{"disk"});
    EXPECT_EQ(Read().find('x'), Read().find("xml")) << "no tail of the old one";
    EXPECT_EQ(Status().st_mode & 07777, 0644u);
    EXPECT_EQ(Files(), Strings{"com.apple.smb.server.plist"});
}

TEST_F(Preferences, CommitFollowsNoLinkAtTheNewFile)
{
    Write(XmlServices({}));
    Write("important", "-target");
    fs::create_symlink(mPath + "-target", mPath + "-new");
    const Session session = Open();
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Read("-target"), "important");
    EXPECT_EQ(Services(), Strings{"disk"});
}

TEST_F(Preferences, CommitReplacesALinkItself)
{
    Write(XmlServices({}), "-target");
    const std::string target = Read("-target");
    fs::create_symlink(mPath + "-target", mPath);
    const Session session = Open();
    EXPECT_EQ(ServicesOf(session.get()), Strings{});
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_FALSE(fs::is_symlink(mPath));
    EXPECT_EQ(Services(), Strings{"disk"});
    EXPECT_EQ(Read("-target"), target);
}

TEST_F(Preferences, CommitThatFailsCanBeRepeated)
{
    Write(XmlServices({"print"}));
    const std::string before = Read();
    const Session session = Open();
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    fs::create_directory(mPath + "-new"); // cannot be removed as a file
    EXPECT_SC_ERROR(SCPreferencesCommitChanges(session.get()), EISDIR);
    EXPECT_EQ(Read(), before);
    EXPECT_EQ(ServicesOf(session.get()), Strings{"disk"}) << "in memory still";
    fs::remove(mPath + "-new");
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Services(), Strings{"disk"});
}

TEST_F(Preferences, CommitRefusesWhatNoListCanHold)
{
    Write(XmlServices({"print"}));
    const std::string before = Read();
    const Session session = Open();
    ASSERT_TRUE(SCPreferencesSetValue(session.get(), CFSTR("k"), session.get()));
    EXPECT_SC_ERROR(SCPreferencesCommitChanges(session.get()), kSCStatusFailed);
    EXPECT_EQ(Read(), before);
    SCPreferencesSynchronize(session.get());
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
}

TEST_F(Preferences, CommitKeepsTheFormatAndEveryOtherKey)
{
    const std::string others =
        "<key>ServerDescription</key><string>A &amp; "
        "B&#13;</string><key>MaxClients</key><integer>100</integer>"
        "<key>wins "
        "server</key><array><dict><key></key><date>0099-01-01T00:00:00Z</date></dict></array>";
    Write(XmlServices({"print"}, others));
    const Session session = Open();
    ASSERT_TRUE(SetServices(session.get(), {"print", "disk"}));
    ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Read().substr(0, 5), "<?xml");
    for (const char *text : {"<string>A &amp; B&#13;</string>", "<integer>100</integer>",
                             "<key></key>", "<date>0099-01-01T00:00:00Z</date>"}) {
        EXPECT_NE(Read().find(text), std::string::npos) << text;
    }

    Write(BinaryList({BinaryDict({1, 2, 3, 4}), BinaryAscii("ServerDescription"),
                      BinaryAscii("EnabledServices"), BinaryAscii("A & B"), BinaryArray({})}));
    SCPreferencesSynchronize(session.get());
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Read().substr(0, 8), "bplist00");
    EXPECT_NE(Read().find("A & B"), std::string::npos);
    EXPECT_EQ(Services(), Strings{"disk"});
}

TEST_F(Preferences, CommitWritesEveryKeyThatWasSet)
{
    const Session session = Open();
    ASSERT_TRUE(SCPreferencesSetValue(session.get(), CFSTR("b"), CFSTR("2")));
    ASSERT_TRUE(SCPreferencesSetValue(session.get(), CFSTR("a"), kCFBooleanTrue));
    EXPECT_EQ(SCPreferencesGetValue(session.get(), CFSTR("c")), nullptr);
    ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
    const Session other = Open();
    EXPECT_TRUE(CFEqual(SCPreferencesGetValue(other.get(), CFSTR("b")), CFSTR("2")));
    EXPECT_EQ(SCPreferencesGetValue(other.get(), CFSTR("a")), kCFBooleanTrue);
    EXPECT_EQ(SCPreferencesGetValue(other.get(), CFSTR("c")), nullptr);
}

/* Files that cannot be read as a dictionary */

struct DamageCase {
    const char *name;
    std::string bytes;
};
class PreferencesDamaged : public Preferences, public testing::WithParamInterface<DamageCase> {};

TEST_P(PreferencesDamaged, AreReadAsEmptyAndNeverOverwritten)
{
    Write(GetParam().bytes);
    const Session session = Open();
    ASSERT_NE(session, nullptr);
    EXPECT_TRUE(SCPreferencesLock(session.get(), true));
    EXPECT_SC_ERROR(SCPreferencesGetValue(session.get(), CFSTR("EnabledServices")), kSCStatusNoKey);
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    EXPECT_SC_ERROR(SCPreferencesCommitChanges(session.get()), kSCStatusFailed);
    EXPECT_EQ(ServicesOf(session.get()), Strings{"disk"});
    EXPECT_TRUE(SCPreferencesUnlock(session.get()));
    EXPECT_TRUE(Read() == GetParam().bytes);
    EXPECT_EQ(Files(), Strings{"com.apple.smb.server.plist"});
}
INSTANTIATE_TEST_SUITE_P(
    Files, PreferencesDamaged,
    testing::Values(DamageCase{"Junk", "these are not preferences"}, DamageCase{"Blanks", " \n\n"},
                    DamageCase{"TextForm", "{ EnabledServices = (disk); }"},
                    DamageCase{"TruncatedXml", XmlServices({"disk"}).substr(0, 80)},
                    DamageCase{"TruncatedBinary", BinaryWithValue(BinaryAscii("x")).substr(0, 40)},
                    DamageCase{"ArrayRoot",
                               "<plist><array><string>EnabledServices</string></array></plist>"},
                    DamageCase{"DeepXml", DeepXml(200000)},
                    DamageCase{"DeepBinary", DeepBinary(30000)},
                    DamageCase{"SelfMultiplying", SelfMultiplyingBinary()},
                    DamageCase{"NulInString", BinaryWithValue(std::string("\x53"
                                                                          "a\0b",
                                                                          4))},
                    DamageCase{"LargeJunk", std::string(10000000, 'j')},
                    DamageCase{"TooLarge", std::string(20 << 20, ' ')}),
    [](const auto &row) { return row.param.name; });

TEST_F(Preferences, ThatAreEmptyStartAfresh)
{
    Write("");
    const Session session = Open();
    EXPECT_SC_ERROR(SCPreferencesGetValue(session.get(), CFSTR("EnabledServices")), kSCStatusNoKey);
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Services(), Strings{"disk"});
    EXPECT_EQ(Read().substr(0, 5), "<?xml");
}

TEST_F(Preferences, ThatAreNoFileAreNeverOverwritten)
{
    fs::create_directory(mPath);
    const Session session = Open();
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    EXPECT_SC_ERROR(SCPreferencesCommitChanges(session.get()), kSCStatusFailed);
    EXPECT_TRUE(fs::is_directory(mPath));
    fs::remove(mPath);
    ASSERT_EQ(mkfifo(mPath.c_str(), 0644), 0);
    const Session other = Open();
    EXPECT_EQ(ServicesOf(other.get()), Strings{"none"}) << "and nobody waits for the other end";
    ASSERT_TRUE(SetServices(other.get(), {"disk"}));
    EXPECT_SC_ERROR(SCPreferencesCommitChanges(other.get()), kSCStatusFailed);
    EXPECT_TRUE(fs::is_fifo(mPath));
}

TEST_F(Preferences, OfTenMegabytesWork)
{
    const std::string text(10000000, 'x');
    for (const std::string &bytes : {XmlServices({}, "<key>k</key><string>" + text + "</string>"),
                                     BinaryWithValue(BinaryAscii(text))}) {
        Write(bytes);
        const Session session = Open();
        ASSERT_TRUE(SetServices(session.get(), {"disk"}));
        EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
        EXPECT_EQ(Services(), Strings{"disk"});
        EXPECT_NE(Read().find(text), std::string::npos);
    }
}

TEST_F(Preferences, ErrorsBelongToTheirThread)
{
    EXPECT_SC_ERROR(SCPreferencesUnlock(nullptr), kSCStatusNoPrefsSession);
    int other = -1;
    std::thread([&] { other = SCError(); }).join();
    EXPECT_EQ(other, kSCStatusOK);
    EXPECT_EQ(SCError(), kSCStatusNoPrefsSession);
}

/* Two at once */

// Each process adds its own service and takes it away again, under the lock: no change is lost.
TEST_F(Preferences, OfSeveralProcessesLoseNoChange)
{
    constexpr int PROCESSES = 3, ROUNDS = 40;
    Write(XmlServices({"print"}));
    const auto edit = [&](const std::string &own, bool isAdded) {
        const Session session = Open();
        if (!SCPreferencesLock(session.get(), true)) { return false; }
        Strings services = ServicesOf(session.get());
        if (isAdded) {
            services.push_back(own);
        } else if (std::erase(services, own) != 1) {
            return false;
        }
        return SetServices(session.get(), services) && SCPreferencesCommitChanges(session.get());
    };
    pid_t pids[PROCESSES];
    for (int i = 0; i < PROCESSES; i++) {
        pids[i] = fork();
        if (pids[i] == 0) {
            bool isWhole = true;
            for (int round = 0; isWhole && round < ROUNDS; round++) {
                isWhole =
                    edit("own" + std::to_string(i), true) && edit("own" + std::to_string(i), false);
            }
            _exit(isWhole && edit("own" + std::to_string(i), true) ? 0 : 1);
        }
    }
    for (pid_t pid : pids) {
        int status = 1;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0);
    }
    Strings services = Services();
    std::sort(services.begin(), services.end());
    EXPECT_EQ(services, (Strings{"own0", "own1", "own2", "print"}));
    EXPECT_EQ(Files(), Strings{"com.apple.smb.server.plist"});
}

} // namespace
