// Tests of the record of who switched the SMB service on, and of what becomes of the service when
// that program has ended.  They run as root in a sandbox.
#include "smbServiceForTests.h"

#include "hostFiles.h"
#include "outOfNew.h"
#include "processMark.h"
#include "smbService.h"

#include <cerrno>
#include <sys/xattr.h>

extern "C" {
int __real_fsetxattr(int fd, const char *name, const void *value, size_t size, int flags);
int __wrap_fsetxattr(int fd, const char *name, const void *value, size_t size, int flags)
{
    if (sAttributeError == 0) { return __real_fsetxattr(fd, name, value, size, flags); }
    errno = sAttributeError;
    return -1;
}
int __real_flock(int fd, int operation);
int __wrap_flock(int fd, int operation)
{
    if (sBeforeFlock) { std::exchange(sBeforeFlock, nullptr)(); }
    return __real_flock(fd, operation);
}
int __real_fsync(int fd);
int __wrap_fsync(int fd)
{
    if (sSyncsToFailure == 0 || --sSyncsToFailure > 0) { return __real_fsync(fd); }
    errno = EIO;
    return -1;
}
}

namespace {

/* The record */

TEST_F(SmbService, IsTheProgramsThatSwitchedItOn)
{
    Write(XmlServices({"print"}));
    ASSERT_TRUE(CommitServices({"print", "disk"}));
    EXPECT_EQ(Record(), OwnMark());
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Runs);
    EXPECT_EQ(LockedServices(), (Strings{"print", "disk"}));
}

TEST_F(SmbService, IsAProgramsInANewFileToo)
{
    ASSERT_TRUE(CommitServices({"disk"}));
    EXPECT_EQ(Record(), OwnMark());
}

TEST_F(SmbService, IsNobodysWhenItIsSwitchedOff)
{
    ASSERT_TRUE(CommitServices({"disk"}));
    ASSERT_TRUE(CommitServices({}));
    EXPECT_EQ(Record(), "");
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Nobody);
}

TEST_F(SmbService, ThatWasOnStaysNobodys)
{
    Write(XmlServices({"disk"}));
    ASSERT_TRUE(CommitServices({"disk", "print"}));
    EXPECT_EQ(Record(), "");
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Nobody);
}

TEST_F(SmbService, StaysItsOwnersWhileItIsOn)
{
    Child owner([&](const auto &ready) {
        const bool isDone = CommitServices({"disk"});
        ready();
        return isDone;
    });
    ASSERT_EQ(Record(), MarkOf(owner.Pid()));
    ASSERT_TRUE(CommitServices({"print", "disk"}));
    EXPECT_EQ(Record(), MarkOf(owner.Pid()));
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Runs);
    owner.GoOn();
    EXPECT_TRUE(owner.Finish());
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Dead);
}

TEST_F(SmbService, StaysItsOwnersWhenOtherKeysAreCommitted)
{
    for (const std::string &mark : {DeadMark(), OwnMark()}) {
        Write(XmlServices({"disk"}));
        SetRecord(mark);
        const Session session = Open();
        ASSERT_TRUE(SCPreferencesLock(session.get(), true));
        ServicesOf(session.get());
        ASSERT_TRUE(SCPreferencesSetValue(session.get(), CFSTR("Other"), CFSTR("value")));
        ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
        EXPECT_EQ(Record(), mark);
        EXPECT_EQ(Services(), Strings{"disk"}) << "as it is in the file";
    }
}

TEST_F(SmbService, IsNobodysInAReplacedFile)
{
    DieHaving({"disk"});
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Dead);
    Replace(XmlServices({"disk"}));
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Nobody);
    EXPECT_EQ(LockedServices(), Strings{"disk"});
}

TEST_F(SmbService, IsNobodysWhenTheRecordIsNoMark)
{
    for (const std::string &record :
         {std::string("junk"), std::string("0 0 x"), OwnMark() + " more", std::string(200, '1'),
          std::string("1 2\0 3", 6)}) {
        Replace(XmlServices({"disk"}));
        SetRecord(record);
        EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Nobody) << record;
        EXPECT_EQ(LockedServices(), Strings{"disk"});
    }
}

