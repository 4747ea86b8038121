// formatOutput.h -- where formatted text goes.
#ifndef PELAGO_STRING_FORMATOUTPUT_H
#define PELAGO_STRING_FORMATOUTPUT_H

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace pelago {

// Both return where the text ends, and are made for a few bytes, which most texts have.
char *FormatCopy(char *to, const char *from, size_t length);
char *FormatFill(char *to, char character, size_t length); // blanks or zeros

// A place to write to.  It is kept in a local variable, since characters that are written might lie
// in any other as far as the compiler knows.
struct FormatCursor {
    char *at;
    char *end; // of the room; what goes beyond it is dropped

    size_t Room() const { return static_cast<size_t>(end - at); }
    void Text(const char *text, size_t length)
    {
        at = FormatCopy(at, text, std::min(length, Room()));
    }
    void Character(char character)
    {
        if (at != end) { *at++ = character; }
    }
    void Fill(char character, size_t count)
    {
        if (count > 0) { at = FormatFill(at, character, std::min(count, Room())); }
    }
};

// A buffer of the caller's, or a block of the heap that grows.
class FormatOutput {
public:
    // The caller's buffer.  Its room is counted in 32 bits on purpose: a size of 0, like any whose
    // last place lies 2 to 4 GiB away, sets no limit but that of all output.
    FormatOutput(char *buffer, size_t size)
        : mStart(buffer), mCursor{buffer, End(static_cast<uint32_t>(size - 1))}
    {}
    // A block, which is large enough for most formats of that length.
    explicit FormatOutput(size_t formatLength);
    FormatOutput(const FormatOutput &) = delete;
    FormatOutput &operator=(const FormatOutput &) = delete;
    ~FormatOutput()
    {
        if (mCapacity > 0) { free(mStart); }
    }

    // False when there was no memory for the block.
    bool IsOpen() const { return mStart != nullptr; }
    // Of the whole output so far, with what was dropped.
    size_t Length() const { return static_cast<size_t>(mCursor.at - mStart) + mDropped; }

    // Sees to room for so many bytes.  False when there is no memory for them, or when the output
    // becomes longer than an int counts.
    bool Begin(size_t length) { return length <= mCursor.Room() || MakeRoom(length); }
    FormatCursor Cursor() const { return mCursor; }
    // What Begin() was called for is written, as far as there was room for it.
    void Finish(const FormatCursor &cursor, size_t length)
    {
        mDropped += length - static_cast<size_t>(cursor.at - mCursor.at);
        mCursor.at = cursor.at;
    }
    // The same where everything fitted.
    void Finish(const FormatCursor &cursor) { mCursor.at = cursor.at; }
    // All of that for a text.
    bool Write(const char *text, size_t length);

    void Terminate() { *mCursor.at = '\0'; }
    // Hands over the block.
    char *Release()
    {
        mCapacity = 0;
        return mStart;
    }

private:
    bool MakeRoom(size_t length);
    // The end of that much room, in which the length of the output can be counted.
    char *End(size_t room) const { return mStart + std::min<size_t>(room, INT_MAX); }

    char *mStart;
    FormatCursor mCursor;
    size_t mDropped = 0;
    size_t mCapacity = 0; // of our own block
};

} // namespace pelago

#endif // PELAGO_STRING_FORMATOUTPUT_H
