#include "util.h"

#include "allocations.h"
#include "scopedForTests.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <CoreFoundation/CoreFoundation.h>

// ---- The calls that fail on demand

namespace {

bool sUrlFault, sStreamFault, sOpenFault, sHasNoDirectText, sTextFault, sIsTooLong;
CFTypeRef sUrl, sStream, sList; // the objects made last
std::vector<CFTypeRef> sClosed, sReleased;
bool sIsParsed;
std::vector<std::string> sKeys; // that were looked up
std::string sLogged;

} // namespace

extern "C" {
CFURLRef __real_CFURLCreateFromFileSystemRepresentation(CFAllocatorRef, const UInt8 *, CFIndex,
                                                        Boolean);
CFURLRef __wrap_CFURLCreateFromFileSystemRepresentation(CFAllocatorRef allocator, const UInt8 *path,
                                                        CFIndex size, Boolean isDirectory)
{
    EXPECT_FALSE(isDirectory);
    if (sUrlFault) { return nullptr; }
    const CFURLRef url =
        __real_CFURLCreateFromFileSystemRepresentation(allocator, path, size, isDirectory);
    sUrl = url;
    return url;
}
CFReadStreamRef __real_CFReadStreamCreateWithFile(CFAllocatorRef, CFURLRef);
CFReadStreamRef __wrap_CFReadStreamCreateWithFile(CFAllocatorRef allocator, CFURLRef url)
{
    if (sStreamFault) { return nullptr; }
    const CFReadStreamRef stream = __real_CFReadStreamCreateWithFile(allocator, url);
    sStream = stream;
    return stream;
}
Boolean __real_CFReadStreamOpen(CFReadStreamRef);
Boolean __wrap_CFReadStreamOpen(CFReadStreamRef stream)
{
    return !sOpenFault && __real_CFReadStreamOpen(stream);
}
void __real_CFReadStreamClose(CFReadStreamRef);
void __wrap_CFReadStreamClose(CFReadStreamRef stream)
{
    sClosed.push_back(stream);
    __real_CFReadStreamClose(stream);
}
CFPropertyListRef __real_CFPropertyListCreateWithStream(CFAllocatorRef, CFReadStreamRef, CFIndex,
                                                        CFOptionFlags, CFPropertyListFormat *,
                                                        CFErrorRef *);
CFPropertyListRef __wrap_CFPropertyListCreateWithStream(CFAllocatorRef allocator,
                                                        CFReadStreamRef stream, CFIndex size,
                                                        CFOptionFlags options,
                                                        CFPropertyListFormat *format,
                                                        CFErrorRef *error)
{
    sIsParsed = true;
    EXPECT_EQ(options, static_cast<CFOptionFlags>(kCFPropertyListImmutable));
    sList = __real_CFPropertyListCreateWithStream(allocator, stream, size, options, format, error);
    std::erase(sReleased, sList); // forgets the reader's own releases
    return sList;
}
void __real_CFRelease(CFTypeRef);
void __wrap_CFRelease(CFTypeRef object)
{
    sReleased.push_back(object);
    __real_CFRelease(object);
}
const char *__real_CFStringGetCStringPtr(CFStringRef, CFStringEncoding);
const char *__wrap_CFStringGetCStringPtr(CFStringRef string, CFStringEncoding encoding)
{
    EXPECT_EQ(encoding, static_cast<CFStringEncoding>(kCFStringEncodingUTF8));
    return sHasNoDirectText ? nullptr : __real_CFStringGetCStringPtr(string, encoding);
}
Boolean __real_CFStringGetCString(CFStringRef, char *, CFIndex, CFStringEncoding);
Boolean __wrap_CFStringGetCString(CFStringRef string, char *buffer, CFIndex size,
                                  CFStringEncoding encoding)
{
    return !sTextFault && __real_CFStringGetCString(string, buffer, size, encoding);
}
CFIndex __real_CFStringGetMaximumSizeForEncoding(CFIndex, CFStringEncoding);
CFIndex __wrap_CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding)
{
    return sIsTooLong ? CFIndex{kCFNotFound}
                      : __real_CFStringGetMaximumSizeForEncoding(length, encoding);
}
const void *__real_CFDictionaryGetValue(CFDictionaryRef, const void *);
const void *__wrap_CFDictionaryGetValue(CFDictionaryRef dictionary, const void *key)
{
    sKeys.emplace_back(
        __real_CFStringGetCStringPtr(static_cast<CFStringRef>(key), kCFStringEncodingUTF8));
    return __real_CFDictionaryGetValue(dictionary, key);
}
void __attribute__((format(printf, 1, 2))) __wrap_Pelago_Log(const char *format, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    sLogged += text;
}
}

