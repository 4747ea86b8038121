// cfString.cpp -- strings, mutable or not, kept as UTF-8.
// Core Foundation compares strings by their UTF-16 units.  Strict UTF-8 and UTF-16 map to each
// other one to one, so comparing the bytes has the same result.
#include "cfTypes.h"

#include <climits>
#include <cstring>
#include <mutex>

using namespace pelago::platform;

namespace {

bool StringEqual(const CFObject *one, const CFObject *other)
{
    return static_cast<const __CFString *>(one)->mText ==
           static_cast<const __CFString *>(other)->mText;
}

constexpr CFClass STRING_CLASS = {CF_TYPE_STRING, CFDestroy<__CFString>, StringEqual};

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Returns the length in bytes of the sequence at the start of the text, or 0 when it is not legal.
size_t Utf8SequenceLength(std::string_view text)
{
    const auto at = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = at(0);
    if (lead < 0x80) { return 1; }
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) { return 0; }
    for (size_t i = 1; i < length; i++) {
        if (!IsContinuation(at(i))) { return 0; }
    }
    // Four lead bytes restrict the byte after them, which excludes overlong forms, surrogates and
    // values above U+10FFFF.
    const unsigned char second = at(1);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
        (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F)) {
        return 0;
    }
    return length;
}

// Never destroyed: other objects' destructors may use constants while the process exits.
struct ConstantPool {
    std::mutex mutex;
    std::unordered_map<std::string_view, const __CFString *> strings;
};

const __CFString *MakeConstant(const char *text)
{
    static ConstantPool &pool = *new ConstantPool;
    std::lock_guard<std::mutex> lock(pool.mutex);
    const auto found = pool.strings.find(text);
    if (found != pool.strings.end()) { return found->second; }
    const std::optional<CFIndex> unitCount = CFUtf8UnitCount(text);
    if (!unitCount) { CFStop("CFSTR", "the text is not UTF-8"); }
    const __CFString *made = new __CFString(text, *unitCount, __CFString::Kind::Constant);
    pool.strings.emplace(made->mText, made);
    return made;
}

} // namespace

__CFString::__CFString(std::string text, CFIndex unitCount, Kind kind)
    : CFObject(STRING_CLASS, kind == Kind::Constant), mIsMutable(kind == Kind::Mutable),
      mText(std::move(text)), mUnitCount(unitCount)
{}

std::optional<CFIndex> pelago::platform::CFUtf8UnitCount(std::string_view text)
{
    CFIndex count = 0;
    while (!text.empty()) {
        const size_t length = Utf8SequenceLength(text);
        if (length == 0) { return std::nullopt; }
        count += length == 4 ? 2 : 1;
        text.remove_prefix(length);
    }
    return count;
}

CFStringRef pelago::platform::CFStringCreateWithText(std::string_view text)
{
    const std::optional<CFIndex> unitCount = CFUtf8UnitCount(text);
    if (!unitCount || text.find('\0') != text.npos) { return nullptr; }
    try {
        return new __CFString(std::string(text), *unitCount, __CFString::Kind::Immutable);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

extern "C" CFTypeID CFStringGetTypeID(void) { return CF_TYPE_STRING; }

extern "C" CFStringRef __CFStringMakeConstantString(const char *text)
{
    try {
        return MakeConstant(text);
    } catch (const std::bad_alloc &) {
        CFStop("CFSTR", "out of memory"); // a constant is never NULL
    }
}

extern "C" CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char *text,
                                                 CFStringEncoding encoding)
{
    if (text == nullptr) { CFStop(__func__, "NULL where a text is expected"); }
    return encoding == kCFStringEncodingUTF8 ? CFStringCreateWithText(text) : nullptr;
}

extern "C" CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef, CFIndex maximumLength,
                                                        CFStringRef string)
{
    CFRequire(string, CF_TYPE_STRING, __func__);
    if (maximumLength != 0) { CFStop(__func__, "a maximum length is not supplied"); }
    if (string->mIsLost) { return nullptr; }
    return CFNew<__CFString>(string->mText, string->mUnitCount, __CFString::Kind::Mutable);
}

extern "C" CFIndex CFStringGetLength(CFStringRef string)
{
    CFRequire(string, CF_TYPE_STRING, __func__);
    return string->mUnitCount;
}

extern "C" CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding)
{
    constexpr CFIndex BYTES_PER_UNIT = 3; // the most; a surrogate pair needs four bytes, so less
    if (encoding != kCFStringEncodingUTF8 || length < 0 || length > LONG_MAX / BYTES_PER_UNIT) {
        return kCFNotFound;
    }
    return length * BYTES_PER_UNIT;
}

extern "C" Boolean CFStringGetCString(CFStringRef string, char *buffer, CFIndex bufferSize,
                                      CFStringEncoding encoding)
{
    CFRequire(string, CF_TYPE_STRING, __func__);
    if (buffer == nullptr || bufferSize < 1) { return false; }
    const std::string &text = string->mText;
    if (string->mIsLost || encoding != kCFStringEncodingUTF8 ||
        text.size() >= static_cast<size_t>(bufferSize)) {
        buffer[0] = '\0';
        return false;
    }
    memcpy(buffer, text.c_str(), text.size() + 1);
    return true;
}

extern "C" const char *CFStringGetCStringPtr(CFStringRef string, CFStringEncoding encoding)
{
    CFRequire(string, CF_TYPE_STRING, __func__);
    return encoding == kCFStringEncodingUTF8 && !string->mIsLost ? string->mText.c_str() : nullptr;
}
