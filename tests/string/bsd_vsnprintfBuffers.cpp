// Tests of buffers that are too small, of memory that runs out, and of output that is too long.
#include "bsd_vsnprintf.h"

#include "allocations.h"
#include "formatForTests.h"

#include <climits>
#include <clocale>
#include <csignal>
#include <cstring>
#include <sys/mman.h>
#include <vector>

namespace {

// ---- Buffers

TEST(FormatBuffer, TakesWhatFitsAndTellsTheWholeLength)
{
    const std::string whole = Format("%s-%5d|%.3f", "word", 42, 1.5);
    for (size_t size = 1; size < whole.size() + 3; size++) {
        std::string buffer(whole.size() + 4, '#');
        EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer.data(), size, "%s-%5d|%.3f", "word", 42, 1.5),
                  static_cast<int>(whole.size()));
        const size_t kept = std::min(size - 1, whole.size());
        EXPECT_EQ(buffer.substr(0, kept), whole.substr(0, kept));
        EXPECT_EQ(buffer[kept], '\0');
        EXPECT_EQ(buffer.substr(kept + 1), std::string(buffer.size() - kept - 1, '#'));
    }
}

TEST(FormatBuffer, IsUnlimitedAndUnterminatedWithSizeZero)
{
    char buffer[8] = "#######";
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, 0, "%s", "abc"), 3);
    EXPECT_STREQ(buffer, "abc####");
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, 0, "de%sg", "f"), 4);
    EXPECT_STREQ(buffer, "defg###");
}

TEST(FormatBuffer, CountsItsRoomIn32Bits)
{
    char buffer[16] = "###############";
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, SIZE_MAX, "%s%d", "abc", 12), 5);
    EXPECT_STREQ(buffer, "abc12");
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, size_t{3} << 30, "%s%d", "def", 12), 5);
    EXPECT_STREQ(buffer, "def12");
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, (size_t{1} << 32) + 4, "%s", "uvwxyz"), 6);
    EXPECT_STREQ(buffer, "uvw");
}

TEST(FormatBuffer, HoldsManyFields)
{
    std::string format, wanted;
    for (int i = 0; i < 100; i++) {
        format += "%1$s%2$d-%3$c%4$.1f%5$ls%6$#x";
        wanted += "ab12-c1.5\xc3\xa9"
                  "0x1f";
        EXPECT_EQ(Format(format.c_str(), "ab", 12, 'c', 1.5, L"\u00e9", 0x1f), wanted);
    }
}

TEST(FormatBuffer, PadsToAnyWidth)
{
    for (int width = 0; width < 200; width++) {
        const std::string blanks(std::max(width - 1, 0), ' '), zeroes(std::max(width - 1, 0), '0');
        EXPECT_EQ(Format("%*d", width, 7), blanks + "7");
        EXPECT_EQ(Format("%-*d", width, 7), "7" + blanks);
        EXPECT_EQ(Format("%0*d", width, 7), zeroes + "7");
    }
}

TEST(FormatBuffer, PadsToWidthsOfAnyNumberOfDigits)
{
    for (const int width : {9, 10, 99, 100, 999, 1000, 1001, 9999, 10000, 12345}) {
        for (const char *flag : {"", "-", "0", "-0", "0-", "00", "+"}) {
            for (const char *letter : {"d", "ld", "u", "x", "X", "lo", "i"}) {
                const std::string format = std::string("%") + flag + std::to_string(width) + letter;
                EXPECT_EQ(Format(format.c_str(), 305419896L), Libc(format.c_str(), 305419896L))
                    << format;
            }
        }
    }
}

