// propertyListNode.cpp -- between libplist's nodes and Core Foundation's objects.
// libplist's accessors cannot tell -1 from 2^64 - 1, nor make the second, and keep dates in 32
// bits; its binary form has all of them.  So these values go through a binary list of one object.
#include "propertyListNode.h"

#include <bit>

namespace pelago::platform {

namespace {

constexpr unsigned char MARKER_INT64 = 0x13, MARKER_INT128 = 0x14, MARKER_DATE = 0x33;

std::string BigEndian(uint64_t bits)
{
    std::string bytes;
    for (int shift = 56; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(bits >> shift);
    }
    return bytes;
}

// The binary list of one scalar: magic, marker and value, an offset table of one byte, trailer.
std::string ScalarList(unsigned char marker, const std::string &value)
{
    const std::string magic(PROPERTY_LIST_BINARY_MAGIC);
    const std::string object = static_cast<char>(marker) + value;
    const std::string offset(1, static_cast<char>(magic.size()));
    const std::string widths = std::string(6, '\0') + '\1' + '\1';
    return magic + object + offset + widths + BigEndian(1) + BigEndian(0) +
           BigEndian(magic.size() + object.size());
}

plist_t NewScalar(unsigned char marker, const std::string &value)
{
    const std::string list = ScalarList(marker, value);
    plist_t node = nullptr;
    plist_from_bin(list.data(), static_cast<uint32_t>(list.size()), &node);
    return node;
}

// A scalar's marker and value as they are in a binary list.
std::string ScalarObject(plist_t node)
{
    char *rawBytes = nullptr;
    uint32_t size = 0;
    plist_to_bin(node, &rawBytes, &size);
    const MallocOwned<char> bytes(rawBytes);
    if (!bytes) { throw std::bad_alloc(); }
    const size_t around = ScalarList(0, "").size() - 1;
    return std::string(bytes.get() + PROPERTY_LIST_BINARY_MAGIC.size(), size - around);
}

template <typename Ref> CFTypeRef Required(Ref object)
{
    if (object == nullptr) { throw std::bad_alloc(); }
    return object;
}

CFTypeRef CopyInteger(plist_t node)
{
    uint64_t bits = 0;
    plist_get_uint_val(node, &bits);
    if (!PlistIntegerIsNegative(node)) { return Required(CFNumberCreateUnsigned(bits)); }
    const int64_t value = static_cast<int64_t>(bits);
    return Required(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value));
}

CFTypeRef CopyData(plist_t node)
{
    const std::string_view bytes = PlistDataBytes(node);
    return Required(CFDataCreate(kCFAllocatorDefault, reinterpret_cast<const UInt8 *>(bytes.data()),
                                 static_cast<CFIndex>(bytes.size())));
}

CFTypeRef CopyArray(plist_t node)
{
    CFOwned<CFMutableArrayRef> array(CFNew<__CFArray>(&kCFTypeArrayCallBacks, false));
    Required(array.get());
    array->mValues.reserve(plist_array_get_size(node)); // no item is lost to a failing push_back
    PlistForEachItem(node, [&](plist_t item) {
        array->mValues.push_back(PlistCopyAsObject(item));
        return true;
    });
    return array.release();
}

CFTypeRef CopyDictionary(plist_t node)
{
    CFOwned<CFMutableDictionaryRef> dictionary(CFDictionaryCreateEmpty());
    Required(dictionary.get());
    PlistForEachPair(node, [&](const char *key, plist_t item) {
        const CFOwned<CFStringRef> name(CFStringCreateWithText(key));
        Required(name.get());
        const CFOwned<CFTypeRef> value(PlistCopyAsObject(item));
        dictionary->Set(name.get(), value.get());
        return true;
    });
    return dictionary.release();
}

// Turns objects into nodes, and gives up before a list gets larger than a reader would take.
class NodeMaker {
public:
    PropertyListFault Fault() const { return mFault; }

    PlistOwned Make(CFTypeRef object)
    {
        if (++mValueCount > PROPERTY_LIST_MAX_XML_VALUES) {
            return Refuse(PropertyListFault::TooManyValues);
        }
        switch (CFGetTypeID(object)) {
        case CF_TYPE_ARRAY: return MakeArray(static_cast<CFArrayRef>(object));
        case CF_TYPE_DICTIONARY: return MakeDictionary(static_cast<CFDictionaryRef>(object));
        default: return MakeScalar(object);
        }
    }

private:
    PlistOwned Refuse(PropertyListFault fault)
    {
        mFault = fault;
        return nullptr;
    }

