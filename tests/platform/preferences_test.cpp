// Tests of the preferences session: call by call, between processes, and on damaged files.  They
// run as root in a sandbox, for they become another user, mount, and write in the system's folder.
#include "preferencesForTests.h"

#include "propertyLists.h"

#include <chrono>
#include <thread>

namespace {

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
    // The value lives on, whatever else is done with the session.
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
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // file times advance in steps
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

// Each process adds its own service and removes it again, under the lock.  No change is lost.
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
