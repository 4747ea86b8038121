// posixPath.cpp -- the C library's calls that give a path back.
#include "posix.h"

#include "posixInt.h"
#include "util.h"

#include <climits>
#include <cstdlib>
#include <unistd.h>

using namespace pelago;

namespace {

// Sizes of a buffer for what a link says: most fit the first.
constexpr size_t LINK_FIRST_SIZE = 2048;
constexpr size_t LINK_GROWTH = 1024;

char *PosixAllocQuietly(size_t size)
{
    ErrnoSaver keep;
    return static_cast<char *>(Util_SafeMalloc(size));
}

} // namespace

extern "C" Unicode Posix_RealPath(const char *path)
{
    char resolved[PATH_MAX];
    return PosixFromHost(PosixCall(realpath, HostText(path), resolved));
}

extern "C" Unicode Posix_ReadLink(const char *path)
{
    const HostText link(path);
    for (size_t size = LINK_FIRST_SIZE;; size += LINK_GROWTH) {
        const ScopedFree<char> target(PosixAllocQuietly(size));
        const ssize_t length = PosixCall(readlink, link, target.get(), size);
        if (length < 0) { return nullptr; }
        // A full buffer says nothing about what did not fit.
        if (static_cast<size_t>(length) < size) {
            target.get()[length] = '\0';
            return PosixFromHost(target.get());
        }
    }
}

extern "C" Unicode Posix_MkTemp(const char *pathTemplate)
{
    const HostText name(pathTemplate);
    // Through a pointer: the call is declared to take no NULL, but that is its own to say.
    const auto make = [call = &mkstemp](const HostText &text) { return call(text.Bytes()); };
    const int file = PosixCall(make, name);
    if (file < 0) { return nullptr; }
    ErrnoSaver keep;
    close(file);
    unlink(name);
    return PosixFromHost(name);
}
