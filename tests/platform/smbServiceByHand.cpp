// Tests of switching the SMB service on and off by hand.
#include "smbServiceForTests.h"

#include "outOfNew.h"
#include "propertyLists.h"
#include "smbService.h"

namespace {

class SmbServiceByHand : public SmbService, public testing::WithParamInterface<bool> {
protected:
    // Writes the file in the format that is tested.
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
    // The child is forked before the lock is taken: it would inherit the lock.
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

// Another program becomes the owner after the owner is looked up and before the lock is taken.
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
            outcome = SmbChange::None; // stays None when bad_alloc is thrown
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
