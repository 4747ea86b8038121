#include "codeset.h"

#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <fstream>
#include <unicode/putil.h>

namespace {

void MakeDataFile(const std::string &folder) { std::ofstream(folder + "/icudt44l.dat") << "data"; }

TEST(CodeSetInit, UsesIcuWhenItsDataFileIsThere)
{
    const TemporaryFolder folder;
    MakeDataFile(folder.Path());
    EXPECT_TRUE(CodeSet_Init(folder.Path().c_str()));
    EXPECT_TRUE(CodeSet_IsIcuInUse());
    EXPECT_EQ(u_getDataDirectory(), folder.Path() + "/icudt44l.dat") << "the file, not its folder";
}

TEST(CodeSetInit, AcceptsAFolderWithATrailingSlash)
{
    const TemporaryFolder folder;
    MakeDataFile(folder.Path());
    EXPECT_TRUE(CodeSet_Init((folder.Path() + "/").c_str()));
    EXPECT_TRUE(CodeSet_IsIcuInUse());
    EXPECT_EQ(u_getDataDirectory(), folder.Path() + "//icudt44l.dat") << "nothing is tidied";
}

TEST(CodeSetInit, SwitchesIcuOffWithoutADataFile)
{
    const TemporaryFolder with, without;
    MakeDataFile(with.Path());
    EXPECT_TRUE(CodeSet_Init(with.Path().c_str()));
    EXPECT_TRUE(CodeSet_Init(without.Path().c_str()));
    EXPECT_FALSE(CodeSet_IsIcuInUse()) << "a fresh look replaces what an earlier one found";
}

TEST(CodeSetInit, TakesAFolderOfThatNameForMissing)
{
    const TemporaryFolder folder;
    ASSERT_EQ(mkdir((folder.Path() + "/icudt44l.dat").c_str(), 0700), 0);
    EXPECT_TRUE(CodeSet_Init(folder.Path().c_str()));
    EXPECT_FALSE(CodeSet_IsIcuInUse());
}

// ICU opens the data file by its path, so the path may lead to any kind of file but a folder.
TEST(CodeSetInit, TakesAnyOtherKindOfFile)
{
    for (const char *target : {"/dev/null", "real.dat"}) {
        const TemporaryFolder folder;
        std::ofstream(folder.Path() + "/real.dat") << "data";
        ASSERT_EQ(symlink(target, (folder.Path() + "/icudt44l.dat").c_str()), 0);
        EXPECT_TRUE(CodeSet_Init(folder.Path().c_str()));
        EXPECT_TRUE(CodeSet_IsIcuInUse()) << target;
    }
    const TemporaryFolder folder;
    ASSERT_EQ(mkfifo((folder.Path() + "/icudt44l.dat").c_str(), 0600), 0);
    EXPECT_TRUE(CodeSet_Init(folder.Path().c_str()));
    EXPECT_TRUE(CodeSet_IsIcuInUse());
}

TEST(CodeSetInit, TakesALinkForWhatItLeadsTo)
{
    for (const char *target : {".", "nothing"}) {
        const TemporaryFolder folder;
        ASSERT_EQ(symlink(target, (folder.Path() + "/icudt44l.dat").c_str()), 0);
        EXPECT_TRUE(CodeSet_Init(folder.Path().c_str()));
        EXPECT_FALSE(CodeSet_IsIcuInUse()) << target;
    }
}

TEST(CodeSetInit, SwitchesIcuOffWhenLocationFindsNoRoot)
{
    const TemporaryFolder folder;
    MakeDataFile(folder.Path());
    CodeSet_Init(folder.Path().c_str());
    ASSERT_TRUE(CodeSet_IsIcuInUse());
    ASSERT_EQ(unsetenv("TARVEX_LOCATION_ROOT_FULLPATH"), 0);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(CodeSet_Init(nullptr));
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(CodeSet_IsIcuInUse());
}

TEST(CodeSetInit, UsesIcuOnlyWhenLocationFindsARoot)
{
    // This program is not one of the product's, and the product is not on this machine: there is no
    // root.
    ASSERT_EQ(unsetenv("TARVEX_LOCATION_ROOT_FULLPATH"), 0);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(CodeSet_Init(nullptr));
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(CodeSet_IsIcuInUse());

    const TemporaryFolder root;
    std::filesystem::create_directories(root.Path() + "/Contents/Library/icu");
    MakeDataFile(root.Path() + "/Contents/Library/icu");
    ASSERT_EQ(setenv("TARVEX_LOCATION_ROOT_FULLPATH", root.Path().c_str(), 1), 0);
    EXPECT_TRUE(CodeSet_Init(nullptr));
    EXPECT_TRUE(CodeSet_IsIcuInUse());
    ASSERT_EQ(unsetenv("TARVEX_LOCATION_ROOT_FULLPATH"), 0);
}

TEST(CodeSetDontUseIcu, SwitchesItOff)
{
    const TemporaryFolder folder;
    MakeDataFile(folder.Path());
    CodeSet_Init(folder.Path().c_str());
    ASSERT_TRUE(CodeSet_IsIcuInUse());
    CodeSet_DontUseIcu();
    EXPECT_FALSE(CodeSet_IsIcuInUse());
}

} // namespace
