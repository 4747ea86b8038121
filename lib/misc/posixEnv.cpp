// posixEnv.cpp -- the C library's calls for the environment.
//
// Posix_Getenv() returns text that its callers do not free.  So each name has a record of its
// current value, which points to the value before.  Records are never freed.  A value is freed when
// it has been replaced twice and no thread reads it any more.  There is no lock: a record is one
// word that holds the value's address and the number of its readers, so that no reader is missed
// when the word changes.  At most one value for each reading thread waits to be freed.
#include "posix.h"

#include "diagnostics.h"
#include "hashTable.h"
#include "posixInt.h"
#include "util.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

using namespace pelago;

namespace {

constexpr char POSIX_MODULE[] = "lib/misc/posixInt";
constexpr int RECORD_FREED = 441;

constexpr uint32_t RECORD_BUCKETS = 128; // enough for an environment of usual size

struct EnvironmentValue {
    char *text;
    EnvironmentValue *before;   // the value that it replaced, or NULL; its text must not be read
    std::atomic<int64_t> holds; // the value is freed when this becomes 0
};
// A value has two holds at first: one until it is replaced, the other until its successor is.  A
// hold is larger than any number of readers, so that the value is not freed while the readers in
// the record's word have not been added to its holds.
constexpr int64_t VALUE_HOLD = int64_t{1} << 32;

// A record: the address of its current value in the low 48 bits, and the number of its readers in
// the high 16.  User addresses have at most 48 bits.  65,535 readers are more threads than a
// process can have: the kernel's limit is 65,530 mappings, and a thread's stack takes two.
using EnvironmentRecord = std::atomic<uint64_t>;
constexpr int LOOKS_SHIFT = 48;
constexpr uint64_t ONE_LOOK = uint64_t{1} << LOOKS_SHIFT;

HashTable *sRecords;

void PosixRecordFreed(void *) { Panic(UTIL_NOT_REACHED_REPORT, POSIX_MODULE, RECORD_FREED); }

uint64_t PosixWordOf(const EnvironmentValue *value) { return reinterpret_cast<uintptr_t>(value); }

EnvironmentValue *PosixValueIn(uint64_t word)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the count is in the same word
    return reinterpret_cast<EnvironmentValue *>(word & (ONE_LOOK - 1));
}

EnvironmentValue *PosixNewValue(char *text, EnvironmentValue *before)
{
    void *block = Util_SafeMalloc(sizeof(EnvironmentValue));
    return new (block) EnvironmentValue{text, before, 2 * VALUE_HOLD};
}

void PosixDrop(EnvironmentValue *value, int64_t holds)
{
    if (value->holds.fetch_sub(holds) != holds) { return; }
    free(value->text);
    free(value);
}

// Reads a record's current value, which is not freed before the look ends.
class EnvironmentLook {
public:
    explicit EnvironmentLook(EnvironmentRecord *record)
        : mRecord(record), mValue(PosixValueIn(record->fetch_add(ONE_LOOK)))
    {}
    EnvironmentLook(const EnvironmentLook &) = delete;
    EnvironmentLook &operator=(const EnvironmentLook &) = delete;
    ~EnvironmentLook()
    {
        if (mValue != nullptr) { End(); }
    }
    char *Text() const { return mValue->text; }

    // Replaces the value by one with this text, and ends the look.  False, with nothing changed,
    // when another thread has replaced the value.
    bool Replace(char *text)
    {
        ScopedFree<EnvironmentValue> fresh(PosixNewValue(text, mValue));
        EnvironmentValue *before = mValue->before;
        uint64_t word = mRecord->load();
        do {
            if (PosixValueIn(word) != mValue) { return false; }
        } while (!mRecord->compare_exchange_weak(word, PosixWordOf(fresh.get())));
        static_cast<void>(fresh.release());
        const auto others = static_cast<int64_t>(word >> LOOKS_SHIFT) - 1;
        PosixDrop(std::exchange(mValue, nullptr), VALUE_HOLD - others);
        if (before != nullptr) { PosixDrop(before, VALUE_HOLD); }
        return true;
    }

private:
    // The look is counted in the record's word until the value is replaced, and then in its holds.
    void End()
    {
        uint64_t word = mRecord->load();
        while (PosixValueIn(word) == mValue) {
            if (mRecord->compare_exchange_weak(word, word - ONE_LOOK)) { return; }
        }
        PosixDrop(mValue, 1);
    }

    EnvironmentRecord *mRecord;
    EnvironmentValue *mValue;
};

// Makes a name's record with its first value; false when another thread has made one first.
bool PosixAddRecord(HashTable *records, const char *name, char *text)
{
    ScopedFree<EnvironmentValue> value(PosixNewValue(text, nullptr));
    void *block = Util_SafeMalloc(sizeof(EnvironmentRecord));
    ScopedFree<EnvironmentRecord> record(new (block) EnvironmentRecord(PosixWordOf(value.get())));
    if (!HashTable_Insert(records, name, record.get())) { return false; }
    static_cast<void>(value.release());
    static_cast<void>(record.release()); // the table's now
    return true;
}

// One attempt of Posix_Getenv(); false when another thread has changed the record meanwhile.
// *error is errno for the C library's call, and receives errno after the call and the conversion.
bool PosixGetenvOnce(HashTable *records, const char *name, const HostText &hostName,
                     PosixConversion convert, int *error, char **result)
{
    void *record = nullptr;
    HashTable_Lookup(records, name, &record);
    // The record is read before the environment, which is then at least as new: so no thread
    // restores a value that another thread has seen replaced.
    std::optional<EnvironmentLook> seen;
    if (record != nullptr) { seen.emplace(static_cast<EnvironmentRecord *>(record)); }

    errno = *error;
    ScopedFree<char> value(convert(PosixCall(getenv, hostName)));
    *error = errno;
    *result = value.get();
    if (!value) { return true; }
    if (seen && strcmp(seen->Text(), value.get()) == 0) {
        *result = seen->Text();
        return true;
    }
    const bool done =
        seen ? seen->Replace(value.get()) : PosixAddRecord(records, name, value.get());
    if (done) { static_cast<void>(value.release()); }
    return done;
}

char *PosixCachedGetenv(const char *name, const HostText &hostName, PosixConversion convert)
{
    int error = errno;
    HashTable *records = HashTable_AllocOnce(&sRecords, RECORD_BUCKETS,
                                             HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY,
                                             PosixRecordFreed);
    char *result = nullptr;
    while (!PosixGetenvOnce(records, name, hostName, convert, &error, &result)) {}
    errno = error;
    return result;
}

char *PosixGetenv(const char *name, PosixConversion convert)
{
    const HostText hostName(name);
    // No name, or one that cannot be represented, has no record.
    if (name == nullptr || hostName.IsUnspellable()) { return PosixCall(getenv, hostName); }
    return PosixCachedGetenv(name, hostName, convert);
}

} // namespace

extern "C" char *Posix_Getenv(const char *name) { return PosixGetenv(name, PosixFromHost); }

extern "C" char *Posix_TryGetenv(const char *name) { return PosixGetenv(name, PosixTryFromHost); }

extern "C" int Posix_Setenv(const char *name, const char *value, int overwrite)
{
    const HostText hostName(name), hostValue(value);
    return PosixCall(setenv, hostName, hostValue, overwrite);
}

extern "C" int Posix_Unsetenv(const char *name) { return PosixCall(unsetenv, HostText(name)); }

extern "C" int Posix_Putenv(char *string) { return putenv(string); }
