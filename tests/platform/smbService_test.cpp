// Who switched the SMB service on, what becomes of it when that program has ended, and switching it
// by hand.  Runs on a machine of its own as its root.
#include "hostFiles.h"
#include "outOfNew.h"
#include "preferencesForTests.h"
#include "processMark.h"
#include "propertyLists.h"
#include "smbService.h"

#include <cerrno>
#include <optional>
#include <sys/xattr.h>

using namespace pelago::platform;

// What the next calls fail with, while it is there.
static int sAttributeError = 0;
static int sSyncsToFailure = 0; // 1: the next one fails; 0: none
// What happens just before the next lock is asked for, once.
static std::function<void()> sBeforeFlock;

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

constexpr char RECORD[] = "user.pelago.service";

class SmbService : public Preferences {
protected:
    void TearDown() override { sAttributeError = sSyncsToFailure = 0; }

    // The record in the file; empty for none.
    std::string Record() const
    {
        char record[256];
        const ssize_t size = getxattr(mPath.c_str(), RECORD, record, sizeof record);
        if (size < 0) { EXPECT_TRUE(errno == ENODATA) << errno; }
        return size < 0 ? std::string() : std::string(record, static_cast<size_t>(size));
    }
    void SetRecord(const std::string &record) const
    {
        ASSERT_EQ(setxattr(mPath.c_str(), RECORD, record.data(), record.size(), 0), 0);
    }
    static std::string MarkOf(pid_t pid) { return ProcessMark::Of(pid).value().Text(); }
    static std::string OwnMark() { return MarkOf(getpid()); }

    // The mark of a process that has ended.
    static std::string DeadMark()
    {
        Child child([](const auto &ready) { return ready(), true; });
        const std::string mark = MarkOf(child.Pid());
        child.Kill();
        return mark;
    }

    // Commits these services under the lock, as a tool does.
    bool CommitServices(const Strings &services)
    {
        const Session session = Open();
        return SCPreferencesLock(session.get(), true) && SetServices(session.get(), services) &&
               SCPreferencesCommitChanges(session.get());
    }
    // A program that makes these the services and dies.
    void DieHaving(const Strings &services)
    {
        Child child([&](const auto &ready) {
            if (CommitServices(services)) { ready(); }
            return true;
        });
        child.Kill();
    }
    Strings LockedServices()
    {
        const Session session = Open();
        EXPECT_TRUE(SCPreferencesLock(session.get(), true));
        return ServicesOf(session.get());
    }
};

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

