/*
 * CoreFoundation.h -- the part of Apple's Core Foundation that this product calls, and what its
 * tests look at results with.
 *
 * Types, names and constant values are Apple's own, so that one source compiles against this header
 * and against the SDK's.  It serves Linux, where platform/linux stands behind it, and builds for
 * macOS on machines without the SDK; on a Mac with the SDK it must not be on the include path.
 *
 * Ownership: what a Create or Copy function returns belongs to the caller, who passes it to
 * CFRelease; what a Get function returns does not.  Reference counts are atomic; the objects
 * themselves are not locked.  Passing NULL where an object is expected ends the process.
 */
#ifndef PELAGO_SDK_COREFOUNDATION_H
#define PELAGO_SDK_COREFOUNDATION_H

#include <MacTypes.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef signed long CFIndex;
typedef unsigned long CFTypeID;
typedef unsigned long CFOptionFlags;
typedef UInt32 CFStringEncoding;
typedef double CFTimeInterval;
typedef CFTimeInterval CFAbsoluteTime; /* seconds since 2001-01-01 00:00:00 UTC */

typedef const void *CFTypeRef;
typedef CFTypeRef CFPropertyListRef;
typedef const struct __CFAllocator *CFAllocatorRef;
typedef const struct __CFString *CFStringRef;
typedef struct __CFString *CFMutableStringRef;
typedef const struct __CFArray *CFArrayRef;
typedef struct __CFArray *CFMutableArrayRef;
typedef const struct __CFDictionary *CFDictionaryRef;
typedef struct __CFDictionary *CFMutableDictionaryRef;
typedef const struct __CFNumber *CFNumberRef;
typedef const struct __CFBoolean *CFBooleanRef;
typedef const struct __CFDate *CFDateRef;
typedef const struct __CFData *CFDataRef;
typedef const struct __CFURL *CFURLRef;
typedef struct __CFReadStream *CFReadStreamRef;
typedef struct __CFError *CFErrorRef;

typedef struct {
    CFIndex location;
    CFIndex length;
} CFRange;

static inline CFRange CFRangeMake(CFIndex location, CFIndex length)
{
    CFRange range;
    range.location = location;
    range.length = length;
    return range;
}

enum { kCFNotFound = -1 };
enum { kCFStringEncodingUTF8 = 0x08000100 };

extern const CFAllocatorRef kCFAllocatorDefault;

/* Objects */

CFTypeRef CFRetain(CFTypeRef object);
void CFRelease(CFTypeRef object);
CFTypeID CFGetTypeID(CFTypeRef object);
/* Objects of different types are never equal; strings compare by their UTF-16 units. */
Boolean CFEqual(CFTypeRef one, CFTypeRef other);

/* Strings */

CFTypeID CFStringGetTypeID(void);
/* A constant that needs no release: the same text always gives the same object. */
CFStringRef __CFStringMakeConstantString(const char *text);
#define CFSTR(text) __CFStringMakeConstantString("" text "")
/* NULL when the text is not valid in the encoding; UTF-8 is the only one supplied on Linux. */
CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char *text,
                                      CFStringEncoding encoding);
/* maximumLength in UTF-16 units; 0 sets no limit, and is the only one supplied on Linux. */
CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef allocator, CFIndex maximumLength,
                                             CFStringRef string);
/* In UTF-16 units. */
CFIndex CFStringGetLength(CFStringRef string);
/* In bytes, the terminator not counted; kCFNotFound when it would not fit a CFIndex. */
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);
/* FALSE, and an empty buffer, when text and terminator do not fit in bufferSize bytes. */
Boolean CFStringGetCString(CFStringRef string, char *buffer, CFIndex bufferSize,
                           CFStringEncoding encoding);
/* A shortcut that may be NULL at any time; the text belongs to the string, until that is changed.
 */
const char *CFStringGetCStringPtr(CFStringRef string, CFStringEncoding encoding);

/* Unicode's normalization forms: decomposed or composed, with a K where compatibility counts. */
typedef CFIndex CFStringNormalizationForm;
enum {
    kCFStringNormalizationFormD = 0,
    kCFStringNormalizationFormKD = 1,
    kCFStringNormalizationFormC = 2,
    kCFStringNormalizationFormKC = 3
};
/* In place.  An immutable string or another form ends the process, as lack of memory does. */
void CFStringNormalize(CFMutableStringRef string, CFStringNormalizationForm form);

/* Arrays.  An index or a range outside the array ends the process. */

