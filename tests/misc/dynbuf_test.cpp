#include "dynbuf.h"

#include "allocations.h"
#include "panic.h"
#include "scopedForTests.h"

#include <vector>

static size_t sPretendedLength; // what strlen() returns, unless 0

extern "C" {
size_t __real_strlen(const char *string);
size_t __wrap_strlen(const char *string)
{
    return sPretendedLength != 0 ? sPretendedLength : __real_strlen(string);
}
}

namespace {

// Returns a block's address as a number, which can still be compared after the block is freed.  The
// compiler must not know that the number is a pointer: it warns about using one after realloc(),
// even if realloc() failed.
uintptr_t At(const void *block)
{
    const volatile uintptr_t number = reinterpret_cast<uintptr_t>(block);
    return number;
}

class DynBufTest : public testing::Test {
protected:
    DynBufTest() { DynBuf_Init(&mBuf); }
    ~DynBufTest() override
    {
        DynBuf_Destroy(&mBuf);
        EXPECT_EQ(Allocations::Live(), mLive) << "a block was lost, or freed twice";
    }
    void Own(size_t allocated)
    {
        DynBuf_Destroy(&mBuf);
        DynBuf_InitWithMemory(&mBuf, allocated, malloc(allocated));
    }
    std::string Contents() const { return std::string(mBuf.data, mBuf.size); }
    void ExpectFields(uintptr_t data, size_t size, size_t allocated) const
    {
        EXPECT_EQ(At(mBuf.data), data);
        EXPECT_EQ(mBuf.size, size);
        EXPECT_EQ(mBuf.allocated, allocated);
    }

    const ptrdiff_t mLive = Allocations::Live();
    DynBuf mBuf;
};
using DynBufDeathTest = DynBufTest;

TEST_F(DynBufTest, StartsWithNothing) { ExpectFields(0, 0, 0); }

TEST_F(DynBufTest, OwnsMemoryThatIsGivenToIt)
{
    void *block = calloc(1, 10);
    DynBuf_InitWithMemory(&mBuf, 10, block);
    ExpectFields(At(block), 0, 10);
}

TEST_F(DynBufTest, TakesAStringWithoutCopyingIt)
{
    char *string = strdup("text");
    DynBuf_InitWithString(&mBuf, string);
    ExpectFields(At(string), 4, 5);
}

TEST_F(DynBufTest, TakesNoStringForAnEmptyOne)
{
    DynBuf_InitWithString(&mBuf, nullptr);
    ExpectFields(0, 0, 0);
}

struct LengthCase {
    const char *name;
    size_t length, size, allocated;
};
class DynBufLength : public testing::TestWithParam<LengthCase> {};
TEST_P(DynBufLength, HasThirtyTwoBitsWithASign)
{
    const auto &[name, length, size, allocated] = GetParam();
    DynBuf buf;
    char text[] = "";
    sPretendedLength = length;
    DynBuf_InitWithString(&buf, text);
    sPretendedLength = 0;
    EXPECT_EQ(buf.data, text);
    EXPECT_EQ(buf.size, size);
    EXPECT_EQ(buf.allocated, allocated);
}
INSTANTIATE_TEST_SUITE_P(
    Strings, DynBufLength,
    testing::Values(LengthCase{"Most", 0x7ffffffe, 0x7ffffffe, 0x7fffffff},
                    LengthCase{"OneMore", 0x7fffffff, 0x7fffffff, 0xffffffff80000000},
                    LengthCase{"TwoMore", 0x80000000, 0xffffffff80000000, 0xffffffff80000001},
                    LengthCase{"AllBits", 0xffffffff, SIZE_MAX, 0},
                    LengthCase{"Beyond", 0x100000005, 5, 6}),
    [](const auto &row) { return row.param.name; });

TEST_F(DynBufTest, IsEmptyAfterItsEnd)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "abc", 3));
    DynBuf_Destroy(&mBuf);
    ExpectFields(0, 0, 0);
    EXPECT_EQ(Allocations::Live(), mLive);
    ASSERT_TRUE(DynBuf_Append(&mBuf, "d", 1)) << "and can be used again";
    EXPECT_EQ(Contents(), "d");
}