TEST(FormatBuffer, GrowsToWholeMultiplesOfItsFirstSize)
{
    const auto blocksOf = [](const char *format, const std::string &word) {
        return Allocations::SizesIn([&] { FormatWith(bsd_vsnprintf, format, word.c_str()); });
    };
    EXPECT_EQ(blocksOf("%s", std::string(200, 'x')), (std::vector<size_t>{64, 256}));
    EXPECT_EQ(blocksOf("%s", std::string(63, 'x')), (std::vector<size_t>{64}));
    EXPECT_EQ(blocksOf("%s", std::string(64, 'x')), (std::vector<size_t>{64, 128}));
    EXPECT_EQ(blocksOf("", ""), (std::vector<size_t>{1}));
    EXPECT_EQ(blocksOf(std::string(63, '-').c_str(), ""), (std::vector<size_t>{64}));
    EXPECT_EQ(blocksOf(std::string(64, '-').c_str(), ""), (std::vector<size_t>{128}));
}

TEST(FormatBuffer, GrowsFieldByField)
{
    const auto blocksOf = [](const char *format) {
        return Allocations::SizesIn(
            [&] { FormatWith(bsd_vsnprintf, format, std::string(30, 'x').c_str()); });
    };
    EXPECT_EQ(blocksOf("%1$s%1$s"), (std::vector<size_t>{64}));
    EXPECT_EQ(blocksOf("%1$s%1$s%1$s%1$s"), (std::vector<size_t>{64, 128}));
    EXPECT_EQ(blocksOf("%1$s%1$s%1$s%1$s%1$s"), (std::vector<size_t>{64, 128, 256}));
    EXPECT_EQ(blocksOf("%1$200s"), (std::vector<size_t>{64, 256})) << "by all of a field at once";
    EXPECT_EQ(blocksOf("%1$30s%1$170s"), (std::vector<size_t>{64, 256}));
    EXPECT_EQ(blocksOf("%1$s%1$300s%1$50s"), (std::vector<size_t>{64, 384}));
}

TEST(FormatBuffer, GrowsAtEveryLengthAroundItsSteps)
{
    for (size_t length = 0; length < 600; length++) {
        const std::string word(length, 'w');
        EXPECT_EQ(Format("<%s|%s>", word.c_str(), word.c_str()), "<" + word + "|" + word + ">");
    }
}

// The engine writes a field at once where the whole field has room, and otherwise as much of it as
// fits.
TEST(FormatBuffer, CutsAFieldAnywhereAndTouchesNothingAfterIt)
{
    for (const char *directive :
         {"%d",      "%lld", "%zu",   "%x",     "%llX", "%12d", "%-12d", "%012lld", "%-24lld",
          "%024lld", "%8X",  "%08lx", "%-20lx", "%i",   "%+d",  "% .9d", "%#o",     "%#llx",
          "%#20llX", "%p",   "%c",    "%5c",    "%%",   "%6%",  "%.25d"}) {
        const std::string format = std::string("<") + directive;
        for (const long long value :
             {0LL, -7LL, 1234LL, -54321LL, 12345678LL, 123456789LL, LLONG_MIN, LLONG_MAX}) {
            const std::string whole = FormatWith(bsd_vsnprintf, format.c_str(), value);
            for (size_t size = 1; size < whole.size() + 30; size++) {
                std::string buffer(whole.size() + 32, '#'), wanted = buffer;
                const size_t kept = std::min(size - 1, whole.size());
                wanted.replace(0, kept + 1, whole.substr(0, kept) + '\0');
                EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer.data(), size, format.c_str(), value),
                          static_cast<int>(whole.size()));
                EXPECT_EQ(buffer, wanted) << format << " " << value << " " << size;
            }
        }
    }
}

TEST(FormatBuffer, CutsAStringAnywhereAndTouchesNothingAfterIt)
{
    for (const char *format :
         {"%s", "<%s>", "%40s", "%-40s|", "%045s", "%.9s|", "a long text %s"}) {
        const std::string whole = Format(format, "thirty-three bytes, this text has");
        for (size_t size = 1; size < whole.size() + 8; size++) {
            std::string buffer(whole.size() + 8, '#'), wanted = buffer;
            const size_t kept = std::min(size - 1, whole.size());
            wanted.replace(0, kept + 1, whole.substr(0, kept) + '\0');
            EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer.data(), size, format,
                                 "thirty-three bytes, this text has"),
                      static_cast<int>(whole.size()));
            EXPECT_EQ(buffer, wanted) << format << " " << size;
        }
    }
}

