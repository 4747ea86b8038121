// outOfNew.cpp -- in the place of the C++ library's own new and delete: that allocates for strings
// where no link reaches it.
#include "outOfNew.h"

#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

thread_local size_t tGranted = SIZE_MAX; // so many allocations with new, and no more
thread_local bool tShowed;

} // namespace

OutOfNew::OutOfNew(size_t granted)
{
    tGranted = granted;
    tShowed = false;
}
OutOfNew::~OutOfNew() { tGranted = SIZE_MAX; }
bool OutOfNew::Showed() const { return tShowed; }

// Not inline, since a compiler that sees one half alone takes it for a mismatch.
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
