// hashTable.cpp -- chained buckets that several threads may fill without a lock.
//
// New entries are only added at the front of a chain, so every reader sees a complete list.  A
// bucket also has a filter, which answers most lookups of missing keys.  Readers acquire and
// writers release also in tables that no thread shares, since on x86-64 these are plain moves.
// Only tables made with HASH_FLAG_ATOMIC use locked instructions, which are slow.
#include "hashTable.h"

#include "diagnostics.h"
#include "util.h"

#include <atomic>
#include <bit>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <new>
#include <strings.h>

namespace {

constexpr char HASHTABLE_MODULE[] = "lib/misc/hashTable";
constexpr int HASHTABLE_UNKNOWN_KEY_TYPE = 108;

constexpr int KEY_TYPE_MASK = 7;
constexpr uint32_t INT_KEY_FACTOR = 48271;

struct HashTableEntry {
    std::atomic<HashTableEntry *> next;
    const void *key; // the string, or the integer itself
    std::atomic<void *> clientData;
};

using HashTableLink = std::atomic<HashTableEntry *>; // a bucket's head, or an entry's next

// The table's own copy of the string follows the entry in the same block.
struct HashTableStringEntry : HashTableEntry {
    uint32_t hash; // the key's, before it was folded
};

struct HashTableBucket {
    HashTableLink head;
    // A Bloom filter of the chain: a key has one of the bits, which is set before the key's entry
    // is published.  A lookup that finds its bit clear reads no entry.
    std::atomic<uint64_t> filter;
};
// The buckets come from calloc(): zero bytes are to be empty chains.
static_assert(HashTableLink::is_always_lock_free && std::atomic<uint64_t>::is_always_lock_free &&
              sizeof(HashTableBucket) == sizeof(void *) + sizeof(uint64_t));

constexpr size_t CACHE_LINE = 64;

} // namespace

struct HashTable {
    uint32_t lastBucket; // one less than their number
    uint32_t numBits;
    uint32_t keyType;
    bool atomic;
    bool copyKey;
    HashTableFreeEntryFn freeEntryFn;
    HashTableBucket *buckets;
    char apart[CACHE_LINE]; // numElements is on another line than the members that lookups read
    std::atomic<uint64_t> numElements;
};

namespace {

// Computes h = rotl(h ^ b, 5) for each byte b.  This is linear over exclusive-or, so four bytes are
// rotated and combined first and then with h: the chain of dependent steps is a quarter as long.
uint32_t HashTableHashString(const char *string)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(string);
    for (uint32_t hash = 0;; bytes += 4) {
        const uint32_t a = bytes[0];
        if (a == 0) { return hash; }
        const uint32_t b = bytes[1];
        if (b == 0) { return std::rotl(hash ^ a, 5); }
        const uint32_t c = bytes[2];
        if (c == 0) { return std::rotl(hash ^ a, 10) ^ b << 5; }
        const uint32_t d = bytes[3];
        if (d == 0) { return std::rotl(hash ^ a, 15) ^ b << 10 ^ c << 5; }
        hash = std::rotl(hash, 20) ^ a << 20 ^ b << 15 ^ c << 10 ^ d << 5;
    }
}

uint32_t HashTableHashCaseless(const char *string)
{
    // Called through a hidden pointer: compilers assume that tolower() is the "C" locale's.
    int (*volatile hidden)(int) = tolower;
    int (*const lower)(int) = hidden;
    uint32_t hash = 0;
    for (; *string != '\0'; string++) {
        const int byte = lower(static_cast<unsigned char>(*string));
        if (byte == 0) { break; }
        hash = std::rotl(hash ^ static_cast<uint32_t>(byte), 5);
    }
    return hash;
}

uint32_t HashTableHashInt(const void *key)
{
    const auto integer = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key));
    return static_cast<uint32_t>(integer >> 32 ^ integer) * INT_KEY_FACTOR;
}

// A key's bucket, and its bit in that bucket's filter.
struct HashTablePlace {
    HashTableBucket *bucket;
    uint64_t filterBit;
};

// The bucket's number is the exclusive-or of all slices of numBits bits of the hash.  Each step
// doubles the number of slices that are combined; a table of 256 buckets or more has no more than
// four.  In a table of one bucket numBits is 0.  The second slice also chooses the filter's bit:
// since the bucket depends on all slices, the keys of one bucket have different bits.
inline HashTablePlace HashTablePlaceOf(const HashTable *table, uint32_t hash)
{
    const uint32_t numBits = table->numBits;
    const uint64_t second = uint64_t{hash} >> numBits; // wide enough for a shift by all 32 bits
    uint64_t slices = hash ^ second;
    slices ^= slices >> 2 * numBits;
    if (numBits < 8) [[unlikely]] {
        uint32_t shift = 4 * numBits;
        do {
            slices ^= slices >> shift;
            shift *= 2;
        } while (shift - 1 < 31);
    }
    return {&table->buckets[slices & table->lastBucket], uint64_t{1} << second % 64};
}