namespace {

class UtilPlist : public testing::Test {
protected:
    void SetUp() override
    {
        sUrlFault = sStreamFault = sOpenFault = sHasNoDirectText = sTextFault = sIsTooLong = false;
        sUrl = sStream = sList = nullptr;
        sIsParsed = false;
        sClosed.clear();
        sReleased.clear();
        sKeys.clear();
        sLogged.clear();
    }
};

// Checks at the end of the block that all strings made in it have been freed.  Not for use around
// files: their reader frees texts that our allocator did not allocate.
class NothingIsLeft {
public:
    NothingIsLeft() = default;
    NothingIsLeft(const NothingIsLeft &) = delete;
    NothingIsLeft &operator=(const NothingIsLeft &) = delete;
    ~NothingIsLeft() { EXPECT_EQ(Allocations::Live(), mBefore); }

private:
    const ptrdiff_t mBefore = Allocations::Live();
};

// ---- Strings

constexpr char NO_TEXT[] = "Failed to get C string from CFString.\n";

struct TextCase {
    const char *name;
    std::string text;
};
class UtilCFString : public UtilPlist, public testing::WithParamInterface<TextCase> {
protected:
    static std::string Converted()
    {
        const CFStringRef string = CFStringCreateWithCString(
            kCFAllocatorDefault, GetParam().text.c_str(), kCFStringEncodingUTF8);
        const NothingIsLeft strings;
        const std::string text = Take(Util_CFStringToUtf8(string));
        CFRelease(string);
        return text;
    }
};
TEST_P(UtilCFString, IsCopiedDirectly)
{
    sTextFault = sIsTooLong = true; // these calls are not made then
    EXPECT_EQ(Converted(), GetParam().text);
    EXPECT_EQ(sLogged, "");
}
TEST_P(UtilCFString, IsConvertedWithoutADirectPointer)
{
    sHasNoDirectText = true;
    EXPECT_EQ(Converted(), GetParam().text);
    EXPECT_EQ(sLogged, "");
}
INSTANTIATE_TEST_SUITE_P(Of, UtilCFString,
                         testing::Values(TextCase{"Nothing", ""}, TextCase{"Ascii", "15.0"},
                                         TextCase{"TwoBytes", "\xC3\xA9\xC3\xA9"},
                                         TextCase{"ThreeBytes", "\xE2\x82\xAC\xE2\x82\xAC"},
                                         TextCase{"FourBytes", "\xF0\x9F\x98\x80"},
                                         TextCase{"Much", std::string(10000, 'x')}),
                         [](const auto &row) { return row.param.name; });

TEST_F(UtilPlist, AllocatesThreeBytesPerUnitToConvert)
{
    sHasNoDirectText = true;
    const auto sizes =
        Allocations::SizesIn([] { EXPECT_EQ(Take(Util_CFStringToUtf8(CFSTR("abcd"))), "abcd"); });
    EXPECT_EQ(sizes, std::vector<size_t>{4 * 3 + 1});
}

// Expects no text, and one message about it.
void ExpectNoText(CFStringRef string)
{
    const NothingIsLeft strings;
    EXPECT_EQ(Util_CFStringToUtf8(string), nullptr);
    EXPECT_EQ(sLogged, NO_TEXT);
}

TEST_F(UtilPlist, SaysWhenAStringCannotBeCopied)
{
    const OutOfMemory none;
    ExpectNoText(CFSTR("text"));
}

TEST_F(UtilPlist, SaysWhenThereIsNoRoomToConvert)
{
    sHasNoDirectText = true;
    const OutOfMemory none;
    ExpectNoText(CFSTR("text"));
}

TEST_F(UtilPlist, SaysWhenAStringCannotBeConverted)
{
    sHasNoDirectText = sTextFault = true;
    ExpectNoText(CFSTR("text"));
}

TEST_F(UtilPlist, LogsAStringTooLongToConvert)
{
    sHasNoDirectText = sIsTooLong = true;
    ExpectNoText(CFSTR("text"));
}

// ---- Files

std::string Plist(const std::string &content)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + content +
           "</plist>\n";
}
const std::string DICTIONARY = Plist("<dict><key>ProductName</key><string>Pelago</string></dict>");

