// dyld.cpp -- the path by which the running program was started.
// It is learnt before main(): later a relative path means another place, and the kernel's own name
// of a file that was replaced ends in " (deleted)".
#include <bit>
#include <mach-o/dyld.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char RUNNING_PROGRAM[] = "/proc/self/exe";

// Not an object with a constructor, which might run after LearnPath().
char sPath[PATH_MAX]; // empty: it cannot be had

// Whether the path names a descriptor, as after fexecve(), and not a place: what it leads to
// changes with what is open.
bool IsDescriptor(const char *path)
{
    constexpr char DESCRIPTORS[] = "/dev/fd/", PROCESSES[] = "/proc/";
    return strncmp(path, DESCRIPTORS, sizeof DESCRIPTORS - 1) == 0 ||
           strncmp(path, PROCESSES, sizeof PROCESSES - 1) == 0;
}

// Puts the path, relative to the present folder or absolute, into sPath; false when it does not
// fit.
bool SetAbsolute(const char *path)
{
    char folder[PATH_MAX] = "";
    if (path[0] != '/' && getcwd(folder, sizeof folder) == nullptr) { return false; }
    const char *separator = path[0] == '/' ? "" : "/";
    const int size = snprintf(sPath, sizeof sPath, "%s%s%s", folder, separator, path);
    return size >= 0 && static_cast<size_t>(size) < sizeof sPath;
}

bool LeadsToRunningProgram(const char *path)
{
    struct stat named, running;
    return stat(path, &named) == 0 && stat(RUNNING_PROGRAM, &running) == 0 &&
           named.st_dev == running.st_dev && named.st_ino == running.st_ino;
}

bool SetStartedPath()
{
    // A user who starts a program with more rights than their own may make the path lead elsewhere
    // later.
    if (getauxval(AT_SECURE) != 0) { return false; }
    const auto *started = std::bit_cast<const char *>(getauxval(AT_EXECFN));
    return started != nullptr && !IsDescriptor(started) && SetAbsolute(started) &&
           LeadsToRunningProgram(sPath);
}

// Before the initialisers of other files, one of which may ask.
[[gnu::constructor(101)]] void LearnPath()
{
    if (SetStartedPath()) { return; }
    const ssize_t size = readlink(RUNNING_PROGRAM, sPath, sizeof sPath);
    // A full buffer says nothing about what did not fit.
    const bool isWhole = size > 0 && static_cast<size_t>(size) < sizeof sPath;
    sPath[isWhole ? size : 0] = '\0';
}

} // namespace

extern "C" int _NSGetExecutablePath(char *buffer, uint32_t *bufferSize)
{
    const size_t size = strlen(sPath) + 1;
    if (size == 1) { return -1; }
    if (size > *bufferSize) {
        *bufferSize = static_cast<uint32_t>(size);
        return -1;
    }
    memcpy(buffer, sPath, size);
    return 0;
}
