// scriptedSdk.cpp -- records the tool's calls of the SDK, and makes some of them fail; the linker
// puts it between the two (-Wl,--wrap).
//
// PELAGO_SDK_FAIL lists the calls that fail: "SCPreferencesLock:2 CFArrayCreateMutable:1" makes the
// second lock and the first new array fail.  "SCPreferencesGetValue:2" makes the second get return
// a string.  All other calls are made.  PELAGO_SDK_LOG names a file that receives a line for each
// call, followed by "fails" if the call was made to fail.  Calls of the library whose order the
// tool promises have lines, too.
#include <SystemConfiguration/SystemConfiguration.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <unistd.h>

namespace {

std::map<std::string, int> sCalls;
SCPreferencesRef sPrefs;
CFMutableArrayRef sArray; // the last array that was made: there is one at a time
int sDepth;               // above 0 inside a real call, whose own calls are not the tool's

template <typename Call> auto CallReal(Call call)
{
    struct Inside {
        Inside() { sDepth++; }
        ~Inside() { sDepth--; }
    } inside;
    return call();
}

void Note(const std::string &line)
{
    if (sDepth > 0) { return; }
    if (const char *path = getenv("PELAGO_SDK_LOG")) {
        FILE *log = fopen(path, "ae");
        if (log == nullptr) { abort(); }
        fprintf(log, "%s\n", line.c_str());
        fclose(log);
    }
}

// Counts and records the call; returns whether it must fail.
bool IsToFail(const char *name)
{
    if (sDepth > 0) { return false; }
    const char *script = getenv("PELAGO_SDK_FAIL");
    const std::string wanted = std::string(" ") + name + ":" + std::to_string(++sCalls[name]) + " ";
    const bool fails =
        script != nullptr && (" " + std::string(script) + " ").find(wanted) != std::string::npos;
    Note(name + std::string(fails ? " fails" : ""));
    return fails;
}

} // namespace

extern "C" {

void __real_Location_Init(const char *);
void __wrap_Location_Init(const char *processTag)
{
    Note(std::string("Location_Init ") + processTag);
    CallReal([&] { __real_Location_Init(processTag); });
}

void __real_Unicode_Init();
void __wrap_Unicode_Init()
{
    Note("Unicode_Init");
    CallReal([] { __real_Unicode_Init(); });
}

int __real_access(const char *, int);
int __wrap_access(const char *path, int mode)
{
    Note(std::string("access ") + path + (mode == R_OK ? " to read" : " to do more"));
    return __real_access(path, mode);
}

SCPreferencesRef __real_SCPreferencesCreate(CFAllocatorRef, CFStringRef, CFStringRef);
SCPreferencesRef __wrap_SCPreferencesCreate(CFAllocatorRef allocator, CFStringRef name,
                                            CFStringRef prefsID)
{
    if (IsToFail("SCPreferencesCreate")) { return nullptr; }
    char text[200];
    CFStringGetCString(name, text, sizeof text, kCFStringEncodingUTF8);
    Note(std::string("  as ") + text);
    CFStringGetCString(prefsID, text, sizeof text, kCFStringEncodingUTF8);
    Note(std::string("  on ") + text);
    return sPrefs = CallReal([&] { return __real_SCPreferencesCreate(allocator, name, prefsID); });
}

Boolean __real_SCPreferencesLock(SCPreferencesRef, Boolean);
Boolean __wrap_SCPreferencesLock(SCPreferencesRef prefs, Boolean wait)
{
    if (IsToFail("SCPreferencesLock")) { return false; }
    Note(wait ? "  waiting" : "  not waiting");
    return CallReal([&] { return __real_SCPreferencesLock(prefs, wait); });
}

Boolean __real_SCPreferencesUnlock(SCPreferencesRef);
Boolean __wrap_SCPreferencesUnlock(SCPreferencesRef prefs)
{
    return !IsToFail("SCPreferencesUnlock") &&
           CallReal([&] { return __real_SCPreferencesUnlock(prefs); });
}

CFPropertyListRef __real_SCPreferencesGetValue(SCPreferencesRef, CFStringRef);
CFPropertyListRef __wrap_SCPreferencesGetValue(SCPreferencesRef prefs, CFStringRef key)
{
    if (IsToFail("SCPreferencesGetValue")) { return CFSTR("not an array"); }
    return CallReal([&] { return __real_SCPreferencesGetValue(prefs, key); });
}

Boolean __real_SCPreferencesSetValue(SCPreferencesRef, CFStringRef, CFPropertyListRef);
Boolean __wrap_SCPreferencesSetValue(SCPreferencesRef prefs, CFStringRef key,
                                     CFPropertyListRef value)
{
    return !IsToFail("SCPreferencesSetValue") &&
           CallReal([&] { return __real_SCPreferencesSetValue(prefs, key, value); });
}

Boolean __real_SCPreferencesCommitChanges(SCPreferencesRef);
Boolean __wrap_SCPreferencesCommitChanges(SCPreferencesRef prefs)
{
    return !IsToFail("SCPreferencesCommitChanges") &&
           CallReal([&] { return __real_SCPreferencesCommitChanges(prefs); });
}

CFMutableArrayRef __real_CFArrayCreateMutable(CFAllocatorRef, CFIndex, const CFArrayCallBacks *);
CFMutableArrayRef __wrap_CFArrayCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                              const CFArrayCallBacks *callBacks)
{
    if (IsToFail("CFArrayCreateMutable")) { return nullptr; }
    return sArray = CallReal(
               [&] { return __real_CFArrayCreateMutable(allocator, capacity, callBacks); });
}

CFMutableArrayRef __real_CFArrayCreateMutableCopy(CFAllocatorRef, CFIndex, CFArrayRef);
CFMutableArrayRef __wrap_CFArrayCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                                  CFArrayRef array)
{
    if (IsToFail("CFArrayCreateMutableCopy")) { return nullptr; }
    return sArray = CallReal(
               [&] { return __real_CFArrayCreateMutableCopy(allocator, capacity, array); });
}

void __real_CFRelease(CFTypeRef);
void __wrap_CFRelease(CFTypeRef object)
{
    if (object == sPrefs || object == sArray) {
        Note(object == sPrefs ? "CFRelease of the session" : "CFRelease of an array");
    }
    CallReal([&] { __real_CFRelease(object); });
}

} // extern "C"
