#include "str.h"

#include "bsd_vsnprintf.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <malloc.h>

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
    char *text = Format(nullptr, "%s", std::string(200, 'x').c_str());
    ASSERT_NE(text, nullptr);
    EXPECT_GE(malloc_usable_size(text), 256u) << "64 bytes first, 256 in one step";
    EXPECT_LT(malloc_usable_size(text), 320u);
    EXPECT_EQ(Take(text), std::string(200, 'x'));
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

} // namespace