TEST_F(SmbService, IsNobodysWithoutDisk)
{
    Write(XmlServices({"print"}));
    SetRecord(DeadMark());
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Nobody);
    EXPECT_EQ(LockedServices(), Strings{"print"});
    ASSERT_TRUE(CommitServices({"print", "disk"}));
    EXPECT_EQ(Record(), OwnMark());
}

// The kernel gives a process number out again, with another start time or after the next boot.
TEST_F(SmbService, HasADeadOwnerAfterPidReuse)
{
    Write(XmlServices({"disk"}));
    ProcessMark mark = ProcessMark::Of(getpid()).value();
    SetRecord(mark.Text());
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Runs);
    mark.start--;
    SetRecord(mark.Text());
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Dead);
    mark.start++;
    mark.boot.back() ^= 1;
    SetRecord(mark.Text());
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Dead);
}

TEST_F(SmbService, HasADeadOwnerBeforeItIsReaped)
{
    Write(XmlServices({"disk"}));
    const pid_t pid = fork();
    if (pid == 0) {
        pause();
        _exit(0);
    }
    SetRecord(MarkOf(pid));
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Runs);
    kill(pid, SIGKILL);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Dead);
    waitpid(pid, nullptr, 0);
}

TEST_F(SmbService, HasARunningOwnerWhenProcIsUnreadable)
{
    Write(XmlServices({"disk"}));
    ProcessMark mark = ProcessMark::Of(getpid()).value();
    mark.start--;
    SetRecord(mark.Text());
    for (const std::string &file : {"/proc/" + std::to_string(getpid()) + "/stat",
                                    std::string("/proc/sys/kernel/random/boot_id")}) {
        for (const int error : {ENOENT, EMFILE, EISDIR}) {
            const HostFileFails fails(file, error);
            EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Runs) << file << error;
        }
    }
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Dead);
}

TEST_F(SmbService, HasNoRecordWithoutABootId)
{
    const HostFileFails fails("/proc/sys/kernel/random/boot_id", ENOENT);
    ASSERT_TRUE(CommitServices({"disk"}));
    EXPECT_EQ(Record(), "");
    EXPECT_EQ(Services(), Strings{"disk"});
}

TEST_F(SmbService, IsCommittedWhenTheRecordCannotBeStored)
{
    for (const int error : {ENOTSUP, ENOSPC, EDQUOT, EPERM}) {
        Replace(XmlServices({"print"}));
        sAttributeError = error;
        EXPECT_TRUE(CommitServices({"print", "disk"}));
        sAttributeError = 0;
        EXPECT_EQ(Services(), (Strings{"print", "disk"}));
        EXPECT_EQ(Record(), "");
        EXPECT_EQ(LockedServices(), (Strings{"print", "disk"})) << "it stays on";
        EXPECT_EQ(Files(), Strings{"com.apple.smb.server.plist"});
    }
}

TEST_F(SmbService, KeepsItsRecordWhenACommitFails)
{
    Write(XmlServices({"disk"}));
    const std::string mark = OwnMark(), before = Read();
    SetRecord(mark);
    for (const int failing :
         {1, 2}) { // the new file's; the folder's, after which the old file is restored
        const Session session = Open();
        ASSERT_TRUE(SetServices(session.get(), {}));
        sSyncsToFailure = failing;
        EXPECT_SC_ERROR(SCPreferencesCommitChanges(session.get()), EIO);
        EXPECT_EQ(sSyncsToFailure, 0);
        EXPECT_EQ(Read(), before);
        EXPECT_EQ(Record(), mark);
        EXPECT_TRUE(SCPreferencesCommitChanges(session.get())) << "and can be repeated";
        EXPECT_EQ(Record(), "");
        Replace(before);
        SetRecord(mark);
    }
}

