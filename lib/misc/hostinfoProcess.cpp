// hostinfoProcess.cpp -- this process's program, and whether another process exists.
#include "hostinfoInt.h"

#include "diagnostics.h"
#include "scoped.h"

#include <cerrno>
#include <csignal>
#include <mach-o/dyld.h>

using namespace pelago;

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

extern "C" HostinfoProcessQuery Hostinfo_QueryProcessExistence(int pid)
{
    if (kill(pid, 0) == 0) { return HOSTINFO_PROCESS_QUERY_ALIVE; }
    switch (errno) {
    case EPERM: return HOSTINFO_PROCESS_QUERY_ALIVE; // another user's
    case ESRCH: return HOSTINFO_PROCESS_QUERY_DEAD;
    default: return HOSTINFO_PROCESS_QUERY_UNKNOWN;
    }
}
