// hostinfoPosix.cpp -- questions about this host and this process.
#include "hostinfo.h"

#include "diagnostics.h"
#include "scoped.h"
#include "util.h"

#include <mach-o/dyld.h>

namespace {

constexpr uint32_t MODULE_PATH_SIZE = 1024; // macOS's PATH_MAX, on every host

} // namespace

extern "C" char *Hostinfo_GetModulePath(uint32_t privilege)
{
    if (privilege > 1) {
        Warning("%s: invalid privilege parameter\n", __func__);
        return nullptr;
    }
    uint32_t size = MODULE_PATH_SIZE;
    ScopedFree<char> path(static_cast<char *>(Util_SafeMalloc(size)));
    if (_NSGetExecutablePath(path.get(), &size) != 0) {
        Warning("HOSTINFO: %s: _NSGetExecutablePath failed.\n", __func__);
        return nullptr;
    }
    return path.release();
}
