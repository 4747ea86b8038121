#include "util.h"

#include "allocations.h"
#include "panic.h"
#include "scopedForTests.h"

#include <cctype>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <pwd.h>
#include <string>
#include <unistd.h>
#include <vector>

// ---- The user database and Log, replaced

namespace {

// The record of every user.  Its strings become invalid when the database is closed.
struct UserDatabase {
    bool hasRecord = true, hasName = true, hasHome = true;
    std::string name = "ann", home = "/home/ann";
    passwd record = {};
    std::vector<std::string> lookups; // the names; "" for this process's own user
    int closed = 0;

    passwd *Find(const char *user)
    {
        lookups.emplace_back(user);
        record.pw_name = hasName ? name.data() : nullptr;
        record.pw_dir = hasHome ? home.data() : nullptr;
        return hasRecord ? &record : nullptr;
    }
    void Close()
    {
        closed++;
        memset(name.data(), '?', name.size());
        memset(home.data(), '?', home.size());
    }
};
UserDatabase sUsers;
constexpr uid_t REAL_USER = 4000000001; // for any effective user
bool sIsSetUserId;
std::string sLogged;

} // namespace

extern "C" {
uid_t __wrap_getuid() { return REAL_USER; }
passwd *__wrap_getpwnam(const char *name) { return sUsers.Find(name); }
passwd *__wrap_getpwuid(uid_t uid)
{
    EXPECT_EQ(uid, REAL_USER);
    return sUsers.Find("");
}
void __wrap_endpwent() { sUsers.Close(); }
int __wrap_issetugid() { return sIsSetUserId ? 1 : 0; }
void __attribute__((format(printf, 1, 2))) __wrap_Pelago_Log(const char *format, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    EXPECT_LT(length, static_cast<int>(sizeof text));
    sLogged += text;
}
}

namespace {

std::string Times(size_t count, const std::string &text)
{
    std::string result;
    for (size_t i = 0; i < count; i++) {
        result += text;
    }
    return result;
}

std::string Expand(const std::string &text) { return Take(Util_ExpandString(text.c_str())); }

void Set(const char *name, const char *value) { ASSERT_EQ(setenv(name, value, 1), 0); }

// Overrides the home directory until the end of the block.
class HomeOverride {
public:
    explicit HomeOverride(const char *directory) : mKept(Util_OverrideHomeDir(directory)) {}
    HomeOverride(const HomeOverride &) = delete;
    HomeOverride &operator=(const HomeOverride &) = delete;
    ~HomeOverride()
    {
        EXPECT_EQ(Util_OverrideHomeDir(nullptr), nullptr);
        free(const_cast<char *>(mKept));
    }
    const char *Kept() const { return mKept; }

private:
    const char *mKept;
};

// The environment holds only HOME, A and what a test adds.
class UtilExpand : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(clearenv(), 0);
        Set("HOME", "/u");
        Set("A", "1");
        sUsers = {};
        sIsSetUserId = false;
        sLogged.clear();
        mBefore = Allocations::Live();
    }
    void TearDown() override { EXPECT_EQ(Allocations::Live(), mBefore) << "nothing is left"; }

private:
    ptrdiff_t mBefore = 0;
};
using UtilExpandDeathTest = UtilExpand;

// ---- The expansions

struct ExpandCase {
    const char *name, *in, *out;
    std::string log = "";
};
void PrintTo(const ExpandCase &row, std::ostream *out) { *out << row.in; }
class UtilExpandText : public UtilExpand, public testing::WithParamInterface<ExpandCase> {};
TEST_P(UtilExpandText, BecomesThisAndLogsThis)
{
    Set("EMPTY", "");
    Set("1", "one");
    Set("_x_9Z", "underscore");
    Set("NESTED", "$A~$NOPE");
    EXPECT_EQ(Expand(GetParam().in), GetParam().out);
    EXPECT_EQ(sLogged, GetParam().log);
}
std::string NotDefined(const std::string &name, const std::string &string)
{
    return "Environment variable '" + name + "' not defined in '" + string + "'.\n";
}
INSTANTIATE_TEST_SUITE_P(
    Plain, UtilExpandText,
    testing::Values(ExpandCase{"Nothing", "abc", "abc"}, ExpandCase{"Empty", "", ""},
                    ExpandCase{"TildeLater", "a~", "a~"}, ExpandCase{"Dollar", "$", "$"},
                    ExpandCase{"DollarAtTheEnd", "a$", "a$"}, ExpandCase{"Dollars", "$$", "$$"},
                    ExpandCase{"DollarAndText", "$/x", "$/x"},
                    ExpandCase{"Braces", "${HOME}", "${HOME}"},
                    ExpandCase{"Command", "$(HOME)", "$(HOME)"}),
    [](const auto &row) { return row.param.name; });