uint32_t HashTableStoredHash(const HashTableEntry *entry)
{
    return static_cast<const HashTableStringEntry *>(entry)->hash;
}

// A wanted key, one type for each kind.  Lookups are compiled for each kind, so that no entry is
// tested for its kind, and lookups of integers save no registers for strings.
struct HashTableString {
    explicit HashTableString(const void *key)
        : text(static_cast<const char *>(key)), hash(HashTableHashString(text))
    {}
    bool Is(const HashTableEntry *entry) const
    {
        return hash == HashOf(entry) && strcmp(text, static_cast<const char *>(entry->key)) == 0;
    }
    static uint32_t HashOf(const HashTableEntry *entry) { return HashTableStoredHash(entry); }
    bool MayBe(const HashTableEntry *entry) const { return hash == HashOf(entry); }
    const char *text;
    uint32_t hash;
};

struct HashTableCaseless {
    explicit HashTableCaseless(const void *key)
        : text(static_cast<const char *>(key)), hash(HashTableHashCaseless(text))
    {}
    bool Is(const HashTableEntry *entry) const
    {
        const auto *other = static_cast<const char *>(entry->key);
        if (hash != HashOf(entry)) { return false; }
        // The fast comparison first: most callers use the case in which the key was entered.
        return strcmp(text, other) == 0 || strcasecmp(text, other) == 0;
    }
    static uint32_t HashOf(const HashTableEntry *entry) { return HashTableStoredHash(entry); }
    bool MayBe(const HashTableEntry *entry) const { return hash == HashOf(entry); }
    const char *text;
    uint32_t hash;
};

struct HashTableInt {
    explicit HashTableInt(const void *key) : integer(key), hash(HashTableHashInt(key)) {}
    bool Is(const HashTableEntry *entry) const { return integer == entry->key; }
    bool MayBe(const HashTableEntry *entry) const { return Is(entry); }
    static uint32_t HashOf(const HashTableEntry *entry) { return HashTableHashInt(entry->key); }
    const void *integer;
    uint32_t hash;
};

// Returns use<Key>() for the table's kind of keys.
template <typename Use>
[[gnu::always_inline]] inline auto HashTableWithKeys(const HashTable *table, Use use)
{
    switch (table->keyType) {
    case HASH_STRING_KEY: return use.template operator()<HashTableString>();
    case HASH_ISTRING_KEY: return use.template operator()<HashTableCaseless>();
    case HASH_INT_KEY: return use.template operator()<HashTableInt>();
    default: Panic(UTIL_NOT_REACHED_REPORT, HASHTABLE_MODULE, HASHTABLE_UNKNOWN_KEY_TYPE);
    }
}

inline bool HashTableMayHave(HashTablePlace place)
{
    return (place.bucket->filter.load(std::memory_order_relaxed) & place.filterBit) != 0;
}

// Returns one of two entries without a branch, since the processor could not predict it.
inline HashTableEntry *HashTableEither(bool isFirst, HashTableEntry *first, HashTableEntry *second)
{
    HashTableEntry *chosen = isFirst ? first : second;
    asm("" : "+r"(chosen)); // keeps the compiler from making a branch of the choice
    return chosen;
}

// Returns the wanted entry, searching from the given entry to the end of its chain; NULL when it is
// not there.  In a table that is large enough nearly every entry is the first or the second of its
// chain, so the loop ends at once.
template <typename Key> inline HashTableEntry *HashTableFindFrom(HashTableEntry *first, Key wanted)
{
    if (first == nullptr) { return nullptr; }
    // Links between entries were published together with them.
    HashTableEntry *second = first->next.load(std::memory_order_relaxed);
    HashTableEntry *entry = HashTableEither(wanted.MayBe(first), first, second);
    while (entry != nullptr && !wanted.Is(entry)) {
        entry = entry->next.load(std::memory_order_relaxed);
    }
    return entry;
}

template <typename Key> inline HashTableEntry *HashTableFind(const HashTable *table, Key wanted)
{
    const HashTablePlace place = HashTablePlaceOf(table, wanted.hash);
    if (!HashTableMayHave(place)) { return nullptr; }
    return HashTableFindFrom(place.bucket->head.load(std::memory_order_acquire), wanted);
}

