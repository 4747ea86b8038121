// scopedTable.h -- a hash table that is freed at the end of the block.
#ifndef PELAGO_TESTS_SUPPORT_SCOPEDTABLE_H
#define PELAGO_TESTS_SUPPORT_SCOPEDTABLE_H

#include "hashTable.h"

#include <memory>

struct FreeTable {
    void operator()(HashTable *table) const { HashTable_Free(table); }
};
using ScopedTable = std::unique_ptr<HashTable, FreeTable>;

#endif // PELAGO_TESTS_SUPPORT_SCOPEDTABLE_H
