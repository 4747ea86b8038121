#include "unicode.h"

#include "allocations.h"
#include "together.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <functional>
#include <string>
#include <thread>
#include <vector>

static std::atomic<int> sWarnings;
extern "C" void __wrap_Pelago_Warning(const char *, ...) { sWarnings++; }

namespace {

constexpr int THREADS = 4;

class EncodingNamesThreads : public testing::Test {
protected:
    void TearDown() override
    {
        Unicode_Shutdown();
        EXPECT_EQ(Allocations::Live(), mBefore);
    }
    const ptrdiff_t mBefore = Allocations::Live();
    static constexpr int TABLE = 2, ENTRY = 1; // numbers of blocks
};

TEST_F(EncodingNamesThreads, AgreeOnNewNamesAndKeepEachOnce)
{
    struct {
        const char *name;
        int encoding;
    } const cases[] = {
        {"UTF-8", 0},        {"utf 16", 3},       {"latin1", 8}, {"windows-1252", 35},
        {"EUC-JP", -2},      {"TIS-620", 323},    {"us", 7},     {"ISO-2022-JP", 29},
        {"windows-950", 22}, {"Windows-31J", 170}};
    for (int round = 0; round < 300; round++) {
        std::atomic<int> wrong{0};
        Together(THREADS, [&](int) {
            for (const auto &[name, encoding] : cases) {
                wrong += UnicodeIANALookup(name) != encoding;
            }
        });
        EXPECT_EQ(wrong, 0);
        EXPECT_EQ(Allocations::Live() - mBefore,
                  TABLE + ENTRY * static_cast<ptrdiff_t>(std::size(cases)));
        Unicode_Shutdown();
    }
}

TEST_F(EncodingNamesThreads, ANameInTwoCasesIsKeptOnce)
{
    for (int round = 0; round < 300; round++) {
        Together(THREADS, [](int i) {
            EXPECT_EQ(UnicodeIANALookup(i % 2 == 0 ? "UTF-8" : "utf-8"), STRING_ENCODING_UTF_8);
        });
        EXPECT_EQ(Allocations::Live() - mBefore, TABLE + ENTRY);
        Unicode_Shutdown();
    }
}

TEST_F(EncodingNamesThreads, AnOvertakenThreadReturnsTheCachedAnswer)
{
    UnicodeIANALookup("UTF-8"); // the next block is the copy or the entry
    Allocations::Meanwhile([] {
        std::thread([] {
            EXPECT_EQ(UnicodeIANALookup("latin-1"), STRING_ENCODING_ISO_8859_1);
        }).join();
    });
    EXPECT_EQ(UnicodeIANALookup("latin-1"), STRING_ENCODING_ISO_8859_1);
    EXPECT_EQ(Allocations::Live() - mBefore, TABLE + 2 * ENTRY);
}

// Another thread adds the name after an insertion has looked at the bucket, and before it adds its
// own entry.
TEST_F(EncodingNamesThreads, AnOvertakenInsertionKeepsTheNameOnce)
{
    UnicodeIANALookup("UTF-8");
    Allocations::Meanwhile([] {
        std::thread([] {
            EXPECT_EQ(UnicodeIANALookup("ISO-8859-1"), STRING_ENCODING_ISO_8859_1);
        }).join();
    });
    EXPECT_EQ(UnicodeIANALookup("ISO-8859-1"), STRING_ENCODING_ISO_8859_1); // allocates the entry
    EXPECT_EQ(Allocations::Live() - mBefore, TABLE + 2 * ENTRY);
}

TEST_F(EncodingNamesThreads, EachMissIsToldByWhoeverMetIt)
{
    sWarnings = 0;
    Together(THREADS, [](int) {
        for (int i = 0; i < 100; i++) {
            EXPECT_EQ(UnicodeIANALookup("no such encoding"), STRING_ENCODING_UNKNOWN);
        }
    });
    EXPECT_EQ(sWarnings, 100 * THREADS);
    EXPECT_EQ(Allocations::Live() - mBefore, TABLE);
}

TEST_F(EncodingNamesThreads, AllFindTheCurrentEncoding)
{
    Together(THREADS, [](int i) {
        const StringEncoding asked = i % 2 == 0 ? Unicode_GetCurrentEncoding()
                                                : Unicode_ResolveEncoding(STRING_ENCODING_DEFAULT);
        EXPECT_EQ(asked, STRING_ENCODING_UTF_8);
        EXPECT_STREQ(Unicode_EncodingEnumToName(STRING_ENCODING_DEFAULT), "UTF-8");
    });
}

} // namespace
