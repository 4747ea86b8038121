// hostFiles.cpp -- replaces open().
#include "hostFiles.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace {

struct Instead {
    int fd; // -1: opening fails
    int error;
};
std::map<std::string, Instead> sInstead;

} // namespace

extern "C" {
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    const auto found = sInstead.find(path);
    if (found == sInstead.end()) { return __real_open(path, flags, mode); }
    if (found->second.fd < 0 && found->second.error == EISDIR) { return __real_open("/", flags); }
    if (found->second.fd < 0) {
        errno = found->second.error;
        return -1;
    }
    // Opens the file anew, so that each reader starts at its beginning.
    return __real_open(("/proc/self/fd/" + std::to_string(found->second.fd)).c_str(), flags);
}
}

HostFile::HostFile(std::string path, const std::string &text) : mPath(std::move(path))
{
    const int fd = memfd_create("hostFile", MFD_CLOEXEC);
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) { abort(); }
    sInstead[mPath] = {fd, 0};
}

HostFile::~HostFile()
{
    close(sInstead[mPath].fd);
    sInstead.erase(mPath);
}

HostFileFails::HostFileFails(std::string path, int error) : mPath(std::move(path))
{
    sInstead[mPath] = {-1, error};
}

HostFileFails::~HostFileFails() { sInstead.erase(mPath); }