typedef struct {
    CFIndex version;
    const void *(*retain)(CFAllocatorRef allocator, const void *value);
    void (*release)(CFAllocatorRef allocator, const void *value);
    CFStringRef (*copyDescription)(const void *value);
    Boolean (*equal)(const void *one, const void *other);
} CFArrayCallBacks;
/* Retains what is put in, releases what is taken out, compares with CFEqual. */
extern const CFArrayCallBacks kCFTypeArrayCallBacks;

CFTypeID CFArrayGetTypeID(void);
CFIndex CFArrayGetCount(CFArrayRef array);
const void *CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index);
Boolean CFArrayContainsValue(CFArrayRef array, CFRange range, const void *value);
CFIndex CFArrayGetFirstIndexOfValue(CFArrayRef array, CFRange range, const void *value);
CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                       const CFArrayCallBacks *callBacks);
CFMutableArrayRef CFArrayCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                           CFArrayRef array);
void CFArrayAppendArray(CFMutableArrayRef array, CFArrayRef other, CFRange otherRange);
void CFArrayAppendValue(CFMutableArrayRef array, const void *value);
void CFArrayRemoveValueAtIndex(CFMutableArrayRef array, CFIndex index);

/* Dictionaries, with string keys */

CFTypeID CFDictionaryGetTypeID(void);
CFIndex CFDictionaryGetCount(CFDictionaryRef dictionary);
const void *CFDictionaryGetValue(CFDictionaryRef dictionary, const void *key);

/* Numbers, booleans, dates, data: what else a property list may hold */

typedef CFIndex CFNumberType;
enum { kCFNumberSInt64Type = 4, kCFNumberFloat64Type = 6 };
CFTypeID CFNumberGetTypeID(void);
CFNumberRef CFNumberCreate(CFAllocatorRef allocator, CFNumberType type, const void *value);
/* FALSE when the number cannot be given in that type without loss; the nearest one is stored. */
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void *value);
Boolean CFNumberIsFloatType(CFNumberRef number);

extern const CFBooleanRef kCFBooleanTrue;
extern const CFBooleanRef kCFBooleanFalse;
CFTypeID CFBooleanGetTypeID(void);
Boolean CFBooleanGetValue(CFBooleanRef boolean);

CFTypeID CFDateGetTypeID(void);
CFDateRef CFDateCreate(CFAllocatorRef allocator, CFAbsoluteTime at);
CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef date);

CFTypeID CFDataGetTypeID(void);
CFDataRef CFDataCreate(CFAllocatorRef allocator, const UInt8 *bytes, CFIndex length);
CFIndex CFDataGetLength(CFDataRef data);
const UInt8 *CFDataGetBytePtr(CFDataRef data);

/* Files */

CFTypeID CFURLGetTypeID(void);
/* The path is pathSize bytes, as the file system has them; a relative one starts at what is now the
 * current folder.  NULL when it is empty or holds a NUL, or when there is no such folder. */
CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef allocator, const UInt8 *path,
                                                 CFIndex pathSize, Boolean isDirectory);

CFTypeID CFReadStreamGetTypeID(void);
/* A stream that is not open yet: the file need not be there. */
CFReadStreamRef CFReadStreamCreateWithFile(CFAllocatorRef allocator, CFURLRef file);
/* FALSE when the file cannot be opened, or the stream has been opened before. */
Boolean CFReadStreamOpen(CFReadStreamRef stream);
/* A stream that was closed stays closed; releasing it closes it, too. */
void CFReadStreamClose(CFReadStreamRef stream);

/* Property lists */

typedef CFOptionFlags CFPropertyListMutabilityOptions;
enum { kCFPropertyListImmutable = 0 };
typedef CFIndex CFPropertyListFormat;
enum { kCFPropertyListXMLFormat_v1_0 = 100, kCFPropertyListBinaryFormat_v1_0 = 200 };
enum { kCFPropertyListReadCorruptError = 3840, kCFPropertyListReadStreamError = 3842 };

/*
 * Reads the property list in the next size bytes of an open stream, or, with size 0, in all that is
 * left of it.  Stores its format unless format is NULL.  NULL, and unless error is NULL an error
 * that the caller releases, when the stream cannot be read, or not into memory
 * (kCFPropertyListReadStreamError), or what it holds is not a property list
 * (kCFPropertyListReadCorruptError); without memory for the error it is NULL, too.
 */
CFPropertyListRef CFPropertyListCreateWithStream(CFAllocatorRef allocator, CFReadStreamRef stream,
                                                 CFIndex size,
                                                 CFPropertyListMutabilityOptions options,
                                                 CFPropertyListFormat *format, CFErrorRef *error);

CFTypeID CFErrorGetTypeID(void);
CFIndex CFErrorGetCode(CFErrorRef error);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_SDK_COREFOUNDATION_H */