long Count(const std::vector<CFTypeRef> &objects, CFTypeRef object)
{
    return std::count(objects.begin(), objects.end(), object);
}

class UtilPlistFile : public UtilPlist {
protected:
    CFDictionaryRef Read(const std::string &content)
    {
        std::ofstream(Path(), std::ios::binary) << content;
        return Util_ReadPlistDictionary(Path().c_str());
    }
    std::string Path() const { return mFolder.Path() + "/file.plist"; }
    const TemporaryFolder &Folder() const { return mFolder; }
    void TearDown() override
    {
        // All objects that were made are released, except the returned one.
        if (sUrl != nullptr) { EXPECT_EQ(Count(sReleased, sUrl), 1); }
        if (sStream != nullptr) {
            EXPECT_EQ(Count(sClosed, sStream), 1);
            EXPECT_EQ(Count(sReleased, sStream), 1);
        }
        if (sList != nullptr) { EXPECT_EQ(Count(sReleased, sList), 1); }
        EXPECT_EQ(open("/dev/null", O_RDONLY | O_CLOEXEC), mFree) << "the file is closed";
        close(mFree);
        EXPECT_EQ(sLogged, "");
    }
    void SetUp() override
    {
        UtilPlist::SetUp();
        mFree = open("/dev/null", O_RDONLY | O_CLOEXEC);
        close(mFree);
    }

private:
    const TemporaryFolder mFolder;
    int mFree = -1;
};

TEST_F(UtilPlistFile, GivesTheDictionary)
{
    const CFDictionaryRef dictionary = Read(DICTIONARY);
    ASSERT_NE(dictionary, nullptr);
    EXPECT_EQ(dictionary, sList);
    EXPECT_EQ(Count(sReleased, sList), 0) << "it is the caller's";
    EXPECT_EQ(CFDictionaryGetCount(dictionary), 1);
    EXPECT_TRUE(CFEqual(CFDictionaryGetValue(dictionary, CFSTR("ProductName")), CFSTR("Pelago")));
    CFRelease(dictionary);
}

TEST_F(UtilPlistFile, IsReleasedForAProgramThatCannotItself)
{
    const CFDictionaryRef dictionary = Read(DICTIONARY);
    ASSERT_NE(dictionary, nullptr);
    Util_ReleasePlistDictionary(dictionary);
    EXPECT_EQ(Count(sReleased, dictionary), 1);
    Util_ReleasePlistDictionary(nullptr);
}

TEST_F(UtilPlistFile, GivesABinaryDictionary)
{
    const char binary[] =
        "bplist00\xD1\x01\x02\x51\x61\x51\x62\x08\x0B\x0D" // {"a": "b"}
        "\0\0\0\0\0\0\x01\x01\0\0\0\0\0\0\0\x03\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x0F";
    const CFDictionaryRef dictionary = Read(std::string(binary, sizeof binary - 1));
    ASSERT_NE(dictionary, nullptr);
    EXPECT_TRUE(CFEqual(CFDictionaryGetValue(dictionary, CFSTR("a")), CFSTR("b")));
    CFRelease(dictionary);
}

TEST_F(UtilPlistFile, GivesAnEmptyDictionary)
{
    const CFDictionaryRef dictionary = Read(Plist("<dict/>"));
    ASSERT_NE(dictionary, nullptr);
    EXPECT_EQ(CFDictionaryGetCount(dictionary), 0);
    CFRelease(dictionary);
}

TEST_F(UtilPlistFile, FollowsALink)
{
    std::filesystem::create_symlink("file.plist", Folder().Path() + "/link");
    std::ofstream(Path()) << DICTIONARY;
    const CFDictionaryRef dictionary =
        Util_ReadPlistDictionary((Folder().Path() + "/link").c_str());
    ASSERT_NE(dictionary, nullptr);
    CFRelease(dictionary);
}

