// runtime.cpp -- start and end of a program, exceptions, dyld.
#include "../errnos.h"
#include "../image.h"
#include "../refuse.h"
#include "../rows.h"
#include "../wrapped.h"

#include <cstdlib>
#include <cstring>
#include <mach-o/dyld.h>
#include <unistd.h>
#include <unwind.h>

extern "C" int __cxa_atexit(void (*)(void *), void *, void *);

namespace {

uint64_t sStackGuard = 0x5AFE57ACC0DE00FF; // any number: the image only compares it with itself

[[noreturn]] void StackIsSmashed() { Refuse("the stack was overwritten"); }
[[noreturn]] void BindLazily() { Refuse("dyld_stub_binder: all is bound at the start"); }

int AtExit(void (*call)(void *), void *argument, void *)
{
    return __cxa_atexit(call, argument, nullptr);
}

int AtExitWithout(void (*call)()) { return atexit(call); }

int ExecutablePath(char *buffer, uint32_t *size)
{
    const char *started = StartedProgram();
    if (started == nullptr) { return _NSGetExecutablePath(buffer, size); }
    const size_t needed = strlen(started) + 1;
    if (needed > *size) {
        *size = static_cast<uint32_t>(needed);
        return -1;
    }
    memcpy(buffer, started, needed);
    return 0;
}

// Returns whether the release is at least this one.  It is the release that the image was built
// for.
struct BuildVersion {
    uint32_t platform;
    uint32_t version; // 0xMMMMmmpp
};
bool IsVersionAtLeast(uint32_t count, const BuildVersion *versions)
{
    constexpr uint32_t THIS_VERSION = 0x000A0F00; // 10.15
    for (uint32_t i = 0; i < count; i++) {
        if (versions[i].version > THIS_VERSION) { return false; }
    }
    return true;
}

// The C++ runtime checks whether its predecessor is loaded as well, which it never is.
void *Dlopen(const char *path, int mode)
{
    const bool isQuestion = (mode & DARWIN_RTLD_NOLOAD) != 0;
    if (isQuestion && strcmp(path, "/usr/lib/libstdc++.6.dylib") == 0) { return nullptr; }
    Refuse("dlopen: %s is not known", path);
}

const Row ROWS[] = {
    {"_NSGetArgc", RowAddress(&ProgramArgumentCount)},
    {"_NSGetArgv", RowAddress(&ProgramArguments)},
    {"_NSGetExecutablePath", RowAddress(&ExecutablePath)},
    {"_Unwind_Backtrace", RowAddress(&_Unwind_Backtrace)},
    {"_Unwind_DeleteException", RowAddress(&_Unwind_DeleteException)},
    {"_Unwind_GetDataRelBase", RowAddress(&_Unwind_GetDataRelBase)},
    {"_Unwind_GetIP", RowAddress(&_Unwind_GetIP)},
    {"_Unwind_GetLanguageSpecificData", RowAddress(&_Unwind_GetLanguageSpecificData)},
    {"_Unwind_GetRegionStart", RowAddress(&_Unwind_GetRegionStart)},
    {"_Unwind_GetTextRelBase", RowAddress(&_Unwind_GetTextRelBase)},
    {"_Unwind_RaiseException", RowAddress(&_Unwind_RaiseException)},
    {"_Unwind_Resume", RowAddress(&_Unwind_Resume)},
    {"_Unwind_SetGR", RowAddress(&_Unwind_SetGR)},
    {"_Unwind_SetIP", RowAddress(&_Unwind_SetIP)},
    {"__cxa_atexit", RowAddress(&AtExit)},
    {"__error", RowAddress(&ImageErrno)},
    {"__stack_chk_fail", RowAddress(&StackIsSmashed)},
    {"__stack_chk_guard", &sStackGuard},
    {"_availability_version_check", RowAddress(&IsVersionAtLeast)},
    ALIKE(abort),
    TRANSLATED(atexit, AtExitWithout),
    TRANSLATED(dlopen, Dlopen),
    REFUSED(dlsym),
    {"dyld_stub_binder", RowAddress(&BindLazily)},
    ALIKE(exit),
};

} // namespace

Rows RuntimeRows() { return ROWS; }
