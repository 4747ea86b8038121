// Compares the hash table with the containers that one would use instead.  Each lookup starts from
// the key that a caller of the library has: a C string, or an integer.
#include "workloads.h"

#include "hashTable.h"

#include <absl/container/flat_hash_map.h>
#include <glib.h>
#include <strings.h>
#include <tbb/concurrent_hash_map.h>
#include <tbb/concurrent_unordered_map.h>

#include <bit>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>

namespace {

using Strings = std::vector<std::string>;
using Integers = std::vector<uintptr_t>;

void *const VALUE = reinterpret_cast<void *>(1);

// ---- One interface to all tables: Insert(key), Find(key) ----

template <int FLAGS> class OurTable {
public:
    explicit OurTable(uint32_t numBuckets) : mTable(HashTable_Alloc(numBuckets, FLAGS, nullptr)) {}
    void Insert(const char *key) { HashTable_Insert(mTable.get(), key, VALUE); }
    void Insert(uintptr_t key) { Insert(reinterpret_cast<const char *>(key)); }
    bool Find(const char *key) const
    {
        void *value = nullptr;
        return HashTable_Lookup(mTable.get(), key, &value) && value == VALUE;
    }
    bool Find(uintptr_t key) const { return Find(reinterpret_cast<const char *>(key)); }

private:
    struct Free {
        void operator()(HashTable *table) const { HashTable_Free(table); }
    };
    std::unique_ptr<HashTable, Free> mTable;
};

struct ViewHash {
    using is_transparent = void;
    size_t operator()(std::string_view key) const { return std::hash<std::string_view>()(key); }
};

// A standard container: strings are stored as std::string and looked up as Text.
template <typename Map, typename Text> class StandardTable {
public:
    explicit StandardTable(uint32_t numBuckets) { mMap.reserve(numBuckets); }
    void Insert(const char *key) { mMap.emplace(key, VALUE); }
    void Insert(uintptr_t key) { mMap.emplace(key, VALUE); }
    bool Find(const char *key) const { return FindAs(Text(key)); }
    bool Find(uintptr_t key) const { return FindAs(key); }

private:
    template <typename Key> bool FindAs(const Key &key) const
    {
        const auto found = mMap.find(key);
        return found != mMap.end() && found->second == VALUE;
    }
    Map mMap;
};

struct CaselessHash {
    size_t operator()(const char *key) const
    {
        size_t hash = 5381;
        for (; *key != '\0'; key++) {
            hash = hash * 33 + static_cast<size_t>(tolower(static_cast<unsigned char>(*key)));
        }
        return hash;
    }
};
struct CaselessEqual {
    bool operator()(const char *a, const char *b) const { return strcasecmp(a, b) == 0; }
};

using StdStrings = StandardTable<std::unordered_map<std::string, void *, ViewHash, std::equal_to<>>,
                                 std::string_view>;
using AbslStrings = StandardTable<absl::flat_hash_map<std::string, void *>, absl::string_view>;
using StdIntegers = StandardTable<std::unordered_map<uintptr_t, void *>, uintptr_t>;
using AbslIntegers = StandardTable<absl::flat_hash_map<uintptr_t, void *>, uintptr_t>;
using StdCaseless =
    StandardTable<std::unordered_map<const char *, void *, CaselessHash, CaselessEqual>,
                  const char *>;
using AbslCaseless =
    StandardTable<absl::flat_hash_map<const char *, void *, CaselessHash, CaselessEqual>,
                  const char *>;

guint GCaselessHash(gconstpointer key)
{
    return static_cast<guint>(CaselessHash()(static_cast<const char *>(key)));
}
gboolean GCaselessEqual(gconstpointer a, gconstpointer b)
{
    return CaselessEqual()(static_cast<const char *>(a), static_cast<const char *>(b));
}

template <GHashFunc HASH, GEqualFunc EQUAL, bool COPIES> class GLibTable {
public:
    explicit GLibTable(uint32_t)
        : mTable(g_hash_table_new_full(HASH, EQUAL, COPIES ? g_free : nullptr, nullptr))
    {}
    GLibTable(const GLibTable &) = delete;
    ~GLibTable() { g_hash_table_unref(mTable); }
    void Insert(const char *key)
    {
        g_hash_table_insert(mTable, COPIES ? g_strdup(key) : const_cast<char *>(key), VALUE);
    }
    void Insert(uintptr_t key) { Insert(reinterpret_cast<const char *>(key)); }
    bool Find(const char *key) const { return g_hash_table_lookup(mTable, key) == VALUE; }
    bool Find(uintptr_t key) const { return Find(reinterpret_cast<const char *>(key)); }

private:
    GHashTable *mTable;
};

using GLibStrings = GLibTable<g_str_hash, g_str_equal, true>;
using GLibIntegers = GLibTable<g_direct_hash, g_direct_equal, false>;
using GLibCaseless = GLibTable<GCaselessHash, GCaselessEqual, false>;

struct TbbViewHash : ViewHash {
    using transparent_key_equal = std::equal_to<>;
};
class TbbUnordered {
public:
    explicit TbbUnordered(uint32_t numBuckets) : mMap(numBuckets) {}
    void Insert(const char *key) { mMap.emplace(key, VALUE); }
    bool Find(const char *key) const { return mMap.find(std::string_view(key)) != mMap.end(); }

private:
    tbb::concurrent_unordered_map<std::string, void *, TbbViewHash> mMap;
};

class TbbHashMap {
public:
    explicit TbbHashMap(uint32_t numBuckets) : mMap(numBuckets) {}
    void Insert(const char *key) { mMap.emplace(std::string(key), VALUE); }
    bool Find(const char *key) const
    {
        decltype(mMap)::const_accessor found;
        return mMap.find(found, std::string_view(key)) && found->second == VALUE;
    }

private:
    struct Compare {
        using is_transparent = void;
        static size_t hash(std::string_view key) { return std::hash<std::string_view>()(key); }
        static bool equal(std::string_view a, std::string_view b) { return a == b; }
        size_t operator()(std::string_view key) const { return hash(key); }
    };
    // To look up by another type is no const operation of this table.
    mutable tbb::concurrent_hash_map<std::string, void *, Compare> mMap;
};

// A table that a mutex protects.
template <typename Table, typename Mutex, typename ReadLock> class Locked {
public:
    explicit Locked(uint32_t numBuckets) : mTable(numBuckets) {}
    void Insert(const char *key)
    {
        const std::lock_guard<Mutex> lock(mMutex);
        mTable.Insert(key);
    }
    bool Find(const char *key) const
    {
        const ReadLock lock(mMutex);
        return mTable.Find(key);
    }

private:
    Table mTable;
    mutable Mutex mMutex;
};
using MutexStd = Locked<StdStrings, std::mutex, std::lock_guard<std::mutex>>;
using MutexAbsl = Locked<AbslStrings, std::mutex, std::lock_guard<std::mutex>>;
using MutexGLib = Locked<GLibStrings, std::mutex, std::lock_guard<std::mutex>>;
using SharedStd = Locked<StdStrings, std::shared_mutex, std::shared_lock<std::shared_mutex>>;

// ---- The least work ----

// A lookup that is a call, as a library's is: the bucket of the integer, and a walk along its
// chain. For tables of 2048 buckets to 32768, whose hashes have three slices.
class LeastIntegers {
public:
    explicit LeastIntegers(uint32_t numBuckets)
        : mBits(static_cast<uint32_t>(std::countr_zero(numBuckets))), mHeads(numBuckets)
    {}
    void Insert(uintptr_t key)
    {
        const Entry *&head = mHeads[Index(key)];
        mEntries.push_back({head, key, VALUE});
        head = &mEntries.back();
    }
    bool Find(uintptr_t key) const
    {
        void *value = nullptr;
        return Lookup(key, &value) && value == VALUE;
    }

private:
    struct Entry {
        const Entry *next;
        uintptr_t key;
        void *value;
    };
    size_t Index(uintptr_t key) const
    {
        const uint32_t hash = static_cast<uint32_t>(key >> 32 ^ key) * 48271;
        return (hash ^ hash >> mBits ^ hash >> 2 * mBits) & (mHeads.size() - 1);
    }
    [[gnu::noinline]] bool Lookup(uintptr_t key, void **value) const
    {
        const Entry *entry = mHeads[Index(key)];
        while (entry != nullptr && entry->key != key) {
            entry = entry->next;
        }
        if (entry == nullptr) { return false; }
        *value = entry->value;
        return true;
    }
    const uint32_t mBits;
    std::vector<const Entry *> mHeads;
    std::deque<Entry> mEntries;
};

// Whether a table counts as a rival; the table with the least work does not.
template <typename Table> constexpr bool COUNTS = true;
template <> constexpr bool COUNTS<LeastIntegers> = false;

// No table: a lookup hashes its key and compares it once; an insertion also allocates a block.
class LeastShared {
public:
    explicit LeastShared(uint32_t) {}
    void Insert(const char *key)
    {
        Find(key);
        free(Opaque(strdup(key)));
    }
    bool Find(const char *key) const
    {
        uint32_t hash = 0;
        for (const char *byte = key; *byte != '\0'; byte++) {
            hash = std::rotl(hash ^ static_cast<unsigned char>(*byte), 5);
        }
        return strcmp(key, Opaque(key)) == 0 && Opaque(hash) == hash;
    }
};

// ---- Keys ----

std::mt19937 sRandom(1);

// Returns texts of 5 to 26 bytes, all different.
Strings RandomKeys(size_t count, size_t firstNumber)
{
    const std::string_view alphabet = "abcdefghijklmnopqrstuvwxyz0123456789_-.";
    Strings keys;
    for (size_t i = 0; i < count; i++) {
        std::string key = "k" + std::to_string(firstNumber + i);
        for (size_t left = sRandom() % 22; left > 0; left--) {
            key += alphabet[sRandom() % alphabet.size()];
        }
        keys.push_back(key);
    }
    return keys;
}

// Returns addresses at which blocks of a heap might lie.
Integers RandomAddresses(size_t count, uintptr_t from)
{
    Integers keys;
    for (size_t i = 0; i < count; i++) {
        from += 16 * (1 + sRandom() % 64);
        keys.push_back(from);
    }
    return keys;
}

const char *Ask(const std::string &key) { return key.c_str(); }
uintptr_t Ask(uintptr_t key) { return key; }

// ---- Workloads ----

template <typename Table, typename Keys>
std::shared_ptr<Table> Filled(uint32_t numBuckets, const Keys &keys)
{
    auto table = std::make_shared<Table>(numBuckets);
    for (const auto &key : keys) {
        table->Insert(Ask(key));
    }
    return table;
}

// Looks up the asked keys in turn in a table of the keys.
template <typename Table, typename Keys>
std::function<void(size_t)> Lookups(uint32_t numBuckets, const Keys &keys, const Keys &asked)
{
    return Repeat([table = Filled<Table>(numBuckets, keys), asked, next = size_t{0}]() mutable {
        if (next == asked.size()) { next = 0; }
        return table->Find(Ask(asked[next++]));
    });
}

// Returns whether each asked key is in a table of the keys, or, if !isThere, whether none is.
template <typename Table, typename Keys>
bool Answers(uint32_t numBuckets, const Keys &keys, const Keys &asked, bool isThere)
{
    const auto table = Filled<Table>(numBuckets, keys);
    for (const auto &key : asked) {
        if (table->Find(Ask(key)) != isThere) { return false; }
    }
    return true;
}

template <typename Ours, typename... Theirs, typename Keys>
void LookupWorkload(const char *name, std::vector<Goal> goals, uint32_t numBuckets,
                    const Keys &keys, const Keys &asked, bool isThere,
                    const std::vector<const char *> &names)
{
    size_t next = 0;
    std::vector<Rival> rivals{
        {names[next++], Lookups<Theirs>(numBuckets, keys, asked), COUNTS<Theirs>}...};
    const bool same = Answers<Ours>(numBuckets, keys, asked, isThere) &&
                      (Answers<Theirs>(numBuckets, keys, asked, isThere) && ...);
    Workload(name, std::move(goals), Lookups<Ours>(numBuckets, keys, asked), std::move(rivals),
             same);
}

// Makes, fills and frees a table.
template <typename Table>
std::function<void(size_t)> Insertions(uint32_t numBuckets, const Strings &keys)
{
    return Repeat([numBuckets, keys] { return Filled<Table>(numBuckets, keys) != nullptr; });
}

// A thread's share of the work on a table that two threads use: it inserts 500 keys, of which the
// other thread inserts half, too, and makes sixteen times as many lookups in between.
constexpr size_t SHARED_BUCKETS = 2048, SHARED_KEYS = 500, SHARED_LOOKUPS = 16;

template <typename Table> void TakePart(Table &table, const Strings &keys, size_t from)
{
    for (size_t i = 0; i < SHARED_KEYS; i++) {
        table.Insert(Ask(keys[from + i]));
        for (size_t j = 0; j < SHARED_LOOKUPS; j++) {
            auto found = table.Find(Ask(keys[from + (i + 31 * j) % SHARED_KEYS]));
            asm volatile("" : : "m"(found) : "memory");
        }
    }
}

// One run is a whole table: 2 * 500 * 17 operations, and the start of a thread.
template <typename Table> std::function<void(size_t)> ByTwoThreads(const Strings &keys)
{
    return [keys](size_t count) {
        for (; count > 0; count--) {
            Table table(SHARED_BUCKETS);
            std::thread other([&] { TakePart(table, keys, SHARED_KEYS / 2); });
            TakePart(table, keys, 0);
            other.join();
        }
    };
}

using OurStrings = OurTable<HASH_STRING_KEY | HASH_FLAG_COPYKEY>;
using OurAtomicStrings = OurTable<HASH_STRING_KEY | HASH_FLAG_COPYKEY | HASH_FLAG_ATOMIC>;
using OurIntegers = OurTable<HASH_INT_KEY>;
using OurCaseless = OurTable<HASH_ISTRING_KEY>;

const std::vector<const char *> STRING_RIVALS{"std::unordered_map", "absl::flat_hash_map",
                                              "GHashTable", "tbb::concurrent_hash_map",
                                              "tbb::concurrent_unordered_map"};
const std::vector<const char *> PLAIN_RIVALS{"std::unordered_map", "absl::flat_hash_map",
                                             "GHashTable"};

void AddStrings(const char *hit, const char *miss, uint32_t numBuckets, size_t count)
{
    const Strings keys = RandomKeys(count, 1000), others = RandomKeys(count, 5000);
    LookupWorkload<OurStrings, StdStrings, AbslStrings, GLibStrings, TbbHashMap, TbbUnordered>(
        hit, {{nullptr, 1.0}}, numBuckets, keys, keys, true, STRING_RIVALS);
    LookupWorkload<OurStrings, StdStrings, AbslStrings, GLibStrings, TbbHashMap, TbbUnordered>(
        miss, {{nullptr, 1.1}}, numBuckets, keys, others, false, STRING_RIVALS);
}

void AddIntegers()
{
    const Integers keys = RandomAddresses(2000, 0x7F1200000000);
    const Integers others = RandomAddresses(2000, 0x7F3400000000);
    // A call alone takes a third of the time of the best rival, which is compiled into its caller.
    // The table with the least work shows how much the library's table could still gain.
    static constexpr char LEAST[] = "a call and a plain chain";
    std::vector<const char *> names = PLAIN_RIVALS;
    names.push_back(LEAST);
    LookupWorkload<OurIntegers, StdIntegers, AbslIntegers, GLibIntegers, LeastIntegers>(
        "2000 integers, hit", {{nullptr, 0.9}, {LEAST, 1.3}}, 2048, keys, keys, true, names);
    LookupWorkload<OurIntegers, StdIntegers, AbslIntegers, GLibIntegers, LeastIntegers>(
        "2000 integers, miss", {{nullptr, 1.1}, {LEAST, 1.0}}, 2048, keys, others, false, names);
}

void AddEncodingNames()
{
    const Strings names{
        "UTF-8",        "UTF-16",       "UTF-16LE",     "UTF-16BE",     "UTF-32",
        "UTF-32LE",     "UTF-32BE",     "US-ASCII",     "ISO-8859-1",   "ISO-8859-2",
        "ISO-8859-3",   "ISO-8859-4",   "ISO-8859-5",   "ISO-8859-6",   "ISO-8859-7",
        "ISO-8859-8",   "ISO-8859-9",   "ISO-8859-10",  "ISO-8859-13",  "ISO-8859-14",
        "ISO-8859-15",  "ISO-2022-JP",  "ISO-2022-KR",  "EUC-JP",       "EUC-KR",
        "EUC-TW",       "Shift_JIS",    "GB18030",      "GB2312",       "GBK",
        "Big5",         "Big5-HKSCS",   "KOI8-R",       "KOI8-U",       "windows-932",
        "windows-936",  "windows-949",  "windows-950",  "windows-1250", "windows-1251",
        "windows-1252", "windows-1253", "windows-1254", "windows-1255", "windows-1256",
        "windows-1257", "macintosh",    "latin1",       "IBM437",       "IBM850"};
    Strings otherCase = names;
    for (std::string &name : otherCase) {
        for (char &byte : name) {
            const int letter = static_cast<unsigned char>(byte);
            byte = static_cast<char>(isupper(letter) ? tolower(letter) : toupper(letter));
        }
    }
    // The rivals keep the callers' strings here, as ours does; the strings must outlive the tables.
    static const Strings sNames = names, sOtherCase = otherCase;
    LookupWorkload<OurCaseless, StdCaseless, AbslCaseless, GLibCaseless>(
        "50 encoding names, other case", {{nullptr, 1.2}}, 128, sNames, sOtherCase, true,
        PLAIN_RIVALS);
    LookupWorkload<OurCaseless, StdCaseless, AbslCaseless, GLibCaseless>(
        "50 encoding names, same case", {{nullptr, 1.2}}, 128, sNames, sNames, true, PLAIN_RIVALS);
}

void AddInsertions(const char *name, uint32_t numBuckets, size_t count)
{
    const Strings keys = RandomKeys(count, 1000);
    Workload(name, {{"std::unordered_map", 1.1}}, Insertions<OurStrings>(numBuckets, keys),
             {{"std::unordered_map", Insertions<StdStrings>(numBuckets, keys)},
              {"absl::flat_hash_map", Insertions<AbslStrings>(numBuckets, keys)},
              {"GHashTable", Insertions<GLibStrings>(numBuckets, keys)},
              {"tbb::concurrent_hash_map", Insertions<TbbHashMap>(numBuckets, keys)},
              {"tbb::concurrent_unordered_map", Insertions<TbbUnordered>(numBuckets, keys)}});
}

void AddTwoThreads()
{
    const Strings keys = RandomKeys(2 * SHARED_KEYS, 1000);
    Workload("two threads, 17,000 operations on one table", {{nullptr, 0.65}},
             ByTwoThreads<OurAtomicStrings>(keys),
             {{"tbb::concurrent_unordered_map", ByTwoThreads<TbbUnordered>(keys)},
              {"tbb::concurrent_hash_map", ByTwoThreads<TbbHashMap>(keys)},
              {"std::unordered_map and a mutex", ByTwoThreads<MutexStd>(keys)},
              {"absl::flat_hash_map and a mutex", ByTwoThreads<MutexAbsl>(keys)},
              {"GHashTable and a mutex", ByTwoThreads<MutexGLib>(keys)},
              {"std::unordered_map and a shared mutex", ByTwoThreads<SharedStd>(keys)},
              {"hashing and comparing alone", ByTwoThreads<LeastShared>(keys), false}},
             true, Processors::All);
}

} // namespace

int main(int argc, char **argv)
{
    AddStrings("100 strings, hit", "100 strings, miss", 128, 100);
    AddStrings("2000 strings, hit", "2000 strings, miss", 2048, 2000);
    AddEncodingNames();
    AddIntegers();
    AddInsertions("a table of 100 strings, filled and released", 128, 100);
    AddInsertions("a table of 2000 strings, filled and released", 2048, 2000);
    AddTwoThreads();
    return RunWorkloads(argc, argv);
}