TEST_F(UtilPlistFile, CallsNoCoreFoundationForAMissingFile)
{
    EXPECT_EQ(Util_ReadPlistDictionary(Path().c_str()), nullptr);
    EXPECT_EQ(sUrl, nullptr);
    EXPECT_EQ(Util_ReadPlistDictionary(""), nullptr);
    EXPECT_EQ(sUrl, nullptr);
    const std::string link = Folder().Path() + "/link";
    std::filesystem::create_symlink("missing", link);
    EXPECT_EQ(Util_ReadPlistDictionary(link.c_str()), nullptr);
    EXPECT_EQ(sUrl, nullptr);
}

TEST_F(UtilPlistFile, GivesNothingWhenItCannotBeRead)
{
    EXPECT_EQ(Util_ReadPlistDictionary("/proc/self/mem"), nullptr);
    EXPECT_NE(sStream, nullptr);
    EXPECT_EQ(sList, nullptr);
}

TEST_F(UtilPlistFile, IsNoFolder)
{
    EXPECT_EQ(Util_ReadPlistDictionary(Folder().Path().c_str()), nullptr);
    EXPECT_NE(sUrl, nullptr);
}

struct NoDictionaryCase {
    const char *name;
    std::string content;
    bool isList;
};
class UtilPlistOther : public UtilPlistFile,
                       public testing::WithParamInterface<NoDictionaryCase> {};
TEST_P(UtilPlistOther, IsNoDictionary)
{
    EXPECT_EQ(Read(GetParam().content), nullptr);
    EXPECT_EQ(sList != nullptr, GetParam().isList);
}
INSTANTIATE_TEST_SUITE_P(
    Content, UtilPlistOther,
    testing::Values(NoDictionaryCase{"Nothing", "", false},
                    NoDictionaryCase{"Text", "no property list", false},
                    NoDictionaryCase{"CutShort", DICTIONARY.substr(0, 80), false},
                    NoDictionaryCase{"Array", Plist("<array><dict/></array>"), true},
                    NoDictionaryCase{"String", Plist("<string>text</string>"), true}),
    [](const auto &row) { return row.param.name; });

TEST_F(UtilPlistFile, NeedsAnAddress)
{
    sUrlFault = true;
    EXPECT_EQ(Read(DICTIONARY), nullptr);
    EXPECT_EQ(sStream, nullptr);
}

TEST_F(UtilPlistFile, NeedsAStream)
{
    sStreamFault = true;
    EXPECT_EQ(Read(DICTIONARY), nullptr);
    EXPECT_NE(sUrl, nullptr);
}

TEST_F(UtilPlistFile, NeedsAnOpenStream)
{
    sOpenFault = true;
    EXPECT_EQ(Read(DICTIONARY), nullptr);
    EXPECT_NE(sStream, nullptr);
    EXPECT_FALSE(sIsParsed);
}

// ---- Products

// The dictionary of an XML property list with this content.
class Product {
public:
    explicit Product(const std::string &content)
    {
        const TemporaryFolder folder;
        const std::string path = folder.Path() + "/product.plist";
        std::ofstream(path) << Plist("<dict>" + content + "</dict>");
        mDictionary = Util_ReadPlistDictionary(path.c_str());
        EXPECT_NE(mDictionary, nullptr);
    }
    Product(const Product &) = delete;
    Product &operator=(const Product &) = delete;
    ~Product() { CFRelease(mDictionary); }
    operator CFDictionaryRef() const { return mDictionary; }

private:
    CFDictionaryRef mDictionary = nullptr;
};

const std::string NAME = "<key>ProductName</key><string>Pelago</string>",
                  VERSION = "<key>ProductVersion</key><string>15.0</string>",
                  BUILD = "<key>ProductBuildVersion</key><string>24A1</string>",
                  OTHERS = "<key>Name</key><string>x</string>";

char sBefore[] = "what was there before";

