// propertyListBinaryReader.cpp -- reads the binary form: a table of objects that refer to each
// other.  An object with many references is read once and shared.  Its values are counted at each
// reference, which limits the time to visit all values of the list.
#include "propertyListForms.h"

#include "cfTypes.h"

#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <bit>

namespace pelago::platform {

namespace {

using Fault = PropertyListFault;
using Object = CFOwned<CFTypeRef>;

constexpr size_t TRAILER_SIZE = 32;
constexpr size_t MIN_SIZE = PROPERTY_LIST_BINARY_MAGIC.size() + 1 + 1 + TRAILER_SIZE;

// Returns a big-endian number; of more than eight bytes, the last eight.
uint64_t BigEndian(std::string_view bytes)
{
    uint64_t value = 0;
    for (char byte : bytes) {
        value = value << 8 | static_cast<unsigned char>(byte);
    }
    return value;
}

// ---- Objects without parts; nullptr for one that could not be written back.

// Integers of eight bytes are signed, longer and shorter ones are not.
Object Integer(std::string_view bytes)
{
    const uint64_t value = BigEndian(bytes);
    if (bytes.size() == 8) { return Object(new __CFNumber(static_cast<int64_t>(value))); }
    const bool fits = bytes.size() < 8 || BigEndian(bytes.substr(0, 8)) == 0;
    return Object(fits ? new __CFNumber(value) : nullptr);
}

Object Real(std::string_view bytes)
{
    const uint64_t bits = BigEndian(bytes);
    const double value = bytes.size() == 8
                             ? std::bit_cast<double>(bits)
                             : double{std::bit_cast<float>(static_cast<uint32_t>(bits))};
    return Object(new __CFNumber(value));
}

Object Data(std::string_view bytes)
{
    return Object(new __CFData(std::vector<UInt8>(bytes.begin(), bytes.end())));
}

Object Ascii(std::string_view bytes)
{
    if (std::any_of(bytes.begin(), bytes.end(), [](char c) { return c <= 0; })) { return nullptr; }
    return Object(CFRequired(CFStringCreateWithText(bytes)));
}

// The text must have no NULs, and surrogates only in pairs.
Object Utf16(std::string_view bytes)
{
    std::u16string units;
    for (size_t i = 0; i < bytes.size(); i += 2) {
        units += static_cast<char16_t>(BigEndian(bytes.substr(i, 2)));
    }
    std::string text;
    for (size_t i = 0; i < units.size();) {
        UChar32 c = 0;
        U16_NEXT(units, i, units.size(), c);
        if (c == 0 || U_IS_SURROGATE(c)) { return nullptr; }
        char utf8[U8_MAX_LENGTH];
        size_t size = 0;
        U8_APPEND_UNSAFE(utf8, size, c);
        text.append(utf8, size);
    }
    return Object(CFRequired(CFStringCreateWithText(text)));
}

Object NewLeaf(unsigned marker, unsigned low, std::string_view payload)
{
    constexpr unsigned TRUE_VALUE = 9;
    switch (marker) {
    case MARKER_BOOLEAN: return Object(low == TRUE_VALUE ? kCFBooleanTrue : kCFBooleanFalse);
    case MARKER_INTEGER: return Integer(payload);
    case MARKER_REAL: return Real(payload);
    case MARKER_DATE: return Object(new __CFDate(std::bit_cast<double>(BigEndian(payload))));
    case MARKER_UID: return Object(new CFUid(BigEndian(payload)));
    case MARKER_DATA: return Data(payload);
    case MARKER_ASCII: return Ascii(payload);
    default: return Utf16(payload);
    }
}

// ---- The table

class BinaryReader {
public:
    explicit BinaryReader(std::string_view bytes) : mBytes(bytes) {}

    Fault Read(PropertyListContent *content)
    {
        if (!ReadTrailer() || !ReadParts()) { return mFault; }
        content->root.reset(CFRetain(mParts[mRoot].object.get()));
        content->hasKeyTwice = mHasKeyTwice;
        return Fault::None;
    }

private:
    // An object of the table, with totals over all that it contains.
    struct Part {
        Object object;       // nullptr: no reference to it was followed yet
        bool isDone = false; // whether all that it contains was added
        uint32_t height = 0; // nesting depth of containers, itself included
        uint32_t valueCount = 1;
        uint64_t byteCount = 0;
    };

