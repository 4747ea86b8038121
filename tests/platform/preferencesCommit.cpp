// Tests of what a commit writes, and of what it keeps.
#include "preferencesForTests.h"

#include "propertyLists.h"

#include <chrono>
#include <thread>

namespace {

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
            error = SCError(); // each thread has its own last error
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
    fs::create_directory(mPath + "-new"); // a folder cannot be removed as a file is
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

} // namespace
