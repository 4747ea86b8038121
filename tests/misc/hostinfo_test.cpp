#include "hostinfo.h"

#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/wait.h>

namespace {

std::string OwnPath() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

TEST(HostinfoGetModulePath, IsThisProgramWithEitherPrivilege)
{
    EXPECT_EQ(Take(Hostinfo_GetModulePath(0)), OwnPath());
    EXPECT_EQ(Take(Hostinfo_GetModulePath(1)), OwnPath());
}

TEST(HostinfoGetModulePath, RefusesAnyOtherPrivilege)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(Hostinfo_GetModulePath(2), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Hostinfo_GetModulePath: invalid privilege parameter\n");
}

// Where "run as a child with a path of this length" is the whole job of a copy of this program.
std::string DeepPath(const std::string &top, size_t length)
{
    std::string path = top;
    while (length - path.size() > 201) {
        path += "/" + std::string(100, 'd');
    }
    std::filesystem::create_directories(path);
    return path + "/" + std::string(length - path.size() - 1, 'p');
}

std::string RunCopyAt(const std::string &path)
{
    std::filesystem::copy_file(OwnPath(), path);
    // The child answers with its own path, or with what it was told on standard error.
    FILE *answer = popen(("PELAGO_TELL_PATH=1 '" + path + "' 2>&1").c_str(), "r");
    std::string text;
    char bytes[4096];
    for (size_t n; (n = fread(bytes, 1, sizeof bytes, answer)) > 0;) {
        text.append(bytes, n);
    }
    pclose(answer);
    return text;
}

TEST(HostinfoGetModulePath, HoldsAPathOf1023BytesAndNoMore)
{
    const TemporaryFolder folder;
    const std::string fits = DeepPath(folder.Path(), 1023);
    EXPECT_EQ(RunCopyAt(fits), fits);
    EXPECT_EQ(RunCopyAt(DeepPath(folder.Path(), 1024)),
              "HOSTINFO: Hostinfo_GetModulePath: _NSGetExecutablePath failed.\n(none)");
}

// Before main(): the copy has nothing else to do.
const bool sTold = [] {
    if (getenv("PELAGO_TELL_PATH") != nullptr) {
        fputs(Take(Hostinfo_GetModulePath(1)).c_str(), stdout);
        fflush(stdout);
        _exit(0);
    }
    return false;
}();

} // namespace