// A process number comes again, with another start, or after the next boot.
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
         {1, 2}) { // the new file's; the folder's, after which the old one comes back
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
    fs::create_directory(mPath + "-new"); // cannot be removed as a file
    EXPECT_SC_ERROR(SCPreferencesCommitChanges(session.get()), EISDIR);
    fs::remove(mPath + "-new");
    EXPECT_TRUE(SCPreferencesCommitChanges(session.get()));
    EXPECT_EQ(Record(), OwnMark());
    // And off, and on for another reason, in the same session.
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
    // What the session then takes out is its own.
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

// It was made from what the session saw then.
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

// The second one is an administrator's.
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

// A session that sees the file wrongly might switch off what is another's, or keep what is
// nobody's.
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

/* By hand */

class SmbServiceByHand : public SmbService, public testing::WithParamInterface<bool> {
protected:
    // In the format that is tested.
    void WriteServices(const Strings &services, const std::string &record = "") const
    {
        std::vector<std::string> objects = {BinaryDict({1, 2, 3, 4}), BinaryAscii("Workgroup"),
                                            BinaryAscii("EnabledServices"), BinaryAscii("W")};
        std::vector<size_t> items;
        for (size_t i = 0; i < services.size(); i++) {
            items.push_back(i + 5);
        }
        objects.push_back(BinaryArray(items));
        for (const std::string &service : services) {
            objects.push_back(BinaryAscii(service));
        }
        Replace(GetParam() ? BinaryList(objects)
                           : XmlServices(services, "<key>Workgroup</key><string>W</string>"));
        if (!record.empty()) { SetRecord(record); }
    }
    void ExpectServices(const Strings &services, const std::string &record)
    {
        EXPECT_EQ(Services(), services);
        EXPECT_EQ(Record(), record);
        EXPECT_EQ(Read().starts_with("bplist00"), GetParam()) << "the format stays";
        EXPECT_TRUE(CFEqual(SCPreferencesGetValue(Open().get(), CFSTR("Workgroup")), CFSTR("W")));
        EXPECT_EQ(Files(), Strings{"com.apple.smb.server.plist"});
    }
    std::string mReason;
};
INSTANTIATE_TEST_SUITE_P(Formats, SmbServiceByHand, testing::Bool(),
                         [](const auto &row) { return row.param ? "Binary" : "Xml"; });

TEST_P(SmbServiceByHand, IsSwitchedOnForGood)
{
    const std::string own = OwnMark(), dead = DeadMark();
    WriteServices({"print"});
    EXPECT_EQ(SmbServiceSwitchOn(mPath, &mReason), SmbChange::Done);
    ExpectServices({"print", "disk"}, "");
    WriteServices({"disk", "print"}, dead);
    EXPECT_EQ(SmbServiceSwitchOn(mPath, &mReason), SmbChange::Done) << "from then on nobody's";
    ExpectServices({"disk", "print"}, "");
    EXPECT_EQ(LockedServices(), (Strings{"disk", "print"}));
    WriteServices({"disk", "print"}, own);
    EXPECT_EQ(SmbServiceSwitchOn(mPath, &mReason), SmbChange::Done);
    ExpectServices({"disk", "print", "disk"}, "");
    ASSERT_TRUE(CommitServices({"print", "disk"})) << "the owner's end";
    ExpectServices({"print", "disk"}, "");
    const auto before = Status();
    EXPECT_EQ(SmbServiceSwitchOn(mPath, &mReason), SmbChange::None);
    EXPECT_EQ(Status().st_ino, before.st_ino);
    EXPECT_EQ(mReason, "");
}

TEST_P(SmbServiceByHand, IsSwitchedOffWhoeverSwitchedItOn)
{
    const std::string own = OwnMark(), dead = DeadMark();
    for (const std::string &mark : {std::string(), own, dead}) {
        WriteServices({"disk", "print", "disk", "disk", "Disk"}, mark);
        EXPECT_EQ(SmbServiceSwitchOff(mPath, &mReason), SmbChange::Done);
        ExpectServices({"print", "Disk"}, "");
    }
    EXPECT_EQ(SmbServiceSwitchOff(mPath, &mReason), SmbChange::None);
}

TEST_P(SmbServiceByHand, IsTakenBackFromADeadOwner)
{
    WriteServices({"print", "disk"}, DeadMark());
    EXPECT_EQ(SmbServiceTakeBack(mPath, false, &mReason), SmbChange::Done);
    ExpectServices({"print"}, "");
    WriteServices({"disk", "print", "disk"}, DeadMark());
    EXPECT_EQ(SmbServiceTakeBack(mPath, true, &mReason), SmbChange::Done);
    ExpectServices({"print", "disk"}, "");
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Nobody) << "the other one was somebody else's";
}

TEST_P(SmbServiceByHand, IsTakenBackFromNobodyElse)
{
    for (const std::string &mark : {std::string(), OwnMark()}) {
        WriteServices({"print", "disk"}, mark);
        EXPECT_EQ(SmbServiceTakeBack(mPath, true, &mReason), SmbChange::None);
        ExpectServices({"print", "disk"}, mark);
    }
}

TEST_F(SmbService, IsWantedAsTheFileSays)
{
    std::string reason;
    EXPECT_EQ(SmbServiceWanted(mPath, &reason), SmbWanted::No);
    DieHaving({"disk"});
    EXPECT_EQ(SmbServiceWanted(mPath, &reason), SmbWanted::Yes) << "until it is taken back";
    EXPECT_EQ(SmbServiceTakeBack(mPath, false, &reason), SmbChange::Done);
    EXPECT_EQ(SmbServiceWanted(mPath, &reason), SmbWanted::No);
    EXPECT_EQ(reason, "");
    Write("junk");
    EXPECT_EQ(SmbServiceWanted(mPath, &reason), SmbWanted::Unknown);
    EXPECT_EQ(reason, "it is damaged, or not a property list");
}

TEST_F(SmbService, OfAMissingFileCanBeSwitchedOn)
{
    std::string reason;
    EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Nobody);
    EXPECT_EQ(SmbServiceTakeBack(mPath, false, &reason), SmbChange::None);
    EXPECT_EQ(SmbServiceSwitchOff(mPath, &reason), SmbChange::None);
    EXPECT_EQ(Files(), Strings{});
    EXPECT_EQ(SmbServiceSwitchOn(mPath, &reason), SmbChange::Done);
    EXPECT_EQ(Services(), Strings{"disk"});
    EXPECT_EQ(Record(), "");
}

