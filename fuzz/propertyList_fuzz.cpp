// Any bytes can be read without harm; what was read, written and read again is the same; and
// libplist, a reader and writer of others, finds the same values in it.
#include "../platform/linux/cfTypes.h"
#include "../platform/linux/propertyList.h"
#include "libplistValues.h"

#include <cstdlib>

using namespace pelago::platform;

namespace {

using Fault = PropertyListFault;

void Require(bool isTrue)
{
    if (!isTrue) { abort(); }
}

std::string Written(const PropertyList &list)
{
    std::string bytes;
    Require(list.Write(&bytes) == Fault::None);
    return bytes;
}

CFOwned<CFDictionaryRef> Values(std::string_view bytes)
{
    CFTypeRef object = nullptr;
    bool isBinary = false;
    Require(PropertyListCopyObject(bytes, &object, &isBinary) == Fault::None);
    return CFOwned<CFDictionaryRef>(static_cast<CFDictionaryRef>(object));
}

// The values as text, which has the sign of a zero and the type of a number: equality of objects
// does not see them.  Empty when that is refused: a date or a text that XML does not have, or more
// than a list may hold.
std::string AsXml(CFDictionaryRef values)
{
    PropertyList other;
    for (const __CFDictionary::Entry &entry : values->mEntries) {
        if (other.SetValue(entry.key->mText.c_str(), entry.value.get()) != Fault::None) {
            return "";
        }
    }
    std::string written;
    return other.Write(&written) == Fault::None ? written : "";
}

// What a commit does: one key is set in a list that was read, and all others come back as they
// were.
void ExpectTheOthersKept(PropertyList *list, CFDictionaryRef values)
{
    CFStringRef key = CFSTR("set by a commit");
    Require(list->SetValue(key->mText.c_str(), CFSTR("value")) == Fault::None);
    std::string bytes;
    const Fault fault = list->Write(&bytes);
    if (fault == Fault::TooManyValues || fault == Fault::TooLarge) {
        return;
    } // it was full already
    Require(fault == Fault::None);
    const CFOwned<CFDictionaryRef> changed = Values(bytes);
    const CFIndex added = CFDictionaryGetValue(values, key) == nullptr;
    Require(CFDictionaryGetCount(changed.get()) == CFDictionaryGetCount(values) + added);
    for (const __CFDictionary::Entry &entry : values->mEntries) {
        const bool isIt = CFEqual(entry.key.get(), key);
        const void *value = CFDictionaryGetValue(changed.get(), entry.key.get());
        Require(CFEqual(value, isIt ? CFSTR("value") : entry.value.get()));
    }
}

// A list that is only read may have any root, and a key twice.
void ReadAnyRoot(std::string_view bytes)
{
    CFTypeRef object = nullptr;
    bool isBinary = false;
    if (PropertyListCopyObject(bytes, &object, &isBinary) == Fault::None) { CFRelease(object); }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    PropertyList list;
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);
    ReadAnyRoot(bytes);
    if (list.Read(bytes) != Fault::None) { return 0; }
    // Whatever was read can be written: the format is kept.
    const std::string written = Written(list);
    const CFOwned<CFDictionaryRef> values = Values(bytes), copies = Values(written);
    Require(CFEqual(values.get(), copies.get()));
    const std::string text = AsXml(values.get());
    Require(text == AsXml(copies.get()));
    Require(list.IsBinary() || text == written);
    // In XML libplist has its own ideas of what it reads; what we wrote is plain.
    if (list.IsBinary()) { Require(LibplistHasSame(bytes, values.get()) != LibplistSays::Other); }
    Require(LibplistHasSame(written, values.get()) == LibplistSays::Same);
    ExpectTheOthersKept(&list, values.get());
    return 0;
}
