// outOfNew.cpp -- replaces new and delete.  The C++ library allocates for its strings in its own
// code, where the linker's --wrap does not reach.
#include "outOfNew.h"

#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

thread_local size_t tGranted = SIZE_MAX; // allocations with new that are still granted
thread_local bool tShowed;

} // namespace

OutOfNew::OutOfNew(size_t granted)
{
    tGranted = granted;
    tShowed = false;
}
OutOfNew::~OutOfNew() { tGranted = SIZE_MAX; }
bool OutOfNew::Showed() const { return tShowed; }

// Not inline: a compiler that sees only new or only delete takes the other for a mismatch.
[[gnu::noinline]] void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    if (tGranted == 0) {
        tShowed = true;
        return nullptr;
    }
    if (tGranted != SIZE_MAX) { tGranted--; }
    return malloc(size);
}
[[gnu::noinline]] void *operator new(size_t size)
{
    void *block = operator new(size, std::nothrow);
    if (block == nullptr) { throw std::bad_alloc(); }
    return block;
}
[[gnu::noinline]] void operator delete(void *block) noexcept { free(block); }
[[gnu::noinline]] void operator delete(void *block, size_t) noexcept { free(block); }
