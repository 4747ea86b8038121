#include "err.h"

#include "allocations.h"
#include "errInt.h"
#include "panic.h"
#include "together.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using namespace pelago;

// The system's text for every number; nullopt: the system's own function is called.
static std::optional<std::string> sSystemText;
static int sSystemResult;
static std::atomic<int> sSystemCalls;

extern "C" {
int __real___xpg_strerror_r(int number, char *buffer, size_t size);
int __wrap___xpg_strerror_r(int number, char *buffer, size_t size)
{
    sSystemCalls++;
    errno = EIO; // no caller may see this
    if (!sSystemText) { return __real___xpg_strerror_r(number, buffer, size); }
    const size_t length = std::min(size - 1, sSystemText->size());
    memcpy(buffer, sSystemText->data(), length);
    buffer[length] = '\0';
    return sSystemResult;
}
}

namespace {

// Every test starts without a text.
class Err : public testing::Test {
protected:
    void SetUp() override
    {
        Err_Shutdown();
        sSystemText.reset();
        sSystemResult = 0;
        sSystemCalls = 0;
    }
    void TearDown() override
    {
        Err_Shutdown();
        EXPECT_EQ(Allocations::Live(), mBefore) << "Err_Shutdown leaves nothing";
    }
    // Returns the library's text for this system text.
    static std::string Made(const std::string &systemText)
    {
        Err_Shutdown();
        sSystemText = systemText;
        return Err_NumberToText(1);
    }
    const ptrdiff_t mBefore = Allocations::Live();
};

TEST_F(Err, SpeaksTheSystemsWords)
{
    EXPECT_STREQ(Err_NumberToText(ENOENT), "No such file or directory");
}

TEST_F(Err, GivesTheSamePointerForTheSameNumber)
{
    const char *text = Err_NumberToText(EACCES);
    EXPECT_EQ(Err_NumberToText(EACCES), text);
    EXPECT_NE(Err_NumberToText(EPERM), text);
}

TEST_F(Err, AsksTheSystemOnceForANumber)
{
    Err_NumberToText(EACCES);
    Err_NumberToText(EACCES);
    EXPECT_EQ(sSystemCalls, 1);
}

TEST_F(Err, AllocatesNothingForATextThatIsThere)
{
    Err_NumberToText(EACCES);
    const size_t before = Allocations::Calls();
    Err_NumberToText(EACCES);
    EXPECT_EQ(Allocations::Calls(), before);
}

// There are some hundred numbers, so that with this many buckets no chain is long.
TEST_F(Err, HasABucketForEachOf2048Numbers)
{
    constexpr size_t BUCKETS = 2048 * 2 * sizeof(void *); // each of them a head and a filter
    const std::vector<size_t> sizes = Allocations::SizesIn([] { Err_NumberToText(ENOENT); });
    EXPECT_EQ(std::ranges::count(sizes, BUCKETS), 2) << "in the cache by number and that by text";
}

TEST_F(Err, LeavesErrnoAlone)
{
    for (int call = 0; call < 2; call++) { // the first makes the text, the second finds it
        errno = ENOSPC;
        const char *text = Err_NumberToText(ENOENT);
        EXPECT_EQ(errno, ENOSPC);
        Err_NumberToText(9999);
        EXPECT_EQ(errno, ENOSPC);
        Err_TextToNumber(text);
        EXPECT_EQ(errno, ENOSPC);
        Err_CurrentText();
        EXPECT_EQ(errno, ENOSPC);
    }
}

TEST_F(Err, KeepsErrnoWhenTheAllocatorChangesIt)
{
    int changes = 0;
    const auto change = [&] {
        changes++;
        errno = EIO;
    };
    errno = ENOSPC;
    Allocations::Meanwhile(change);
    Err_TextToNumber("text"); // makes a cache
    EXPECT_EQ(errno, ENOSPC);
    Allocations::Meanwhile(change);
    Err_NumberToText(ENOENT);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(changes, 2);
}

TEST_F(Err, TellsTheCurrentError)
{
    errno = ENOTDIR;
    EXPECT_EQ(Err_CurrentText(), Err_NumberToText(ENOTDIR));
}

TEST_F(Err, NumbersWhatItDoesNotKnow)
{
    sSystemText =
        "no idea what that is"; // the words depend on the host; the library does not call it again
    sSystemResult = EINVAL;
    EXPECT_STREQ(Err_NumberToText(9999), "Unknown error 9999");
    EXPECT_STREQ(Err_NumberToText(-1), "Unknown error -1");
    EXPECT_STREQ(Err_NumberToText(0), "Unknown error 0");
    EXPECT_STREQ(Err_NumberToText(INT_MAX), "Unknown error 2147483647");
    EXPECT_STREQ(Err_NumberToText(INT_MIN), "Unknown error -2147483648");
}

TEST_F(Err, NumbersWhatThisSystemDoesNotKnow)
{
    EXPECT_STREQ(Err_NumberToText(9999), "Unknown error 9999");
    EXPECT_STREQ(Err_NumberToText(-7), "Unknown error -7");
}

TEST_F(Err, TurnsATextIntoItsNumber)
{
    EXPECT_EQ(Err_TextToNumber(Err_NumberToText(ENOENT)), ENOENT);
    EXPECT_EQ(Err_TextToNumber(Err_NumberToText(-7)), -7);
    EXPECT_EQ(Err_TextToNumber(Err_NumberToText(INT_MIN)), INT_MIN);
}

TEST_F(Err, KnowsATextByItsAddressOnly)
{
    const std::string copy = Err_NumberToText(ENOENT);
    EXPECT_EQ(Err_TextToNumber(copy.c_str()), -1);
    EXPECT_EQ(Err_TextToNumber(nullptr), -1);
}

TEST_F(Err, KnowsNoTextBeforeTheFirst) { EXPECT_EQ(Err_TextToNumber("text"), -1); }

TEST_F(Err, BeginsAnewAfterAShutdown)
{
    Err_NumberToText(ENOENT);
    Err_Shutdown();
    EXPECT_STREQ(Err_NumberToText(ENOENT), "No such file or directory");
    EXPECT_EQ(sSystemCalls, 2);
}

// ---- Texts that were cut ----

TEST_F(Err, KeepsWholeCharactersAtTheEnd)
{
    for (const std::string text : {"", "a", "text", "a\xC3\xA4", "a\xE2\x82\xAC",
                                   "a\xF0\x9F\x98\x80", "\xC3\xA4", "\xE2\x82\xAC\xC3\xA4"}) {
        EXPECT_EQ(Made(text), text);
    }
}

// A byte that announces five or six bytes begins no character today, but the sequence counts as
// that long.
TEST_F(Err, KeepsSequencesOfAnyAnnouncedLengthWhole)
{
    for (const std::string text : {"a\xF8\x88\x80\x80\x80", "a\xFC\x84\x80\x80\x80\x80"}) {
        EXPECT_EQ(Made(text), text);
    }
}

TEST_F(Err, DropsAnIncompleteCharacterAtTheEnd)
{
    for (const std::string character : {"\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
                                        "\xF8\x88\x80\x80\x80", "\xFC\x84\x80\x80\x80\x80"}) {
        for (size_t kept = 1; kept < character.size(); kept++) {
            EXPECT_EQ(Made("text" + character.substr(0, kept)), "text") << kept;
            EXPECT_EQ(Made(character.substr(0, kept)), "") << kept;
        }
    }
}

TEST_F(Err, DropsASequenceWithTooManyContinuationBytes)
{
    EXPECT_EQ(Made("text\xC3\xA4\xA4"), "text");
    EXPECT_EQ(Made("text\xF0\x9F\x98\x80\x80"), "text");
    for (size_t following = 2; following < 40; following++) {
        EXPECT_EQ(Made("text\xC3" + std::string(following, '\x80')), "text") << following;
    }
    EXPECT_EQ(Made("text\xFF" + std::string(200, '\x80')), "text");
}

TEST_F(Err, KeepsTheBytesBehindAnAsciiOne)
{
    EXPECT_EQ(Made("text\x80\x80"), "text\x80\x80") << "the text was not cut there";
}

TEST_F(Err, LooksNoFurtherBackThanTheFirstByte)
{
    EXPECT_EQ(Made("\x80\x80"), "");
    EXPECT_EQ(Made("\x80"), "\x80") << "announces nothing, and nothing follows";
}

TEST_F(Err, DropsWhatTheBuffersEndCut)
{
    for (const std::string character : {"\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"}) {
        for (size_t kept = 0; kept <= character.size(); kept++) {
            const std::string ascii(2047 - kept, 'x');
            const bool isWhole = kept == character.size();
            EXPECT_EQ(Made(ascii + character), isWhole ? ascii + character : ascii) << kept;
        }
    }
}

TEST_F(Err, NumbersATextWhenStrerrorReportsErange)
{
    sSystemText = std::string(3000, 'x');
    sSystemResult = ERANGE;
    EXPECT_STREQ(Err_NumberToText(5), "Unknown error 5");
}

TEST_F(Err, FormatsIntoTheCallersBuffer)
{
    char buffer[100];
    EXPECT_EQ(ErrFormatSystemText(ENOENT, buffer, sizeof buffer), buffer);
    EXPECT_STREQ(buffer, "No such file or directory");
    EXPECT_EQ(ErrFormatSystemText(9999, buffer, sizeof buffer), buffer);
    EXPECT_STREQ(buffer, "Unknown error 9999");
}

TEST_F(Err, NumbersATextThatDoesNotFit)
{
    char buffer[16];
    EXPECT_STREQ(ErrFormatSystemText(ENOENT, buffer, sizeof buffer), "Unknown error 2");
}

// ---- Threads ----

TEST_F(Err, ReturnsTheTextOfAFasterThread)
{
    Err_NumberToText(1); // makes both caches
    const ptrdiff_t before = Allocations::Live();
    const char *others = nullptr;
    Allocations::Meanwhile([&] { std::thread([&] { others = Err_NumberToText(ENOENT); }).join(); });
    const char *text = Err_NumberToText(ENOENT);
    EXPECT_EQ(text, others);
    EXPECT_EQ(Allocations::Live() - before, 4) << "one text, its entry, and one in each cache";
    EXPECT_EQ(Err_TextToNumber(text), ENOENT);
}

// Runs the deed in the thread's call of the allocator that follows this number of calls.
void MeanwhileAfter(int calls, std::function<void()> deed)
{
    if (calls == 0) { return Allocations::Meanwhile(std::move(deed)); }
    Allocations::Meanwhile([calls, deed = std::move(deed)] { MeanwhileAfter(calls - 1, deed); });
}

TEST_F(Err, FindsATextBeforeItsMakerCachesIt)
{
    Err_NumberToText(1); // makes both caches
    int number = 0;
    MeanwhileAfter(3, [&] { // after the entry, its text, and the entry of the first cache
        std::thread([&] { number = Err_TextToNumber(Err_NumberToText(ENOENT)); }).join();
    });
    Err_NumberToText(ENOENT);
    EXPECT_EQ(number, ENOENT);
}

TEST_F(Err, GivesAllThreadsTheSameTexts)
{
    constexpr int THREADS = 4, NUMBERS = 200;
    std::vector<std::vector<const char *>> texts(THREADS);
    Together(THREADS, [&](int thread) {
        for (int number = 0; number < NUMBERS; number++) {
            const char *text = Err_NumberToText(number);
            EXPECT_EQ(Err_TextToNumber(text), number);
            texts[thread].push_back(text);
        }
    });
    EXPECT_THAT(texts, testing::Each(texts[0]));
}

TEST(ErrDeathTest, EndsTheProcessWithoutMemory)
{
    for (size_t granted = 0; granted < 8; granted++) { // caches, entry, text, entries of the caches
        EXPECT_PANIC(
            {
                Err_Shutdown();
                const OutOfMemory once(granted, 1);
                Err_NumberToText(ENOENT);
            },
            "Unrecoverable memory allocation failure\n");
    }
}

} // namespace
