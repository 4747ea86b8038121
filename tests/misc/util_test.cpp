#include "util.h"

#include "panic.h"

#include <cstdlib>
#include <sys/resource.h>

namespace {

TEST(UtilSafeMalloc, GivesABlock)
{
    void *block = Util_SafeMalloc(16);
    EXPECT_NE(block, nullptr);
    free(block);
}

TEST(UtilSafeMalloc, TakesNothingForAnAnswerWhenNothingIsAsked) { free(Util_SafeMalloc(0)); }

TEST(UtilDeathTest, EndsTheProcessWithoutMemory)
{
    // More than any address space: the allocator refuses it, sanitizers in their own words first.
    volatile size_t size = SIZE_MAX / 2;
    EXPECT_PANIC(free(Util_SafeMalloc(size)), "Unrecoverable memory allocation failure\n");
}

} // namespace
