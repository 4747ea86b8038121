// propertyListBinaryWriter.cpp -- writes the binary form: a table of objects that refer to each
// other.  An object with several references is written once.
#include "propertyListForms.h"

#include "cfTypes.h"

#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <bit>

namespace pelago::platform {

namespace {

// Returns the power of two of the fewest bytes that the value fits into: 0 to 3 for 1, 2, 4 and 8.
unsigned WidthPower(uint64_t value)
{
    if (value <= UINT8_MAX) { return 0; }
    if (value <= UINT16_MAX) { return 1; }
    return value <= UINT32_MAX ? 2 : 3;
}
size_t Width(uint64_t value) { return size_t{1} << WidthPower(value); }

class BinaryWriter {
public:
    std::string Write(CFTypeRef root)
    {
        Collect(root);
        mReferenceWidth = Width(mObjects.size());
        mOut = PROPERTY_LIST_BINARY_MAGIC;
        std::vector<size_t> offsets;
        for (CFTypeRef object : mObjects) {
            offsets.push_back(mOut.size());
            WriteObject(object);
        }
        const size_t table = mOut.size(), offsetWidth = Width(table);
        for (size_t offset : offsets) {
            Append(offset, offsetWidth);
        }
        mOut.append(6, '\0');
        Append(offsetWidth, 1);
        Append(mReferenceWidth, 1);
        Append(mObjects.size(), 8);
        Append(0, 8); // the root's number
        Append(table, 8);
        return std::move(mOut);
    }

private:
    // Numbers the object and all that it refers to.
    void Collect(CFTypeRef object)
    {
        if (!mNumbers.emplace(object, mObjects.size()).second) { return; }
        mObjects.push_back(object);
        if (CFGetTypeID(object) == CF_TYPE_ARRAY) {
            for (CFTypeRef item : static_cast<CFArrayRef>(object)->mValues) {
                Collect(item);
            }
        } else if (CFGetTypeID(object) == CF_TYPE_DICTIONARY) {
            for (const auto &[key, value] : static_cast<CFDictionaryRef>(object)->mEntries) {
                Collect(key.get());
                Collect(value.get());
            }
        }
    }

    void Append(uint64_t value, size_t width)
    {
        for (size_t i = width; i-- > 0;) {
            mOut += static_cast<char>(value >> (8 * i));
        }
    }

    void AppendMarker(unsigned marker, unsigned low) { Append(marker << 4 | low, 1); }

    void AppendCounted(unsigned marker, size_t count)
    {
        constexpr unsigned LONG_COUNT = 15;
        if (count < LONG_COUNT) { return AppendMarker(marker, static_cast<unsigned>(count)); }
        AppendMarker(marker, LONG_COUNT);
        AppendMarker(MARKER_INTEGER, WidthPower(count));
        Append(count, Width(count));
    }

    void AppendReference(CFTypeRef object) { Append(mNumbers.at(object), mReferenceWidth); }

    void WriteObject(CFTypeRef object)
    {
        switch (CFGetTypeID(object)) {
        case CF_TYPE_BOOLEAN: return AppendMarker(MARKER_BOOLEAN, object == kCFBooleanTrue ? 9 : 8);
        case CF_TYPE_NUMBER: return WriteNumber(*static_cast<CFNumberRef>(object));
        case CF_TYPE_DATE: return WriteDouble(MARKER_DATE, static_cast<CFDateRef>(object)->mAt);
        case CF_TYPE_DATA: return WriteData(static_cast<CFDataRef>(object)->mBytes);
        case CF_TYPE_UID: return WriteUid(static_cast<const CFUid *>(object)->mValue);
        case CF_TYPE_ARRAY: return WriteArray(*static_cast<CFArrayRef>(object));
        case CF_TYPE_DICTIONARY: return WriteDictionary(*static_cast<CFDictionaryRef>(object));
        default: return WriteString(*static_cast<CFStringRef>(object));
        }
    }

    // Integers of eight bytes have a sign, longer and shorter ones none.
    void WriteNumber(const __CFNumber &number)
    {
        if (number.mKind == __CFNumber::Kind::Real) {
            return WriteDouble(MARKER_REAL, number.mReal);
        }
        if (number.mKind == __CFNumber::Kind::Unsigned) {
            AppendMarker(MARKER_INTEGER, 4);
            Append(0, 8);
            return Append(number.mUnsigned, 8);
        }
        const auto value = static_cast<uint64_t>(number.mSigned);
        AppendMarker(MARKER_INTEGER, WidthPower(value));
        Append(value, Width(value));
    }

    void WriteDouble(unsigned marker, double value)
    {
        AppendMarker(marker, 3);
        Append(std::bit_cast<uint64_t>(value), 8);
    }

    void WriteData(const std::vector<UInt8> &bytes)
    {
        AppendCounted(MARKER_DATA, bytes.size());
        mOut.append(bytes.begin(), bytes.end());
    }

    void WriteUid(uint64_t value)
    {
        AppendMarker(MARKER_UID, static_cast<unsigned>(Width(value)) - 1);
        Append(value, Width(value));
    }

    void WriteString(const __CFString &string)
    {
        const std::string &text = string.mText;
        const auto unitCount = static_cast<size_t>(string.mUnitCount);
        const bool isAscii = unitCount == text.size();
        AppendCounted(isAscii ? MARKER_ASCII : MARKER_UTF16, unitCount);
        if (isAscii) {
            mOut += text;
            return;
        }
        for (size_t i = 0; i < text.size();) {
            UChar32 c = 0;
            U8_NEXT_UNSAFE(text, i, c);
            if (!U_IS_BMP(c)) { Append(U16_LEAD(c), 2); }
            Append(U_IS_BMP(c) ? static_cast<uint64_t>(c) : U16_TRAIL(c), 2);
        }
    }

    void WriteArray(const __CFArray &array)
    {
        AppendCounted(MARKER_ARRAY, array.mValues.size());
        for (CFTypeRef item : array.mValues) {
            AppendReference(item);
        }
    }

    void WriteDictionary(const __CFDictionary &dictionary)
    {
        AppendCounted(MARKER_DICT, dictionary.mEntries.size());
        for (const __CFDictionary::Entry &entry : dictionary.mEntries) {
            AppendReference(entry.key.get());
        }
        for (const __CFDictionary::Entry &entry : dictionary.mEntries) {
            AppendReference(entry.value.get());
        }
    }

    std::string mOut;
    size_t mReferenceWidth = 0;
    std::vector<CFTypeRef> mObjects;
    std::unordered_map<CFTypeRef, size_t> mNumbers;
};

} // namespace

std::string PropertyListWriteBinary(CFTypeRef root) { return BinaryWriter().Write(root); }

} // namespace pelago::platform
