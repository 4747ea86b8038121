/*
 * hashTable.h -- a table from strings or integers to values, for caches that are only ever filled.
 *
 * A table has a fixed number of buckets, a power of two that the caller chooses for the population
 * that it expects: the table never grows, and a lookup takes time proportional to the number of
 * entries per bucket.  A lookup takes no lock, makes no system call and allocates nothing.
 *
 * Keys are passed as const void *: for string tables a NUL-terminated string, not NULL, for integer
 * tables the integer itself, cast to a pointer.  Values are pointers or integers cast to pointers,
 * NULL included.
 *
 * Ownership.  The table owns its entries.  A string key must outlive its entry and keep its text,
 * unless the table was made with HASH_FLAG_COPYKEY and so has copies of its own.  Values stay the
 * caller's, unless the table was given a free function: that receives every value which the table
 * drops.
 *
 * Threads.  A table without HASH_FLAG_ATOMIC must not be changed by one thread while another uses
 * it.  On a table with the flag any number of threads may at the same time call HashTable_Lookup,
 * HashTable_Insert, HashTable_LookupOrInsert, HashTable_ReplaceOrInsert, HashTable_ReplaceIfEqual,
 * HashTable_GetNumElements, HashTable_KeyArray, HashTable_ValueArray and HashTable_ForEach; what
 * one thread wrote before it stored a value is there for whoever finds the value.  A free function
 * may then be called by any of these threads, and a value that was replaced is given to it even
 * when another thread has just looked it up: such a table's values must outlive their readers, or
 * not be pointers.  HashTable_Delete, HashTable_Remove, HashTable_Clear and HashTable_Free must
 * have any table to themselves.
 *
 * No operation returns a failure to allocate: the process ends as util.h tells.  A table or a
 * callback must not be NULL unless it is said to be optional.
 */
#ifndef PELAGO_HASHTABLE_H
#define PELAGO_HASHTABLE_H

#include "declarations.h"

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

PELAGO_BEGIN_DECLARATIONS

/* A table, which only the functions here look into. */
typedef struct HashTable HashTable;

/* What a table's flags are made of: one kind of key, and any of the HASH_FLAG_s. */
enum {
    HASH_STRING_KEY = 0,    /* strings, told apart by strcmp() */
    HASH_ISTRING_KEY = 1,   /* strings, told apart by strcasecmp(), found by tolower() of each byte:
                               the locale must not change while the table has entries */
    HASH_INT_KEY = 2,       /* integers of the size of a pointer */
    HASH_FLAG_ATOMIC = 8,   /* several threads may fill and read the table (see Threads) */
    HASH_FLAG_COPYKEY = 16, /* the table keeps copies of string keys; nothing for integers */
};

/* Receives a value that the table drops.  It must not use that table. */
typedef void (*HashTableFreeEntryFn)(void *value);

/* Receives an entry and the pointer that came with the walk; not 0 stops the walk. */
typedef int (*HashTableForEachCallback)(const void *key, void *value, void *userData);

/*
 * Makes an empty table of numEntries buckets, which HashTable_Free releases.  freeEntryFn may be
 * NULL.  Bits of flags that are not named above are ignored.
 *
 * numEntries that is not a power of two ends the process with the report "HashTable_Alloc only
 * takes powers of 2 ", and so does 0, which is none; a table of one bucket is a plain list.  An
 * unknown kind of key, 3 to 7, ends the process when the first key is used.
 */
HashTable *HashTable_Alloc(uint32_t numEntries, int flags, HashTableFreeEntryFn freeEntryFn);

/*
 * Returns the table that *shared holds or, when that is NULL, makes one as HashTable_Alloc does and
 * stores it there.  Any number of threads may race for it: all of them receive the one table that
 * was stored.  *shared must not be written in any other way meanwhile.
 */
HashTable *HashTable_AllocOnce(HashTable **shared, uint32_t numEntries, int flags,
                               HashTableFreeEntryFn freeEntryFn);

/* Drops all entries and releases the table, which may be NULL. */
void HashTable_Free(HashTable *table);

/* The same. */
void HashTable_FreeAll(HashTable *table);

/* Drops all entries; the table stays. */
void HashTable_Clear(HashTable *table);

/* Whether the key is there.  Its value goes to *valueOut, which is left alone when the key is not
 * there; valueOut may be NULL. */
bool HashTable_Lookup(const HashTable *table, const void *key, void **valueOut);

/* Drops the key's entry; whether there was one. */
bool HashTable_Delete(HashTable *table, const void *key);

/*
 * Removes the key's entry; whether there was one.  Its value goes to *valueOut and is the caller's
 * from then on; when valueOut is NULL the value is dropped.
 */
bool HashTable_Remove(HashTable *table, const void *key, void **valueOut);

/* Enters the key unless it is there already; whether it was entered.  When it was not, nothing has
 * changed, and value is still the caller's. */
bool HashTable_Insert(HashTable *table, const void *key, void *value);

/*
 * The value that is there under the key, which is entered with the given value when it is not
 * there.  A result other than value means that value is still the caller's.
 */
void *HashTable_LookupOrInsert(HashTable *table, const void *key, void *value);

/* Stores value under the key.  True when it replaced a value, which was dropped; false when the key
 * has been entered.  A key that is there keeps its own string. */
bool HashTable_ReplaceOrInsert(HashTable *table, const void *key, void *value);

/* Stores newValue under the key and drops the value that was there, if that was exactly oldValue;
 * whether this happened.  When it did not, newValue is still the caller's. */
bool HashTable_ReplaceIfEqual(HashTable *table, const void *key, void *oldValue, void *newValue);

/*
 * The number of entries.  Once threads have entered keys at the same time it may be too low, and
 * stays so when they have ended: the count is not worth a lock.  To count then, walk:
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
 * All keys, in the order of a walk: bucket by bucket, in each the latest entry first.  *keysOut is
 * an array of *sizeOut keys, which the caller releases with free(), or NULL when there are none.
 * The keys themselves stay the table's.  *sizeOut is HashTable_GetNumElements(): once threads have
 * entered keys at the same time, KEYS MAY BE MISSING from the array, also when all of these threads
 * have ended.  HashTable_ForEach() gives every entry then, and the array is for tables that one
 * thread at a time has filled.
 */
void HashTable_KeyArray(const HashTable *table, const void ***keysOut, size_t *sizeOut);

/* The same for the values, which stay whose they are.  VALUES MAY BE MISSING where keys may; with
 * HashTable_ForEach() none is. */
void HashTable_ValueArray(const HashTable *table, void ***valuesOut, size_t *sizeOut);

/*
 * Gives every entry and userData to the callback, in the order of HashTable_KeyArray(), until it
 * returns something other than 0, which becomes the result; otherwise the result is 0.  Every entry
 * is every one that was entered before the call, by whatever threads; one that is entered meanwhile
 * may be among them.  The callback must not enter or remove keys.
 */
int HashTable_ForEach(const HashTable *table, HashTableForEachCallback callback, void *userData);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_HASHTABLE_H */
