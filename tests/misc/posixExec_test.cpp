#include "posix.h"

#include "allocations.h"
#include "posixKept.h"
#include "scopedForTests.h"
#include "tellState.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int ALONE = 77;
constexpr char PROGRAM[] = TELL_STATE;
// A name that is found through PATH, for the same program.
constexpr char NAME[] = "tell \xC3\xA9";

// The arguments and the environment of an executed process.
struct Start {
    std::vector<std::string> arguments, environment;
    bool operator==(const Start &) const = default;
};
void PrintTo(const Start &start, std::ostream *out)
{
    *out << testing::PrintToString(start.arguments) << " in "
         << testing::PrintToString(start.environment);
}

std::string ReadAll(int file)
{
    std::string all;
    char piece[4096];
    for (ssize_t size; (size = read(file, piece, sizeof piece)) > 0;) {
        all.append(piece, static_cast<size_t>(size));
    }
    return all;
}

// Returns the arguments and the environment in a child that executes the program.
Start Started(const std::function<void()> &execute)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        execute();
        _exit(100);
    }
    close(ends[1]);
    const State told(ReadAll(ends[0]));
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return Start{told.All("argument"), told.All("variable")};
}

std::vector<std::string> OwnEnvironment()
{
    std::vector<std::string> variables;
    for (char **variable = environ; *variable != nullptr; variable++) {
        variables.push_back(*variable);
    }
    return variables;
}

// Returns this many texts: some with characters beyond ASCII, one with every byte that text can
// have.
std::vector<std::string> Arguments(size_t count)
{
    std::vector<std::string> texts;
    for (size_t i = 0; i < count; i++) {
        texts.push_back("caf\xC3\xA9 " + std::to_string(i));
    }
    if (count > 3) {
        texts[1] = "";
        texts[2] = "-- \n\t\x01'\"\\$*;=";
        texts[3] = "\xF0\x9F\x90\xA7\xEF\xBF\xBD";
    }
    return texts;
}

std::vector<char *> List(const std::vector<std::string> &texts)
{
    std::vector<char *> list;
    for (const std::string &text : texts) {
        list.push_back(const_cast<char *>(text.data())); // the calls do not write to it
    }
    list.push_back(nullptr);
    return list;
}

// A folder that is first in PATH and holds the program.
class SearchedFolder {
public:
    SearchedFolder()
    {
        std::filesystem::create_symlink(PROGRAM, mFolder.Path() + "/" + NAME);
        setenv("PATH", (mFolder.Path() + ":" + mPath).c_str(), 1);
    }
    ~SearchedFolder() { setenv("PATH", mPath.c_str(), 1); }

private:
    const TemporaryFolder mFolder;
    const std::string mPath = getenv("PATH");
};

// ---- Lists

struct ListCase {
    const char *name;
    void (*execute)(char *const argv[]);
};
void PrintTo(const ListCase &row, std::ostream *out) { *out << row.name; }

class PosixExecList : public testing::TestWithParam<ListCase> {
protected:
    const SearchedFolder mFolder;
};

TEST_P(PosixExecList, ArrivesWholeWithTheEnvironment)
{
    setenv("PELAGO_VARIABLE", "\xC3\xA9", 1);
    for (const size_t count : {1, 2, 200}) {
        const std::vector<std::string> texts = Arguments(count);
        const Start start = Started([&] { GetParam().execute(List(texts).data()); });
        EXPECT_EQ(start, (Start{texts, OwnEnvironment()}));
    }
}
INSTANTIATE_TEST_SUITE_P(
    Posix, PosixExecList,
    testing::Values(
        ListCase{"Execv", [](char *const argv[]) { Posix_Execv(PROGRAM, argv); }},
        ListCase{"Execvp", [](char *const argv[]) { Posix_Execvp(PROGRAM, argv); }},
        ListCase{"ExecvpThatSearches", [](char *const argv[]) { Posix_Execvp(NAME, argv); }},
        ListCase{"Execve", [](char *const argv[]) { Posix_Execve(PROGRAM, argv, environ); }}),
    [](const auto &row) { return std::string(row.param.name); });

TEST(PosixExecve, GivesAnEnvironmentOfItsOwn)
{
    for (const size_t count : {0, 1, 200}) {
        const std::vector<std::string> texts = Arguments(2);
        std::vector<std::string> variables;
        for (size_t i = 0; i < count; i++) {
            variables.push_back("\xC3\xA9" + std::to_string(i) + "=\xC3\xBC");
        }
        const Start start =
            Started([&] { Posix_Execve(PROGRAM, List(texts).data(), List(variables).data()); });
        EXPECT_EQ(start, (Start{texts, variables}));
    }
}

// The kernel decides what an empty list of arguments, or no list, means.
TEST(PosixExec, WithoutArgumentsIsAsTheBareCall)
{
    const auto bare = [](char *const *argv, char *const *envp) {
        return Started([&] {
            int (*const volatile call)(const char *, char *const *, char *const *) = execve;
            call(PROGRAM, argv, envp);
        });
    };
    char *none[] = {nullptr};
    EXPECT_EQ(Started([&] { Posix_Execv(PROGRAM, none); }), bare(none, environ));
    EXPECT_EQ(Started([&] { Posix_Execvp(PROGRAM, none); }), bare(none, environ));
    EXPECT_EQ(Started([&] { Posix_Execl(PROGRAM, nullptr, nullptr); }), bare(none, environ));
    EXPECT_EQ(Started([&] { Posix_Execlp(PROGRAM, nullptr, nullptr); }), bare(none, environ));
    EXPECT_EQ(Started([&] { Posix_Execv(PROGRAM, nullptr); }), bare(nullptr, environ));
    EXPECT_EQ(Started([&] { Posix_Execve(PROGRAM, nullptr, none); }), bare(nullptr, none));
    EXPECT_EQ(Started([&] { Posix_Execve(PROGRAM, none, nullptr); }), bare(none, nullptr));
}