TEST_F(DynBufTest, ReplacesItsBlock)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "abc", 3));
    char *block = strdup("another");
    DynBuf_Attach(&mBuf, 7, block);
    ExpectFields(At(block), 7, 7);
    EXPECT_EQ(Allocations::Live(), mLive + 1) << "the old block is freed";
}

TEST_F(DynBufTest, KeepsItsSizeWhenTheBlockIsTaken)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "abc", 3));
    const uintptr_t data = At(mBuf.data);
    void *taken = DynBuf_Detach(&mBuf);
    EXPECT_EQ(At(taken), data);
    ExpectFields(0, 3, 0);
    free(taken);
}

TEST_F(DynBufTest, AppendsAtTheOldSizeAfterDetaching)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "abc", 3));
    free(DynBuf_Detach(&mBuf));
    ASSERT_TRUE(DynBuf_Append(&mBuf, "d", 1));
    EXPECT_EQ(mBuf.size, 4u);
    EXPECT_EQ(mBuf.allocated, 128u);
    EXPECT_EQ(mBuf.data[3], 'd');
}

TEST_F(DynBufTest, GivesAStringThatEnds)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "abc", 3));
    memset(mBuf.data + 3, 'x', mBuf.allocated - 3);
    const uintptr_t data = At(mBuf.data);
    char *string = DynBuf_DetachString(&mBuf);
    EXPECT_EQ(At(string), data) << "there was room";
    ExpectFields(0, 3, 0);
    EXPECT_EQ(Take(string), "abc");
}

TEST_F(DynBufTest, GrowsByTheRuleForTheTerminator)
{
    const std::string full(128, 'a');
    ASSERT_TRUE(DynBuf_Append(&mBuf, full.data(), full.size()));
    ASSERT_EQ(mBuf.allocated, 128u);
    char *string = DynBuf_DetachString(&mBuf);
    EXPECT_EQ(Allocations::LastSize(), 256u);
    EXPECT_EQ(Take(string), full);
}

TEST_F(DynBufTest, GivesAnEmptyStringOfNothing) { EXPECT_EQ(Take(DynBuf_DetachString(&mBuf)), ""); }

TEST_F(DynBufDeathTest, EndsTheProcessWithoutMemoryForTheTerminator)
{
    const OutOfMemory none;
    EXPECT_PANIC(DynBuf_DetachString(&mBuf), "MEM_ALLOC lib/public/dynbuf:145\n");
}

struct GrowthCase {
    const char *name;
    size_t allocated, minimum, grown;
};
class DynBufGrowth : public DynBufTest, public testing::WithParamInterface<GrowthCase> {};
TEST_P(DynBufGrowth, TakesOneStepOrTheMinimum)
{
    const auto &[name, allocated, minimum, grown] = GetParam();
    if (allocated != 0) { Own(allocated); }
    ASSERT_TRUE(DynBuf_Enlarge(&mBuf, minimum));
    EXPECT_EQ(mBuf.allocated, grown);
    EXPECT_EQ(Allocations::LastSize(), grown);
    memset(mBuf.data, 'a', grown); // a sanitizer watches the bytes after it
}
INSTANTIATE_TEST_SUITE_P(
    Steps, DynBufGrowth,
    testing::Values(GrowthCase{"First", 0, 1, 128}, GrowthCase{"FirstOfNothing", 0, 0, 128},
                    GrowthCase{"FirstToMore", 0, 129, 129}, GrowthCase{"Double", 128, 10, 256},
                    GrowthCase{"DoubleOfOne", 1, 0, 2}, GrowthCase{"Minimum", 128, 257, 257},
                    GrowthCase{"LastDouble", 262143, 0, 524286},
                    GrowthCase{"FirstStep", 262144, 1, 524288},
                    GrowthCase{"Step", 300000, 1, 562144},
                    GrowthCase{"MinimumBeyondAStep", 300000, 600000, 600000}),
    [](const auto &row) { return row.param.name; });

