// Any bytes can be read without harm; and what was read, written and read again is the same.
#include "../platform/linux/cfTypes.h"
#include "../platform/linux/propertyList.h"

#include <cstdlib>

using namespace pelago::platform;

namespace {

using Fault = PropertyListFault;

CFOwned<CFDictionaryRef> Values(const PropertyList &list)
{
    return CFOwned<CFDictionaryRef>(list.CopyValues());
}

// The values as text, set one by one into a list that starts in XML.  Empty when that is refused: a
// date that XML cannot tell, or more than a list may hold.
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

std::string AsXml(const PropertyList &list) { return AsXml(Values(list).get()); }

// What a commit does: one key is set in a list that was read, and all others come back as they
// were.
void ExpectTheOthersKept(PropertyList *list, PropertyList *copy)
{
    constexpr char KEY[] = "set by a commit";
    if (list->SetValue(KEY, CFSTR("value")) != Fault::None) { abort(); }
    std::string written;
    const Fault fault = list->Write(&written);
    if (fault == Fault::TooManyValues || fault == Fault::TooLarge) {
        return;
    } // it was full already
    PropertyList changed;
    if (fault != Fault::None || changed.Read(written) != Fault::None) { abort(); }
    if (copy->SetValue(KEY, CFSTR("value")) != Fault::None || AsXml(changed) != AsXml(*copy)) {
        abort();
    }
}

// What reads objects alone gives the same ones as what keeps a tree, to the type of a number.
void ExpectTheSameObject(std::string_view bytes, const PropertyList &list, const std::string &text)
{
    CFTypeRef object = nullptr;
    bool isBinary = false;
    if (PropertyListCopyObject(bytes, &object, &isBinary) != Fault::None) { abort(); }
    const CFOwned<CFTypeRef> read(object);
    if (isBinary != list.IsBinary() || !CFEqual(read.get(), Values(list).get())) { abort(); }
    if (AsXml(static_cast<CFDictionaryRef>(read.get())) != text) { abort(); }
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
    if (list.Read(bytes) != PropertyListFault::None) { return 0; }
    std::string written;
    // Whatever was read can be written: the format is kept.
    if (list.Write(&written) != Fault::None) { abort(); }
    PropertyList copy;
    if (copy.Read(written) != Fault::None || copy.IsBinary() != list.IsBinary()) { abort(); }
    if (!CFEqual(Values(list).get(), Values(copy).get())) { abort(); }
    // Equality of objects does not see the sign of a zero, nor the type of a number; the text does.
    const std::string text = AsXml(list);
    if (text != AsXml(copy)) { abort(); }
    ExpectTheSameObject(bytes, list, text);
    if (!list.IsBinary() && text != written) { abort(); }
    ExpectTheOthersKept(&list, &copy);
    return 0;
}
