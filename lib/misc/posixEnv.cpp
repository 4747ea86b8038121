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

using namespace pelago;

namespace {

constexpr char POSIX_MODULE[] = "lib/misc/posixInt";
constexpr int RECORD_FREED = 441;

constexpr uint32_t RECORD_BUCKETS = 128; // enough for an environment of usual size

// Both are replaced together, so that of several threads that replace a value each one frees what
// it has itself replaced for the second time, and nothing newer.
struct EnvironmentValues {
    char *current;
    char *previous;          // who has asked just before a change may still read it
    EnvironmentValues *next; // once they are retired
};
using EnvironmentRecord = std::atomic<EnvironmentValues *>;

HashTable *sRecords;
// How many threads may be looking at values that another one replaces.  Announcing oneself comes
// before looking, and replacing before asking for readers: both are a store before a load, which
// only sequential consistency, the default order, keeps so.
std::atomic<uint32_t> sReaders;
// Values that no record has any more.  They wait here while there are readers.
std::atomic<EnvironmentValues *> sRetired;

void PosixRecordFreed(void *) { Panic(UTIL_NOT_REACHED_REPORT, POSIX_MODULE, RECORD_FREED); }

EnvironmentValues *PosixNewValues(char *current, char *previous)
{
    auto *values = static_cast<EnvironmentValues *>(Util_SafeMalloc(sizeof(EnvironmentValues)));
    *values = {current, previous, nullptr};
    return values;
}

void PosixRetire(EnvironmentValues *first, EnvironmentValues *last)
{
    last->next = sRetired.load(std::memory_order_relaxed);
    while (!sRetired.compare_exchange_weak(last->next, first, std::memory_order_acq_rel)) {}
}

// Frees the values that no record has any more, unless a reader came before they were replaced.
// Whoever is not a reader once they have been taken from the list cannot find them any more.
void PosixFreeRetired()
{
    EnvironmentValues *first = sRetired.exchange(nullptr);
    if (first == nullptr) { return; }
    if (sReaders.load() != 0) {
        EnvironmentValues *last = first;
        while (last->next != nullptr) {
            last = last->next;
        }
        PosixRetire(first, last);
        return;
    }
    while (first != nullptr) {
        EnvironmentValues *next = first->next;
        free(first->previous); // its current value is the previous one of those that replaced it
        free(first);
        first = next;
    }
}

// Puts a value into the place of the one that was seen there; whether that was still there.
bool PosixReplaceValue(EnvironmentRecord *record, EnvironmentValues *seen, char *value)
{
    ScopedFree<EnvironmentValues> values(PosixNewValues(value, seen->current));
    EnvironmentValues *expected = seen;
    if (!record->compare_exchange_strong(expected, values.get())) { return false; }
    static_cast<void>(values.release());
    PosixRetire(seen, seen);
    return true;
}

// The first value of a name; false when another thread has made the name's record meanwhile.
bool PosixAddRecord(HashTable *records, const char *name, char *value)
{
    ScopedFree<EnvironmentValues> values(PosixNewValues(value, nullptr));
    void *block = Util_SafeMalloc(sizeof(EnvironmentRecord));
    ScopedFree<EnvironmentRecord> record(new (block) EnvironmentRecord(values.get()));
    if (!HashTable_Insert(records, name, record.get())) { return false; }
    static_cast<void>(values.release());
    static_cast<void>(record.release()); // the table's now
    return true;
}

// One attempt of Posix_Getenv(); false when another thread has changed the record meanwhile.
// *error is errno for the C library's call, and then as that left it.
bool PosixGetenvOnce(HashTable *records, const char *name, const HostText &hostName, int *error,
                     char **result)
{
    void *found = nullptr;
    HashTable_Lookup(records, name, &found);
    auto *record = static_cast<EnvironmentRecord *>(found);
    // Looked at before the environment is: what the environment says is at least as new, so that no
    // thread puts back a value that another one has seen replaced.
    EnvironmentValues *seen = record == nullptr ? nullptr : record->load();

    errno = *error;
    const char *bytes = PosixCall(getenv, hostName);
    *error = errno;
    ScopedFree<char> value(PosixFromHost(bytes));
    *result = value.get();
    if (!value) { return true; }
    if (seen != nullptr && strcmp(seen->current, value.get()) == 0) {
        *result = seen->current;
        return true;
    }
    const bool done = record == nullptr ? PosixAddRecord(records, name, value.get())
                                        : PosixReplaceValue(record, seen, value.get());
    if (done) { static_cast<void>(value.release()); }
    return done;
}

char *PosixCachedGetenv(const char *name, const HostText &hostName)
{
    int error = errno;
    HashTable *records = HashTable_AllocOnce(&sRecords, RECORD_BUCKETS,
                                             HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY,
                                             PosixRecordFreed);
    char *result = nullptr;
    sReaders.fetch_add(1);
    while (!PosixGetenvOnce(records, name, hostName, &error, &result)) {}
    sReaders.fetch_sub(1);
    if (sRetired.load(std::memory_order_relaxed) != nullptr) { PosixFreeRetired(); }
    errno = error;
    return result;
}

} // namespace

extern "C" char *Posix_Getenv(const char *name)
{
    const HostText hostName(name);
    // Nothing is kept of no name: what becomes of it is the C library's to say.
    if (name == nullptr || hostName.Lost()) { return PosixCall(getenv, hostName); }
    return PosixCachedGetenv(name, hostName);
}

extern "C" int Posix_Setenv(const char *name, const char *value, int overwrite)
{
    const HostText hostName(name), hostValue(value);
    return PosixCall(setenv, hostName, hostValue, overwrite);
}

extern "C" int Posix_Unsetenv(const char *name) { return PosixCall(unsetenv, HostText(name)); }

extern "C" int Posix_Putenv(char *string) { return putenv(string); }
