// escape.cpp -- make bytes safe for one context, and undo it.
// Every builder repeats two steps: copy the input up to the next special byte, append its escape.
#include "escape.h"

#include "ascii.h"
#include "diagnostics.h"
#include "dynbuf.h"
#include "scoped.h"
#include "util.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <emmintrin.h>
#include <optional>

using namespace pelago;

namespace {

constexpr char ESCAPE_SOURCE_PATH[] = "lib/misc/escape";
constexpr int ESCAPE_UNDO_CHECK = 253;
constexpr int ESCAPE_ANSI_TO_UNIX_CHECK = 392;

constexpr char ESCAPE_DIGITS[] = "0123456789ABCDEF";

constexpr auto ESCAPE_DIGIT_VALUES = [] {
    std::array<uint8_t, 256> values{};
    for (size_t byte = 0; byte < values.size(); byte++) {
        values[byte] = static_cast<uint8_t>(AsciiHexadecimalValue(static_cast<char>(byte)));
    }
    return values;
}();

uint8_t EscapeDigitValue(char byte) { return ESCAPE_DIGIT_VALUES[static_cast<uint8_t>(byte)]; }

// The builders below are flattened: all that they call is inlined, so that the cursors stay in
// registers, which halves the time.  Enlarging the buffer is rare and out of line; it takes and
// returns the buffer by value, so that no cursor's address is taken.

// Returns the buffer, enlarged if there is memory for that.
[[gnu::noinline]] DynBuf EscapeEnlarged(DynBuf buf, size_t minSize)
{
    (void)DynBuf_Enlarge(&buf, minSize);
    return buf;
}

// Room to allocate beyond the input's size: 1 for the NUL where the text can only shrink, else a
// guess: 4 bytes of escapes for every 16 bytes of input.
constexpr size_t ESCAPE_NUL_ONLY = 1;
size_t EscapeGrowth(size_t size) { return 8 + size / 4; }

// The rest of the input, and the text built so far.  There is always room to copy the whole rest,
// so only Put() checks for room, and bytes may be copied before it is known how many of them stay.
class EscapeText {
public:
    EscapeText(const void *buf, size_t size, size_t growth)
        : mIn(static_cast<const char *>(buf)), mEnd(mIn + size)
    {
        const size_t allocated = size + growth;
        DynBuf_InitWithMemory(&mBuf, allocated, malloc(allocated));
        mOut = mBuf.data;
        if (mOut == nullptr) {
            mBuf.allocated = 0;
            Lose();
        } else {
            mSpare = growth;
        }
    }
    ~EscapeText() { DynBuf_Destroy(&mBuf); }
    EscapeText(const EscapeText &) = delete;
    EscapeText &operator=(const EscapeText &) = delete;

    const char *In() const { return mIn; }
    size_t Left() const { return static_cast<size_t>(mEnd - mIn); }

    // Copies the next size bytes of the input, which has that many.
    void Copy(size_t size)
    {
        constexpr size_t SHORT = 16;
        if (size <= SHORT && Left() >= SHORT) {
            memcpy(mOut, mIn, SHORT); // a constant size needs neither a call nor a branch
        } else if (size != 0) {
            memcpy(mOut, mIn, size);
        }
        Pass(size);
    }
    // Copies the next SIZE bytes in advance; Pass() then keeps as many of them as it is called for.
    template <size_t SIZE> void CopyAhead() { memcpy(mOut, mIn, SIZE); }
    void Pass(size_t size)
    {
        mIn += size;
        mOut += size;
    }
    // Leaves out the next size bytes of the input.
    void Skip(size_t size)
    {
        mIn += size;
        mSpare += size;
    }
    char Take()
    {
        const char byte = *mIn;
        Skip(1);
        return byte;
    }
    void Put(const char *bytes, size_t size)
    {
        if (size > mSpare && !MakeRoom(size)) { return; }
        memcpy(mOut, bytes, size);
        mOut += size;
        mSpare -= size;
    }
    // Returns the finished text, which is the caller's, or nullptr when memory ran out.
    char *Finish(size_t *sizeOut)
    {
        Put("", 1);
        mBuf.size = static_cast<size_t>(mOut - mBuf.data);
        if (mIsLost || !DynBuf_Trim(&mBuf)) { return nullptr; }
        if (sizeOut != nullptr) { *sizeOut = mBuf.size - 1; }
        return static_cast<char *>(DynBuf_Detach(&mBuf));
    }

private:
    bool MakeRoom(size_t size)
    {
        if (mIsLost) { return false; }
        mBuf.size = static_cast<size_t>(mOut - mBuf.data);
        const size_t needed = mBuf.size + size + Left();
        mBuf = EscapeEnlarged(mBuf, needed);
        if (mBuf.allocated < needed) {
            Lose();
            return false;
        }
        mOut = mBuf.data + mBuf.size;
        mSpare = mBuf.allocated - needed + size;
        return true;
    }
    // Out of memory: drops the rest of the input, so that every builder's loop ends; Finish() then
    // returns nullptr.
    void Lose()
    {
        mIsLost = true;
        mIn = mEnd;
        mSpare = 0;
    }

