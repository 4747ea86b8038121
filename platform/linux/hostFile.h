/*
 * hostFile.h -- descriptors with an owner, and the files in which the kernel describes the host.
 * "May throw" means std::bad_alloc; the other functions throw nothing.
 */
#ifndef PELAGO_LINUX_HOSTFILE_H
#define PELAGO_LINUX_HOSTFILE_H

#include <sys/types.h>

#include <string>
#include <string_view>

namespace pelago::platform {

// Owns a descriptor, and closes it.
class OwnedFd {
public:
    OwnedFd() = default;
    explicit OwnedFd(int fd) : mFd(fd) {}
    ~OwnedFd() { Close(); }
    OwnedFd(OwnedFd &&other) noexcept : mFd(other.mFd) { other.mFd = -1; }
    OwnedFd &operator=(OwnedFd &&other) noexcept;
    bool IsOpen() const { return mFd >= 0; }
    int Get() const { return mFd; }
    int Close(); // 0, or -1 with errno; closed either way

private:
    int mFd = -1;
};

// Reads until the end or until the buffer is full.  Returns the number of bytes; -1 with errno.
ssize_t HostReadAll(int fd, char *buffer, size_t size);

// Appends up to maxSize bytes, whatever size the file reports.  Returns 0 or an errno value.  May
// throw.
int HostReadRest(int fd, size_t maxSize, std::string *bytes);

// Reads a file of /proc or /sys.  Returns 0 or an errno value.  May throw.
int HostReadText(const char *path, std::string *text);

// Returns the value of a line "name: value" or "name value"; empty for other lines.
std::string_view HostFieldOfLine(std::string_view line, std::string_view name);

// Calls visit(line) for each line, without its end.
template <typename Visit> void HostForEachLine(std::string_view text, const Visit &visit)
{
    while (!text.empty()) {
        const size_t end = text.find('\n');
        visit(text.substr(0, end));
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
    }
}

// Returns the value of the first line that has the name and a value; empty when there is none.
std::string_view HostField(std::string_view text, std::string_view name);

} // namespace pelago::platform

#endif /* PELAGO_LINUX_HOSTFILE_H */
