// Runs as root on a machine of its own: it writes the system's version files, and switches to
// another user.
#include "hostinfo.h"

#include "hostinfoInt.h"
#include "inChild.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <CoreFoundation/CoreFoundation.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/utsname.h>
#include <unistd.h>

using namespace pelago;

namespace {

constexpr char FOLDER[] = "/System/Library/CoreServices";

std::string Plist(const std::string &root)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + root +
           "</plist>\n";
}

std::string Key(const std::string &name, const std::string &value)
{
    return "<key>Product" + name + "</key>" + value;
}

std::string Text(const std::string &text) { return "<string>" + text + "</string>"; }

std::string Product(const std::string &name, const std::string &version, const std::string &build)
{
    return Plist("<dict>" + Key("Name", Text(name)) + Key("Version", Text(version)) +
                 Key("BuildVersion", Text(build)) + "</dict>");
}

std::string Kernel()
{
    utsname kernel;
    uname(&kernel);
    return std::string(kernel.sysname) + " " + kernel.release;
}

class HostinfoPlists : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::remove_all("/System");
        std::filesystem::create_directories(FOLDER);
    }
    void TearDown() override { std::filesystem::remove_all("/System"); }

    static void Write(const char *file, const std::string &content)
    {
        std::ofstream(std::string(FOLDER) + "/" + file, std::ios::binary) << content;
    }
    static void WriteServer(const std::string &content) { Write("ServerVersion.plist", content); }
    static void WriteSystem(const std::string &content) { Write("SystemVersion.plist", content); }

    // Returns the system's name without the kernel's, as a new process reads it.
    static std::string Name()
    {
        const Outcome outcome = InChild([] { return Take(Hostinfo_GetOSName()); });
        EXPECT_EQ(outcome.errors, "");
        EXPECT_TRUE(outcome.result.ends_with(Kernel())) << outcome.result;
        return outcome.result.substr(0, outcome.result.size() - Kernel().size());
    }
    static std::string Line()
    {
        const Outcome outcome = InChild([] { return Take(Hostinfo_GetOSDetailedData()); });
        EXPECT_EQ(outcome.errors, "");
        return outcome.result.substr(0, outcome.result.find(" familyName="));
    }
};

TEST_F(HostinfoPlists, NameTheSystem)
{
    WriteSystem(Product("Mac OS X", "10.15.7", "19H2"));
    EXPECT_EQ(Name(), "Mac OS X 10.15.7 (19H2) ");
    EXPECT_EQ(Line(), "architecture='X86' bitness='64' buildNumber='19H2' distroName='Mac OS X' "
                      "distroVersion='10.15.7'");
}

TEST_F(HostinfoPlists, NameTheServerFirst)
{
    WriteServer(Product("Mac OS X Server", "10.6", "10A432"));
    WriteSystem(Product("Mac OS X", "10.6.8", "10K549"));
    EXPECT_EQ(Name(), "Mac OS X Server 10.6 (10A432) ");
}

TEST_F(HostinfoPlists, SkipAnUnusableServerList)
{
    WriteSystem(Product("Mac OS X", "10.6.8", "10K549"));
    const std::string name = Key("Name", Text("Server")), version = Key("Version", Text("1")),
                      build = Key("BuildVersion", Text("B"));
    for (const std::string &content :
         {std::string(), std::string("no list"), Plist("<array/>"), Plist("<dict/>"),
          Plist("<dict>" + version + build + "</dict>"), Plist("<dict>" + name + build + "</dict>"),
          Plist("<dict>" + name + version + "</dict>"),
          Plist("<dict>" + name + version + Key("BuildVersion", "<integer>5</integer>") +
                "</dict>")}) {
        WriteServer(content);
        EXPECT_EQ(Name(), "Mac OS X 10.6.8 (10K549) ") << content;
    }
}

TEST_F(HostinfoPlists, MissingLeaveTheKernelsNameAlone)
{
    const Outcome outcome = InChild(
        [] { return Take(Hostinfo_GetOSName()) + "|" + Take(Hostinfo_GetOSDetailedData()); });
    EXPECT_TRUE(outcome.result.starts_with(
        Kernel() + "|architecture='X86' bitness='64' familyName='Linux' kernelVersion='"))
        << outcome.result;
    EXPECT_EQ(outcome.errors, "Log: HostinfoMacOS: Failed to read system version plist.\n");
}

// As on every Linux host, where the lists do not count as missing.
TEST_F(HostinfoPlists, AreNotMissedWithoutTheirFolder)
{
    std::filesystem::remove_all("/System");
    EXPECT_EQ(Name(), "");
}

TEST_F(HostinfoPlists, MayHoldAnyText)
{
    WriteSystem(Product("O'Brien", "\xE6\x97\xA5\xE6\x9C\xAC\\ \n", "B  "));
    EXPECT_EQ(Name(), "O'Brien \xE6\x97\xA5\xE6\x9C\xAC\\ \n (B  ) ");
    EXPECT_EQ(Line(), "architecture='X86' bitness='64' buildNumber='B' distroName='O\\'Brien' "
                      "distroVersion='\xE6\x97\xA5\xE6\x9C\xAC\\\\'");
}

TEST_F(HostinfoPlists, AreReadByTheirNamesOfOld)
{
    WriteSystem(Product("Mac OS X", "10.15.7", "19H2"));
    const __CFDictionary *list =
        HostinfoReadPlist("/System/Library/CoreServices/SystemVersion.plist");
    ASSERT_NE(list, nullptr);
    char *version = nullptr;
    EXPECT_TRUE(HostinfoGetProductInfo(list, nullptr, &version, nullptr));
    EXPECT_EQ(Take(version), "10.15.7");
    CFRelease(list);
    EXPECT_EQ(HostinfoReadPlist(FOLDER), nullptr);
    EXPECT_EQ(Take(HostinfoCFStringCopyCString(CFSTR("text"))), "text");
}

TEST(HostinfoProcessExistence, IsSoForAnotherUsersProcess)
{
    constexpr uid_t NOBODY = 65534;
    const Outcome outcome = InChild([] {
        EXPECT_EQ(setuid(NOBODY), 0);
        EXPECT_EQ(kill(getppid(), 0), -1) << "the case that is meant";
        return std::to_string(Hostinfo_QueryProcessExistence(getppid()));
    });
    EXPECT_EQ(outcome.result, std::to_string(HOSTINFO_PROCESS_QUERY_ALIVE));
}

} // namespace
