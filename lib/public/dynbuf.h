/*
 * dynbuf.h -- a byte buffer that grows.
 *
 * Whoever declares a DynBuf owns it; it owns its block until the block is detached or the buffer is
 * destroyed.  Contents are bytes, not text; sizes are in bytes.  How a text is built:
 *
 *    DynBuf buf;
 *    DynBuf_Init(&buf);
 *    if (DynBuf_Append(&buf, "ab", 2) && DynBuf_Append(&buf, "", 1) && DynBuf_Trim(&buf)) {
 *        return buf.data;            (the caller's now, released with free())
 *    }
 *    DynBuf_Destroy(&buf);
 *
 * An empty buffer grows to 128 bytes; below 256 KiB a buffer doubles; from there it grows by
 * 256 KiB; and it grows further where a request needs more.
 *
 * When memory runs out the plain forms return false and leave the buffer as it was; the safe forms
 * end the process through Panic(), naming their caller's source file and line.  All of it is
 * reentrant; a buffer must not be used by two threads at a time.
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

#define DYNBUF_FIRST_ALLOCATION 128    /* the first block's size */
#define DYNBUF_GROWTH_STEP      262144 /* from this size on a block grows by this much */

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
    /* Cut to 32 bits on purpose: this is what callers with longer strings have always got. */
    buf->size = PELAGO_CAST(size_t, PELAGO_CAST(int32_t, length));
    buf->allocated = PELAGO_CAST(size_t, PELAGO_CAST(int32_t, length + 1));
}

/* Releases the block.  The buffer is then empty and can be used again. */
static inline void DynBuf_Destroy(DynBuf *buf)
{
    free(buf->data);
    DynBuf_Init(buf);
}

/* Releases the block and makes the buffer own data instead, a heap block whose size bytes are all
 * in use. */
static inline void DynBuf_Attach(DynBuf *buf, size_t size, void *data)
{
    free(buf->data);
    buf->data = PELAGO_CAST(char *, data);
    buf->size = size;
    buf->allocated = size;
}

/*
 * Gives the block, or NULL, to the caller, who releases it with free().  The buffer's size is left
 * as it was, so that the caller can still read how long the contents are; for any other use the
 * buffer must be initialised or destroyed first.
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
 * when memory runs out or the new size does not fit a size_t.
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

/* Makes room for count bytes after the contents.  Internal: not for callers. */
static inline bool DynBufMakeRoom(DynBuf *buf, size_t count)
{
    if (count > SIZE_MAX - buf->size) { return false; }
    return buf->size + count <= buf->allocated || DynBuf_Enlarge(buf, buf->size + count);
}

/* Appends count bytes, for which there is room.  Internal: not for callers. */
static inline void DynBufPut(DynBuf *buf, const void *bytes, size_t count)
{
    memcpy(buf->data + buf->size, bytes, count);
    buf->size += count;
}

/*
 * Appends a copy of count bytes, which must not be the buffer's own.  For count 0 it does nothing,
 * and bytes may be NULL.  False when memory runs out or the new size does not fit a size_t.
 */
static inline bool DynBuf_Append(DynBuf *buf, const void *bytes, size_t count)
{
    if (count == 0) { return true; }
    if (!DynBufMakeRoom(buf, count)) { return false; }
    DynBufPut(buf, bytes, count);
    return true;
}

/* Appends a NUL, which size does not count, and gives the block to the caller as DynBuf_Detach()
 * does.  When there is no memory for the NUL the process ends. */
static inline char *DynBuf_DetachString(DynBuf *buf)
{
    if (!DynBufMakeRoom(buf, 1)) {
        Pelago_Panic(UTIL_MEM_ALLOC_REPORT, DYNBUF_SOURCE_PATH, DYNBUF_DETACH_STRING_CHECK);
    }
    buf->data[buf->size] = '\0';
    return PELAGO_CAST(char *, DynBuf_Detach(buf));
}

/* Shrinks the block to the contents' size.  False when realloc() fails.  For an empty buffer it
 * never fails, and the buffer may have no block afterwards. */
static inline bool DynBuf_Trim(DynBuf *buf)
{
    char *data = PELAGO_CAST(char *, realloc(buf->data, buf->size));
    if (data == PELAGO_NULL && buf->size != 0) { return false; }
    buf->data = data;
    buf->allocated = buf->size;
    return true;
}

/*
 * Makes destination a copy of source: the same contents in a block of the same size.  A block that
 * destination had is not released.  False when memory runs out; destination is then empty.
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
 * functions that they call take the source file and line to report. */

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
