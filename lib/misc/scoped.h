// scoped.h -- guards that undo something at the end of a block.
#ifndef PELAGO_MISC_SCOPED_H
#define PELAGO_MISC_SCOPED_H

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>

namespace pelago {

// Restores errno at the end of the block.
struct ErrnoSaver {
    const int mSaved = errno;
    ~ErrnoSaver()
    {
        // Compilers assume that free() leaves errno unchanged, and would drop the assignment.
        std::atomic_signal_fence(std::memory_order_seq_cst);
        errno = mSaved;
    }
};

struct FreeQuietly {
    void operator()(void *block) const noexcept
    {
        ErrnoSaver keep;
        free(block);
    }
};

// A malloc'ed block that is freed at the end of the block of code unless it was released; freeing
// it leaves errno unchanged.
template <typename T> using ScopedFree = std::unique_ptr<T, FreeQuietly>;

} // namespace pelago

#endif // PELAGO_MISC_SCOPED_H
