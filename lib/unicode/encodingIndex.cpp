// encodingIndex.cpp -- looks up encodings by name and by code page.
//
// The compiler computes the indexes from the table's rows: they take a program no time at its start
// and, since they contain no pointers, no relocations.
#include "encodingIndex.h"

#include "ascii.h"
#include "encodingRows.h"
#include "unicode.h"
#include "util.h"

#include <algorithm>
#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>

namespace pelago {

namespace {

constexpr int ENCODING_NUM_ROWS = std::size(ENCODING_ROWS);

constexpr uint32_t ENCODING_HASH_START = 2166136261, ENCODING_HASH_FACTOR = 16777619; // FNV-1a

constexpr uint32_t EncodingHash(const char *text)
{
    uint32_t hash = ENCODING_HASH_START;
    for (; *text != '\0'; text++) {
        hash = (hash ^ static_cast<unsigned char>(*text)) * ENCODING_HASH_FACTOR;
    }
    return hash ^ hash >> 16; // an index takes the low bits alone
}

// Writes the name's normal form, which is never longer than the name.
constexpr void EncodingNormalizeTo(char *out, const char *name)
{
    for (; *name != '\0'; name++) {
        const char byte = AsciiToLower(*name);
        if (AsciiIsLower(byte) || AsciiIsDigit(byte)) { *out++ = byte; }
    }
    *out = '\0';
}

constexpr bool EncodingIsSame(const char *a, const char *b)
{
    for (; *a == *b; a++, b++) {
        if (*a == '\0') { return true; }
    }
    return false;
}

// Calls use(name, row) for all names, in the order of the table.
template <typename Use> constexpr void EncodingForEachName(Use use)
{
    for (int row = 0; row < ENCODING_NUM_ROWS; row++) {
        for (const char *const *name = ENCODING_ROWS[row].names; *name != nullptr; name++) {
            use(*name, row);
        }
    }
}

consteval size_t EncodingCountBytes()
{
    size_t count = 0;
    EncodingForEachName([&](const char *name, int) { count += std::string_view(name).size() + 1; });
    return count;
}

// A hash table, with linear probing, from each name to the first row that has it.
class EncodingIndex {
public:
    static constexpr uint32_t NUM_SLOTS = 4096; // a third of them used

    // Returns the text's row, or ENCODING_NO_ROW.
    constexpr int Find(const char *text) const
    {
        const Slot &slot = mSlots[FindSlot(text)];
        return slot.textAt == 0 ? ENCODING_NO_ROW : slot.row;
    }

    // Returns the place of this index's copy of the text, which the index must contain.  Text()
    // returns the copy at a place.
    constexpr uint16_t TextAt(const char *text) const { return mSlots[FindSlot(text)].textAt; }
    const char *Text(uint16_t textAt) const { return &mTexts[textAt]; }

    constexpr void Add(const char *text, int row)
    {
        Slot &slot = mSlots[FindSlot(text)];
        if (slot.textAt != 0) { return; } // an earlier row has it
        slot = {mTextsEnd, static_cast<uint16_t>(row)};
        do {
            mTexts[mTextsEnd++] = *text;
        } while (*text++ != '\0');
    }

private:
    struct Slot {
        uint16_t textAt = 0; // 0: empty
        uint16_t row = 0;
    };

    constexpr uint32_t FindSlot(const char *text) const
    {
        uint32_t at = EncodingHash(text) % NUM_SLOTS;
        while (mSlots[at].textAt != 0 && !EncodingIsSame(text, &mTexts[mSlots[at].textAt])) {
            at = (at + 1) % NUM_SLOTS;
        }
        return at;
    }

    std::array<Slot, NUM_SLOTS> mSlots{};
    std::array<char, 1 + EncodingCountBytes()> mTexts{};
    uint16_t mTextsEnd = 1;
};

constexpr EncodingIndex NAMES = [] {
    EncodingIndex index;
    EncodingForEachName([&](const char *name, int row) { index.Add(name, row); });
    return index;
}();

constexpr EncodingIndex NORMALIZED_NAMES = [] {
    EncodingIndex index;
    EncodingForEachName([&](const char *name, int row) {
        char normalized[64] = {}; // a longer name does not compile
        EncodingNormalizeTo(normalized, name);
        index.Add(normalized, row);
    });
    return index;
}();

struct EncodingCodePage {
    int32_t codePage, row;
    auto operator<=>(const EncodingCodePage &) const = default;
};

// Sorted by code page and then by row: a search finds the code page's first row in the table.
constexpr auto CODE_PAGES = [] {
    constexpr auto COUNT = std::ranges::count_if(
        ENCODING_ROWS, [](const EncodingRow &row) { return row.codePage >= 0; });
    std::array<EncodingCodePage, COUNT> pages{};
    size_t count = 0;
    for (int row = 0; row < ENCODING_NUM_ROWS; row++) {
        const int32_t codePage = ENCODING_ROWS[row].codePage;
        if (codePage >= 0) {
            pages[count++] = {codePage, row};
        }
    }
    std::ranges::sort(pages);
    return pages;
}();

constexpr auto ANSWERS = [] { // by row: the encoding that a look-up returns
    std::array<StringEncoding, ENCODING_NUM_ROWS> answers{};
    std::ranges::transform(ENCODING_ROWS, answers.begin(), [](const EncodingRow &row) {
        return row.isSupported ? row.encoding : STRING_ENCODING_UNKNOWN;
    });
    return answers;
}();

constexpr auto PREFERRED_NAMES = [] { // by encoding, as places in NAMES
    std::array<uint16_t, STRING_ENCODING_COUNT> preferred{};
    for (const EncodingRow &row : ENCODING_ROWS) {
        uint16_t &textAt = preferred[row.encoding];
        if (textAt == 0) { textAt = NAMES.TextAt(row.names[row.preferredIndex]); }
    }
    return preferred;
}();

} // namespace

int EncodingFindCodePage(int32_t codePage)
{
    const auto *found =
        std::ranges::lower_bound(CODE_PAGES, codePage, {}, &EncodingCodePage::codePage);
    const bool isThere = found != CODE_PAGES.end() && found->codePage == codePage;
    return isThere ? found->row : ENCODING_NO_ROW;
}

int EncodingFindName(const char *name) { return NAMES.Find(name); }

int EncodingFindNormalized(const char *normalized) { return NORMALIZED_NAMES.Find(normalized); }

char *EncodingNormalize(const char *name)
{
    auto *normalized = static_cast<char *>(Util_SafeMalloc(strlen(name) + 1));
    EncodingNormalizeTo(normalized, name);
    return normalized;
}

StringEncoding EncodingOfRow(int row) { return ANSWERS[row]; }

const char *EncodingPreferredName(StringEncoding encoding)
{
    if (static_cast<uint32_t>(encoding) >= STRING_ENCODING_COUNT) { return nullptr; }
    return NAMES.Text(PREFERRED_NAMES[encoding]);
}

} // namespace pelago
