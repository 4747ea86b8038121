// codesetFallback.cpp -- conversion without ICU, between the Unicode forms, ASCII and the current
// code set.  It refuses malformed text.  But in a conversion between ASCII and UTF-8 the policy
// decides about each byte or character that is not ASCII.
#include "codesetInt.h"

#include "ascii.h"
#include "codeset.h"
#include "codesetUtf.h"
#include "scoped.h"
#include "unicode.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace pelago {

namespace {

constexpr char UTF8_REPLACEMENT[] = "\xef\xbf\xbd";
constexpr char ASCII_SUBSTITUTE[] = "\x1a";

// Returns a copy with the bytes of each pair swapped, or nullptr when memory runs out.  The size
// must be even.
char *CodeSetSwapped(const char *buf, size_t size)
{
    char *swapped = static_cast<char *>(malloc(size));
    if (swapped != nullptr) { swab(buf, swapped, static_cast<ssize_t>(size)); }
    return swapped;
}

size_t CodeSetUtf16beValidSize(const char *buf, size_t size)
{
    constexpr unsigned SURROGATE = 0xF8, HALF = 0xFC, HIGH = 0xD8, LOW = 0xDC; // of upper bytes
    size_t at = 0;
    while (size - at >= 2) {
        const bool isSurrogate = (buf[at] & SURROGATE) == HIGH;
        if (isSurrogate &&
            ((buf[at] & HALF) == LOW || size - at < 4 || (buf[at + 2] & HALF) != LOW)) {
            break;
        }
        at += isSurrogate ? 4 : 2;
    }
    return at;
}

// Returns the number of bytes before the first malformed sequence, or size if there is none.
size_t CodeSetFallbackValidSize(const char *buf, size_t size, StringEncoding encoding)
{
    switch (encoding) {
    case STRING_ENCODING_UTF_8: return CodeSetUtf8ValidSize(buf, size);
    case STRING_ENCODING_UTF_16LE: return CodeSetUtf16ValidSize(buf, size);
    case STRING_ENCODING_UTF_16BE: return CodeSetUtf16beValidSize(buf, size);
    case STRING_ENCODING_ASCII:
        return static_cast<size_t>(std::find_if_not(buf, buf + size, IsAscii) - buf);
    default: return size; // only ICU could check it
    }
}

bool CodeSetFallbackKnows(StringEncoding encoding)
{
    return encoding == STRING_ENCODING_UTF_8 || encoding == STRING_ENCODING_UTF_16LE ||
           encoding == STRING_ENCODING_UTF_16BE || encoding == STRING_ENCODING_ASCII;
}

// Returns the length of the first character; 1 if it is malformed.
size_t CodeSetUtf8Length(const char *bytes, size_t size)
{
    for (size_t length = 1; length <= std::min<size_t>(size, 4); length++) {
        if (CodeSetUtf8IsValid(bytes, length)) { return length; }
    }
    return 1;
}

// Appends the ASCII characters.  For each of the others, whose lengths length() returns, the policy
// fails, appends the substitute, or appends nothing.
template <typename Length>
bool CodeSetKeepAscii(const char *buf, size_t size, unsigned policy, const char *substitute,
                      Length length, DynBuf *db)
{
    const size_t before = db->size;
    const char *end = buf + size;
    while (buf != end) {
        const char *run = buf;
        buf = std::find_if_not(run, end, IsAscii);
        bool done = DynBuf_Append(db, run, static_cast<size_t>(buf - run));
        if (buf != end) {
            done = done && policy != CODESET_INVALID_FAIL;
            if (policy & CODESET_INVALID_SUBSTITUTE) { // also for a number that is no policy
                done = done && DynBuf_Append(db, substitute, strlen(substitute));
            }
            buf += length(buf, static_cast<size_t>(end - buf));
        }
        if (!done) {
            db->size = before;
            return false;
        }
    }
    return true;
}

} // namespace

bool CodeSetUtf16beToUtf8Db(const char *buf, size_t size, DynBuf *db)
{
    if (size % 2 != 0) { return false; }
    const ScopedFree<char> swapped(CodeSetSwapped(buf, size));
    return swapped && CodeSetUtf16ToUtf8Db(swapped.get(), size, db);
}