    PlistOwned MakeScalar(CFTypeRef object)
    {
        plist_t node = nullptr;
        switch (CFGetTypeID(object)) {
        case CF_TYPE_STRING:
            node = plist_new_string(static_cast<CFStringRef>(object)->mText.c_str());
            break;
        case CF_TYPE_NUMBER: node = NewNumber(*static_cast<CFNumberRef>(object)); break;
        case CF_TYPE_BOOLEAN:
            node = plist_new_bool(static_cast<CFBooleanRef>(object)->mValue);
            break;
        case CF_TYPE_DATE:
            node =
                NewScalar(MARKER_DATE,
                          BigEndian(std::bit_cast<uint64_t>(static_cast<CFDateRef>(object)->mAt)));
            break;
        case CF_TYPE_DATA: node = NewData(static_cast<CFDataRef>(object)->mBytes); break;
        case CF_TYPE_UID: node = plist_new_uid(static_cast<const CFUid *>(object)->mValue); break;
        default: return Refuse(PropertyListFault::NotRepresentable);
        }
        if (node == nullptr) { throw std::bad_alloc(); }
        return PlistOwned(node);
    }

    // libplist's own constructor makes a negative number of one that needs all 64 bits.
    static plist_t NewNumber(const __CFNumber &number)
    {
        switch (number.mKind) {
        case __CFNumber::Kind::Real: return plist_new_real(number.mReal);
        case __CFNumber::Kind::Unsigned:
            return NewScalar(MARKER_INT128, BigEndian(0) + BigEndian(number.mUnsigned));
        default: return NewScalar(MARKER_INT64, BigEndian(static_cast<uint64_t>(number.mSigned)));
        }
    }

    static plist_t NewData(const std::vector<UInt8> &bytes)
    {
        return plist_new_data(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    }

    bool Enter() { return ++mDepth <= PROPERTY_LIST_MAX_DEPTH; }

    PlistOwned MakeArray(CFArrayRef array)
    {
        if (!Enter()) { return Refuse(PropertyListFault::TooDeep); }
        PlistOwned node(plist_new_array());
        if (!node) { throw std::bad_alloc(); }
        for (const void *value : array->mValues) {
            PlistOwned item = Make(value);
            if (!item) { return nullptr; }
            plist_array_append_item(node.get(), item.release());
        }
        mDepth--;
        return node;
    }

    PlistOwned MakeDictionary(CFDictionaryRef dictionary)
    {
        if (!Enter()) { return Refuse(PropertyListFault::TooDeep); }
        PlistOwned node(plist_new_dict());
        if (!node) { throw std::bad_alloc(); }
        for (const __CFDictionary::Entry &entry : dictionary->mEntries) {
            PlistOwned item = Make(entry.value.get());
            if (!item) { return nullptr; }
            plist_dict_set_item(node.get(), entry.key->mText.c_str(), item.release());
        }
        mDepth--;
        return node;
    }

    PropertyListFault mFault = PropertyListFault::None;
    size_t mValueCount = 0;
    size_t mDepth = 0;
};

} // namespace

bool PlistIntegerIsNegative(plist_t node)
{
    uint64_t bits = 0;
    plist_get_uint_val(node, &bits);
    // Above 2^63 an unsigned one takes sixteen bytes, a negative one eight.
    return bits > INT64_MAX && static_cast<unsigned char>(ScalarObject(node)[0]) == MARKER_INT64;
}

double PlistDate(plist_t node)
{
    uint64_t bits = 0;
    for (char byte : ScalarObject(node).substr(1)) {
        bits = bits << 8 | static_cast<unsigned char>(byte);
    }
    return std::bit_cast<double>(bits);
}

std::string_view PlistStringText(plist_t node)
{
    uint64_t size = 0;
    const char *text = plist_get_string_ptr(node, &size);
    return text ? std::string_view(text, size) : std::string_view();
}

std::string_view PlistDataBytes(plist_t node)
{
    uint64_t size = 0;
    const char *bytes = plist_get_data_ptr(node, &size);
    return bytes ? std::string_view(bytes, size) : std::string_view();
}

CFTypeRef PlistCopyAsObject(plist_t node)
{
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return value ? kCFBooleanTrue : kCFBooleanFalse;
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return Required(CFNumberCreate(kCFAllocatorDefault, kCFNumberFloat64Type, &value));
    }
    case PLIST_UID: {
        uint64_t value = 0;
        plist_get_uid_val(node, &value);
        return Required(CFNew<CFUid>(value));
    }
    case PLIST_UINT: return CopyInteger(node);
    case PLIST_DATE: return Required(CFDateCreate(kCFAllocatorDefault, PlistDate(node)));
    case PLIST_DATA: return CopyData(node);
    case PLIST_ARRAY: return CopyArray(node);
    case PLIST_DICT: return CopyDictionary(node);
    default: return Required(CFStringCreateWithText(PlistStringText(node)));
    }
}

PropertyListFault PlistFromObject(CFTypeRef object, PlistOwned *node)
{
    NodeMaker maker;
    *node = maker.Make(object);
    return maker.Fault();
}

} // namespace pelago::platform