INSTANTIATE_TEST_SUITE_P(
    Variable, UtilExpandText,
    testing::Values(ExpandCase{"Home", "$HOME/x", "/u/x"}, ExpandCase{"Alone", "$A", "1"},
                    ExpandCase{"AtTheEnd", "a/$A", "a/1"}, ExpandCase{"InARow", "$A$A", "11"},
                    ExpandCase{"BehindADollar", "$$A", "$1"},
                    ExpandCase{"BeforeADollar", "$A$", "1$"}, ExpandCase{"OfDigits", "$1", "one"},
                    ExpandCase{"OfAllKinds", "$_x_9Z", "underscore"},
                    ExpandCase{"OfNothing", "a$EMPTY/$EMPTY", "a/"},
                    ExpandCase{"InBraces", "{$A}", "{1}"},
                    ExpandCase{"ValueStaysAsItIs", "$NESTED", "$A~$NOPE"},
                    ExpandCase{"ValueMakesNoTilde", "$A~/x", "1~/x"},
                    ExpandCase{"BehindATildeInside", "$A~$A/", "1~1/"}),
    [](const auto &row) { return row.param.name; });
INSTANTIATE_TEST_SUITE_P(
    NameEndsAt, UtilExpandText,
    testing::Values(ExpandCase{"Slash", "$A/b", "1/b"}, ExpandCase{"Colon", "$A:b", "1:b"},
                    ExpandCase{"At", "$A@b", "1@b"}, ExpandCase{"Bracket", "$A[b", "1[b"},
                    ExpandCase{"Caret", "$A^b", "1^b"}, ExpandCase{"Backquote", "$A`b", "1`b"},
                    ExpandCase{"Brace", "$A{b", "1{b"}, ExpandCase{"Hyphen", "$A-b", "1-b"},
                    ExpandCase{"Blank", "$A b", "1 b"},
                    ExpandCase{"OtherLetters", "$A\xC3\xA9", "1\xC3\xA9"}),
    [](const auto &row) { return row.param.name; });
INSTANTIATE_TEST_SUITE_P(
    Unknown, UtilExpandText,
    testing::Values(ExpandCase{"Variable", "$NOPE/x", "/x", NotDefined("NOPE", "$NOPE/x")},
                    ExpandCase{"InAnotherCase", "$a", "", NotDefined("a", "$a")},
                    ExpandCase{"LongerThanAKnownOne", "$AA", "", NotDefined("AA", "$AA")},
                    ExpandCase{"LongerThanPid", "$PIDS", "", NotDefined("PIDS", "$PIDS")},
                    ExpandCase{"LongerThanUser", "$USERS", "", NotDefined("USERS", "$USERS")},
                    ExpandCase{"ShorterThanUser", "$USE", "", NotDefined("USE", "$USE")},
                    ExpandCase{"OneAfterTheOther", "~/$B$A$C%s", "/home/ann/1%s",
                               NotDefined("B", "~/$B$A$C%s") + NotDefined("C", "~/$B$A$C%s")}),
    [](const auto &row) { return row.param.name; });
INSTANTIATE_TEST_SUITE_P(Tilde, UtilExpandText,
                         testing::Values(ExpandCase{"Alone", "~", "/home/ann"},
                                         ExpandCase{"Slash", "~/", "/home/ann/"},
                                         ExpandCase{"Path", "~/x/~", "/home/ann/x/~"},
                                         ExpandCase{"Variables", "~/$A/$A", "/home/ann/1/1"},
                                         ExpandCase{"User", "~ann", "/home/ann"},
                                         ExpandCase{"UsersPath", "~ann/x", "/home/ann/x"},
                                         ExpandCase{"UsersVariable", "~ann/$A", "/home/ann/1"}),
                         [](const auto &row) { return row.param.name; });

