// libplistValues.h -- returns whether libplist finds the same values in a file as we do.
#ifndef PELAGO_FUZZ_LIBPLISTVALUES_H
#define PELAGO_FUZZ_LIBPLISTVALUES_H

#include "../platform/linux/cfTypes.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace pelago::platform {

enum class LibplistSays { Same, Other, NotAList };

// libplist's accessors return integers without their sign, and dates as whole seconds in 32 bits.
inline bool IsSameScalar(plist_t node, CFTypeRef object)
{
    uint64_t bits = 0, size = 0;
    double real = 0;
    uint8_t boolean = 0;
    switch (CFGetTypeID(object)) {
    case CF_TYPE_BOOLEAN:
        plist_get_bool_val(node, &boolean);
        return boolean == (object == kCFBooleanTrue);
    case CF_TYPE_UID:
        plist_get_uid_val(node, &bits);
        return bits == static_cast<const CFUid *>(object)->mValue;
    case CF_TYPE_STRING:
        return static_cast<CFStringRef>(object)->mText == plist_get_string_ptr(node, &size);
    case CF_TYPE_DATA: {
        const auto &bytes = static_cast<CFDataRef>(object)->mBytes;
        const char *other = plist_get_data_ptr(node, &size);
        return size == bytes.size() && (size == 0 || memcmp(other, bytes.data(), size) == 0);
    }
    case CF_TYPE_DATE: {
        const double at = std::trunc(static_cast<CFDateRef>(object)->mAt);
        int32_t seconds = 0, microseconds = 0;
        plist_get_date_val(node, &seconds, &microseconds);
        return !(std::fabs(at) < INT32_MAX) || std::fabs(at - seconds) <= 1;
    }
    default: break;
    }
    const __CFNumber &number = *static_cast<CFNumberRef>(object);
    if (number.mKind == __CFNumber::Kind::Real) {
        plist_get_real_val(node, &real);
        return real == number.mReal || (std::isnan(real) && std::isnan(number.mReal));
    }
    plist_get_uint_val(node, &bits);
    return bits == (number.mKind == __CFNumber::Kind::Unsigned
                        ? number.mUnsigned
                        : static_cast<uint64_t>(number.mSigned));
}

inline plist_type LibplistType(CFTypeRef object)
{
    switch (CFGetTypeID(object)) {
    case CF_TYPE_BOOLEAN: return PLIST_BOOLEAN;
    case CF_TYPE_UID: return PLIST_UID;
    case CF_TYPE_STRING: return PLIST_STRING;
    case CF_TYPE_DATA: return PLIST_DATA;
    case CF_TYPE_DATE: return PLIST_DATE;
    case CF_TYPE_ARRAY: return PLIST_ARRAY;
    case CF_TYPE_DICTIONARY: return PLIST_DICT;
    default:
        return static_cast<CFNumberRef>(object)->mKind == __CFNumber::Kind::Real ? PLIST_REAL
                                                                                 : PLIST_UINT;
    }
}

inline bool IsSameValue(plist_t node, CFTypeRef object)
{
    if (plist_get_node_type(node) != LibplistType(object)) { return false; }
    if (CFGetTypeID(object) == CF_TYPE_ARRAY) {
        const auto &values = static_cast<CFArrayRef>(object)->mValues;
        bool isSame = plist_array_get_size(node) == values.size();
        for (uint32_t i = 0; isSame && i < values.size(); i++) {
            isSame = IsSameValue(plist_array_get_item(node, i), values[i]);
        }
        return isSame;
    }
    if (CFGetTypeID(object) != CF_TYPE_DICTIONARY) { return IsSameScalar(node, object); }
    const auto &entries = static_cast<CFDictionaryRef>(object)->mEntries;
    bool isSame = plist_dict_get_size(node) == entries.size();
    for (const __CFDictionary::Entry &entry : entries) {
        plist_t value = isSame ? plist_dict_get_item(node, entry.key->mText.c_str()) : nullptr;
        isSame = value != nullptr && IsSameValue(value, entry.value.get());
    }
    return isSame;
}

inline LibplistSays LibplistHasSame(std::string_view bytes, CFTypeRef object)
{
    plist_t root = nullptr;
    const auto size = static_cast<uint32_t>(bytes.size());
    if (bytes.starts_with("bplist00")) {
        plist_from_bin(bytes.data(), size, &root);
    } else {
        plist_from_xml(bytes.data(), size, &root);
    }
    if (root == nullptr) { return LibplistSays::NotAList; }
    const bool isSame = IsSameValue(root, object);
    plist_free(root);
    return isSame ? LibplistSays::Same : LibplistSays::Other;
}

} // namespace pelago::platform

#endif // PELAGO_FUZZ_LIBPLISTVALUES_H
