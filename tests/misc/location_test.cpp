// Runs on a machine of its own as its root: it writes the product's fixed paths below /Library.
#include "location.h"

#include "allocations.h"
#include "codeset.h"
#include "hostinfo.h"
#include "inChild.h"
#include "posix.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <thread>

// The program's own path in one test: nullptr for the real path, "" for none.
static const char *sModulePath;
static bool sRealPathFails;

extern "C" {
char *__real_Hostinfo_GetModulePath(uint32_t privilege);
char *__wrap_Hostinfo_GetModulePath(uint32_t privilege)
{
    EXPECT_EQ(privilege, 1u);
    if (sModulePath == nullptr) { return __real_Hostinfo_GetModulePath(privilege); }
    return *sModulePath == '\0' ? nullptr : strdup(sModulePath);
}
char *__real_Posix_RealPath(const char *path);
char *__wrap_Posix_RealPath(const char *path)
{
    if (sModulePath != nullptr && !sRealPathFails) {
        return strdup(path); // this path need not exist
    }
    return sRealPathFails ? nullptr : __real_Posix_RealPath(path);
}
}

namespace {

constexpr char ROOT_VARIABLE[] = "TARVEX_LOCATION_ROOT_FULLPATH";
constexpr char LAST_USED_FOLDER[] = "/Library/Preferences/Tarvex Pelago";
constexpr char NEVER_RUN[] =
    "Warning: LocationGetRoot: Unable to determine the product location. It is "
    "likely that the product has never been run on this machine.\n";

void WriteLastUsed(const std::string &content)
{
    std::filesystem::create_directories(LAST_USED_FOLDER);
    std::ofstream(Location_GetLastUsedFile(), std::ios::binary) << content;
}

int LowestFreeDescriptor()
{
    const int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
}

class Location : public testing::Test {
protected:
    void SetUp() override
    {
        unsetenv(ROOT_VARIABLE);
        std::filesystem::remove_all(LAST_USED_FOLDER);
    }
};

TEST_F(Location, NamesItsFixedPaths)
{
    EXPECT_STREQ(Location_GetLastUsedFile(), "/Library/Preferences/Tarvex Pelago/lastLocationUsed");
    EXPECT_STREQ(Location_GetDefaultRoot(), "/Library/Application Support/Tarvex/Tarvex Pelago");
    EXPECT_EQ(CodeSetGetLocationFunc(), Location_Get);
}

struct KeyCase {
    const char *key, *relativePath;
};
class LocationKey : public testing::TestWithParam<KeyCase> {};
TEST_P(LocationKey, HasItsPlaceBelowTheRoot)
{
    const auto &[key, relativePath] = GetParam();
    EXPECT_STREQ(Location_GetRelative(key), relativePath);
    const Outcome outcome = InChild([key = key] {
        sModulePath = "/Applications/X.app/Contents/Library/shares/pelagoShareTool";
        Location_Init("shareTool");
        return Take(Location_Get(key));
    });
    EXPECT_EQ(outcome.result, std::string("/Applications/X.app") + relativePath);
    EXPECT_EQ(outcome.errors, "");
}
INSTANTIATE_TEST_SUITE_P(
    Table, LocationKey,
    testing::Values(KeyCase{"rootDir", ""}, KeyCase{"icuDir", "/Contents/Library/icu"},
                    KeyCase{"shareToolFile", "/Contents/Library/shares/pelagoShareTool"},
                    KeyCase{"shareAddUserFile", "/Contents/Library/shares/adduser.sh"},
                    KeyCase{"shareRmUserFile", "/Contents/Library/shares/rmuser.sh"},
                    KeyCase{"shareAddShareFile", "/Contents/Library/shares/addshare.sh"},
                    KeyCase{"shareRmShareFile", "/Contents/Library/shares/rmshare.sh"}),
    [](const auto &row) { return row.param.key; });

// Names that are almost keys are not keys.  None of them causes a message, whether or not there is
// a root.
constexpr const char *NO_KEYS[] = {
    "noSuchFile", "",        "ShareToolFile", "shareToolfile",  "shareToolFil", "shareToolFile2",
    "icuDi",      "icuDir/", "rootDi",        "rootDirectory",  " rootDir",     "rootDir ",
    "r",          "share",   "shareAddFile",  "shareRmUserFil",
};

std::string NoPathOfAnyOfThem()
{
    for (const char *key : NO_KEYS) {
        EXPECT_EQ(Location_GetRelative(key), nullptr) << key;
        EXPECT_EQ(Take(Location_Get(key)), "(none)") << key;
    }
    return "";
}

TEST_F(Location, SaysNothingAboutAnUnknownKey)
{
    const Outcome inTheBundle = InChild([] {
        Location_Init("shareTool");
        return NoPathOfAnyOfThem();
    });
    EXPECT_EQ(inTheBundle.errors, "");
    const Outcome withoutARoot = InChild(NoPathOfAnyOfThem);
    EXPECT_EQ(withoutARoot.errors, "");
    const Outcome aboveTheTop = InChild([] {
        sModulePath = "/tool";
        Location_Init("shareTool");
        return NoPathOfAnyOfThem();
    });
    EXPECT_EQ(aboveTheTop.errors, "");
    const Outcome asAnotherUser = InChild(
        [] { return seteuid(65534) == 0 ? NoPathOfAnyOfThem() : std::string("seteuid failed"); });
    EXPECT_EQ(asAnotherUser.result + asAnotherUser.errors, "");
}

TEST_F(Location, WarnsOfASecondInitialisationButStillClimbs)
{
    const Outcome outcome = InChild([] {
        sModulePath = "/r/Contents/Library/shares/tool";
        Location_Init("shareTool");
        Location_Init("shareTool");
        return Take(Location_Get("rootDir"));
    });
    EXPECT_EQ(outcome.result, "/r");
    EXPECT_EQ(
        outcome.errors,
        "Warning: Location_Init: Invalid initialization: sUpCount 4, processTag shareTool.\n");
}

TEST_F(Location, TreatsAnUnknownTagAsOutsideTheBundle)
{
    const Outcome outcome = InChild([] {
        setenv(ROOT_VARIABLE, "/elsewhere", 1);
        Location_Init("shareTool");
        Location_Init("sharetool");
        Location_Init("nobody");
        return Take(Location_Get("rootDir"));
    });
    EXPECT_EQ(outcome.result, "/elsewhere");
    EXPECT_EQ(outcome.errors,
              "Warning: Location_Init: Invalid initialization: sUpCount 4, processTag sharetool.\n"
              "Warning: Location_Init: Invalid initialization: sUpCount 0, processTag nobody.\n");
}

TEST_F(Location, ComparesTheWholeTag)
{
    for (const std::string tag :
         {"", "s", "share", "shareToo", "shareTool2", "shareTool ", "SHARETOOL"}) {
        const Outcome outcome = InChild([&] {
            setenv(ROOT_VARIABLE, "/elsewhere", 1);
            Location_Init(tag.c_str());
            return Take(Location_Get("rootDir"));
        });
        EXPECT_EQ(outcome.result, "/elsewhere") << tag;
        EXPECT_EQ(outcome.errors,
                  "Warning: Location_Init: Invalid initialization: sUpCount 0, processTag " + tag +
                      ".\n");
    }
}

// A change between two calls is seen: a folder's name, for example, may no longer lead to a bundle.
TEST_F(Location, FindsTheRootAnewEachTime)
{
    const Outcome outcome = InChild([] {
        setenv(ROOT_VARIABLE, "/first", 1);
        std::string roots = Take(Location_Get("rootDir"));
        setenv(ROOT_VARIABLE, "/second", 1);
        roots += Take(Location_Get("rootDir"));
        unsetenv(ROOT_VARIABLE);
        WriteLastUsed("/third");
        roots += Take(Location_Get("rootDir"));
        WriteLastUsed("/4th");
        roots += Take(Location_Get("rootDir"));
        Location_Init("shareTool");
        sModulePath = "/fifth/Contents/Library/shares/tool";
        roots += Take(Location_Get("rootDir"));
        sModulePath = "/6/Contents/Library/shares/tool";
        return roots + Take(Location_Get("rootDir"));
    });
    EXPECT_EQ(outcome.result, "/first/second/third/4th/fifth/6");
    EXPECT_EQ(outcome.errors, "");
}

TEST_F(Location, FindsTheRootAfterItWasNotThere)
{
    const Outcome outcome = InChild([] {
        const std::string before = Take(Location_Get("rootDir"));
        WriteLastUsed("/now");
        return before + Take(Location_Get("rootDir"));
    });
    EXPECT_EQ(outcome.result, "(none)/now");
}

// A root is bytes: it is no format string, may be long, and need not be text.
struct RootCase {
    const char *name;
    std::string root;
};
class LocationRoot : public testing::TestWithParam<RootCase> {};
TEST_P(LocationRoot, IsTakenByteByByte)
{
    const std::string &root = GetParam().root;
    const std::string expected = root + "/Contents/Library/icu";
    unsetenv(ROOT_VARIABLE);
    const Outcome climbed = InChild([&] {
        const std::string program = root + "/Contents/Library/shares/tool";
        sModulePath = program.c_str();
        Location_Init("shareTool");
        return Take(Location_Get("icuDir"));
    });
    EXPECT_EQ(climbed.result, expected);
    const Outcome fromEnvironment = InChild([&] {
        setenv(ROOT_VARIABLE, root.c_str(), 1);
        return Take(Location_Get("icuDir"));
    });
    EXPECT_EQ(fromEnvironment.result, expected);
    EXPECT_EQ(climbed.errors + fromEnvironment.errors, "");
    if (root.size() > 1023) { return; } // the last-used file takes at most that many bytes
    WriteLastUsed(root);
    const Outcome lastUsed = InChild([] { return Take(Location_Get("icuDir")); });
    EXPECT_EQ(lastUsed.result, expected);
    EXPECT_EQ(lastUsed.errors, "");
}
INSTANTIATE_TEST_SUITE_P(Bytes, LocationRoot,
                         testing::Values(RootCase{"AFormat", "/100%/%s%n%d%%"},
                                         RootCase{"Utf8", "/gr\xC3\xBC\xC3\x9F \xF0\x9F\x98\x80"},
                                         RootCase{"Latin1", "/gr\xFC\xDF\x80\xFE\xFF"},
                                         RootCase{"ControlCharacters", "/a\x01\t\r\nb\x7F"},
                                         RootCase{"ABackslash", "/a\\b\"c'"},
                                         RootCase{"Long", "/" + std::string(900, 'l')},
                                         RootCase{"VeryLong", "/" + std::string(100000, 'l')}),
                         [](const auto &row) { return row.param.name; });

TEST_F(Location, ClimbsFromTheProgramIgnoringAllOtherSources)
{
    WriteLastUsed("/lastUsed");
    const Outcome outcome = InChild([] {
        setenv(ROOT_VARIABLE, "/fromEnvironment", 1);
        Location_Init("shareTool");
        return Take(Location_Get("rootDir"));
    });
    std::filesystem::path root = std::filesystem::read_symlink("/proc/self/exe");
    for (int i = 0; i < 4; i++) {
        root = root.parent_path();
    }
    EXPECT_EQ(outcome.result, root.string());
    EXPECT_EQ(outcome.errors, "");
}

TEST_F(Location, CannotClimbAboveTheTop)
{
    const Outcome outcome = InChild([] {
        sModulePath = "/a/b/tool";
        Location_Init("shareTool");
        return Take(Location_Get("rootDir"));
    });
    EXPECT_EQ(outcome.result, "(none)");
    EXPECT_EQ(outcome.errors, "Warning: LocationGetRoot: sUpCount (4) is too large for \n")
        << "three cuts empty the path, the fourth finds nothing";
}

TEST_F(Location, ReachesTheTopItself)
{
    const Outcome outcome = InChild([] {
        sModulePath = "/Contents/Library/shares/tool";
        Location_Init("shareTool");
        return "<" + Take(Location_Get("rootDir")) + ">" + Take(Location_Get("icuDir"));
    });
    EXPECT_EQ(outcome.result, "<>/Contents/Library/icu");
    EXPECT_EQ(outcome.errors, "");
}

TEST_F(Location, SaysWhenTheProgramHasNoPath)
{
    const Outcome outcome = InChild([] {
        sModulePath = "";
        Location_Init("shareTool");
        return Take(Location_Get("rootDir"));
    });
    EXPECT_EQ(outcome.result, "(none)");
    EXPECT_EQ(outcome.errors, "Warning: LocationGetRoot: Unable to retrieve path to executable.");
}

TEST_F(Location, SaysWhenThePathIsNotReal)
{
    const Outcome outcome = InChild([] {
        sModulePath = "/gone/tool";
        sRealPathFails = true;
        Location_Init("shareTool");
        return Take(Location_Get("rootDir"));
    });
    EXPECT_EQ(outcome.result, "(none)");
    EXPECT_EQ(outcome.errors,
              "Warning: LocationGetRoot: Unable to get the realpath for /gone/tool");
}

TEST_F(Location, TakesTheEnvironmentsRootUnchanged)
{
    WriteLastUsed("/lastUsed");
    const auto withRoot = [](const char *root) {
        return InChild([root] {
            setenv(ROOT_VARIABLE, root, 1);
            return Take(Location_Get("icuDir"));
        });
    };
    EXPECT_EQ(withRoot("/opt/p").result, "/opt/p/Contents/Library/icu");
    EXPECT_EQ(withRoot("/opt/p/").result, "/opt/p//Contents/Library/icu");
    EXPECT_EQ(withRoot("").result, "/Contents/Library/icu") << "set to nothing is set, too";
    EXPECT_EQ(withRoot("").errors, "");
}

TEST_F(Location, SaysWhenTheEnvironmentCannotBeCopied)
{
    const Outcome outcome = InChild([] {
        setenv(ROOT_VARIABLE, "/opt/p", 1);
        const OutOfMemory none;
        return Take(Location_Get("rootDir"));
    });
    EXPECT_EQ(outcome.result, "(none)");
    EXPECT_EQ(outcome.errors,
              "Warning: LocationGetRoot: Unable to copy the environment variable.\n");
}

struct LastUsedCase {
    const char *name;
    std::string content, root;
};
class LocationLastUsedFile : public testing::TestWithParam<LastUsedCase> {};
TEST_P(LocationLastUsedFile, IsTheRootAsItStands)
{
    unsetenv(ROOT_VARIABLE);
    WriteLastUsed(GetParam().content);
    const Outcome outcome = InChild([] { return Take(Location_Get("icuDir")); });
    EXPECT_EQ(outcome.result, GetParam().root + "/Contents/Library/icu");
    EXPECT_EQ(outcome.errors, "");
}
INSTANTIATE_TEST_SUITE_P(Content, LocationLastUsedFile,
                         testing::Values(LastUsedCase{"Plain", "/opt/p", "/opt/p"},
                                         LastUsedCase{"Newline", "/opt/p\n", "/opt/p\n"},
                                         LastUsedCase{"Blanks", " /opt/p ", " /opt/p "},
                                         LastUsedCase{"CutAtItsFirstNul",
                                                      std::string("/opt\0/p", 7), "/opt"},
                                         LastUsedCase{"Empty", "", ""},
                                         LastUsedCase{"AsLongAsItMayBe", std::string(1023, 'p'),
                                                      std::string(1023, 'p')}),
                         [](const auto &row) { return row.param.name; });

TEST_F(Location, RefusesAnOverlongLastUsedFile)
{
    for (const size_t size : {1024, 1025, 100000}) {
        WriteLastUsed(std::string(size, 'p'));
        const Outcome outcome = InChild([] { return Take(Location_Get("rootDir")); });
        EXPECT_EQ(outcome.result, "(none)") << size;
        EXPECT_EQ(outcome.errors,
                  std::string("Log: LocationLastUsed: Failed opening lastLocationUsed.\n") +
                      NEVER_RUN);
    }
}

TEST_F(Location, ReadsLastUsedOnceAndClosesIt)
{
    std::filesystem::create_directories(LAST_USED_FOLDER);
    ASSERT_EQ(mkfifo(Location_GetLastUsedFile(), 0600), 0);
    const Outcome outcome = InChild([] {
        const int writer = open(Location_GetLastUsedFile(), O_RDWR);
        EXPECT_EQ(write(writer, "/first", 6), 6);
        const std::string root = Take(Location_Get("rootDir"));
        EXPECT_EQ(write(writer, "/second", 7), 7);
        const std::string next = Take(Location_Get("rootDir"));
        return root + next + (LowestFreeDescriptor() == writer + 1 ? " closed" : " left open");
    });
    EXPECT_EQ(outcome.result, "/first/second closed");
}

ptrdiff_t DescriptorsOfTheLastUsedFile()
{
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return std::count_if(begin(descriptors), end(descriptors), [](const auto &descriptor) {
        std::error_code gone; // the iterator's own descriptor
        return std::filesystem::read_symlink(descriptor, gone) == Location_GetLastUsedFile();
    });
}

TEST_F(Location, PassesTheLastUsedFileToNoChild)
{
    std::filesystem::create_directories(LAST_USED_FOLDER);
    ASSERT_EQ(mkfifo(Location_GetLastUsedFile(), 0600), 0);
    const Outcome outcome = InChild([] {
        const int writer = open(Location_GetLastUsedFile(), O_RDWR | O_CLOEXEC);
        std::string root;
        std::thread reader([&] { root = Take(Location_Get("rootDir")); });
        while (DescriptorsOfTheLastUsedFile() < 2) {
            std::this_thread::yield(); // until the file is open there, and the reader waits
        }
        const int status = system("ls -l /proc/self/fd | grep -q lastLocationUsed");
        EXPECT_EQ(write(writer, "/r", 2), 2);
        reader.join();
        return root + (WEXITSTATUS(status) == 1 ? " kept" : " given away");
    });
    EXPECT_EQ(outcome.result, "/r kept");
}

TEST_F(Location, SaysThatTheProductWasNeverRun)
{
    const Outcome outcome = InChild([] { return Take(Location_Get("rootDir")); });
    EXPECT_EQ(outcome.result, "(none)");
    EXPECT_EQ(outcome.errors,
              std::string("Log: LocationLastUsed: Failed opening lastLocationUsed.\n") + NEVER_RUN);
}

TEST_F(Location, TreatsReadFailuresAsOpenFailures)
{
    std::filesystem::create_directories(Location_GetLastUsedFile()); // opens, but cannot be read
    const Outcome outcome = InChild([] {
        const int before = LowestFreeDescriptor();
        const std::string root = Take(Location_Get("rootDir"));
        return root + (LowestFreeDescriptor() == before ? " closed" : " left open");
    });
    EXPECT_EQ(outcome.result, "(none) closed");
    EXPECT_EQ(outcome.errors,
              std::string("Log: LocationLastUsed: Failed opening lastLocationUsed.\n") + NEVER_RUN);
}

// An administrator may keep the last-used file elsewhere.
TEST_F(Location, FollowsLinksToTheLastUsedFile)
{
    const TemporaryFolder folder;
    const std::string elsewhere = folder.Path() + "/elsewhere";
    std::ofstream(elsewhere) << "/opt/p";
    std::filesystem::create_directories(LAST_USED_FOLDER);
    std::filesystem::create_symlink(elsewhere, Location_GetLastUsedFile());
    EXPECT_EQ(InChild([] { return Take(Location_Get("rootDir")); }).result, "/opt/p");

    std::filesystem::remove_all(LAST_USED_FOLDER);
    std::ofstream(folder.Path() + "/lastLocationUsed") << "/opt/q";
    std::filesystem::create_directory_symlink(folder.Path(), LAST_USED_FOLDER);
    EXPECT_EQ(InChild([] { return Take(Location_Get("rootDir")); }).result, "/opt/q");
}

TEST_F(Location, LogsThatTheLastRootCannotBeCopied)
{
    WriteLastUsed("/opt/p");
    const Outcome outcome = InChild([] {
        const OutOfMemory none;
        return Take(Location_Get("rootDir"));
    });
    EXPECT_EQ(outcome.result, "(none)");
    EXPECT_EQ(outcome.errors,
              std::string("Log: LocationLastUsed: Failed to copy last used path: /opt/p\n") +
                  NEVER_RUN);
}

// Any user may have started a set-user-ID program, and any user may own it.
struct UserCase {
    const char *name;
    uid_t real, effective;
};
class LocationSetUserId : public testing::TestWithParam<UserCase> {};
TEST_P(LocationSetUserId, TrustsNobody)
{
    const auto rootsOf = [](const char *variable) {
        return InChild([variable] {
            unsetenv(ROOT_VARIABLE);
            if (variable != nullptr) { setenv(ROOT_VARIABLE, variable, 1); }
            if (setreuid(GetParam().real, GetParam().effective) != 0) {
                return std::string("setreuid failed");
            }
            return Take(Location_Get("rootDir")) + Take(Location_Get("icuDir"));
        });
    };
    WriteLastUsed("/lastUsed");
    for (const char *variable : {"/fromEnvironment", "", static_cast<const char *>(nullptr)}) {
        const Outcome outcome = rootsOf(variable);
        EXPECT_EQ(outcome.result, "(none)(none)");
        EXPECT_EQ(outcome.errors,
                  "Warning: LocationGetRoot: Cannot get location root of a setuid process.\n"
                  "Warning: LocationGetRoot: Cannot get location root of a setuid process.\n");
    }
}
INSTANTIATE_TEST_SUITE_P(Users, LocationSetUserId,
                         testing::Values(UserCase{"StartedByRoot", 0, 65534},
                                         UserCase{"OfRoot", 65534, 0},
                                         UserCase{"OfAnother", 65534, 65533},
                                         UserCase{"OfTheNext", 1000, 1001}),
                         [](const auto &row) { return row.param.name; });

// The twins of these cases: only the two user IDs count, for any user, and the group's IDs do not.
TEST_F(Location, TrustsWhoeverStartedAProgramOfHisOwn)
{
    WriteLastUsed("/lastUsed");
    for (const uid_t user : {0u, 65533u, 65534u}) {
        for (const gid_t group : {0u, 65533u}) {
            const Outcome outcome = InChild([&] {
                const bool isSet = setregid(65534, group) == 0 && setreuid(user, user) == 0;
                if (!isSet) { return std::string("no such user or group"); }
                const std::string lastUsed = Take(Location_Get("rootDir"));
                setenv(ROOT_VARIABLE, "/fromEnvironment", 1);
                return lastUsed + Take(Location_Get("rootDir"));
            });
            EXPECT_EQ(outcome.result, "/lastUsed/fromEnvironment") << user << ", " << group;
            EXPECT_EQ(outcome.errors, "");
        }
    }
}

TEST_F(Location, DoesNotMindAnotherUserInsideTheBundle)
{
    const Outcome outcome = InChild([] {
        sModulePath = "/r/Contents/Library/shares/tool";
        Location_Init("shareTool");
        return seteuid(65534) == 0 ? Take(Location_Get("rootDir")) : std::string("seteuid failed");
    });
    EXPECT_EQ(outcome.result, "/r");
    EXPECT_EQ(outcome.errors, "");
}

} // namespace
