// propertyLists.h -- makes property lists for tests by hand: whole, odd and harmful lists.
#ifndef PELAGO_TESTS_PLATFORM_PROPERTYLISTS_H
#define PELAGO_TESTS_PLATFORM_PROPERTYLISTS_H

#include <cstdint>
#include <string>
#include <vector>

inline std::string Repeat(const std::string &text, size_t count)
{
    std::string repeated;
    for (size_t i = 0; i < count; i++) {
        repeated += text;
    }
    return repeated;
}

inline std::string BigEndian(uint64_t value, size_t width)
{
    std::string bytes;
    for (size_t i = width; i-- > 0;) {
        bytes += static_cast<char>(value >> (8 * i));
    }
    return bytes;
}

// Returns a binary list of these objects.  The first object is the root; a reference has four
// bytes.
inline std::string BinaryList(const std::vector<std::string> &objects)
{
    constexpr size_t OFFSET_WIDTH = 4, REFERENCE_WIDTH = 4;
    std::string list = "bplist00", offsets;
    for (const std::string &object : objects) {
        offsets += BigEndian(list.size(), OFFSET_WIDTH);
        list += object;
    }
    const size_t table = list.size();
    list +=
        offsets + std::string(6, '\0') + BigEndian(OFFSET_WIDTH, 1) + BigEndian(REFERENCE_WIDTH, 1);
    return list + BigEndian(objects.size(), 8) + BigEndian(0, 8) + BigEndian(table, 8);
}

// Returns the marker with the count in it or after it.
inline std::string BinaryHead(unsigned marker, size_t count)
{
    if (count < 15) { return BigEndian(marker << 4 | count, 1); }
    return BigEndian(marker << 4 | 15, 1) + "\x12" + BigEndian(count, 4);
}

inline std::string BinaryContainer(unsigned marker, size_t count, const std::vector<size_t> &parts)
{
    std::string object = BinaryHead(marker, count);
    for (size_t part : parts) {
        object += BigEndian(part, 4);
    }
    return object;
}
inline std::string BinaryArray(const std::vector<size_t> &items)
{
    return BinaryContainer(0xA, items.size(), items);
}
inline std::string BinaryDict(const std::vector<size_t> &keysThenValues)
{
    return BinaryContainer(0xD, keysThenValues.size() / 2, keysThenValues);
}
inline std::string BinaryAscii(const std::string &text)
{
    return BinaryHead(0x5, text.size()) + text;
}

// Returns the list { "k": value }.  The value's further objects have the numbers from 3 on.
inline std::string BinaryWithValue(const std::string &value,
                                   const std::vector<std::string> &others = {})
{
    std::vector<std::string> objects = {BinaryDict({1, 2}), BinaryAscii("k"), value};
    objects.insert(objects.end(), others.begin(), others.end());
    return BinaryList(objects);
}

inline std::string XmlWithValue(const std::string &value)
{
    return "<plist version=\"1.0\"><dict><key>k</key>" + value + "</dict></plist>";
}

// Returns a dictionary with this number of arrays below it, each within the one before.
inline std::string DeepXml(size_t arrays)
{
    return "<dict><key>k</key>" + Repeat("<array>", arrays) + Repeat("</array>", arrays) +
           "</dict>";
}
inline std::string DeepBinary(size_t arrays)
{
    std::vector<std::string> others;
    for (size_t i = 1; i < arrays; i++) {
        others.push_back(i + 1 < arrays ? BinaryArray({3 + i}) : BinaryArray({}));
    }
    return BinaryWithValue(arrays > 1 ? BinaryArray({3}) : BinaryArray({}), others);
}

// Each level refers fourteen times to the next level: a few hundred bytes stand for 14^7 values.
inline std::string SelfMultiplyingBinary()
{
    constexpr size_t LEVELS = 7, FOLD = 14;
    std::vector<std::string> others;
    for (size_t i = 0; i < LEVELS; i++) {
        others.push_back(BinaryArray(std::vector<size_t>(FOLD, 4 + i)));
    }
    others.push_back(BinaryArray({}));
    return BinaryWithValue(BinaryArray({3}), others);
}

#endif // PELAGO_TESTS_PLATFORM_PROPERTYLISTS_H
