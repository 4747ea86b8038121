// The wrappers compared with the bare calls, where the host's encoding is UTF-8.
#include "posixCalls.h"

#include "allocations.h"
#include "inChild.h"
#include "panic.h"
#include "posixFixture.h"
#include "posixKept.h"
#include "useIcu.h"

#include <cstring>
#include <functional>
#include <regex>
#include <set>
#include <string_view>

// The arguments of readlink(), and the function that replaces it when it is set.
static std::vector<size_t> sLinkSizes;
static std::vector<std::string> sLinkPaths;
static std::function<ssize_t(char *buffer, size_t size)> sAnswerLink;
// The mode that popen() received last.
static std::string sGivenMode;
// The path and the descriptor of the file that mkstemp() made.
static std::string sMade;
static int sMadeDescriptor;

extern "C" {
ssize_t __real_readlink(const char *path, char *buffer, size_t size);
ssize_t __wrap_readlink(const char *path, char *buffer, size_t size)
{
    sLinkSizes.push_back(size);
    sLinkPaths.emplace_back(path == nullptr ? "NULL" : path);
    if (sAnswerLink) { return sAnswerLink(buffer, size); }
    if (path == nullptr) { // the kernel takes NULL, a sanitizer's interceptor does not
        errno = EFAULT;
        return -1;
    }
    return __real_readlink(path, buffer, size);
}
FILE *__real_popen(const char *command, const char *mode);
FILE *__wrap_popen(const char *command, const char *mode)
{
    sGivenMode = mode;
    return __real_popen(command, mode);
}
int __real_mkstemp(char *name);
int __wrap_mkstemp(char *name)
{
    const int descriptor = __real_mkstemp(name);
    sMade = name;
    sMadeDescriptor = descriptor;
    return descriptor;
}
}

