// bsd_vsnprintf.cpp -- the formatting engine: pieces of output, gathered and then copied.
#include "bsd_vsnprintf.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int GATHER_COUNT = 8;       // pieces that wait before they are copied together
constexpr size_t FIRST_CAPACITY = 64; // a growing buffer starts at a multiple of this

struct Piece {
    const char *text;
    size_t length;
};

// Where the output goes: a buffer of the caller's, or one that grows.
struct Sink {
    char *buffer;
    size_t capacity; // in bytes
    size_t length;   // stored so far, below capacity
    bool growable;
};

struct GatherList {
    Piece pieces[GATHER_COUNT];
    int count = 0;
    size_t total = 0;
};

// The smallest multiple of the capacity that holds the bytes pending and a NUL.
bool bsd_grow(Sink *sink, size_t pending)
{
    if (sink->length + pending + 1 <= sink->capacity) { return true; }
    const size_t wanted = sink->length + pending + sink->capacity;
    const size_t capacity = wanted - wanted % sink->capacity;
    char *buffer = static_cast<char *>(realloc(sink->buffer, capacity));
    if (buffer == nullptr) { return false; }
    sink->buffer = buffer;
    sink->capacity = capacity;
    return true;
}

// Copies what waits, as far as there is room, and empties the list.  False when memory runs out.
bool bsd_sprint(Sink *sink, GatherList *list)
{
    if (sink->growable && !bsd_grow(sink, list->total)) { return false; }
    for (int i = 0; i < list->count; i++) {
        const Piece &piece = list->pieces[i];
        const size_t length = std::min(piece.length, sink->capacity - 1 - sink->length);
        memcpy(sink->buffer + sink->length, piece.text, length);
        sink->length += length;
    }
    list->count = 0;
    list->total = 0;
    return true;
}

bool bsd_add(Sink *sink, GatherList *list, const char *text, size_t length)
{
    if (length == 0) { return true; }
    list->pieces[list->count++] = {text, length};
    list->total += length;
    return list->count < GATHER_COUNT || bsd_sprint(sink, list);
}

// Formats into the sink without a NUL; returns the whole output's length, or -1.
int bsd_format(Sink *sink, const char *format, va_list arguments)
{
    GatherList list;
    size_t total = 0;
    while (*format != '\0') {
        const char *text = format;
        size_t length = strcspn(format, "%");
        format += length;
        if (length == 0) {
            switch (format[1]) {
            case '\0':
                format++; // a lone "%" at the end prints nothing
                continue;
            case '%': text = "%"; break;
            case 's':
                text = va_arg(arguments, const char *);
                text = text == nullptr ? "(null)" : text;
                break;
            default: return -1;
            }
            length = strlen(text);
            format += 2;
        }
        total += length;
        if (total > INT_MAX || !bsd_add(sink, &list, text, length)) { return -1; }
    }
    return bsd_sprint(sink, &list) ? static_cast<int>(total) : -1;
}

} // namespace

extern "C" int bsd_vsnprintf(char **bufp, size_t size, const char *format, va_list arguments)
{
    Sink sink = {*bufp, size, 0, *bufp == nullptr};
    if (sink.growable) {
        const size_t wanted = strlen(format) + FIRST_CAPACITY;
        sink.capacity = *format == '\0' ? 1 : wanted - wanted % FIRST_CAPACITY;
        sink.buffer = static_cast<char *>(malloc(sink.capacity));
        if (sink.buffer == nullptr) { return -1; }
    }
    const int length = bsd_format(&sink, format, arguments);
    if (length < 0) {
        if (sink.growable) { free(sink.buffer); }
        return -1;
    }
    if (sink.capacity > 0) { sink.buffer[sink.length] = '\0'; }
    *bufp = sink.buffer;
    return length;
}
