// The kernel's version, its bitness and the host's name.
#include "hostinfo.h"

#include "allocations.h"
#include "hostinfoInt.h"
#include "hostinfoOsHost.h"
#include "inChild.h"
#include "panic.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <sys/sysctl.h>
#include <sys/utsname.h>
#include <thread>
#include <vector>
#include <versionLists.h>

using namespace pelago;

namespace {

template <size_t N> void Put(char (&field)[N], const std::optional<std::string> &text)
{
    if (text) { strcpy(field, text->c_str()); }
}

char *Copy(const std::optional<std::string> &text)
{
    return text ? strdup(text->c_str()) : nullptr;
}

} // namespace

extern "C" {
int __real_uname(utsname *answer);
int __wrap_uname(utsname *answer)
{
    if (++sUnameCalls >= sUnameFailsFrom) {
        errno = EIO;
        return -1;
    }
    const int result = __real_uname(answer);
    Put(answer->sysname, sSystem);
    Put(answer->nodename, sNode);
    // The release may fill the answer to its end: no known host has so long a release in its field.
    if (sRelease) {
        memcpy(reinterpret_cast<char *>(answer) + offsetof(utsname, release), sRelease->c_str(),
               sRelease->size() + 1);
    }
    return result;
}

int __real_sysctl(int *name, unsigned count, void *value, size_t *size, void *fresh, size_t of);
int __wrap_sysctl(int *name, unsigned count, void *value, size_t *size, void *fresh, size_t of)
{
    EXPECT_EQ(std::vector<int>(name, name + count), (std::vector<int>{6, 1}));
    EXPECT_EQ(*size, 8u);
    if (!sMachine) { return __real_sysctl(name, count, value, size, fresh, of); }
    if (*sMachine == "(fails)") { return -1; }
    const size_t needed = sMachine->size() + 1, fits = std::min(*size, needed);
    memcpy(value, sMachine->c_str(), fits);
    *size = fits;
    return fits == needed ? 0 : -1;
}

const __CFDictionary *__wrap_Util_ReadPlistDictionary(const char *path)
{
    sPlistsRead.push_back(path);
    const auto found = sPlists.find(path);
    if (found == sPlists.end()) { return nullptr; }
    sListsOpen++;
    return reinterpret_cast<const __CFDictionary *>(&found->second);
}

bool __wrap_Util_GetProductInfo(const __CFDictionary *list, char **name, char **version,
                                char **build)
{
    const auto *product = reinterpret_cast<const Product *>(list);
    if (!product->name || !product->version || !product->build) { return false; }
    *name = Copy(product->name);
    *version = Copy(product->version);
    *build = Copy(product->build);
    return true;
}

void __wrap_CFRelease(const void *) { sListsOpen--; }
}

// Replaces the platform's own function, which is in the platform's library.
bool pelago::platform::Host_HasVersionLists() { return sHostHasLists; }