namespace {

// ---- All wrappers

class EachWrapper : public testing::TestWithParam<Wrapper> {
protected:
    void SetUp() override { umask(0); }
    void TearDown() override { umask(sUmask); }
    const WorkingFolder mFolder;

private:
    static inline const mode_t sUmask = [] {
        const mode_t own = umask(0);
        umask(own);
        return own;
    }();
};

TEST_P(EachWrapper, FailsAsTheBareCallDoes)
{
    const Wrapper &wrapper = GetParam();
    const ptrdiff_t before = Allocations::Live();
    errno = ALONE;
    const CallOutcome outcome = wrapper.wrapped(wrapper.bad.data());
    EXPECT_EQ(Allocations::Live(), before);
    EXPECT_EQ(outcome.error, wrapper.error == 0 ? ALONE : wrapper.error);
    errno = ALONE;
    EXPECT_EQ(outcome, wrapper.bare(wrapper.bad.data()));
}

TEST_P(EachWrapper, HandsOnNull)
{
    const Wrapper &wrapper = GetParam();
    for (size_t i = 0; i < wrapper.bad.size(); i++) {
        if ((wrapper.nullable & 1U << i) == 0) { continue; }
        SCOPED_TRACE(i);
        std::vector<const char *> texts = wrapper.bad;
        texts[i] = nullptr;
        const ptrdiff_t before = Allocations::Live();
        errno = ALONE;
        const CallOutcome outcome = wrapper.wrapped(texts.data());
        EXPECT_EQ(Allocations::Live(), before);
        errno = ALONE;
        EXPECT_EQ(outcome, wrapper.bare(texts.data()));
    }
}
INSTANTIATE_TEST_SUITE_P(Posix, EachWrapper, testing::ValuesIn(Wrappers()), WRAPPER_NAME);

class EachSuccess : public EachWrapper {};

TEST_P(EachSuccess, HasItsEffectAndLeavesErrnoAlone)
{
    const Wrapper &wrapper = GetParam();
    if (std::string_view(wrapper.name).ends_with("Getenv")) { Posix_Getenv(wrapper.good[0]); }
    const ptrdiff_t before = Allocations::Live();
    errno = ALONE;
    const CallOutcome outcome = wrapper.wrapped(wrapper.good.data());
    EXPECT_EQ(Allocations::Live(), before);
    EXPECT_EQ(outcome, SuccessOf(wrapper));
    if (wrapper.effect != nullptr) { EXPECT_TRUE(wrapper.effect()); }
}
INSTANTIATE_TEST_SUITE_P(Posix, EachSuccess, testing::ValuesIn([] {
                             std::vector<Wrapper> wrappers = Wrappers();
                             std::erase_if(wrappers,
                                           [](const Wrapper &row) { return row.good.empty(); });
                             return wrappers;
                         }()),
                         WRAPPER_NAME);

// ---- Commands and messages

using PosixPopen = Posix;
using PosixSystem = Posix;

TEST_F(PosixSystem, RunsTheCommandAndGivesItsStatus)
{
    EXPECT_EQ(Posix_System("test -f 'file \xC3\xA9'"), 0);
    EXPECT_EQ(Posix_System("test -d 'file \xC3\xA9'"), 256);
}

TEST_F(PosixSystem, TellsForNullThatThereIsAShell) { EXPECT_NE(Posix_System(nullptr), 0); }

TEST_F(PosixPopen, ReadsWhatTheCommandWrites)
{
    FILE *output = Posix_Popen("printf %s '\xC3\xA9 \xE2\x82\xAC'; exit 7", "r");
    ASSERT_NE(output, nullptr);
    char text[30] = {};
    EXPECT_STREQ(fgets(text, sizeof text, output), "\xC3\xA9 \xE2\x82\xAC");
    EXPECT_EQ(pclose(output), 7 << 8);
    EXPECT_EQ(sGivenMode, "r");
}

TEST_F(PosixPopen, WritesWhatTheCommandReads)
{
    FILE *input = Posix_Popen("cat >'new \xC3\xBC\xF0\x9F\x90\xA7'", "w");
    ASSERT_NE(input, nullptr);
    EXPECT_EQ(fputs("text", input), 1);
    EXPECT_EQ(pclose(input), 0);
    EXPECT_TRUE(SizeIs(NEW_NAME, 4));
}

TEST_F(PosixPopen, RefusesAModeThatIsNone)
{
    const ptrdiff_t before = Allocations::Live();
    errno = ALONE;
    EXPECT_EQ(Posix_Popen("exit", "q"), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(Allocations::Live(), before);
}

// The complete output for a message with this error, and errno after it.
struct PerrorCase {
    const char *name;
    const char *message;
    std::string written;
};
class PosixPerror : public testing::TestWithParam<PerrorCase> {};

TEST_P(PosixPerror, PrintsAndKeepsErrno)
{
    const PerrorCase &row = GetParam();
    EXPECT_EXIT(
        {
            const ptrdiff_t before = Allocations::Live();
            errno = ENOENT;
            Posix_Perror(row.message);
            _exit(Allocations::Live() == before ? errno : 100);
        },
        testing::ExitedWithCode(ENOENT), testing::StrEq(row.written));
}
INSTANTIATE_TEST_SUITE_P(
    Messages, PosixPerror,
    testing::Values(PerrorCase{"Text", "caf\xC3\xA9", "caf\xC3\xA9: No such file or directory\n"},
                    PerrorCase{"Empty", "", "No such file or directory\n"},
                    PerrorCase{"Null", nullptr, "No such file or directory\n"}),
    [](const auto &row) { return row.param.name; });

// ---- Returned paths

TEST(PosixRealPath, ResolvesLinksAndDots)
{
    const TemporaryFolder folder;
    ASSERT_EQ(mkdir((folder.Path() + "/a").c_str(), 0700), 0);
    ASSERT_EQ(symlink("a", (folder.Path() + "/link").c_str()), 0);
    EXPECT_EQ(Take(Posix_RealPath((folder.Path() + "/link/../link/.").c_str())),
              Take(Posix_RealPath(folder.Path().c_str())) + "/a");
}

TEST(PosixRealPath, KeepsEveryByteOfAName)
{
    const TemporaryFolder folder;
    const std::string name = folder.Path() + "/ caf\xC3\xA9 \n$;";
    ASSERT_EQ(mkdir(name.c_str(), 0700), 0);
    EXPECT_EQ(Take(Posix_RealPath(name.c_str())), name);
}

TEST(PosixRealPath, TellsWhyNot)
{
    const ptrdiff_t before = Allocations::Live();
    errno = ALONE;
    EXPECT_EQ(Posix_RealPath("/nonexistent/file"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    errno = ALONE;
    EXPECT_EQ(Posix_RealPath(nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(Allocations::Live(), before);
}

// Makes a folder so deep that its path has this length; returns the path.
std::string Deep(const std::string &folder, size_t length)
{
    std::string path = folder;
    while (path.size() + 1 < length) {
        const size_t rest = length - path.size() - 1;
        path += "/" + std::string(rest > 202 ? 200 : rest > 200 ? 100 : rest, 'd');
        EXPECT_EQ(mkdir(path.c_str(), 0700), 0) << path.size();
    }
    return path;
}

TEST(PosixRealPath, GivesTheLongestPathThatThereIs)
{
    const TemporaryFolder folder;
    const std::string path = Deep(folder.Path(), PATH_MAX - 1);
    ASSERT_EQ(path.size(), PATH_MAX - 1u);
    EXPECT_EQ(Take(Posix_RealPath(path.c_str())), path);
}

class PosixReadLink : public Posix {
protected:
    void SetUp() override
    {
        sLinkSizes.clear();
        sLinkPaths.clear();
    }
    void TearDown() override { sAnswerLink = nullptr; }
};

TEST_F(PosixReadLink, GivesTheTargetAsItIsWritten)
{
    std::filesystem::create_symlink("..//./\xC3\xA9 ", NEW_NAME);
    EXPECT_EQ(Take(Posix_ReadLink(NEW_NAME)), "..//./\xC3\xA9 ");
    EXPECT_THAT(sLinkSizes, testing::ElementsAre(2048));
}

struct LinkCase {
    size_t length; // the target's length
    std::vector<size_t> sizes;
};
class PosixReadLinkLong : public testing::TestWithParam<LinkCase> {};

TEST_P(PosixReadLinkLong, GrowsUntilTheTargetFits)
{
    const auto &[length, sizes] = GetParam();
    const TemporaryFolder folder;
    const std::string link = folder.Path() + "/link";
    std::string target;
    while (target.size() < length) {
        target += std::to_string(target.size()) + "/";
    }
    target.resize(length);
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    sLinkSizes.clear();
    sLinkPaths.clear();
    const ptrdiff_t before = Allocations::Live();
    errno = ALONE;
    EXPECT_EQ(Take(Posix_ReadLink(link.c_str())), target);
    EXPECT_EQ(errno, ALONE);
    EXPECT_EQ(sLinkSizes, sizes);
    EXPECT_THAT(sLinkPaths, testing::Each(link));
    EXPECT_EQ(Allocations::Live(), before);
}
INSTANTIATE_TEST_SUITE_P(OfTheKernel, PosixReadLinkLong,
                         testing::Values(LinkCase{2047, {2048}}, LinkCase{2048, {2048, 3072}},
                                         LinkCase{2049, {2048, 3072}}, LinkCase{3071, {2048, 3072}},
                                         LinkCase{3072, {2048, 3072, 4096}},
                                         LinkCase{4095, {2048, 3072, 4096}}),
                         [](const auto &row) {
                             return "Length" + std::to_string(row.param.length);
                         });

TEST_F(PosixReadLink, GrowsBeyondWhatThisKernelCanHold)
{
    const std::string target = std::string(4999, 'x') + "y";
    sAnswerLink = [&](char *buffer, size_t size) {
        return static_cast<ssize_t>(target.copy(buffer, size));
    };
    const ptrdiff_t before = Allocations::Live();
    EXPECT_EQ(Take(Posix_ReadLink("any")), target);
    EXPECT_THAT(sLinkSizes, testing::ElementsAre(2048, 3072, 4096, 5120));
    EXPECT_THAT(sLinkPaths, testing::Each("any"));
    EXPECT_EQ(Allocations::Live(), before);
}

TEST_F(PosixReadLink, FailsAlsoWhenTheLinkGoesMeanwhile)
{
    sAnswerLink = [](char *buffer, size_t size) {
        if (sLinkSizes.size() == 2) {
            errno = ENOENT;
            return ssize_t{-1};
        }
        memset(buffer, 'x', size);
        return static_cast<ssize_t>(size);
    };
    const ptrdiff_t before = Allocations::Live();
    errno = ALONE;
    EXPECT_EQ(Posix_ReadLink("any"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(sLinkPaths, testing::ElementsAre("any", "any"));
    EXPECT_EQ(Allocations::Live(), before);
}

TEST_F(PosixReadLink, IsTextOfNothingForAnEmptyTarget)
{
    sAnswerLink = [](char *, size_t) { return ssize_t{0}; };
    EXPECT_EQ(Take(Posix_ReadLink("any")), "");
}

using PosixReadLinkDeathTest = PosixReadLink;

TEST_F(PosixReadLinkDeathTest, EndsTheProcessForAnInvalidTarget)
{
    std::filesystem::create_symlink("caf\xE9", NEW_NAME);
    EXPECT_PANIC(Posix_ReadLink(NEW_NAME), "Unicode_AllocWithLength: Couldn't convert invalid "
                                           "buffer [caf\\xE9] from UTF-8 to Unicode.\n");
}

class PosixMkTemp : public Posix {
protected:
    const std::string mTemplate = mFolder.Path() + "/\xC3\xA9 XXXXXX";
};

TEST_F(PosixMkTemp, MayBeGivenTheNumberOfStandardInput)
{
    const std::string name = InChild([&] {
                                 close(STDIN_FILENO);
                                 return Take(Posix_MkTemp(mTemplate.c_str()));
                             }).result;
    EXPECT_EQ(name.substr(0, name.size() - 6), mTemplate.substr(0, mTemplate.size() - 6));
}
TEST_F(PosixMkTemp, GivesANameOfTheTemplate)
{
    const std::string name = Take(Posix_MkTemp(mTemplate.c_str()));
    EXPECT_EQ(name, sMade);
    EXPECT_EQ(name.size(), mTemplate.size());
    EXPECT_EQ(name.substr(0, name.size() - 6), mTemplate.substr(0, name.size() - 6));
    EXPECT_NE(name, mTemplate);
}

TEST_F(PosixMkTemp, LeavesNoFile)
{
    const std::string name = Take(Posix_MkTemp(mTemplate.c_str()));
    EXPECT_FALSE(std::filesystem::exists(name));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(mFolder.Path()), {}), 4)
        << "those that were there";
}

TEST_F(PosixMkTemp, LeavesNoOpenDescriptor)
{
    Take(Posix_MkTemp(mTemplate.c_str()));
    ASSERT_GE(sMadeDescriptor, 0);
    EXPECT_EQ(fcntl(sMadeDescriptor, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(PosixMkTemp, LeavesTheTemplateErrnoAndMemoryAlone)
{
    const std::string before = mTemplate;
    const ptrdiff_t live = Allocations::Live();
    errno = ALONE;
    Take(Posix_MkTemp(mTemplate.c_str()));
    EXPECT_EQ(errno, ALONE);
    EXPECT_EQ(mTemplate, before);
    EXPECT_EQ(Allocations::Live(), live);
}

TEST_F(PosixMkTemp, GivesAnotherNameEachTime)
{
    EXPECT_NE(Take(Posix_MkTemp(mTemplate.c_str())), Take(Posix_MkTemp(mTemplate.c_str())));
}

TEST_F(PosixMkTemp, FailsWhereNoFileCanBe)
{
    errno = ALONE;
    EXPECT_EQ(Posix_MkTemp("missing/XXXXXX"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(PosixMkTemp, ReplacesTheLastSixOfManyX)
{
    const std::string name = Take(Posix_MkTemp((mFolder.Path() + "/XXXXXXXXX").c_str()));
    EXPECT_THAT(name, testing::StartsWith(mFolder.Path() + "/XXX"));
    EXPECT_EQ(name.size(), mFolder.Path().size() + 10);
    EXPECT_THAT(name, testing::Not(testing::EndsWith("XXXXXX")));
}

TEST_F(PosixMkTemp, NeedsSixXAtTheEnd)
{
    for (const char *name : {"", "/", "/a", "/XXXXX", "/XXXXXXa"}) {
        errno = ALONE;
        EXPECT_EQ(Posix_MkTemp((mFolder.Path() + name).c_str()), nullptr) << name;
        EXPECT_EQ(errno, EINVAL) << name;
    }
}

// ---- Bytes of the host that are not text

constexpr char NO_TEXT[] = "caf\xE9", OF_NO_TEXT[] = "link", VARIABLE_OF_NO_TEXT[] = "PELAGO_NONE";

// A call that finds such bytes, in its two forms, and the text after them in its result.
struct NoTextCase {
    const char *name;
    CallOutcome (*tries)();
    CallOutcome (*plain)();
};
void PrintTo(const NoTextCase &row, std::ostream *out) { *out << row.name; }

class PosixOfNoText : public Posix, public testing::WithParamInterface<NoTextCase> {
protected:
    void SetUp() override
    {
        std::filesystem::create_directory(NO_TEXT);
        std::filesystem::create_symlink(NO_TEXT, OF_NO_TEXT);
        setenv(VARIABLE_OF_NO_TEXT, NO_TEXT, 1);
    }
    void TearDown() override
    {
        CodeSet_DontUseIcu();
        unsetenv(VARIABLE_OF_NO_TEXT);
    }
};
using PosixOfNoTextDeathTest = PosixOfNoText;

TEST_P(PosixOfNoText, TryFormFailsWithAndWithoutIcu)
{
    for (const bool usesIcu : {false, true}) {
        SCOPED_TRACE(usesIcu);
        if (usesIcu) { UseIcu(); }
        GetParam().tries(); // fills the caches
        const ptrdiff_t before = Allocations::Live();
        errno = ALONE;
        EXPECT_EQ(GetParam().tries(), (CallOutcome{"NULL", EILSEQ}));
        EXPECT_EQ(Allocations::Live(), before);
        EXPECT_TRUE(std::filesystem::is_empty(NO_TEXT));
    }
}

TEST_P(PosixOfNoText, IsOtherTextWithIcuOtherwise)
{
    UseIcu();
    EXPECT_THAT(GetParam().plain().result, testing::HasSubstr("caf\xEF\xBF\xBD"));
}

TEST_P(PosixOfNoTextDeathTest, EndsTheProcessWithoutIcuOtherwise)
{
    EXPECT_EXIT(GetParam().plain(), testing::ExitedWithCode(1),
                testing::AllOf(testing::StartsWith("Panic: Unicode_AllocWithLength: Couldn't "
                                                   "convert invalid buffer ["),
                               testing::HasSubstr("caf\\xE9")));
}

const auto NO_TEXT_CASES =
    testing::Values(NoTextCase{"RealPath", [] { return Taken(Posix_TryRealPath(OF_NO_TEXT)); },
                               [] { return Taken(Posix_RealPath(OF_NO_TEXT)); }},
                    NoTextCase{"ReadLink", [] { return Taken(Posix_TryReadLink(OF_NO_TEXT)); },
                               [] { return Taken(Posix_ReadLink(OF_NO_TEXT)); }},
                    NoTextCase{"MkTemp", [] { return Taken(Posix_TryMkTemp("caf\xE9/XXXXXX")); },
                               [] { return Taken(Posix_MkTemp("caf\xE9/XXXXXX")); }},
                    NoTextCase{"Getenv", [] { return Kept(Posix_TryGetenv(VARIABLE_OF_NO_TEXT)); },
                               [] { return Kept(Posix_Getenv(VARIABLE_OF_NO_TEXT)); }});
INSTANTIATE_TEST_SUITE_P(Each, PosixOfNoText, NO_TEXT_CASES, WRAPPER_NAME);
INSTANTIATE_TEST_SUITE_P(Each, PosixOfNoTextDeathTest, NO_TEXT_CASES, WRAPPER_NAME);

// ---- One list

// The wrappers with tests of their own instead of a row: they do not fail as the others do, or take
// no text.
const std::set<std::string> WITHOUT_A_ROW = {
    "Unsupported", "Perror",   "Putenv",    "Getpwnam",  "Getpwuid",  "Getpwent",
    "Endpwent",    "Getgrnam", "GetpwnamR", "GetpwuidR", "GetgrnamR", "Getgrouplist"};

TEST(PosixWrappers, AreAllInTheList)
{
    std::set<std::string> listed = WITHOUT_A_ROW;
    for (const Wrapper &wrapper : Wrappers()) {
        listed.insert(wrapper.name);
    }
    std::ifstream header(PELAGO_PUBLIC_HEADERS "/posix.h");
    const std::regex declaration(R"(^[A-Za-z][\w ]*[ *]+Posix_(\w+)\()");
    std::vector<std::string> missing;
    size_t declared = 0;
    std::smatch match;
    for (std::string line; std::getline(header, line);) {
        if (!std::regex_search(line, match, declaration)) { continue; }
        declared++;
        if (!listed.contains(match[1])) { missing.push_back(match[1]); }
    }
    EXPECT_GT(declared, 50u) << "the header is read";
    EXPECT_THAT(missing, testing::IsEmpty()) << "each needs a row in posixCalls.h";
}

} // namespace
