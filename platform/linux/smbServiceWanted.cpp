// smbServiceWanted.cpp -- asks the system preferences whether the SMB service should run.
// Exit status: 0 it should; 1 it should not, or nothing says so; 2 the file cannot be understood,
// with one line on stderr, and the service is best left as it is.
#include "propertyListGuard.h"
#include "smbService.h"

#include <cstdio>
#include <new>

namespace {

constexpr int WANTED = 0, NOT_WANTED = 1, UNKNOWN = 2;

int Unknown(const char *reason)
{
    fprintf(stderr, "smbServiceWanted: %s: %s\n", SMB_PREFERENCES, reason);
    return UNKNOWN;
}

int Ask()
{
    std::string reason;
    switch (SmbServiceWanted(SMB_PREFERENCES, &reason)) {
    case SmbWanted::Yes: return WANTED;
    case SmbWanted::No: return NOT_WANTED;
    default: return Unknown(reason.c_str());
    }
}

} // namespace

int main(int argc, char **)
{
    if (argc != 1) {
        fputs("usage: smbServiceWanted\n", stderr);
        return UNKNOWN;
    }
    try {
        return Ask();
    } catch (const std::bad_alloc &) {
        return Unknown(PropertyListFaultText(PropertyListFault::NoMemory));
    }
}