// The buffer has room for all the bytes, from any size, and also when it must grow by more than one
// step.
TEST_F(DynBufTest, HasRoomForWhatIsAppended)
{
    constexpr size_t SIZES[] = {1,    2,    127,    128,    129,    200,    300,    1000,
                                4096, 5000, 262143, 262144, 262145, 300000, 524288, 600000};
    const std::string bytes(600000, 'x');
    for (const size_t first : SIZES) {
        for (const size_t second : SIZES) {
            Own(first);
            ASSERT_TRUE(DynBuf_Append(&mBuf, bytes.data(), first));
            ASSERT_TRUE(DynBuf_Append(&mBuf, bytes.data(), second));
            ASSERT_EQ(mBuf.size, first + second);
            ASSERT_GE(mBuf.allocated, mBuf.size);
        }
    }
}

TEST_F(DynBufTest, KeepsItsContentsWhenItGrows)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "abc", 3));
    ASSERT_TRUE(DynBuf_Enlarge(&mBuf, 100000));
    EXPECT_EQ(Contents(), "abc");
}

TEST_F(DynBufTest, DoesNotGrowBeyondWhatCanBeCounted)
{
    char block[1];
    DynBuf buf;
    DynBuf_InitWithMemory(&buf, SIZE_MAX - 10, block);
    const size_t calls = Allocations::Calls();
    EXPECT_FALSE(DynBuf_Enlarge(&buf, 1));
    EXPECT_EQ(Allocations::Calls(), calls) << "the allocator is not asked";
    EXPECT_EQ(buf.data, block);
    EXPECT_EQ(buf.allocated, SIZE_MAX - 10);
}

TEST_F(DynBufTest, StaysAsItWasWithoutMemory)
{
    Own(128);
    ASSERT_TRUE(DynBuf_Append(&mBuf, "abc", 3));
    const uintptr_t data = At(mBuf.data);
    const OutOfMemory none;
    EXPECT_FALSE(DynBuf_Enlarge(&mBuf, 1));
    ExpectFields(data, 3, 128);
    EXPECT_FALSE(DynBuf_Append(&mBuf, std::string(126, 'x').data(), 126));
    ExpectFields(data, 3, 128);
    EXPECT_FALSE(DynBuf_Trim(&mBuf));
    ExpectFields(data, 3, 128);
    EXPECT_EQ(Contents(), "abc");
}

TEST_F(DynBufTest, AllocatesAgainOnlyWhenTheBlockIsFull)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "a", 1));
    EXPECT_EQ(mBuf.allocated, 128u);
    for (int i = 0; i < 127; i++) {
        ASSERT_TRUE(DynBuf_Append(&mBuf, "b", 1));
    }
    EXPECT_EQ(mBuf.allocated, 128u) << "it is full";
    ASSERT_TRUE(DynBuf_Append(&mBuf, "c", 1));
    EXPECT_EQ(mBuf.allocated, 256u);
    EXPECT_EQ(Contents(), "a" + std::string(127, 'b') + "c");
}

TEST_F(DynBufTest, AppendsBytesWithNuls)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "a\0b", 3));
    ASSERT_TRUE(DynBuf_Append(&mBuf, "\0", 1));
    EXPECT_EQ(Contents(), std::string("a\0b\0", 4));
}

TEST_F(DynBufTest, DoesNothingForNothing)
{
    const size_t calls = Allocations::Calls();
    EXPECT_TRUE(DynBuf_Append(&mBuf, nullptr, 0));
    ExpectFields(0, 0, 0);
    EXPECT_EQ(Allocations::Calls(), calls);
}

TEST_F(DynBufTest, IgnoresAnEmptyAppendAfterDetaching)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "abc", 3));
    free(DynBuf_Detach(&mBuf));
    const size_t calls = Allocations::Calls();
    EXPECT_TRUE(DynBuf_Append(&mBuf, "d", 0));
    ExpectFields(0, 3, 0);
    EXPECT_EQ(Allocations::Calls(), calls);
}

TEST_F(DynBufTest, DoesNotAppendMoreThanCanBeCounted)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "abc", 3));
    const size_t calls = Allocations::Calls();
    const uintptr_t data = At(mBuf.data);
    const volatile size_t tooMany = SIZE_MAX - 2;
    EXPECT_FALSE(DynBuf_Append(&mBuf, "x", tooMany));
    ExpectFields(data, 3, 128);
    EXPECT_EQ(Allocations::Calls(), calls);
}

TEST_F(DynBufTest, IsTrimmedToItsContents)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "abc", 3));
    ASSERT_TRUE(DynBuf_Trim(&mBuf));
    EXPECT_EQ(Allocations::LastSize(), 3u);
    EXPECT_EQ(mBuf.allocated, 3u);
    EXPECT_EQ(Contents(), "abc");
}