TEST_F(SmbService, IsRecordedByACommitThatIsRepeated)
{
    Write(XmlServices({"print"}));
    const Session session = Open();
    ASSERT_TRUE(SetServices(session.get(), {"print", "disk"}));
    fs::create_directory(mPath + "-new"); // a folder cannot be removed as a file is
    EXPECT_SC_ERROR(SCPreferencesCommitChanges(session.get()), EISDIR);
    fs::remove(mPath + "-new");
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Record(), OwnMark());
    // The same session switches the service off, and on again.
    ASSERT_TRUE(SetServices(session.get(), {}));
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Record(), "");
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Record(), OwnMark());
}

/* A session after the owner's end */

TEST_F(SmbService, IsOffWhenLockedAfterItsOwnerDied)
{
    Write(XmlServices({"print"}));
    DieHaving({"print", "disk"});
    const std::string before = Read(), record = Record();
    EXPECT_EQ(Services(), (Strings{"print", "disk"})) << "without the lock";
    EXPECT_EQ(LockedServices(), Strings{"print"});
    EXPECT_EQ(Read(), before) << "looking writes nothing";
    EXPECT_EQ(Record(), record);
}

TEST_F(SmbService, OfADeadOwnerGetsANewOne)
{
    DieHaving({"disk"});
    const Session session = Open();
    ASSERT_TRUE(SCPreferencesLock(session.get(), true));
    ASSERT_EQ(ServicesOf(session.get()), Strings{});
    ASSERT_TRUE(SetServices(session.get(), {"disk"}));
    EXPECT_EQ(Services(), Strings{"disk"}) << "it never goes away in between";
    ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Services(), Strings{"disk"});
    EXPECT_EQ(Record(), OwnMark());
    // The session now owns the service, and may switch it off.
    ASSERT_TRUE(SCPreferencesUnlock(session.get()));
    ASSERT_TRUE(SCPreferencesLock(session.get(), true));
    EXPECT_EQ(ServicesOf(session.get()), Strings{"disk"});
    ASSERT_TRUE(SetServices(session.get(), {}));
    ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Services(), Strings{});
    EXPECT_EQ(Record(), "");
}

TEST_F(SmbService, KeepsItsNewOwnerInTheSameSession)
{
    DieHaving({"disk"});
    const Session session = Open();
    ASSERT_TRUE(SCPreferencesLock(session.get(), true));
    for (const Strings &services : {Strings{"disk"}, Strings{"disk", "print"}}) {
        ASSERT_TRUE(SetServices(session.get(), services));
        ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
        EXPECT_EQ(Services(), services);
        EXPECT_EQ(Record(), OwnMark());
    }
}

TEST_F(SmbService, GetsAnOwnerWhenSwitchedOffAndOn)
{
    Write(XmlServices({"disk"}));
    const Session session = Open();
    for (const Strings &services : {Strings{}, Strings{"disk"}}) {
        ASSERT_TRUE(SetServices(session.get(), services));
        ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
    }
    EXPECT_EQ(Record(), OwnMark());
}

TEST_F(SmbService, LockedCommitRemovesADeadOwnersService)
{
    DieHaving({"disk"});
    const Session session = Open();
    ASSERT_TRUE(SCPreferencesLock(session.get(), true));
    ASSERT_EQ(ServicesOf(session.get()), Strings{});
    ASSERT_TRUE(SetServices(session.get(), {"print"}));
    ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Services(), Strings{"print"});
    EXPECT_EQ(Record(), "");
}

TEST_F(SmbService, LockHidesADeadOwnersServiceReadBefore)
{
    DieHaving({"disk"});
    const Session session = Open();
    EXPECT_EQ(ServicesOf(session.get()), Strings{"disk"});
    ASSERT_TRUE(SCPreferencesLock(session.get(), true));
    EXPECT_EQ(ServicesOf(session.get()), Strings{});
    ASSERT_TRUE(SCPreferencesUnlock(session.get()));
    EXPECT_EQ(ServicesOf(session.get()), Strings{}) << "from memory";
}

