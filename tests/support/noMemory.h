// noMemory.h -- declares how each public function ends when an allocation fails.  For the sources
// of noMemory_test, which refuses each allocation of a case: alone, and together with all later
// ones.
//
//    RUNS_OUT(Posix_RealPath, FAILS)
//    {
//        return Gives("/proc", Scarcely([] { return Posix_RealPath("/proc"); }));
//    }
#ifndef PELAGO_TESTS_SUPPORT_NOMEMORY_H
#define PELAGO_TESTS_SUPPORT_NOMEMORY_H

#include "allocations.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

// How a call ends, and all that it writes to standard error.
struct Ending {
    enum Kind { RETURNS, PANICS, ABORTS } kind;
    std::string said;
    std::string saidWithoutMore = said; // when all later allocations are refused, too
};
inline Ending Says(const std::string &text) { return {Ending::RETURNS, text}; }
inline Ending Panics(const std::string &report) { return {Ending::PANICS, "Panic: " + report}; }
inline Ending Panics(const std::string &report, const std::string &reportWithoutMore)
{
    return {Ending::PANICS, "Panic: " + report, "Panic: " + reportWithoutMore};
}
inline const Ending FAILS{Ending::RETURNS, ""};
inline const Ending ABORTS{Ending::ABORTS, ""};
inline const Ending PANICS = Panics("Unrecoverable memory allocation failure\n");
inline const Ending PANICS_AT = Panics("Unrecoverable memory allocation failure at lib/x:7\n");

// The panic about a text that could not be converted; its report contains the text if there is
// memory to escape it.
inline Ending Unconverted(const std::string &escaped, const std::string &from = "UTF-8")
{
    const std::string begin = "Unicode_AllocWithLength: Couldn't convert invalid buffer [",
                      end = "] from " + from + " to Unicode.\n";
    return Panics(begin + escaped + end, begin + "(couldn't escape bytes)" + end);
}

struct NoMemoryCase {
    std::string function, variant;
    std::vector<Ending> endings;
    std::function<bool()> attempt;
};
bool AddNoMemoryCase(NoMemoryCase row);
// Returns whether the function has a case already.
bool HasNoMemoryCase(const std::string &function);

// Declares how a function ends without its first allocation, without its second and so on; the last
// ending is also for all further allocations.  The body that follows is one attempt: it makes the
// call through Scarcely(), and returns whether the call succeeded with the right result.  It
// expects that a failed call changed nothing, and frees what it has made.  After a failure it runs
// again, with memory.
#define RUNS_OUT(function, ...) PELAGO_NO_MEMORY_CASE(function, , __VA_ARGS__)
// Does the same for another case of the function.
#define RUNS_OUT_WHEN(function, variant, ...) PELAGO_NO_MEMORY_CASE(function, variant, __VA_ARGS__)
// Declares a function that allocates nothing.
#define NEEDS_NO_MEMORY(function)               PELAGO_NO_MEMORY_CASE(function, , )
#define NEEDS_NO_MEMORY_WHEN(function, variant) PELAGO_NO_MEMORY_CASE(function, variant, )

#define PELAGO_NO_MEMORY_CASE(function, variant, ...)                                              \
    static bool function##variant##Attempt();                                                      \
    [[maybe_unused]] static const bool function##variant##IsAdded =                                \
        AddNoMemoryCase({#function, #variant, {__VA_ARGS__}, function##variant##Attempt});         \
    static bool function##variant##Attempt()

// The present attempt: how many allocations are granted and how many are then refused.
struct NoMemoryAttempt {
    size_t granted = 0, refused = 0;
    bool showed = false;   // an allocation was refused
    bool isSecond = false; // with memory, after the first attempt failed
};
inline NoMemoryAttempt sAttempt;

// Makes the call under test; only in it are allocations refused.
template <typename Call> auto Scarcely(Call call)
{
    struct Scarcity {
        OutOfMemory memory{sAttempt.granted, sAttempt.refused};
        ~Scarcity() { sAttempt.showed = memory.Showed(); }
    } scarcity;
    return call();
}

// Returns whether the result is not NULL; expects it to be this text then, and frees it.
inline bool Gives(const std::string &expected, void *text)
{
    if (text == nullptr) { return false; }
    EXPECT_EQ(Take(static_cast<char *>(text)), expected);
    return true;
}

// Does the same for a builder, which stores its result's length unless it fails.
template <typename Build> bool Builds(const std::string &expected, Build build)
{
    size_t size = 77;
    char *text = Scarcely([&] { return build(&size); });
    EXPECT_EQ(size, text == nullptr ? 77 : expected.size());
    return Gives(expected, text);
}

inline std::string Times(size_t count, const std::string &text)
{
    std::string result;
    for (size_t i = 0; i < count; i++) {
        result += text;
    }
    return result;
}

#endif // PELAGO_TESTS_SUPPORT_NOMEMORY_H