template <typename Key>
inline bool HashTableLookup(const HashTable *table, const void *key, void **valueOut)
{
    const HashTableEntry *entry = HashTableFind(table, Key(key));
    if (entry == nullptr) { return false; }
    if (valueOut != nullptr) { *valueOut = entry->clientData.load(std::memory_order_acquire); }
    return true;
}

// Out of line, so that a lookup of an integer saves no registers for strings.
template <typename Key>
[[gnu::noinline]] bool HashTableLookupText(const HashTable *table, const void *key, void **valueOut)
{
    return HashTableLookup<Key>(table, key, valueOut);
}

HashTableEntry *HashTableNewEntry(const HashTable *table, const void *key, uint32_t hash,
                                  void *value)
{
    if (table->keyType == HASH_INT_KEY) {
        return new (Util_SafeMalloc(sizeof(HashTableEntry))) HashTableEntry{nullptr, key, value};
    }
    const size_t size = table->copyKey ? strlen(static_cast<const char *>(key)) + 1 : 0;
    auto *block = static_cast<char *>(Util_SafeMalloc(sizeof(HashTableStringEntry) + size));
    if (size > 0) { key = memcpy(block + sizeof(HashTableStringEntry), key, size); }
    return new (block) HashTableStringEntry{{nullptr, key, value}, hash};
}

void HashTableDrop(const HashTable *table, void *value)
{
    if (table->freeEntryFn != nullptr) { table->freeEntryFn(value); }
}

// Increments by load and store also where threads race, and so may lose counts: an exact count
// would cost every insertion a second locked instruction on a cache line that all threads share.
// The count is stored after the entry is published, so a reader finds at least that many entries.
void HashTableCountOneMore(HashTable *table)
{
    const uint64_t count = table->numElements.load(std::memory_order_acquire);
    table->numElements.store(count + 1, std::memory_order_release);
}

void HashTableCountOneLess(HashTable *table)
{
    const uint64_t count = table->numElements.load(std::memory_order_relaxed);
    if (count == 0) { return; } // some were never counted
    table->numElements.store(count - 1, std::memory_order_relaxed);
}

// While threads share the table bits are only set, never cleared, so a bit that is set stays set.
void HashTableSetFilter(const HashTable *table, HashTablePlace place)
{
    if (HashTableMayHave(place)) { return; }
    std::atomic<uint64_t> &filter = place.bucket->filter;
    if (table->atomic) {
        filter.fetch_or(place.filterBit, std::memory_order_relaxed);
    } else {
        filter.store(filter.load(std::memory_order_relaxed) | place.filterBit,
                     std::memory_order_relaxed);
    }
}

// Makes the entry the bucket's head if the head is still the entry's next; returns whether it was.
bool HashTablePublish(const HashTable *table, HashTableBucket *bucket, HashTableEntry *entry)
{
    HashTableEntry *head = entry->next.load(std::memory_order_relaxed);
    if (table->atomic) {
        return bucket->head.compare_exchange_strong(head, entry, std::memory_order_release,
                                                    std::memory_order_relaxed);
    }
    bucket->head.store(entry, std::memory_order_release);
    return true;
}

// Returns the key's entry; NULL when there was none and a new one was inserted.
template <typename Key>
[[gnu::noinline]] HashTableEntry *HashTableFindOrInsert(HashTable *table, const void *key,
                                                        void *value)
{
    const Key wanted(key);
    const HashTablePlace place = HashTablePlaceOf(table, wanted.hash);
    HashTableEntry *prepared = nullptr;
    do {
        // The filter is read after the head, so it has the bits of all entries of that chain.
        HashTableEntry *head = place.bucket->head.load(std::memory_order_acquire);
        if (HashTableMayHave(place)) {
            if (HashTableEntry *found = HashTableFindFrom(head, wanted)) {
                free(prepared); // another thread has inserted the key
                return found;
            }
        }
        if (prepared == nullptr) {
            prepared = HashTableNewEntry(table, key, wanted.hash, value);
            HashTableSetFilter(table, place);
        }
        prepared->next.store(head, std::memory_order_relaxed);
    } while (!HashTablePublish(table, place.bucket, prepared));
    HashTableCountOneMore(table);
    return nullptr;
}

HashTableEntry *HashTableFindOrInsert(HashTable *table, const void *key, void *value)
{
    return HashTableWithKeys(
        table, [&]<typename Key> { return HashTableFindOrInsert<Key>(table, key, value); });
}

