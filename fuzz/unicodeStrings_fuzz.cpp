// Converts any bytes in any of the library's encodings to a string, with ICU and without.  The
// string converts back, whole or cut, within the size that Unicode_BytesRequired() promises.
//
// The first byte of the input chooses the encoding, the second the room for a copy; the rest is the
// text.
#include "codeset.h"
#include "unicode.h"

#include "../tests/unicode/encodingList.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

struct Free {
    void operator()(char *block) const { free(block); }
};
using Text = std::unique_ptr<char, Free>;
using Result = std::optional<std::string>; // nullopt after a failure

void Require(bool isSo)
{
    if (!isSo) { abort(); }
}

const std::vector<StringEncoding> &Supported()
{
    static const std::vector<StringEncoding> encodings = [] {
        std::vector<StringEncoding> all;
#define ADD(value, constant, name, isSupported, ...)                                               \
    if (isSupported) { all.push_back(static_cast<StringEncoding>(value)); }
        ENCODINGS(ADD)
#undef ADD
        return all;
    }();
    return encodings;
}

struct IcuFolder {
    std::string path = std::filesystem::temp_directory_path() / "stringsFuzzXXXXXX";
    IcuFolder()
    {
        Require(mkdtemp(path.data()) != nullptr);
        std::ofstream(path + "/icudt44l.dat") << "data";
    }
    ~IcuFolder() { std::filesystem::remove_all(path); }
};

size_t UnitOf(StringEncoding encoding)
{
    if (encoding >= STRING_ENCODING_UTF_16LE && encoding <= STRING_ENCODING_UTF_16) { return 2; }
    if (encoding >= STRING_ENCODING_UTF_32LE && encoding <= STRING_ENCODING_UTF_32) { return 4; }
    return 1;
}

bool IsIscii(StringEncoding encoding)
{
    return encoding >= STRING_ENCODING_WINDOWS_57002 && encoding <= STRING_ENCODING_WINDOWS_57011;
}

Result BytesOf(const std::string &string, StringEncoding encoding)
{
    size_t size = 0;
    const Text bytes(Unicode_GetAllocBytesWithLength(string.c_str(), encoding, -1, &size));
    Require((bytes != nullptr) == Unicode_CanGetBytesWithEncoding(string.c_str(), encoding));
    if (!bytes) { return std::nullopt; }
    const size_t terminator = UnitOf(encoding);
    Require(memcmp(bytes.get() + size, "\0\0\0\0", terminator) == 0);
    return std::string(bytes.get(), size);
}

// Returns the size to which a copy of the bytes may be cut, limit at most: after a whole character
// in UTF-8 and UTF-16LE.
size_t Cut(const std::string &string, StringEncoding encoding, const std::string &bytes,
           size_t limit)
{
    if (bytes.size() <= limit) { return bytes.size(); }
    if (encoding != STRING_ENCODING_UTF_8 && encoding != STRING_ENCODING_UTF_16LE) { return limit; }
    // The lead bytes give the characters' lengths.
    size_t kept = 0;
    for (size_t i = 0; i < string.size();) {
        const auto lead = static_cast<unsigned char>(string[i]);
        const size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        const size_t size = encoding == STRING_ENCODING_UTF_8 ? length : length < 4 ? 2 : 4;
        if (kept + size > limit) { break; }
        kept += size;
        i += length;
    }
    return kept;
}

void CheckCopy(const std::string &string, StringEncoding encoding, const Result &bytes,
               size_t capacity)
{
    const Text block(static_cast<char *>(malloc(capacity + 1)));
    memset(block.get(), 'U', capacity + 1);
    size_t length = 77;
    const bool fit = Unicode_CopyBytes(block.get(), string.c_str(), capacity, &length, encoding);
    const size_t terminator = encoding == STRING_ENCODING_UTF_16LE ? 2 : 1;
    std::string expected;
    if (bytes && capacity >= terminator) {
        expected = bytes->substr(0, Cut(string, encoding, *bytes, capacity - terminator));
        Require(length == expected.size() && fit == (length == bytes->size()));
        expected.append(terminator, '\0');
    } else {
        Require(!fit && length == 0);
        const bool hasTerminator = !bytes && capacity > 0 && encoding != STRING_ENCODING_ASCII;
        expected.assign(hasTerminator ? 1 : 0, '\0');
    }
    expected.resize(capacity + 1, 'U'); // the rest must be unchanged
    Require(memcmp(block.get(), expected.data(), expected.size()) == 0);
}

