// password.cpp -- reads the password, and refuses what Samba would not store as given.
#include "password.h"

#include "report.h"

#include "hostFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace pelago::platform;

namespace {

constexpr size_t MAX_PASSWORD = 127;           // customary for SMB
constexpr size_t READ_SIZE = MAX_PASSWORD + 3; // room for a newline and an excess byte

// Returns the first READ_SIZE bytes.  HostReadAll() would take a read error half-way for the end.
std::string ReadStart(int fd, const std::string &file)
{
    std::string bytes(READ_SIZE, '\0');
    size_t size = 0;
    while (size < bytes.size()) {
        const ssize_t got = read(fd, bytes.data() + size, bytes.size() - size);
        if (got == 0) { break; }
        if (got < 0 && errno == EINTR) {
            CheckForSignal();
        } else if (got < 0) {
            Fail("cannot read the password file: " + Quoted(file) + ": " + strerror(errno));
        } else {
            size += static_cast<size_t>(got);
        }
    }
    bytes.resize(size);
    return bytes;
}

} // namespace

std::string ReadPassword(const std::string &file)
{
    if (file.empty()) { Fail("the name of the password file is empty"); }
    const OwnedFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status;
    if (!fd.IsOpen() || fstat(fd.Get(), &status) != 0) {
        Fail("cannot read the password file: " + Quoted(file) + ": " + strerror(errno));
    }
    if (S_ISDIR(status.st_mode)) { Fail("the password file is a folder: " + Quoted(file)); }
    if (S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
        Say("others than its owner can read the password file: " + Quoted(file));
    }
    std::string password = ReadStart(fd.Get(), file);
    if (password.ends_with('\n')) { password.pop_back(); }
    if (password.empty()) { Fail("the password is empty"); }
    if (password.find('\0') != std::string::npos) { Fail("the password holds a NUL byte"); }
    if (password.find('\n') != std::string::npos) {
        Fail("the password file has more than one line");
    }
    if (password.size() > MAX_PASSWORD) { Fail("the password is longer than 127 bytes"); }
    return password;
}