TEST(FormatBuffer, HoldsManyConvertedTexts)
{
    std::string format, wanted;
    for (int i = 0; i < 40; i++) {
        format += "%1$.1f-%2$ls";
        wanted += "1.5-w";
    }
    EXPECT_EQ(Format(format.c_str(), 1.5, L"w"), wanted);
    format.clear();
    wanted.clear();
    for (int i = 0; i < 40; i++) {
        format += "%1$.1f-";
        wanted += "1.5-";
    }
    EXPECT_EQ(Format(format.c_str(), 1.5), wanted);
}

TEST(FormatBuffer, IsNotTerminatedWhenTheCallFails)
{
    ASSERT_STREQ(setlocale(LC_ALL, nullptr), "C");
    char buffer[] = "#######";
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "ab%lc", 0x20ac), -1);
    EXPECT_EQ(memchr(buffer, '\0', sizeof buffer - 1), nullptr);
}

// ---- Memory

// Formats into a new block, which the caller must free.
__attribute__((noinline)) int FormatNew(char **block, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = bsd_vsnprintf(block, 0, format, arguments);
    va_end(arguments);
    return length;
}

TEST(FormatMemory, IsNotNeededInTheCallersBuffer)
{
    char buffer[200];
    const auto blocks = Allocations::SizesIn([&] {
        int length = 0;
        FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%s %5d %08llX %c %p %lc %n%%", "text", 42,
                   7LL, 'c', buffer, L'w', &length);
        FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%7$d %2$s %1$*3$d", 1, "two", 3, 4, 5, 6,
                   7);
        FormatInto(bsd_vsnprintf_c_locale, buffer, sizeof buffer, "%'d%100s", 1234567, "");
    });
    EXPECT_EQ(blocks, std::vector<size_t>());
}

