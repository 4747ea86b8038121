/*
 * cfObject.h -- the base class of the objects that CFTypeRef points to.
 *
 * An object is created with a reference count of one, which belongs to its creator.  Constants are
 * immortal: retaining and releasing them does nothing.  Misuse that the SDK leaves undefined ends
 * the process here, with one line on stderr and abort().
 */
#ifndef PELAGO_LINUX_CFOBJECT_H
#define PELAGO_LINUX_CFOBJECT_H

#include <CoreFoundation/CoreFoundation.h>

#include <atomic>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace pelago::platform {

// The run-time numbers that CFGetTypeID returns.  Zero is no type.
enum CFTypeNumber : CFTypeID {
    CF_TYPE_STRING = 1,
    CF_TYPE_ARRAY,
    CF_TYPE_DICTIONARY,
    CF_TYPE_NUMBER,
    CF_TYPE_BOOLEAN,
    CF_TYPE_DATE,
    CF_TYPE_DATA,
    CF_TYPE_UID,
    CF_TYPE_PREFERENCES,
    CF_TYPE_URL,
    CF_TYPE_READ_STREAM,
    CF_TYPE_ERROR
};

struct CFObject;

struct CFClass {
    CFTypeID typeID;
    void (*destroy)(const CFObject *object);                   // nullptr: constants only
    bool (*equal)(const CFObject *one, const CFObject *other); // both must be of this class
};

struct CFObject {
    constexpr explicit CFObject(const CFClass &cls, bool isConstant = false)
        : mClass(&cls), mIsConstant(isConstant)
    {}
    CFObject(const CFObject &) = delete;
    CFObject &operator=(const CFObject &) = delete;

    const CFClass *mClass;
    bool mIsConstant;
    mutable std::atomic<uint32_t> mCount{1};
};

// Ends the process: prints "Core Foundation: ..." to stderr, then calls abort().
[[noreturn]] void CFStop(const char *function, const char *reason);

inline const CFObject *CFObjectOf(CFTypeRef object)
{
    return static_cast<const CFObject *>(object);
}

// Ends the process if the object is nullptr or of another type.
inline void CFRequire(CFTypeRef object, CFTypeID typeID, const char *function)
{
    if (object == nullptr) { CFStop(function, "NULL where an object is expected"); }
    if (CFObjectOf(object)->mClass->typeID != typeID) {
        CFStop(function, "an object of another type");
    }
}

template <typename T> void CFDestroy(const CFObject *object)
{
    delete static_cast<const T *>(object);
}

// Returns a new object, or nullptr when memory runs out.
template <typename T, typename... Args> T *CFNew(Args &&...args) noexcept
{
    try {
        return new T(std::forward<Args>(args)...);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

struct CFReleaser {
    template <typename T> void operator()(T *object) const { CFRelease(object); }
};
// Owns one reference, and releases it.  Ref is one of the SDK's ...Ref types.
template <typename Ref> using CFOwned = std::unique_ptr<std::remove_pointer_t<Ref>, CFReleaser>;

} // namespace pelago::platform

#endif /* PELAGO_LINUX_CFOBJECT_H */
