// codesetUtf_test.cpp -- UTF-8 and UTF-16 in bulk: every kernel that this processor can run,
// compared with the converters that go character by character.
#include "codesetUtf.h"

#include "allocations.h"
#include "utf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

using namespace pelago;

namespace {

using Units = std::vector<uint16_t>;
using MaybeText = std::optional<std::string>;

// ---- The expected results

std::string BytesOf(const Units &units)
{
    return {reinterpret_cast<const char *>(units.data()), 2 * units.size()};
}

template <typename From, typename To>
MaybeText Converted(UtfResult (*converter)(const From **, const From *, To **, To *, bool),
                    const std::string &text)
{
    if (text.size() % sizeof(From) != 0) { return std::nullopt; }
    std::vector<From> source(text.size() / sizeof(From));
    std::vector<To> target(3 * source.size());
    if (!text.empty()) { memcpy(source.data(), text.data(), text.size()); }
    const From *from = source.data();
    To *to = target.data();
    const UtfResult result = converter(&from, from + source.size(), &to, to + target.size(), false);
    if (result != UtfResult::Done) { return std::nullopt; }
    return std::string(reinterpret_cast<const char *>(target.data()),
                       static_cast<size_t>(to - target.data()) * sizeof(To));
}

MaybeText InUtf16(const std::string &utf8) { return Converted(Utf8ToUtf16, utf8); }
MaybeText InUtf8(const std::string &utf16) { return Converted(Utf16ToUtf8, utf16); }

// ---- Memory that cannot be read or written beyond its ends

class Guarded {
public:
    explicit Guarded(size_t most)
    {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        mSize = (most + page - 1) / page * page;
        mMapped = mSize + 2 * page;
        mPlace = mmap(nullptr, mMapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        mFirst = static_cast<char *>(mPlace) + page;
        mprotect(mPlace, page, PROT_NONE);
        mprotect(mFirst + mSize, page, PROT_NONE);
    }
    Guarded(const Guarded &) = delete;
    Guarded &operator=(const Guarded &) = delete;
    ~Guarded() { munmap(mPlace, mMapped); }
    char *AtStart() const { return mFirst; }
    char *AtEnd(size_t size) const { return mFirst + mSize - size; }
    const char *AtStart(const std::string &text) const { return Put(mFirst, text); }
    const char *AtEnd(const std::string &text) const { return Put(AtEnd(text.size()), text); }

private:
    static const char *Put(char *to, const std::string &text)
    {
        return static_cast<const char *>(memcpy(to, text.data(), text.size()));
    }
    size_t mSize, mMapped;
    void *mPlace;
    char *mFirst;
};

constexpr size_t LARGE = 8U << 20; // holds all characters in either form

// ---- Texts

void Append(std::string &utf8, uint32_t value)
{
    const auto tail = [&](int shift) { utf8 += static_cast<char>(0x80 | (value >> shift & 0x3F)); };
    if (value < 0x80) {
        utf8 += static_cast<char>(value);
    } else if (value < 0x800) {
        utf8 += static_cast<char>(0xC0 | value >> 6);
        tail(0);
    } else if (value < 0x10000) {
        utf8 += static_cast<char>(0xE0 | value >> 12);
        tail(6);
        tail(0);
    } else {
        utf8 += static_cast<char>(0xF0 | value >> 18);
        tail(12);
        tail(6);
        tail(0);
    }
}

std::string Text(std::initializer_list<int> bytes)
{
    std::string text;
    for (const int byte : bytes) {
        text += static_cast<char>(byte);
    }
    return text;
}

// Returns texts whose characters have one size, alternate between two sizes, or have all sizes.
// Each is longer than 600 bytes in UTF-8 and in UTF-16, which is more than twice what a kernel
// reads in one step.
std::vector<std::string> Mixes()
{
    const std::vector<std::vector<uint32_t>> patterns = {
        {'a'},
        {0xE9},
        {0x4E2D},
        {0x1F600},
        {'a', 'b', 'c', 'd', 'e', 'f', 0xFC},
        {0x4E2D, 0x6587, 'a'},
        {0x10FFFF, 0xFFFD, 0},
        {'a', 0x7FF, 0x800, 0x10000, 0x7F, 0x80, 0xD7FF, 0xE000, 0xFFFF, 0x103FF, 0x10FC00}};
    std::vector<std::string> mixes;
    for (const auto &pattern : patterns) {
        std::string text;
        for (size_t i = 0; i < 650; i++) {
            Append(text, pattern[i % pattern.size()]);
        }
        mixes.push_back(text);
    }
    // ASCII for several vectors, followed by other characters; and the reverse.
    mixes.push_back(mixes[0].substr(0, 150) + mixes[3]);
    mixes.push_back(mixes[1].substr(0, 150) + mixes[0]);
    return mixes;
}

// ---- The choice

// Returns the processor's features that the kernel lets programs use.
std::set<std::string> ProcessorFeatures()
{
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with("flags")) { continue; }
        std::istringstream words(line);
        return {std::istream_iterator<std::string>(words), {}};
    }
    return {};
}

