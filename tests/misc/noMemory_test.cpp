// Every function of the public headers without memory, and a check that no function is missing
// here.
#include "noMemory.h"

#include "panic.h"
#include "str.h"
#include "util.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <regex>
#include <set>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

static std::vector<NoMemoryCase> &Cases()
{
    static std::vector<NoMemoryCase> cases;
    return cases;
}

bool AddNoMemoryCase(NoMemoryCase row)
{
    Cases().push_back(std::move(row));
    return true;
}

bool HasNoMemoryCase(const std::string &function)
{
    return std::ranges::any_of(Cases(), [&](const auto &row) { return row.function == function; });
}

static void PrintTo(const NoMemoryCase &row, std::ostream *out) { *out << row.function; }

namespace {

// ---- One attempt, in a process of its own

constexpr unsigned STUCK_SECONDS = 60;

enum Outcome { SUCCEEDED = 40, SUCCEEDED_ALL_THE_SAME, FAILED, FAILED_ALL_THE_SAME, WRONG };

[[noreturn]] void RunAttempt(const NoMemoryCase &row, size_t granted, size_t refused)
{
    const ptrdiff_t live = Allocations::Live();
    sAttempt = {granted, refused};
    const bool succeeded = row.attempt();
    const bool showed = sAttempt.showed;
    if (!succeeded) {
        alarm(STUCK_SECONDS); // a lock that was not released would keep it for ever
        sAttempt = {.isSecond = true};
        EXPECT_TRUE(row.attempt()) << "now that there is memory again";
    }
    EXPECT_EQ(Allocations::Live(), live) << "blocks that were lost, or freed twice";
    const Outcome outcome = succeeded ? (showed ? SUCCEEDED_ALL_THE_SAME : SUCCEEDED)
                                      : (showed ? FAILED : FAILED_ALL_THE_SAME);
    fflush(stdout); // prints the failed expectations
    _exit(testing::Test::HasFailure() ? WRONG : outcome);
}

struct Observed {
    int status = -1;
    std::string said;
};
Observed Attempt(const NoMemoryCase &row, size_t granted, size_t refused)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        RunAttempt(row, granted, refused);
    }
    close(ends[1]);
    Observed observed;
    char piece[512];
    for (ssize_t size; (size = read(ends[0], piece, sizeof piece)) > 0;) {
        observed.said.append(piece, static_cast<size_t>(size));
    }
    close(ends[0]);
    EXPECT_EQ(waitpid(child, &observed.status, 0), child);
    return observed;
}

bool HasExited(const Observed &observed, int status)
{
    return WIFEXITED(observed.status) && WEXITSTATUS(observed.status) == status;
}

void ExpectEnding(const Ending &ending, size_t refused, const Observed &observed)
{
    switch (ending.kind) {
    case Ending::RETURNS: EXPECT_TRUE(HasExited(observed, FAILED)) << observed.status; break;
    case Ending::PANICS: EXPECT_TRUE(HasExited(observed, 1)) << observed.status; break;
    case Ending::ABORTS:
        EXPECT_TRUE(WIFSIGNALED(observed.status) && WTERMSIG(observed.status) == SIGABRT)
            << observed.status;
        break;
    }
    EXPECT_EQ(observed.said, refused == 1 ? ending.said : ending.saidWithoutMore);
}

class NoMemory : public testing::TestWithParam<NoMemoryCase> {
protected:
    // The host's converter of floating numbers keeps a block from its first use: that is no leak.
    static void SetUpTestSuite()
    {
        char buffer[16];
        EXPECT_EQ(Str_Snprintf(buffer, sizeof buffer, "%g", 0.5), 3);
    }
};

TEST_P(NoMemory, EndsAsToldWhicheverBlockIsRefused)
{
    const NoMemoryCase &row = GetParam();
    for (const size_t refused : {size_t{1}, SIZE_MAX}) {
        for (size_t granted = 0;; granted++) {
            SCOPED_TRACE("after " + std::to_string(granted) + ", refused " +
                         (refused == 1 ? "one" : "all that follow"));
            const Observed observed = Attempt(row, granted, refused);
            if (HasExited(observed, SUCCEEDED)) { // it needs no further blocks
                EXPECT_EQ(observed.said, "");
                EXPECT_GE(granted, row.endings.size()) << "it does not get to all of its endings";
                break;
            }
            ASSERT_FALSE(row.endings.empty()) << "it is said to need no memory";
            ExpectEnding(row.endings[std::min(granted, row.endings.size() - 1)], refused, observed);
            if (HasFailure()) { return; }
        }
    }
}
INSTANTIATE_TEST_SUITE_P(Each, NoMemory, testing::ValuesIn(Cases()),
                         [](const auto &row) { return row.param.function + row.param.variant; });

// These functions end a process without memory, and never return.
const std::set<std::string> ENDS{"Util_AllocFailure", "Util_AllocFailureAt"};
// These are this program's own functions.
const std::set<std::string> SINKS{"Pelago_Warning", "Pelago_Log", "Pelago_Panic"};

TEST(NoMemoryDeathTest, IsReportedWithoutAny)
{
    const OutOfMemory none;
    EXPECT_PANIC(Util_AllocFailure(), "Unrecoverable memory allocation failure\n");
    EXPECT_PANIC(Util_AllocFailureAt(UTIL_NO_BUG, "lib/x", 7),
                 "Unrecoverable memory allocation failure at lib/x:7\n");
}

// Returns all functions that the public headers declare as Module_Verb or as UnicodeVerb; each
// declaration begins its line.
std::set<std::string> PublicFunctions()
{
    const std::regex declaration(R"(^[A-Za-z][\w ]*[ *]+((?:[A-Za-z]+_|Unicode)\w+)\()");
    std::set<std::string> functions;
    for (const auto &header : std::filesystem::directory_iterator(PELAGO_PUBLIC_HEADERS)) {
        std::ifstream text(header.path());
        std::smatch match;
        for (std::string line; std::getline(text, line);) {
            if (std::regex_search(line, match, declaration)) { functions.insert(match[1]); }
        }
    }
    return functions;
}

TEST(NoMemoryCases, CoverEveryPublicFunction)
{
    std::set<std::string> covered = ENDS;
    covered.insert(SINKS.begin(), SINKS.end());
    for (const NoMemoryCase &row : Cases()) {
        covered.insert(row.function);
    }
    const std::set<std::string> declared = PublicFunctions();
    EXPECT_GT(declared.size(), 90u) << "the headers are read";
    std::vector<std::string> missing;
    std::ranges::set_symmetric_difference(declared, covered, std::back_inserter(missing));
    EXPECT_THAT(missing, testing::IsEmpty());
}

} // namespace
