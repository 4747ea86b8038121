// scarceNew.cpp -- in the place of the C++ library's own new and delete, which allocate where no
// link reaches them.
#include "scarceNew.h"

#include "allocations.h"

#include <cstdlib>
#include <new>

extern "C" void *__real_malloc(size_t size);
extern "C" void __real_free(void *block);

static thread_local bool tIsScarce;

ScarceNew::ScarceNew() { tIsScarce = true; }
ScarceNew::~ScarceNew() { tIsScarce = false; }

// Not inline, since a compiler that sees one half alone takes it for a mismatch.
[[gnu::noinline]] void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    return tIsScarce && !Allocations::Grants(size) ? nullptr : __real_malloc(size);
}
[[gnu::noinline]] void *operator new(size_t size)
{
    void *block = operator new(size, std::nothrow);
    if (block == nullptr) { throw std::bad_alloc(); }
    return block;
}
[[gnu::noinline]] void operator delete(void *block) noexcept { __real_free(block); }
[[gnu::noinline]] void operator delete(void *block, size_t) noexcept { __real_free(block); }
