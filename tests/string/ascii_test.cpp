// ascii_test.cpp -- compares the result for each byte with lists of bytes.
#include "ascii.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

using namespace pelago;

namespace {

constexpr std::string_view UPPER = "ABCDEFGHIJKLMNOPQRSTUVWXYZ",
                           LOWER = "abcdefghijklmnopqrstuvwxyz", DIGITS = "0123456789";

template <typename Check> void ForEachByte(Check check)
{
    for (int byte = 0; byte < 256; byte++) {
        SCOPED_TRACE(byte);
        check(static_cast<char>(byte));
    }
}

bool IsIn(std::string_view bytes, char byte) { return bytes.find(byte) != bytes.npos; }

TEST(Ascii, HasSevenBits)
{
    for (int byte = 0; byte < 256; byte++) {
        EXPECT_EQ(IsAscii(static_cast<char>(byte)), byte <= 127) << byte;
    }
}

TEST(Ascii, ClassifiesEachByte)
{
    ForEachByte([](char byte) {
        EXPECT_EQ(AsciiIsUpper(byte), IsIn(UPPER, byte));
        EXPECT_EQ(AsciiIsLower(byte), IsIn(LOWER, byte));
        EXPECT_EQ(AsciiIsDigit(byte), IsIn(DIGITS, byte));
    });
}

TEST(Ascii, ChangesTheCaseOfLettersOnly)
{
    ForEachByte([](char byte) {
        EXPECT_EQ(AsciiToLower(byte), IsIn(UPPER, byte) ? LOWER[UPPER.find(byte)] : byte);
        EXPECT_EQ(AsciiToUpper(byte), IsIn(LOWER, byte) ? UPPER[LOWER.find(byte)] : byte);
    });
}

TEST(Ascii, ReadsHexadecimalDigitsOfEitherCase)
{
    constexpr std::string_view SMALL = "0123456789abcdef", CAPITAL = "0123456789ABCDEF";
    ForEachByte([=](char byte) {
        const size_t small = SMALL.find(byte), capital = CAPITAL.find(byte);
        const size_t value = small != SMALL.npos ? small : capital;
        EXPECT_EQ(AsciiHexadecimalValue(byte), value != SMALL.npos ? value : ASCII_NO_DIGIT);
    });
    EXPECT_GT(ASCII_NO_DIGIT, 15u);
}

} // namespace
