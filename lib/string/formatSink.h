// formatSink.h -- where formatted output goes: in pieces, which are gathered and copied together.
#ifndef PELAGO_STRING_FORMATSINK_H
#define PELAGO_STRING_FORMATSINK_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace pelago {

struct FormatSink {
    char *buffer;
    size_t capacity; // of the buffer, in bytes
    size_t length;   // of what is stored, below capacity
    bool growable;   // the buffer is the engine's own, not the caller's
    bool error;      // the buffer could not grow
};

struct FormatPiece {
    const char *text;
    size_t length;
};

constexpr size_t FORMAT_PIECES = 8;

struct FormatGatherList {
    FormatPiece pieces[FORMAT_PIECES];
    size_t count; // of those that wait
};

// Copies what waits, as far as there is room, and empties the list.  1, and sink->error, when the
// buffer cannot grow; otherwise 0.
int bsd_sprint(FormatSink *sink, FormatGatherList *list);

// A sink and what waits for it.  Text is referred to until it is copied, so it must last until
// then: that of Scratch() does, and blocks of the heap that Own() is given are freed after that.
class FormatOutput {
public:
    static constexpr size_t SCRATCH_SIZE = 100;

    FormatOutput(char *buffer, size_t capacity, bool growable)
        : mSink{buffer, capacity, 0, growable, false}
    {
        mList.count = 0;
    }
    FormatOutput(const FormatOutput &) = delete;
    FormatOutput &operator=(const FormatOutput &) = delete;
    ~FormatOutput() { FreeOwned(); }

    FormatSink &Sink() { return mSink; }

    void Text(const char *text, size_t length)
    {
        if (length == 0) { return; }
        mList.pieces[mList.count++] = {text, length};
        if (mList.count == FORMAT_PIECES) { Flush(); }
    }

    void Blanks(int64_t count) { Pad("                ", count); }
    void Zeroes(int64_t count) { Pad("0000000000000000", count); }

    // SCRATCH_SIZE bytes, for text that is given to Text().  There is one for each piece that can
    // wait.
    char *Scratch()
    {
        mScratchUsed = (mScratchUsed + 1) % FORMAT_PIECES;
        return mScratch[mScratchUsed];
    }

    // Takes over a block, all of whose text has been given to Text().
    void Own(char *block)
    {
        mOwned[mOwnedCount++] = block;
        if (mList.count == 0) { FreeOwned(); }
    }

    // False when the buffer cannot grow.
    bool Flush()
    {
        bsd_sprint(&mSink, &mList);
        FreeOwned();
        return !mSink.error;
    }

private:
    static constexpr int64_t PAD_SIZE = 16;

    void Pad(const char *pad, int64_t count)
    {
        for (; count > 0; count -= PAD_SIZE) {
            Text(pad, static_cast<size_t>(std::min(count, PAD_SIZE)));
        }
    }
    void FreeOwned()
    {
        while (mOwnedCount > 0) {
            free(mOwned[--mOwnedCount]);
        }
    }

    FormatSink mSink;
    FormatGatherList mList;
    char *mOwned[FORMAT_PIECES]; // each has at least one piece that waits
    size_t mOwnedCount = 0;
    size_t mScratchUsed = 0;
    char mScratch[FORMAT_PIECES][SCRATCH_SIZE];
};

} // namespace pelago

#endif // PELAGO_STRING_FORMATSINK_H
