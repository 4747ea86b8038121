// The operating system's names, and the line of its detailed data.
#include "hostinfo.h"

#include "hostinfoInt.h"
#include "hostinfoOsHost.h"
#include "inChild.h"
#include "panic.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <vector>

using namespace pelago;

namespace {

constexpr char SERVER[] = "/System/Library/CoreServices/ServerVersion.plist";
constexpr char SYSTEM[] = "/System/Library/CoreServices/SystemVersion.plist";
constexpr char NO_PLIST[] = "Log: HostinfoMacOS: Failed to read system version plist.\n";

const Product CATALINA{"Mac OS X", "10.15.7", "19H2"};

// ---- Names and detailed data

// Runs the body in a child, after the lookup of a system with these property lists.
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

// Returns the line after one more lookup, whether or not the lookup succeeded.
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
        sRelease = "20.1.0"; // the short name keeps the earlier version
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

// ---- Names that are too long: at most 511 bytes fit; " 10 (B) Darwin 19.6.0" is 21 of them

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

// At most 1023 bytes fit.  "distroVersion=''" is 16 of them, and each quote takes two.
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