// Removes the key's entry from its chain and returns it; NULL when there is none.
template <typename Key> HashTableEntry *HashTableUnlink(const HashTable *table, Key wanted)
{
    HashTableBucket *bucket = HashTablePlaceOf(table, wanted.hash).bucket;
    HashTableLink *link = &bucket->head;
    HashTableEntry *entry = link->load(std::memory_order_relaxed);
    while (entry != nullptr && !wanted.Is(entry)) {
        link = &entry->next;
        entry = link->load(std::memory_order_relaxed);
    }
    if (entry == nullptr) { return nullptr; }
    link->store(entry->next.load(std::memory_order_relaxed), std::memory_order_relaxed);

    uint64_t filter = 0; // of the keys that are left
    for (const HashTableEntry *left = bucket->head.load(std::memory_order_relaxed); left != nullptr;
         left = left->next.load(std::memory_order_relaxed)) {
        filter |= HashTablePlaceOf(table, Key::HashOf(left)).filterBit;
    }
    bucket->filter.store(filter, std::memory_order_relaxed);
    return entry;
}

// Calls visit(entry) for every entry, bucket by bucket, until it returns something other than 0.
template <typename Visit> int HashTableWalk(const HashTable *table, Visit visit)
{
    for (uint32_t i = 0; i <= table->lastBucket; i++) {
        const HashTableEntry *entry = table->buckets[i].head.load(std::memory_order_acquire);
        for (; entry != nullptr; entry = entry->next.load(std::memory_order_relaxed)) {
            if (const int result = visit(*entry)) { return result; }
        }
    }
    return 0;
}

// Stores one pointer of every entry in a new array.
template <typename Pointer, typename Get>
void HashTableToArray(const HashTable *table, Pointer **array, size_t *size, Get get)
{
    const size_t count = HashTable_GetNumElements(table);
    *array = nullptr;
    *size = count;
    if (count == 0) { return; }
    *array = static_cast<Pointer *>(Util_SafeMalloc(count * sizeof(Pointer)));
    size_t filled = 0;
    HashTableWalk(table, [&](const HashTableEntry &entry) {
        (*array)[filled++] = get(entry);
        return filled == count; // entries beyond the count are left out
    });
}

} // namespace

extern "C" HashTable *HashTable_Alloc(uint32_t numBuckets, int flags,
                                      HashTableFreeEntryFn freeEntryFn)
{
    if (!std::has_single_bit(numBuckets)) {
        Panic("%s only takes powers of 2 \n", "HashTable_Alloc"); // the report ends with a blank
    }
    const uint32_t keyType = static_cast<uint32_t>(flags & KEY_TYPE_MASK);
    const bool copyKey = (flags & HASH_FLAG_COPYKEY) != 0 && keyType != HASH_INT_KEY;
    return new (Util_SafeMalloc(sizeof(HashTable))) HashTable{
        .lastBucket = numBuckets - 1,
        .numBits = static_cast<uint32_t>(std::countr_zero(numBuckets)),
        .keyType = keyType,
        .atomic = (flags & HASH_FLAG_ATOMIC) != 0,
        .copyKey = copyKey,
        .freeEntryFn = freeEntryFn,
        .buckets =
            static_cast<HashTableBucket *>(Util_SafeCalloc(numBuckets, sizeof(HashTableBucket))),
        .apart = {},
        .numElements = 0};
}

