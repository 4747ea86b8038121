#include "codeset.h"

#include "../../lib/misc/codesetInt.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <fstream>
#include <unicode/putil.h>

using namespace pelago;

namespace {

void MakeDataFile(const std::string &folder) { std::ofstream(folder + "/icudt44l.dat") << "data"; }

TEST(CodeSetInit, UsesIcuWhenItsDataFileIsThere)
{
    const TemporaryFolder folder;
    MakeDataFile(folder.Path());
    EXPECT_TRUE(CodeSet_Init(folder.Path().c_str()));
    EXPECT_TRUE(CodeSetUsesIcu());
    EXPECT_EQ(u_getDataDirectory(), folder.Path() + "/icudt44l.dat") << "the file, not its folder";
}

TEST(CodeSetInit, TakesAFolderWithASlashAtItsEnd)
{
    const TemporaryFolder folder;
    MakeDataFile(folder.Path());
    EXPECT_TRUE(CodeSet_Init((folder.Path() + "/").c_str()));
    EXPECT_TRUE(CodeSetUsesIcu());
    EXPECT_EQ(u_getDataDirectory(), folder.Path() + "//icudt44l.dat") << "nothing is tidied";
}

TEST(CodeSetInit, GoesWithoutIcuWhenThereIsNoDataFile)
{
    const TemporaryFolder with, without;
    MakeDataFile(with.Path());
    EXPECT_TRUE(CodeSet_Init(with.Path().c_str()));
    EXPECT_TRUE(CodeSet_Init(without.Path().c_str()));
    EXPECT_FALSE(CodeSetUsesIcu()) << "a fresh look replaces what an earlier one found";
}

TEST(CodeSetInit, TakesAFolderOfThatNameForMissing)
{
    const TemporaryFolder folder;
    ASSERT_EQ(mkdir((folder.Path() + "/icudt44l.dat").c_str(), 0700), 0);
    EXPECT_TRUE(CodeSet_Init(folder.Path().c_str()));
    EXPECT_FALSE(CodeSetUsesIcu());
}

TEST(CodeSetInit, AsksTheLocationServiceAndGoesWithoutIcuWhenItHasNoAnswer)
{
    // This program is not one of the product's, and the machine has no product: no root.
    ASSERT_EQ(unsetenv("TARVEX_LOCATION_ROOT_FULLPATH"), 0);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(CodeSet_Init(nullptr));
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(CodeSetUsesIcu());

    const TemporaryFolder root;
    std::filesystem::create_directories(root.Path() + "/Contents/Library/icu");
    MakeDataFile(root.Path() + "/Contents/Library/icu");
    ASSERT_EQ(setenv("TARVEX_LOCATION_ROOT_FULLPATH", root.Path().c_str(), 1), 0);
    EXPECT_TRUE(CodeSet_Init(nullptr));
    EXPECT_TRUE(CodeSetUsesIcu());
    ASSERT_EQ(unsetenv("TARVEX_LOCATION_ROOT_FULLPATH"), 0);
}

TEST(CodeSetDontUseIcu, SwitchesItOff)
{
    const TemporaryFolder folder;
    MakeDataFile(folder.Path());
    CodeSet_Init(folder.Path().c_str());
    ASSERT_TRUE(CodeSetUsesIcu());
    CodeSet_DontUseIcu();
    EXPECT_FALSE(CodeSetUsesIcu());
}

} // namespace
