// propertyList.cpp -- reads and writes property lists: the guard first, then libplist.
// The tree that was read is kept, and a value that is set replaces its node in it; so all the
// others are written from what was read.
#include "propertyList.h"

#include "propertyListNode.h"

#include <cerrno>
#include <clocale>
#include <unordered_set>

namespace pelago::platform {

namespace {

using Fault = PropertyListFault;

// libplist reads reals with the locale's decimal point: under a German one "1.5" became 1.
class PlainLocale {
public:
    PlainLocale() : mPlain(newlocale(LC_ALL_MASK, "C", nullptr))
    {
        if (mPlain == nullptr) { throw std::bad_alloc(); }
        mBefore = uselocale(mPlain);
    }
    ~PlainLocale()
    {
        uselocale(mBefore);
        freelocale(mPlain);
    }
    PlainLocale(const PlainLocale &) = delete;
    PlainLocale &operator=(const PlainLocale &) = delete;

private:
    locale_t mPlain, mBefore;
};

// libplist does not look whether it got memory: what it could not copy is missing from the list,
// and only the C library's errno tells.
class MemoryWatch {
public:
    MemoryWatch() { errno = 0; }
    Fault Verdict(Fault otherwise) const { return errno == ENOMEM ? Fault::NoMemory : otherwise; }
};

bool IsBinaryList(std::string_view bytes) { return bytes.starts_with(PROPERTY_LIST_BINARY_MAGIC); }

std::string_view WithoutMark(std::string_view text)
{
    const bool hasMark = text.starts_with(PROPERTY_LIST_UTF8_MARK);
    return hasMark ? text.substr(PROPERTY_LIST_UTF8_MARK.size()) : text;
}

// XML makes every line end a newline; libplist does not.
std::string WithPlainLineEnds(std::string_view text)
{
    std::string plain;
    for (size_t end; (end = text.find('\r')) != text.npos; text.remove_prefix(end)) {
        plain.append(text.substr(0, end)).push_back('\n');
        end += text.substr(end).starts_with("\r\n") ? 2 : 1;
    }
    return plain.append(text);
}

Fault Guard(std::string_view bytes)
{
    if (bytes.empty()) { return Fault::Empty; }
    if (bytes.size() > PROPERTY_LIST_MAX_BYTES) { return Fault::TooLarge; }
    return IsBinaryList(bytes) ? PropertyListGuardBinary(bytes)
                               : PropertyListGuardXml(WithoutMark(bytes));
}

Fault Parse(std::string_view bytes, PlistOwned *tree)
{
    const Fault fault = Guard(bytes);
    if (fault != Fault::None) { return fault; }
    const PlainLocale plain;
    const MemoryWatch watch;
    plist_t root = nullptr;
    if (IsBinaryList(bytes)) {
        plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    } else {
        const std::string text = WithPlainLineEnds(WithoutMark(bytes));
        plist_from_xml(text.data(), static_cast<uint32_t>(text.size()), &root);
    }
    const Fault verdict = watch.Verdict(root != nullptr ? Fault::None : Fault::Malformed);
    tree->reset(root);
    return verdict;
}

// A binary dictionary can hold a key twice.  Inside a value both stay as they are; at the root,
// where keys are set, one of them would be left with the old value.
bool HasEveryKeyOnce(plist_t dict)
{
    std::unordered_set<std::string> seen;
    return PlistForEachPair(dict,
                            [&](const char *key, plist_t) { return seen.insert(key).second; });
}

Fault WriteBinary(plist_t root, std::string *bytes)
{
    char *rawBytes = nullptr;
    uint32_t size = 0;
    plist_to_bin(root, &rawBytes, &size);
    const MallocOwned<char> written(rawBytes);
    if (!written) { return Fault::NoMemory; }
    bytes->assign(written.get(), size);
    return Fault::None;
}

} // namespace

struct PropertyList::Tree {
    PlistOwned root;
};

PropertyList::PropertyList() = default;
PropertyList::~PropertyList() = default;
PropertyList::PropertyList(PropertyList &&) noexcept = default;
PropertyList &PropertyList::operator=(PropertyList &&) noexcept = default;

PropertyListFault PropertyList::Read(std::string_view bytes)
{
    PlistOwned root;
    const Fault fault = Parse(bytes, &root);
    if (fault != Fault::None) { return fault; }
    const bool isBinary = IsBinaryList(bytes);
    if (plist_get_node_type(root.get()) != PLIST_DICT) { return Fault::NotADictionary; }
    if (isBinary && !HasEveryKeyOnce(root.get())) { return Fault::NotRepresentable; }
    mTree.reset(new Tree{std::move(root)});
    mIsBinary = isBinary;
    return Fault::None;
}

PropertyListFault PropertyList::Write(std::string *bytes) const
{
    const PlistOwned empty(mTree ? nullptr : plist_new_dict());
    plist_t root = mTree ? mTree->root.get() : empty.get();
    const MemoryWatch watch;
    const Fault fault =
        watch.Verdict(mIsBinary ? WriteBinary(root, bytes) : PlistWriteXml(root, bytes));
    return fault == Fault::None ? Guard(*bytes) : fault;
}

CFTypeRef PropertyList::CopyValue(const char *key) const
{
    plist_t node = mTree ? plist_dict_get_item(mTree->root.get(), key) : nullptr;
    return node ? PlistCopyAsObject(node) : nullptr;
}

PropertyListFault PropertyList::SetValue(const char *key, CFTypeRef value)
{
    const MemoryWatch watch;
    PlistOwned node;
    const Fault fault = PlistFromObject(value, &node);
    if (fault != Fault::None) { return fault; }
    if (!mTree) { mTree.reset(new Tree{PlistOwned(plist_new_dict())}); }
    plist_dict_set_item(mTree->root.get(), key, node.release());
    return watch.Verdict(Fault::None);
}

CFDictionaryRef PropertyList::CopyValues() const
{
    if (!mTree) { return CFDictionaryCreateEmpty(); }
    return static_cast<CFDictionaryRef>(PlistCopyAsObject(mTree->root.get()));
}

PropertyListFault PropertyListCopyObject(std::string_view bytes, CFTypeRef *object, bool *isBinary)
{
    PlistOwned root;
    const Fault fault = Parse(bytes, &root);
    if (fault != Fault::None) { return fault; }
    *object = PlistCopyAsObject(root.get());
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
