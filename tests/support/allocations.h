// allocations.h -- the C library's allocator, counted, and out of memory on demand.  For programs
// that pelago_refuse_allocations() is told of; there it answers all that is linked statically.
#ifndef PELAGO_TESTS_SUPPORT_ALLOCATIONS_H
#define PELAGO_TESTS_SUPPORT_ALLOCATIONS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

// What has been asked of malloc, calloc, realloc and strdup.
struct Allocations {
    // The blocks that were given and not freed, by all threads together.
    static ptrdiff_t Live();
    // This thread's calls, refused ones included.
    static size_t Calls();
    // What this thread's last call asked for.
    static size_t LastSize();
    // What this thread asks for in the action, call by call.
    static std::vector<size_t> SizesIn(const std::function<void()> &action);
    // Counts one more call of this thread, for a block from elsewhere, and says whether it is
    // granted.
    static bool Grants(size_t size);
    // Does this once, in this thread's next call, before that is answered.
    static void Meanwhile(std::function<void()> deed);
};

// While it lives, so many calls of this thread are granted and then so many refused.
class OutOfMemory {
public:
    explicit OutOfMemory(size_t granted = 0, size_t refused = SIZE_MAX);
    ~OutOfMemory();
    OutOfMemory(const OutOfMemory &) = delete;
    OutOfMemory &operator=(const OutOfMemory &) = delete;
    // Whether a call has been refused.
    bool Showed() const;

private:
    const size_t mFirst; // the number of the first call that is refused
};

#endif // PELAGO_TESTS_SUPPORT_ALLOCATIONS_H