TEST_F(UtilExpand, ReadsNamesOfAsciiLettersDigitsAndUnderscores)
{
    for (int byte = 1; byte < 256; byte++) {
        const char c = static_cast<char>(byte);
        const bool isOfName = strchr("ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz"
                                     "0123456789",
                                     c) != nullptr;
        const std::string longer = std::string("A") + c + "Z";
        if (isOfName) { Set(longer.c_str(), "longer"); }
        EXPECT_EQ(Expand("$" + longer), isOfName   ? "longer"
                                        : c == '$' ? "1"
                                                   : std::string("1") + c + "Z")
            << byte;
    }
}

TEST_F(UtilExpand, GivesAPlainTextInACopy)
{
    const std::string text = "abc";
    char *copy = Util_ExpandString(text.c_str());
    EXPECT_NE(copy, text.c_str());
    EXPECT_EQ(Take(copy), "abc");
}

// ---- Process and user

struct OwnCase {
    const char *name;
    bool isPid;
};
class UtilExpandOwn : public UtilExpand, public testing::WithParamInterface<OwnCase> {
protected:
    static std::string Value() { return GetParam().isPid ? std::to_string(getpid()) : "ann"; }
};
TEST_P(UtilExpandOwn, IsKnownWithoutAVariable)
{
    EXPECT_EQ(Expand(std::string("a$") + GetParam().name + "/b"), "a" + Value() + "/b");
    EXPECT_EQ(sLogged, "");
}
TEST_P(UtilExpandOwn, YieldsToAVariable)
{
    Set(GetParam().name, "v");
    EXPECT_EQ(Expand(std::string("$") + GetParam().name), "v");
    EXPECT_EQ(sUsers.lookups.size(), 0u);
}
TEST_P(UtilExpandOwn, YieldsToAVariableWithoutValue)
{
    Set(GetParam().name, "");
    EXPECT_EQ(Expand(std::string("$") + GetParam().name), "");
}
TEST_P(UtilExpandOwn, IgnoresAVariableInAnotherCase)
{
    Set(GetParam().isPid ? "pID" : "uSER", "v");
    EXPECT_EQ(Expand(std::string("$") + GetParam().name), Value());
}
INSTANTIATE_TEST_SUITE_P(Name, UtilExpandOwn,
                         testing::Values(OwnCase{"PID", true}, OwnCase{"pid", true},
                                         OwnCase{"Pid", true}, OwnCase{"USER", false},
                                         OwnCase{"user", false}, OwnCase{"UsEr", false}),
                         [](const auto &row) { return row.param.name; });

TEST_F(UtilExpand, LooksUpItsUserAndClosesTheDatabase)
{
    EXPECT_EQ(Expand("$USER"), "ann");
    EXPECT_EQ(sUsers.lookups, std::vector<std::string>{""});
    EXPECT_EQ(sUsers.closed, 1);
}

TEST_F(UtilExpand, CallsAUserWithoutRecordUnknown)
{
    sUsers.hasRecord = false;
    EXPECT_EQ(Expand("$USER"), "unknown");
    EXPECT_EQ(sUsers.closed, 1);
    EXPECT_EQ(sLogged, "");
}

TEST_F(UtilExpand, CallsAUserWithoutNameUnknown)
{
    sUsers.hasName = false;
    EXPECT_EQ(Expand("$USER"), "unknown");
    EXPECT_EQ(sUsers.closed, 1);
    EXPECT_EQ(sLogged, "");
}

// In a Turkish locale the C library's lower case of I is another letter.
TEST_F(UtilExpand, KnowsPidInAnyCaseWhateverTheLocale)
{
    const TemporaryFolder folder;
    const std::string make =
        "localedef -f ISO-8859-9 -i tr_TR " + folder.Path() + "/tr_TR >/dev/null 2>&1";
    ASSERT_EQ(system(make.c_str()), 0);
    Set("LOCPATH", folder.Path().c_str());
    ASSERT_NE(setlocale(LC_ALL, "tr_TR"), nullptr);
    ASSERT_NE(tolower('I'), 'i') << "the locale that is meant";
    const std::string number = std::to_string(getpid());
    for (const char *name : {"$PID", "$pid", "$Pid", "$pId"}) {
        EXPECT_EQ(Expand(name), number) << name;
    }
    setlocale(LC_ALL, "C");
    EXPECT_EQ(sLogged, "");
}

