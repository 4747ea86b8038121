// countedBlocks.h -- counts the library's blocks, refuses them, and does things while they are
// made. For programs that are linked with --wrap for malloc, calloc, strdup and free.
#ifndef PELAGO_TESTS_MISC_COUNTEDBLOCKS_H
#define PELAGO_TESTS_MISC_COUNTEDBLOCKS_H

#include <atomic>
#include <cstdlib>
#include <functional>
#include <utility>

struct CountedBlocks {
    static inline std::atomic<long> sLive;         // made and not released
    static inline thread_local long tMade = 0;     // made by this thread
    static inline thread_local long tRefused = -1; // the number of the next one not to be had
    static inline thread_local std::function<void()> tMeanwhile; // runs once, in the next malloc()

    // Whether there is to be a block.
    static bool Count()
    {
        if (std::function<void()> meanwhile = std::exchange(tMeanwhile, nullptr)) { meanwhile(); }
        if (tRefused >= 0 && tRefused-- == 0) { return false; }
        sLive.fetch_add(1, std::memory_order_relaxed);
        tMade++;
        return true;
    }
};

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
char *__real_strdup(const char *string);
void __real_free(void *block);
void *__wrap_malloc(size_t size) { return CountedBlocks::Count() ? __real_malloc(size) : nullptr; }
void *__wrap_calloc(size_t count, size_t size)
{
    return CountedBlocks::Count() ? __real_calloc(count, size) : nullptr;
}
char *__wrap_strdup(const char *string)
{
    return CountedBlocks::Count() ? __real_strdup(string) : nullptr;
}
void __wrap_free(void *block)
{
    if (block != nullptr) { CountedBlocks::sLive.fetch_sub(1, std::memory_order_relaxed); }
    __real_free(block);
}
}

#endif // PELAGO_TESTS_MISC_COUNTEDBLOCKS_H
