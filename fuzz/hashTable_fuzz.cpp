// Does any operations to a table.  The table must answer as a std::map does, drop each value that
// it should drop once, and leave no block allocated (which the leak checker checks).
#include "hashTable.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace {

void Expect(bool isSo)
{
    if (!isSo) { abort(); }
}

// Reads the input byte by byte; zeroes when the input is used up.
class Input {
public:
    Input(const uint8_t *data, size_t size) : mAt(data), mEnd(data + size) {}
    bool IsUsedUp() const { return mAt == mEnd; }
    uint8_t Next() { return IsUsedUp() ? 0 : *mAt++; }

private:
    const uint8_t *mAt, *mEnd;
};

// Values are numbers, each stored at most once.
std::set<uintptr_t> sOwned; // the values that the table must drop
void NoteDropped(void *value) { Expect(sOwned.erase(reinterpret_cast<uintptr_t>(value)) == 1); }

// A table, and a map to which the same operations are done.
class Pair {
public:
    Pair(uint32_t numEntries, int keyType, int flags, bool drops)
        : mKeyType(keyType), mDrops(drops),
          mTable(HashTable_Alloc(numEntries, keyType | flags, drops ? NoteDropped : nullptr))
    {}
    Pair(const Pair &) = delete;
    ~Pair()
    {
        HashTable_Free(mTable);
        Expect(sOwned.empty());
    }

    void Do(uint8_t operation, const std::string &text)
    {
        const void *key = Key(text);
        const std::string name = Name(text);
        const auto found = mMap.find(name);
        const bool isThere = found != mMap.end();
        const uintptr_t old = isThere ? found->second : 0, fresh = ++mLastValue;
        void *value = nullptr;
        switch (operation % 9) {
        case 0:
            Expect(HashTable_Insert(mTable, key, Value(fresh)) == !isThere);
            if (!isThere) { Store(name, fresh); }
            break;
        case 1:
            Expect(HashTable_LookupOrInsert(mTable, key, Value(fresh)) ==
                   Value(isThere ? old : fresh));
            if (!isThere) { Store(name, fresh); }
            break;
        case 2:
            Own(fresh);
            Expect(HashTable_ReplaceOrInsert(mTable, key, Value(fresh)) == isThere);
            mMap[name] = fresh;
            break;
        case 3:
            Own(fresh);
            Expect(HashTable_ReplaceIfEqual(mTable, key, Value(old), Value(fresh)) == isThere);
            if (isThere) {
                mMap[name] = fresh;
            } else {
                sOwned.erase(fresh);
            }
            break;
        case 4: // never the value that is there
            Expect(!HashTable_ReplaceIfEqual(mTable, key, Value(fresh), Value(fresh)));
            break;
        case 5:
            Expect(HashTable_Remove(mTable, key, &value) == isThere);
            Expect(value == Value(old));
            sOwned.erase(old); // the caller has it now
            mMap.erase(name);
            break;
        case 6:
            Expect(HashTable_Delete(mTable, key) == isThere);
            Expect(sOwned.count(old) == 0);
            mMap.erase(name);
            break;
        case 7:
            Expect(HashTable_Lookup(mTable, key, &value) == isThere);
            Expect(value == Value(old));
            break;
        case 8:
            if (text.size() < 7) { break; } // seldom, or the table stays empty
            HashTable_Clear(mTable);
            Expect(sOwned.empty());
            mMap.clear();
            break;
        }
        Expect(HashTable_GetNumElements(mTable) == mMap.size());
    }

    // Compares all entries with the map's: in the arrays of keys and values, and by a walk.
    void Compare()
    {
        const void **keys = nullptr;
        void **values = nullptr;
        size_t numKeys = 0, numValues = 0;
        HashTable_KeyArray(mTable, &keys, &numKeys);
        HashTable_ValueArray(mTable, &values, &numValues);
        Expect(numKeys == mMap.size() && numValues == numKeys && (keys == nullptr) == mMap.empty());
        std::map<std::string, uintptr_t> all;
        for (size_t i = 0; i < numKeys; i++) {
            all[Name(keys[i])] = reinterpret_cast<uintptr_t>(values[i]);
        }
        Expect(all == mMap);
        Walk walk{keys, values, 0};
        Expect(HashTable_ForEach(mTable, Walk::Visit, &walk) == 0 && walk.visits == numKeys);
        free(keys);
        free(values);
    }

private:
    struct Walk {
        const void **keys;
        void **values;
        size_t visits;
        static int Visit(const void *key, void *value, void *userData)
        {
            auto *walk = static_cast<Walk *>(userData);
            Expect(key == walk->keys[walk->visits] && value == walk->values[walk->visits]);
            walk->visits++;
            return 0;
        }
    };

    static void *Value(uintptr_t number) { return reinterpret_cast<void *>(number); }

    void Own(uintptr_t value)
    {
        if (mDrops) { sOwned.insert(value); }
    }
    void Store(const std::string &name, uintptr_t value)
    {
        Own(value);
        mMap[name] = value;
    }

    // Returns the table's key: the text, which lives as long as the table, or its bytes as a
    // number.
    const void *Key(const std::string &text)
    {
        if (mKeyType != HASH_INT_KEY) { return mTexts.insert(text).first->c_str(); }
        uint64_t number = 0;
        memcpy(&number, text.data(), std::min(text.size(), sizeof number));
        return reinterpret_cast<const void *>(number);
    }
    // Returns the map's key, which is the same for keys that are equal in the table.
    std::string Name(const void *key) const
    {
        if (mKeyType == HASH_INT_KEY) { return std::to_string(reinterpret_cast<uintptr_t>(key)); }
        std::string name = static_cast<const char *>(key);
        if (mKeyType == HASH_ISTRING_KEY) {
            for (char &byte : name) {
                byte = static_cast<char>(tolower(static_cast<unsigned char>(byte)));
            }
        }
        return name;
    }
    std::string Name(const std::string &text) { return Name(Key(text)); }

    const int mKeyType;
    const bool mDrops;
    std::set<std::string> mTexts; // released after the table
    std::map<std::string, uintptr_t> mMap;
    uintptr_t mLastValue = 0;
    HashTable *const mTable;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input(data, size);
    const uint8_t kind = input.Next();
    const int flags = kind & (HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY);
    Pair pair(1U << input.Next() % 12, kind % 8 % 3, flags, (kind & 32) != 0);
    while (!input.IsUsedUp()) {
        const uint8_t operation = input.Next();
        std::string text;
        for (size_t length = operation / 16; text.size() < length;) {
            text += static_cast<char>(input.Next());
        }
        pair.Do(operation % 16, text);
    }
    pair.Compare();
    return 0;
}