TEST_F(UtilExpand, InsertsInvalidBytesUnchanged)
{
    Set("BYTES", "caf\xE9");
    sUsers.home = "/home/\xFF";
    EXPECT_EQ(Expand("~/$BYTES"), "/home/\xFF/caf\xE9");
    sUsers.name = "\xFE";
    EXPECT_EQ(Expand("$USER"), "\xFE");
    sUsers.hasRecord = false;
    Set("HOME", "/h\xE9");
    EXPECT_EQ(Expand("~/x"), "/h\xE9/x");
    Set("CFFIXED_USER_HOME", "/f\xE9");
    EXPECT_EQ(Expand("~/\x80"), "/f\xE9/\x80");
}

// ---- Homes

TEST_F(UtilExpand, LooksUpTheUserBehindTheTilde)
{
    Expand("~bob/x");
    EXPECT_EQ(sUsers.lookups, std::vector<std::string>{"bob"});
    EXPECT_EQ(sUsers.closed, 1);
}

TEST_F(UtilExpand, LooksUpItsUserForABareTilde)
{
    Expand("~/x");
    EXPECT_EQ(sUsers.lookups, std::vector<std::string>{""});
    EXPECT_EQ(sUsers.closed, 1);
}

TEST_F(UtilExpand, TakesAHomeThatIsEmpty)
{
    sUsers.home = "";
    EXPECT_EQ(Expand("~/x"), "/x");
    EXPECT_EQ(sLogged, "");
}

TEST_F(UtilExpand, LeavesAnUnknownUser)
{
    sUsers.hasRecord = false;
    EXPECT_EQ(Expand("~nosuchuser/x"), "~nosuchuser/x");
    EXPECT_EQ(sLogged, "Could not get passwd for user 'nosuchuser'.\n");
    EXPECT_EQ(sUsers.closed, 1);
}

TEST_F(UtilExpand, ExpandsNoVariableInATildesUserName)
{
    sUsers.hasRecord = false;
    EXPECT_EQ(Expand("~$A/$A"), "~$A/1");
    EXPECT_EQ(sUsers.lookups, std::vector<std::string>{"$A"});
    EXPECT_EQ(sLogged, "Could not get passwd for user '$A'.\n");
}

struct NoHomeCase {
    const char *name, *text;
};
class UtilExpandWithoutHome : public UtilExpand, public testing::WithParamInterface<NoHomeCase> {};
TEST_P(UtilExpandWithoutHome, LeavesTheTilde)
{
    sUsers.hasHome = false;
    EXPECT_EQ(Expand(GetParam().text), GetParam().text);
    EXPECT_EQ(sLogged, "Could not get home directory for user.\n");
    EXPECT_EQ(sUsers.closed, 1);
}
INSTANTIATE_TEST_SUITE_P(Of, UtilExpandWithoutHome,
                         testing::Values(NoHomeCase{"ItsOwnUser", "~/x"},
                                         NoHomeCase{"AnotherUser", "~bob/x"}),
                         [](const auto &row) { return row.param.name; });

TEST_F(UtilExpand, UsesTheHomeVariableWithoutAUserRecord)
{
    sUsers.hasRecord = false;
    EXPECT_EQ(Expand("~/x"), "/u/x");
    EXPECT_EQ(sLogged, "Could not get passwd for current user.\n");
    EXPECT_EQ(sUsers.closed, 1);
}

TEST_F(UtilExpand, LeavesTheTildeWithoutRecordAndHome)
{
    sUsers.hasRecord = false;
    unsetenv("HOME");
    EXPECT_EQ(Expand("~/x"), "~/x");
    EXPECT_EQ(sLogged, "Could not get passwd for current user.\n"
                       "Could not expand environment variable HOME.\n");
    EXPECT_EQ(sUsers.closed, 1);
}

TEST_F(UtilExpand, PrefersTheFixedHomeOfTheEnvironment)
{
    Set("CFFIXED_USER_HOME", "/fixed");
    EXPECT_EQ(Expand("~/x"), "/fixed/x");
    EXPECT_EQ(sUsers.lookups.size(), 0u);
    EXPECT_EQ(sUsers.closed, 1);
    EXPECT_EQ(sLogged, "");
}

