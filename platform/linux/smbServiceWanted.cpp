// smbServiceWanted.cpp -- asks the system preferences whether the SMB service should run.
// Exit status: 0 it should; 1 it should not, or nothing says so; 2 the file cannot be understood,
// with one line on stderr, and the service is best left as it is.
#include "cfTypes.h"
#include "preferencesFile.h"
#include "propertyList.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr char FILE_PATH[] = "/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist";
constexpr int WANTED = 0, NOT_WANTED = 1, UNKNOWN = 2;

int Unknown(const char *reason)
{
    fprintf(stderr, "smbServiceWanted: %s: %s\n", FILE_PATH, reason);
    return UNKNOWN;
}

int Ask()
{
    std::string bytes;
    FileSignature signature;
    const int error = ReadWholeFile(FILE_PATH, PROPERTY_LIST_MAX_BYTES, &bytes, &signature);
    if (error == ENOENT) { return NOT_WANTED; }
    if (error != 0) { return Unknown(strerror(error)); }
    PropertyList list;
    const PropertyListFault fault = list.Read(bytes);
    if (fault == PropertyListFault::Empty) { return NOT_WANTED; }
    if (fault != PropertyListFault::None) { return Unknown(PropertyListFaultText(fault)); }
    const CFOwned<CFTypeRef> services(list.CopyValue("EnabledServices"));
    if (!services) { return NOT_WANTED; }
    if (CFGetTypeID(services.get()) != CFArrayGetTypeID()) {
        return Unknown("EnabledServices is not an array");
    }
    const CFArrayRef array = static_cast<CFArrayRef>(services.get());
    const CFRange all = CFRangeMake(0, CFArrayGetCount(array));
    return CFArrayContainsValue(array, all, CFSTR("disk")) ? WANTED : NOT_WANTED;
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
