// formatOutput.cpp -- copying text, and the heap block that grows with the output.
#include "formatOutput.h"

#include <cstring>
#include <string_view>

namespace pelago {

namespace {

constexpr size_t FIRST_CAPACITY = 64; // a block starts at a multiple of this

struct Block {
    uint64_t words[2];
};

// Copies text as long as one word to two words: its first and its last word, which may overlap.
template <typename Word> char *CopyTwo(char *to, const char *from, size_t length)
{
    Word first, last;
    memcpy(&first, from, sizeof first);
    memcpy(&last, from + length - sizeof last, sizeof last);
    memcpy(to, &first, sizeof first);
    memcpy(to + length - sizeof last, &last, sizeof last);
    return to + length;
}

} // namespace

char *FormatCopy(char *to, const char *from, size_t length)
{
    if (length > 2 * sizeof(Block)) {
        return static_cast<char *>(memcpy(to, from, length)) + length;
    }
    if (length >= sizeof(Block)) { return CopyTwo<Block>(to, from, length); }
    if (length >= sizeof(uint64_t)) { return CopyTwo<uint64_t>(to, from, length); }
    if (length >= sizeof(uint32_t)) { return CopyTwo<uint32_t>(to, from, length); }
    if (length >= sizeof(uint16_t)) { return CopyTwo<uint16_t>(to, from, length); }
    if (length != 0) { *to++ = *from; }
    return to;
}

char *FormatFill(char *to, char character, size_t length)
{
    constexpr std::string_view BLANKS = "                ", ZEROES = "0000000000000000";
    const std::string_view pad = character == '0' ? ZEROES : BLANKS;
    for (; length > pad.size(); length -= pad.size()) {
        to = FormatCopy(to, pad.data(), pad.size());
    }
    return FormatCopy(to, pad.data(), length);
}

FormatOutput::FormatOutput(size_t formatLength)
{
    const size_t wanted = formatLength + FIRST_CAPACITY;
    mCapacity = formatLength == 0 ? 1 : wanted - wanted % FIRST_CAPACITY;
    mStart = static_cast<char *>(malloc(mCapacity));
    mCursor = {mStart, End(IsOpen() ? mCapacity - 1 : 0)};
}

bool FormatOutput::Write(const char *text, size_t length)
{
    if (!Begin(length)) { return false; }
    FormatCursor cursor = mCursor;
    cursor.Text(text, length);
    Finish(cursor, length);
    return true;
}

// Replaces the block by one whose size is the smallest multiple of its capacity that holds the
// output and the NUL.  For blocks as small as most are, realloc() takes several times as long.
bool FormatOutput::MakeRoom(size_t length)
{
    const size_t needed = Length() + length;
    if (needed > INT_MAX) { return false; }
    if (mCapacity == 0) { return true; } // the caller's buffer: what does not fit is dropped
    const size_t capacity = needed + mCapacity - needed % mCapacity, used = Length();
    char *block = static_cast<char *>(malloc(capacity));
    if (block == nullptr) { return false; }
    memcpy(block, mStart, used);
    free(mStart);
    mStart = block;
    mCapacity = capacity;
    mCursor = {block + used, End(capacity - 1)};
    return true;
}

} // namespace pelago
