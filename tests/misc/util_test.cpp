#include "util.h"

#include "allocations.h"
#include "panic.h"
#include "scopedForTests.h"

#include <climits>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

static bool sMemchrFindsNothing;

extern "C" {
void *__real_memchr(const void *bytes, int byte, size_t n);
void *__wrap_memchr(const void *bytes, int byte, size_t n)
{
    return sMemchrFindsNothing ? nullptr : __real_memchr(bytes, byte, n);
}
}

namespace {

constexpr char REPORT[] = "Unrecoverable memory allocation failure\n";
constexpr char REPORT_AT[] = "Unrecoverable memory allocation failure at lib/x:7\n";
const size_t HUGE_SIZE = SIZE_MAX / 2;

// Each allocator in its two forms, called for some bytes and for none.
struct AllocatorCase {
    const char *name;
    std::function<void *()> some, someAt, none, noneAt;
};
const AllocatorCase ALLOCATORS[] = {
    {"Malloc", [] { return Util_SafeMalloc(1); },
     [] { return Util_SafeMallocAt(1, UTIL_NO_BUG, "lib/x", 7); },
     [] { return Util_SafeMalloc(0); },
     [] { return Util_SafeMallocAt(0, UTIL_NO_BUG, "lib/x", 7); }},
    {"Realloc", [] { return Util_SafeRealloc(nullptr, 1); },
     [] { return Util_SafeReallocAt(nullptr, 1, UTIL_NO_BUG, "lib/x", 7); },
     [] { return Util_SafeRealloc(nullptr, 0); },
     [] { return Util_SafeReallocAt(nullptr, 0, UTIL_NO_BUG, "lib/x", 7); }},
    {"Calloc", [] { return Util_SafeCalloc(1, 1); },
     [] { return Util_SafeCallocAt(1, 1, UTIL_NO_BUG, "lib/x", 7); },
     [] { return Util_SafeCalloc(0, HUGE_SIZE); },
     [] { return Util_SafeCallocAt(HUGE_SIZE, 0, UTIL_NO_BUG, "lib/x", 7); }},
    {"CallocTheOtherWay", [] { return Util_SafeCalloc(2, HUGE_SIZE + 1); },
     [] { return Util_SafeCallocAt(HUGE_SIZE + 1, 2, UTIL_NO_BUG, "lib/x", 7); },
     [] { return Util_SafeCalloc(HUGE_SIZE, 0); },
     [] { return Util_SafeCallocAt(0, HUGE_SIZE, UTIL_NO_BUG, "lib/x", 7); }},
    {"Strdup", []() -> void * { return Util_SafeStrdup(""); },
     []() -> void * { return Util_SafeStrdupAt("", UTIL_NO_BUG, "lib/x", 7); },
     []() -> void * { return Util_SafeStrdup(nullptr); },
     []() -> void * { return Util_SafeStrdupAt(nullptr, UTIL_NO_BUG, "lib/x", 7); }},
    {"Strndup", []() -> void * { return Util_SafeStrndup("", 0); },
     []() -> void * { return Util_SafeStrndupAt("", 0, UTIL_NO_BUG, "lib/x", 7); },
     []() -> void * { return Util_SafeStrndup(nullptr, SIZE_MAX); },
     []() -> void * { return Util_SafeStrndupAt(nullptr, SIZE_MAX, UTIL_NO_BUG, "lib/x", 7); }},
};

class UtilAllocator : public testing::TestWithParam<AllocatorCase> {};
using UtilAllocatorDeathTest = UtilAllocator;

TEST_P(UtilAllocator, ReturnsNullForAnEmptyRequest)
{
    const OutOfMemory none;
    EXPECT_EQ(GetParam().none(), nullptr);
    EXPECT_EQ(GetParam().noneAt(), nullptr);
}
TEST_P(UtilAllocatorDeathTest, EndsTheProcessWithoutMemory)
{
    const OutOfMemory none;
    EXPECT_PANIC(GetParam().some(), REPORT);
}
TEST_P(UtilAllocatorDeathTest, TellsWhoAskedInItsOtherForm)
{
    const OutOfMemory none;
    EXPECT_PANIC(GetParam().someAt(), REPORT_AT);
}
std::string AllocatorName(const testing::TestParamInfo<AllocatorCase> &row)
{
    return row.param.name;
}
INSTANTIATE_TEST_SUITE_P(Each, UtilAllocator, testing::ValuesIn(ALLOCATORS), AllocatorName);
INSTANTIATE_TEST_SUITE_P(Each, UtilAllocatorDeathTest, testing::ValuesIn(ALLOCATORS),
                         AllocatorName);

TEST(UtilDeathTest, TellsTheBugNumberUnlessThereIsNone)
{
    EXPECT_PANIC(Util_AllocFailure(), REPORT);
    EXPECT_PANIC(Util_AllocFailureAt(-1, "lib/x", 7), REPORT_AT);
    EXPECT_PANIC(Util_AllocFailureAt(-1, "lib/x", -7),
                 "Unrecoverable memory allocation failure at lib/x:-7\n");
    EXPECT_PANIC(Util_AllocFailureAt(-1, "lib/x", INT_MIN),
                 "Unrecoverable memory allocation failure at lib/x:-2147483648\n");
    EXPECT_PANIC(Util_AllocFailureAt(42, "lib/x", 7),
                 "Unrecoverable memory allocation failure at lib/x:7.  Bug number: 42\n");
    EXPECT_PANIC(Util_AllocFailureAt(INT_MIN, "lib/x", -1),
                 "Unrecoverable memory allocation failure at lib/x:-1.  Bug number: -2147483648\n");
}

// At exit the program may still read the old block: a failed resize must not free it.
ptrdiff_t sLiveBefore;
template <typename Resize> void FailToResize(Resize resize)
{
    void *block = malloc(10);
    sLiveBefore = Allocations::Live();
    atexit([] { fprintf(stderr, "%td freed", sLiveBefore - Allocations::Live()); });
    const OutOfMemory none;
    resize(block);
}
TEST(UtilDeathTest, KeepsTheOldBlockWhenResizingFails)
{
    EXPECT_EXIT(FailToResize([](void *block) { return Util_SafeRealloc(block, 1000); }),
                testing::ExitedWithCode(1), testing::EndsWith(std::string(REPORT) + "0 freed"));
    EXPECT_EXIT(FailToResize([](void *block) {
                    return Util_SafeReallocAt(block, 1000, UTIL_NO_BUG, "lib/x", 7);
                }),
                testing::ExitedWithCode(1), testing::EndsWith(std::string(REPORT_AT) + "0 freed"));
}

struct BugCase {
    const char *name;
    std::function<void *()> allocate;
};
class UtilBugDeathTest : public testing::TestWithParam<BugCase> {};
TEST_P(UtilBugDeathTest, ReachesTheReport)
{
    const OutOfMemory none;
    EXPECT_PANIC(GetParam().allocate(),
                 "Unrecoverable memory allocation failure at lib/y:9.  Bug number: 3\n");
}
INSTANTIATE_TEST_SUITE_P(
    Each, UtilBugDeathTest,
    testing::Values(
        BugCase{"Malloc", [] { return Util_SafeMallocAt(1, 3, "lib/y", 9); }},
        BugCase{"Realloc", [] { return Util_SafeReallocAt(nullptr, 1, 3, "lib/y", 9); }},
        BugCase{"Calloc", [] { return Util_SafeCallocAt(1, 1, 3, "lib/y", 9); }},
        BugCase{"Strdup", []() -> void * { return Util_SafeStrdupAt("a", 3, "lib/y", 9); }},
        BugCase{"Strndup", []() -> void * { return Util_SafeStrndupAt("a", 1, 3, "lib/y", 9); }}),
    [](const auto &row) { return row.param.name; });

TEST(UtilSafeMalloc, PassesOnWhatNothingIsGivenFor)
{
    void *block = nullptr;
    EXPECT_EQ(Allocations::SizesIn([&] { block = Util_SafeMalloc(0); }), std::vector<size_t>{0});
    EXPECT_NE(block, nullptr) << "the C library's own answer";
    free(block);
}

TEST(UtilSafeMalloc, GivesABlockOfThatSize)
{
    for (void *block : {Util_SafeMalloc(100), Util_SafeMallocAt(100, -1, "lib/x", 7)}) {
        ASSERT_NE(block, nullptr);
        memset(block, 'a', 100);
        free(block);
    }
}

TEST(UtilSafeRealloc, KeepsTheContents)
{
    auto *block = static_cast<char *>(Util_SafeMalloc(4));
    memcpy(block, "abc", 4);
    block = static_cast<char *>(Util_SafeRealloc(block, 100000));
    EXPECT_STREQ(block, "abc");
    block = static_cast<char *>(Util_SafeReallocAt(block, 4, -1, "lib/x", 7));
    EXPECT_STREQ(block, "abc");
    free(block);
}

TEST(UtilSafeCalloc, GivesZeros)
{
    for (void *block : {Util_SafeCalloc(25, 4), Util_SafeCallocAt(25, 4, -1, "lib/x", 7)}) {
        ASSERT_NE(block, nullptr);
        const std::string zeros(100, '\0');
        EXPECT_EQ(memcmp(block, zeros.data(), zeros.size()), 0);
        free(block);
    }
}

TEST(UtilSafeStrdup, Copies)
{
    EXPECT_EQ(Take(Util_SafeStrdup("text")), "text");
    EXPECT_EQ(Take(Util_SafeStrdupAt("text", -1, "lib/x", 7)), "text");
    EXPECT_EQ(Take(Util_SafeStrdup("")), "");
}

struct StrndupCase {
    const char *name, *bytes;
    size_t n;
    const char *copy;
};
class UtilSafeStrndup : public testing::TestWithParam<StrndupCase> {};
TEST_P(UtilSafeStrndup, StopsAtTheFirstNulOrTheLimit)
{
    const auto &[name, bytes, n, copy] = GetParam();
    EXPECT_EQ(Take(Util_SafeStrndup(bytes, n)), copy);
    EXPECT_EQ(Take(Util_SafeStrndupAt(bytes, n, -1, "lib/x", 7)), copy);
}
INSTANTIATE_TEST_SUITE_P(Bytes, UtilSafeStrndup,
                         testing::Values(StrndupCase{"Limit", "abc", 2, "ab"},
                                         StrndupCase{"NulWithin", "a\0bc", 4, "a"},
                                         StrndupCase{"NulAtTheLimit", "abc", 3, "abc"},
                                         StrndupCase{"LimitBeyond", "abc", 1000, "abc"},
                                         StrndupCase{"NoLimit", "abc", SIZE_MAX, "abc"},
                                         StrndupCase{"Nothing", "abc", 0, ""},
                                         StrndupCase{"NulFirst", "", 5, ""}),
                         [](const auto &row) { return row.param.name; });

TEST(UtilSafeStrndup, ReadsNothingBeyondTheLimit)
{
    char *bytes = static_cast<char *>(malloc(3)); // a sanitizer watches the bytes after it
    memcpy(bytes, "abc", 3);
    EXPECT_EQ(Take(Util_SafeStrndup(bytes, 3)), "abc");
    free(bytes);
}

TEST(UtilSafeStrndupDeathTest, EndsTheProcessWhenTheLengthOverflows)
{
    sMemchrFindsNothing = true; // as in a memory without a NUL
    EXPECT_PANIC(Take(Util_SafeStrndup("abc", SIZE_MAX)), REPORT);
    EXPECT_PANIC(Take(Util_SafeStrndupAt("abc", SIZE_MAX, -1, "lib/x", 7)), REPORT_AT);
    sMemchrFindsNothing = false;
}

TEST(UtilMemdup, CopiesAnySizeFromAnyAlignment)
{
    std::string bytes;
    for (int i = 0; i < 200; i++) {
        bytes += static_cast<char>(i);
    }
    for (size_t start = 0; start < 16; start++) {
        for (size_t size = 1; size < 100; size++) {
            auto *copy = static_cast<char *>(Util_Memdup(bytes.data() + start, size));
            ASSERT_NE(copy, nullptr);
            ASSERT_EQ(std::string(copy, size), bytes.substr(start, size));
            free(copy);
        }
    }
}

TEST(UtilMemdup, AllocatesNothingForNothing)
{
    const size_t calls = Allocations::Calls();
    EXPECT_EQ(Util_Memdup("abc", 0), nullptr);
    EXPECT_EQ(Allocations::Calls(), calls);
}

TEST(UtilMemdup, GivesNothingWithoutMemory)
{
    const OutOfMemory none;
    EXPECT_EQ(Util_Memdup("abc", 3), nullptr);
}

TEST(UtilMemcpy, CopiesBetweenAnyAlignmentsAndReturnsTheDestination)
{
    const std::string bytes = "0123456789abcdefghijklmnopqrstuvwxyz0123456789";
    for (size_t from = 0; from < 9; from++) {
        for (size_t to = 0; to < 9; to++) {
            for (size_t size = 0; size <= 32; size++) {
                std::string block(48, '.');
                ASSERT_EQ(Util_Memcpy(&block[to], &bytes[from], size), &block[to]);
                ASSERT_EQ(block, std::string(to, '.') + bytes.substr(from, size) +
                                     std::string(48 - to - size, '.'));
            }
        }
    }
    EXPECT_EQ(Util_Memcpy(nullptr, nullptr, 0), nullptr);
}

TEST(UtilFree, Frees)
{
    const ptrdiff_t live = Allocations::Live();
    void *block = Util_SafeMalloc(1);
    EXPECT_EQ(Allocations::Live(), live + 1);
    Util_Free(block);
    EXPECT_EQ(Allocations::Live(), live);
    Util_Free(nullptr);
    EXPECT_EQ(Allocations::Live(), live);
}

// Compares blocks; a sanitizer watches their ends.
void ExpectDifferences(const std::vector<uint8_t> &a, const std::vector<uint8_t> &b)
{
    size_t different = 0, counted = SIZE_MAX;
    for (size_t i = 0; i < a.size(); i++) {
        different += a[i] != b[i];
    }
    ASSERT_EQ(Util_CountMemDiff(a.data(), b.data(), a.size(), &counted), different != 0);
    ASSERT_EQ(counted, different) << a.size() << " bytes";
    ASSERT_EQ(Util_CountMemDiff(a.data(), b.data(), a.size(), nullptr), different != 0);
    ASSERT_EQ(Util_MemDiffers(a.data(), b.data(), a.size()), different != 0) << a.size();
}

TEST(UtilMemDiff, SeesEverySinglePosition)
{
    for (size_t size = 0; size <= 150; size++) {
        const std::vector<uint8_t> a(size, 0x5a);
        ExpectDifferences(a, a);
        for (size_t at = 0; at < size; at++) {
            std::vector<uint8_t> b = a;
            b[at] ^= static_cast<uint8_t>(1 << at % 8);
            ASSERT_NO_FATAL_FAILURE(ExpectDifferences(a, b)) << "differing at " << at;
        }
    }
}

TEST(UtilMemDiff, CountsInBlocksOfAnySize)
{
    std::mt19937 random(1);
    for (size_t size : {1000u, 4031u, 4032u, 4033u, 4095u, 4096u, 8064u, 65536u, 100003u}) {
        std::vector<uint8_t> a(size), sparse(size), opposite(size);
        for (size_t i = 0; i < size; i++) {
            a[i] = static_cast<uint8_t>(random());
            sparse[i] = static_cast<uint8_t>(random() % 5 == 0 ? random() : a[i]);
            opposite[i] = static_cast<uint8_t>(~a[i]);
        }
        ExpectDifferences(a, sparse);
        ExpectDifferences(a, opposite);
        ExpectDifferences(a, a);
    }
}

TEST(UtilMemDiff, CountsDifferencesAtBothEndsOfABlock)
{
    const std::string a(1000, 'a');
    std::string b = a;
    size_t count = SIZE_MAX;
    EXPECT_FALSE(Util_CountMemDiff(a.data(), b.data(), 1000, &count));
    EXPECT_EQ(count, 0u);
    b.front() = b.back() = 'b';
    EXPECT_TRUE(Util_CountMemDiff(a.data(), b.data(), 1000, &count));
    EXPECT_EQ(count, 2u);
}

TEST(UtilMemDiff, FindsNoDifferenceInNothing)
{
    size_t count = SIZE_MAX;
    EXPECT_FALSE(Util_CountMemDiff("a", "b", 0, &count));
    EXPECT_EQ(count, 0u);
    EXPECT_FALSE(Util_MemDiffers("a", "b", 0));
}

struct StrDiffCase {
    const char *name, *a, *b;
    size_t count;
};
class UtilStrDiff : public testing::TestWithParam<StrDiffCase> {};
TEST_P(UtilStrDiff, WalksTheFirstStringWithItsNul)
{
    const auto &[name, a, b, expected] = GetParam();
    size_t count = SIZE_MAX;
    EXPECT_EQ(Util_CountStrDiff(a, b, &count), expected != 0);
    EXPECT_EQ(count, expected);
    EXPECT_EQ(Util_CountStrDiff(a, b, nullptr), expected != 0);
    EXPECT_EQ(Util_StrDiffers(a, b), expected != 0);
}
INSTANTIATE_TEST_SUITE_P(Strings, UtilStrDiff,
                         testing::Values(StrDiffCase{"Equal", "abc", "abc", 0},
                                         StrDiffCase{"BothEmpty", "", "", 0},
                                         StrDiffCase{"SecondLonger", "abc", "abcd", 1},
                                         StrDiffCase{"SecondMuchLonger", "abc", "abcdefgh", 1},
                                         StrDiffCase{"FirstLonger", "abcd", "abc", 1},
                                         StrDiffCase{"FirstMuchLonger", "abcdefg", "abc", 4},
                                         StrDiffCase{"FirstEmpty", "", "abc", 1},
                                         StrDiffCase{"SecondEmpty", "abc", "", 3},
                                         StrDiffCase{"Everywhere", "abc", "xyz", 3},
                                         StrDiffCase{"HighBytes", "\xff\x80", "\x7f\x80", 1}),
                         [](const auto &row) { return row.param.name; });

TEST(UtilStrDiff, ReadsTheSecondStringToItsNulOnly)
{
    char *b = static_cast<char *>(malloc(2)); // a sanitizer watches the bytes after it
    memcpy(b, "a", 2);
    size_t count = 0;
    EXPECT_TRUE(Util_CountStrDiff("aaaaaaaaaaaaaaaaaaaaaaaa", b, &count));
    EXPECT_EQ(count, 23u);
    free(b);
}

} // namespace
