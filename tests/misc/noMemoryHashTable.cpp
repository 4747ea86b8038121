// Hash tables without memory.
#include "noMemory.h"

#include "scopedTable.h"

namespace {

int sValues[3];

// Returns a table with copies of its keys, which holds the key "one" with the value sValues[1].
ScopedTable TableOfOne()
{
    ScopedTable table(HashTable_Alloc(16, HASH_STRING_KEY | HASH_FLAG_COPYKEY, nullptr));
    HashTable_Insert(table.get(), "one", &sValues[1]);
    return table;
}

bool Holds(const ScopedTable &table, const char *key, const void *expected)
{
    void *value = nullptr;
    return HashTable_Lookup(table.get(), key, &value) && value == expected;
}

RUNS_OUT(HashTable_Alloc, PANICS)
{
    const ScopedTable table(Scarcely([] { return HashTable_Alloc(16, 0, nullptr); }));
    return !Holds(table, "one", nullptr) && HashTable_GetNumElements(table.get()) == 0;
}

RUNS_OUT(HashTable_AllocOnce, PANICS)
{
    HashTable *shared = nullptr;
    const ScopedTable table(Scarcely([&] { return HashTable_AllocOnce(&shared, 16, 0, nullptr); }));
    return shared == table.get() && !Holds(table, "one", nullptr);
}

NEEDS_NO_MEMORY_WHEN(HashTable_AllocOnce, AgainAllocatesNothing)
{
    const ScopedTable table = TableOfOne();
    HashTable *shared = table.get();
    return Scarcely([&] { return HashTable_AllocOnce(&shared, 16, 0, nullptr); }) == shared;
}

RUNS_OUT(HashTable_Insert, PANICS)
{
    const ScopedTable table = TableOfOne();
    return Scarcely([&] { return HashTable_Insert(table.get(), "two", &sValues[2]); }) &&
           Holds(table, "two", &sValues[2]) && Holds(table, "one", &sValues[1]);
}

NEEDS_NO_MEMORY_WHEN(HashTable_Insert, OfAPresentKeyAllocatesNothing)
{
    const ScopedTable table = TableOfOne();
    return !Scarcely([&] { return HashTable_Insert(table.get(), "one", &sValues[2]); });
}

RUNS_OUT(HashTable_LookupOrInsert, PANICS)
{
    const ScopedTable table = TableOfOne();
    const void *value =
        Scarcely([&] { return HashTable_LookupOrInsert(table.get(), "two", &sValues[2]); });
    return value == &sValues[2] && Holds(table, "two", &sValues[2]);
}

RUNS_OUT(HashTable_ReplaceOrInsert, PANICS)
{
    const ScopedTable table = TableOfOne();
    return !Scarcely([&] { return HashTable_ReplaceOrInsert(table.get(), "two", &sValues[2]); }) &&
           Holds(table, "two", &sValues[2]);
}

NEEDS_NO_MEMORY_WHEN(HashTable_ReplaceOrInsert, OfAPresentKeyAllocatesNothing)
{
    const ScopedTable table = TableOfOne();
    return Scarcely([&] { return HashTable_ReplaceOrInsert(table.get(), "one", &sValues[2]); }) &&
           Holds(table, "one", &sValues[2]);
}

RUNS_OUT(HashTable_KeyArray, PANICS)
{
    const ScopedTable table = TableOfOne();
    const void **keys = nullptr;
    size_t size = 0;
    Scarcely([&] { HashTable_KeyArray(table.get(), &keys, &size); });
    EXPECT_STREQ(static_cast<const char *>(keys[0]), "one");
    free(keys);
    return size == 1;
}

RUNS_OUT(HashTable_ValueArray, PANICS)
{
    const ScopedTable table = TableOfOne();
    void **values = nullptr;
    size_t size = 0;
    Scarcely([&] { HashTable_ValueArray(table.get(), &values, &size); });
    EXPECT_EQ(values[0], &sValues[1]);
    free(values);
    return size == 1;
}

NEEDS_NO_MEMORY(HashTable_ReplaceIfEqual)
{
    const ScopedTable table = TableOfOne();
    return Scarcely(
        [&] { return HashTable_ReplaceIfEqual(table.get(), "one", &sValues[1], &sValues[2]); });
}

NEEDS_NO_MEMORY(HashTable_Lookup)
{
    const ScopedTable table = TableOfOne();
    return Scarcely([&] { return HashTable_Lookup(table.get(), "one", nullptr); });
}

NEEDS_NO_MEMORY(HashTable_GetNumElements)
{
    const ScopedTable table = TableOfOne();
    return Scarcely([&] { return HashTable_GetNumElements(table.get()); }) == 1;
}

NEEDS_NO_MEMORY(HashTable_ForEach)
{
    const ScopedTable table = TableOfOne();
    const auto callback = [](const void *, void *, void *) { return 5; };
    return Scarcely([&] { return HashTable_ForEach(table.get(), callback, nullptr); }) == 5;
}

NEEDS_NO_MEMORY(HashTable_Delete)
{
    const ScopedTable table = TableOfOne();
    return Scarcely([&] { return HashTable_Delete(table.get(), "one"); });
}

NEEDS_NO_MEMORY(HashTable_Remove)
{
    const ScopedTable table = TableOfOne();
    return Scarcely([&] { return HashTable_Remove(table.get(), "one", nullptr); });
}

NEEDS_NO_MEMORY(HashTable_Clear)
{
    const ScopedTable table = TableOfOne();
    Scarcely([&] { HashTable_Clear(table.get()); });
    return HashTable_GetNumElements(table.get()) == 0;
}

NEEDS_NO_MEMORY(HashTable_Free)
{
    ScopedTable table = TableOfOne();
    Scarcely([&] { HashTable_Free(table.release()); });
    return true;
}

NEEDS_NO_MEMORY(HashTable_FreeAll)
{
    ScopedTable table = TableOfOne();
    Scarcely([&] { HashTable_FreeAll(table.release()); });
    return true;
}

} // namespace
