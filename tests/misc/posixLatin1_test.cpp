// The wrappers where the host's encoding is Latin-1: which bytes the C library receives, and which
// text the wrappers return.
#include "posix.h"

#include "allocations.h"
#include "codeset.h"
#include "hashTable.h"
#include "scopedForTests.h"
#include "unicode.h"
#include "useIcu.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern "C" const char *CodeSet_GetCurrentCodeSet() { return "ISO-8859-1"; }

// The key of the last value that was inserted into a table.
static std::string sKeptUnder;
extern "C" {
bool __real_HashTable_Insert(HashTable *table, const void *key, void *value);
bool __wrap_HashTable_Insert(HashTable *table, const void *key, void *value)
{
    sKeptUnder = static_cast<const char *>(key);
    return __real_HashTable_Insert(table, key, value);
}
}

namespace {

constexpr int ALONE = 77;
// The same name in UTF-8 and in the host's encoding, and a name that the host's encoding lacks.
constexpr char TEXT[] = "caf\xC3\xA9", HOST[] = "caf\xE9", LOST[] = "caf\xC4\x93";

class PosixLatin1 : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        UseIcu();
        free(Posix_RealPath("/")); // caches the names of encodings
    }
    void SetUp() override
    {
        std::filesystem::current_path(mFolder.Path());
        ASSERT_EQ(Unicode_GetCurrentEncoding(), STRING_ENCODING_ISO_8859_1);
    }
    void TearDown() override { std::filesystem::current_path("/"); }
    const TemporaryFolder mFolder;
};

TEST_F(PosixLatin1, NamesAreInTheHostsBytes)
{
    errno = ALONE;
    EXPECT_EQ(Posix_Mkdir(TEXT, 0700), 0);
    EXPECT_EQ(errno, ALONE);
    EXPECT_TRUE(std::filesystem::is_directory(HOST));
    EXPECT_EQ(Posix_Rename(TEXT, "\xC3\xBC"), 0);
    EXPECT_TRUE(std::filesystem::is_directory("\xFC"));
}

