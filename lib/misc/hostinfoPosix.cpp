// hostinfoPosix.cpp -- the kernel's named values (sysctl).
#include "hostinfoInt.h"

#include "scoped.h"

#include <sys/sysctl.h>

namespace pelago {

bool HostinfoReadValue(const char *name, void *value, size_t size)
{
    return sysctlbyname(name, value, &size, nullptr, 0) == 0;
}

char *HostinfoReadText(const char *name)
{
    size_t size = 0;
    if (sysctlbyname(name, nullptr, &size, nullptr, 0) != 0) { return nullptr; }
    ScopedFree<char> text(static_cast<char *>(Util_SafeMalloc(size + 1)));
    if (sysctlbyname(name, text.get(), &size, nullptr, 0) != 0) { return nullptr; }
    text.get()[size] = '\0'; // sysctl's text should be terminated already; this does not rely on it
    return text.release();
}

} // namespace pelago
