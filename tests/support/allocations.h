// allocations.h -- counts allocations, and refuses them on demand.  It replaces the C library's
// allocator for all code that is linked statically into the programs of
// pelago_refuse_allocations().
#ifndef PELAGO_TESTS_SUPPORT_ALLOCATIONS_H
#define PELAGO_TESTS_SUPPORT_ALLOCATIONS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

// The calls of malloc, calloc, realloc and strdup.
struct Allocations {
    // Returns the number of blocks that were allocated and not freed, in all threads together.
    static ptrdiff_t Live();
    // Returns the number of this thread's calls, refused ones included.
    static size_t Calls();
    // Returns the size that this thread's last call requested.
    static size_t LastSize();
    // Runs the action, and returns the size that each of this thread's calls in it requested.
    static std::vector<size_t> SizesIn(const std::function<void()> &action);
    // Counts one more call of this thread, for a block from another allocator; returns whether the
    // call is granted.
    static bool Grants(size_t size);
    // Makes this thread's next call run the action first, once.
    static void Meanwhile(std::function<void()> action);
};

// During its lifetime the allocator grants this many calls of this thread, refuses this many after
// them, and grants the rest.
class OutOfMemory {
public:
    explicit OutOfMemory(size_t granted = 0, size_t refused = SIZE_MAX);
    ~OutOfMemory();
    OutOfMemory(const OutOfMemory &) = delete;
    OutOfMemory &operator=(const OutOfMemory &) = delete;
    // Returns whether a call was refused.
    bool Showed() const;

private:
    const size_t mFirst; // the number of the first call that is refused
};

#endif // PELAGO_TESTS_SUPPORT_ALLOCATIONS_H