TEST(CodeSetUtf, RunsTheBestKernelThatTheProcessorHas)
{
    std::vector<const CodeSetUtfKernel *> expected;
    const std::set<std::string> features = ProcessorFeatures();
    if (features.contains("avx2")) { expected.push_back(&CodeSetUtf::AVX2); }
    if (features.contains("sse4_2")) { expected.push_back(&CodeSetUtf::SSE42); }
    expected.push_back(&CodeSetUtf::PLAIN);
    const auto kernels = CodeSetUtfKernels();
    EXPECT_EQ(std::vector(kernels.begin(), kernels.end()), expected);
}

// ---- Every kernel

class CodeSetUtfEach : public testing::TestWithParam<const CodeSetUtfKernel *> {
protected:
    void SetUp() override
    {
        const auto kernels = CodeSetUtfKernels();
        if (std::find(kernels.begin(), kernels.end(), &mKernel) == kernels.end()) {
            GTEST_SKIP() << "not run: this processor lacks the instructions of " << mKernel.name;
        }
    }

    const CodeSetUtfKernel &mKernel = *GetParam();

    using Measure = bool (*)(const char *, size_t, size_t *);
    using Convert = void (*)(const char *, size_t, char *);

    // The output ends offset bytes before the end of the writable memory, not counting the slack.
    MaybeText Make(Measure measure, Convert convert, const char *bytes, size_t size,
                   size_t offset = 0) const
    {
        size_t needed = 0;
        if (!measure(bytes, size, &needed)) { return std::nullopt; }
        char *to = mTo.AtEnd(needed + CODESET_UTF_SLACK + offset);
        memset(to, 0xA5, needed);
        convert(bytes, size, to);
        return std::string(to, needed);
    }
    MaybeText ToUtf16(const char *bytes, size_t size, size_t offset = 0) const
    {
        return Make(mKernel.measureUtf8, mKernel.utf8ToUtf16, bytes, size, offset);
    }
    MaybeText ToUtf8(const char *bytes, size_t size, size_t offset = 0) const
    {
        return Make(mKernel.measureUtf16, mKernel.utf16ToUtf8, bytes, size, offset);
    }

    // The text ends where the readable memory ends.
    void CheckUtf8(const std::string &text) const
    {
        const char *at = mFrom.AtEnd(text);
        const MaybeText expected = InUtf16(text);
        ASSERT_EQ(mKernel.utf8IsValid(at, text.size()), expected.has_value())
            << testing::PrintToString(text);
        ASSERT_EQ(ToUtf16(at, text.size()), expected) << testing::PrintToString(text);
    }
    void CheckUtf16(const std::string &text) const
    {
        ASSERT_EQ(ToUtf8(mFrom.AtEnd(text), text.size()), InUtf8(text))
            << testing::PrintToString(text);
    }

    const Guarded mFrom{LARGE}, mTo{LARGE};
};

INSTANTIATE_TEST_SUITE_P(Kernel, CodeSetUtfEach,
                         testing::Values(&CodeSetUtf::AVX2, &CodeSetUtf::SSE42, &CodeSetUtf::PLAIN),
                         [](const auto &row) { return std::string(row.param->name); });

TEST_P(CodeSetUtfEach, JudgesEveryOneAndTwoBytes)
{
    for (int first = 0; first < 0x100; first++) {
        ASSERT_NO_FATAL_FAILURE(CheckUtf8(Text({first})));
        for (int second = 0; second < 0x100; second++) {
            ASSERT_NO_FATAL_FAILURE(CheckUtf8(Text({first, second})));
        }
    }
}

