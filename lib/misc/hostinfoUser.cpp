// hostinfoUser.cpp -- the name of this process's user.  Apart from the rest of the process, so that
// a program without it can be linked statically: the user database is modules that are loaded.
#include "hostinfoInt.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

using namespace pelago;

// Calls the C library itself: Posix_GetpwuidR() would end the process for a user whose full name is
// not valid text, which does not matter here.
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