    const char *mIn, *mEnd;
    DynBuf mBuf;
    char *mOut;
    size_t mSpare; // room for Put(), beyond the room for the rest of the input
    bool mIsLost = false;
};

// Finds the places of any of N bytes one after the other; it searches blocks of 64 bytes and keeps
// a bit for each byte of a block.
template <size_t N> class EscapeSearch {
public:
    EscapeSearch(const EscapeText &text, const char (&wanted)[N])
        : mBytes(text.In()), mSize(text.Left())
    {
        for (size_t i = 0; i < N; i++) {
            mWanted[i] = _mm_set1_epi8(wanted[i]);
        }
    }
    // Returns the distance from `from`, which never moves back, to the next place or, when there is
    // none, to the end.
    size_t Distance(const char *from)
    {
        const auto start = static_cast<size_t>(from - mBytes);
        for (;;) {
            while (mFound != 0) {
                const size_t at = mSeen - BLOCK + static_cast<size_t>(__builtin_ctzll(mFound));
                mFound &= mFound - 1;
                if (at >= start) { return at - start; }
            }
            if (mSeen >= mSize) { return mSize - start; }
            LookFrom(mSeen);
        }
    }

private:
    static constexpr size_t BLOCK = 64, LANES = 16;

    void LookFrom(size_t at)
    {
        mSeen = at + BLOCK;
        if (mSeen <= mSize) {
            mFound = Found(mBytes + at);
        } else if (mSize >= BLOCK) { // the last bytes, less those that were seen before
            mFound = Found(mBytes + mSize - BLOCK) >> (mSeen - mSize);
        } else {
            char padded[BLOCK] = {};
            memcpy(padded, mBytes, mSize);
            mFound = Found(padded) & ((uint64_t{1} << mSize) - 1);
        }
    }
    uint64_t Found(const char *block) const
    {
        uint64_t found = 0;
        for (size_t i = 0; i < BLOCK; i += LANES) {
            const auto bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(block + i));
            __m128i equal = _mm_cmpeq_epi8(bytes, mWanted[0]);
            for (size_t k = 1; k < N; k++) {
                equal = _mm_or_si128(equal, _mm_cmpeq_epi8(bytes, mWanted[k]));
            }
            found |= uint64_t{static_cast<unsigned>(_mm_movemask_epi8(equal))} << i;
        }
        return found;
    }

    const char *mBytes;
    size_t mSize, mSeen = 0; // the end of the blocks searched so far
    uint64_t mFound = 0;     // the places in the last of them that were not returned yet
    __m128i mWanted[N];
};

// Copies the input up to the next of the bytes, or all of it.  Returns whether there is one.
template <size_t N> bool EscapeCopyTo(EscapeText *text, EscapeSearch<N> *search)
{
    text->Copy(search->Distance(text->In()));
    return text->Left() != 0;
}

// Returns how many of the next 8 bytes come before the first one in the set.  Written out, since a
// loop, which the compiler does not unroll, takes up to twice as long.
size_t EscapeCountClean(const char *bytes, const int *byteSet)
{
    const auto isInSet = [=](size_t at) { return byteSet[static_cast<uint8_t>(bytes[at])] != 0; };
    if (isInSet(0)) { return 0; }
    if (isInSet(1)) { return 1; }
    if (isInSet(2)) { return 2; }
    if (isInSet(3)) { return 3; }
    if (isInSet(4)) { return 4; }
    if (isInSet(5)) { return 5; }
    if (isInSet(6)) { return 6; }
    return isInSet(7) ? 7 : 8;
}