TEST(FormatMemory, IsNeededForWideStringsAndFloatingNumbers)
{
    char buffer[200];
    EXPECT_EQ(Allocations::SizesIn([&] {
                  FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%f", 0.5);
              }).size(),
              1u);
    EXPECT_EQ(Allocations::SizesIn(
                  [&] { FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%ls", L"ab"); }),
              (std::vector<size_t>{4 * 2 + 4}));
    EXPECT_EQ(Allocations::SizesIn(
                  [&] { FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%.5ls", L"ab"); }),
              (std::vector<size_t>{5 + 4}));
}

TEST(FormatMemory, IsNeededForPositionsAboveSeven)
{
    char buffer[200];
    const auto blocksOf = [&](const char *format) {
        return Allocations::SizesIn([&] {
            FormatInto(bsd_vsnprintf, buffer, sizeof buffer, format, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10,
                       11, 12, 13, 14, 15, 16, 17, 18, 19, 20);
        });
    };
    EXPECT_EQ(blocksOf("%7$d"), std::vector<size_t>());
    EXPECT_EQ(blocksOf("%8$d"), (std::vector<size_t>{16 * 4, 9 * 16}));
    EXPECT_EQ(blocksOf("%15$d"), (std::vector<size_t>{16 * 4, 16 * 16}));
    EXPECT_EQ(blocksOf("%16$d"), (std::vector<size_t>{17 * 4, 17 * 16}));
    EXPECT_EQ(blocksOf("%8$d%20$d"), (std::vector<size_t>{16 * 4, 32 * 4, 21 * 16}));
}

TEST(FormatMemory, MakesTheCallFailWhenItRunsOut)
{
    char buffer[16];
    for (size_t granted = 1;; granted++) { // without the first block the engine aborts
        const OutOfMemory once(granted, 1);
        const int length = FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%9$s%f%ls%1$g", 1.5,
                                      L"wide", 0, 0, 0, 0, 0, 0, "word");
        if (!once.Showed()) {
            EXPECT_EQ(granted, 5u) << "types, arguments, two numbers, a wide string";
            break;
        }
        EXPECT_EQ(length, -1) << granted;
    }
}

TEST(FormatMemory, IsNotRequestedAgainAfterARefusal)
{
    char buffer[16];
    const OutOfMemory once(1, 1);
    EXPECT_EQ(
        FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%*9$.*8$d", 1, 2, 3, 4, 5, 6, 7, 8, 9),
        -1);
    EXPECT_TRUE(once.Showed());
}

TEST(FormatMemoryDeathTest, AbortsWithoutAnyForThePositionsTypes)
{
    EXPECT_EXIT(
        {
            const OutOfMemory once(0, 1);
            char buffer[16];
            FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%8$d", 1, 2, 3, 4, 5, 6, 7, 8);
        },
        testing::KilledBySignal(SIGABRT), "");
}

TEST(FormatMemory, FailsTheCallWhenTheBlockCannotGrow)
{
    const std::string word(200, 'x');
    const OutOfMemory once(1, 1);
    EXPECT_EQ(FormatWith(bsd_vsnprintf, "%s", word.c_str()), "(failed)");
    EXPECT_TRUE(once.Showed());
}

TEST(FormatMemory, IsAllGivenBack)
{
    Format("%f", 1.5); // the converter keeps the blocks of its first call
    const std::string word(200, 'x');
    for (size_t granted = 0;; granted++) {
        if (granted == 1) { continue; } // without the types' table the engine aborts
        char *buffer = nullptr;
        const ptrdiff_t before = Allocations::Live();
        const OutOfMemory once(granted, 1);
        const int length =
            FormatNew(&buffer, "%9$s%f%ls%1$g", 1.5, L"wide", 0, 0, 0, 0, 0, 0, word.c_str());
        free(buffer);
        EXPECT_EQ(Allocations::Live(), before) << granted;
        if (!once.Showed()) {
            EXPECT_GT(length, 200);
            break;
        }
    }
}

// ---- Output that is too long

TEST(FormatTooLong, IsWhatAnIntCannotCount)
{
    char buffer[8];
    for (const char *format :
         {"%2147483648d", "x%2147483647d", "%99999999999999999999d", "%.2147483648d",
          "%.2147483647f", "%#.2147483646x", "%-2147483648d", "%2147483648%"}) {
        EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, sizeof buffer, format, 1), -1) << format;
    }
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%*d", INT_MIN, 1), -1);
    EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, sizeof buffer, "%.99999999999s", "abc"), 3)
        << "a precision only limits";
}

TEST(FormatTooLong, TakesNoMemoryToSay)
{
    EXPECT_EQ(Allocations::SizesIn(
                  [] { EXPECT_EQ(FormatWith(bsd_vsnprintf, "%2147483648d", 1), "(failed)"); }),
              (std::vector<size_t>{64}));
}

TEST(FormatTooLong, IsCountedByTheByte)
{
    // One word of a gigabyte: the same two megabytes are mapped again and again.
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
    const auto length = [&](const char *format, auto... words) {
        return FormatInto(bsd_vsnprintf, buffer, sizeof buffer, format, words...);
    };
    EXPECT_EQ(length("%s%s", word, word + 1), INT_MAX);
    EXPECT_EQ(length("%s%s", word, word), -1);
    EXPECT_EQ(length("%s%s%s%s%s", word, word, word, word, word), -1)
        << "nor what 32 bits leave of it";
    EXPECT_EQ(length("%s%s%%", word, word + 1), -1);
    EXPECT_EQ(length("%s%s%lc", word, word + 1, L'x'), -1);
    EXPECT_EQ(length("%s%sx", word, word + 1), -1) << "literal text counts as well";
    munmap(place, SIZE + CHUNK);
    close(file);
}

TEST(FormatTooLong, DoesNotBecomeSmallAgain)
{
    char buffer[8];
    for (const char *format : {"%18446744073709551617d", "%.18446744073709551618d"}) {
        EXPECT_EQ(FormatInto(bsd_vsnprintf, buffer, sizeof buffer, format, 1), -1) << format;
    }
}

} // namespace
