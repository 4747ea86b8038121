// hostFile.cpp -- reading the host's files.
#include "hostFile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace pelago::platform {

namespace {

constexpr size_t READ_STEP = 16u << 10;
// Far more than any of the kernel's files that are read: /proc/cpuinfo has 1.5 KiB a processor.
constexpr size_t MAX_TEXT_SIZE = 16u << 20;
constexpr std::string_view BLANKS = " \t";

} // namespace

OwnedFd &OwnedFd::operator=(OwnedFd &&other) noexcept
{
    if (this != &other) {
        Close();
        mFd = std::exchange(other.mFd, -1);
    }
    return *this;
}

int OwnedFd::Close()
{
    const int fd = std::exchange(mFd, -1);
    return fd < 0 ? 0 : close(fd);
}

ssize_t HostReadAll(int fd, char *buffer, size_t size)
{
    size_t have = 0;
    while (have < size) {
        const ssize_t got = read(fd, buffer + have, size - have);
        if (got == 0) { break; }
        if (got < 0 && errno != EINTR) { return -1; }
        if (got > 0) { have += static_cast<size_t>(got); }
    }
    return static_cast<ssize_t>(have);
}

int HostReadRest(int fd, size_t maxSize, std::string *bytes)
{
    while (maxSize > 0) {
        const size_t have = bytes->size(), step = std::min(maxSize, std::max(READ_STEP, have));
        bytes->resize(have + step);
        const ssize_t got = HostReadAll(fd, bytes->data() + have, step);
        const int error = errno;
        bytes->resize(have + (got < 0 ? 0 : static_cast<size_t>(got)));
        if (got < 0) { return error; }
        if (static_cast<size_t>(got) < step) { return 0; }
        maxSize -= step;
    }
    return 0;
}

int HostReadText(const char *path, std::string *text)
{
    const OwnedFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.IsOpen()) { return errno; }
    return HostReadRest(fd.Get(), MAX_TEXT_SIZE, text);
}

std::string_view HostFieldOfLine(std::string_view line, std::string_view name)
{
    if (!line.starts_with(name)) { return {}; }
    line.remove_prefix(name.size());
    const size_t colon = line.find_first_not_of(BLANKS);
    const bool hasColon = colon != line.npos && line[colon] == ':';
    // The line has a longer name.
    if (!hasColon && colon == 0) { return {}; }
    if (hasColon) { line.remove_prefix(colon + 1); }
    const size_t begin = line.find_first_not_of(BLANKS);
    return begin == line.npos ? std::string_view() : line.substr(begin);
}

std::string_view HostField(std::string_view text, std::string_view name)
{
    std::string_view value;
    HostForEachLine(text, [&](std::string_view line) {
        if (value.empty()) { value = HostFieldOfLine(line, name); }
    });
    return value;
}

} // namespace pelago::platform
