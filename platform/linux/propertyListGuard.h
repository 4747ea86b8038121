/*
 * propertyListGuard.h -- decides, before anything reads it, whether a file is a property list that
 * can be read and written back without losing anything.
 *
 * libplist repairs what it does not understand without a word (an integer "12x" becomes 12, "010"
 * becomes 8, bad base64 becomes no data), recurses as deep as the file nests, and expands
 * references that a binary file shares.  So the guard accepts less than libplist does, and what it
 * accepts it has understood to the last byte: where the two might disagree it refuses.
 *
 * propertyListReader.cpp makes no check of its own: each check here keeps it inside the file.
 */
#ifndef PELAGO_LINUX_PROPERTYLISTGUARD_H
#define PELAGO_LINUX_PROPERTYLISTGUARD_H

#include <cstddef>
#include <cstdint>
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
// libplist and the release of nested objects recurse: measured, a thread with 256 KiB of stack dies
// between 500 and 1000 levels.
constexpr size_t PROPERTY_LIST_MAX_DEPTH = 256;
// About 100 bytes of memory each.
constexpr size_t PROPERTY_LIST_MAX_XML_VALUES = 1000000;
// libplist's binary writer looks for equal values among all: 1.3 s for 200,000, 8 s for 500,000.
constexpr size_t PROPERTY_LIST_MAX_BINARY_VALUES = 200000;
// What strings and data of a binary file may come to, each counted as often as it is referred to.
constexpr uint64_t PROPERTY_LIST_MAX_EXPANDED_BYTES = 64u << 20;

constexpr std::string_view PROPERTY_LIST_BINARY_MAGIC = "bplist00";
constexpr std::string_view PROPERTY_LIST_UTF8_MARK = "\xEF\xBB\xBF";

// Both may throw std::bad_alloc.  The XML text comes without a byte-order mark.
PropertyListFault PropertyListGuardXml(std::string_view text);
PropertyListFault PropertyListGuardBinary(std::string_view bytes);

} // namespace pelago::platform

#endif /* PELAGO_LINUX_PROPERTYLISTGUARD_H */