// Returns the start of the rest after the first character; nullptr when the bytes do not begin with
// a whole character.
const uint8_t *AfterFirst(const uint8_t *at, const uint8_t *end)
{
    for (size_t size = 1; size <= static_cast<size_t>(end - at); size++) {
        if (Utf8SequenceIsLegal(at, size)) { return at + size; }
    }
    return nullptr;
}

TEST_P(CodeSetUtfEach, JudgesEveryThreeBytes)
{
    for (uint32_t value = 0; value < 0x1000000; value++) {
        const uint8_t bytes[] = {static_cast<uint8_t>(value >> 16),
                                 static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
        const uint8_t *at = bytes, *end = bytes + 3;
        while (at != nullptr && at < end) {
            at = AfterFirst(at, end);
        }
        ASSERT_EQ(mKernel.utf8IsValid(reinterpret_cast<const char *>(bytes), 3), at == end)
            << std::hex << value;
    }
}

// ASCII precedes the four bytes, of such lengths that they lie at every place of a vector and
// across two vectors.
TEST_P(CodeSetUtfEach, JudgesFourBytesOfEveryKind)
{
    const std::string kinds =
        Text({0x00, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC1, 0xC2,
              0xDF, 0xE0, 0xE1, 0xED, 0xEF, 0xF0, 0xF1, 0xF4, 0xF5, 0xFF});
    size_t before = 0;
    for (const char first : kinds) {
        for (const char second : kinds) {
            for (const char third : kinds) {
                for (const char fourth : kinds) {
                    before = (before + 1) % 67;
                    ASSERT_NO_FATAL_FAILURE(
                        CheckUtf8(std::string(before, 'a') + first + second + third + fourth));
                }
            }
        }
    }
}

TEST_P(CodeSetUtfEach, ConvertsEveryCharacter)
{
    for (size_t before = 0; before < 4; before++) {
        std::string utf8(before, 'a');
        for (uint32_t value = 0; value <= 0x10FFFF; value++) {
            if (value < 0xD800 || value > 0xDFFF) { Append(utf8, value); }
        }
        const MaybeText utf16 = InUtf16(utf8);
        ASSERT_TRUE(utf16.has_value());
        ASSERT_TRUE(ToUtf16(mFrom.AtEnd(utf8), utf8.size()) == utf16) << before;
        ASSERT_TRUE(ToUtf8(mFrom.AtEnd(*utf16), utf16->size()) == utf8) << before;
    }
}

TEST_P(CodeSetUtfEach, JudgesSurrogatesByTheirNeighbours)
{
    const Units kinds = {'a',    0xD7FF, 0xD800, 0xD801, 0xDBFF,
                         0xDC00, 0xDC01, 0xDFFF, 0xE000, 0xFFFF};
    size_t before = 0;
    for (uint16_t unit = 0xD7FF; unit <= 0xE000; unit++) {
        for (const uint16_t kind : kinds) {
            before = (before + 1) % 37;
            Units units(before, 'a');
            units.insert(units.end(), {unit, kind});
            ASSERT_NO_FATAL_FAILURE(CheckUtf16(BytesOf(units)));
            std::swap(units[before], units[before + 1]);
            ASSERT_NO_FATAL_FAILURE(CheckUtf16(BytesOf(units)));
        }
    }
}

TEST_P(CodeSetUtfEach, FindsFaultsAtEveryPositionOfUtf8)
{
    for (const std::string &mix : Mixes()) {
        for (size_t i = 0; i < 560; i += i < 130 ? 1 : 11) {
            for (const int wrong : {0x00, 0x80, 0xBF, 0xC0, 0xC3, 0xE0, 0xED, 0xF0, 0xF4, 0xFF}) {
                std::string text = mix.substr(0, 570);
                text[i] = static_cast<char>(wrong);
                ASSERT_NO_FATAL_FAILURE(CheckUtf8(text));
            }
        }
    }
}

TEST_P(CodeSetUtfEach, FindsFaultsAtEveryPositionOfUtf16)
{
    for (const std::string &mix : Mixes()) {
        const std::string utf16 = InUtf16(mix).value();
        for (size_t i = 0; i < 560; i += i < 130 ? 2 : 22) {
            for (const int wrong : {0x00, 0xD8, 0xDB, 0xDC, 0xDF}) {
                std::string text = utf16.substr(0, 570);
                text[i + 1] = static_cast<char>(wrong);
                ASSERT_NO_FATAL_FAILURE(CheckUtf16(text));
            }
        }
    }
}

TEST_P(CodeSetUtfEach, NoCharacterGoesOnBehindAscii)
{
    for (size_t before = 0; before < 66; before++) {
        for (size_t between = 1; between < 600; between += between < 200 ? 1 : 7) {
            const std::string ascii(before, 'a'), more(between, 'a');
            ASSERT_NO_FATAL_FAILURE(CheckUtf8(ascii + "\xE4\xB8" + more + "\xAD"));
            ASSERT_NO_FATAL_FAILURE(CheckUtf16(std::string(before / 2 * 2, 'a') + Text({0, 0xD8}) +
                                               BytesOf(Units(between, 'a')) + Text({0, 0xDC})));
        }
    }
}

TEST_P(CodeSetUtfEach, ConvertsTextsOfEverySizeWithoutOverreading)
{
    for (const std::string &mix : Mixes()) {
        const std::string utf16 = InUtf16(mix).value();
        for (size_t size = 1; size <= 600; size += size < 150 ? 1 : 7) {
            ASSERT_NO_FATAL_FAILURE(CheckUtf8(mix.substr(0, size)));
            ASSERT_NO_FATAL_FAILURE(CheckUtf16(utf16.substr(0, size)));
        }
    }
}

TEST_P(CodeSetUtfEach, ReadsAndWritesNothingBeforeItsBuffers)
{
    for (const std::string &mix : Mixes()) {
        const std::string utf16 = InUtf16(mix).value();
        for (size_t size = 1; size <= 100; size++) {
            const std::string text8 = mix.substr(0, size), text16 = utf16.substr(0, size);
            const MaybeText in16 = InUtf16(text8), in8 = InUtf8(text16);
            size_t needed = 0;
            if (mKernel.measureUtf8(mFrom.AtStart(text8), size, &needed)) {
                mKernel.utf8ToUtf16(mFrom.AtStart(), size, mTo.AtStart());
                ASSERT_EQ(std::string(mTo.AtStart(), needed), in16);
            }
            if (mKernel.measureUtf16(mFrom.AtStart(text16), size, &needed)) {
                mKernel.utf16ToUtf8(mFrom.AtStart(), size, mTo.AtStart());
                ASSERT_EQ(std::string(mTo.AtStart(), needed), in8);
            }
        }
    }
}

TEST_P(CodeSetUtfEach, ReadsAndWritesAtEveryAddress)
{
    const std::string utf8 = Mixes()[7], utf16 = InUtf16(utf8).value();
    for (size_t offset = 0; offset < 64; offset++) {
        const char *from = mFrom.AtEnd(utf8 + std::string(offset, '\xFF'));
        ASSERT_EQ(ToUtf16(from, utf8.size(), 63 - offset), utf16);
        from = mFrom.AtEnd(utf16 + std::string(offset, '\xFF'));
        ASSERT_EQ(ToUtf8(from, utf16.size(), 63 - offset), utf8);
    }
}

// ---- Whole texts

TEST(CodeSetUtf, JudgesWholeTexts)
{
    EXPECT_TRUE(CodeSetUtf8IsValid(nullptr, 0));
    EXPECT_TRUE(CodeSetUtf8IsValid("a\0\xC3\xA9", 4)) << "a zero is a character";
    EXPECT_FALSE(CodeSetUtf8IsValid("\xED\xA0\x80", 3)) << "a surrogate";
    EXPECT_TRUE(CodeSetUtf16IsValid(nullptr, 0));
    EXPECT_TRUE(CodeSetUtf16IsValid("\x3D\xD8\x00\xDE", 4));
    EXPECT_FALSE(CodeSetUtf16IsValid("\x00\xD8\x41\x00", 4));
    EXPECT_FALSE(CodeSetUtf16IsValid("a\0b", 3)) << "half a unit";
}

// ---- Into a buffer

class CodeSetUtfBuffer : public testing::Test {
protected:
    CodeSetUtfBuffer() { DynBuf_Init(&mDb); }
    ~CodeSetUtfBuffer() override { DynBuf_Destroy(&mDb); }
    std::string Contents() const { return {mDb.data, mDb.size}; }

    DynBuf mDb;
};

const std::string FACE = "a\xF0\x9F\x98\x80"; // "a" and U+1F600
const std::string FACE16("a\0\x3D\xD8\x00\xDE", 6);

TEST_F(CodeSetUtfBuffer, AppendsUtf16ToWhatIsThere)
{
    ASSERT_TRUE(DynBuf_Append(&mDb, "odd", 3));
    ASSERT_TRUE(CodeSetUtf8ToUtf16Db(FACE.data(), FACE.size(), &mDb));
    EXPECT_EQ(Contents(), "odd" + FACE16);
}

TEST_F(CodeSetUtfBuffer, AppendsUtf8ToWhatIsThere)
{
    ASSERT_TRUE(DynBuf_Append(&mDb, "odd", 3));
    ASSERT_TRUE(CodeSetUtf16ToUtf8Db(FACE16.data(), FACE16.size(), &mDb));
    EXPECT_EQ(Contents(), "odd" + FACE);
}

TEST_F(CodeSetUtfBuffer, TakesOneBlockOfJustTheSize)
{
    EXPECT_EQ(Allocations::SizesIn([&] {
                  CodeSetUtf8ToUtf16Db(FACE.data(), FACE.size(), &mDb);
                  DynBuf_Append(&mDb, "\0\0\0", 4);
              }),
              std::vector<size_t>{FACE16.size() + CODESET_UTF_SLACK});
    DynBuf_Destroy(&mDb);
    EXPECT_EQ(Allocations::SizesIn([&] {
                  CodeSetUtf16ToUtf8Db(FACE16.data(), FACE16.size(), &mDb);
                  DynBuf_Append(&mDb, "\0\0\0", 4);
              }),
              std::vector<size_t>{FACE.size() + CODESET_UTF_SLACK});
}

TEST_F(CodeSetUtfBuffer, TakesNothingWhereThereIsRoom)
{
    ASSERT_TRUE(DynBuf_Enlarge(&mDb, 1));
    EXPECT_EQ(Allocations::SizesIn([&] {
                  CodeSetUtf8ToUtf16Db(FACE.data(), FACE.size(), &mDb);
                  CodeSetUtf16ToUtf8Db(FACE16.data(), FACE16.size(), &mDb);
              }),
              std::vector<size_t>{});
}

TEST_F(CodeSetUtfBuffer, EmptyTextsAppendAndAllocateNothing)
{
    EXPECT_TRUE(CodeSetUtf8ToUtf16Db(nullptr, 0, &mDb));
    EXPECT_TRUE(CodeSetUtf16ToUtf8Db(nullptr, 0, &mDb));
    EXPECT_EQ(mDb.data, nullptr);
    EXPECT_EQ(mDb.size, 0U);
}

TEST_F(CodeSetUtfBuffer, AMalformedTextLeavesTheContents)
{
    ASSERT_TRUE(DynBuf_Append(&mDb, "kept", 4));
    EXPECT_FALSE(CodeSetUtf8ToUtf16Db("ab\xED\xA0\x80", 5, &mDb));
    EXPECT_FALSE(CodeSetUtf16ToUtf8Db("a\0\x00\xD8", 4, &mDb)) << "a high surrogate at the end";
    EXPECT_FALSE(CodeSetUtf16ToUtf8Db("\x00\xD8\x41\x00", 4, &mDb)) << "and before a letter";
    EXPECT_FALSE(CodeSetUtf16ToUtf8Db("a\0b", 3, &mDb)) << "half a unit";
    EXPECT_EQ(Contents(), "kept");
}

TEST_F(CodeSetUtfBuffer, WithoutMemoryTheContentsStay)
{
    const std::string text(200, 'a'), text16 = InUtf16(text).value();
    {
        const OutOfMemory none;
        EXPECT_FALSE(CodeSetUtf8ToUtf16Db(text.data(), text.size(), &mDb));
        EXPECT_FALSE(CodeSetUtf16ToUtf8Db(text16.data(), text16.size(), &mDb));
    }
    EXPECT_EQ(mDb.data, nullptr);
    ASSERT_TRUE(DynBuf_Append(&mDb, "kept", 4));
    {
        const OutOfMemory none;
        EXPECT_FALSE(CodeSetUtf8ToUtf16Db(text.data(), text.size(), &mDb));
        EXPECT_FALSE(CodeSetUtf16ToUtf8Db(text16.data(), text16.size(), &mDb));
    }
    EXPECT_EQ(Contents(), "kept");
}

} // namespace
