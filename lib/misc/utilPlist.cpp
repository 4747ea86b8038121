// utilPlist.cpp -- strings and dictionaries of Core Foundation.
#include "util.h"

#include "diagnostics.h"
#include "scoped.h"
#include "scopedCf.h"

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sys/stat.h>
#include <utility>

using namespace pelago;

namespace {

// Returns the string as a new C string; nullptr when memory runs out or it has no UTF-8 form.
char *UtilCopyCString(CFStringRef string)
{
    const char *direct = CFStringGetCStringPtr(string, kCFStringEncodingUTF8);
    if (direct != nullptr) { return strdup(direct); }
    // For a string that is too long this is 0, and CFStringGetCString() then fails.
    const CFIndex size =
        CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8) + 1;
    ScopedFree<char> copy(static_cast<char *>(malloc(static_cast<size_t>(size))));
    if (!copy || !CFStringGetCString(string, copy.get(), size, kCFStringEncodingUTF8)) {
        return nullptr;
    }
    return copy.release();
}

// Returns the key's string; nullptr when it has none or the string cannot be converted.
char *UtilCopyField(CFDictionaryRef dictionary, CFStringRef key)
{
    const CFTypeRef value = CFDictionaryGetValue(dictionary, key);
    if (value == nullptr || CFGetTypeID(value) != CFStringGetTypeID()) { return nullptr; }
    return Util_CFStringToUtf8(static_cast<CFStringRef>(value));
}

struct UtilField {
    CFStringRef key;
    char **out; // nullptr: the caller does not want it
};

// Frees the strings that were stored for these fields.
void UtilTakeBack(const UtilField *field, const UtilField *end)
{
    for (; field != end; field++) {
        if (field->out != nullptr) { free(std::exchange(*field->out, nullptr)); }
    }
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

void Util_ReleasePlistDictionary(CFDictionaryRef dictionary)
{
    if (dictionary != nullptr) { CFRelease(dictionary); }
}

bool Util_GetProductInfo(CFDictionaryRef dictionary, char **name, char **version, char **build)
{
    const UtilField fields[] = {{CFSTR("ProductName"), name},
                                {CFSTR("ProductVersion"), version},
                                {CFSTR("ProductBuildVersion"), build}};
    for (const auto *field = fields; field != std::end(fields); field++) {
        if (field->out == nullptr) { continue; }
        char *text = UtilCopyField(dictionary, field->key);
        if (text == nullptr) {
            UtilTakeBack(fields, field);
            return false;
        }
        *field->out = text;
    }
    return true;
}

} // extern "C"
