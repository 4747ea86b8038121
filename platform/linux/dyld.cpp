// dyld.cpp -- the running program's own path, as the kernel knows it.
#include <mach-o/dyld.h>

#include <cstring>
#include <new>
#include <string>
#include <unistd.h>

namespace {

constexpr size_t INITIAL_SIZE = 256;

// Empty when the path cannot be had: without /proc, or when it is longer than the kernel tells.
std::string ExecutablePath()
{
    std::string path(INITIAL_SIZE, '\0');
    for (;;) {
        const ssize_t size = readlink("/proc/self/exe", path.data(), path.size());
        if (size < 0) { return std::string(); }
        // A full buffer says nothing about what did not fit.
        if (static_cast<size_t>(size) < path.size()) {
            path.resize(static_cast<size_t>(size));
            return path;
        }
        path.resize(2 * path.size());
    }
}

} // namespace

extern "C" int _NSGetExecutablePath(char *buffer, uint32_t *bufferSize)
{
    try {
        const std::string path = ExecutablePath();
        if (path.empty()) { return -1; }
        if (path.size() >= *bufferSize) {
            *bufferSize = static_cast<uint32_t>(path.size() + 1);
            return -1;
        }
        memcpy(buffer, path.c_str(), path.size() + 1);
        return 0;
    } catch (const std::bad_alloc &) {
        return -1;
    }
}