    // A container that is not done.
    struct Container {
        Part *part;
        __CFArray *array; // nullptr: it is a dictionary
        __CFDictionary *dictionary;
        std::string_view references;
        size_t next;     // index of the next reference; a dictionary's keys and values in turn
        CFStringRef key; // the key whose value comes next; nullptr: a key comes next
    };

    bool Refuse(Fault fault)
    {
        mFault = fault;
        return false;
    }

    bool ReadTrailer()
    {
        const auto isWidth = [](size_t width) { return width >= 1 && width <= sizeof(uint64_t); };
        if (mBytes.size() < MIN_SIZE) { return false; }
        const size_t tableEnd = mBytes.size() - TRAILER_SIZE;
        const std::string_view trailer = mBytes.substr(tableEnd);
        mOffsetWidth = static_cast<unsigned char>(trailer[6]);
        mReferenceWidth = static_cast<unsigned char>(trailer[7]);
        const uint64_t count = BigEndian(trailer.substr(8, 8));
        mRoot = BigEndian(trailer.substr(16, 8));
        mTable = BigEndian(trailer.substr(24, 8));
        if (!isWidth(mOffsetWidth) || !isWidth(mReferenceWidth) || mRoot >= count ||
            mTable <= PROPERTY_LIST_BINARY_MAGIC.size() || mTable >= tableEnd ||
            count != (tableEnd - mTable) / mOffsetWidth ||
            (tableEnd - mTable) % mOffsetWidth != 0) {
            return false;
        }
        if (count > PROPERTY_LIST_MAX_BINARY_VALUES) { return Refuse(Fault::TooManyValues); }
        mParts.resize(count);
        return true;
    }

    // Reads depth first from the root, without recursion.
    bool ReadParts()
    {
        if (!Begin(mRoot)) { return false; }
        while (!mOpen.empty()) {
            Container &container = mOpen.back();
            if (container.next * mReferenceWidth == container.references.size()) {
                container.part->isDone = true;
                mOpen.pop_back();
                continue;
            }
            const uint64_t index = NextReference(container);
            if (index >= mParts.size()) { return false; }
            // A container that begins here is added to this one when it is done.
            const bool isKnown = mParts[index].object != nullptr;
            if (isKnown ? !Add(&container, mParts[index]) : !Begin(index)) { return false; }
        }
        return true;
    }

    // A dictionary's references are all its keys, then all its values; they are taken in pairs.
    uint64_t NextReference(const Container &container) const
    {
        const size_t count = container.references.size() / mReferenceWidth;
        const size_t pair = container.next / 2;
        const size_t at = container.array           ? container.next
                          : container.next % 2 == 0 ? pair
                                                    : count / 2 + pair;
        return BigEndian(container.references.substr(at * mReferenceWidth, mReferenceWidth));
    }

    // Makes the object: a leaf completely, a container empty.
    bool Begin(size_t index)
    {
        const uint64_t offset =
            BigEndian(mBytes.substr(mTable + index * mOffsetWidth, mOffsetWidth));
        if (offset < PROPERTY_LIST_BINARY_MAGIC.size() || offset >= mTable) { return false; }
        const unsigned first = static_cast<unsigned char>(mBytes[offset]);
        const unsigned marker = first >> 4, low = first & 0xF;
        std::string_view payload = mBytes.substr(offset + 1, mTable - offset - 1);
        if (!TakePayload(marker, low, &payload)) { return false; }
        Part &part = mParts[index];
        if (marker == MARKER_ARRAY || marker == MARKER_DICT) {
            return Open(&part, marker == MARKER_ARRAY, payload);
        }
        part.object = NewLeaf(marker, low, payload);
        if (!part.object) { return Refuse(Fault::NotRepresentable); }
        part.isDone = true;
        part.byteCount = payload.size();
        return mOpen.empty() || Add(&mOpen.back(), part);
    }

