// propertyListGuardBinary.cpp -- checks the binary form: a table of objects that refer to each
// other. Objects may be referred to many times and libplist makes a copy each time, so what counts
// is the size after expansion.  It is computed once for each object, without recursion.
#include "propertyListGuard.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace pelago::platform {

namespace {

using Fault = PropertyListFault;

// The high half of an object's first byte; the low half is a size or a count.
enum Marker : unsigned {
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

constexpr size_t TRAILER_SIZE = 32;
constexpr size_t MIN_SIZE = PROPERTY_LIST_BINARY_MAGIC.size() + 1 + 1 + TRAILER_SIZE;

// One object, decoded as far as the guard needs it.
struct Object {
    unsigned marker = 0;
    uint64_t count = 0;       // of bytes, units, items or pairs
    std::string_view payload; // what follows the marker and the count
};

// What an object comes to when every reference in it is copied.
struct Expansion {
    enum class State : uint8_t { Unseen, Open, Done };
    State state = State::Unseen;
    uint32_t height = 0;
    uint32_t valueCount = 0; // stays below a limit of 32 bits at all times
    uint64_t byteCount = 0;
};

class BinaryGuard {
public:
    explicit BinaryGuard(std::string_view bytes) : mBytes(bytes) {}

    Fault Check()
    {
        if (!ReadTrailer()) { return mFault; }
        mExpansions.resize(mObjectCount);
        return Expand() ? Fault::None : mFault;
    }

private:
    // A container whose children are being looked at.
    struct Visit {
        size_t index;
        Object object;
        uint64_t nextChild = 0;
    };

    bool Refuse(Fault fault)
    {
        mFault = fault;
        return false;
    }

    static uint64_t BigEndian(std::string_view bytes)
    {
        uint64_t value = 0;
        for (char byte : bytes) {
            value = value << 8 | static_cast<unsigned char>(byte);
        }
        return value;
    }

    static bool IsWidth(size_t width) { return width >= 1 && width <= sizeof(uint64_t); }

    bool ReadTrailer()
    {
        if (mBytes.size() < MIN_SIZE) { return false; }
        const std::string_view trailer = mBytes.substr(mBytes.size() - TRAILER_SIZE);
        mOffsetWidth = static_cast<unsigned char>(trailer[6]);
        mReferenceWidth = static_cast<unsigned char>(trailer[7]);
        const uint64_t objectCount = BigEndian(trailer.substr(8, 8));
        const uint64_t root = BigEndian(trailer.substr(16, 8));
        const uint64_t table = BigEndian(trailer.substr(24, 8));
        const size_t tableEnd = mBytes.size() - TRAILER_SIZE;
        if (!IsWidth(mOffsetWidth) || !IsWidth(mReferenceWidth) || root >= objectCount ||
            table <= PROPERTY_LIST_BINARY_MAGIC.size() || table >= tableEnd ||
            objectCount != (tableEnd - table) / mOffsetWidth ||
            (tableEnd - table) % mOffsetWidth != 0) {
            return false;
        }
        if (objectCount > PROPERTY_LIST_MAX_BINARY_VALUES) { return Refuse(Fault::TooManyValues); }
        mObjectCount = static_cast<size_t>(objectCount);
        mRoot = static_cast<size_t>(root);
        mTable = static_cast<size_t>(table);
        return true;
    }

    // Data and strings with a low half of 15, and containers, carry their count as an integer.
    bool TakeCount(std::string_view *rest, unsigned low, uint64_t *count)
    {
        constexpr unsigned LONG_COUNT = 15, MAX_WIDTH_POWER = 3;
        if (low != LONG_COUNT) {
            *count = low;
            return true;
        }
        if (rest->empty()) { return false; }
        const unsigned marker = static_cast<unsigned char>(rest->front());
        const size_t width = size_t{1} << (marker & 0xF);
        if (marker >> 4 != MARKER_INTEGER || (marker & 0xF) > MAX_WIDTH_POWER ||
            rest->size() - 1 < width) {
            return false;
        }
        *count = BigEndian(rest->substr(1, width));
        rest->remove_prefix(1 + width);
        return true;
    }

    bool ReadObject(size_t index, Object *object)
    {
        const uint64_t offset =
            BigEndian(mBytes.substr(mTable + index * mOffsetWidth, mOffsetWidth));
        if (offset < PROPERTY_LIST_BINARY_MAGIC.size() || offset >= mTable) { return false; }
        std::string_view rest = mBytes.substr(offset, mTable - offset);
        const unsigned first = static_cast<unsigned char>(rest.front()), low = first & 0xF;
        rest.remove_prefix(1);
        object->marker = first >> 4;
        const std::optional<size_t> unit = ReadCount(&rest, low, object);
        if (!unit || object->count > rest.size() / *unit) { return false; }
        object->payload = rest.substr(0, object->count * *unit);
        return true;
    }