namespace {

// ---- The kernel's version

struct ReleaseCase {
    std::string release;
    std::vector<int> numbers;
};
class HostinfoRelease : public testing::TestWithParam<ReleaseCase> {};
TEST_P(HostinfoRelease, IsReadAsFarAsItIsNumbers)
{
    HostinfoOSVersion version = {};
    EXPECT_TRUE(HostinfoParseRelease(GetParam().release.c_str(), &version));
    EXPECT_EQ((std::vector<int>{version.major, version.minor, version.micro, version.extra}),
              GetParam().numbers)
        << GetParam().release;
}
INSTANTIATE_TEST_SUITE_P(
    Table, HostinfoRelease,
    testing::Values(ReleaseCase{"19.6.0", {19, 6, 0, 0}}, ReleaseCase{"10.8", {10, 8, 0, 0}},
                    ReleaseCase{"5", {5, 0, 0, 0}}, ReleaseCase{"5.", {5, 0, 0, 0}},
                    ReleaseCase{"6.1.0-18-amd64", {6, 1, 0, 18}},
                    ReleaseCase{"1.2.3.4.5", {1, 2, 3, 4}}, ReleaseCase{"1.2.3-rc", {1, 2, 3, 0}},
                    ReleaseCase{"1.2.3rc012b7", {1, 2, 3, 12}},
                    ReleaseCase{"1.2-3", {1, 2, 0, 0}}, // a fourth needs a third
                    ReleaseCase{"1.2.3-" + std::string(249, 'x') + "7", {1, 2, 3, 7}},
                    ReleaseCase{"1.2.3-" + std::string(400, 'x') + "7", {1, 2, 3, 0}}));

TEST(HostinfoParseRelease, RefusesWhatBeginsWithNoNumber)
{
    HostinfoOSVersion version = {};
    for (const char *release : {"", "abc", "v5.1", ".5", "-"}) {
        EXPECT_FALSE(HostinfoParseRelease(release, &version)) << release;
    }
}

std::string Numbers()
{
    std::string numbers;
    for (const unsigned index : {0U, 1U, 2U, 3U, 4U, UINT_MAX}) {
        numbers += std::to_string(Hostinfo_OSVersion(index)) + " ";
    }
    return numbers;
}

TEST(HostinfoOSVersion, IsTheReleaseAsNumbersPaddedWithZeros)
{
    const Outcome outcome = InChild([] {
        sRelease = "6.1.7-18-amd64";
        return Numbers() + Hostinfo_OSVersionString();
    });
    EXPECT_EQ(outcome.result, "6 1 7 18 0 0 6.1.7-18-amd64");
    EXPECT_EQ(outcome.errors, "");
}

TEST(HostinfoOSVersion, KeepsWhatItFirstWas)
{
    const Outcome outcome = InChild([] {
        sRelease = "19.6.0";
        const char *first = Hostinfo_OSVersionString();
        sRelease = "20.1.0";
        EXPECT_EQ(Hostinfo_OSVersionString(), first);
        EXPECT_EQ(sUnameCalls, 1);
        return Numbers() + Hostinfo_OSVersionString();
    });
    EXPECT_EQ(outcome.result, "19 6 0 0 0 0 19.6.0");
}

TEST(HostinfoOSVersion, KeepsThatManyBytesOfARelease)
{
    const Outcome outcome = InChild([] {
        sRelease = "1.2.3-" + std::string(252, 'x');
        return std::string(Hostinfo_OSVersionString());
    });
    EXPECT_EQ(outcome.result, "1.2.3-" + std::string(250, 'x'));
}

TEST(HostinfoOSVersionDeathTest, EndsTheProcessWithoutARelease)
{
    EXPECT_PANIC(
        {
            sUnameFailsFrom = 1;
            Hostinfo_OSVersion(0);
        },
        "NOT_IMPLEMENTED lib/misc/hostinfoPosix:297\n");
    EXPECT_EXIT(
        {
            sUnameFailsFrom = 1;
            Hostinfo_OSVersionString();
        },
        testing::ExitedWithCode(1),
        testing::HasSubstr("Warning: HostinfoOSVersionInit: unable to get host OS version (uname): "
                           "Input/output error\nPanic: "));
}

TEST(HostinfoOSVersionDeathTest, EndsTheProcessOnAReleaseWithoutNumbers)
{
    EXPECT_PANIC(
        {
            sRelease = "abc";
            Hostinfo_OSVersion(0);
        },
        "NOT_IMPLEMENTED lib/misc/hostinfoPosix:318\n");
    EXPECT_EXIT(
        {
            sRelease = "abc";
            HostinfoOSVersionInit();
        },
        testing::ExitedWithCode(1),
        testing::HasSubstr("Warning: HostinfoOSVersionInit: unable to parse host OS version "
                           "string: abc\nPanic: "));
}

TEST(HostinfoOSVersionDeathTest, EndsTheProcessWithoutMemory)
{
    for (size_t granted = 0; granted < 2; granted++) {
        EXPECT_PANIC(
            {
                const OutOfMemory none(granted);
                HostinfoOSVersionInit();
            },
            "Unrecoverable memory allocation failure\n");
    }
}

TEST(HostinfoOSVersion, IsThatOfTheThreadThatWasFaster)
{
    InChild([] {
        const ptrdiff_t before = Allocations::Live();
        const char *others = nullptr;
        Allocations::Meanwhile(
            [&] { std::thread([&] { others = Hostinfo_OSVersionString(); }).join(); });
        EXPECT_EQ(Hostinfo_OSVersionString(), others);
        EXPECT_EQ(Allocations::Live() - before, 2) << "one record and its text";
        return "";
    });
}

// ---- Bitness

struct BitnessCase {
    const char *machine;
    int bitness;
};
class HostinfoBitness : public testing::TestWithParam<BitnessCase> {};
TEST_P(HostinfoBitness, FollowsFromTheHardwaresName)
{
    sMachine = GetParam().machine;
    EXPECT_EQ(Hostinfo_GetSystemBitness(), GetParam().bitness) << *sMachine;
    sMachine.reset();
}
INSTANTIATE_TEST_SUITE_P(
    Table, HostinfoBitness,
    testing::Values(BitnessCase{"i386", 32}, BitnessCase{"amd64", 64}, BitnessCase{"x86_64", 64},
                    BitnessCase{"aarch64", 64}, BitnessCase{"arm64", 64}, BitnessCase{"arm6", -1},
                    BitnessCase{"arm64e", -1}, BitnessCase{"X86_64", -1}, BitnessCase{"ppc", -1},
                    BitnessCase{"aarch64_", -1}, BitnessCase{"i686", -1}, BitnessCase{"i486", -1},
                    BitnessCase{"i38", -1}, BitnessCase{"x86", -1}, BitnessCase{"x86_6", -1},
                    BitnessCase{"armv7l", -1}, BitnessCase{"amd64p", -1}, BitnessCase{"", -1},
                    BitnessCase{"(fails)", -1}));

// ---- The host's name

struct HostNameCase {
    const char *node, *name;
};
class HostinfoHostName : public testing::TestWithParam<HostNameCase> {};
TEST_P(HostinfoHostName, IsTheNodesWhereThatIsText)
{
    sNode = GetParam().node;
    EXPECT_EQ(Take(Hostinfo_HostName()), GetParam().name);
    sNode.reset();
}
INSTANTIATE_TEST_SUITE_P(Table, HostinfoHostName,
                         testing::Values(HostNameCase{"alpha", "alpha"},
                                         HostNameCase{"\xC3\xA4lpha", "\xC3\xA4lpha"},
                                         HostNameCase{"", "(none)"},
                                         HostNameCase{"\xE4lpha", "(none)"}));

TEST(HostinfoHostName, IsNoneWhenTheKernelDoesNotTell)
{
    const Outcome outcome = InChild([] {
        sUnameFailsFrom = 1;
        return Take(Hostinfo_HostName());
    });
    EXPECT_EQ(outcome.result, "(none)");
    EXPECT_EQ(outcome.errors, "");
}

TEST(HostinfoHostNameCached, IsTheFirstThatWasThere)
{
    InChild([] {
        sNode = "";
        EXPECT_EQ(Hostinfo_HostNameCached(), nullptr);
        sNode = "alpha";
        const char *name = Hostinfo_HostNameCached();
        EXPECT_STREQ(name, "alpha");
        sNode = "beta";
        EXPECT_EQ(Hostinfo_HostNameCached(), name);
        EXPECT_STREQ(name, "alpha");
        EXPECT_EQ(Take(Hostinfo_HostName()), "beta");
        return "";
    });
}

TEST(HostinfoHostNameCached, IsThatOfTheThreadThatWasFaster)
{
    InChild([] {
        const ptrdiff_t before = Allocations::Live();
        const char *others = nullptr;
        Allocations::Meanwhile(
            [&] { std::thread([&] { others = Hostinfo_HostNameCached(); }).join(); });
        EXPECT_EQ(Hostinfo_HostNameCached(), others);
        EXPECT_EQ(Allocations::Live() - before, 1);
        return "";
    });
}

TEST(HostinfoHostNameCachedDeathTest, EndsTheProcessWithoutMemory)
{
    EXPECT_PANIC(
        {
            const OutOfMemory none;
            Hostinfo_HostNameCached();
        },
        "Unrecoverable memory allocation failure\n");
}

} // namespace
