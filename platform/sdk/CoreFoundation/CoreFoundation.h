/*
 * CoreFoundation.h -- the part of Apple's Core Foundation that this product calls, and the
 * functions with which its tests check results.
 *
 * Types, names and constant values are Apple's own, so that one source compiles against this header
 * and against the SDK's.  It is used on Linux, where platform/linux implements it, and by builds
 * for macOS on machines without the SDK.  On a Mac with the SDK it must not be on the include path.
 *
 * Ownership: the caller owns what a Create or Copy function returns, and passes it to CFRelease;
 * the caller does not own what a Get function returns.  Reference counts are atomic; the objects
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
/* Objects of different types are never equal; strings are compared by their UTF-16 units. */
Boolean CFEqual(CFTypeRef one, CFTypeRef other);

/* Strings */

CFTypeID CFStringGetTypeID(void);
/* Returns a constant, which needs no release: the same object whenever the text is the same. */
CFStringRef __CFStringMakeConstantString(const char *text);
#define CFSTR(text) __CFStringMakeConstantString("" text "")
/* Returns NULL when the text is not valid in the encoding.  Linux supports only UTF-8. */
CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char *text,
                                      CFStringEncoding encoding);
/* maximumLength is in UTF-16 units; 0 sets no limit.  Linux supports only 0. */
CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef allocator, CFIndex maximumLength,
                                             CFStringRef string);
/* Returns the length in UTF-16 units. */
CFIndex CFStringGetLength(CFStringRef string);
/* Returns the most bytes that length UTF-16 units need, without the terminator; kCFNotFound when
 * that does not fit a CFIndex. */
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);
/* Returns FALSE, with an empty text in the buffer, when the text and its terminator do not fit in
 * bufferSize bytes. */
Boolean CFStringGetCString(CFStringRef string, char *buffer, CFIndex bufferSize,
                           CFStringEncoding encoding);
/* Returns the string's own text, which is valid until the string is changed or released.  May
 * return NULL for any string; callers then use CFStringGetCString. */
const char *CFStringGetCStringPtr(CFStringRef string, CFStringEncoding encoding);

/* Unicode's normalization forms: decomposed (D) or composed (C), with K for compatibility forms. */
typedef CFIndex CFStringNormalizationForm;
enum {
    kCFStringNormalizationFormD = 0,
    kCFStringNormalizationFormKD = 1,
    kCFStringNormalizationFormC = 2,
    kCFStringNormalizationFormKC = 3
};
/* Normalizes the string in place.  An immutable string or another form ends the process.  When
 * memory runs out on Linux, the text is lost: the functions that read it return FALSE or NULL. */
void CFStringNormalize(CFMutableStringRef string, CFStringNormalizationForm form);

/* Arrays.  An index or a range outside the array ends the process. */

typedef struct {
    CFIndex version;
    const void *(*retain)(CFAllocatorRef allocator, const void *value);
    void (*release)(CFAllocatorRef allocator, const void *value);
    CFStringRef (*copyDescription)(const void *value);
    Boolean (*equal)(const void *one, const void *other);
} CFArrayCallBacks;
/* Retains values that are added, releases values that are removed, compares with CFEqual. */
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

/* Numbers, booleans, dates, data: the other values of property lists */

typedef CFIndex CFNumberType;
enum { kCFNumberSInt64Type = 4, kCFNumberFloat64Type = 6 };
CFTypeID CFNumberGetTypeID(void);
CFNumberRef CFNumberCreate(CFAllocatorRef allocator, CFNumberType type, const void *value);
/* Stores the number as the type.  Returns FALSE when the type cannot hold it exactly, and stores
 * the nearest number that it can; an integer type cuts a fraction off, and stores 0 for NaN. */
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
/* The path is pathSize bytes, in the file system's own encoding; a relative one starts at the
 * folder that is current now.  Returns NULL when the path is empty or contains a NUL, and when the
 * current folder of a relative one has no path any more. */
CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef allocator, const UInt8 *path,
                                                 CFIndex pathSize, Boolean isDirectory);

CFTypeID CFReadStreamGetTypeID(void);
/* Returns a stream that is not open yet: the file need not exist. */
CFReadStreamRef CFReadStreamCreateWithFile(CFAllocatorRef allocator, CFURLRef file);
/* Returns FALSE when the file cannot be opened or is not a regular one, and when the stream has
 * been opened before. */
Boolean CFReadStreamOpen(CFReadStreamRef stream);
/* A closed stream cannot be opened again.  Releasing a stream closes it, too. */
void CFReadStreamClose(CFReadStreamRef stream);

/* Property lists */

typedef CFOptionFlags CFPropertyListMutabilityOptions;
enum { kCFPropertyListImmutable = 0 };
typedef CFIndex CFPropertyListFormat;
enum { kCFPropertyListXMLFormat_v1_0 = 100, kCFPropertyListBinaryFormat_v1_0 = 200 };
enum { kCFPropertyListReadCorruptError = 3840, kCFPropertyListReadStreamError = 3842 };

/*
 * Reads a property list from the next size bytes of an open stream or, with size 0, from the rest
 * of it.  Stores its format unless format is NULL.  Returns NULL when the stream cannot be read or
 * memory runs out (kCFPropertyListReadStreamError), and when the bytes are not a property list
 * (kCFPropertyListReadCorruptError).  Unless error is NULL, *error is then an error that the caller
 * releases, or NULL when there was no memory for it.
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
