// unicodeSimpleBase.cpp -- strings from bytes in any encoding, and bytes from strings.
#include "unicode.h"

#include "ascii.h"
#include "codeset.h"
#include "diagnostics.h"
#include "escape.h"
#include "scoped.h"
#include "unicodeInt.h"
#include "utf.h"
#include "util.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace pelago;

namespace {

constexpr char MODULE_PATH[] = "lib/unicode/unicodeSimpleBase";

// The numbers of the checks that end the process.
constexpr int COPY_UTF16_LINE = 554;
constexpr int GET_UTF16_LINE = 741;
constexpr int ESCAPED_ASCII_LINE = 815;
constexpr int ESCAPED_NOT_ASCII_LINE = 831;
constexpr int ESCAPED_DIGIT_LINE = 869;

constexpr char UTF8[] = "UTF-8";

// ---- Lengths

// Returns the size in bytes of the encoding's units.  The terminator is a unit of zero.
size_t UnicodeUnitSize(StringEncoding encoding)
{
    switch (encoding) {
    case STRING_ENCODING_UTF_16LE:
    case STRING_ENCODING_UTF_16BE:
    case STRING_ENCODING_UTF_16: return 2;
    case STRING_ENCODING_UTF_32LE:
    case STRING_ENCODING_UTF_32BE:
    case STRING_ENCODING_UTF_32: return 4;
    default: return 1;
    }
}

// Returns the number of bytes before the terminator.
size_t UnicodeTerminatedLength(const void *buffer, StringEncoding encoding)
{
    constexpr char zero[4] = {};
    const char *bytes = static_cast<const char *>(buffer);
    const size_t unit = UnicodeUnitSize(encoding);
    if (unit == 1) { return strlen(bytes); }
    size_t length = 0;
    while (memcmp(bytes + length, zero, unit) != 0) {
        length += unit;
    }
    return length;
}

size_t UnicodeLength(const void *buffer, ssize_t length, StringEncoding encoding)
{
    return length < 0 ? UnicodeTerminatedLength(buffer, encoding) : static_cast<size_t>(length);
}

// Returns the number of the list's entries: count or, if that is negative, the number of entries up
// to the null at the list's end, the null included.
template <typename Item> size_t UnicodeListLength(Item *const *list, ssize_t count)
{
    if (count >= 0) { return static_cast<size_t>(count); }
    size_t length = 0;
    while (list[length] != nullptr) {
        length++;
    }
    return length + 1;
}

// ---- Cutting

// Copies the first `kept` of a result's bytes, and a terminator of `unit` bytes.  Returns whether
// these were all `size` bytes.
bool UnicodeCopyOut(char *destination, const char *bytes, size_t size, size_t kept, size_t unit,
                    size_t *lengthOut)
{
    memcpy(destination, bytes, kept);
    memset(destination + kept, 0, unit);
    if (lengthOut != nullptr) { *lengthOut = kept; }
    return kept == size;
}

bool UnicodeCopyNothing(size_t *lengthOut)
{
    if (lengthOut != nullptr) { *lengthOut = 0; }
    return false;
}

bool UnicodeIsAscii(const char *string, size_t length)
{
    return std::all_of(string, string + length, IsAscii);
}

// ---- Escapes

uint32_t UnicodeReadDigits(const char *digits, int count)
{
    uint32_t value = 0;
    for (int i = 0; i < count; i++) {
        const unsigned digit = AsciiHexadecimalValue(digits[i]);
        if (digit == ASCII_NO_DIGIT) {
            Panic(UTIL_NOT_IMPLEMENTED_REPORT, MODULE_PATH, ESCAPED_DIGIT_LINE);
        }
        value = value << 4 | digit;
    }
    return value;
}

// Writes the character as UTF-16, or U+FFFD for a value above U+10FFFF.  Returns the place after
// the written units.
uint16_t *UnicodeWriteUtf16(uint16_t *out, uint32_t value)
{
    if (value > 0x10FFFF) { value = 0xFFFD; }
    if (value <= 0xFFFF) {
        *out++ = static_cast<uint16_t>(value);
        return out;
    }
    *out++ = static_cast<uint16_t>(0xD800 + ((value - 0x10000) >> 10));
    *out++ = static_cast<uint16_t>(0xDC00 + (value & 0x3FF));
    return out;
}

// Returns a new terminated copy, or nullptr when memory runs out.
char *UnicodeCopy(const char *bytes, size_t length)
{
    char *copy = static_cast<char *>(malloc(length + 1));
    if (copy == nullptr) { return nullptr; }
    memcpy(copy, bytes, length);
    copy[length] = '\0';
    return copy;
}

int UnicodeErrorOf(CodeSetReason reason)
{
    switch (reason) {
    case CODESET_REASON_INVALID: return EILSEQ;
    case CODESET_REASON_NO_MEMORY:
    case CODESET_REASON_TOO_LONG: return ENOMEM;
    default: return EINVAL;
    }
}

// Returns a new string of the text if that is valid.  Otherwise, and when memory runs out, returns
// nullptr, and *error is the number for errno.
Unicode UnicodeConvertValid(const char *bytes, size_t size, StringEncoding encoding, int *error)
{
    if (encoding == STRING_ENCODING_UTF_8 || encoding == STRING_ENCODING_ASCII) {
        *error = EILSEQ;
        if (!Unicode_IsBufferValid(bytes, static_cast<ssize_t>(size), encoding)) { return nullptr; }
        *error = ENOMEM;
        return UnicodeCopy(bytes, size);
    }
    char *string = nullptr;
    CodeSetFailure failure;
    CodeSet_Convert(Unicode_EncodingEnumToName(encoding), bytes, size, UTF8, CODESET_INVALID_FAIL,
                    &string, nullptr, &failure);
    *error = UnicodeErrorOf(failure.reason);
    return string;
}

} // namespace

