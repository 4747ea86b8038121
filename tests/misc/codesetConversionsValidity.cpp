// Which bytes are valid in an encoding.
#include "codesetConversionsForTests.h"

#include "panic.h"
#include "utf16Bytes.h"

#include <sys/mman.h>
#include <vector>

#include <unicode/ucnv.h>

namespace {

// ---- Validity

TEST_F(WithIcu, ValidateKnowsWhatIcuKnows)
{
    for (const char *name : {"UTF-8", "utf8", "EUC-JP", "Shift_JIS", "windows-1252"}) {
        EXPECT_TRUE(CodeSet_Validate(name)) << name;
    }
    for (const char *name : {"no encoding", "", "IBM038"}) {
        EXPECT_FALSE(CodeSet_Validate(name)) << name;
    }
}

TEST_F(WithoutIcu, ValidateKnowsWhatTheLookUpKnows)
{
    for (const char *name : {"UTF-8", "utf8", "Shift_JIS", "windows-1252"}) {
        EXPECT_TRUE(CodeSet_Validate(name)) << name;
    }
    for (const char *name : {"no encoding", "", "EUC-JP"}) {
        EXPECT_FALSE(CodeSet_Validate(name)) << name;
    }
}

TEST_P(BothWays, ValidBuffersAreText)
{
    EXPECT_TRUE(IsValid("UTF-8", TEXT_8));
    EXPECT_TRUE(IsValid("UTF-8", Times(5000, TEXT_8)));
    EXPECT_TRUE(IsValid("UTF-16LE", Le(TEXT_16)));
    EXPECT_TRUE(IsValid("UTF-16LE", Times(5000, Le(TEXT_16))));
    EXPECT_TRUE(IsValid("UTF-16BE", Be(TEXT_16)));
    EXPECT_TRUE(IsValid("ASCII", "A\0\x7f"s));
}

TEST_P(BothWays, InvalidBuffersAreNot)
{
    for (const std::string &before : {""s, Times(5000, TEXT_8)}) {
        for (const std::string &in : INVALID_8) {
            EXPECT_FALSE(IsValid("UTF-8", before + in)) << testing::PrintToString(in);
        }
    }
    for (const std::string &in : Invalid16(Le)) {
        EXPECT_FALSE(IsValid("UTF-16LE", in)) << testing::PrintToString(in);
        EXPECT_FALSE(IsValid("UTF-16LE", Times(5000, Le(TEXT_16)) + in));
    }
    for (const std::string &in : Invalid16(Be)) {
        EXPECT_FALSE(IsValid("UTF-16BE", in)) << testing::PrintToString(in);
    }
    EXPECT_FALSE(IsValid("ASCII", "A\x80"));
    EXPECT_FALSE(IsValid("ASCII", "\xff"s + "A"));
}

TEST_P(BothWays, NoBytesAreText)
{
    for (const char *name : {"UTF-8", "UTF-16LE", "UTF-16BE", "ASCII", "UTF-32LE", "ISO-8859-1",
                             "EUC-JP", "no encoding"}) {
        EXPECT_TRUE(CodeSet_IsValidBuffer(nullptr, 0, name)) << name;
        EXPECT_TRUE(CodeSet_IsValidBuffer("", 0, name)) << name;
    }
}

TEST_F(WithIcu, LegacyTextIsLookedAt)
{
    EXPECT_TRUE(IsValid("Shift_JIS", "\x83\x41"));
    EXPECT_FALSE(IsValid("Shift_JIS", "\x83"));
    EXPECT_FALSE(IsValid("Shift_JIS", "\x83\x31"));
    EXPECT_TRUE(IsValid("windows-1252", "\x80\xff"));
}

TEST_F(WithIcu, WhatDecodesToNothingIsNotText)
{
    EXPECT_FALSE(IsValid("UTF-16", Le(u"\ufeff")));
    EXPECT_TRUE(IsValid("UTF-16", Le(u"\ufeffA")));
    EXPECT_FALSE(IsValid("ISO-2022-JP", "\x1b$B"));
    EXPECT_TRUE(IsValid("UTF-16LE", Le(u"\ufeff"))) << "a character there";
}

TEST_F(WithoutIcu, WhatIsNotConvertedIsNotJudged)
{
    for (const char *name : {"ISO-8859-1", "UTF-32LE", "EUC-JP", "no encoding"}) {
        EXPECT_FALSE(IsValid(name, "text")) << name;
    }
}

// A buffer of that size that takes no memory: all bytes but the first are zero.
class Huge {
public:
    explicit Huge(size_t size)
        : mSize(size), mBlock(mmap(nullptr, size, PROT_READ | PROT_WRITE,
                                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))
    {
        if (mBlock == MAP_FAILED) { abort(); }
        *static_cast<char *>(mBlock) = '\xff';
    }
    Huge(const Huge &) = delete;
    Huge &operator=(const Huge &) = delete;
    ~Huge() { munmap(mBlock, mSize); }
    const char *Data() const { return static_cast<const char *>(mBlock); }

private:
    size_t mSize;
    void *mBlock;
};

TEST_F(WithIcuDeathTest, ValidityTestPanicsFromTwoGibibytesOn)
{
    const size_t limit = size_t{1} << 31;
    const Huge buffer(limit);
    for (const size_t size : {limit, 2 * limit, 2 * limit + 1, SIZE_MAX}) {
        for (const char *name : {"UTF-8", "no encoding"}) {
            EXPECT_PANIC(CodeSet_IsValidBuffer(buffer.Data(), size, name),
                         "VERIFY lib/misc/codeset:1700\n");
        }
    }
    EXPECT_FALSE(CodeSet_IsValidBuffer(buffer.Data(), limit - 1, "UTF-8")) << "not yet";
}

TEST_F(WithoutIcu, AValidityTestHasNoLimit)
{
    const size_t size = (size_t{1} << 31) + 2;
    const Huge buffer(size);
    for (const char *name : {"UTF-8", "ASCII"}) {
        EXPECT_FALSE(CodeSet_IsValidBuffer(buffer.Data(), size, name)) << name;
    }
}

TEST_F(WithIcuDeathTest, ValidityTestPanicsForUnsupportedEncodings)
{
    for (const char *name : {"no encoding", "", "IBM038"}) {
        EXPECT_PANIC(CodeSet_IsValidBuffer("text", 4, name), "VERIFY lib/misc/codeset:1723\n");
    }
}

TEST_F(WithIcuDeathTest, ValidityTestPanicsWhenIcuRefusesItsCallback)
{
    sToUnicodeFault = U_ILLEGAL_ARGUMENT_ERROR;
    EXPECT_PANIC(CodeSet_IsValidBuffer("text", 4, "UTF-8"), "VERIFY lib/misc/codeset:1725\n");
}

struct Utf8Case {
    std::string bytes;
    bool isValid;
};

TEST(CodeSetIsValidUtf8, TakesWellFormedTextOnly)
{
    std::vector<Utf8Case> cases = {{"", true},
                                   {"plain", true},
                                   {"\x7f\u0080\u07ff\u0800\uffff", true},
                                   {"\ud7ff\ue000", true},
                                   {"\U00010000\U0010FFFF", true}};
    for (const std::string &in : INVALID_8) {
        cases.push_back({in, false});
        cases.push_back({"before" + in + "after", false});
    }
    for (const auto &[bytes, isValid] : cases) {
        OddlyPlaced placed(bytes);
        EXPECT_EQ(CodeSet_IsValidUtf8(placed.Data(), bytes.size()), isValid)
            << testing::PrintToString(bytes);
        EXPECT_EQ(CodeSet_IsValidUtf8NoNul(placed.Data(), bytes.size()), isValid);
        EXPECT_EQ(CodeSet_IsValidUtf8String(bytes.c_str()), isValid);
    }
}

TEST(CodeSetIsValidUtf8, AcceptsANulThatItsVariantsDoNot)
{
    for (const std::string &in : {"\0"s, "a\0b"s, "ab\0"s}) {
        EXPECT_TRUE(CodeSet_IsValidUtf8(in.data(), in.size()));
        EXPECT_FALSE(CodeSet_IsValidUtf8NoNul(in.data(), in.size()));
    }
    EXPECT_TRUE(CodeSet_IsValidUtf8String("a\0\xff")) << "what is behind the end does not count";
    EXPECT_FALSE(CodeSet_IsValidUtf8("a\0\xff", 3));
}

TEST(CodeSetIsValidUtf8, NoBytesAreValid)
{
    EXPECT_TRUE(CodeSet_IsValidUtf8(nullptr, 0));
    EXPECT_TRUE(CodeSet_IsValidUtf8NoNul(nullptr, 0));
    EXPECT_TRUE(CodeSet_IsValidUtf8String(""));
}

} // namespace
