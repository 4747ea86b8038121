// cfDictionary.cpp -- dictionaries whose keys are strings, as in property lists.
#include "cfTypes.h"

using namespace pelago::platform;

namespace {

bool DictionaryEqual(const CFObject *one, const CFObject *other)
{
    const auto &left = *static_cast<const __CFDictionary *>(one);
    const auto &right = *static_cast<const __CFDictionary *>(other);
    if (left.mEntries.size() != right.mEntries.size()) { return false; }
    for (const __CFDictionary::Entry &entry : left.mEntries) {
        const __CFDictionary::Entry *match = right.Find(entry.key->mText);
        if (match == nullptr || !CFEqual(entry.value.get(), match->value.get())) { return false; }
    }
    return true;
}

constexpr CFClass DICTIONARY_CLASS = {CF_TYPE_DICTIONARY, CFDestroy<__CFDictionary>,
                                      DictionaryEqual};

} // namespace

__CFDictionary::__CFDictionary() : CFObject(DICTIONARY_CLASS) {}

const __CFDictionary::Entry *__CFDictionary::Find(std::string_view key) const
{
    const auto found = mIndex.find(key);
    return found == mIndex.end() ? nullptr : &mEntries[found->second];
}

void __CFDictionary::Set(CFStringRef key, CFTypeRef value)
{
    const auto found = mIndex.find(key->mText);
    if (found != mIndex.end()) {
        mEntries[found->second].value.reset(CFRetain(value));
        return;
    }
    mEntries.push_back({CFOwned<CFStringRef>(static_cast<CFStringRef>(CFRetain(key))),
                        CFOwned<CFTypeRef>(CFRetain(value))});
    mIndex.emplace(key->mText, mEntries.size() - 1);
}

CFMutableDictionaryRef pelago::platform::CFDictionaryCreateEmpty()
{
    return CFNew<__CFDictionary>();
}

extern "C" CFTypeID CFDictionaryGetTypeID(void) { return CF_TYPE_DICTIONARY; }

extern "C" CFIndex CFDictionaryGetCount(CFDictionaryRef dictionary)
{
    CFRequire(dictionary, CF_TYPE_DICTIONARY, __func__);
    return static_cast<CFIndex>(dictionary->mEntries.size());
}

// A key that is not a string is never found.
extern "C" const void *CFDictionaryGetValue(CFDictionaryRef dictionary, const void *key)
{
    CFRequire(dictionary, CF_TYPE_DICTIONARY, __func__);
    if (CFGetTypeID(key) != CF_TYPE_STRING) { return nullptr; }
    const __CFDictionary::Entry *entry = dictionary->Find(static_cast<CFStringRef>(key)->mText);
    return entry ? entry->value.get() : nullptr;
}
