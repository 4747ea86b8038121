// posixPath.cpp -- the C library's calls that return a path.
#include "posix.h"

#include "posixInt.h"
#include "util.h"

#include <climits>
#include <cstdlib>
#include <unistd.h>

using namespace pelago;

namespace {

// Sizes of the buffer for a link's target; most targets fit the first.
constexpr size_t LINK_FIRST_SIZE = 2048;
constexpr size_t LINK_GROWTH = 1024;

char *PosixAllocQuietly(size_t size)
{
    ErrnoSaver keep;
    return static_cast<char *>(Util_SafeMalloc(size));
}

Unicode PosixRealPath(const char *path, PosixConversion convert)
{
    char resolved[PATH_MAX];
    return convert(PosixCall(realpath, HostText(path), resolved));
}

Unicode PosixReadLink(const char *path, PosixConversion convert)
{
    const HostText link(path);
    for (size_t size = LINK_FIRST_SIZE;; size += LINK_GROWTH) {
        const ScopedFree<char> target(PosixAllocQuietly(size));
        const ssize_t length = PosixCall(readlink, link, target.get(), size);
        if (length < 0) { return nullptr; }
        // When the buffer is full, the target may have been cut.
        if (static_cast<size_t>(length) < size) {
            target.get()[length] = '\0';
            return convert(target.get());
        }
    }
}

void PosixRemoveAgain(int file, const char *name)
{
    ErrnoSaver keep;
    close(file);
    unlink(name);
}

Unicode PosixMkTemp(const char *pathTemplate, PosixConversion convert)
{
    const HostText name(pathTemplate);
    // Through a pointer: mkstemp() is declared nonnull, but here the call itself decides about
    // NULL.
    const auto make = [call = &mkstemp](const HostText &text) { return call(text.Bytes()); };
    const int file = PosixCall(make, name);
    if (file < 0) { return nullptr; }
    PosixRemoveAgain(file, name);
    return convert(name);
}

} // namespace

extern "C" Unicode Posix_RealPath(const char *path) { return PosixRealPath(path, PosixFromHost); }

extern "C" Unicode Posix_TryRealPath(const char *path)
{
    return PosixRealPath(path, PosixTryFromHost);
}

extern "C" Unicode Posix_ReadLink(const char *path) { return PosixReadLink(path, PosixFromHost); }

extern "C" Unicode Posix_TryReadLink(const char *path)
{
    return PosixReadLink(path, PosixTryFromHost);
}

extern "C" Unicode Posix_MkTemp(const char *pathTemplate)
{
    return PosixMkTemp(pathTemplate, PosixFromHost);
}

extern "C" Unicode Posix_TryMkTemp(const char *pathTemplate)
{
    return PosixMkTemp(pathTemplate, PosixTryFromHost);
}