    // The count, and the bytes that each of it takes; nothing for a form that is not known.
    std::optional<size_t> ReadCount(std::string_view *rest, unsigned low, Object *object)
    {
        constexpr unsigned FALSE_VALUE = 8, TRUE_VALUE = 9;
        constexpr unsigned MAX_INTEGER_POWER = 4, MAX_UID_SIZE = 4;
        const auto sized = [&](bool isKnown, size_t size) -> std::optional<size_t> {
            object->count = size;
            return isKnown ? std::optional<size_t>(1) : std::nullopt;
        };
        const auto counted = [&](size_t unit) -> std::optional<size_t> {
            return TakeCount(rest, low, &object->count) ? std::optional<size_t>(unit)
                                                        : std::nullopt;
        };
        switch (object->marker) {
        case MARKER_BOOLEAN: return sized(low == FALSE_VALUE || low == TRUE_VALUE, 0);
        case MARKER_INTEGER: return sized(low <= MAX_INTEGER_POWER, size_t{1} << low);
        case MARKER_REAL: return sized(low == 2 || low == 3, size_t{1} << low);
        case MARKER_DATE: return sized(low == 3, size_t{1} << low);
        case MARKER_UID: return sized(low < MAX_UID_SIZE, size_t{low} + 1);
        case MARKER_DATA:
        case MARKER_ASCII: return counted(1);
        case MARKER_UTF16: return counted(2);
        case MARKER_ARRAY: return counted(mReferenceWidth);
        case MARKER_DICT: return counted(2 * mReferenceWidth);
        default: return std::nullopt;
        }
    }

    static bool IsContainer(const Object &object)
    {
        return object.marker == MARKER_ARRAY || object.marker == MARKER_DICT;
    }

    // libplist has C strings and integers of 64 bits, signed or not: would the value fit?
    static bool IsRepresentable(const Object &object)
    {
        switch (object.marker) {
        case MARKER_ASCII:
            return std::all_of(object.payload.begin(), object.payload.end(),
                               [](char c) { return c > 0; });
        case MARKER_UTF16: return object.count > 0 && IsUtf16Text(object.payload);
        case MARKER_INTEGER:
            return object.count < 16 || BigEndian(object.payload.substr(0, 8)) == 0;
        default: return true;
        }
    }

    // Without NULs, and with surrogates only in pairs.
    static bool IsUtf16Text(std::string_view bytes)
    {
        bool isPairOpen = false;
        for (size_t i = 0; i < bytes.size(); i += 2) {
            const uint64_t unit = BigEndian(bytes.substr(i, 2));
            const bool isLow = unit >= 0xDC00 && unit <= 0xDFFF;
            if (unit == 0 || isPairOpen != isLow) { return false; }
            isPairOpen = unit >= 0xD800 && unit <= 0xDBFF;
        }
        return !isPairOpen;
    }

    // Depth first from the root.  The stack never gets longer than the nesting that is allowed.
    bool Expand()
    {
        if (!Open(mRoot)) { return false; }
        while (!mStack.empty()) {
            Visit &visit = mStack.back();
            if (visit.nextChild * mReferenceWidth == visit.object.payload.size()) {
                const size_t index = visit.index;
                mExpansions[index].state = Expansion::State::Done;
                mStack.pop_back();
                if (!mStack.empty() && !Add(index)) { return false; }
            } else if (!EnterNextChild(&visit)) {
                return false;
            }
        }
        return true;
    }

    bool EnterNextChild(Visit *visit)
    {
        const uint64_t child = BigEndian(
            visit->object.payload.substr(visit->nextChild * mReferenceWidth, mReferenceWidth));
        if (child >= mObjectCount) { return false; }
        const size_t index = static_cast<size_t>(child);
        const bool isKey =
            visit->object.marker == MARKER_DICT && visit->nextChild < visit->object.count;
        visit->nextChild++;
        if (isKey && !IsString(index)) { return false; }
        switch (mExpansions[index].state) {
        case Expansion::State::Open: return false; // contains itself
        case Expansion::State::Done: return Add(index);
        default: return Open(index);
        }
    }

    bool IsString(size_t index)
    {
        Object object;
        return ReadObject(index, &object) &&
               (object.marker == MARKER_ASCII || object.marker == MARKER_UTF16);
    }

    // Looks at an object for the first time.
    bool Open(size_t index)
    {
        Object object;
        if (!ReadObject(index, &object)) { return false; }
        if (!IsRepresentable(object)) { return Refuse(Fault::NotRepresentable); }
        Expansion &expansion = mExpansions[index];
        expansion.valueCount = 1;
        if (IsContainer(object)) {
            if (mStack.size() == PROPERTY_LIST_MAX_DEPTH) { return Refuse(Fault::TooDeep); }
            expansion.state = Expansion::State::Open;
            expansion.height = 1;
            mStack.push_back(Visit{index, object});
            return true;
        }
        expansion.state = Expansion::State::Done;
        expansion.byteCount = object.payload.size();
        return mStack.empty() || Add(index);
    }

    // Adds a child that is done to the container on top of the stack.
    bool Add(size_t index)
    {
        const Expansion &child = mExpansions[index];
        Expansion &parent = mExpansions[mStack.back().index];
        parent.valueCount += child.valueCount;
        parent.byteCount += child.byteCount;
        parent.height = std::max(parent.height, child.height + 1);
        if (parent.valueCount > PROPERTY_LIST_MAX_BINARY_VALUES) {
            return Refuse(Fault::TooManyValues);
        }
        if (parent.byteCount > PROPERTY_LIST_MAX_EXPANDED_BYTES) { return Refuse(Fault::TooLarge); }
        // A part that was reached near the root before may be reached again further down.
        if (mStack.size() + child.height > PROPERTY_LIST_MAX_DEPTH) {
            return Refuse(Fault::TooDeep);
        }
        return true;
    }

    std::string_view mBytes;
    Fault mFault = Fault::Malformed;
    size_t mOffsetWidth = 0, mReferenceWidth = 0, mObjectCount = 0, mRoot = 0, mTable = 0;
    std::vector<Expansion> mExpansions; // by object
    std::vector<Visit> mStack;
};

} // namespace

PropertyListFault PropertyListGuardBinary(std::string_view bytes)
{
    return BinaryGuard(bytes).Check();
}

} // namespace pelago::platform
