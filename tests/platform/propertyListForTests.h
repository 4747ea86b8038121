// propertyListForTests.h -- helpers that read and write a property list.
#ifndef PELAGO_TESTS_PLATFORM_PROPERTYLISTFORTESTS_H
#define PELAGO_TESTS_PLATFORM_PROPERTYLISTFORTESTS_H

#include "propertyList.h"

#include "cfTypes.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

using namespace pelago::platform;

// GoogleTest prints a fault with this function.
inline void PrintTo(PropertyListFault fault, std::ostream *out)
{
    *out << PropertyListFaultText(fault);
}

using Fault = PropertyListFault;

inline Fault FaultOf(std::string_view bytes) { return PropertyList().Read(bytes); }

inline CFOwned<CFTypeRef> ValueIn(std::string_view bytes, const char *key = "k")
{
    PropertyList list;
    EXPECT_EQ(list.Read(bytes), Fault::None);
    return CFOwned<CFTypeRef>(list.CopyValue(key));
}

inline std::string Written(const PropertyList &list)
{
    std::string bytes;
    EXPECT_EQ(list.Write(&bytes), Fault::None);
    return bytes;
}

// Reads the bytes and returns the list that is written from them.
inline std::string Rewritten(std::string_view bytes)
{
    PropertyList list;
    EXPECT_EQ(list.Read(bytes), Fault::None);
    return Written(list);
}

// Returns all values as they are in the file that the list is written to.
inline CFOwned<CFDictionaryRef> Values(const PropertyList &list)
{
    CFTypeRef object = nullptr;
    bool isBinary = false;
    EXPECT_EQ(PropertyListCopyObject(Written(list), &object, &isBinary), Fault::None);
    EXPECT_EQ(isBinary, list.IsBinary());
    return CFOwned<CFDictionaryRef>(static_cast<CFDictionaryRef>(object));
}

inline std::string TextOf(CFTypeRef object)
{
    if (object == nullptr || CFGetTypeID(object) != CFStringGetTypeID()) { return "(no string)"; }
    return static_cast<CFStringRef>(object)->mText;
}

#endif // PELAGO_TESTS_PLATFORM_PROPERTYLISTFORTESTS_H
