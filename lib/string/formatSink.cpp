// formatSink.cpp -- copying the gathered pieces.
#include "formatSink.h"

#include <cstring>

namespace pelago {

namespace {

// Sees to room for the bytes that wait and a NUL: the smallest multiple of the capacity that holds
// them.
bool FormatGrow(FormatSink *sink, const FormatGatherList *list)
{
    size_t needed = sink->length;
    for (size_t i = 0; i < list->count; i++) {
        needed += list->pieces[i].length;
    }
    if (needed + 1 <= sink->capacity) { return true; }
    const size_t capacity = needed + sink->capacity - needed % sink->capacity;
    char *buffer = static_cast<char *>(realloc(sink->buffer, capacity));
    if (buffer == nullptr) { return false; }
    sink->buffer = buffer;
    sink->capacity = capacity;
    return true;
}

// How much more the caller's buffer takes.  Counted in 32 bits on purpose: a size of 0, like any
// whose last place lies 2 to 4 GiB away, sets no limit.
size_t FormatRoom(const FormatSink *sink)
{
    return static_cast<size_t>(static_cast<int32_t>(sink->capacity - 1 - sink->length));
}

// Two words that may overlap: all of a piece that is at least one and at most two of them long.
template <typename Word> void FormatCopyTwo(char *to, const char *from, size_t length)
{
    Word first, last;
    memcpy(&first, from, sizeof first);
    memcpy(&last, from + length - sizeof last, sizeof last);
    memcpy(to, &first, sizeof first);
    memcpy(to + length - sizeof last, &last, sizeof last);
}

// Copies a piece.  Most have a few bytes, for which a call is too much.
void FormatCopy(char *to, const char *from, size_t length)
{
    struct Block {
        uint64_t words[2];
    };
    if (length > 2 * sizeof(Block)) {
        memcpy(to, from, length);
    } else if (length >= sizeof(Block)) {
        FormatCopyTwo<Block>(to, from, length);
    } else if (length >= sizeof(uint64_t)) {
        FormatCopyTwo<uint64_t>(to, from, length);
    } else if (length >= sizeof(uint32_t)) {
        FormatCopyTwo<uint32_t>(to, from, length);
    } else {
        while (length-- > 0) {
            *to++ = *from++;
        }
    }
}

} // namespace

int bsd_sprint(FormatSink *sink, FormatGatherList *list)
{
    if (sink->growable && !FormatGrow(sink, list)) { sink->error = true; }
    const size_t count = sink->error ? 0 : list->count;
    size_t room = sink->growable ? SIZE_MAX : FormatRoom(sink);
    char *to = sink->buffer + sink->length;
    for (size_t i = 0; i < count; i++) {
        const size_t length = std::min(list->pieces[i].length, room);
        FormatCopy(to, list->pieces[i].text, length);
        to += length;
        room -= length;
    }
    sink->length = static_cast<size_t>(to - sink->buffer);
    list->count = 0;
    return sink->error;
}

} // namespace pelago
