/*
 * propertyList.h -- property lists in memory: those with a dictionary at the root to change, and
 * any to read.
 *
 * Values that nobody sets keep their type, their content and their place when the list is written.
 * A file that holds anything that could not be kept is refused, and so is never overwritten.
 * Sizes are in bytes.  Every function here may throw std::bad_alloc; the list stays releasable.
 */
#ifndef PELAGO_LINUX_PROPERTYLIST_H
#define PELAGO_LINUX_PROPERTYLIST_H

#include "cfObject.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace pelago::platform {

enum class PropertyListFault {
    None,
    Empty,    // no bytes at all
    TooLarge, // the file, or what its shared references expand to
    TooDeep,
    TooManyValues,
    Encoding,         // not UTF-8, or declared as something else
    Malformed,        // not a property list, or damaged
    NotRepresentable, // a property list, with a value that could not be kept as it is
    NotADictionary,
    NoMemory
};
// One phrase for people, without a full stop.
const char *PropertyListFaultText(PropertyListFault fault);

// Preferences files have a few KiB; all of this is far above.  The time to read and write a file at
// these limits stays within a few seconds.
constexpr size_t PROPERTY_LIST_MAX_BYTES = 16u << 20;
// Reading, writing and releasing nested objects recurse: a thread with 512 KiB of stack has enough.
constexpr size_t PROPERTY_LIST_MAX_DEPTH = 256;
// About 100 bytes of memory each.
constexpr size_t PROPERTY_LIST_MAX_XML_VALUES = 1000000;
// A binary file refers to its objects, so few bytes can stand for very many values.  Each value
// counts as often as it is referred to, for that is how often it is looked at.
constexpr size_t PROPERTY_LIST_MAX_BINARY_VALUES = 200000;
// All strings and data of a binary file, each counted as often as it is referred to.
constexpr uint64_t PROPERTY_LIST_MAX_EXPANDED_BYTES = 64u << 20;

class PropertyList {
public:
    // On a fault the list is what it was before.
    PropertyListFault Read(std::string_view bytes);

    // In the format that was read; XML when nothing was.  A fault when the result would be refused
    // on reading.
    PropertyListFault Write(std::string *bytes) const;

    // The value, retained for the caller; nullptr when the key has none.
    CFTypeRef CopyValue(const char *key) const;
    // Keeps a copy, so the caller may go on changing the value.
    PropertyListFault SetValue(const char *key, CFTypeRef value);

    bool IsBinary() const { return mIsBinary; }

private:
    CFOwned<CFMutableDictionaryRef> mRoot; // nullptr: no values
    bool mIsBinary = false;
};

// Any property list, whatever its root, as a new object that the caller releases, and its format.
// On a fault nothing is stored.
PropertyListFault PropertyListCopyObject(std::string_view bytes, CFTypeRef *object, bool *isBinary);

} // namespace pelago::platform

#endif /* PELAGO_LINUX_PROPERTYLIST_H */
