/*
 * propertyList.h -- property lists in memory.  Those with a dictionary at the root can be changed;
 * those with any other root can only be read.
 *
 * Values that are not set keep their type, their content and their place when the list is written.
 * A file with a value that could not be kept is refused, and so is never overwritten; but of an XML
 * dictionary's key that comes twice, only the last value is kept.
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
// Returns a phrase for people, without a full stop.
const char *PropertyListFaultText(PropertyListFault fault);

// Limits, far above the few KiB of a preferences file.  A file at these limits is read and written
// within a few seconds.
constexpr size_t PROPERTY_LIST_MAX_BYTES = 16u << 20;
// Writing and releasing nested objects recurse: 512 KiB of stack are enough.
constexpr size_t PROPERTY_LIST_MAX_DEPTH = 256;
// About 100 bytes of memory each.
constexpr size_t PROPERTY_LIST_MAX_XML_VALUES = 1000000;
// A binary file may refer to an object many times, so few bytes can describe very many values.  A
// value is counted at each reference, since it is visited at each.
constexpr size_t PROPERTY_LIST_MAX_BINARY_VALUES = 200000;
// The bytes of all strings and data of a binary file, counted at each reference.
constexpr uint64_t PROPERTY_LIST_MAX_EXPANDED_BYTES = 64u << 20;

class PropertyList {
public:
    // Replaces the list by the file's.  After a fault the list is unchanged.
    PropertyListFault Read(std::string_view bytes);

    // Writes the list in the format that was read, or as XML when nothing was read.  A fault when
    // Read() would refuse the result.
    PropertyListFault Write(std::string *bytes) const;

    // Returns the value, retained for the caller; nullptr when the key has none.
    CFTypeRef CopyValue(const char *key) const;
    // Stores a copy of the value, which the caller may change afterwards.
    PropertyListFault SetValue(const char *key, CFTypeRef value);

    bool IsBinary() const { return mIsBinary; }

private:
    CFOwned<CFMutableDictionaryRef> mRoot; // nullptr: no values
    bool mIsBinary = false;
};

// Reads a property list with any kind of root.  Stores a new object, which the caller releases, and
// whether the format is binary.  After a fault neither is stored.
PropertyListFault PropertyListCopyObject(std::string_view bytes, CFTypeRef *object, bool *isBinary);

} // namespace pelago::platform

#endif /* PELAGO_LINUX_PROPERTYLIST_H */
