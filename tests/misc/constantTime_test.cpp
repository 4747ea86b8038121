// Runs under valgrind, which tracks the bytes that are marked as undefined.  It counts an error for
// every branch that depends on one of them, and for every address computed from one.  Code without
// such a branch or address takes the same time for all values of the bytes.
#include "util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <valgrind/memcheck.h>
#include <vector>

namespace {

bool IsWatched() { return RUNNING_ON_VALGRIND != 0; }

// Returns how many errors work() causes.  The result of work() is undefined as well, so it is not
// read here.
unsigned Errors(const std::function<bool()> &work)
{
    if (!IsWatched()) { ADD_FAILURE() << "this is to run under valgrind"; }
    const unsigned before = VALGRIND_COUNT_ERRORS;
    bool result = work();
    (void)VALGRIND_MAKE_MEM_DEFINED(&result, sizeof result);
    return VALGRIND_COUNT_ERRORS - before;
}

std::vector<char> Secret(size_t size)
{
    std::vector<char> bytes(size, 'x');
    (void)VALGRIND_MAKE_MEM_UNDEFINED(bytes.data(), size);
    return bytes;
}

// A string of which valgrind knows the end and nothing else.
std::vector<char> SecretText(size_t length)
{
    std::vector<char> text(length, '@');
    text.push_back('\0');
    std::vector<unsigned char> unknown(length, 0xbf); // all bits but one, which says "no NUL"
    unknown.push_back(0);
    EXPECT_EQ(VALGRIND_SET_VBITS(text.data(), unknown.data(), length + 1), IsWatched() ? 1u : 0u);
    return text;
}

bool DiffersWithEarlyExit(const char *a, const char *b, size_t size)
{
    for (size_t i = 0; i < size; i++) {
        if (a[i] != b[i]) { return true; }
    }
    return false;
}

class ConstantTime : public testing::TestWithParam<size_t> {};

TEST_P(ConstantTime, IsWhatAnEarlyExitDoesNotHave)
{
    const auto a = Secret(GetParam()), b = Secret(GetParam());
    EXPECT_GT(Errors([&] { return DiffersWithEarlyExit(a.data(), b.data(), a.size()); }), 0u);
}

TEST_P(ConstantTime, IsWhatTableLookupsDoNotHave)
{
    static const char table[256] = {};
    const auto a = Secret(GetParam());
    EXPECT_GT(Errors([&] { return table[static_cast<unsigned char>(a[0])] != 0; }), 0u);
}

TEST_P(ConstantTime, IsWhatComparingBlocksTakes)
{
    const auto a = Secret(GetParam()), b = Secret(GetParam());
    EXPECT_EQ(Errors([&] { return Util_MemDiffers(a.data(), b.data(), a.size()); }), 0u);
}

TEST_P(ConstantTime, IsWhatCountingInBlocksTakes)
{
    const auto a = Secret(GetParam()), b = Secret(GetParam());
    size_t count;
    EXPECT_EQ(Errors([&] { return Util_CountMemDiff(a.data(), b.data(), a.size(), &count); }), 0u);
}

// The functions find the end of each string in its bytes, so the length of either string is no
// secret to the machine; everything else about them is.
TEST_P(ConstantTime, IsWhatStringsOfKnownLengthsTake)
{
    for (size_t length : {size_t{0}, GetParam() / 2, GetParam(), 2 * GetParam()}) {
        const auto a = SecretText(GetParam()), b = SecretText(length);
        size_t count;
        EXPECT_EQ(Errors([&] { return Util_CountStrDiff(a.data(), b.data(), &count); }), 0u);
        EXPECT_EQ(Errors([&] { return Util_StrDiffers(a.data(), b.data()); }), 0u);
    }
}

TEST_P(ConstantTime, DetectsAnEarlyExitInStringComparison)
{
    const auto a = SecretText(GetParam()), b = SecretText(GetParam());
    EXPECT_GT(Errors([&] { return DiffersWithEarlyExit(a.data(), b.data(), a.size()); }), 0u);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ConstantTime,
                         testing::Values(1, 2, 7, 8, 15, 16, 17, 31, 64, 100, 1000, 5000));

} // namespace
