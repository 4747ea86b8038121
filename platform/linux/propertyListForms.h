/*
 * propertyListForms.h -- the two forms of a property list: text, which is XML, and binary.
 *
 * A reader checks a file while it makes objects of it, and returns a fault for a file that it
 * refuses.  Only the root object may be changed.  The file must have PROPERTY_LIST_MAX_BYTES bytes
 * at most.  A writer's objects must be of property list types, and nested at most one level deeper
 * than PROPERTY_LIST_MAX_DEPTH.  All functions here may throw std::bad_alloc.
 */
#ifndef PELAGO_LINUX_PROPERTYLISTFORMS_H
#define PELAGO_LINUX_PROPERTYLISTFORMS_H

#include "propertyList.h"

#include <chrono>

namespace pelago::platform {

constexpr std::string_view PROPERTY_LIST_BINARY_MAGIC = "bplist00";

// In the binary form, the high half of an object's first byte; the low half is a size or a count.
enum PropertyListMarker : unsigned {
    MARKER_BOOLEAN = 0x0,
    MARKER_INTEGER = 0x1,
    MARKER_REAL = 0x2,
    MARKER_DATE = 0x3,
    MARKER_DATA = 0x4,
    MARKER_ASCII = 0x5,
    MARKER_UTF16 = 0x6,
    MARKER_UID = 0x8,
    MARKER_ARRAY = 0xA,
    MARKER_DICT = 0xD
};

// Dates are seconds since this day.
constexpr std::chrono::sys_days PROPERTY_LIST_EPOCH{std::chrono::year{2001} / 1 / 1};

struct PropertyListContent {
    CFOwned<CFTypeRef> root;
    // Whether a dictionary of a binary file has a key twice.  The last value was taken, as always
    // in XML.
    bool hasKeyTwice = false;
};

// Ignores a byte-order mark before the text.
PropertyListFault PropertyListReadXml(std::string_view text, PropertyListContent *content);
PropertyListFault PropertyListReadBinary(std::string_view bytes, PropertyListContent *content);

// A date outside the years 0 to 9999 is not representable in XML.
PropertyListFault PropertyListWriteXml(CFTypeRef root, std::string *text);
std::string PropertyListWriteBinary(CFTypeRef root);

} // namespace pelago::platform

#endif /* PELAGO_LINUX_PROPERTYLISTFORMS_H */
