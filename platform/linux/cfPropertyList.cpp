// cfPropertyList.cpp -- property lists read from a stream.
#include "cfTypes.h"
#include "propertyList.h"

#include <algorithm>

using namespace pelago::platform;

namespace {

// Returns 0, or the code of the error.  May throw.
CFIndex ReadList(const OwnedFd &fd, CFIndex size, CFTypeRef *list, bool *isBinary)
{
    // Reads one byte above the limit, so that a list that is too large is refused.
    constexpr size_t LIMIT = PROPERTY_LIST_MAX_BYTES + 1;
    std::string bytes;
    const size_t wanted = size == 0 ? LIMIT : std::min(LIMIT, static_cast<size_t>(size));
    // A stream that is not open fails here, too.
    if (HostReadRest(fd.Get(), wanted, &bytes) != 0) { return kCFPropertyListReadStreamError; }
    switch (PropertyListCopyObject(bytes, list, isBinary)) {
    case PropertyListFault::None: return 0;
    case PropertyListFault::NoMemory: throw std::bad_alloc();
    default: return kCFPropertyListReadCorruptError;
    }
}

} // namespace

extern "C" CFPropertyListRef CFPropertyListCreateWithStream(CFAllocatorRef, CFReadStreamRef stream,
                                                            CFIndex size,
                                                            CFPropertyListMutabilityOptions options,
                                                            CFPropertyListFormat *format,
                                                            CFErrorRef *error)
{
    CFRequire(stream, CF_TYPE_READ_STREAM, __func__);
    if (size < 0) { CFStop(__func__, "a size below zero"); }
    if (options != kCFPropertyListImmutable) { CFStop(__func__, "values that can be changed"); }
    CFTypeRef list = nullptr;
    bool isBinary = false;
    CFIndex code = kCFPropertyListReadStreamError;
    try {
        code = ReadList(stream->mFd, size, &list, &isBinary);
    } catch (const std::bad_alloc &) {
        // The code stays kCFPropertyListReadStreamError.
    }
    if (list == nullptr) {
        if (error != nullptr) { *error = CFErrorCreateWithCode(code); }
        return nullptr;
    }
    if (format != nullptr) {
        *format = isBinary ? kCFPropertyListBinaryFormat_v1_0 : kCFPropertyListXMLFormat_v1_0;
    }
    return list;
}
