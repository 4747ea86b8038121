/*
 * propertyList.h -- property lists in memory: those with a dictionary at the root to change, and
 * any to read.
 *
 * Values that nobody sets keep their type, their content and their place when the list is written.
 * Sizes are in bytes.  Every function here may throw std::bad_alloc; the list stays releasable.
 */
#ifndef PELAGO_LINUX_PROPERTYLIST_H
#define PELAGO_LINUX_PROPERTYLIST_H

#include "propertyListGuard.h"

#include <CoreFoundation/CoreFoundation.h>

#include <memory>
#include <string>
#include <string_view>

namespace pelago::platform {

class PropertyList {
public:
    PropertyList();
    ~PropertyList();
    PropertyList(PropertyList &&) noexcept;
    PropertyList &operator=(PropertyList &&) noexcept;

    // On a fault the list is what it was before.
    PropertyListFault Read(std::string_view bytes);

    // In the format that was read; XML when nothing was.  A fault when the result would be refused
    // on reading.
    PropertyListFault Write(std::string *bytes) const;

    // The value as a new object that the caller releases; nullptr when the key has none.
    CFTypeRef CopyValue(const char *key) const;
    PropertyListFault SetValue(const char *key, CFTypeRef value);

    // Everything, as a new dictionary that the caller releases.
    CFDictionaryRef CopyValues() const;

    bool IsBinary() const { return mIsBinary; }

private:
    struct Tree;
    std::unique_ptr<Tree> mTree; // nullptr: no values
    bool mIsBinary = false;
};

// Any property list, whatever its root, as a new object that the caller releases, and its format.
// On a fault nothing is stored.  May throw.
PropertyListFault PropertyListCopyObject(std::string_view bytes, CFTypeRef *object, bool *isBinary);

} // namespace pelago::platform

#endif /* PELAGO_LINUX_PROPERTYLIST_H */
