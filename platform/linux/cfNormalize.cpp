// cfNormalize.cpp -- Unicode's normalization forms.
// ICU supplies each character's decomposition, compositions and combining class.  The passes over
// the text are ours, because ICU's own take quadratic time on a long sequence of marks.
#include "cfTypes.h"

#include <unicode/unorm2.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>

using namespace pelago::platform;

namespace {

using CodePoints = std::vector<UChar32>;

// ICU's data for the canonical forms, or for those with compatibility.
class Characters {
public:
    explicit Characters(bool isCompatible)
    {
        UErrorCode error = U_ZERO_ERROR;
        mData = isCompatible ? unorm2_getNFKCInstance(&error) : unorm2_getNFCInstance(&error);
        StopOn(error);
    }

    // Zero for a starter, which keeps its place; the marks after it are sorted by their classes.
    uint8_t Class(UChar32 c) const { return unorm2_getCombiningClass(mData, c); }

    // Returns a negative number when the two do not combine.
    UChar32 Composed(UChar32 one, UChar32 other) const
    {
        return unorm2_composePair(mData, one, other);
    }

    void AppendDecomposed(UChar32 c, CodePoints *out) const
    {
        constexpr int32_t CAPACITY = 64; // the longest is U+FDFA's, with 18
        char16_t units[CAPACITY];
        UErrorCode error = U_ZERO_ERROR;
        const int32_t count = unorm2_getDecomposition(mData, c, units, CAPACITY, &error);
        StopOn(error);
        if (count < 0) { out->push_back(c); } // it has no decomposition
        for (int32_t i = 0; i < count;) {
            U16_NEXT_UNSAFE(units, i, c);
            out->push_back(c);
        }
    }

private:
    static void StopOn(UErrorCode error)
    {
        // ICU caches this failure, and every later call returns it.
        if (error == U_MEMORY_ALLOCATION_ERROR) { throw std::bad_alloc(); }
        if (U_FAILURE(error)) { CFStop("CFStringNormalize", u_errorName(error)); }
    }

    const UNormalizer2 *mData; // lives as long as ICU
};

CodePoints Decompose(const std::string &text, const Characters &characters)
{
    CodePoints out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        UChar32 c = 0;
        U8_NEXT_UNSAFE(text, i, c);
        characters.AppendDecomposed(c, &out);
    }
    return out;
}

void SortMarks(CodePoints *text, const Characters &characters)
{
    const auto isMark = [&](UChar32 c) { return characters.Class(c) != 0; };
    const auto isBefore = [&](UChar32 one, UChar32 other) {
        return characters.Class(one) < characters.Class(other);
    };
    const auto end = text->end();
    for (auto mark = std::find_if(text->begin(), end, isMark); mark != end;) {
        const auto starter = std::find_if_not(mark, end, isMark);
        if (!std::is_sorted(mark, starter, isBefore)) { std::stable_sort(mark, starter, isBefore); }
        mark = std::find_if(starter, end, isMark);
    }
}

// Requires text that is decomposed and whose marks are sorted.
void Compose(CodePoints *text, const Characters &characters)
{
    UChar32 *starter = nullptr;
    UChar32 *out = text->data(); // composing never makes the text longer
    uint8_t lastClass = 0;       // of the character before out, if that is not the starter
    for (const UChar32 c : *text) {
        const uint8_t itsClass = characters.Class(c);
        if (starter != nullptr && (starter + 1 == out || lastClass < itsClass)) {
            const UChar32 composed = characters.Composed(*starter, c);
            if (composed >= 0) {
                *starter = composed;
                continue;
            }
        }
        if (itsClass == 0) { starter = out; }
        lastClass = itsClass;
        *out++ = c;
    }
    text->resize(out - text->data());
}

void Assign(CFMutableStringRef string, const CodePoints &text)
{
    std::string bytes;
    bytes.reserve(string->mText.size());
    CFIndex unitCount = 0;
    for (const UChar32 c : text) {
        char sequence[U8_MAX_LENGTH];
        size_t length = 0;
        U8_APPEND_UNSAFE(sequence, length, c);
        bytes.append(sequence, length);
        unitCount += U16_LENGTH(c);
    }
    string->mText = std::move(bytes);
    string->mUnitCount = unitCount;
}

} // namespace

extern "C" void CFStringNormalize(CFMutableStringRef string, CFStringNormalizationForm form)
{
    CFRequire(string, CF_TYPE_STRING, __func__);
    if (!string->mIsMutable) { CFStop(__func__, "the string is immutable"); }
    if (form < kCFStringNormalizationFormD || form > kCFStringNormalizationFormKC) {
        CFStop(__func__, "no such form");
    }
    const bool isCompatible =
        form == kCFStringNormalizationFormKD || form == kCFStringNormalizationFormKC;
    const bool isComposed =
        form == kCFStringNormalizationFormC || form == kCFStringNormalizationFormKC;
    try {
        const Characters characters(isCompatible);
        CodePoints text = Decompose(string->mText, characters);
        SortMarks(&text, characters);
        if (isComposed) { Compose(&text, characters); }
        Assign(string, text);
    } catch (const std::bad_alloc &) {
        string->mIsLost = true; // no result reports the failure; CFStringGetCString() will fail
    }
}
