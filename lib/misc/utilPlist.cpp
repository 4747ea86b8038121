// utilPlist.cpp -- strings and dictionaries of Core Foundation.
#include "util.h"

#include "diagnostics.h"
#include "scoped.h"
#include "scopedCf.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

using namespace pelago;

namespace {

// nullptr when the string cannot be had.
char *UtilCopyCString(CFStringRef string)
{
    const char *direct = CFStringGetCStringPtr(string, kCFStringEncodingUTF8);
    if (direct != nullptr) { return strdup(direct); }
    // For a string that is too long this is 0, in which CFStringGetCString() cannot succeed.
    const CFIndex size =
        CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8) + 1;
    ScopedFree<char> copy(static_cast<char *>(malloc(static_cast<size_t>(size))));
    if (!copy || !CFStringGetCString(string, copy.get(), size, kCFStringEncodingUTF8)) {
        return nullptr;
    }
    return copy.release();
}

// nullptr when the key has no value, or one that is not a string, or that cannot be had.
char *UtilCopyField(CFDictionaryRef dictionary, CFStringRef key)
{
    const CFTypeRef value = CFDictionaryGetValue(dictionary, key);
    if (value == nullptr || CFGetTypeID(value) != CFStringGetTypeID()) { return nullptr; }
    return Util_CFStringToUtf8(static_cast<CFStringRef>(value));
}

} // namespace

extern "C" {

char *Util_CFStringToUtf8(CFStringRef string)
{
    char *text = UtilCopyCString(string);
    if (text == nullptr) { Log("Failed to get C string from CFString.\n"); }
    return text;
}

CFDictionaryRef Util_ReadPlistDictionary(const char *path)
{
    struct stat info;
    if (stat(path, &info) != 0) { return nullptr; }
    const ScopedCf<CFURLRef> url(CFURLCreateFromFileSystemRepresentation(
        kCFAllocatorDefault, reinterpret_cast<const UInt8 *>(path),
        static_cast<CFIndex>(strlen(path)), false));
    if (!url) { return nullptr; }
    const ScopedCf<CFReadStreamRef> stream(
        CFReadStreamCreateWithFile(kCFAllocatorDefault, url.get()));
    if (!stream || !CFReadStreamOpen(stream.get())) { return nullptr; }
    ScopedCf<CFPropertyListRef> list(CFPropertyListCreateWithStream(
        kCFAllocatorDefault, stream.get(), 0, kCFPropertyListImmutable, nullptr, nullptr));
    if (!list || CFGetTypeID(list.get()) != CFDictionaryGetTypeID()) { return nullptr; }
    return static_cast<CFDictionaryRef>(list.release());
}

bool Util_GetProductInfo(CFDictionaryRef dictionary, char **name, char **version, char **build)
{
    const struct {
        CFStringRef key;
        char **out;
    } fields[] = {{CFSTR("ProductName"), name},
                  {CFSTR("ProductVersion"), version},
                  {CFSTR("ProductBuildVersion"), build}};
    bool isComplete = true;
    for (const auto &[key, out] : fields) {
        if (out == nullptr) { continue; }
        *out = isComplete ? UtilCopyField(dictionary, key) : nullptr;
        isComplete = isComplete && *out != nullptr;
    }
    if (isComplete) { return true; }
    for (const auto &[key, out] : fields) {
        if (out == nullptr) { continue; }
        free(*out);
        *out = nullptr;
    }
    return false;
}

} // extern "C"
