// hostinfoUser.cpp -- the name of this process's user.  In a source of its own, so that a program
// that does not call it can be linked statically: the C library loads modules for user names.
#include "hostinfoInt.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

using namespace pelago;

// Calls the C library directly: Posix_GetpwuidR() would end the process for a user whose full name
// is not valid text, and the full name is not used here.
extern "C" char *Hostinfo_GetUser()
{
    constexpr size_t ENTRY_SIZE = 1024;
    char buffer[ENTRY_SIZE];
    passwd entry;
    passwd *found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr &&
        found->pw_name != nullptr) {
        return Util_SafeStrdup(found->pw_name);
    }
    return Util_SafeStrdup(getenv("USER"));
}
