// err.cpp -- the C library's error numbers as text, each looked up once.
#include "err.h"

#include "errInt.h"
#include "hashTable.h"
#include "scoped.h"
#include "str.h"
#include "utf.h"
#include "util.h"

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

using namespace pelago;

namespace {

constexpr uint32_t ERR_BUCKETS = 2048;
constexpr int ERR_CACHE_FLAGS = HASH_INT_KEY | HASH_FLAG_ATOMIC;
constexpr size_t ERR_TEXT_SIZE = 2048;

struct ErrEntry {
    int number;
    char *text; // owned by the entry
};

HashTable *sNumberCache; // from the number to the entry, which it owns
HashTable *sTextCache;   // from the text's address to the entry

void ErrFreeEntry(void *value)
{
    if (value == nullptr) { return; }
    auto *entry = static_cast<ErrEntry *>(value);
    free(entry->text);
    free(entry);
}

HashTable *ErrNumberCache()
{
    return HashTable_AllocOnce(&sNumberCache, ERR_BUCKETS, ERR_CACHE_FLAGS, ErrFreeEntry);
}

HashTable *ErrTextCache()
{
    return HashTable_AllocOnce(&sTextCache, ERR_BUCKETS, ERR_CACHE_FLAGS, nullptr);
}

const void *ErrKey(int number) { return std::bit_cast<const void *>(intptr_t{number}); }

// Removes an incomplete character at the end: a text that filled the C library's buffer may have
// been cut inside one.  A single continuation byte stays: nothing before it was cut.  FF, which is
// in no text of a C library, counts as a byte that begins a character of eight.
void ErrCutIncompleteCharacter(char *text)
{
    const size_t length = strlen(text);
    if (length == 1 && Utf8IsContinuation(static_cast<uint8_t>(text[0]))) { return; }
    text[Utf8WholeLength(text, length)] = '\0';
}

ErrEntry *ErrNewEntry(int number)
{
    char buffer[ERR_TEXT_SIZE];
    ErrFormatSystemText(number, buffer, sizeof buffer);
    void *block = Util_SafeMalloc(sizeof(ErrEntry));
    auto *entry = new (block) ErrEntry{number, Util_SafeStrdup(buffer)};
    ErrCutIncompleteCharacter(entry->text);
    return entry;
}

// Returns the number's entry in the cache, which is made if it is missing.
ErrEntry *ErrFindOrMakeEntry(int number)
{
    HashTable *cache = ErrNumberCache();
    void *found = nullptr;
    if (HashTable_Lookup(cache, ErrKey(number), &found)) { return static_cast<ErrEntry *>(found); }

    ErrEntry *entry = ErrNewEntry(number);
    auto *kept = static_cast<ErrEntry *>(HashTable_LookupOrInsert(cache, ErrKey(number), entry));
    if (kept != entry) { ErrFreeEntry(entry); } // another thread was faster
    return kept;
}

} // namespace

char *pelago::ErrFormatSystemText(int number, char *buffer, size_t size)
{
    if (strerror_r(number, buffer, size) != 0) {
        Str_Sprintf(buffer, size, "Unknown error %d", number);
    }
    return buffer;
}

extern "C" const char *Err_NumberToText(int number)
{
    const ErrnoSaver keep;
    ErrEntry *entry = ErrFindOrMakeEntry(number);
    // Also for an entry that was found: the thread that made it may not have entered its text yet.
    HashTable_LookupOrInsert(ErrTextCache(), entry->text, entry);
    return entry->text;
}

extern "C" const char *Err_CurrentText() { return Err_NumberToText(errno); }

extern "C" int Err_TextToNumber(const char *text)
{
    const ErrnoSaver keep;
    void *found = nullptr;
    const bool isKnown = HashTable_Lookup(ErrTextCache(), text, &found);
    return isKnown ? static_cast<ErrEntry *>(found)->number : -1;
}

extern "C" void Err_Shutdown()
{
    const ErrnoSaver keep;
    HashTable_Free(sTextCache);
    HashTable_Free(sNumberCache);
    sTextCache = sNumberCache = nullptr;
}
