// Tests of files as URLs, of streams that read the files, and of the property lists in them.
#include "cfTypes.h"
#include "hostFiles.h"
#include "outOfNew.h"
#include "propertyList.h"
#include "propertyLists.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>

using namespace pelago::platform;

namespace {

using Url = CFOwned<CFURLRef>;
using Stream = CFOwned<CFReadStreamRef>;
using Object = CFOwned<CFTypeRef>;

const std::string XML =
    "<plist version=\"1.0\"><dict><key>k</key><string>text</string></dict></plist>";

Url UrlOf(const std::string &path, Boolean isDirectory = false)
{
    return Url(CFURLCreateFromFileSystemRepresentation(
        kCFAllocatorDefault, reinterpret_cast<const UInt8 *>(path.data()),
        static_cast<CFIndex>(path.size()), isDirectory));
}

Stream StreamOf(const std::string &path)
{
    return Stream(CFReadStreamCreateWithFile(kCFAllocatorDefault, UrlOf(path).get()));
}

size_t OpenDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

class Files : public testing::Test {
protected:
    std::string Put(const std::string &bytes, const char *name = "list")
    {
        const std::string path = mFolder.Path() + "/" + name;
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }
    Stream Opened(const std::string &bytes)
    {
        Stream stream = StreamOf(Put(bytes));
        EXPECT_TRUE(CFReadStreamOpen(stream.get()));
        return stream;
    }
    TemporaryFolder mFolder;
};

/* URLs */

TEST(CoreFoundationUrl, IsThePathsBytes)
{
    for (const std::string path : {"/", "/a", "/a b/%41/\xff\xfe/\xC3\xA4", "/a/../b//c/."}) {
        const Url url = UrlOf(path);
        ASSERT_NE(url, nullptr) << path;
        EXPECT_EQ(CFGetTypeID(url.get()), CFURLGetTypeID());
        EXPECT_EQ(url->mPath, path);
    }
}

TEST(CoreFoundationUrl, TakesOnlyTheGivenLengthOfThePath)
{
    const std::string path = "/folder/file";
    const Url url(CFURLCreateFromFileSystemRepresentation(
        nullptr, reinterpret_cast<const UInt8 *>(path.data()), 7, true));
    ASSERT_NE(url, nullptr);
    EXPECT_EQ(url->mPath, "/folder");
}

TEST(CoreFoundationUrl, IsNoneForAPathThatCannotBe)
{
    EXPECT_EQ(UrlOf(""), nullptr);
    EXPECT_EQ(UrlOf(std::string("/a\0b", 4)), nullptr);
    EXPECT_EQ(CFURLCreateFromFileSystemRepresentation(nullptr, nullptr, 0, false), nullptr);
}

TEST(CoreFoundationUrl, EqualsAnotherOfTheSamePath)
{
    EXPECT_TRUE(CFEqual(UrlOf("/a").get(), UrlOf("/a").get()));
    EXPECT_FALSE(CFEqual(UrlOf("/a").get(), UrlOf("/b").get()));
    EXPECT_FALSE(CFEqual(UrlOf("/a").get(), CFSTR("/a")));
}

TEST_F(Files, ARelativePathIsResolvedAtUrlCreation)
{
    Put(XML);
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(mFolder.Path());
    const Url url = UrlOf("list");
    std::filesystem::current_path(before);
    ASSERT_NE(url, nullptr);
    EXPECT_EQ(url->mPath, mFolder.Path() + "/list");
    const Stream stream(CFReadStreamCreateWithFile(nullptr, url.get()));
    EXPECT_TRUE(CFReadStreamOpen(stream.get()));
}

TEST_F(Files, ARelativePathFailsInADeletedFolder)
{
    const std::filesystem::path before = std::filesystem::current_path();
    const std::string gone = mFolder.Path() + "/gone";
    std::filesystem::create_directory(gone);
    std::filesystem::current_path(gone);
    std::filesystem::remove(gone);
    const Url url = UrlOf("list"), absolute = UrlOf("/list");
    std::filesystem::current_path(before);
    EXPECT_EQ(url, nullptr);
    EXPECT_NE(absolute, nullptr);
}

/* Streams */

TEST_F(Files, AStreamNeedsNoFileUntilOpened)
{
    const Stream stream = StreamOf(mFolder.Path() + "/list");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(CFGetTypeID(stream.get()), CFReadStreamGetTypeID());
    Put(XML);
    EXPECT_TRUE(CFReadStreamOpen(stream.get()));
}

TEST_F(Files, AStreamOutlivesItsUrl)
{
    Url url = UrlOf(Put(XML));
    const Stream stream(CFReadStreamCreateWithFile(nullptr, url.get()));
    EXPECT_TRUE(CFReadStreamOpen(stream.get()));
    url.reset();
    EXPECT_NE(Object(CFPropertyListCreateWithStream(nullptr, stream.get(), 0, 0, nullptr, nullptr)),
              nullptr);
}

TEST_F(Files, AStreamOpensNothingButFiles)
{
    const std::string pipe = mFolder.Path() + "/pipe", loop = mFolder.Path() + "/loop";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    ASSERT_EQ(symlink("loop", loop.c_str()), 0);
    const size_t before = OpenDescriptors();
    for (const std::string &path :
         {mFolder.Path(), mFolder.Path() + "/missing", pipe, loop, std::string("/dev/null"),
          mFolder.Path() + std::string(PATH_MAX, 'x')}) {
        const Stream stream = StreamOf(path);
        EXPECT_FALSE(CFReadStreamOpen(stream.get())) << path;
        EXPECT_EQ(OpenDescriptors(), before) << path;
    }
}

TEST_F(Files, AStreamOpensOnce)
{
    const Stream stream = Opened(XML);
    EXPECT_FALSE(CFReadStreamOpen(stream.get()));
    CFReadStreamClose(stream.get());
    EXPECT_FALSE(CFReadStreamOpen(stream.get()));
    const Stream missing = StreamOf(mFolder.Path() + "/other");
    EXPECT_FALSE(CFReadStreamOpen(missing.get()));
    Put(XML, "other");
    EXPECT_FALSE(CFReadStreamOpen(missing.get())) << "it has failed";
}

TEST_F(Files, AStreamsDescriptorIsClosedAndNotInherited)
{
    const size_t before = OpenDescriptors();
    Stream stream = Opened(XML);
    EXPECT_EQ(OpenDescriptors(), before + 1);
    EXPECT_EQ(fcntl(stream->mFd.Get(), F_GETFD), FD_CLOEXEC);
    CFReadStreamClose(stream.get());
    EXPECT_EQ(OpenDescriptors(), before);
    CFReadStreamClose(stream.get());
    stream = StreamOf(Put(XML));
    EXPECT_TRUE(CFReadStreamOpen(stream.get()));
    stream.reset();
    EXPECT_EQ(OpenDescriptors(), before) << "closed as it was released";
}

TEST_F(Files, AnUnopenedStreamMayBeClosed)
{
    const Stream stream = StreamOf(Put(XML));
    CFReadStreamClose(stream.get());
    EXPECT_TRUE(CFReadStreamOpen(stream.get()));
}

TEST_F(Files, AStreamEqualsItselfOnly)
{
    const Stream one = StreamOf("/a"), other = StreamOf("/a");
    EXPECT_TRUE(CFEqual(one.get(), one.get()));
    EXPECT_FALSE(CFEqual(one.get(), other.get()));
}

/* Property lists */

struct Read {
    Object value;
    CFPropertyListFormat format = -1;
    CFIndex code = 0;
};

// Reads a list, and requests its format and the error.  There must be an error exactly when there
// is no value.
Read ReadFrom(CFReadStreamRef stream, CFIndex size = 0)
{
    Read read;
    CFErrorRef error = nullptr;
    read.value.reset(CFPropertyListCreateWithStream(nullptr, stream, size, kCFPropertyListImmutable,
                                                    &read.format, &error));
    EXPECT_EQ(error == nullptr, read.value != nullptr);
    if (error != nullptr) {
        EXPECT_EQ(CFGetTypeID(error), CFErrorGetTypeID());
        EXPECT_EQ(read.format, -1) << "untouched";
        read.code = CFErrorGetCode(error);
        CFRelease(error);
    }
    return read;
}

std::string TextAt(CFTypeRef dictionary, CFStringRef key)
{
    if (dictionary == nullptr || CFGetTypeID(dictionary) != CFDictionaryGetTypeID()) {
        return "(no dictionary)";
    }
    const void *text = CFDictionaryGetValue(static_cast<CFDictionaryRef>(dictionary), key);
    return text ? static_cast<CFStringRef>(text)->mText : "(no value)";
}

TEST_F(Files, APropertyListIsReadWithItsFormat)
{
    const Read xml = ReadFrom(Opened(XML).get());
    EXPECT_EQ(TextAt(xml.value.get(), CFSTR("k")), "text");
    EXPECT_EQ(xml.format, kCFPropertyListXMLFormat_v1_0);
    const std::string list = BinaryWithValue(BinaryAscii("text"));
    const Read binary = ReadFrom(Opened(list).get());
    EXPECT_EQ(TextAt(binary.value.get(), CFSTR("k")), "text");
    EXPECT_EQ(binary.format, kCFPropertyListBinaryFormat_v1_0);
}

struct RootCase {
    const char *text;
    CFTypeID type;
};

TEST_F(Files, APropertyListMayHaveAnyRoot)
{
    for (const auto &[text, type] : {RootCase{"<array><true/></array>", CFArrayGetTypeID()},
                                     {"<string>s</string>", CFStringGetTypeID()},
                                     {"<integer>1</integer>", CFNumberGetTypeID()},
                                     {"<true/>", CFBooleanGetTypeID()},
                                     {"<data>AAAA</data>", CFDataGetTypeID()},
                                     {"<date>2020-01-02T03:04:05Z</date>", CFDateGetTypeID()},
                                     {"<dict/>", CFDictionaryGetTypeID()}}) {
        const Read read =
            ReadFrom(Opened("<plist version=\"1.0\">" + std::string(text) + "</plist>").get());
        ASSERT_NE(read.value, nullptr) << text;
        EXPECT_EQ(CFGetTypeID(read.value.get()), type) << text;
    }
}

TEST_F(Files, APropertyListIsTheCallersAlone)
{
    const Read read = ReadFrom(Opened(XML).get());
    ASSERT_NE(read.value, nullptr);
    EXPECT_EQ(CFObjectOf(read.value.get())->mCount.load(), 1u);
}

TEST_F(Files, PropertyListsFollowEachOtherBySize)
{
    const std::string other =
        "<plist version=\"1.0\"><dict><key>k</key><string>2</string></dict></plist>";
    const Stream stream = Opened(XML + other);
    EXPECT_EQ(
        TextAt(ReadFrom(stream.get(), static_cast<CFIndex>(XML.size())).value.get(), CFSTR("k")),
        "text");
    EXPECT_EQ(TextAt(ReadFrom(stream.get(), LONG_MAX).value.get(), CFSTR("k")), "2")
        << "as far as it goes";
    EXPECT_EQ(ReadFrom(stream.get()).code, kCFPropertyListReadCorruptError) << "nothing is left";
}

TEST_F(Files, WhatIsNoPropertyListIsCorrupt)
{
    for (const std::string text :
         {"", " ", "no list", "<plist version=\"1.0\"><dict>", "bplist00", "{ k = v; }",
          "<plist version=\"1.0\"><integer>1x</integer></plist>"}) {
        EXPECT_EQ(ReadFrom(Opened(text).get()).code, kCFPropertyListReadCorruptError) << text;
    }
    EXPECT_EQ(ReadFrom(Opened(XML + XML).get()).code, kCFPropertyListReadCorruptError)
        << "two at once";
    EXPECT_EQ(ReadFrom(Opened(XML).get(), static_cast<CFIndex>(XML.size()) - 1).code,
              kCFPropertyListReadCorruptError)
        << "cut off";
}

TEST_F(Files, APropertyListHasTheLimitsOfOthers)
{
    const std::string blanks(PROPERTY_LIST_MAX_BYTES - XML.size(), '\n');
    EXPECT_NE(ReadFrom(Opened(XML + blanks).get()).value, nullptr);
    EXPECT_EQ(ReadFrom(Opened(XML + blanks + "\n").get()).code, kCFPropertyListReadCorruptError);
}

TEST_F(Files, OnlyAnOpenStreamCanBeRead)
{
    const Stream early = StreamOf(Put(XML)), late = Opened(XML);
    CFReadStreamClose(late.get());
    const Stream failed = StreamOf(mFolder.Path() + "/missing");
    EXPECT_FALSE(CFReadStreamOpen(failed.get()));
    for (const Stream *stream : {&early, &late, &failed}) {
        EXPECT_EQ(ReadFrom(stream->get()).code, kCFPropertyListReadStreamError);
    }
}

TEST_F(Files, AnUnreadableFileIsAStreamError)
{
    const Stream stream = Opened(XML);
    // The descriptor is open, but not for reading.
    const OwnedFd blind(open(mFolder.Path().c_str(), O_PATH | O_CLOEXEC));
    ASSERT_GE(dup2(blind.Get(), stream->mFd.Get()), 0);
    EXPECT_EQ(ReadFrom(stream.get()).code, kCFPropertyListReadStreamError);
}

TEST_F(Files, AFailureNeedsNobodyWhoAsksForIt)
{
    const Stream stream = StreamOf(Put(XML));
    EXPECT_EQ(CFPropertyListCreateWithStream(nullptr, stream.get(), 0, 0, nullptr, nullptr),
              nullptr);
}

TEST_F(Files, ASuccessLeavesTheErrorAlone)
{
    auto *const other = reinterpret_cast<CFErrorRef>(1);
    CFErrorRef error = other;
    const Stream stream = Opened(XML);
    const Object list(CFPropertyListCreateWithStream(nullptr, stream.get(), 0, 0, nullptr, &error));
    EXPECT_NE(list, nullptr);
    EXPECT_EQ(error, other);
}

TEST(CoreFoundationError, EqualsAnotherOfTheSameCode)
{
    const CFOwned<CFErrorRef> one(CFErrorCreateWithCode(1)), same(CFErrorCreateWithCode(1)),
        other(CFErrorCreateWithCode(2));
    EXPECT_TRUE(CFEqual(one.get(), same.get()));
    EXPECT_FALSE(CFEqual(one.get(), other.get()));
}

/* Without memory */

// Does the deed with ever more memory until that suffices.  Returns the number of allocations.
template <typename Deed> size_t MemoryFor(const Deed &deed)
{
    for (size_t granted = 0;; granted++) {
        bool isDone = false, isLast = false;
        {
            const OutOfNew memory(granted);
            isDone = deed();
            isLast = !memory.Showed();
        }
        EXPECT_EQ(isDone, isLast) << granted;
        if (isLast || isDone) { return granted; }
    }
}

TEST_F(Files, WithoutMemoryThereIsNone)
{
    const std::string path = mFolder.Path() + "/a name that is too long for the string itself";
    EXPECT_EQ(MemoryFor([&] { return UrlOf(path) != nullptr; }), 2u);
    const Url url = UrlOf(path);
    EXPECT_EQ(MemoryFor([&] {
                  return Stream(CFReadStreamCreateWithFile(nullptr, url.get())) != nullptr;
              }),
              2u);
    Put(XML, "a name that is too long for the string itself");
    EXPECT_GT(MemoryFor([&] {
                  const Stream stream(CFReadStreamCreateWithFile(nullptr, url.get()));
                  return stream && CFReadStreamOpen(stream.get()) &&
                         Object(CFPropertyListCreateWithStream(nullptr, stream.get(), 0, 0, nullptr,
                                                               nullptr)) != nullptr;
              }),
              5u);
}

TEST_F(Files, WithoutMemoryForTheErrorItIsNone)
{
    const Stream stream = StreamOf(Put(XML));
    auto *error = reinterpret_cast<CFErrorRef>(1);
    {
        const OutOfNew memory(0);
        CFPropertyListCreateWithStream(nullptr, stream.get(), 0, 0, nullptr, &error);
    }
    EXPECT_EQ(error, nullptr);
}

/* Misuse */

using StreamsDeathTest = Files;

TEST_F(StreamsDeathTest, MisuseEndsTheProcess)
{
    const auto url = UrlOf("/a");
    const Stream stream = Opened(XML);
    const auto wrong = [](CFTypeRef object) {
        return static_cast<CFReadStreamRef>(const_cast<void *>(object));
    };
    const auto list = [](CFReadStreamRef from, CFIndex size, CFOptionFlags options) {
        return CFPropertyListCreateWithStream(nullptr, from, size, options, nullptr, nullptr);
    };
    EXPECT_DEATH(CFReadStreamCreateWithFile(nullptr, nullptr), "NULL where an object is expected");
    EXPECT_DEATH(CFReadStreamCreateWithFile(
                     nullptr, static_cast<CFURLRef>(static_cast<CFTypeRef>(CFSTR("x")))),
                 "an object of another type");
    EXPECT_DEATH(CFReadStreamOpen(wrong(url.get())), "an object of another type");
    EXPECT_DEATH(CFReadStreamClose(nullptr), "NULL where an object is expected");
    EXPECT_DEATH(list(nullptr, 0, 0), "NULL where an object is expected");
    EXPECT_DEATH(list(wrong(url.get()), 0, 0), "an object of another type");
    EXPECT_DEATH(list(stream.get(), -1, 0), "a size below zero");
    EXPECT_DEATH(list(stream.get(), 0, 1), "values that can be changed");
    EXPECT_DEATH(CFURLCreateFromFileSystemRepresentation(nullptr, nullptr, -1, false),
                 "a size below zero");
    EXPECT_DEATH(CFErrorGetCode(nullptr), "NULL where an object is expected");
}

} // namespace