TEST_F(PosixLatin1, AnUnrepresentableNameIsNotLookedUp)
{
    std::ofstream(LOST) << "text";
    const ptrdiff_t before = Allocations::Live();
    errno = ALONE;
    EXPECT_EQ(Posix_Access(LOST, F_OK), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(Allocations::Live(), before);
}

TEST_F(PosixLatin1, AFailureKeepsTheCallsErrno)
{
    errno = ALONE;
    EXPECT_EQ(Posix_Unlink(TEXT), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(PosixLatin1, ALinksTargetComesBackInUtf8)
{
    ASSERT_EQ(Posix_Symlink(TEXT, "\xC3\xB6"), 0);
    EXPECT_EQ(std::filesystem::read_symlink("\xF6"), HOST);
    errno = ALONE;
    EXPECT_EQ(Take(Posix_ReadLink("\xC3\xB6")), TEXT);
    EXPECT_EQ(errno, ALONE);
}

TEST_F(PosixLatin1, ALongTargetIsWholeAlthoughItGrows)
{
    std::filesystem::create_symlink(std::string(2048, '\xE9'), "link");
    std::string utf8;
    for (int i = 0; i < 2048; i++) {
        utf8 += "\xC3\xA9";
    }
    EXPECT_EQ(Take(Posix_ReadLink("link")), utf8);
}

TEST_F(PosixLatin1, ARealPathComesBackInUtf8)
{
    std::filesystem::create_directory(HOST);
    std::filesystem::create_symlink(HOST, "link");
    EXPECT_EQ(Take(Posix_RealPath("link/.")), mFolder.Path() + "/" + TEXT);
}

TEST_F(PosixLatin1, ATemporaryNameComesBackInUtf8)
{
    std::filesystem::create_directory(HOST);
    errno = ALONE;
    const std::string name = Take(Posix_MkTemp("caf\xC3\xA9/\xC3\xBC.XXXXXX"));
    EXPECT_EQ(errno, ALONE);
    EXPECT_EQ(name.substr(0, 9), "caf\xC3\xA9/\xC3\xBC.");
    EXPECT_EQ(name.size(), 15u);
    EXPECT_TRUE(std::filesystem::is_empty(HOST));
}

TEST_F(PosixLatin1, TheEnvironmentIsInTheHostsBytes)
{
    EXPECT_EQ(Posix_Setenv(TEXT, "\xC3\xBC", 1), 0);
    EXPECT_STREQ(getenv(HOST), "\xFC");
    errno = ALONE;
    EXPECT_STREQ(Posix_Getenv(TEXT), "\xC3\xBC");
    EXPECT_EQ(errno, ALONE);
    EXPECT_EQ(Posix_Getenv(TEXT), Posix_Getenv(TEXT));
    EXPECT_EQ(sKeptUnder, TEXT) << "not under the host's bytes";
    EXPECT_EQ(Posix_Unsetenv(TEXT), 0);
    EXPECT_EQ(getenv(HOST), nullptr);
}

TEST_F(PosixLatin1, AnUnrepresentableValueIsNotSet)
{
    errno = ALONE;
    EXPECT_EQ(Posix_Setenv("PELAGO_LOST", LOST, 1), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(getenv("PELAGO_LOST"), nullptr);
}

TEST_F(PosixLatin1, ACommandIsInTheHostsBytes)
{
    EXPECT_EQ(Posix_System("echo text >caf\xC3\xA9"), 0);
    EXPECT_TRUE(std::filesystem::exists(HOST));
    FILE *output = Posix_Popen("cat caf\xC3\xA9", "r");
    ASSERT_NE(output, nullptr);
    char line[10] = {};
    EXPECT_STREQ(fgets(line, sizeof line, output), "text\n");
    EXPECT_EQ(pclose(output), 0);
}

TEST_F(PosixLatin1, AMessageIsInTheHostsBytes)
{
    EXPECT_EXIT(
        {
            errno = ENOENT;
            Posix_Perror(TEXT);
            _exit(errno);
        },
        testing::ExitedWithCode(ENOENT), testing::StrEq("caf\xE9: No such file or directory\n"));
}

TEST_F(PosixLatin1, AnUnrepresentableMessageIsLeftOut)
{
    EXPECT_EXIT(
        {
            const ptrdiff_t before = Allocations::Live();
            errno = ENOENT;
            Posix_Perror(LOST);
            _exit(Allocations::Live() == before ? errno : 100);
        },
        testing::ExitedWithCode(ENOENT), testing::StrEq("No such file or directory\n"));
}

// Returns a list whose element at index lost cannot be converted; an index past the end means none.
std::vector<char *> List(const std::vector<std::string> &texts, size_t lost, size_t first)
{
    static std::vector<std::string> kept[2];
    std::vector<std::string> &own = kept[first == 0 ? 0 : 1];
    own = texts;
    std::vector<char *> list;
    for (size_t i = 0; i < own.size(); i++) {
        if (first + i == lost) { own[i] = LOST; }
        list.push_back(own[i].data());
    }
    list.push_back(nullptr);
    return list;
}

TEST_F(PosixLatin1, ListsAreFreedWhicheverTextIsUnrepresentable)
{
    for (size_t lost = 0; lost <= 6; lost++) {
        SCOPED_TRACE(lost);
        std::vector<char *> argv = List({TEXT, "b", "c"}, lost, 0);
        std::vector<char *> envp = List({TEXT, "E=e", "F=f"}, lost, 3);
        const ptrdiff_t before = Allocations::Live();
        errno = ALONE;
        EXPECT_EQ(Posix_Execve("missing/caf\xC3\xA9", argv.data(), envp.data()), -1);
        EXPECT_EQ(errno, lost < 6 ? ERANGE : ENOENT);
        EXPECT_EQ(Allocations::Live(), before);
    }
}

// Checks the bytes that a program receives in its arguments and in an environment of its own.
TEST_F(PosixLatin1, ArgumentsAndEnvironmentAreInTheHostsBytes)
{
    std::ofstream("script") << "#!/bin/sh\nprintf '%s,%s' \"$1\" \"$PELAGO_NAME\" >out\n";
    std::filesystem::rename("script", HOST);
    std::filesystem::permissions(HOST, std::filesystem::perms(0700));
    const std::vector<char *> argv = List({"0", TEXT}, 9, 0);
    const std::vector<char *> envp = List({"PELAGO_NAME=\xC3\xBC"}, 9, 3);
    const auto execute = [&] { Posix_Execve(TEXT, argv.data(), envp.data()); };
    EXPECT_EXIT(execute(), testing::ExitedWithCode(0), "");
    std::string out;
    std::getline(std::ifstream("out"), out);
    EXPECT_EQ(out, "caf\xE9,\xFC");
}

} // namespace