bool CodeSetFallbackIsValid(const char *buf, size_t size, StringEncoding encoding)
{
    if (size == 0) { return true; }
    switch (encoding) {
    case STRING_ENCODING_UTF_8: return CodeSetUtf8IsValid(buf, size);
    case STRING_ENCODING_UTF_16LE: return CodeSetUtf16IsValid(buf, size);
    case STRING_ENCODING_UTF_16BE: return CodeSetUtf16beValidSize(buf, size) == size;
    case STRING_ENCODING_ASCII: return std::all_of(buf, buf + size, IsAscii);
    default: return false; // only ICU could check it
    }
}

bool CodeSetFallbackConverts(StringEncoding encodingIn, StringEncoding encodingOut,
                             StringEncoding current)
{
    if (encodingIn == STRING_ENCODING_UNKNOWN || encodingOut == STRING_ENCODING_UNKNOWN) {
        return false;
    }
    if (encodingIn == encodingOut) { return true; } // text in any encoding can be copied
    if (encodingOut == STRING_ENCODING_UTF_8) { return CodeSetFallbackKnows(encodingIn); }
    if (encodingIn != STRING_ENCODING_UTF_8) { return false; }
    // Text becomes ASCII only on a host whose own code set is ASCII.
    return encodingOut == STRING_ENCODING_UTF_16LE ||
           (encodingOut == STRING_ENCODING_ASCII && current == STRING_ENCODING_ASCII);
}

bool CodeSetFallbackConvert(StringEncoding encodingIn, const char *bufIn, size_t sizeIn,
                            StringEncoding encodingOut, StringEncoding current, unsigned policy,
                            DynBuf *db)
{
    if (bufIn == nullptr || sizeIn == 0) { return true; }
    if (!CodeSetFallbackConverts(encodingIn, encodingOut, current)) { return false; }
    if (encodingIn == encodingOut) {
        return (!CodeSetFallbackKnows(encodingIn) ||
                CodeSetFallbackIsValid(bufIn, sizeIn, encodingIn)) &&
               DynBuf_Append(db, bufIn, sizeIn);
    }
    if (encodingOut == STRING_ENCODING_UTF_16LE) { return CodeSetUtf8ToUtf16Db(bufIn, sizeIn, db); }
    if (encodingOut == STRING_ENCODING_ASCII) {
        return CodeSetKeepAscii(bufIn, sizeIn, policy, ASCII_SUBSTITUTE, CodeSetUtf8Length, db);
    }
    switch (encodingIn) { // to UTF-8
    case STRING_ENCODING_UTF_16LE: return CodeSetUtf16ToUtf8Db(bufIn, sizeIn, db);
    case STRING_ENCODING_UTF_16BE: return CodeSetUtf16beToUtf8Db(bufIn, sizeIn, db);
    default: // ASCII
        const auto oneByte = [](const char *, size_t) { return size_t{1}; };
        return CodeSetKeepAscii(bufIn, sizeIn, policy, UTF8_REPLACEMENT, oneByte, db);
    }
}

CodeSetFailure CodeSetFallbackFailure(StringEncoding encodingIn, const char *bufIn, size_t sizeIn,
                                      StringEncoding encodingOut, StringEncoding current,
                                      unsigned policy)
{
    if (encodingIn == STRING_ENCODING_UNKNOWN || encodingOut == STRING_ENCODING_UNKNOWN) {
        return {CODESET_REASON_UNKNOWN, 0};
    }
    if (!CodeSetFallbackConverts(encodingIn, encodingOut, current)) {
        return {CODESET_REASON_UNCONVERTIBLE, 0};
    }
    const bool isThroughAscii = encodingIn != encodingOut && (encodingIn == STRING_ENCODING_ASCII ||
                                                              encodingOut == STRING_ENCODING_ASCII);
    if (isThroughAscii && policy != CODESET_INVALID_FAIL) { return {CODESET_REASON_NO_MEMORY, 0}; }
    const size_t valid = CodeSetFallbackValidSize(bufIn, sizeIn, encodingIn);
    const size_t offset =
        isThroughAscii ? CodeSetFallbackValidSize(bufIn, sizeIn, STRING_ENCODING_ASCII) : valid;
    if (offset == sizeIn) { return {CODESET_REASON_NO_MEMORY, 0}; }
    return {offset < valid ? CODESET_REASON_LACKING : CODESET_REASON_INVALID, offset};
}

} // namespace pelago
