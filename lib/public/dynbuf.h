/*
 * dynbuf.h -- a byte buffer that grows.
 *
 * A DynBuf is owned by value by whoever declares it, and owns its block until that is detached or
 * the buffer is destroyed.  Contents are bytes, not text; sizes are in bytes.  How a text is built:
 *
 *    DynBuf buf;
 *    DynBuf_Init(&buf);
 *    if (DynBuf_Append(&buf, "ab", 2) && DynBuf_Append(&buf, "", 1) && DynBuf_Trim(&buf)) {
 *        return buf.data;            (the caller's now, released with free())
 *    }
 *    DynBuf_Destroy(&buf);
 *
 * A buffer grows from nothing to 128 bytes, below 256 KiB to twice its allocation, and from there
 * by 256 KiB; it grows further where the request needs more.
 *
 * Without memory the plain forms return false and leave the buffer as it was; the safe forms end
 * the process through Panic(), naming their caller's source file and line.  All of it is reentrant;
 * one buffer is for one thread at a time.
 */
#ifndef PELAGO_DYNBUF_H
#define PELAGO_DYNBUF_H

#include "declarations.h"
#include "diagnostics.h"
#include "util.h"

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

PELAGO_BEGIN_DECLARATIONS

#define DYNBUF_FIRST_ALLOCATION 128    /* what a buffer of nothing grows to */
#define DYNBUF_GROWTH_STEP      262144 /* from here on growth is by this much */

#define DYNBUF_SOURCE_PATH         "lib/public/dynbuf" /* in DynBuf_DetachString()'s report */
#define DYNBUF_DETACH_STRING_CHECK 145                 /* and the number there */

/* A buffer.  size is at most allocated, except after DynBuf_Detach(). */
typedef struct DynBuf {
    char *data;       /* heap block, or NULL */
    size_t size;      /* bytes in use */
    size_t allocated; /* bytes in the block */
} DynBuf;

/* Makes *buf, which may be uninitialised, an empty buffer without a block. */
static inline void DynBuf_Init(DynBuf *buf)
{
    buf->data = PELAGO_NULL;
    buf->size = 0;
    buf->allocated = 0;
}

/* Makes an empty buffer that owns data, a heap block of `allocated` bytes. */
static inline void DynBuf_InitWithMemory(DynBuf *buf, size_t allocated, void *data)
{
    buf->data = PELAGO_CAST(char *, data);
    buf->size = 0;
    buf->allocated = allocated;
}

/*
 * Makes a buffer that owns string, a heap block with a NUL-terminated string of less than 2 GiB,
 * and holds it without its NUL.  NULL gives an empty buffer.
 */
static inline void DynBuf_InitWithString(DynBuf *buf, char *string)
{
    DynBuf_Init(buf);
    if (string == PELAGO_NULL) { return; }
    const size_t length = strlen(string);
    buf->data = string;
    /* Kept on purpose: a longer string gets the lengths that 32 bits with a sign give. */
    buf->size = PELAGO_CAST(size_t, PELAGO_CAST(int32_t, length));
    buf->allocated = PELAGO_CAST(size_t, PELAGO_CAST(int32_t, length + 1));
}

/* Releases the block; the buffer is empty then and can be used on. */
static inline void DynBuf_Destroy(DynBuf *buf)
{
    free(buf->data);
    DynBuf_Init(buf);
}

/* Releases the block and goes on with data, a heap block of size bytes that are all in use. */
static inline void DynBuf_Attach(DynBuf *buf, size_t size, void *data)
{
    free(buf->data);
    buf->data = PELAGO_CAST(char *, data);
    buf->size = size;
    buf->allocated = size;
}

/*
 * Gives the block, or NULL, to the caller, who releases it with free().  The buffer's size stays
 * what it was, so that the block's can still be read; before anything else of the buffer is used it
 * must be made anew or destroyed.
 */
static inline void *DynBuf_Detach(DynBuf *buf)
{
    char *data = buf->data;
    buf->data = PELAGO_NULL;
    buf->allocated = 0;
    return data;
}

/*
 * Grows the allocation by one step, even when minSize fits already, and to minSize at least.  False
 * when memory runs out or the new allocation cannot be counted.
 */
