// posixEnv.cpp -- the C library's calls for the environment.
//
// Posix_Getenv() returns text that nobody has to free, so each name has a record of its present
// value and the one before.  Records are made once and stay; a value is freed when it has been
// replaced twice.  All of this is without a lock.
#include "posix.h"

#include "diagnostics.h"
#include "hashTable.h"
#include "posixInt.h"
#include "util.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr char POSIX_MODULE[] = "lib/misc/posixInt";
constexpr int RECORD_FREED = 441;

constexpr uint32_t RECORD_BUCKETS = 128; // enough for an environment of usual size

struct EnvironmentRecord {
    std::atomic<char *> current;
    std::atomic<char *> previous; // who has asked just before a change may still read it
};

struct RetiredValue {
    char *value;
    RetiredValue *next;
};

HashTable *sRecords;
// How many threads may be looking at a value that another one replaces.  Announcing oneself comes
// before looking, and replacing before asking for readers: both are a store before a load, which
// only sequential consistency, the default order, keeps so.
std::atomic<uint32_t> sReaders;
// Values that no record has any more.  They wait here while there are readers.
std::atomic<RetiredValue *> sRetired;

void PosixRecordFreed(void *) { Panic(UTIL_NOT_REACHED_REPORT, POSIX_MODULE, RECORD_FREED); }

void PosixRetire(RetiredValue *first, RetiredValue *last)
{
    last->next = sRetired.load(std::memory_order_relaxed);
    while (!sRetired.compare_exchange_weak(last->next, first, std::memory_order_acq_rel)) {}
}

// Frees the values that no record has any more, unless a reader came before they were replaced.
// Whoever is not a reader once they have been taken from the list cannot find them any more.
void PosixFreeRetired()
{
    ErrnoSaver keep;
    RetiredValue *first = sRetired.exchange(nullptr);
    if (first == nullptr) { return; }
    if (sReaders.load() != 0) {
        RetiredValue *last = first;
        while (last->next != nullptr) {
            last = last->next;
        }
        PosixRetire(first, last);
        return;
    }
    while (first != nullptr) {
        RetiredValue *next = first->next;
        free(first->value);
        free(first);
        first = next;
    }
}

// Puts a value into the place of the one that was seen there; whether that was still there.
bool PosixReplaceValue(EnvironmentRecord *record, char *seen, char *value)
{
    if (!record->current.compare_exchange_strong(seen, value)) { return false; }
    char *replacedTwice = record->previous.exchange(seen);
    if (replacedTwice != nullptr) {
        auto *retired = static_cast<RetiredValue *>(Util_SafeMalloc(sizeof(RetiredValue)));
        retired->value = replacedTwice;
        PosixRetire(retired, retired);
    }
    return true;
}

// The first value of a name; false when another thread has made the name's record meanwhile.
bool PosixAddRecord(HashTable *records, const char *name, char *value)
{
    void *block = Util_SafeMalloc(sizeof(EnvironmentRecord));
    ScopedFree<EnvironmentRecord> record(new (block) EnvironmentRecord{{value}, {nullptr}});
    if (!HashTable_Insert(records, name, record.get())) { return false; }
    static_cast<void>(record.release()); // the table's now
    return true;
}

// One attempt of Posix_Getenv(); false when another thread has changed the record meanwhile.
bool PosixGetenvOnce(HashTable *records, const char *name, const HostText &hostName, char **result)
{
    void *found = nullptr;
    HashTable_Lookup(records, name, &found);
    auto *record = static_cast<EnvironmentRecord *>(found);
    // Looked at before the environment is: what the environment says is at least as new, so that no
    // thread puts back a value that another one has seen replaced.
    char *seen = record == nullptr ? nullptr : record->current.load();

    ScopedFree<char> value(PosixFromHost(PosixCall(getenv, hostName)));
    *result = value.get();
    if (!value) { return true; }
    if (seen != nullptr && strcmp(seen, value.get()) == 0) {
        *result = seen;
        return true;
    }
    const bool done = record == nullptr ? PosixAddRecord(records, name, value.get())
                                        : PosixReplaceValue(record, seen, value.get());
    if (done) { static_cast<void>(value.release()); }
    return done;
}

} // namespace

extern "C" char *Posix_Getenv(const char *name)
{
    const HostText hostName(name);
    if (hostName.Lost()) {
        errno = ERANGE;
        return nullptr;
    }
    ErrnoSaver keep;
    HashTable *records = HashTable_AllocOnce(&sRecords, RECORD_BUCKETS,
                                             HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY,
                                             PosixRecordFreed);
    char *result = nullptr;
    sReaders.fetch_add(1);
    while (!PosixGetenvOnce(records, name, hostName, &result)) {}
    sReaders.fetch_sub(1);
    if (sRetired.load(std::memory_order_relaxed) != nullptr) { PosixFreeRetired(); }
    return result;
}

extern "C" int Posix_Setenv(const char *name, const char *value, int overwrite)
{
    return PosixCall(setenv, HostText(name), HostText(value), overwrite);
}

extern "C" int Posix_Unsetenv(const char *name) { return PosixCall(unsetenv, HostText(name)); }

extern "C" int Posix_Putenv(char *string) { return putenv(string); }
