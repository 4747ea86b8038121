#include "util.h"

#include "scopedForTests.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

// ---- Paths and names

TEST(UtilCanonicalPath, IsTheRealPath)
{
    const TemporaryFolder folder;
    std::ofstream(folder.Path() + "/file") << "text";
    std::filesystem::create_symlink("file", folder.Path() + "/link");
    EXPECT_EQ(Take(Util_CanonicalPath((folder.Path() + "/./link").c_str())),
              folder.Path() + "/file");
}

TEST(UtilCanonicalPath, OfNothingIsNothing)
{
    errno = 0;
    EXPECT_EQ(Util_CanonicalPath("/no/such/file"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(Util_CanonicalPath(nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

struct NamesCase {
    const char *name, *a, *b;
    bool isEqual;
};
class UtilIsEqualIgnoreCase : public testing::TestWithParam<NamesCase> {};
TEST_P(UtilIsEqualIgnoreCase, LooksAtLettersInAnyCase)
{
    const auto &[name, a, b, isEqual] = GetParam();
    EXPECT_EQ(Util_IsEqualIgnoreCase(a, b), isEqual);
    EXPECT_EQ(Util_IsEqualIgnoreCase(b, a), isEqual);
}
INSTANTIATE_TEST_SUITE_P(Names, UtilIsEqualIgnoreCase,
                         testing::Values(NamesCase{"Same", "Name", "Name", true},
                                         NamesCase{"AnotherCase", "nAmE", "NaMe", true},
                                         NamesCase{"BothEmpty", "", "", true},
                                         NamesCase{"OneEmpty", "", "a", false},
                                         NamesCase{"Longer", "name", "names", false},
                                         NamesCase{"Different", "name", "mane", false},
                                         NamesCase{"Punctuation", "a@", "a`", false},
                                         NamesCase{"Brackets", "[", "{", false}),
                         [](const auto &row) { return row.param.name; });

TEST(UtilIsAbsolutePath, BeginsWithASlash)
{
    EXPECT_TRUE(Util_IsAbsolutePath("/"));
    EXPECT_TRUE(Util_IsAbsolutePath("/a"));
    EXPECT_TRUE(Util_IsAbsolutePath("//"));
    EXPECT_FALSE(Util_IsAbsolutePath("a/b"));
    EXPECT_FALSE(Util_IsAbsolutePath("./a"));
    EXPECT_FALSE(Util_IsAbsolutePath("~/a"));
    EXPECT_FALSE(Util_IsAbsolutePath(" /"));
    EXPECT_FALSE(Util_IsAbsolutePath(""));
    EXPECT_FALSE(Util_IsAbsolutePath(nullptr));
}

// ---- Addresses

enum Kind { NEITHER, IPV4, IPV6 };

struct AddressCase {
    const char *name;
    std::string text;
    Kind kind;
};
class UtilIsAddress : public testing::TestWithParam<AddressCase> {};
TEST_P(UtilIsAddress, OfThisKind)
{
    const auto &[name, text, kind] = GetParam();
    EXPECT_EQ(Util_IsIPv4Address(text.c_str()), kind == IPV4);
    EXPECT_EQ(Util_IsIPv6Address(text.c_str()), kind == IPV6);
    EXPECT_EQ(Util_IsIPAddress(text.c_str()), kind != NEITHER);
}
TEST_P(UtilIsAddress, AsTheSystemTakesIt)
{
    const auto &[name, text, kind] = GetParam();
    in6_addr address;
    EXPECT_EQ(inet_pton(AF_INET, text.c_str(), &address) == 1, kind == IPV4);
    const std::string withoutScope = text.substr(0, text.find('%'));
    EXPECT_EQ(inet_pton(AF_INET6, withoutScope.c_str(), &address) == 1, kind == IPV6);
}
INSTANTIATE_TEST_SUITE_P(IPv4, UtilIsAddress,
                         testing::Values(AddressCase{"Private", "10.0.0.1", IPV4},
                                         AddressCase{"Zero", "0.0.0.0", IPV4},
                                         AddressCase{"Highest", "255.255.255.255", IPV4},
                                         AddressCase{"TooHigh", "256.0.0.1", NEITHER},
                                         AddressCase{"ThreeParts", "10.0.1", NEITHER},
                                         AddressCase{"FiveParts", "10.0.0.0.1", NEITHER},
                                         AddressCase{"OneNumber", "167772161", NEITHER},
                                         AddressCase{"Hexadecimal", "0xa.0.0.1", NEITHER},
                                         AddressCase{"LeadingZero", "010.0.0.1", NEITHER},
                                         AddressCase{"BlankBefore", " 10.0.0.1", NEITHER},
                                         AddressCase{"BlankBehind", "10.0.0.1 ", NEITHER},
                                         AddressCase{"Scope", "10.0.0.1%x", NEITHER},
                                         AddressCase{"Name", "localhost", NEITHER}),
                         [](const auto &row) { return row.param.name; });

const std::string LONGEST = "0000:0000:0000:0000:0000:ffff:255.255.255.255"; // 45 bytes

INSTANTIATE_TEST_SUITE_P(
    IPv6, UtilIsAddress,
    testing::Values(
        AddressCase{"Any", "::", IPV6}, AddressCase{"Loopback", "::1", IPV6},
        AddressCase{"Full", "2001:DB8:0:1:2:3:4:5", IPV6},
        AddressCase{"Shortened", "2001:db8::5", IPV6},
        AddressCase{"MappedIPv4", "::ffff:10.0.0.1", IPV6},
        AddressCase{"MappedIPv4TooHigh", "::ffff:10.0.0.256", NEITHER},
        AddressCase{"SevenGroups", "1:2:3:4:5:6:7", NEITHER},
        AddressCase{"NineGroups", "1:2:3:4:5:6:7:8:9", NEITHER},
        AddressCase{"ShortenedTwice", "1::2::3", NEITHER},
        AddressCase{"FiveDigits", "::12345", NEITHER}, AddressCase{"NoDigit", "::g", NEITHER},
        AddressCase{"Brackets", "[::1]", NEITHER}, AddressCase{"BlankBefore", " ::1", NEITHER},
        AddressCase{"BlankBehind", "::1 ", NEITHER}, AddressCase{"Length", "::1/64", NEITHER}),
    [](const auto &row) { return row.param.name; });
INSTANTIATE_TEST_SUITE_P(Scope, UtilIsAddress,
                         testing::Values(AddressCase{"Interface", "fe80::1%en0", IPV6},
                                         AddressCase{"Number", "fe80::1%2", IPV6},
                                         AddressCase{"Empty", "fe80::1%", IPV6},
                                         AddressCase{"AnyText", "fe80::1% %/x", IPV6},
                                         AddressCase{"OfTheLongest", LONGEST + "%en0", IPV6},
                                         AddressCase{"Long", "::1%" + std::string(1000, 'x'), IPV6},
                                         AddressCase{"OfNoAddress", "fe80::g%en0", NEITHER},
                                         AddressCase{"Alone", "%en0", NEITHER},
                                         AddressCase{"NothingElse", "%", NEITHER}),
                         [](const auto &row) { return row.param.name; });
INSTANTIATE_TEST_SUITE_P(
    Length, UtilIsAddress,
    testing::Values(AddressCase{"Of0", "", NEITHER}, AddressCase{"Of45", LONGEST, IPV6},
                    AddressCase{"Of46", LONGEST + "x", NEITHER},
                    AddressCase{"Of46AndScope", LONGEST + "x%en0", NEITHER},
                    AddressCase{"Of46Zeros", "0" + LONGEST, NEITHER},
                    AddressCase{"Of47", LONGEST + "xx", NEITHER},
                    AddressCase{"Of47Zeros", "00" + LONGEST, NEITHER},
                    AddressCase{"OfManyDigits", std::string(10000, '1'), NEITHER},
                    AddressCase{"OfManyColons", std::string(10000, ':'), NEITHER}),
    [](const auto &row) { return row.param.name; });

} // namespace