// ---- Strings from bytes

Unicode pelago::UnicodeAllocInternal(const void *buffer, size_t length, StringEncoding encoding,
                                     bool strict)
{
    encoding = Unicode_ResolveEncoding(encoding);
    const char *bytes = static_cast<const char *>(buffer);
    char *string = nullptr;
    if (!strict) {
        // Most text is valid UTF-8, which needs no conversion.
        if (encoding == STRING_ENCODING_UTF_8 && CodeSet_IsValidUtf8(bytes, length)) {
            return UnicodeCopy(bytes, length);
        }
        return CodeSet_GenericToGeneric(Unicode_EncodingEnumToName(encoding), bytes, length, UTF8,
                                        CODESET_INVALID_SUBSTITUTE, &string, nullptr)
                   ? string
                   : nullptr;
    }
    switch (encoding) {
    case STRING_ENCODING_UTF_8:
    case STRING_ENCODING_ASCII:
        if (!Unicode_IsBufferValid(bytes, static_cast<ssize_t>(length), encoding)) {
            return nullptr;
        }
        return Util_SafeStrndup(bytes, length);
    case STRING_ENCODING_UTF_16LE:
        return CodeSet_Utf16leToUtf8(bytes, length, &string, nullptr) ? string : nullptr;
    default:
        return CodeSet_GenericToGeneric(Unicode_EncodingEnumToName(encoding), bytes, length, UTF8,
                                        CODESET_INVALID_FAIL, &string, nullptr)
                   ? string
                   : nullptr;
    }
}

