#include "posix.h"

#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(PosixRealPath, ResolvesLinksAndDots)
{
    const TemporaryFolder folder;
    ASSERT_EQ(mkdir((folder.Path() + "/a").c_str(), 0700), 0);
    ASSERT_EQ(symlink("a", (folder.Path() + "/link").c_str()), 0);
    EXPECT_EQ(Take(Posix_RealPath((folder.Path() + "/link/../link/.").c_str())),
              Take(Posix_RealPath(folder.Path().c_str())) + "/a");
}

TEST(PosixRealPath, KeepsEveryByteOfAName)
{
    const TemporaryFolder folder;
    const std::string name = folder.Path() + "/ caf\xC3\xA9 \n$;";
    ASSERT_EQ(mkdir(name.c_str(), 0700), 0);
    EXPECT_EQ(Take(Posix_RealPath(name.c_str())), name);
}

TEST(PosixRealPath, TellsWhyNot)
{
    errno = 0;
    EXPECT_EQ(Posix_RealPath("/nonexistent/file"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(Posix_RealPath(nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
