// scoped.h -- guards that undo something at the end of a block.
#ifndef PELAGO_MISC_SCOPED_H
#define PELAGO_MISC_SCOPED_H

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>

namespace pelago {

// Puts errno back, at the end of the block, to what it was at the start.
struct ErrnoSaver {
    const int mSaved = errno;
    ~ErrnoSaver()
    {
        // A compiler that knows free() takes it to leave errno alone, and would drop the rest.
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

// A malloc'ed block that is ours until release(); freeing it leaves no trace in errno.
template <typename T> using ScopedFree = std::unique_ptr<T, FreeQuietly>;

} // namespace pelago

#endif // PELAGO_MISC_SCOPED_H