    // Cuts the bytes after the marker to the object's own; false for an unknown form.
    bool TakePayload(unsigned marker, unsigned low, std::string_view *rest) const
    {
        constexpr unsigned FALSE_VALUE = 8, TRUE_VALUE = 9;
        constexpr unsigned MAX_INTEGER_POWER = 4, MAX_UID_SIZE = 4;
        const auto take = [rest](bool isKnown, uint64_t count, size_t unit) {
            if (!isKnown || count > rest->size() / unit) { return false; }
            *rest = rest->substr(0, count * unit);
            return true;
        };
        const auto takeCounted = [&](size_t unit) {
            uint64_t count = low;
            return TakeCount(rest, &count) && take(true, count, unit);
        };
        switch (marker) {
        case MARKER_BOOLEAN: return take(low == FALSE_VALUE || low == TRUE_VALUE, 0, 1);
        case MARKER_INTEGER: return take(low <= MAX_INTEGER_POWER, uint64_t{1} << low, 1);
        case MARKER_REAL: return take(low == 2 || low == 3, uint64_t{1} << low, 1);
        case MARKER_DATE: return take(low == 3, uint64_t{1} << low, 1);
        case MARKER_UID: return take(low < MAX_UID_SIZE, low + 1, 1);
        case MARKER_DATA:
        case MARKER_ASCII: return takeCounted(1);
        case MARKER_UTF16: return takeCounted(2);
        case MARKER_ARRAY: return takeCounted(mReferenceWidth);
        case MARKER_DICT: return takeCounted(2 * mReferenceWidth);
        default: return false;
        }
    }

    // A count of 15 means that the count follows as an integer object.
    static bool TakeCount(std::string_view *rest, uint64_t *count)
    {
        constexpr uint64_t LONG_COUNT = 15;
        constexpr unsigned MAX_WIDTH_POWER = 3;
        if (*count != LONG_COUNT) { return true; }
        if (rest->empty()) { return false; }
        const unsigned first = static_cast<unsigned char>(rest->front());
        const unsigned marker = first >> 4, power = first & 0xF;
        if (marker != MARKER_INTEGER || power > MAX_WIDTH_POWER) { return false; }
        const size_t width = size_t{1} << power;
        if (rest->size() - 1 < width) { return false; }
        *count = BigEndian(rest->substr(1, width));
        rest->remove_prefix(1 + width);
        return true;
    }

    bool Open(Part *part, bool isArray, std::string_view references)
    {
        if (mOpen.size() == PROPERTY_LIST_MAX_DEPTH) { return Refuse(Fault::TooDeep); }
        Container container{part, nullptr, nullptr, references, 0, nullptr};
        if (isArray) {
            part->object.reset(container.array = new __CFArray(&kCFTypeArrayCallBacks, false));
        } else {
            part->object.reset(container.dictionary = new __CFDictionary);
        }
        part->height = 1;
        mOpen.push_back(container);
        return true;
    }

    // Adds the object of the container's next reference.
    bool Add(Container *container, const Part &part)
    {
        if (!part.isDone) { return false; } // it contains itself
        if (!Charge(container->part, part)) { return false; }
        CFTypeRef value = part.object.get();
        if (container->array) {
            container->array->Add(value);
        } else if (container->key == nullptr) {
            if (CFGetTypeID(value) != CF_TYPE_STRING) { return false; }
            container->key = static_cast<CFStringRef>(value);
            mHasKeyTwice |= container->dictionary->Find(container->key->mText) != nullptr;
        } else {
            container->dictionary->Set(container->key, value);
            container->key = nullptr;
        }
        container->next++;
        return true;
    }

    bool Charge(Part *container, const Part &part)
    {
        container->valueCount += part.valueCount;
        container->byteCount += part.byteCount;
        container->height = std::max(container->height, part.height + 1);
        if (container->valueCount > PROPERTY_LIST_MAX_BINARY_VALUES) {
            return Refuse(Fault::TooManyValues);
        }
        if (container->byteCount > PROPERTY_LIST_MAX_EXPANDED_BYTES) {
            return Refuse(Fault::TooLarge);
        }
        // An object that was read at a low depth may be shared at a greater one.
        const bool isTooDeep = mOpen.size() + part.height > PROPERTY_LIST_MAX_DEPTH;
        return !isTooDeep || Refuse(Fault::TooDeep);
    }

    std::string_view mBytes;
    Fault mFault = Fault::Malformed;
    size_t mOffsetWidth = 0, mReferenceWidth = 0;
    uint64_t mRoot = 0, mTable = 0;
    std::vector<Part> mParts; // by number
    std::vector<Container> mOpen;
    bool mHasKeyTwice = false;
};

} // namespace

PropertyListFault PropertyListReadBinary(std::string_view bytes, PropertyListContent *content)
{
    return BinaryReader(bytes).Read(content);
}

} // namespace pelago::platform