// Copies the input up to the next byte in the set, or all of it.  Returns whether there is one.
bool EscapeCopyTo(EscapeText *text, const int *byteSet)
{
    constexpr size_t AHEAD = 8;
    while (text->Left() >= AHEAD) {
        text->CopyAhead<AHEAD>();
        const size_t clean = EscapeCountClean(text->In(), byteSet);
        text->Pass(clean);
        if (clean < AHEAD) { return true; }
    }
    while (text->Left() != 0) {
        if (byteSet[static_cast<uint8_t>(*text->In())] != 0) { return true; }
        text->Copy(1);
    }
    return false;
}

// Returns a copy with a backslash before each of the wanted bytes.
template <size_t N>
char *EscapeWithBackslash(const char (&wanted)[N], const void *buf, size_t size, size_t *sizeOut)
{
    EscapeText text(buf, size, EscapeGrowth(size));
    EscapeSearch search(text, wanted);
    while (EscapeCopyTo(&text, &search)) {
        const char pair[] = {'\\', text.Take()};
        text.Put(pair, sizeof pair);
    }
    return text.Finish(sizeOut);
}

// Returns a copy in which the escape and two digits replace each byte in the set.
char *EscapeInDigits(const char *escape, size_t escapeSize, const int *byteSet, const void *buf,
                     size_t size, size_t *sizeOut)
{
    EscapeText text(buf, size, EscapeGrowth(size));
    while (EscapeCopyTo(&text, byteSet)) {
        const auto byte = static_cast<uint8_t>(text.Take());
        const char digits[] = {ESCAPE_DIGITS[byte >> 4], ESCAPE_DIGITS[byte & 15]};
        text.Put(escape, escapeSize);
        text.Put(digits, sizeof digits);
    }
    return text.Finish(sizeOut);
}

// Counts the hexadecimal digits, two at most, after the escape at the start of the bytes.
size_t EscapeDigits(const char *bytes, size_t size)
{
    size_t digits = 0;
    while (digits < 2 && digits + 1 < size &&
           EscapeDigitValue(bytes[digits + 1]) != ASCII_NO_DIGIT) {
        digits++;
    }
    return digits;
}

constexpr size_t ESCAPE_OCTAL_DIGITS = 3;

// Returns the number that sscanf("%3o") reads, after white space and a sign, or nullopt if there is
// none.  sscanf() itself measures the whole rest of the string: a text of numbers would take
// quadratic time.
std::optional<unsigned> EscapeOctal(const char *text)
{
    while (*text == ' ' || (*text >= '\t' && *text <= '\r')) {
        text++;
    }
    const bool hasSign = *text == '-' || *text == '+';
    const bool isNegative = *text == '-';
    size_t i = hasSign;
    unsigned number = 0;
    for (; i < ESCAPE_OCTAL_DIGITS && text[i] >= '0' && text[i] <= '7'; i++) {
        number = number * 8 + static_cast<unsigned>(text[i] - '0');
    }
    if (i == hasSign) { return std::nullopt; }
    return isNegative ? -number : number;
}

// A flag with two values.  The report about any other value is part of the contract, and cannot be
// reached.
enum class EscapeLineEnd { UNIX, ANSI };

} // namespace

