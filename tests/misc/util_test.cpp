#include "util.h"

#include "panic.h"

#include <cstdlib>

static bool sMallocFails;

extern "C" {
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size) { return sMallocFails ? nullptr : __real_malloc(size); }
}

namespace {

void *AllocateWithoutMemory(size_t size)
{
    sMallocFails = true;
    void *block = Util_SafeMalloc(size);
    sMallocFails = false;
    return block;
}

TEST(UtilSafeMalloc, GivesABlock)
{
    void *block = Util_SafeMalloc(16);
    EXPECT_NE(block, nullptr);
    free(block);
}

TEST(UtilSafeMalloc, TakesNothingForAnAnswerWhenNothingIsAsked)
{
    EXPECT_EQ(AllocateWithoutMemory(0), nullptr);
}

TEST(UtilDeathTest, EndsTheProcessWithoutMemory)
{
    EXPECT_PANIC(AllocateWithoutMemory(1), "Unrecoverable memory allocation failure\n");
}

} // namespace
