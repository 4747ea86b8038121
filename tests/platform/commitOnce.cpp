// commitOnce FILE SERVICE [unlocked] -- removes SERVICE from EnabledServices, or appends it when it
// is missing, and commits.  The program holds the lock from start to end; with "unlocked", only the
// commit itself takes it.
// Exit status: 0 committed; 1 not committed, with SCError() on stderr; 2 not tried.
#include <SystemConfiguration/SystemConfiguration.h>

#include <cstdio>
#include <cstring>

static int Failed(int status)
{
    fprintf(stderr, "commitOnce: %d\n", SCError());
    return status;
}

static CFMutableArrayRef CopyToggled(CFTypeRef services, CFStringRef service)
{
    if (services == nullptr) {
        CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
        CFArrayAppendValue(array, service);
        return array;
    }
    const CFArrayRef before = static_cast<CFArrayRef>(services);
    CFMutableArrayRef array = CFArrayCreateMutableCopy(nullptr, 0, before);
    const CFRange all = CFRangeMake(0, CFArrayGetCount(before));
    const CFIndex at = CFArrayGetFirstIndexOfValue(before, all, service);
    if (at == kCFNotFound) {
        CFArrayAppendValue(array, service);
    } else {
        CFArrayRemoveValueAtIndex(array, at);
    }
    return array;
}

int main(int argc, char **argv)
{
    if (argc < 3) { return 2; }
    const CFStringRef path = CFStringCreateWithCString(nullptr, argv[1], kCFStringEncodingUTF8);
    const SCPreferencesRef session = SCPreferencesCreate(nullptr, CFSTR("commitOnce"), path);
    CFRelease(path);
    if (session == nullptr) { return Failed(2); }
    if (argc < 4 && !SCPreferencesLock(session, true)) {
        CFRelease(session);
        return Failed(2);
    }
    const CFStringRef service = CFStringCreateWithCString(nullptr, argv[2], kCFStringEncodingUTF8);
    const CFMutableArrayRef array =
        CopyToggled(SCPreferencesGetValue(session, CFSTR("EnabledServices")), service);
    CFRelease(service);
    SCPreferencesSetValue(session, CFSTR("EnabledServices"), array);
    CFRelease(array);
    const int status = SCPreferencesCommitChanges(session) ? 0 : Failed(1);
    CFRelease(session);
    return status;
}