static inline bool DynBuf_Enlarge(DynBuf *buf, size_t minSize)
{
    size_t allocated = DYNBUF_FIRST_ALLOCATION;
    if (buf->allocated >= DYNBUF_GROWTH_STEP) {
        allocated = buf->allocated + DYNBUF_GROWTH_STEP;
    } else if (buf->allocated != 0) {
        allocated = 2 * buf->allocated;
    }
    if (allocated < minSize) { allocated = minSize; }
    if (allocated < buf->allocated) { return false; }
    char *data = PELAGO_CAST(char *, realloc(buf->data, allocated));
    if (data == PELAGO_NULL) { return false; }
    buf->data = data;
    buf->allocated = allocated;
    return true;
}

/* Grows the allocation where it does not hold count bytes after the contents; not for callers. */
static inline bool DynBufMakeRoom(DynBuf *buf, size_t count)
{
    if (count > SIZE_MAX - buf->size) { return false; }
    return buf->size + count <= buf->allocated || DynBuf_Enlarge(buf, buf->size + count);
}

/* Puts bytes where there is room; not for callers. */
static inline void DynBufPut(DynBuf *buf, const void *bytes, size_t count)
{
    memcpy(buf->data + buf->size, bytes, count);
    buf->size += count;
}

/*
 * Appends a copy of count bytes, which are not the buffer's own.  For count 0 nothing is done or
 * allocated, and bytes may be NULL.  False when memory runs out or the size cannot be counted.
 */
static inline bool DynBuf_Append(DynBuf *buf, const void *bytes, size_t count)
{
    if (count == 0) { return true; }
    if (!DynBufMakeRoom(buf, count)) { return false; }
    DynBufPut(buf, bytes, count);
    return true;
}

/* Puts a NUL after the contents and gives the block to the caller as DynBuf_Detach() does.  Without
 * memory for the NUL the process ends. */
static inline char *DynBuf_DetachString(DynBuf *buf)
{
    if (!DynBufMakeRoom(buf, 1)) {
        Pelago_Panic(UTIL_MEM_ALLOC_REPORT, DYNBUF_SOURCE_PATH, DYNBUF_DETACH_STRING_CHECK);
    }
    buf->data[buf->size] = '\0';
    return PELAGO_CAST(char *, DynBuf_Detach(buf));
}

/* Gives back what is allocated beyond the contents.  False when the C library refuses; an empty
 * buffer is never refused, and may have no block then. */
static inline bool DynBuf_Trim(DynBuf *buf)
{
    char *data = PELAGO_CAST(char *, realloc(buf->data, buf->size));
    if (data == PELAGO_NULL && buf->size != 0) { return false; }
    buf->data = data;
    buf->allocated = buf->size;
    return true;
}

/*
 * Makes destination, whose block, if any, is not released, a copy of source: the same contents in a
 * block of the same allocation.  False when memory runs out; destination is empty then.
 */
static inline bool DynBuf_Copy(const DynBuf *source, DynBuf *destination)
{
    DynBuf_InitWithMemory(destination, source->allocated, malloc(source->allocated));
    if (destination->data == PELAGO_NULL) {
        DynBuf_Init(destination);
        return false;
    }
    if (source->size != 0) { DynBufPut(destination, source->data, source->size); }
    return true;
}

/* ---- The safe forms do what the plain ones do, and end the process where those return false.  The
 * functions under them take the source file and line to report. */

/* DynBuf_Enlarge(buf, minSize); returns the block. */
#define DynBuf_SafeEnlarge(buf, minSize)                                                           \
    DynBuf_SafeInternalEnlarge(buf, minSize, __FILE__, __LINE__)
/* DynBuf_Append(buf, bytes, count); returns nothing. */
#define DynBuf_SafeAppend(buf, bytes, count)                                                       \
    DynBuf_SafeInternalAppend(buf, bytes, count, __FILE__, __LINE__)

/* DynBuf_SafeEnlarge() for the source file and line given. */
static inline void *DynBuf_SafeInternalEnlarge(DynBuf *buf, size_t minSize, const char *file,
                                               unsigned line)
{
    if (!DynBuf_Enlarge(buf, minSize)) { Pelago_Panic(UTIL_ALLOC_LINE_REPORT, file, line); }
    return buf->data;
}

/* DynBuf_SafeAppend() for the source file and line given. */
static inline void DynBuf_SafeInternalAppend(DynBuf *buf, const void *bytes, size_t count,
                                             const char *file, unsigned line)
{
    if (!DynBuf_Append(buf, bytes, count)) { Pelago_Panic(UTIL_ALLOC_LINE_REPORT, file, line); }
}

PELAGO_END_DECLARATIONS

#endif /* PELAGO_DYNBUF_H */
