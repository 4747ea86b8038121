// formatSink.cpp -- copying the gathered pieces.
#include "formatSink.h"

#include <cstring>

namespace {

// Sees to room for the bytes that wait and a NUL: the smallest multiple of the capacity that holds
// them.
bool FormatGrow(FormatSink *sink, size_t pending)
{
    const size_t needed = sink->length + pending;
    if (needed + 1 <= sink->capacity) { return true; }
    const size_t capacity = needed + sink->capacity - needed % sink->capacity;
    char *buffer = static_cast<char *>(realloc(sink->buffer, capacity));
    if (buffer == nullptr) { return false; }
    sink->buffer = buffer;
    sink->capacity = capacity;
    return true;
}

// How much more the caller's buffer takes.  Computed in 32 bits, as callers have come to rely on: a
// size of 0, like any whose last place lies 2 to 4 GiB away, sets no limit.
size_t FormatRoom(const FormatSink *sink)
{
    return static_cast<size_t>(static_cast<int32_t>(sink->capacity - 1 - sink->length));
}

} // namespace

int bsd_sprint(FormatSink *sink, FormatGatherList *list)
{
    if (sink->growable && !FormatGrow(sink, list->total)) { sink->error = true; }
    if (!sink->error) {
        for (size_t i = 0; i < list->count; i++) {
            const FormatPiece &piece = list->pieces[i];
            const size_t length =
                sink->growable ? piece.length : std::min(piece.length, FormatRoom(sink));
            memcpy(sink->buffer + sink->length, piece.text, length);
            sink->length += length;
        }
    }
    list->count = 0;
    list->total = 0;
    return sink->error;
}
