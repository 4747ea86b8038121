// Reads any bytes as a property list.  A list that was read, written and read again must be the
// same, and libplist, another implementation, must find the same values in it.
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

// Returns the values as XML, which shows the sign of a zero and the type of a number; CFEqual()
// compares neither.  Empty if they cannot be written: a date or a text that XML cannot represent,
// or more than a list may hold.
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

// Sets one key in a list that was read, as a commit does; all others must stay the same.
void ExpectTheOthersKept(PropertyList *list, CFDictionaryRef values)
{
    CFStringRef key = CFSTR("set by a commit");
    Require(list->SetValue(key->mText.c_str(), CFSTR("value")) == Fault::None);
    std::string bytes;
    const Fault fault = list->Write(&bytes);
    if (fault == Fault::TooManyValues || fault == Fault::TooLarge) {
        return;
    } // the list was full before
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
    // A list that was read can be written, in the same format.
    const std::string written = Written(list);
    const CFOwned<CFDictionaryRef> values = Values(bytes), copies = Values(written);
    Require(CFEqual(values.get(), copies.get()));
    const std::string text = AsXml(values.get());
    Require(text == AsXml(copies.get()));
    Require(list.IsBinary() || text == written);
    // libplist reads unusual XML differently, but not the plain XML that we write.
    if (list.IsBinary()) { Require(LibplistHasSame(bytes, values.get()) != LibplistSays::Other); }
    Require(LibplistHasSame(written, values.get()) == LibplistSays::Same);
    ExpectTheOthersKept(&list, values.get());
    return 0;
}
