// What the wrappers of the C library's calls for text do without memory.
#include "noMemory.h"

#include "posix.h"
#include "unicode.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <utility>
#include <utime.h>

// Standard error is for what the process ends with, so messages go here.
static std::string sMessage;
extern "C" void __wrap_perror(const char *message) { sMessage = message; }
// One template always gives the same name; no file is made.
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

// The names of encodings that conversions look up, found before and forgotten afterwards.
bool WithNames(const std::function<bool()> &attempt)
{
    EXPECT_EQ(Unicode_GetCurrentEncoding(), STRING_ENCODING_UTF_8);
    EXPECT_EQ(UnicodeIANALookup("UTF-8"), STRING_ENCODING_UTF_8);
    const bool succeeded = attempt();
    Unicode_Shutdown();
    return succeeded;
}

constexpr char MISSING[] = "/nonexistent/file";

// The call is made, and says that there is no such file.
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

// ---- Files

struct stat sStatus;
struct statfs sStatfs;

RUNS_OUT(Posix_Open, PANICS)
{
    return Misses([] { return Posix_Open(MISSING, O_RDONLY); });
}
RUNS_OUT(Posix_Creat, PANICS)
{
    return Misses([] { return Posix_Creat(MISSING, 0600); });
}
RUNS_OUT(Posix_Fopen, PANICS)
{
    return MissesAndGivesNull([] { return Posix_Fopen(MISSING, "r"); });
}
RUNS_OUT(Posix_Freopen, PANICS)
{
    FILE *stream = fopen("/dev/null", "r");
    return MissesAndGivesNull([=] { return Posix_Freopen(MISSING, "r", stream); });
}
RUNS_OUT(Posix_Stat, PANICS)
{
    return Misses([] { return Posix_Stat(MISSING, &sStatus); });
}
RUNS_OUT(Posix_Lstat, PANICS)
{
    return Misses([] { return Posix_Lstat(MISSING, &sStatus); });
}
RUNS_OUT(Posix_Statfs, PANICS)
{
    return Misses([] { return Posix_Statfs(MISSING, &sStatfs); });
}
RUNS_OUT(Posix_Access, PANICS)
{
    return Misses([] { return Posix_Access(MISSING, F_OK); });
}
RUNS_OUT(Posix_Chmod, PANICS)
{
    return Misses([] { return Posix_Chmod(MISSING, 0600); });
}
RUNS_OUT(Posix_Chown, PANICS)
{
    return Misses([] { return Posix_Chown(MISSING, getuid(), getgid()); });
}
RUNS_OUT(Posix_Lchown, PANICS)
{
    return Misses([] { return Posix_Lchown(MISSING, getuid(), getgid()); });
}
RUNS_OUT(Posix_Rename, PANICS)
{
    return Misses([] { return Posix_Rename(MISSING, "/nonexistent/other"); });
}
RUNS_OUT(Posix_Unlink, PANICS)
{
    return Misses([] { return Posix_Unlink(MISSING); });
}
RUNS_OUT(Posix_Rmdir, PANICS)
{
    return Misses([] { return Posix_Rmdir(MISSING); });
}
RUNS_OUT(Posix_Mkdir, PANICS)
{
    return Misses([] { return Posix_Mkdir(MISSING, 0700); });
}
RUNS_OUT(Posix_Chdir, PANICS)
{
    return Misses([] { return Posix_Chdir(MISSING); });
}
RUNS_OUT(Posix_OpenDir, PANICS)
{
    return MissesAndGivesNull([] { return Posix_OpenDir(MISSING); });
}
RUNS_OUT(Posix_Link, PANICS)
{
    return Misses([] { return Posix_Link(MISSING, "/nonexistent/other"); });
}
RUNS_OUT(Posix_Symlink, PANICS)
{
    return Misses([] { return Posix_Symlink("target", MISSING); });
}
RUNS_OUT(Posix_Mkfifo, PANICS)
{
    return Misses([] { return Posix_Mkfifo(MISSING, 0600); });
}
RUNS_OUT(Posix_Mknod, PANICS)
{
    return Misses([] { return Posix_Mknod(MISSING, S_IFIFO | 0600, 0); });
}
RUNS_OUT(Posix_Truncate, PANICS)
{
    return Misses([] { return Posix_Truncate(MISSING, 0); });
}
RUNS_OUT(Posix_Utime, PANICS)
{
    return Misses([] { return Posix_Utime(MISSING, nullptr); });
}
RUNS_OUT(Posix_Utimes, PANICS)
{
    return Misses([] { return Posix_Utimes(MISSING, nullptr); });
}
RUNS_OUT(Posix_Pathconf, PANICS)
{
    return Misses([] { return Posix_Pathconf(MISSING, _PC_LINK_MAX); });
}

NEEDS_NO_MEMORY(Posix_Unsupported)
{
    return Scarcely([] { return Posix_Unsupported(MISSING); }) == -1;
}

// ---- Paths that are given back

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

char *sElements[] = {const_cast<char *>("a"), const_cast<char *>("b"), nullptr}; // not written to

RUNS_OUT(Posix_Execl, PANICS, FAILS, PANICS)
{
    return Misses([] { return Posix_Execl(MISSING, "a", "b", nullptr); });
}
RUNS_OUT(Posix_Execlp, PANICS, FAILS, PANICS)
{
    return Misses([] { return Posix_Execlp(MISSING, "a", "b", nullptr); });
}
RUNS_OUT(Posix_Execv, PANICS)
{
    return Misses([] { return Posix_Execv(MISSING, sElements); });
}
RUNS_OUT(Posix_Execve, PANICS)
{
    return Misses([] { return Posix_Execve(MISSING, sElements, sElements); });
}
RUNS_OUT(Posix_Execvp, PANICS)
{
    return Misses([] { return Posix_Execvp(MISSING, sElements); });
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

// Posix_Getenv() keeps six blocks, which here take the place of these: nothing is lost in all.
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

} // namespace
