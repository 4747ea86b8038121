// foundation.cpp -- Core Foundation and SystemConfiguration, as platform/linux has them.
#include "../rows.h"

#include <CoreFoundation/CoreFoundation.h>
#include <SystemConfiguration/SystemConfiguration.h>

namespace {

const Row ROWS[] = {
    ALIKE(CFArrayAppendArray),
    ALIKE(CFArrayAppendValue),
    ALIKE(CFArrayContainsValue),
    ALIKE(CFArrayCreateMutable),
    ALIKE(CFArrayCreateMutableCopy),
    ALIKE(CFArrayGetCount),
    ALIKE(CFArrayGetFirstIndexOfValue),
    ALIKE(CFArrayGetTypeID),
    ALIKE(CFArrayGetValueAtIndex),
    ALIKE(CFArrayRemoveValueAtIndex),
    ALIKE(CFBooleanGetTypeID),
    ALIKE(CFBooleanGetValue),
    ALIKE(CFDataCreate),
    ALIKE(CFDataGetBytePtr),
    ALIKE(CFDataGetLength),
    ALIKE(CFDataGetTypeID),
    ALIKE(CFDateCreate),
    ALIKE(CFDateGetAbsoluteTime),
    ALIKE(CFDateGetTypeID),
    ALIKE(CFDictionaryGetCount),
    ALIKE(CFDictionaryGetTypeID),
    ALIKE(CFDictionaryGetValue),
    ALIKE(CFEqual),
    ALIKE(CFErrorGetCode),
    ALIKE(CFErrorGetTypeID),
    ALIKE(CFGetTypeID),
    ALIKE(CFNumberCreate),
    ALIKE(CFNumberGetTypeID),
    ALIKE(CFNumberGetValue),
    ALIKE(CFNumberIsFloatType),
    ALIKE(CFPropertyListCreateWithStream),
    ALIKE(CFReadStreamClose),
    ALIKE(CFReadStreamCreateWithFile),
    ALIKE(CFReadStreamGetTypeID),
    ALIKE(CFReadStreamOpen),
    ALIKE(CFRelease),
    ALIKE(CFRetain),
    ALIKE(CFStringCreateMutableCopy),
    ALIKE(CFStringCreateWithCString),
    ALIKE(CFStringGetCString),
    ALIKE(CFStringGetCStringPtr),
    ALIKE(CFStringGetLength),
    ALIKE(CFStringGetMaximumSizeForEncoding),
    ALIKE(CFStringGetTypeID),
    ALIKE(CFStringNormalize),
    ALIKE(CFURLCreateFromFileSystemRepresentation),
    ALIKE(CFURLGetTypeID),
    ALIKE(SCError),
    ALIKE(SCPreferencesCommitChanges),
    ALIKE(SCPreferencesCreate),
    ALIKE(SCPreferencesGetValue),
    ALIKE(SCPreferencesLock),
    ALIKE(SCPreferencesSetValue),
    ALIKE(SCPreferencesSynchronize),
    ALIKE(SCPreferencesUnlock),
    ALIKE(__CFStringMakeConstantString),
    ALIKE(kCFAllocatorDefault),
    ALIKE(kCFBooleanFalse),
    ALIKE(kCFBooleanTrue),
    ALIKE(kCFTypeArrayCallBacks),
};

} // namespace

Rows FoundationRows() { return ROWS; }
