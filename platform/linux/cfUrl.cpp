// cfUrl.cpp -- URLs of files, stored as the files' paths.
#include "cfTypes.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

using namespace pelago::platform;

namespace {

bool UrlEqual(const CFObject *one, const CFObject *other)
{
    return static_cast<const __CFURL *>(one)->mPath == static_cast<const __CFURL *>(other)->mPath;
}

constexpr CFClass URL_CLASS = {CF_TYPE_URL, CFDestroy<__CFURL>, UrlEqual};

struct Free {
    void operator()(char *block) const { free(block); }
};

// Returns the path from the root; empty when the current folder has no path any more.
std::string AbsolutePath(std::string_view path)
{
    if (path.starts_with('/')) { return std::string(path); }
    const std::unique_ptr<char, Free> folder(getcwd(nullptr, 0));
    // For a folder that is not reachable from the process's root, Linux returns no absolute path.
    if (!folder || *folder != '/') { return std::string(); }
    return std::string(folder.get()).append("/").append(path);
}

} // namespace

__CFURL::__CFURL(std::string path) : CFObject(URL_CLASS), mPath(std::move(path)) {}

extern "C" CFTypeID CFURLGetTypeID(void) { return CF_TYPE_URL; }

extern "C" CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef, const UInt8 *path,
                                                            CFIndex pathSize, Boolean)
{
    if (pathSize < 0) { CFStop(__func__, "a size below zero"); }
    const std::string_view bytes(reinterpret_cast<const char *>(path),
                                 static_cast<size_t>(pathSize));
    if (bytes.empty() || bytes.find('\0') != bytes.npos) { return nullptr; }
    try {
        std::string absolute = AbsolutePath(bytes);
        return absolute.empty() ? nullptr : new __CFURL(std::move(absolute));
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}
