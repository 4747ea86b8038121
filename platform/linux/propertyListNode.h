/*
 * propertyListNode.h -- libplist's tree, with owners, and its values as Core Foundation objects.
 * A node belongs to whoever holds its PlistOwned, or to the container that it was put into.
 */
#ifndef PELAGO_LINUX_PROPERTYLISTNODE_H
#define PELAGO_LINUX_PROPERTYLISTNODE_H

#include "cfTypes.h"
#include "propertyListGuard.h"

#include <plist/plist.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace pelago::platform {

struct PlistFree {
    void operator()(void *node) const { plist_free(node); }
};
using PlistOwned = std::unique_ptr<void, PlistFree>;

struct MallocFree {
    void operator()(void *block) const { free(block); }
};
template <typename T> using MallocOwned = std::unique_ptr<T, MallocFree>;

// Calls visit(key, value) for each pair in order; ends early, with false, when it answers false.
template <typename Visit> bool PlistForEachPair(plist_t dict, const Visit &visit)
{
    plist_dict_iter rawCursor = nullptr;
    plist_dict_new_iter(dict, &rawCursor);
    const MallocOwned<void> cursor(rawCursor);
    if (!cursor) { throw std::bad_alloc(); }
    for (;;) {
        char *rawKey = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(dict, cursor.get(), &rawKey, &value);
        const MallocOwned<char> key(rawKey);
        if (value == nullptr) { return true; }
        if (!key) { throw std::bad_alloc(); }
        if (!visit(key.get(), value)) { return false; }
    }
}

template <typename Visit> bool PlistForEachItem(plist_t array, const Visit &visit)
{
    plist_array_iter rawCursor = nullptr;
    plist_array_new_iter(array, &rawCursor);
    const MallocOwned<void> cursor(rawCursor);
    if (!cursor) { throw std::bad_alloc(); }
    for (;;) {
        plist_t value = nullptr;
        plist_array_next_item(array, cursor.get(), &value);
        if (value == nullptr) { return true; }
        if (!visit(value)) { return false; }
    }
}

// All of these may throw std::bad_alloc.

// Whether an integer node is below zero: libplist's accessors give the same 64 bits for both.
bool PlistIntegerIsNegative(plist_t node);
// In seconds since 2001; libplist's accessor cuts dates to 32 bits.
double PlistDate(plist_t node);
std::string_view PlistStringText(plist_t node); // lives as long as the node
std::string_view PlistDataBytes(plist_t node);

// The node as a new object of the caller's; never nullptr.
CFTypeRef PlistCopyAsObject(plist_t node);
// The object as a new node.  Refused: what no property list can hold, and too deep a nesting, which
// is also how an array ends that contains itself.
PropertyListFault PlistFromObject(CFTypeRef object, PlistOwned *node);

// The XML form of a tree.  A date outside the years 0 to 9999 is not representable.
PropertyListFault PlistWriteXml(plist_t root, std::string *text);

} // namespace pelago::platform

#endif /* PELAGO_LINUX_PROPERTYLISTNODE_H */