TEST_F(SmbService, WaitsForTheLockOnlyIfRequested)
{
    DieHaving({"disk"});
    std::string reason;
    // Made before the lock, which a child would inherit.
    Child waiting([&](const auto &ready) {
        ready();
        return SmbServiceTakeBack(mPath, true, &reason) == SmbChange::Done;
    });
    const Session session = Open();
    ASSERT_TRUE(SCPreferencesLock(session.get(), true));
    EXPECT_EQ(SmbServiceTakeBack(mPath, false, &reason), SmbChange::Busy);
    EXPECT_NE(reason, "");
    waiting.GoOn();
    EXPECT_EQ(Services(), Strings{"disk"});
    ASSERT_TRUE(SCPreferencesUnlock(session.get()));
    EXPECT_TRUE(waiting.Finish());
    EXPECT_EQ(Services(), Strings{});
}

// Between the look and the lock another program becomes the owner.
TEST_F(SmbService, IsNotTakenBackFromANewOwner)
{
    DieHaving({"disk"});
    sBeforeFlock = [&] {
        const Session session = Open();
        ASSERT_TRUE(SCPreferencesLock(session.get(), true));
        ASSERT_EQ(ServicesOf(session.get()), Strings{});
        ASSERT_TRUE(SetServices(session.get(), {"disk"}));
        ASSERT_TRUE(SCPreferencesCommitChanges(session.get()));
    };
    std::string reason;
    EXPECT_EQ(SmbServiceTakeBack(mPath, true, &reason), SmbChange::None);
    EXPECT_FALSE(sBeforeFlock);
    EXPECT_EQ(Services(), Strings{"disk"});
    EXPECT_EQ(Record(), OwnMark());
}

TEST_F(SmbService, IsLeftAloneInAMalformedFile)
{
    for (const std::string &bytes :
         {std::string("junk"), std::string("<plist><array/></plist>"),
          std::string(
              "<plist><dict><key>EnabledServices</key><string>disk</string></dict></plist>")}) {
        Replace(bytes);
        SetRecord(DeadMark());
        for (const auto &change : {SmbServiceSwitchOn, SmbServiceSwitchOff}) {
            std::string reason;
            EXPECT_EQ(change(mPath, &reason), SmbChange::Failed);
            EXPECT_NE(reason, "");
        }
        std::string reason;
        EXPECT_EQ(SmbServiceTakeBack(mPath, true, &reason), SmbChange::Failed);
        EXPECT_NE(reason, "");
        EXPECT_EQ(SmbServiceOwner(mPath), ServiceOwner::Nobody);
        EXPECT_EQ(Read(), bytes);
    }
}

TEST_F(SmbService, ThatCannotBeWrittenStaysAsItIs)
{
    Write(XmlServices({"disk"}));
    const std::string before = Read(), mark = DeadMark();
    SetRecord(mark);
    fs::create_directory(mPath + "-lock");
    std::string reason;
    EXPECT_EQ(SmbServiceTakeBack(mPath, true, &reason), SmbChange::Failed);
    EXPECT_EQ(reason, "Is a directory");
    fs::remove(mPath + "-lock");
    fs::create_directory(mPath + "-new");
    EXPECT_EQ(SmbServiceSwitchOff(mPath, &reason), SmbChange::Failed);
    EXPECT_EQ(reason, "Is a directory");
    EXPECT_EQ(Read(), before);
    EXPECT_EQ(Record(), mark);
}

TEST_F(SmbService, ChangesFullyOrNotAtAllWithoutMemory)
{
    const std::string mark = DeadMark();
    const auto takeBack = [](const std::string &path, std::string *reason) {
        return SmbServiceTakeBack(path, false, reason);
    };
    using Change = std::function<SmbChange(const std::string &, std::string *)>;
    for (const Change &change :
         {Change(SmbServiceSwitchOn), Change(SmbServiceSwitchOff), Change(takeBack)}) {
        SmbChange outcome = SmbChange::None;
        for (size_t granted = 0; outcome != SmbChange::Done; granted++) {
            ASSERT_LT(granted, 2000u);
            Replace(XmlServices({"print", "disk"}));
            SetRecord(mark);
            const std::string before = Read();
            outcome = SmbChange::None; // nor is it when memory runs out
            try {
                const OutOfNew outOfNew(granted);
                std::string reason;
                outcome = change(mPath, &reason);
            } catch (const std::bad_alloc &) {}
            if (outcome == SmbChange::Done) { break; }
            EXPECT_EQ(Read(), before) << granted;
            EXPECT_EQ(Record(), mark) << granted;
            EXPECT_TRUE(IsLockFree()) << granted;
        }
        EXPECT_EQ(Record(), "");
    }
}

} // namespace
