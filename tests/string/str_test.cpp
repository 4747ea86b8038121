#include "str.h"

#include "bsd_vsnprintf.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <sys/mman.h>
#include <vector>

static std::vector<size_t> sBlocks; // the sizes that the library has asked for
static int sFailingBlock = -1;      // the number of the one that it does not get

extern "C" {
void *__real_malloc(size_t size);
void *__real_realloc(void *block, size_t size);
static bool IsRefused(size_t size)
{
    sBlocks.push_back(size);
    return static_cast<int>(sBlocks.size()) - 1 == sFailingBlock;
}
void *__wrap_malloc(size_t size) { return IsRefused(size) ? nullptr : __real_malloc(size); }
void *__wrap_realloc(void *block, size_t size)
{
    return IsRefused(size) ? nullptr : __real_realloc(block, size);
}
}

namespace {

// The dialect is the engine's own, so the compiler must not hold it against the C library's.
__attribute__((noinline)) char *Format(size_t *length, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char *text = Str_Vasprintf(length, format, arguments);
    va_end(arguments);
    return text;
}

__attribute__((noinline)) int FormatInto(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = bsd_vsnprintf(&buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

TEST(StrAsprintf, JoinsStringsAndTellsTheLength)
{
    size_t length = 0;
    EXPECT_EQ(Take(Str_Asprintf(&length, "%s%s", "/opt/p", "/Contents")), "/opt/p/Contents");
    EXPECT_EQ(length, 15u);
}

TEST(StrAsprintf, NeedsNoPlaceForTheLength)
{
    EXPECT_EQ(Take(Str_Asprintf(nullptr, "%s", "text")), "text");
}

TEST(StrAsprintf, FormatsNothing)
{
    size_t length = 1;
    EXPECT_EQ(Take(Format(&length, "")), "");
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(Take(Str_Asprintf(nullptr, "%s%s", "", "")), "");
}

TEST(StrAsprintf, PrintsPercentAndNull)
{
    EXPECT_EQ(Take(Format(nullptr, "100%% of %s, %s", "it", nullptr)), "100% of it, (null)");
    EXPECT_EQ(Take(Format(nullptr, "cut%")), "cut");
}

TEST(StrAsprintf, GathersMorePiecesThanItHolds)
{
    EXPECT_EQ(Take(Str_Asprintf(nullptr, "%s-%s-%s-%s-%s-%s", "a", "b", "c", "d", "e", "f")),
              "a-b-c-d-e-f");
}

TEST(StrAsprintf, GrowsToWholeMultiplesOfItsFirstSize)
{
    const auto blocksOf = [](const char *format, const std::string &word) {
        sBlocks.clear();
        free(Format(nullptr, format, word.c_str()));
        return sBlocks;
    };
    EXPECT_EQ(blocksOf("%s", std::string(200, 'x')), (std::vector<size_t>{64, 256}));
    EXPECT_EQ(blocksOf("%s", std::string(63, 'x')), (std::vector<size_t>{64}));
    EXPECT_EQ(blocksOf("%s", std::string(64, 'x')), (std::vector<size_t>{64, 128}));
    EXPECT_EQ(blocksOf("", ""), (std::vector<size_t>{1}));
    EXPECT_EQ(blocksOf(std::string(64, '-').c_str(), ""), (std::vector<size_t>{128}));
}

TEST(StrAsprintf, FailsWhenMemoryRunsOut)
{
    for (const int failing : {0, 1}) {
        sBlocks.clear();
        sFailingBlock = failing;
        EXPECT_EQ(Format(nullptr, "%s", std::string(200, 'x').c_str()), nullptr) << failing;
    }
    sFailingBlock = -1;
}

TEST(StrAsprintf, GrowsAtEveryLengthAroundItsSteps)
{
    for (size_t length = 0; length < 600; length++) {
        const std::string word(length, 'w');
        EXPECT_EQ(Take(Format(nullptr, "<%s|%s>", word.c_str(), word.c_str())),
                  "<" + word + "|" + word + ">");
    }
}

TEST(StrAsprintf, RefusesWhatItCannotHonour)
{
    size_t length = 7;
    EXPECT_EQ(Format(&length, "%d", 1), nullptr);
    EXPECT_EQ(length, 7u) << "a failure stores no length";
}

TEST(BsdVsnprintf, TellsTheWholeLengthAndStoresWhatFits)
{
    char buffer[8] = "#######";
    EXPECT_EQ(FormatInto(buffer, 4, "%s", "abcdef"), 6);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(buffer[4], '#') << "nothing is written behind the buffer";
    EXPECT_EQ(FormatInto(buffer, 1, "%s", "abcdef"), 6);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(FormatInto(buffer, sizeof buffer, "%s", "seven77"), 7);
    EXPECT_STREQ(buffer, "seven77");
}

TEST(BsdVsnprintf, SetsNoLimitAndNoNulForASizeOfNothing)
{
    char buffer[8] = "#######";
    EXPECT_EQ(FormatInto(buffer, 0, "%s", "abc"), 3);
    EXPECT_STREQ(buffer, "abc####");
}

TEST(BsdVsnprintf, FailsWhenTheLengthIsTooLarge)
{
    // One word of a gigabyte, which is the same two megabytes over and over.
    constexpr size_t CHUNK = 2 << 20, CHUNKS = 512, SIZE = CHUNK * CHUNKS;
    const int file = memfd_create("word", 0);
    ASSERT_EQ(ftruncate(file, CHUNK), 0);
    void *place = mmap(nullptr, SIZE + CHUNK, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(place, MAP_FAILED);
    char *word = static_cast<char *>(place);
    for (size_t i = 0; i < CHUNKS; i++) {
        ASSERT_NE(
            mmap(word + i * CHUNK, CHUNK, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0),
            MAP_FAILED);
    }
    memset(word, 'x', CHUNK);
    char buffer[4];
    EXPECT_EQ(FormatInto(buffer, sizeof buffer, "%s%s", word, word + 1), INT_MAX);
    EXPECT_EQ(FormatInto(buffer, sizeof buffer, "%s%s", word, word), -1);
    EXPECT_EQ(FormatInto(buffer, sizeof buffer, "%s%s%s%s%s", word, word, word, word, word), -1)
        << "nor what is left of it in 32 bits";
    munmap(place, SIZE + CHUNK);
    close(file);
}

} // namespace