// ---- Arguments one by one

#define PELAGO_TEN(a, i)                                                                           \
    a[(i)], a[(i) + 1], a[(i) + 2], a[(i) + 3], a[(i) + 4], a[(i) + 5], a[(i) + 6], a[(i) + 7],    \
        a[(i) + 8], a[(i) + 9]
#define PELAGO_HUNDRED(a, i)                                                                       \
    PELAGO_TEN(a, i), PELAGO_TEN(a, (i) + 10), PELAGO_TEN(a, (i) + 20), PELAGO_TEN(a, (i) + 30),   \
        PELAGO_TEN(a, (i) + 40), PELAGO_TEN(a, (i) + 50), PELAGO_TEN(a, (i) + 60),                 \
        PELAGO_TEN(a, (i) + 70), PELAGO_TEN(a, (i) + 80), PELAGO_TEN(a, (i) + 90)

TEST(PosixExecl, TakesOneArgument)
{
    EXPECT_EQ(Started([] { Posix_Execl(PROGRAM, "\xC3\xA9", nullptr); }),
              (Start{{"\xC3\xA9"}, OwnEnvironment()}));
}

TEST(PosixExecl, TakesTwoHundred)
{
    const std::vector<std::string> texts = Arguments(200);
    const std::vector<char *> a = List(texts);
    EXPECT_EQ(Started([&] {
                  Posix_Execl(PROGRAM, PELAGO_HUNDRED(a, 0), PELAGO_HUNDRED(a, 100), nullptr);
              }),
              (Start{texts, OwnEnvironment()}));
}

TEST(PosixExeclp, PassesTwoHundredArgumentsToASearchedProgram)
{
    const SearchedFolder folder;
    const std::vector<std::string> texts = Arguments(200);
    const std::vector<char *> a = List(texts);
    EXPECT_EQ(
        Started([&] { Posix_Execlp(NAME, PELAGO_HUNDRED(a, 0), PELAGO_HUNDRED(a, 100), nullptr); }),
        (Start{texts, OwnEnvironment()}));
}

TEST(PosixExecl, DoesNotSearch)
{
    const SearchedFolder folder;
    char *argv[] = {nullptr};
    for (const auto &execute :
         std::vector<std::function<int()>>{[] { return Posix_Execl(NAME, "a", nullptr); },
                                           [&] { return Posix_Execv(NAME, argv); },
                                           [&] { return Posix_Execve(NAME, argv, argv); }}) {
        errno = ALONE;
        EXPECT_EQ(execute(), -1);
        EXPECT_EQ(errno, ENOENT);
    }
}

// ---- Failures

struct Failing {
    const char *name;
    int (*execute)(const char *path);
};
class PosixExecFailure : public testing::TestWithParam<Failing> {};

TEST_P(PosixExecFailure, LeavesErrnoAndNoBlocks)
{
    const std::vector<std::pair<const char *, int>> paths = {
        {"/nonexistent/\xC3\xA9", ENOENT}, {"/", EACCES}, {"/dev/null/x", ENOTDIR}};
    for (const auto &[path, error] : paths) {
        const ptrdiff_t before = Allocations::Live();
        errno = ALONE;
        EXPECT_EQ(GetParam().execute(path), -1);
        EXPECT_EQ(errno, error) << path;
        EXPECT_EQ(Allocations::Live(), before);
    }
}

char *sTwo[] = {const_cast<char *>("a"), const_cast<char *>("\xC3\xA9"), nullptr};

INSTANTIATE_TEST_SUITE_P(
    Posix, PosixExecFailure,
    testing::Values(
        Failing{"Execl",
                [](const char *path) { return Posix_Execl(path, "a", "\xC3\xA9", nullptr); }},
        Failing{"Execlp",
                [](const char *path) { return Posix_Execlp(path, "a", "\xC3\xA9", nullptr); }},
        Failing{"Execv", [](const char *path) { return Posix_Execv(path, sTwo); }},
        Failing{"ExecvNull", [](const char *path) { return Posix_Execv(path, nullptr); }},
        Failing{"Execve", [](const char *path) { return Posix_Execve(path, sTwo, sTwo); }},
        Failing{"Execvp", [](const char *path) { return Posix_Execvp(path, sTwo); }}),
    [](const auto &row) { return std::string(row.param.name); });

// The first allocation is for the converted path, the second for the array.
TEST(PosixExecl, FailsWithoutMemoryForItsArray)
{
    for (const auto &execute : {+[] { return Posix_Execl(PROGRAM, "a", "b", nullptr); },
                                +[] { return Posix_Execlp(PROGRAM, "a", "b", nullptr); }}) {
        const ptrdiff_t before = Allocations::Live();
        const OutOfMemory memory(1, 1);
        errno = ALONE;
        EXPECT_EQ(execute(), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_TRUE(memory.Showed());
        EXPECT_EQ(Allocations::LastSize(), 3 * sizeof(char *));
        EXPECT_EQ(Allocations::Live(), before);
    }
}

} // namespace
