// The expansion of file names, and the functions that read property lists, without memory.
#include "noMemory.h"

#include "unicode.h"
#include "util.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include <CoreFoundation/CoreFoundation.h>

namespace {

const Ending NO_EXPANSION =
    Says("Util_ExpandString: Cannot allocate memory for the expansion of \"~/$NAME\".\n");
const Ending NO_VALUE =
    Says("Util_ExpandString: Cannot allocate memory to expand $ in \"~/$NAME\".\n");

// The allocations: the copy of the text, the home, the value, the result.
RUNS_OUT(Util_ExpandString, NO_EXPANSION, NO_EXPANSION, NO_VALUE, NO_EXPANSION)
{
    EXPECT_EQ(setenv("CFFIXED_USER_HOME", "/home", 1), 0);
    EXPECT_EQ(setenv("NAME", "value", 1), 0);
    return Gives("/home/value", Scarcely([] { return Util_ExpandString("~/$NAME"); }));
}

RUNS_OUT(Util_OverrideHomeDir, PANICS)
{
    const char *kept = Scarcely([] { return Util_OverrideHomeDir("/over"); });
    EXPECT_EQ(Util_OverrideHomeDir(nullptr), nullptr);
    return Gives("/over", const_cast<char *>(kept));
}

// The allocation before the system call; the case of Posix_RealPath() covers the system's answer.
RUNS_OUT(Util_CanonicalPath, PANICS)
{
    errno = 0;
    const bool isMissing = Scarcely([] { return Util_CanonicalPath("/nonexistent"); }) == nullptr;
    Unicode_Shutdown();
    return isMissing && errno == ENOENT;
}

NEEDS_NO_MEMORY(Util_IsEqualIgnoreCase)
{
    return Scarcely([] { return Util_IsEqualIgnoreCase("name", "NAME"); });
}

NEEDS_NO_MEMORY(Util_IsAbsolutePath)
{
    return Scarcely([] { return Util_IsAbsolutePath("/name"); });
}

NEEDS_NO_MEMORY(Util_IsIPv4Address)
{
    return Scarcely([] { return Util_IsIPv4Address("10.0.0.1"); });
}

NEEDS_NO_MEMORY(Util_IsIPv6Address)
{
    return Scarcely([] { return Util_IsIPv6Address("fe80::1%en0"); });
}

NEEDS_NO_MEMORY(Util_IsIPAddress)
{
    return Scarcely([] { return Util_IsIPAddress("fe80::1%en0"); });
}

const Ending NO_TEXT = Says("Failed to get C string from CFString.\n");

RUNS_OUT(Util_CFStringToUtf8, NO_TEXT)
{
    const CFStringRef string = CFSTR("text");
    return Gives("text", Scarcely([=] { return Util_CFStringToUtf8(string); }));
}

// Returns what the function reads from a property list with this content.
template <typename Read> CFDictionaryRef Dictionary(const std::string &content, Read read)
{
    const TemporaryFolder folder;
    const std::string path = folder.Path() + "/file.plist";
    std::ofstream(path) << "<plist version=\"1.0\">" << content << "</plist>\n";
    return read(path.c_str());
}

// Core Foundation uses an allocator of its own when it reads a file that exists.
NEEDS_NO_MEMORY(Util_ReadPlistDictionary)
{
    return Scarcely([] { return Util_ReadPlistDictionary("/no/such/list"); }) == nullptr;
}

// Read before the tests count blocks.
const CFDictionaryRef PRODUCT =
    Dictionary("<dict><key>ProductName</key><string>Pelago</string>"
               "<key>ProductVersion</key><string>15.0</string>"
               "<key>ProductBuildVersion</key><string>24A1</string></dict>",
               Util_ReadPlistDictionary);

NEEDS_NO_MEMORY(Util_ReleasePlistDictionary)
{
    CFRetain(PRODUCT);
    return Scarcely([] {
        Util_ReleasePlistDictionary(PRODUCT);
        return true;
    });
}

RUNS_OUT(Util_GetProductInfo, NO_TEXT)
{
    char *name = nullptr, *version = nullptr, *build = nullptr;
    if (!Scarcely([&] { return Util_GetProductInfo(PRODUCT, &name, &version, &build); })) {
        EXPECT_EQ(name, nullptr);
        EXPECT_EQ(version, nullptr);
        EXPECT_EQ(build, nullptr);
        return false;
    }
    return Gives("Pelago", name) && Gives("15.0", version) && Gives("24A1", build);
}

} // namespace
