/*
 * hashTable.h -- a hash table from strings or integers to values, meant for caches that only grow.
 *
 * A table has a fixed number of buckets, a power of two that the caller chooses for the number of
 * entries that it expects.  The table is never resized, and a lookup takes time proportional to the
 * number of entries per bucket.  A lookup takes no lock, makes no system call and allocates
 * nothing.
 *
 * Keys are passed as const void *: for string tables a NUL-terminated string, not NULL, for integer
 * tables the integer itself, cast to a pointer.  Values are pointers or integers cast to pointers,
 * NULL included.
 *
 * Ownership.  The table owns its entries.  Without HASH_FLAG_COPYKEY a string key must stay valid
 * and unchanged for as long as its entry exists; with the flag the table keeps a copy.  Values are
 * the caller's, unless the table has a free function: that is called for every value which the
 * table drops.
 *
 * Threads.  A table without HASH_FLAG_ATOMIC must not be changed by one thread while another uses
 * it.  On a table with the flag any number of threads may at the same time call HashTable_Lookup,
 * HashTable_Insert, HashTable_LookupOrInsert, HashTable_ReplaceOrInsert, HashTable_ReplaceIfEqual,
 * HashTable_GetNumElements, HashTable_KeyArray, HashTable_ValueArray and HashTable_ForEach; a
 * thread that finds a value sees everything that was written before the value was stored.  Any of
 * these threads may then call the free function, also for a value that another thread has just
 * looked up: the values of such a table must outlive their readers, or not be pointers.
 * HashTable_Delete, HashTable_Remove, HashTable_Clear and HashTable_Free must never run at the same
 * time as another call for the same table.
 *
 * When memory runs out the process ends as util.h says.  A table or a callback must not be NULL
 * unless it is said to be optional.
 */
#ifndef PELAGO_HASHTABLE_H
#define PELAGO_HASHTABLE_H

#include "declarations.h"

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

PELAGO_BEGIN_DECLARATIONS

/* A table; its members are private to this module. */
typedef struct HashTable HashTable;

/* A table's flags: one kind of key, or'ed with any of the HASH_FLAG_ values. */
enum {
    HASH_STRING_KEY = 0,    /* strings, compared by strcmp() */
    HASH_ISTRING_KEY = 1,   /* strings, compared by strcasecmp() and hashed by tolower() of each
                               byte: the locale must not change while the table has entries */
    HASH_INT_KEY = 2,       /* integers of the size of a pointer */
    HASH_FLAG_ATOMIC = 8,   /* several threads may fill and read the table (see Threads) */
    HASH_FLAG_COPYKEY = 16, /* the table keeps copies of string keys; no effect on integers */
};

/* Receives a value that the table drops.  It must not use that table. */
typedef void (*HashTableFreeEntryFn)(void *value);

/* Receives an entry, and the userData of HashTable_ForEach().  A result other than 0 ends the walk.
 */
typedef int (*HashTableForEachCallback)(const void *key, void *value, void *userData);

/*
 * Makes an empty table of numBuckets buckets, which HashTable_Free() releases.  freeEntryFn may be
 * NULL.  Bits of flags that are not named above are ignored.
 *
 * numBuckets must be a power of two; otherwise, and for 0, the process ends with the report
 * "HashTable_Alloc only takes powers of 2 ".  A table of one bucket is a plain list.  An unknown
 * kind of key, 3 to 7, ends the process when the first key is used.
 */
HashTable *HashTable_Alloc(uint32_t numBuckets, int flags, HashTableFreeEntryFn freeEntryFn);

/*
 * Returns the table in *shared.  When *shared is NULL, it first makes a table as HashTable_Alloc()
 * does and stores it there.  Any number of threads may call this at the same time: all of them
 * receive the same table.  Nothing else may write *shared at the same time.
 */
HashTable *HashTable_AllocOnce(HashTable **shared, uint32_t numBuckets, int flags,
                               HashTableFreeEntryFn freeEntryFn);

/* Drops all entries and releases the table, which may be NULL. */
void HashTable_Free(HashTable *table);

/* Does the same as HashTable_Free(). */
void HashTable_FreeAll(HashTable *table);

/* Drops all entries; the table stays. */
void HashTable_Clear(HashTable *table);

/* Returns whether the key is in the table, and stores its value in *valueOut, which is unchanged
 * when it is not; valueOut may be NULL. */
bool HashTable_Lookup(const HashTable *table, const void *key, void **valueOut);

/* Drops the key's entry, and returns whether there was one. */
bool HashTable_Delete(HashTable *table, const void *key);

/*
 * Removes the key's entry, and returns whether there was one.  The value is stored in *valueOut and
 * is the caller's from then on; when valueOut is NULL the value is dropped.
 */
bool HashTable_Remove(HashTable *table, const void *key, void **valueOut);

/* Enters the key with the value unless the key is in the table already, and returns whether it was
 * entered.  If not, nothing has changed, and value is still the caller's. */
bool HashTable_Insert(HashTable *table, const void *key, void *value);

/*
 * Returns the key's value.  A key that is not in the table is first entered with the given value.
 * A result other than value means that value is still the caller's.
 */
void *HashTable_LookupOrInsert(HashTable *table, const void *key, void *value);

/* Stores value under the key.  True when it replaced a value, which was dropped; false when the key
 * was new.  An entry that was there keeps its key's string. */
bool HashTable_ReplaceOrInsert(HashTable *table, const void *key, void *value);

/* Replaces the key's value by newValue if it is exactly oldValue, which is then dropped.  Returns
 * whether it did; if not, newValue is still the caller's. */
bool HashTable_ReplaceIfEqual(HashTable *table, const void *key, void *oldValue, void *newValue);

/*
 * Returns the number of entries.  Once threads have entered keys at the same time the number may be
 * too low, and it stays too low: threads that enter keys do not wait for each other to count them.
 * HashTable_ForEach() counts exactly:
 *    static int CountOne(const void *key, void *value, void *count)
 *    {
 *        (void)key, (void)value;
 *        ++*(size_t *)count;
 *        return 0;
 *    }
 *    size_t count = 0;
 *    HashTable_ForEach(table, CountOne, &count);
 */
size_t HashTable_GetNumElements(const HashTable *table);

/*
 * Returns all keys, bucket by bucket, and in each bucket the latest entry first.  *keysOut is an
 * array of *sizeOut keys, which the caller releases with free(), or NULL when there are none.  The
 * keys themselves are not copied.  *sizeOut is HashTable_GetNumElements(): once threads have
 * entered keys at the same time, KEYS MAY BE MISSING from the array, also when these threads have
 * ended.  Use HashTable_ForEach() then; the array is for tables that one thread at a time has
 * filled.
 */
void HashTable_KeyArray(const HashTable *table, const void ***keysOut, size_t *sizeOut);

/* Returns the same for the values, which are not copied either.  VALUES MAY BE MISSING where keys
 * may; HashTable_ForEach() gives all. */
void HashTable_ValueArray(const HashTable *table, void ***valuesOut, size_t *sizeOut);

/*
 * Calls the callback with every entry and userData, in the order of HashTable_KeyArray(), until the
 * callback returns something other than 0, which becomes the result; otherwise the result is 0.
 * It visits all entries that any thread had entered before the call, and may visit those that are
 * entered during the call.  The callback must not enter or remove keys; it may replace values.
 */
int HashTable_ForEach(const HashTable *table, HashTableForEachCallback callback, void *userData);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_HASHTABLE_H */