TEST_F(DynBufTest, IsTrimmedToNothingWhateverTheAllocatorSays)
{
    Own(128);
    ASSERT_TRUE(DynBuf_Trim(&mBuf));
    EXPECT_EQ(Allocations::LastSize(), 0u);
    EXPECT_EQ(mBuf.allocated, 0u);
    ASSERT_TRUE(DynBuf_Append(&mBuf, "a", 1)) << "no block that is gone is used";
    EXPECT_EQ(Contents(), "a");

    DynBuf_Destroy(&mBuf);
    const OutOfMemory none;
    EXPECT_TRUE(DynBuf_Trim(&mBuf));
    ExpectFields(0, 0, 0);
}

TEST_F(DynBufTest, IsCopiedWithItsAllocation)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "abc", 3));
    DynBuf copy;
    memset(&copy, 0xee, sizeof copy); // the call must not read the old contents
    ASSERT_TRUE(DynBuf_Copy(&mBuf, &copy));
    EXPECT_NE(copy.data, mBuf.data);
    EXPECT_EQ(copy.allocated, 128u);
    EXPECT_EQ(std::string(copy.data, copy.size), "abc");
    memset(copy.data, 'x', 128);
    DynBuf_Destroy(&copy);
    EXPECT_EQ(Contents(), "abc");
}

TEST_F(DynBufTest, IsCopiedWhenItIsEmpty)
{
    DynBuf copy;
    ASSERT_TRUE(DynBuf_Copy(&mBuf, &copy));
    EXPECT_EQ(copy.size, 0u);
    EXPECT_EQ(copy.allocated, 0u);
    DynBuf_Destroy(&copy);
}

TEST_F(DynBufTest, IsNotCopiedWithoutMemory)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "abc", 3));
    DynBuf copy;
    const OutOfMemory none;
    EXPECT_FALSE(DynBuf_Copy(&mBuf, &copy));
    EXPECT_EQ(copy.data, nullptr);
    EXPECT_EQ(copy.size, 0u);
    EXPECT_EQ(copy.allocated, 0u);
    EXPECT_EQ(Contents(), "abc");
}

TEST_F(DynBufTest, EnlargesAndAppendsSafely)
{
    EXPECT_EQ(DynBuf_SafeEnlarge(&mBuf, 10), mBuf.data);
    EXPECT_EQ(mBuf.allocated, 128u);
    DynBuf_SafeAppend(&mBuf, "abc", 3);
    DynBuf_SafeAppend(&mBuf, nullptr, 0);
    EXPECT_EQ(Contents(), "abc");
}

constexpr char REPORT[] = "Unrecoverable memory allocation failure at ";

TEST_F(DynBufDeathTest, NamesItsCallerWithoutMemory)
{
    const OutOfMemory none;
    EXPECT_PANIC(DynBuf_SafeInternalEnlarge(&mBuf, 1, "lib/x", 7),
                 std::string(REPORT) + "lib/x:7\n");
    EXPECT_PANIC(DynBuf_SafeInternalAppend(&mBuf, "a", 1, "lib/x", 4294967295u),
                 std::string(REPORT) + "lib/x:4294967295\n");
}

TEST_F(DynBufDeathTest, EndsTheProcessWhenTheSizeOverflows)
{
    ASSERT_TRUE(DynBuf_Append(&mBuf, "abc", 3));
    const volatile size_t tooMany = SIZE_MAX - 2;
    EXPECT_PANIC(DynBuf_SafeInternalAppend(&mBuf, "x", tooMany, "lib/x", 7),
                 std::string(REPORT) + "lib/x:7\n");
}

TEST_F(DynBufDeathTest, KnowsTheFileAndLineOfItsCaller)
{
    const OutOfMemory none;
    const auto here = [](int line) {
        return std::string(REPORT) + __FILE__ + ":" + std::to_string(line) + "\n";
    };
    EXPECT_PANIC(DynBuf_SafeEnlarge(&mBuf, 1), here(__LINE__));
    EXPECT_PANIC(DynBuf_SafeAppend(&mBuf, "a", 1), here(__LINE__));
}

} // namespace
