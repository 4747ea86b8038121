// posixEnv.cpp -- the C library's calls for the environment.
//
// Posix_Getenv() returns text that nobody has to free, so each name has a record of its present
// value, which knows the one before.  Records are made once and stay; a value is freed when it has
// been replaced twice and nobody looks at it any more.  All of this is without a lock: how many
// look at a value is counted in the very word that shows it, so that none of them is overlooked
// when the word changes.  What waits to be freed is then no more than one value for each thread
// that looks.
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
    EnvironmentValue *before;   // what it replaced, or NULL; not to be looked at
    std::atomic<int64_t> holds; // it is freed with the last of them
};
// A value is held until it has been replaced, and until its successor has; either counts for more
// than all looks together, so that it is not freed while the looks in a record's word wait to be
// counted here.
constexpr int64_t VALUE_HOLD = int64_t{1} << 32;

// A record: where its present value is, below, and how many look at that.  Addresses of a process
// have 47 bits, or 48.  16 bits count 65,535 looks: more threads than a process may have under the
// kernel's limit of 65,530 mappings, of which a thread's stack takes two.
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

// A look at a record's present value, which is not freed meanwhile.
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

    // Puts a text into the place of the value, which ends the look; false when another thread has
    // done so before.
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
    // Where the look was counted depends on whether the value is still the record's.
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

// The first value of a name; false when another thread has made the name's record meanwhile.
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
// *error is errno for the C library's call, and then as that, or the conversion, left it.
bool PosixGetenvOnce(HashTable *records, const char *name, const HostText &hostName,
                     PosixConversion convert, int *error, char **result)
{
    void *record = nullptr;
    HashTable_Lookup(records, name, &record);
    // Looked at before the environment is: what the environment says is at least as new, so that no
    // thread puts back a value that another one has seen replaced.
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
    // Nothing is kept of no name: what becomes of it is the C library's to say.
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
