// The wrappers of the C library's calls for text, without memory.
#include "noMemory.h"

#include "posixCalls.h"
#include "unicode.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <utility>
#include <vector>

// Standard error carries the process's last message, so perror()'s messages go here.
static std::string sMessage;
extern "C" void __wrap_perror(const char *message) { sMessage = message; }
// This template always produces the same name; no file is made.
static constexpr char TEMPLATE[] = "/tmp/XXXXXX";
extern "C" {
int __real_mkstemp(char *name);
int __wrap_mkstemp(char *name)
{
    if (strcmp(name, TEMPLATE) != 0) { return __real_mkstemp(name); }
    memcpy(name + strlen(name) - 6, "unique", 6);
    return open("/dev/null", O_RDWR);
}
}

namespace {

// Looks up the names of the encodings that conversions use, and forgets them afterwards.
bool WithNames(const std::function<bool()> &attempt)
{
    EXPECT_EQ(Unicode_GetCurrentEncoding(), STRING_ENCODING_UTF_8);
    EXPECT_EQ(UnicodeIANALookup("UTF-8"), STRING_ENCODING_UTF_8);
    const bool succeeded = attempt();
    Unicode_Shutdown();
    return succeeded;
}

// Returns whether the call is made, and fails because there is no such file.
template <typename Call> bool Misses(Call call)
{
    errno = 0;
    return WithNames([&] { return Scarcely(call) == decltype(call())(-1) && errno == ENOENT; });
}
template <typename Call> bool MissesAndGivesNull(Call call)
{
    errno = 0;
    return WithNames([&] { return Scarcely(call) == nullptr && errno == ENOENT; });
}

NEEDS_NO_MEMORY(Posix_Unsupported)
{
    return Scarcely([] { return Posix_Unsupported(MISSING); }) == -1;
}

// ---- Returned paths

RUNS_OUT(Posix_RealPath, PANICS, Unconverted("/dev/null"))
{
    return WithNames(
        [] { return Gives("/dev/null", Scarcely([] { return Posix_RealPath("/dev/./null"); })); });
}

RUNS_OUT(Posix_ReadLink, PANICS, PANICS, Unconverted("/proc/self/fd"))
{
    return WithNames(
        [] { return Gives("/proc/self/fd", Scarcely([] { return Posix_ReadLink("/dev/fd"); })); });
}

RUNS_OUT_WHEN(Posix_ReadLink, OfAFile, PANICS, PANICS)
{
    return MissesAndGivesNull([] { return Posix_ReadLink(MISSING); });
}

RUNS_OUT(Posix_MkTemp, PANICS, Unconverted("/tmp/unique"))
{
    return WithNames(
        [] { return Gives("/tmp/unique", Scarcely([] { return Posix_MkTemp(TEMPLATE); })); });
}

RUNS_OUT(Posix_TryRealPath, PANICS, FAILS)
{
    return WithNames([] {
        return Gives("/dev/null", Scarcely([] { return Posix_TryRealPath("/dev/./null"); }));
    });
}

RUNS_OUT(Posix_TryReadLink, PANICS, PANICS, FAILS)
{
    return WithNames([] {
        return Gives("/proc/self/fd", Scarcely([] { return Posix_TryReadLink("/dev/fd"); }));
    });
}

RUNS_OUT(Posix_TryMkTemp, PANICS, FAILS)
{
    return WithNames(
        [] { return Gives("/tmp/unique", Scarcely([] { return Posix_TryMkTemp(TEMPLATE); })); });
}

// ---- Processes

RUNS_OUT(Posix_Execl, PANICS, FAILS, PANICS)
{
    return Misses([] { return Posix_Execl(MISSING, "a", "b", nullptr); });
}
RUNS_OUT(Posix_Execlp, PANICS, FAILS, PANICS)
{
    return Misses([] { return Posix_Execlp(MISSING, "a", "b", nullptr); });
}
RUNS_OUT(Posix_System, PANICS)
{
    return WithNames([] { return Scarcely([] { return Posix_System("exit 3"); }) == 3 << 8; });
}
RUNS_OUT(Posix_Popen, PANICS)
{
    return WithNames([] {
        FILE *stream = Scarcely([] { return Posix_Popen("exit 3", "r"); });
        return stream != nullptr && pclose(stream) == 3 << 8;
    });
}

RUNS_OUT(Posix_Perror, PANICS)
{
    return WithNames([] {
        sMessage = "";
        Scarcely([] { Posix_Perror("message"); });
        return sMessage == "message";
    });
}

// ---- The environment

// Posix_Getenv() keeps six blocks, which here replace these six, so that the number of blocks stays
// the same.
void *sPlaces[6] = {malloc(1), malloc(1), malloc(1), malloc(1), malloc(1), malloc(1)};

RUNS_OUT(Posix_Getenv, PANICS, Unconverted("value"))
{
    return WithNames([] {
        setenv("PELAGO_KEPT", "value", 1);
        const char *kept = Posix_Getenv("PELAGO_KEPT");
        for (void *&place : sPlaces) {
            free(std::exchange(place, nullptr));
        }
        return Scarcely([] { return Posix_Getenv("PELAGO_KEPT"); }) == kept;
    });
}

RUNS_OUT(Posix_TryGetenv, PANICS, FAILS)
{
    return WithNames([] {
        setenv("PELAGO_KEPT", "value", 1);
        const char *kept = Posix_TryGetenv("PELAGO_KEPT");
        for (void *&place : sPlaces) {
            free(std::exchange(place, nullptr));
        }
        return Scarcely([] { return Posix_TryGetenv("PELAGO_KEPT"); }) == kept;
    });
}

RUNS_OUT(Posix_Setenv, PANICS)
{
    return WithNames([] {
        return Scarcely([] { return Posix_Setenv("PELAGO_SET", "value", 1); }) == 0 &&
               getenv("PELAGO_SET") == std::string("value");
    });
}

RUNS_OUT(Posix_Unsetenv, PANICS)
{
    return WithNames([] {
        setenv("PELAGO_SET", "value", 1);
        return Scarcely([] { return Posix_Unsetenv("PELAGO_SET"); }) == 0 &&
               getenv("PELAGO_SET") == nullptr;
    });
}

NEEDS_NO_MEMORY(Posix_Putenv)
{
    static char entry[] = "PELAGO_PUT=value";
    return Scarcely([] { return Posix_Putenv(entry); }) == 0 && getenv("PELAGO_PUT") == entry + 11;
}

// ---- All other wrappers: those with a row in posixCalls.h and no case above

// Makes the call with texts that it fails for; returns whether it failed as the bare call does.
bool FailsAsTheBareCall(const Wrapper &wrapper)
{
    const WorkingFolder folder;
    const CallOutcome expected = wrapper.bare(wrapper.bad.data());
    return WithNames(
        [&] { return Scarcely([&] { return wrapper.wrapped(wrapper.bad.data()); }) == expected; });
}

[[maybe_unused]] const bool sAllOthersAreAdded = [] {
    std::vector<NoMemoryCase> cases;
    for (const Wrapper &wrapper : Wrappers()) {
        const std::string name = std::string("Posix_") + wrapper.name;
        const std::string function = name.substr(0, name.find('_', strlen("Posix_")));
        if (wrapper.bad.empty() || HasNoMemoryCase(function)) { continue; }
        cases.push_back({function, name.substr(function.size()), {PANICS}, [wrapper] {
                             return FailsAsTheBareCall(wrapper);
                         }});
    }
    return std::ranges::all_of(cases, AddNoMemoryCase);
}();

} // namespace