extern "C" HashTable *HashTable_AllocOnce(HashTable **shared, uint32_t numBuckets, int flags,
                                          HashTableFreeEntryFn freeEntryFn)
{
    // The caller's pointer is not a std::atomic, but the compilers' builtins access it atomically.
    HashTable *winner = __atomic_load_n(shared, __ATOMIC_ACQUIRE);
    if (winner != nullptr) { return winner; }
    HashTable *fresh = HashTable_Alloc(numBuckets, flags, freeEntryFn);
    if (__atomic_compare_exchange_n(shared, &winner, fresh, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
        return fresh;
    }
    HashTable_Free(fresh);
    return winner;
}

extern "C" void HashTable_Free(HashTable *table)
{
    if (table == nullptr) { return; }
    HashTable_Clear(table);
    free(table->buckets);
    free(table);
}

extern "C" void HashTable_FreeAll(HashTable *table) { HashTable_Free(table); }

extern "C" void HashTable_Clear(HashTable *table)
{
    table->numElements.store(0, std::memory_order_relaxed);
    for (uint32_t i = 0; i <= table->lastBucket; i++) {
        HashTableBucket *bucket = &table->buckets[i];
        HashTableEntry *entry = bucket->head.load(std::memory_order_relaxed);
        bucket->head.store(nullptr, std::memory_order_relaxed);
        bucket->filter.store(0, std::memory_order_relaxed);
        while (entry != nullptr) {
            HashTableEntry *next = entry->next.load(std::memory_order_relaxed);
            void *value = entry->clientData.load(std::memory_order_relaxed);
            free(entry);
            HashTableDrop(table, value);
            entry = next;
        }
    }
}

extern "C" bool HashTable_Lookup(const HashTable *table, const void *key, void **valueOut)
{
    if (table->keyType == HASH_INT_KEY) {
        return HashTableLookup<HashTableInt>(table, key, valueOut);
    }
    return HashTableWithKeys(
        table, [&]<typename Key> { return HashTableLookupText<Key>(table, key, valueOut); });
}

extern "C" bool HashTable_Delete(HashTable *table, const void *key)
{
    return HashTable_Remove(table, key, nullptr);
}

extern "C" bool HashTable_Remove(HashTable *table, const void *key, void **valueOut)
{
    HashTableEntry *entry =
        HashTableWithKeys(table, [&]<typename Key> { return HashTableUnlink(table, Key(key)); });
    if (entry == nullptr) { return false; }

    HashTableCountOneLess(table);
    void *value = entry->clientData.load(std::memory_order_relaxed);
    free(entry);
    if (valueOut == nullptr) {
        HashTableDrop(table, value);
    } else {
        *valueOut = value;
    }
    return true;
}

extern "C" bool HashTable_Insert(HashTable *table, const void *key, void *value)
{
    return HashTableFindOrInsert(table, key, value) == nullptr;
}

extern "C" void *HashTable_LookupOrInsert(HashTable *table, const void *key, void *value)
{
    const HashTableEntry *entry = HashTableFindOrInsert(table, key, value);
    return entry == nullptr ? value : entry->clientData.load(std::memory_order_acquire);
}

extern "C" bool HashTable_ReplaceOrInsert(HashTable *table, const void *key, void *value)
{
    HashTableEntry *entry = HashTableFindOrInsert(table, key, value);
    if (entry == nullptr) { return false; }

    if (table->freeEntryFn == nullptr) {
        entry->clientData.store(value, std::memory_order_release);
    } else if (table->atomic) { // exchange() returns each old value to one thread only
        HashTableDrop(table, entry->clientData.exchange(value, std::memory_order_acq_rel));
    } else {
        HashTableDrop(table, entry->clientData.load(std::memory_order_relaxed));
        entry->clientData.store(value, std::memory_order_release);
    }
    return true;
}

extern "C" bool HashTable_ReplaceIfEqual(HashTable *table, const void *key, void *oldValue,
                                         void *newValue)
{
    HashTableEntry *entry =
        HashTableWithKeys(table, [&]<typename Key> { return HashTableFind(table, Key(key)); });
    if (entry == nullptr) { return false; }

    if (table->atomic) {
        void *expected = oldValue;
        if (!entry->clientData.compare_exchange_strong(
                expected, newValue, std::memory_order_acq_rel, std::memory_order_relaxed)) {
            return false;
        }
        HashTableDrop(table, oldValue);
        return true;
    }
    if (entry->clientData.load(std::memory_order_relaxed) != oldValue) { return false; }
    HashTableDrop(table, oldValue);
    entry->clientData.store(newValue, std::memory_order_release);
    return true;
}

extern "C" size_t HashTable_GetNumElements(const HashTable *table)
{
    return table->numElements.load(std::memory_order_acquire);
}

extern "C" void HashTable_KeyArray(const HashTable *table, const void ***keysOut, size_t *sizeOut)
{
    HashTableToArray(table, keysOut, sizeOut,
                     [](const HashTableEntry &entry) { return entry.key; });
}

extern "C" void HashTable_ValueArray(const HashTable *table, void ***valuesOut, size_t *sizeOut)
{
    HashTableToArray(table, valuesOut, sizeOut, [](const HashTableEntry &entry) {
        return entry.clientData.load(std::memory_order_acquire);
    });
}

extern "C" int HashTable_ForEach(const HashTable *table, HashTableForEachCallback callback,
                                 void *userData)
{
    return HashTableWalk(table, [&](const HashTableEntry &entry) {
        void *value = entry.clientData.load(std::memory_order_acquire);
        return callback(entry.key, value, userData);
    });
}
