// allocations.h -- the C library's allocator, running out of memory on demand.  For a program of
// one source, linked with --wrap of what is wrapped here.
#ifndef PELAGO_TESTS_MISC_ALLOCATIONS_H
#define PELAGO_TESTS_MISC_ALLOCATIONS_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>

// What was asked of the allocator, and what it is to refuse.  Counting starts with the program.
struct Allocations {
    size_t calls = 0;
    size_t firstRefused = SIZE_MAX, lastRefused = SIZE_MAX; // by the number of the call
    ptrdiff_t live = 0;                                     // blocks given and not freed
    size_t lastSize = 0;                                    // of realloc

    bool Grants()
    {
        const size_t call = calls++;
        return call < firstRefused || call > lastRefused;
    }
    template <typename T> T *Given(T *block)
    {
        live += block != nullptr;
        return block;
    }
};
static Allocations sAllocations;

// Has so many calls be granted and the next ones refused, as many as given, in its scope.
class OutOfMemory {
public:
    explicit OutOfMemory(size_t granted = 0, size_t refused = SIZE_MAX / 4)
    {
        sAllocations.firstRefused = sAllocations.calls + granted;
        sAllocations.lastRefused = sAllocations.firstRefused + refused - 1;
    }
    ~OutOfMemory() { sAllocations.firstRefused = sAllocations.lastRefused = SIZE_MAX; }
    OutOfMemory(const OutOfMemory &) = delete;
    OutOfMemory &operator=(const OutOfMemory &) = delete;
    // Whether a call was refused by now.
    bool Showed() const { return sAllocations.calls > sAllocations.firstRefused; }
};

extern "C" {
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size)
{
    return sAllocations.Grants() ? sAllocations.Given(__real_malloc(size)) : nullptr;
}
void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size)
{
    return sAllocations.Grants() ? sAllocations.Given(__real_calloc(count, size)) : nullptr;
}
void *__real_realloc(void *block, size_t size);
void *__wrap_realloc(void *block, size_t size)
{
    sAllocations.lastSize = size;
    if (!sAllocations.Grants()) { return nullptr; }
    sAllocations.live -= block != nullptr;
    void *moved = __real_realloc(block, size);
    sAllocations.live += moved != nullptr || (block != nullptr && size != 0);
    return moved;
}
char *__real_strdup(const char *string);
char *__wrap_strdup(const char *string)
{
    return sAllocations.Grants() ? sAllocations.Given(__real_strdup(string)) : nullptr;
}
void __real_free(void *block);
void __wrap_free(void *block)
{
    sAllocations.live -= block != nullptr;
    __real_free(block);
}
}

#endif // PELAGO_TESTS_MISC_ALLOCATIONS_H
