// unicodeSimpleTypes.cpp -- from an encoding's name to its number, and back.
#include "unicode.h"

#include "ascii.h"
#include "codeset.h"
#include "diagnostics.h"
#include "encodingIndex.h"
#include "hashTable.h"
#include "scoped.h"
#include "util.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>

using namespace pelago;

namespace {

constexpr char UNICODE_MODULE[] = "lib/unicode/unicodeSimpleTypes";
constexpr int UNICODE_UNKNOWN_ENCODING = 2588;

constexpr uint32_t UNICODE_NAME_BUCKETS = 128;
constexpr int UNICODE_NAME_CACHE_FLAGS = HASH_ISTRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY;

HashTable *sNameCache; // name -> encoding, which is UNKNOWN if the library does not convert it

// STRING_ENCODING_UNKNOWN before the first look-up.  Threads may look it up at the same time, since
// they find the same.
std::atomic<StringEncoding> sCurrentEncoding{STRING_ENCODING_UNKNOWN};

// Reads a text that consists of digits alone; an empty one is 0.  False for any other text.
bool UnicodeReadNumber(const char *text, int32_t *number)
{
    constexpr int32_t TOO_LARGE = 100'000'000; // for a code page; stands for all larger numbers
    *number = 0;
    for (; AsciiIsDigit(*text); text++) {
        *number = std::min(*number * 10 + (*text - '0'), TOO_LARGE);
    }
    return *text == '\0';
}

int UnicodeFindCodePage(const char *name)
{
    constexpr size_t PREFIX_LENGTH = 8;
    if (strncmp(name, "windows-", PREFIX_LENGTH) != 0 &&
        strncmp(name, "Windows-", PREFIX_LENGTH) != 0) {
        return ENCODING_NO_ROW;
    }
    int32_t codePage = 0;
    if (!UnicodeReadNumber(name + PREFIX_LENGTH, &codePage)) { return ENCODING_NO_ROW; }
    return EncodingFindCodePage(codePage);
}

int UnicodeFindRow(const char *name)
{
    if (const int row = UnicodeFindCodePage(name); row != ENCODING_NO_ROW) { return row; }
    if (const int row = EncodingFindName(name); row != ENCODING_NO_ROW) { return row; }
    const ScopedFree<char> normalized(EncodingNormalize(name));
    return EncodingFindNormalized(normalized.get());
}

// Finds the name in the table of encodings, and caches the encoding of a name that is there.  Out
// of line, so that the cached path spills no registers.
[[gnu::noinline]] StringEncoding UnicodeFindAndKeep(const char *name, bool warns)
{
    HashTable *cache =
        HashTable_AllocOnce(&sNameCache, UNICODE_NAME_BUCKETS, UNICODE_NAME_CACHE_FLAGS, nullptr);
    const int row = UnicodeFindRow(name);
    if (row == ENCODING_NO_ROW) {
        if (warns) {
            Warning("%s: Did not find an IANA match for encoding \"%s\"\n", "UnicodeIANALookup",
                    name);
        }
        return STRING_ENCODING_UNKNOWN;
    }
    const StringEncoding encoding = EncodingOfRow(row);
    HashTable_Insert(cache, name, std::bit_cast<void *>(intptr_t{encoding}));
    return encoding;
}

inline StringEncoding UnicodeEncodingOf(const char *name, bool warns)
{
    const HashTable *cache = __atomic_load_n(&sNameCache, __ATOMIC_ACQUIRE);
    void *kept = nullptr;
    if (cache == nullptr || !HashTable_Lookup(cache, name, &kept)) {
        return UnicodeFindAndKeep(name, warns);
    }
    return static_cast<StringEncoding>(std::bit_cast<intptr_t>(kept));
}

} // namespace

extern "C" void Unicode_Shutdown()
{
    HashTable_Free(sNameCache);
    sNameCache = nullptr;
}

extern "C" StringEncoding UnicodeIANALookup(const char *name)
{
    return UnicodeEncodingOf(name, true);
}

extern "C" StringEncoding Unicode_FindEncoding(const char *name)
{
    return UnicodeEncodingOf(name, false);
}

extern "C" const char *Unicode_EncodingEnumToName(StringEncoding encoding)
{
    const StringEncoding resolved = Unicode_ResolveEncoding(encoding);
    if (const char *name = EncodingPreferredName(resolved)) { return name; }
    Warning("%s: Unknown encoding %d.\n", __func__, resolved);
    Panic(UTIL_NOT_REACHED_REPORT, UNICODE_MODULE, UNICODE_UNKNOWN_ENCODING);
}

extern "C" StringEncoding Unicode_ResolveEncoding(StringEncoding encoding)
{
    return encoding == STRING_ENCODING_DEFAULT ? Unicode_GetCurrentEncoding() : encoding;
}

extern "C" StringEncoding Unicode_GetCurrentEncoding()
{
    StringEncoding current = sCurrentEncoding.load(std::memory_order_relaxed);
    if (current == STRING_ENCODING_UNKNOWN) {
        current = Unicode_LookUpCurrentEncoding();
        sCurrentEncoding.store(current, std::memory_order_relaxed);
    }
    return current;
}

extern "C" StringEncoding Unicode_LookUpCurrentEncoding()
{
    return UnicodeIANALookup(CodeSet_GetCurrentCodeSet());
}

extern "C" bool Unicode_IsEncodingValid(StringEncoding encoding)
{
    return static_cast<uint32_t>(encoding) < STRING_ENCODING_COUNT;
}