extern "C" {

void Escape_FillSet(int *byteSet, const char *bytes)
{
    std::fill_n(byteSet, 256, 0);
    for (; *bytes != '\0'; bytes++) {
        byteSet[static_cast<uint8_t>(*bytes)] = 1;
    }
}

[[gnu::flatten]] char *Escape_DoString(const char *escString, const int *byteSet, const void *buf,
                                       size_t size, size_t *sizeOut)
{
    return EscapeInDigits(escString, strlen(escString), byteSet, buf, size, sizeOut);
}

[[gnu::flatten]] char *Escape_Do(char escByte, const int *byteSet, const void *buf, size_t size,
                                 size_t *sizeOut)
{
    return EscapeInDigits(&escByte, 1, byteSet, buf, size, sizeOut);
}

[[gnu::flatten]] char *Escape_Undo(char escByte, const void *buf, size_t size, size_t *sizeOut)
{
    EscapeText text(buf, size, ESCAPE_NUL_ONLY);
    EscapeSearch search(text, {escByte});
    while (EscapeCopyTo(&text, &search)) {
        const char *escape = text.In();
        switch (EscapeDigits(escape, text.Left())) {
        case 0: // not an escape; the byte after it does not start one either
            text.Copy(std::min<size_t>(2, text.Left()));
            break;
        case 1: text.Copy(std::min<size_t>(3, text.Left())); break;
        case 2: {
            const int byte = EscapeDigitValue(escape[1]) * 16 + EscapeDigitValue(escape[2]);
            const char decoded[] = {static_cast<char>(byte)};
            text.Skip(3);
            text.Put(decoded, sizeof decoded);
            break;
        }
        default: Panic(UTIL_NOT_IMPLEMENTED_REPORT, ESCAPE_SOURCE_PATH, ESCAPE_UNDO_CHECK);
        }
    }
    return text.Finish(sizeOut);
}

bool Escape_UndoFixBuf(char escByte, const void *buf, size_t size, void *destination,
                       size_t capacity)
{
    size_t plainSize = 0;
    const ScopedFree<char> plain(Escape_Undo(escByte, buf, size, &plainSize));
    if (!plain || plainSize >= capacity) { return false; }
    memcpy(destination, plain.get(), plainSize + 1);
    return true;
}

[[gnu::flatten]] char *Escape_AnsiToUnix(const void *buf, size_t size, size_t *sizeOut)
{
    EscapeText text(buf, size, ESCAPE_NUL_ONLY);
    EscapeSearch search(text, {'\r'});
    while (EscapeCopyTo(&text, &search)) {
        const bool isAnsi = text.Left() >= 2 && text.In()[1] == '\n';
        switch (isAnsi ? EscapeLineEnd::ANSI : EscapeLineEnd::UNIX) {
        case EscapeLineEnd::ANSI: text.Skip(1); break;
        case EscapeLineEnd::UNIX: text.Copy(1); break;
        default: Panic(UTIL_NOT_IMPLEMENTED_REPORT, ESCAPE_SOURCE_PATH, ESCAPE_ANSI_TO_UNIX_CHECK);
        }
    }
    return text.Finish(sizeOut);
}

[[gnu::flatten]] char *Escape_Sh(const void *buf, size_t size, size_t *sizeOut)
{
    EscapeText text(buf, size, EscapeGrowth(size));
    EscapeSearch search(text, {'\''});
    text.Put("'", 1);
    while (EscapeCopyTo(&text, &search)) {
        text.Skip(1);
        text.Put("'\"'\"'", 5);
    }
    text.Put("'", 1);
    return text.Finish(sizeOut);
}

[[gnu::flatten]] char *Escape_BRE(const void *buf, size_t size, size_t *sizeOut)
{
    return EscapeWithBackslash({'$', '*', '.', '[', '\\', ']', '^'}, buf, size, sizeOut);
}

[[gnu::flatten]] char *Escape_Comma(const char *string)
{
    if (string == nullptr) { return nullptr; }
    return EscapeWithBackslash({',', '\\'}, string, strlen(string), nullptr);
}

const char *Escape_Strchr(char escByte, const char *string, char wanted)
{
    bool isEscaped = false;
    for (const char *at = string; *at != '\0'; at++) {
        if (!isEscaped && *at == wanted) { return at; }
        isEscaped = !isEscaped && *at == escByte;
    }
    return nullptr;
}

[[gnu::flatten]] char *Escape_Unescape(char escByte, const char *string)
{
    EscapeText text(string, strlen(string), ESCAPE_NUL_ONLY);
    EscapeSearch search(text, {escByte});
    while (EscapeCopyTo(&text, &search)) {
        text.Skip(1);
        text.Copy(std::min<size_t>(1, text.Left()));
    }
    return text.Finish(nullptr);
}

char Escape_UnescapeCString(char *string)
{
    const char *in = string;
    char *out = string;
    while (*in != '\0') {
        if (in[0] == '\\' && (in[1] == '\\' || in[1] == 'n')) {
            *out++ = in[1] == 'n' ? '\n' : '\\';
            in += 2;
        } else if (const auto number = in[0] == '\\' ? EscapeOctal(in + 1) : std::nullopt) {
            *out++ = static_cast<char>(*number);
            in += 1 + strnlen(in + 1, ESCAPE_OCTAL_DIGITS); // three bytes, however few were read
        } else {
            *out++ = *in++;
        }
    }
    *out = '\0';
    return *in;
}

} // extern "C"
