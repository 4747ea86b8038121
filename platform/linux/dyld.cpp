// dyld.cpp -- the path by which the running program was started.
// The path is read before main().  Later the current folder may have changed, which changes what a
// relative path means, and the program's file may have been replaced, after which the kernel's name
// for it ends in " (deleted)".
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

// A plain array: the constructor of an object might run after LearnPath() and clear it.
char sPath[PATH_MAX]; // empty when the path is not known

// Returns whether the path names a descriptor, as after fexecve().  Such a path leads to another
// file once the descriptor is closed or used again.
bool IsDescriptor(const char *path)
{
    constexpr char DESCRIPTORS[] = "/dev/fd/", PROCESSES[] = "/proc/";
    return strncmp(path, DESCRIPTORS, sizeof DESCRIPTORS - 1) == 0 ||
           strncmp(path, PROCESSES, sizeof PROCESSES - 1) == 0;
}

// Stores the path in sPath, made absolute from the current folder; returns whether that worked.
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
    // A program with more rights than its caller does not trust the caller's path, which the caller
    // could make lead to another file later.
    if (getauxval(AT_SECURE) != 0) { return false; }
    const auto *started = std::bit_cast<const char *>(getauxval(AT_EXECFN));
    return started != nullptr && !IsDescriptor(started) && SetAbsolute(started) &&
           LeadsToRunningProgram(sPath);
}

// Runs before the initialisers of other files, which may call _NSGetExecutablePath().
[[gnu::constructor(101)]] void LearnPath()
{
    if (SetStartedPath()) { return; }
    const ssize_t size = readlink(RUNNING_PROGRAM, sPath, sizeof sPath);
    // When the buffer is full, the path may have been cut.
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