// The session made its change from what it had read before the lock.
TEST_F(SmbService, ChangeBeforeTheLockKeepsADeadOwner)
{
    DieHaving({"disk"});
    const std::string record = Record();
    const Session session = Open();
    ASSERT_TRUE(SetServices(session.get(), {"disk", "print"}));
    ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Services(), (Strings{"disk", "print"}));
    EXPECT_EQ(Record(), record);
    EXPECT_EQ(LockedServices(), Strings{"print"});
}

// The second "disk" is an administrator's.
TEST_F(SmbService, StaysOnWhenOthersSwitchedItOnToo)
{
    Write(XmlServices({"disk", "print", "disk"}));
    SetRecord(DeadMark());
    EXPECT_EQ(LockedServices(), (Strings{"print", "disk"}));
    ASSERT_TRUE(CommitServices({"print", "disk", "more"}));
    EXPECT_EQ(Record(), "") << "on for good";
    EXPECT_EQ(LockedServices(), (Strings{"print", "disk", "more"}));
}

TEST_F(SmbService, LosesItsOwnerWhenOneEntryIsRemoved)
{
    Write(XmlServices({"disk", "disk"}));
    SetRecord(OwnMark());
    ASSERT_TRUE(CommitServices({"disk"}));
    EXPECT_EQ(Record(), "");
}

TEST_F(SmbService, StaysItsOwnersWhenAnotherIsTakenOut)
{
    Child owner([&](const auto &ready) { return ready(), true; });
    const std::string mark = MarkOf(owner.Pid());
    Write(XmlServices({"disk", "disk"}));
    SetRecord(mark);
    ASSERT_TRUE(CommitServices({"disk"}));
    EXPECT_EQ(Record(), mark);
}

TEST_F(SmbService, SynchronizeShowsADeadOwnersServiceAgain)
{
    DieHaving({"disk"});
    const Session session = Open();
    ASSERT_TRUE(SCPreferencesLock(session.get(), true));
    ASSERT_EQ(ServicesOf(session.get()), Strings{});
    SCPreferencesSynchronize(session.get());
    ASSERT_TRUE(SCPreferencesUnlock(session.get()));
    EXPECT_EQ(ServicesOf(session.get()), Strings{"disk"}) << "as it is in the file";
}

/* Without memory */

// A session that reads the file wrongly might switch off a service that another program owns, or
// keep one that nobody owns.
TEST_F(SmbService, LosesNothingWhenMemoryRunsOut)
{
    const std::string mark = DeadMark();
    bool isEnough = false;
    for (size_t granted = 0; !isEnough; granted++) {
        ASSERT_LT(granted, 2000u);
        Replace(XmlServices({"print", "disk"}));
        SetRecord(mark);
        const Session session = Open();
        const CFOwned<CFMutableArrayRef> next = ArrayOf({"print", "more"});
        {
            const OutOfNew outOfNew(granted);
            if (SCPreferencesLock(session.get(), true)) {
                SCPreferencesGetValue(session.get(), CFSTR("EnabledServices"));
                isEnough =
                    SCPreferencesSetValue(session.get(), CFSTR("EnabledServices"), next.get()) &&
                    SCPreferencesCommitChanges(session.get()) && !outOfNew.Showed();
            }
        }
        const bool isNew = Services() == Strings{"print", "more"};
        EXPECT_TRUE(isNew || Services() == (Strings{"print", "disk"})) << granted;
        EXPECT_EQ(Record(), isNew ? "" : mark) << granted;
    }
}

TEST_F(SmbService, LockFailsWithoutMemoryToFindTheOwner)
{
    Write(XmlServices({"disk"}));
    SetRecord(DeadMark());
    bool isEnough = false;
    for (size_t granted = 0; !isEnough; granted++) {
        ASSERT_LT(granted, 1000u);
        const Session session = Open();
        EXPECT_EQ(ServicesOf(session.get()), Strings{"disk"});
        {
            const OutOfNew outOfNew(granted);
            isEnough = SCPreferencesLock(session.get(), false) && !outOfNew.Showed();
        }
        EXPECT_EQ(IsLockFree(), !isEnough) << granted;
    }
}

} // namespace
