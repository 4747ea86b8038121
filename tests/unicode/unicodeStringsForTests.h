// unicodeStringsForTests.h -- texts in several encodings, and the two ways to convert them.
#ifndef PELAGO_TESTS_UNICODE_UNICODESTRINGSFORTESTS_H
#define PELAGO_TESTS_UNICODE_UNICODESTRINGSFORTESTS_H

#include "unicode.h"

#include "codeset.h"
#include "encodingList.h"
#include "scopedForTests.h"
#include "unicodeInt.h"
#include "useIcu.h"
#include "utf16Bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

using namespace pelago;
using namespace std::string_literals;

// ---- The current encoding, which this test chooses

inline StringEncoding sCurrent = STRING_ENCODING_UTF_8;

class CurrentEncoding {
public:
    explicit CurrentEncoding(StringEncoding encoding) { sCurrent = encoding; }
    CurrentEncoding(const CurrentEncoding &) = delete;
    CurrentEncoding &operator=(const CurrentEncoding &) = delete;
    ~CurrentEncoding() { sCurrent = STRING_ENCODING_UTF_8; }
};

// ---- The two ways to convert

class WithIcu : public testing::Test {
protected:
    void SetUp() override { UseIcu(); }
};

class WithoutIcu : public testing::Test {
protected:
    void SetUp() override { CodeSet_DontUseIcu(); }
};
using WithoutIcuDeathTest = WithoutIcu;

class BothWays : public testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        if (GetParam()) {
            UseIcu();
        } else {
            CodeSet_DontUseIcu();
        }
    }
};
using BothWaysDeathTest = BothWays;
inline const auto NAME_OF_WAY = [](const auto &row) { return row.param ? "Icu" : "Fallback"; };

// ---- Texts

inline std::string Le32(std::u32string_view text)
{
    std::string bytes;
    for (const char32_t unit : text) {
        for (int shift = 0; shift < 32; shift += 8) {
            bytes += static_cast<char>(unit >> shift);
        }
    }
    return bytes;
}

inline std::string Be32(std::u32string_view text)
{
    std::string bytes;
    for (const char32_t unit : text) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes += static_cast<char>(unit >> shift);
        }
    }
    return bytes;
}

// Characters of one to four bytes.
inline const std::string MIXED = "a\u00e9\u20ac\U0001F600z";
constexpr char16_t MIXED_16[] = u"a\u00e9\u20ac\U0001F600z";
constexpr char32_t MIXED_32[] = U"a\u00e9\u20ac\U0001F600z";

// A block of exactly these bytes, so that a sanitizer reports a read after its end.
class Block {
public:
    explicit Block(const std::string &bytes, size_t offset = 0)
        : mBytes(new char[offset + bytes.size()]), mOffset(offset)
    {
        std::copy(bytes.begin(), bytes.end(), mBytes.get() + offset);
    }
    const char *get() const { return mBytes.get() + mOffset; }

private:
    std::unique_ptr<char[]> mBytes;
    size_t mOffset;
};

inline std::string Alloc(const std::string &bytes, StringEncoding encoding)
{
    const Block block(bytes);
    return Take(Unicode_AllocWithLength(block.get(), static_cast<ssize_t>(bytes.size()), encoding));
}

inline const std::string NONE = "(none)";

// Returns the string's bytes.  Expects a terminator of this size after them.
inline std::string GetBytes(const std::string &string, StringEncoding encoding,
                            size_t terminator = 1)
{
    size_t size = 0;
    char *bytes = Unicode_GetAllocBytesWithLength(string.c_str(), encoding, -1, &size);
    if (bytes == nullptr) { return NONE; }
    EXPECT_EQ(std::string(bytes + size, terminator), std::string(terminator, '\0'));
    const std::string taken(bytes, size);
    free(bytes);
    return taken;
}

struct Spelling {
    const char *name;
    StringEncoding encoding;
    std::string bytes, text;
    size_t unit;
};
inline void PrintTo(const Spelling &row, std::ostream *out) { *out << row.name; }
inline const auto NAME_OF_ROW = [](const auto &row) { return std::string(row.param.name); };

inline const Spelling UTF_8_ROW = {"Utf8", STRING_ENCODING_UTF_8, MIXED, MIXED, 1};
inline const Spelling ASCII_ROW = {"Ascii", STRING_ENCODING_ASCII, "a\x7f\x01", "a\x7f\x01", 1};
inline const Spelling UTF_16LE_ROW = {"Utf16le", STRING_ENCODING_UTF_16LE, Le(MIXED_16), MIXED, 2};
inline const Spelling UTF_16BE_ROW = {"Utf16be", STRING_ENCODING_UTF_16BE, Be(MIXED_16), MIXED, 2};

struct Encoding {
    StringEncoding value;
    const char *name;
    bool isSupported;
};

inline const std::vector<Encoding> &AllEncodings()
{
    static const std::vector<Encoding> encodings = {
#define ROW(value, constant, name, isSupported, ...)                                               \
    {static_cast<StringEncoding>(value), name, isSupported},
        ENCODINGS(ROW)
#undef ROW
    };
    return encodings;
}

// Zero bytes that are no terminator: within a unit, and across the border of two units.
inline const Spelling UTF_16LE_ZEROS = {"Utf16leZeros", STRING_ENCODING_UTF_16LE, Le(u"a\u0100b"),
                                        "a\u0100b", 2};
inline const Spelling UTF_16BE_ZEROS = {"Utf16beZeros", STRING_ENCODING_UTF_16BE,
                                        Be(u"\u0100a\u0100"), "\u0100a\u0100", 2};

using Strings = std::vector<std::string>;

struct Copy {
    bool fit;
    size_t length;
    std::string block;
    bool operator==(const Copy &) const = default;
};
inline void PrintTo(const Copy &copy, std::ostream *out)
{
    *out << copy.fit << ", " << copy.length << ", " << testing::PrintToString(copy.block);
}

constexpr char UNTOUCHED = 'U';

inline Copy CopyInto(size_t capacity, const std::string &string, StringEncoding encoding)
{
    const std::unique_ptr<char[]> block(new char[capacity]);
    memset(block.get(), UNTOUCHED, capacity);
    size_t length = 77;
    const bool fit = Unicode_CopyBytes(block.get(), string.c_str(), capacity, &length, encoding);
    return {fit, length, std::string(block.get(), capacity)};
}

// Returns the copy that has these bytes and their terminator; the rest of its block is untouched.
inline Copy Kept(bool fit, const std::string &bytes, size_t unit, size_t capacity)
{
    std::string block = bytes + std::string(unit, '\0');
    block.resize(capacity, UNTOUCHED);
    return {fit, bytes.size(), block};
}

#endif // PELAGO_TESTS_UNICODE_UNICODESTRINGSFORTESTS_H