// Converts the string to the encoding and back.
void CheckBytes(const std::string &string, StringEncoding encoding, size_t capacity)
{
    const Result bytes = BytesOf(string, encoding);
    CheckCopy(string, encoding, bytes, capacity);
    if (!bytes) { return; }
    CheckCopy(string, encoding, bytes, bytes->size() + UnitOf(encoding));
    const size_t required = Unicode_BytesRequired(string.c_str(), encoding);
    Require(bytes->size() + UnitOf(encoding) <= required);

    // ICU writes a joiner at the end of ISCII as one byte, but reads that byte as half a character.
    if (IsIscii(encoding)) { return; }
    const Text again(
        Unicode_AllocWithLength(bytes->data(), static_cast<ssize_t>(bytes->size()), encoding));
    Require(BytesOf(again.get(), encoding) == bytes);
}

// Converts the string to ASCII with both kinds of escapes, and reads it back.
void CheckEscapes(const std::string &string)
{
    size_t size = 0;
    const Text utf32(
        Unicode_GetAllocBytesWithLength(string.c_str(), STRING_ENCODING_UTF_32LE, -1, &size));
    std::string ascii;
    for (size_t i = 0; i < size; i += 4) {
        uint32_t value;
        memcpy(&value, utf32.get() + i, 4);
        char escaped[16];
        if (value < 0x80 && value % 2 == 0) {
            snprintf(escaped, sizeof escaped, "%s%c", value == '\\' ? "\\" : "",
                     static_cast<char>(value));
        } else {
            snprintf(escaped, sizeof escaped, value <= 0xFFFF ? "\\u%04x" : "\\U%08X", value);
        }
        ascii += escaped;
    }
    const Text again(Unicode_AllocFromEscapedAscii(ascii.c_str(), true));
    Require(string == again.get());
}

void CheckEscaped(const std::string &in, StringEncoding encoding)
{
    std::string expected;
    for (const char c : in) {
        const auto byte = static_cast<unsigned char>(c);
        const bool isPlain = byte >= ' ' && byte <= '~' && byte != '\\';
        char text[5] = {c};
        if (!isPlain) { snprintf(text, sizeof text, "\\x%02X", byte); }
        expected += text;
    }
    const Text escaped(Unicode_EscapeBuffer(in.data(), static_cast<ssize_t>(in.size()), encoding));
    Require(expected == escaped.get());
}

// Checks one input, with or without ICU.  isKnown: the encoding can be converted now.
void Check(const std::string &in, StringEncoding encoding, size_t capacity, bool isKnown)
{
    const auto size = static_cast<ssize_t>(in.size());
    const bool isValid = Unicode_IsBufferValid(in.data(), size, encoding);
    if (!isKnown && !in.empty() && !isValid) { return; } // converting would end the process
    const Text text(Unicode_AllocWithLength(in.data(), size, encoding));
    const std::string string = text.get();
    Require(Unicode_IsStringValidUtf8(string.c_str()));
    CheckBytes(string, encoding, capacity);
    CheckBytes(string, STRING_ENCODING_UTF_8, capacity);
    CheckBytes(string, STRING_ENCODING_UTF_16LE, capacity);

    // The input up to its terminator.
    const size_t unit = UnitOf(encoding);
    std::string terminated = in.substr(0, in.size() - in.size() % unit) + std::string(unit, '\0');
    size_t length = 0;
    while (terminated.compare(length, unit, std::string(unit, '\0')) != 0) {
        length += unit;
    }
    if (isKnown ||
        Unicode_IsBufferValid(terminated.data(), static_cast<ssize_t>(length), encoding)) {
        const Text a(Unicode_AllocWithLength(terminated.data(), -1, encoding)),
            b(Unicode_AllocWithLength(terminated.data(), static_cast<ssize_t>(length), encoding));
        Require(strcmp(a.get(), b.get()) == 0);
    }
    if (isKnown) { CheckEscapes(string); }
}

bool IsReadWithoutIcu(StringEncoding encoding)
{
    return encoding <= STRING_ENCODING_UTF_16BE || encoding == STRING_ENCODING_ASCII;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const IcuFolder icu;
    if (size < 2) { return 0; }
    const StringEncoding encoding = Supported()[data[0] % Supported().size()];
    const size_t capacity = data[1];
    const std::string in(data + 2, data + size);

    CheckEscaped(in, encoding);
    CodeSet_Init(icu.path.c_str());
    Check(in, encoding, capacity, true);
    CodeSet_DontUseIcu();
    if (IsReadWithoutIcu(encoding)) { Check(in, encoding, capacity, false); }
    return 0;
}
