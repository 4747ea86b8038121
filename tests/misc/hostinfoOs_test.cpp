#include "hostinfo.h"

#include "../../lib/misc/hostinfoInt.h"
#include "allocations.h"
#include "inChild.h"
#include "panic.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <optional>
#include <sys/sysctl.h>
#include <sys/utsname.h>
#include <thread>
#include <vector>
#include <versionLists.h>

using namespace pelago;

namespace {

// What the system says, as far as it is not asked itself.
std::optional<std::string> sSystem, sRelease, sNode;
int sUnameCalls, sUnameFailsFrom = INT_MAX;

std::optional<std::string> sMachine; // "(fails)": it does not tell

struct Product {
    std::optional<std::string> name, version, build;
};
std::map<std::string, Product> sPlists; // by their paths
std::vector<std::string> sPlistsRead;
int sListsOpen;
bool sHostHasLists = true; // as every macOS

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
    // A release may run on to the end: no host is known to have so long a one in its field.
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

// The platform's own, in whose place this is, is in the platform's library.
bool pelago::platform::Host_HasVersionLists() { return sHostHasLists; }

namespace {

constexpr char SERVER[] = "/System/Library/CoreServices/ServerVersion.plist";
constexpr char SYSTEM[] = "/System/Library/CoreServices/SystemVersion.plist";
constexpr char NO_PLIST[] = "Log: HostinfoMacOS: Failed to read system version plist.\n";

const Product CATALINA{"Mac OS X", "10.15.7", "19H2"};

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
                    ReleaseCase{"1.2-3", {1, 2, 0, 0}}, // behind no third number
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

// ---- Names and detailed data

// Finds out what a system with these property lists is, in a child, and does this with it.
template <typename Body> Outcome OnSystem(std::map<std::string, Product> plists, Body body)
{
    return InChild([&] {
        sSystem = "Darwin";
        sRelease = "19.6.0";
        sMachine = "x86_64";
        sPlists = std::move(plists);
        const std::string result = body();
        EXPECT_EQ(sListsOpen, 0) << "every list is released";
        return result;
    });
}

std::string Names() { return Take(Hostinfo_GetOSName()) + "|" + Take(Hostinfo_GetOSShortName()); }

// The line after one more look, whatever came of that.
std::string DetailedDataOf(const Product &product)
{
    sPlists = {{SYSTEM, product}};
    HostinfoOSData();
    return Take(Hostinfo_GetOSDetailedData());
}

TEST(HostinfoOSData, NamesTheProductAndTheKernel)
{
    const Outcome outcome = OnSystem({{SYSTEM, CATALINA}}, Names);
    EXPECT_EQ(outcome.result, "Mac OS X 10.15.7 (19H2) Darwin 19.6.0|darwin19-64");
    EXPECT_EQ(outcome.errors, "");
}

TEST(HostinfoOSData, TellsItInDetail)
{
    const Outcome outcome =
        OnSystem({{SYSTEM, CATALINA}}, [] { return Take(Hostinfo_GetOSDetailedData()); });
    EXPECT_EQ(outcome.result,
              "architecture='X86' bitness='64' buildNumber='19H2' distroName='Mac OS X' "
              "distroVersion='10.15.7' familyName='Darwin' kernelVersion='19.6.0'");
    EXPECT_EQ(outcome.errors, "");
}

TEST(HostinfoOSData, AsksForTheServersVersionFirst)
{
    const Outcome outcome =
        OnSystem({{SERVER, {"Mac OS X Server", "10.6", "10A432"}}, {SYSTEM, CATALINA}}, [] {
            const std::string names = Names();
            EXPECT_EQ(sPlistsRead, std::vector<std::string>{SERVER});
            return names;
        });
    EXPECT_EQ(outcome.result, "Mac OS X Server 10.6 (10A432) Darwin 19.6.0|darwin19-64");
}

class HostinfoServerPlist : public testing::TestWithParam<Product> {};
TEST_P(HostinfoServerPlist, ThatLacksAKeyIsPassedOver)
{
    const Outcome outcome = OnSystem({{SERVER, GetParam()}, {SYSTEM, CATALINA}}, [] {
        const std::string names = Names();
        EXPECT_EQ(sPlistsRead, (std::vector<std::string>{SERVER, SYSTEM}));
        return names;
    });
    EXPECT_EQ(outcome.result, "Mac OS X 10.15.7 (19H2) Darwin 19.6.0|darwin19-64");
    EXPECT_EQ(outcome.errors, "");
}
INSTANTIATE_TEST_SUITE_P(Each, HostinfoServerPlist,
                         testing::Values(Product{std::nullopt, "10.6", "10A432"},
                                         Product{"Server", std::nullopt, "10A432"},
                                         Product{"Server", "10.6", std::nullopt}));

TEST(HostinfoOSData, NamesTheKernelWhereThereIsNoProduct)
{
    const Outcome outcome =
        OnSystem({}, [] { return Names() + "|" + Take(Hostinfo_GetOSDetailedData()); });
    EXPECT_EQ(outcome.result, "Darwin 19.6.0|darwin19-64|architecture='X86' bitness='64' "
                              "familyName='Darwin' kernelVersion='19.6.0'");
    EXPECT_EQ(outcome.errors, NO_PLIST);
}

TEST(HostinfoOSData, LogsNothingOnAHostWithoutVersionLists)
{
    const Outcome outcome = OnSystem({}, [] {
        sHostHasLists = false;
        return Names();
    });
    EXPECT_EQ(outcome.result, "Darwin 19.6.0|darwin19-64");
    EXPECT_EQ(outcome.errors, "");
}

struct SystemBitnessCase {
    const char *machine, *shortName, *field;
};
class HostinfoSystemBitness : public testing::TestWithParam<SystemBitnessCase> {};
TEST_P(HostinfoSystemBitness, IsIn)
{
    const Outcome outcome = OnSystem({{SYSTEM, CATALINA}}, [] {
        sMachine = GetParam().machine;
        return Take(Hostinfo_GetOSShortName()) + "|" + Take(Hostinfo_GetOSDetailedData());
    });
    EXPECT_THAT(outcome.result, testing::StartsWith(std::string(GetParam().shortName) +
                                                    "|architecture='X86' " + GetParam().field));
    EXPECT_EQ(outcome.errors, "");
}
INSTANTIATE_TEST_SUITE_P(Names, HostinfoSystemBitness,
                         testing::Values(SystemBitnessCase{"arm64", "darwin19-64", "bitness='64'"},
                                         SystemBitnessCase{"i386", "darwin19", "bitness='32'"},
                                         SystemBitnessCase{"(fails)", "darwin19", "bitness='32'"}));

TEST(HostinfoOSData, ShortNameUsesTheCachedKernelVersion)
{
    const Outcome outcome = OnSystem({{SYSTEM, CATALINA}}, [] {
        Hostinfo_OSVersion(0);
        sRelease = "20.1.0"; // not the version any more
        return Names();
    });
    EXPECT_EQ(outcome.result, "Mac OS X 10.15.7 (19H2) Darwin 20.1.0|darwin19-64");
}

TEST(HostinfoOSData, KeepsTheFirstNamesButUpdatesTheDetails)
{
    const Outcome outcome = OnSystem({{SYSTEM, CATALINA}}, [] {
        EXPECT_TRUE(HostinfoOSData());
        const std::string names = Names();
        const std::string line = DetailedDataOf({"macOS", "11.1", "20C69"});
        EXPECT_EQ(Names(), names);
        return line;
    });
    EXPECT_EQ(outcome.result,
              "architecture='X86' bitness='64' buildNumber='20C69' distroName='macOS' "
              "distroVersion='11.1' familyName='Darwin' kernelVersion='19.6.0'");
}

TEST(HostinfoOSData, ForgetsAProductThatIsGone)
{
    const Outcome outcome = OnSystem({{SYSTEM, CATALINA}}, [] {
        EXPECT_TRUE(HostinfoOSData());
        sPlists.clear();
        EXPECT_TRUE(HostinfoOSData());
        return Take(Hostinfo_GetOSDetailedData());
    });
    EXPECT_EQ(outcome.result,
              "architecture='X86' bitness='64' familyName='Darwin' kernelVersion='19.6.0'");
    EXPECT_EQ(outcome.errors, NO_PLIST);
}

TEST(HostinfoOSData, LooksOnceForThreeQuestions)
{
    OnSystem({{SYSTEM, CATALINA}}, [] {
        Names();
        Take(Hostinfo_GetOSDetailedData());
        EXPECT_EQ(sPlistsRead.size(), 2u) << "one time both";
        return "";
    });
}

TEST(HostinfoOSData, GivesEveryCallerACopy)
{
    OnSystem({{SYSTEM, CATALINA}}, [] {
        for (char *(*question)() :
             {Hostinfo_GetOSName, Hostinfo_GetOSShortName, Hostinfo_GetOSDetailedData}) {
            char *first = question();
            const std::string answer = first;
            memset(first, 'x', answer.size());
            free(first);
            EXPECT_EQ(Take(question()), answer);
        }
        return "";
    });
}

TEST(HostinfoOSData, KnowsNothingWhenTheKernelDoesNotTell)
{
    const Outcome outcome = OnSystem({{SYSTEM, CATALINA}}, [] {
        sUnameFailsFrom = 1;
        EXPECT_EQ(Names(), "(none)|(none)");
        EXPECT_EQ(Take(Hostinfo_GetOSDetailedData()), "(none)");
        EXPECT_EQ(sPlistsRead, std::vector<std::string>());
        return "";
    });
    const std::string warning = "Warning: HostinfoOSData: uname failed 5\n";
    EXPECT_EQ(outcome.errors, warning + warning + warning);
}

TEST(HostinfoOSData, KeepsTheDetailsWhenUnameFails)
{
    const Outcome outcome = OnSystem({{SYSTEM, CATALINA}}, [] {
        const std::string line = Take(Hostinfo_GetOSDetailedData());
        sUnameFailsFrom = 1;
        EXPECT_FALSE(HostinfoOSData());
        EXPECT_EQ(Take(Hostinfo_GetOSDetailedData()), line);
        return "";
    });
    EXPECT_EQ(outcome.errors, "Warning: HostinfoOSData: uname failed 5\n");
}

// ---- Names that do not fit: " 10 (B) Darwin 19.6.0" is 21 bytes of the 511 that do

TEST(HostinfoOSData, HasRoomForThatLongAName)
{
    const std::string name(490, 'n');
    const Outcome outcome = OnSystem({{SYSTEM, {name, "10", "B"}}}, Names);
    EXPECT_EQ(outcome.result, name + " 10 (B) Darwin 19.6.0|darwin19-64");
    EXPECT_EQ(outcome.errors, "");
}

TEST(HostinfoOSData, HasNoNamesIfTheFullNameOverflows)
{
    const Outcome outcome = OnSystem({{SYSTEM, {std::string(491, 'n'), "10", "B"}}}, [] {
        EXPECT_EQ(Take(Hostinfo_GetOSName()), "(none)");
        sPlists = {{SYSTEM, CATALINA}};
        return Names();
    });
    EXPECT_EQ(outcome.errors, "Warning: HostinfoMacOS: Error: buffer too small\n");
    EXPECT_EQ(outcome.result, "Mac OS X 10.15.7 (19H2) Darwin 19.6.0|darwin19-64")
        << "these fit later";
}

TEST(HostinfoOSData, KeepsALongProductNameInTheDetails)
{
    const std::string name(800, 'n');
    const Outcome outcome = OnSystem({{SYSTEM, CATALINA}}, [&] {
        EXPECT_TRUE(HostinfoOSData());
        return DetailedDataOf({name, "10", "B"});
    });
    EXPECT_THAT(outcome.result, testing::HasSubstr(" distroName='" + name + "' "));
    EXPECT_EQ(outcome.errors, "Warning: HostinfoMacOS: Error: buffer too small\n");
}

TEST(HostinfoOSData, KeepsFormerNamesWhenTheNewNameOverflows)
{
    const Outcome outcome = OnSystem({{SYSTEM, CATALINA}}, [] {
        EXPECT_TRUE(HostinfoOSData());
        sPlists = {{SYSTEM, {std::string(491, 'n'), "10", "B"}}};
        EXPECT_FALSE(HostinfoOSData());
        return Names();
    });
    EXPECT_EQ(outcome.result, "Mac OS X 10.15.7 (19H2) Darwin 19.6.0|darwin19-64");
    EXPECT_EQ(outcome.errors, "Warning: HostinfoMacOS: Error: buffer too small\n");
}

struct NewlineCase {
    const char *release, *full;
};
class HostinfoFullName : public testing::TestWithParam<NewlineCase> {};
TEST_P(HostinfoFullName, LosesOneNewlineAtItsEnd)
{
    const Outcome outcome = OnSystem({{SYSTEM, {"macOS\n", "11", "B"}}}, [] {
        sRelease = GetParam().release;
        return Take(Hostinfo_GetOSName());
    });
    EXPECT_EQ(outcome.result, std::string("macOS\n 11 (B) Darwin ") + GetParam().full);
}
INSTANTIATE_TEST_SUITE_P(Each, HostinfoFullName,
                         testing::Values(NewlineCase{"20.1.0", "20.1.0"},
                                         NewlineCase{"20.1.0\n", "20.1.0"},
                                         NewlineCase{"20.1.0\n\n", "20.1.0\n"},
                                         NewlineCase{"20.1.0 ", "20.1.0 "}));

// ---- Values in the line

struct ValueCase {
    const char *value, *quoted;
};
class HostinfoValue : public testing::TestWithParam<ValueCase> {};
TEST_P(HostinfoValue, IsQuotedInTheLine)
{
    const Outcome outcome = OnSystem({}, [] {
        return DetailedDataOf({GetParam().value, "10", "B"});
    });
    EXPECT_EQ(outcome.result, std::string("architecture='X86' bitness='64' buildNumber='B' ") +
                                  GetParam().quoted +
                                  "distroVersion='10' familyName='Darwin' kernelVersion='19.6.0'");
    EXPECT_EQ(outcome.errors, "");
}
INSTANTIATE_TEST_SUITE_P(
    Table, HostinfoValue,
    testing::Values(ValueCase{"O'Brien", "distroName='O\\'Brien' "},
                    ValueCase{"a\\b", "distroName='a\\\\b' "},
                    ValueCase{"\\'", "distroName='\\\\\\'' "},
                    ValueCase{"blanks  ", "distroName='blanks' "},
                    ValueCase{"white \t\n\v\f\r", "distroName='white' "},
                    ValueCase{" in between ", "distroName=' in between' "},
                    ValueCase{"\\ ", "distroName='\\\\' "},
                    ValueCase{"\xC3\xA0", "distroName='\xC3\xA0' "}, // ends like a wide blank
                    ValueCase{" ", "distroName='' "}, ValueCase{"", ""}));

// 16 bytes of the 1023 that fit are "distroVersion=''", and each quote takes two.
TEST(HostinfoOSData, HasRoomForThatLongAField)
{
    const Outcome outcome = OnSystem({{SYSTEM, {"", std::string(503, '\'') + "x", ""}}}, [] {
        sSystem = "";
        sRelease = "5";
        return Take(Hostinfo_GetOSDetailedData());
    });
    std::string quoted;
    for (int i = 0; i < 503; i++) {
        quoted += "\\'";
    }
    EXPECT_EQ(outcome.result, "architecture='X86' bitness='64' distroVersion='" + quoted + "x" +
                                  "' kernelVersion='5'");
    EXPECT_EQ(outcome.errors, "");
}

TEST(HostinfoOSData, FitsAValueAfterTrimmingItsTrailingBlanks)
{
    const std::string letters(1000, 'v');
    const Outcome outcome = OnSystem({{SYSTEM, CATALINA}}, [&] {
        EXPECT_TRUE(HostinfoOSData());
        return DetailedDataOf({"N", letters + std::string(23, ' '), "B"});
    });
    EXPECT_THAT(outcome.result, testing::HasSubstr(" distroVersion='" + letters + "' "));
    EXPECT_EQ(outcome.errors, "Warning: HostinfoMacOS: Error: buffer too small\n");
}

TEST(HostinfoOSData, DropsOnlyTheDetailsForAnOverlongField)
{
    const std::string version(504, '\'');
    const Outcome outcome = OnSystem({{SYSTEM, {"", version, ""}}}, [] {
        sSystem = "";
        sRelease = "5";
        EXPECT_TRUE(HostinfoOSData());
        return Names() + "|" + Take(Hostinfo_GetOSDetailedData());
    });
    EXPECT_EQ(outcome.result, " " + version + " ()  5|darwin5-64|");
    EXPECT_EQ(outcome.errors,
              "Warning: HostinfoOSDetailedData: Error: detailed data field too large\n");
}

TEST(HostinfoOSData, HasNoDetailsForFarTooManyQuotes)
{
    const Outcome outcome = OnSystem({{SYSTEM, CATALINA}}, [] {
        EXPECT_TRUE(HostinfoOSData());
        return DetailedDataOf({std::string(5000, '\''), "10", "B"});
    });
    EXPECT_EQ(outcome.result, "");
    EXPECT_EQ(outcome.errors,
              "Warning: HostinfoMacOS: Error: buffer too small\n"
              "Warning: HostinfoOSDetailedData: Error: detailed data field too large\n");
}

} // namespace