TEST_F(UtilExpand, TakesAFixedHomeThatIsEmpty)
{
    Set("CFFIXED_USER_HOME", "");
    EXPECT_EQ(Expand("~/x"), "/x");
}

TEST_F(UtilExpand, HasNoFixedHomeForAnotherUser)
{
    Set("CFFIXED_USER_HOME", "/fixed");
    EXPECT_EQ(Expand("~bob/x"), "/home/ann/x");
}

TEST_F(UtilExpand, IgnoresAFixedHomeUnderSetUserId)
{
    Set("CFFIXED_USER_HOME", "/fixed");
    sIsSetUserId = true;
    EXPECT_EQ(Expand("~/x"), "/home/ann/x");
}

TEST_F(UtilExpand, TakesAnOverriddenHomeForEveryone)
{
    const HomeOverride home("/over");
    Set("CFFIXED_USER_HOME", "/fixed");
    EXPECT_EQ(Expand("~/x"), "/over/x");
    EXPECT_EQ(Expand("~"), "/over");
    EXPECT_EQ(Expand("~bob/x"), "/over/x");
    EXPECT_EQ(Expand("~$A/$A"), "/over/1");
    EXPECT_EQ(sUsers.lookups.size(), 0u);
    EXPECT_EQ(sLogged, "");
}

TEST_F(UtilExpand, LeavesAHomeThatLooksLikeAVariable)
{
    const HomeOverride home("$A");
    EXPECT_EQ(Expand("~/$A"), "$A/1");
}

TEST_F(UtilExpand, TakesAnOverriddenHomeThatIsEmpty)
{
    const HomeOverride home("");
    EXPECT_EQ(Expand("~/x"), "/x");
}

TEST_F(UtilExpand, KeepsACopyOfAnOverriddenHome)
{
    std::string directory = "/over";
    const HomeOverride home(directory.c_str());
    EXPECT_NE(home.Kept(), directory.c_str());
    EXPECT_STREQ(home.Kept(), "/over");
    directory = "/gone";
    EXPECT_EQ(Expand("~"), "/over");
}

TEST_F(UtilExpand, KeepsEarlierOverriddenHomes)
{
    const HomeOverride first("/first"), second("/second");
    EXPECT_STREQ(first.Kept(), "/first");
    EXPECT_EQ(Expand("~"), "/second");
}

TEST_F(UtilExpand, LooksHomesUpAgainWithoutAnOverriddenOne)
{
    {
        const HomeOverride home("/over");
    }
    EXPECT_EQ(Expand("~"), "/home/ann");
}

TEST_F(UtilExpandDeathTest, HasToHaveTheOverriddenHome)
{
    EXPECT_PANIC(
        {
            const OutOfMemory none;
            Util_OverrideHomeDir("/over");
        },
        "Unrecoverable memory allocation failure\n");
}

// ---- The number of pieces

struct PiecesCase {
    const char *name;
    std::string in, out; // of 100 pieces
    std::string more;    // one piece
};
class UtilExpandPieces : public UtilExpand, public testing::WithParamInterface<PiecesCase> {};
TEST_P(UtilExpandPieces, AreExpandedUpToAHundred)
{
    EXPECT_EQ(Expand(GetParam().in), GetParam().out);
    EXPECT_EQ(sLogged, "");
}
TEST_P(UtilExpandPieces, AreTooManyAboveAHundred)
{
    const std::string text = GetParam().in + GetParam().more;
    EXPECT_EQ(Util_ExpandString(text.c_str()), nullptr);
    EXPECT_EQ(sLogged, "Util_ExpandString: Filename \"" + text + "\" has too many chunks.\n");
    EXPECT_EQ(sUsers.lookups.size(), 0u);
}
INSTANTIATE_TEST_SUITE_P(
    Of, UtilExpandPieces,
    testing::Values(PiecesCase{"Variables", Times(100, "$A"), Times(100, "1"), "$A"},
                    PiecesCase{"VariablesAndText", Times(100, "$A"), Times(100, "1"), "/"},
                    PiecesCase{"Unknown", Times(100, "$A"), Times(100, "1"), "$NOPE"},
                    PiecesCase{"Dollars", Times(100, "$"), Times(100, "$"), "$"},
                    PiecesCase{"Both", Times(50, "/b$A"), Times(50, "/b1"), "/"},
                    PiecesCase{"TextAtBothEnds", "ab" + Times(49, "$A/") + "$A",
                               "ab" + Times(49, "1/") + "1", "/b"},
                    PiecesCase{"Tilde", "~/" + Times(98, "$A"), "/home/ann/" + Times(98, "1"),
                               "$A"},
                    PiecesCase{"TildeOfAUser", "~$A$A/" + Times(49, "$A/"),
                               "/home/ann/" + Times(49, "1/"), "$A"}),
    [](const auto &row) { return row.param.name; });

