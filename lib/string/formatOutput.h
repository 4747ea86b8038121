// formatOutput.h -- where formatted text goes.
#ifndef PELAGO_STRING_FORMATOUTPUT_H
#define PELAGO_STRING_FORMATOUTPUT_H

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace pelago {

// Copies text, or repeats a blank or a zero, and returns the end of what was written.  Both are
// fast for the few bytes that most texts have.
char *FormatCopy(char *to, const char *from, size_t length);
char *FormatFill(char *to, char character, size_t length);

// A place to write to.  Users copy it to a local variable: the compiler must assume that a written
// character changes any other object.
struct FormatCursor {
    char *at;
    char *end; // the end of the room; output beyond it is dropped

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
    // The caller's buffer.  Its room is counted in 32 bits on purpose: a size of 0, like one from
    // 2 to 4 GiB, only limits the output to INT_MAX bytes, as all output is.
    FormatOutput(char *buffer, size_t size)
        : mStart(buffer), mCursor{buffer, End(static_cast<uint32_t>(size - 1))}
    {}
    // A new block, which is large enough for the output of most formats of that length.
    explicit FormatOutput(size_t formatLength);
    FormatOutput(const FormatOutput &) = delete;
    FormatOutput &operator=(const FormatOutput &) = delete;
    ~FormatOutput()
    {
        if (mCapacity > 0) { free(mStart); }
    }

    // False when there was no memory for the block.
    bool IsOpen() const { return mStart != nullptr; }
    // Returns the length of the whole output so far, including the part that was dropped.
    size_t Length() const { return static_cast<size_t>(mCursor.at - mStart) + mDropped; }

    // Makes room for length more bytes if the output is a block.  Returns false when memory runs
    // out, or when the output would be longer than INT_MAX.
    bool Begin(size_t length) { return length <= mCursor.Room() || MakeRoom(length); }
    FormatCursor Cursor() const { return mCursor; }
    // Ends the writing of length bytes through a copy of the cursor, which dropped the bytes that
    // had no room.
    void Finish(const FormatCursor &cursor, size_t length)
    {
        mDropped += length - static_cast<size_t>(cursor.at - mCursor.at);
        mCursor.at = cursor.at;
    }
    // Does the same where everything had room.
    void Finish(const FormatCursor &cursor) { mCursor.at = cursor.at; }
    // Begins, writes a text, and finishes.
    bool Write(const char *text, size_t length);

    void Terminate() { *mCursor.at = '\0'; }
    // Gives the block to the caller.
    char *Release()
    {
        mCapacity = 0;
        return mStart;
    }

private:
    bool MakeRoom(size_t length);
    // Returns the end of that much room, or of INT_MAX bytes if that is less.
    char *End(size_t room) const { return mStart + std::min<size_t>(room, INT_MAX); }

    char *mStart;
    FormatCursor mCursor;
    size_t mDropped = 0;
    size_t mCapacity = 0; // of the engine's own block; 0 for a caller's buffer
};

} // namespace pelago

#endif // PELAGO_STRING_FORMATOUTPUT_H
