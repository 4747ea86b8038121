#include <mach-o/dyld.h>

#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

std::string OwnPath() { return std::filesystem::read_symlink("/proc/self/exe"); }

TEST(ExecutablePath, FitsWithItsTerminatorOrTellsTheSize)
{
    const std::string own = OwnPath();
    const auto needed = static_cast<uint32_t>(own.size() + 1);
    for (uint32_t size : {0u, 1u, needed - 1, needed, needed + 1, needed + 100}) {
        std::string buffer(needed + 100, 'x');
        uint32_t given = size;
        const bool fits = size >= needed;
        EXPECT_EQ(_NSGetExecutablePath(buffer.data(), &given), fits ? 0 : -1) << size;
        if (fits) {
            EXPECT_EQ(given, size);
            EXPECT_STREQ(buffer.c_str(), own.c_str());
        } else {
            EXPECT_EQ(given, needed);
            EXPECT_EQ(buffer, std::string(needed + 100, 'x')) << "untouched";
        }
    }
}

// The same program, as deep as paths may go.
TEST(ExecutablePath, IsWholeHoweverLong)
{
    const TemporaryFolder folder;
    std::string path = folder.Path();
    for (constexpr size_t LIMIT = 4096 - 200 - 10; path.size() < LIMIT;) {
        path += "/" + std::string(199, 'd');
    }
    std::filesystem::create_directories(path);
    path += "/program";
    std::filesystem::copy_file(OwnPath(), path);
    const std::string command =
        path + " --gtest_filter='*Terminator*:*Needs*' >" + folder.Path() + "/log";
    EXPECT_EQ(system(command.c_str()), 0);
    std::ifstream file(folder.Path() + "/log");
    const std::string log{std::istreambuf_iterator<char>(file), {}};
    EXPECT_NE(log.find("[  PASSED  ] 2 tests."), std::string::npos) << log;
}

TEST(ExecutablePath, NeedsNoBufferToTellTheSize)
{
    uint32_t size = 0;
    EXPECT_EQ(_NSGetExecutablePath(nullptr, &size), -1);
    EXPECT_EQ(size, OwnPath().size() + 1);
}

} // namespace
