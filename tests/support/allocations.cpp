// allocations.cpp -- replaces the C library's allocator in tests.  It is a separate file, since a
// compiler that sees both a call of malloc() and these variables assumes that malloc() does not use
// them.
#include "allocations.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

std::atomic<ptrdiff_t> sLive;
thread_local size_t tCalls, tLastSize;
thread_local size_t tFirstRefused, tRefused; // the first call to refuse, and how many to refuse
thread_local std::vector<size_t> *tSizes;
thread_local std::function<void()> tAction; // to run in the next call

// Counts the block, unless it is NULL, and returns it.
template <typename T> T *Counted(T *block)
{
    if (block != nullptr) { sLive++; }
    return block;
}

} // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size)
{
    return Allocations::Grants(size) ? Counted(__real_malloc(size)) : nullptr;
}
void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size)
{
    return Allocations::Grants(count * size) ? Counted(__real_calloc(count, size)) : nullptr;
}
void *__real_realloc(void *block, size_t size);
void *__wrap_realloc(void *block, size_t size)
{
    if (!Allocations::Grants(size)) { return nullptr; }
    const bool hadBlock = block != nullptr;
    void *moved = __real_realloc(block, size);
    if (moved != nullptr && !hadBlock) { sLive++; }
    if (moved == nullptr && hadBlock && size == 0) { sLive--; } // realloc() has freed the block
    return moved;
}
char *__real_strdup(const char *string);
char *__wrap_strdup(const char *string)
{
    return Allocations::Grants(strlen(string) + 1) ? Counted(__real_strdup(string)) : nullptr;
}
void __real_free(void *block);
void __wrap_free(void *block)
{
    if (block != nullptr) { sLive--; }
    __real_free(block);
}
}

ptrdiff_t Allocations::Live() { return sLive; }
size_t Allocations::Calls() { return tCalls; }
size_t Allocations::LastSize() { return tLastSize; }

std::vector<size_t> Allocations::SizesIn(const std::function<void()> &action)
{
    std::vector<size_t> sizes;
    tSizes = &sizes;
    action();
    tSizes = nullptr;
    return sizes;
}

bool Allocations::Grants(size_t size)
{
    if (tAction) { std::exchange(tAction, nullptr)(); }
    if (tSizes != nullptr) { tSizes->push_back(size); }
    tLastSize = size;
    const size_t call = tCalls++;
    return call < tFirstRefused || call - tFirstRefused >= tRefused;
}

void Allocations::Meanwhile(std::function<void()> action) { tAction = std::move(action); }

OutOfMemory::OutOfMemory(size_t granted, size_t refused) : mFirst(tCalls + granted)
{
    tFirstRefused = mFirst;
    tRefused = refused;
}

OutOfMemory::~OutOfMemory() { tRefused = 0; }

bool OutOfMemory::Showed() const { return tRefused != 0 && tCalls > mFirst; }
