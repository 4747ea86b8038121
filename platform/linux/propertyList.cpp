// propertyList.cpp -- a dictionary that is read from a file and written back.  The XML form and the
// binary form are read into objects of the same classes.
#include "propertyList.h"

#include "cfTypes.h"
#include "propertyListForms.h"

namespace pelago::platform {

namespace {

using Fault = PropertyListFault;
using Object = CFOwned<CFTypeRef>;

bool IsBinaryList(std::string_view bytes) { return bytes.starts_with(PROPERTY_LIST_BINARY_MAGIC); }

Fault ReadContent(std::string_view bytes, PropertyListContent *content)
{
    if (bytes.empty()) { return Fault::Empty; }
    if (bytes.size() > PROPERTY_LIST_MAX_BYTES) { return Fault::TooLarge; }
    return IsBinaryList(bytes) ? PropertyListReadBinary(bytes, content)
                               : PropertyListReadXml(bytes, content);
}

// Copies a value with all its parts, since the owner may change any of them later.  Refuses types
// that no property list can hold, and too deep a nesting, which an array that contains itself has.
class Copier {
public:
    Fault Copy(CFTypeRef object, Object *copy)
    {
        if (++mValueCount > PROPERTY_LIST_MAX_XML_VALUES) { return Fault::TooManyValues; }
        switch (CFGetTypeID(object)) {
        case CF_TYPE_ARRAY: return CopyArray(*static_cast<CFArrayRef>(object), copy);
        case CF_TYPE_DICTIONARY: return CopyDictionary(*static_cast<CFDictionaryRef>(object), copy);
        case CF_TYPE_STRING:
            copy->reset(
                CFRequired(CFStringCreateWithText(static_cast<CFStringRef>(object)->mText)));
            return Fault::None;
        case CF_TYPE_NUMBER:
        case CF_TYPE_BOOLEAN:
        case CF_TYPE_DATE:
        case CF_TYPE_DATA:
        case CF_TYPE_UID: copy->reset(CFRetain(object)); return Fault::None;
        default: return Fault::NotRepresentable;
        }
    }

private:
    Fault CopyArray(const __CFArray &array, Object *copy)
    {
        if (++mDepth > PROPERTY_LIST_MAX_DEPTH) { return Fault::TooDeep; }
        CFOwned<CFMutableArrayRef> made(new __CFArray(&kCFTypeArrayCallBacks, false));
        for (CFTypeRef item : array.mValues) {
            Object own;
            const Fault fault = Copy(item, &own);
            if (fault != Fault::None) { return fault; }
            made->Add(own.get());
        }
        mDepth--;
        *copy = std::move(made);
        return Fault::None;
    }

    Fault CopyDictionary(const __CFDictionary &dictionary, Object *copy)
    {
        if (++mDepth > PROPERTY_LIST_MAX_DEPTH) { return Fault::TooDeep; }
        CFOwned<CFMutableDictionaryRef> made(new __CFDictionary);
        for (const auto &[key, value] : dictionary.mEntries) {
            Object own;
            const Fault fault = Copy(value.get(), &own);
            if (fault != Fault::None) { return fault; }
            made->Set(key.get(), own.get());
        }
        mDepth--;
        *copy = std::move(made);
        return Fault::None;
    }

    size_t mValueCount = 0, mDepth = 0;
};

} // namespace

PropertyListFault PropertyList::Read(std::string_view bytes)
{
    PropertyListContent content;
    const Fault fault = ReadContent(bytes, &content);
    if (fault != Fault::None) { return fault; }
    if (CFGetTypeID(content.root.get()) != CF_TYPE_DICTIONARY) { return Fault::NotADictionary; }
    if (content.hasKeyTwice) { return Fault::NotRepresentable; }
    mRoot.reset(static_cast<CFMutableDictionaryRef>(const_cast<void *>(content.root.release())));
    mIsBinary = IsBinaryList(bytes);
    return Fault::None;
}

PropertyListFault PropertyList::Write(std::string *bytes) const
{
    const Object empty(mRoot ? nullptr : new __CFDictionary);
    CFTypeRef root = mRoot ? mRoot.get() : empty.get();
    Fault fault = Fault::None;
    if (mIsBinary) {
        *bytes = PropertyListWriteBinary(root);
    } else {
        fault = PropertyListWriteXml(root, bytes);
    }
    if (fault != Fault::None) { return fault; }
    PropertyListContent content;
    fault = ReadContent(*bytes, &content);
    // Malformed: for instance a text has a character that XML does not allow.
    return fault == Fault::Malformed ? Fault::NotRepresentable : fault;
}

CFTypeRef PropertyList::CopyValue(const char *key) const
{
    const __CFDictionary::Entry *entry = mRoot ? mRoot->Find(key) : nullptr;
    return entry ? CFRetain(entry->value.get()) : nullptr;
}

PropertyListFault PropertyList::SetValue(const char *key, CFTypeRef value)
{
    Object copy;
    const Fault fault = Copier().Copy(value, &copy);
    if (fault != Fault::None) { return fault; }
    if (!mRoot) { mRoot.reset(new __CFDictionary); }
    const CFOwned<CFStringRef> name(CFRequired(CFStringCreateWithText(key)));
    mRoot->Set(name.get(), copy.get());
    return Fault::None;
}

PropertyListFault PropertyListCopyObject(std::string_view bytes, CFTypeRef *object, bool *isBinary)
{
    PropertyListContent content;
    const Fault fault = ReadContent(bytes, &content);
    if (fault != Fault::None) { return fault; }
    *object = content.root.release();
    *isBinary = IsBinaryList(bytes);
    return Fault::None;
}

const char *PropertyListFaultText(PropertyListFault fault)
{
    switch (fault) {
    case Fault::None: return "no fault";
    case Fault::Empty: return "it is empty";
    case Fault::TooLarge: return "it is too large";
    case Fault::TooDeep: return "it is nested too deeply";
    case Fault::TooManyValues: return "it holds too many values";
    case Fault::Encoding: return "its text is not UTF-8";
    case Fault::NotRepresentable: return "it holds a value that could not be kept";
    case Fault::NotADictionary: return "its root is not a dictionary";
    case Fault::NoMemory: return "there is not enough memory";
    default: return "it is damaged, or not a property list";
    }
}

} // namespace pelago::platform