TEST_F(UtilExpand, TakesALongTextForOnePiece)
{
    const std::string text(100000, '/');
    EXPECT_TRUE(Expand(text + "$A" + text) == text + "1" + text);
}

// ---- Without memory

struct ScarceCase {
    const char *name, *text;
    size_t granted;
    std::string log;
};
class UtilExpandScarce : public UtilExpand, public testing::WithParamInterface<ScarceCase> {};
TEST_P(UtilExpandScarce, GivesNothingAndSaysWhy)
{
    const OutOfMemory once(GetParam().granted, 1);
    EXPECT_EQ(Util_ExpandString(GetParam().text), nullptr);
    EXPECT_EQ(sLogged, GetParam().log);
    EXPECT_EQ(sUsers.closed, static_cast<int>(sUsers.lookups.size()));
}
std::string ScarceForWhole(const std::string &text)
{
    return "Util_ExpandString: Cannot allocate memory for the expansion of \"" + text + "\".\n";
}
std::string ScarceForDollar(const std::string &text)
{
    return "Util_ExpandString: Cannot allocate memory to expand $ in \"" + text + "\".\n";
}
INSTANTIATE_TEST_SUITE_P(
    For, UtilExpandScarce,
    testing::Values(ScarceCase{"Plain", "abc", 0, ScarceForWhole("abc")},
                    ScarceCase{"Copy", "~/$A", 0, ScarceForWhole("~/$A")},
                    ScarceCase{"Home", "~/$A", 1, ScarceForWhole("~/$A")},
                    ScarceCase{"UsersHome", "~bob/$A", 1, ScarceForWhole("~bob/$A")},
                    ScarceCase{"Value", "~/$A", 2, ScarceForDollar("~/$A")},
                    ScarceCase{"Result", "~/$A", 3, ScarceForWhole("~/$A")},
                    ScarceCase{"SecondValue", "$A/$A", 2, ScarceForDollar("$A/$A")},
                    ScarceCase{"Pid", "a$PID", 1, ScarceForDollar("a$PID")},
                    ScarceCase{"User", "a$USER", 1, ScarceForDollar("a$USER")},
                    ScarceCase{"Unknown", "a$NOPE", 1,
                               NotDefined("NOPE", "a$NOPE") + ScarceForDollar("a$NOPE")}),
    [](const auto &row) { return row.param.name; });

TEST_F(UtilExpand, NeedsMemoryForAnOverriddenHome)
{
    const HomeOverride home("/over");
    const OutOfMemory once(1, 1);
    EXPECT_EQ(Util_ExpandString("~/$A"), nullptr);
    EXPECT_EQ(sLogged, ScarceForWhole("~/$A"));
}

TEST_F(UtilExpand, NeedsMemoryForAHomeFromTheEnvironment)
{
    sUsers.hasRecord = false;
    const OutOfMemory once(1, 1);
    EXPECT_EQ(Util_ExpandString("~/$A"), nullptr);
    EXPECT_EQ(sLogged, "Could not get passwd for current user.\n" + ScarceForWhole("~/$A"));
    EXPECT_EQ(sUsers.closed, 1);
}

TEST_F(UtilExpand, AsksForNoMoreThanTheResultNeeds)
{
    const auto sizes = Allocations::SizesIn([] { EXPECT_EQ(Expand("a$A/$HOME"), "a1//u"); });
    EXPECT_EQ(sizes.back(), strlen("a1//u") + 1);
}

} // namespace