TEST_F(UtilPlist, GivesNameVersionAndBuild)
{
    const Product product(OTHERS + BUILD + VERSION + NAME);
    const NothingIsLeft strings;
    char *name = nullptr, *version = nullptr, *build = nullptr;
    EXPECT_TRUE(Util_GetProductInfo(product, &name, &version, &build));
    EXPECT_EQ(Take(name), "Pelago");
    EXPECT_EQ(Take(version), "15.0");
    EXPECT_EQ(Take(build), "24A1");
    EXPECT_EQ(sKeys,
              (std::vector<std::string>{"ProductName", "ProductVersion", "ProductBuildVersion"}));
}

TEST_F(UtilPlist, GivesOnlyWhatIsAskedFor)
{
    char *text = nullptr;
    EXPECT_TRUE(Util_GetProductInfo(Product(NAME), &text, nullptr, nullptr));
    EXPECT_EQ(Take(text), "Pelago");
    EXPECT_TRUE(Util_GetProductInfo(Product(VERSION), nullptr, &text, nullptr));
    EXPECT_EQ(Take(text), "15.0");
    EXPECT_TRUE(Util_GetProductInfo(Product(BUILD), nullptr, nullptr, &text));
    EXPECT_EQ(Take(text), "24A1");
    EXPECT_TRUE(Util_GetProductInfo(Product(OTHERS), nullptr, nullptr, nullptr));
}

TEST_F(UtilPlist, FailsWhenTheOnlyRequestedKeyIsMissing)
{
    char *text = sBefore;
    EXPECT_FALSE(Util_GetProductInfo(Product(VERSION + BUILD), &text, nullptr, nullptr));
    EXPECT_EQ(text, sBefore);
}

TEST_F(UtilPlist, ClearsValuesAfterAnUnrequestedOneOnFailure)
{
    const Product product(NAME + VERSION);
    const NothingIsLeft strings;
    char *version = sBefore, *build = sBefore;
    EXPECT_FALSE(Util_GetProductInfo(product, nullptr, &version, &build));
    EXPECT_EQ(version, nullptr);
    EXPECT_EQ(build, sBefore);
}

struct IncompleteCase {
    const char *name;
    std::string content;
    size_t stored; // how many values are stored before the one that fails
};
class UtilPlistIncomplete : public UtilPlist, public testing::WithParamInterface<IncompleteCase> {};
TEST_P(UtilPlistIncomplete, ClearsStoredValuesAndLeavesTheRest)
{
    char *outs[] = {sBefore, sBefore, sBefore};
    const Product product(GetParam().content);
    const NothingIsLeft strings;
    EXPECT_FALSE(Util_GetProductInfo(product, &outs[0], &outs[1], &outs[2]));
    for (size_t i = 0; i < 3; i++) {
        EXPECT_EQ(outs[i], i < GetParam().stored ? nullptr : sBefore) << i;
    }
    EXPECT_EQ(sLogged, "");
}
INSTANTIATE_TEST_SUITE_P(
    Product, UtilPlistIncomplete,
    testing::Values(IncompleteCase{"WithoutName", VERSION + BUILD, 0},
                    IncompleteCase{"WithoutVersion", NAME + BUILD, 1},
                    IncompleteCase{"WithoutBuild", NAME + VERSION, 2},
                    IncompleteCase{"NameOfAnotherKind",
                                   "<key>ProductName</key><true/>" + VERSION + BUILD, 0},
                    IncompleteCase{"VersionOfAnotherKind",
                                   NAME + "<key>ProductVersion</key><real>15.0</real>" + BUILD, 1},
                    IncompleteCase{"BuildOfAnotherKind",
                                   NAME + VERSION + "<key>ProductBuildVersion</key><array/>", 2}),
    [](const auto &row) { return row.param.name; });

TEST_F(UtilPlist, LooksNoFurtherThanTheFirstThatFails)
{
    const Product product(NAME + VERSION + BUILD);
    const NothingIsLeft strings;
    char *name = sBefore, *version = sBefore, *build = sBefore;
    const size_t calls = Allocations::Calls();
    const OutOfMemory once(1, 1);
    EXPECT_FALSE(Util_GetProductInfo(product, &name, &version, &build));
    EXPECT_EQ(Allocations::Calls() - calls, 2u);
    EXPECT_EQ(sKeys, (std::vector<std::string>{"ProductName", "ProductVersion"}));
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(version, sBefore);
    EXPECT_EQ(build, sBefore);
    EXPECT_EQ(sLogged, NO_TEXT);
}

} // namespace
