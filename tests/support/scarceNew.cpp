// scarceNew.cpp -- replaces the C++ library's new and delete, whose calls of malloc() --wrap does
// not reach.
#include "scarceNew.h"

#include "allocations.h"

#include <cstdlib>
#include <new>

extern "C" void *__real_malloc(size_t size);
extern "C" void __real_free(void *block);

static thread_local bool tIsScarce;

ScarceNew::ScarceNew() { tIsScarce = true; }
ScarceNew::~ScarceNew() { tIsScarce = false; }

// Not inlined: a compiler that inlines only one of new and delete warns that they do not match.
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
