/*
 * cfTypes.h -- the classes of Core Foundation's opaque types, and functions on them that only the
 * platform layer calls.  The names with two underscores are the SDK's own tags for these types.
 *
 * The Create functions here follow the SDK's rules: the caller owns the result; nullptr means that
 * memory ran out or that the input is invalid.
 */
#ifndef PELAGO_LINUX_CFTYPES_H
#define PELAGO_LINUX_CFTYPES_H

#include "cfObject.h"
#include "hostFile.h"

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct __CFString final : pelago::platform::CFObject {
    enum class Kind { Immutable, Mutable, Constant };
    __CFString(std::string text, CFIndex unitCount, Kind kind);
    const bool mIsMutable;
    std::string mText;    // valid UTF-8 without NULs
    CFIndex mUnitCount;   // its length in UTF-16 units
    bool mIsLost = false; // memory ran out while it was normalized
};

struct __CFArray final : pelago::platform::CFObject {
    __CFArray(const CFArrayCallBacks *callBacks, bool isMutable);
    ~__CFArray();
    const void *Retained(const void *value) const;
    void Released(const void *value) const;
    bool AreEqual(const void *one, const void *other) const;
    void Add(const void *value); // appends and retains it, or throws std::bad_alloc
    CFArrayCallBacks mCallBacks; // all null when the creator passed none
    bool mIsMutable;
    std::vector<const void *> mValues;
};

// Keeps the order in which keys were added.
struct __CFDictionary final : pelago::platform::CFObject {
    __CFDictionary();
    struct Entry {
        pelago::platform::CFOwned<CFStringRef> key;
        pelago::platform::CFOwned<CFTypeRef> value;
    };
    // Replaces the value of a key that the dictionary has already.  After std::bad_alloc the
    // dictionary can only be released.
    void Set(CFStringRef key, CFTypeRef value);
    const Entry *Find(std::string_view key) const;
    std::vector<Entry> mEntries;
    std::unordered_map<std::string_view, size_t> mIndex; // views of the key objects' texts
};

// A number is unsigned only if it does not fit a signed one.
struct __CFNumber final : pelago::platform::CFObject {
    enum class Kind { Signed, Unsigned, Real };
    explicit __CFNumber(int64_t value);
    explicit __CFNumber(uint64_t value);
    explicit __CFNumber(double value);
    Kind mKind;
    int64_t mSigned = 0;
    uint64_t mUnsigned = 0;
    double mReal = 0;
};

struct __CFBoolean final : pelago::platform::CFObject {
    constexpr __CFBoolean(const pelago::platform::CFClass &cls, bool value)
        : CFObject(cls, true), mValue(value)
    {}
    bool mValue;
};

struct __CFDate final : pelago::platform::CFObject {
    explicit __CFDate(CFAbsoluteTime at);
    CFAbsoluteTime mAt;
};

struct __CFData final : pelago::platform::CFObject {
    explicit __CFData(std::vector<UInt8> bytes);
    std::vector<UInt8> mBytes;
};

// The URL of a file; no others are made here.
struct __CFURL final : pelago::platform::CFObject {
    explicit __CFURL(std::string path);
    const std::string mPath; // absolute
};

struct __CFReadStream final : pelago::platform::CFObject {
    explicit __CFReadStream(std::string path);
    const std::string mPath;
    bool mWasOpened = false; // a stream is opened at most once
    pelago::platform::OwnedFd mFd;
};

struct __CFError final : pelago::platform::CFObject {
    explicit __CFError(CFIndex code);
    const CFIndex mCode;
};

namespace pelago::platform {

// A reference between the objects of an archive in a binary property list.  The SDK has this type,
// too, but declares it in no public header.
struct CFUid final : CFObject {
    explicit CFUid(uint64_t value);
    uint64_t mValue;
};

// Returns the length in UTF-16 units, or nullopt unless the text is strict UTF-8: no surrogates, no
// overlong forms, nothing above U+10FFFF.  NULs count as text.
std::optional<CFIndex> CFUtf8UnitCount(std::string_view text);

CFStringRef CFStringCreateWithText(std::string_view text); // nullptr also for a NUL in the text
CFNumberRef CFNumberCreateUnsigned(uint64_t value);
CFMutableDictionaryRef CFDictionaryCreateEmpty();
CFErrorRef CFErrorCreateWithCode(CFIndex code);

// Returns the object that a Create function returned; throws std::bad_alloc for nullptr.
template <typename Ref> Ref CFRequired(Ref object)
{
    if (object == nullptr) { throw std::bad_alloc(); }
    return object;
}

} // namespace pelago::platform

#endif /* PELAGO_LINUX_CFTYPES_H */