extern "C" {

Unicode Unicode_AllocWithLength(const void *buffer, ssize_t length, StringEncoding encoding)
{
    if (buffer == nullptr) { return nullptr; }
    encoding = Unicode_ResolveEncoding(encoding);
    const size_t size = UnicodeLength(buffer, length, encoding);
    Unicode string = UnicodeAllocInternal(buffer, size, encoding, /* strict */ false);
    if (string == nullptr) {
        const char *escaped = Unicode_EscapeBuffer(buffer, static_cast<ssize_t>(size), encoding);
        Panic("%s: Couldn't convert invalid buffer [%s] from %s to Unicode.\n", __func__,
              escaped != nullptr ? escaped : "(couldn't escape bytes)",
              Unicode_EncodingEnumToName(encoding));
    }
    return string;
}

Unicode Unicode_AllocIfValid(const void *buffer, ssize_t length, StringEncoding encoding)
{
    if (buffer == nullptr) { return nullptr; }
    encoding = Unicode_ResolveEncoding(encoding);
    const size_t size = UnicodeLength(buffer, length, encoding);
    int error = 0;
    Unicode string = nullptr;
    {
        const ErrnoSaver keep;
        string = UnicodeConvertValid(static_cast<const char *>(buffer), size, encoding, &error);
    }
    if (string == nullptr) { errno = error; }
    return string;
}

Unicode *Unicode_AllocList(char **list, ssize_t count, StringEncoding encoding)
{
    encoding = Unicode_ResolveEncoding(encoding);
    const size_t length = UnicodeListLength(list, count);
    auto *strings = static_cast<Unicode *>(Util_SafeCalloc(length, sizeof(Unicode)));
    for (size_t i = 0; i < length; i++) {
        strings[i] = Unicode_AllocWithLength(list[i], -1, encoding);
    }
    return strings;
}

Unicode Unicode_AllocFromEscapedAscii(const char *ascii, bool unescape)
{
    if (!unescape) { return Unicode_Duplicate(ascii); }
    const ScopedFree<uint16_t> units(
        static_cast<uint16_t *>(Util_SafeMalloc(2 * strlen(ascii) + 2)));
    uint16_t *out = units.get();
    while (*ascii != '\0') {
        if (!IsAscii(*ascii)) { Panic(UTIL_VERIFY_REPORT, MODULE_PATH, ESCAPED_ASCII_LINE); }
        if (*ascii != '\\') {
            out = UnicodeWriteUtf16(out, static_cast<uint32_t>(*ascii++));
            continue;
        }
        const char escaped = ascii[1];
        if (escaped == '\0') { break; }
        if (!IsAscii(escaped)) { Panic(UTIL_VERIFY_REPORT, MODULE_PATH, ESCAPED_NOT_ASCII_LINE); }
        const int digits = escaped == 'u' ? 4 : escaped == 'U' ? 8 : 0;
        ascii += 2;
        out = UnicodeWriteUtf16(out, digits != 0 ? UnicodeReadDigits(ascii, digits)
                                                 : static_cast<uint32_t>(escaped));
        ascii += digits;
    }
    *out = 0;
    return Unicode_AllocWithLength(units.get(), -1, STRING_ENCODING_UTF_16LE);
}

Unicode Unicode_Duplicate(const char *string) { return Util_SafeStrdup(string); }

// ---- Bytes from strings

char *Unicode_GetAllocBytesWithLength(const char *string, StringEncoding encoding, ssize_t length,
                                      size_t *lengthOut)
{
    if (string == nullptr) { return nullptr; }
    encoding = Unicode_ResolveEncoding(encoding);
    const size_t size = length < 0 ? strlen(string) : static_cast<size_t>(length);
    char *bytes = nullptr;
    switch (encoding) {
    case STRING_ENCODING_ASCII:
        if (!UnicodeIsAscii(string, size)) { return nullptr; }
        [[fallthrough]];
    case STRING_ENCODING_UTF_8:
        bytes = static_cast<char *>(Util_SafeMalloc(size + 1));
        (void)UnicodeCopyOut(bytes, string, size, size, 1, lengthOut);
        return bytes;
    case STRING_ENCODING_UTF_16LE:
        if (!CodeSet_Utf8ToUtf16le(string, size, &bytes, lengthOut)) {
            Panic(UTIL_NOT_IMPLEMENTED_REPORT, MODULE_PATH, GET_UTF16_LINE);
        }
        return bytes;
    default:
        return CodeSet_GenericToGeneric(UTF8, string, size, Unicode_EncodingEnumToName(encoding),
                                        CODESET_INVALID_FAIL, &bytes, lengthOut)
                   ? bytes
                   : nullptr;
    }
}

char *Unicode_GetAllocBytes(const char *string, StringEncoding encoding)
{
    return Unicode_GetAllocBytesWithLength(string, encoding, -1, nullptr);
}

char **Unicode_GetAllocList(Unicode *list, ssize_t count, StringEncoding encoding)
{
    encoding = Unicode_ResolveEncoding(encoding);
    const size_t length = UnicodeListLength(list, count);
    auto **buffers = static_cast<char **>(Util_SafeCalloc(length, sizeof(char *)));
    for (size_t i = 0; i < length; i++) {
        buffers[i] = Unicode_GetAllocBytes(list[i], encoding);
        if (buffers[i] == nullptr && list[i] != nullptr) {
            std::for_each(buffers, buffers + i, free);
            free(buffers);
            return nullptr;
        }
    }
    return buffers;
}

bool Unicode_CopyBytes(void *destination, const char *string, size_t capacity, size_t *lengthOut,
                       StringEncoding encoding)
{
    char *out = static_cast<char *>(destination);
    const size_t size = strlen(string);
    encoding = Unicode_ResolveEncoding(encoding);
    if (capacity < (encoding == STRING_ENCODING_UTF_16LE ? 2 : 1)) {
        return UnicodeCopyNothing(lengthOut); // not even a terminator fits
    }
    const size_t limit = capacity - 1;
    switch (encoding) {
    case STRING_ENCODING_UTF_8: {
        const size_t kept = size <= limit ? size : Utf8LegalLength(string, limit);
        return UnicodeCopyOut(out, string, size, kept, 1, lengthOut);
    }
    case STRING_ENCODING_ASCII:
        if (!UnicodeIsAscii(string, size)) { return UnicodeCopyNothing(lengthOut); }
        return UnicodeCopyOut(out, string, size, std::min(size, limit), 1, lengthOut);
    case STRING_ENCODING_UTF_16LE: {
        char *block = nullptr;
        size_t converted = 0;
        if (!CodeSet_Utf8ToUtf16le(string, size, &block, &converted)) {
            Panic(UTIL_NOT_IMPLEMENTED_REPORT, MODULE_PATH, COPY_UTF16_LINE);
        }
        const ScopedFree<char> utf16(block);
        size_t kept = std::min(converted, (capacity - 2) & ~size_t{1});
        // A high surrogate at the end is dropped, since its low surrogate was cut off.
        if (kept > 0 && (block[kept - 1] & 0xFC) == 0xD8) { kept -= 2; }
        return UnicodeCopyOut(out, block, converted, kept, 2, lengthOut);
    }
    default: {
        char *block = nullptr;
        size_t converted = 0;
        if (!CodeSet_GenericToGeneric(UTF8, string, size, Unicode_EncodingEnumToName(encoding),
                                      CODESET_INVALID_FAIL, &block, &converted)) {
            out[0] = '\0';
            return UnicodeCopyNothing(lengthOut);
        }
        const ScopedFree<char> bytes(block);
        return UnicodeCopyOut(out, block, converted, std::min(converted, limit), 1, lengthOut);
    }
    }
}

bool Unicode_CanGetBytesWithEncoding(const char *string, StringEncoding encoding)
{
    if (string == nullptr) { return true; }
    const ScopedFree<char> bytes(Unicode_GetAllocBytes(string, encoding));
    return bytes != nullptr;
}

// ---- Questions

bool Unicode_IsBufferValid(const void *buffer, ssize_t length, StringEncoding encoding)
{
    if (buffer == nullptr) { return true; }
    encoding = Unicode_ResolveEncoding(encoding);
    const char *bytes = static_cast<const char *>(buffer);
    const size_t size = UnicodeLength(buffer, length, encoding);
    switch (encoding) {
    case STRING_ENCODING_UTF_8: return CodeSet_IsValidUtf8(bytes, size);
    case STRING_ENCODING_ASCII: return UnicodeIsAscii(bytes, size);
    default: return CodeSet_IsValidBuffer(bytes, size, Unicode_EncodingEnumToName(encoding));
    }
}

bool Unicode_IsStringValidUtf8(const char *string) { return CodeSet_IsValidUtf8String(string); }

size_t Unicode_LengthInBytes(const char *string) { return strlen(string); }

size_t Unicode_BytesRequired(const char *string, StringEncoding encoding)
{
    encoding = Unicode_ResolveEncoding(encoding);
    size_t width = 7; // of a character with the escape sequences of a shifting encoding
    switch (encoding) {
    case STRING_ENCODING_UTF_8: return strlen(string) + 1;
    case STRING_ENCODING_UTF_16LE:
    case STRING_ENCODING_UTF_16BE:
    case STRING_ENCODING_UTF_16: width = 2; break;
    case STRING_ENCODING_UTF_32LE:
    case STRING_ENCODING_UTF_32BE:
    case STRING_ENCODING_UTF_32: width = 4; break;
    case STRING_ENCODING_ASCII:
    case STRING_ENCODING_ISO_8859_1:
    case STRING_ENCODING_WINDOWS_1252: width = 1; break;
    default: break;
    }
    // Counts a non-ASCII byte and the byte after it as one character.  The other bytes of a longer
    // character are counted again, so the result may be too large but never too small.
    size_t characters = 0;
    while (*string != '\0') {
        characters++;
        if (!IsAscii(*string++) && *string != '\0') { string++; }
    }
    return (characters + 10) * width; // ten more for a terminator and a byte order mark
}

char *Unicode_EscapeBuffer(const void *buffer, ssize_t length, StringEncoding encoding)
{
    static constexpr auto UNPRINTABLE = [] {
        struct {
            int bytes[256];
        } set = {};
        for (int byte = 0; byte < 256; byte++) {
            set.bytes[byte] = byte < 0x20 || byte == '\\' || byte >= 0x7F;
        }
        return set;
    }();
    encoding = Unicode_ResolveEncoding(encoding);
    return Escape_DoString("\\x", UNPRINTABLE.bytes, buffer,
                           UnicodeLength(buffer, length, encoding), nullptr);
}

} // extern "C"
