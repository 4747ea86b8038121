#include "posix.h"

#include "allocations.h"
#include "hashTable.h"
#include "panic.h"
#include "posixKept.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <unistd.h>

// The table of the kept values, and the arguments that it was made with.
static HashTable *sTable;
static uint32_t sBuckets;
static int sFlags;

extern "C" {
HashTable *__real_HashTable_AllocOnce(HashTable **shared, uint32_t numEntries, int flags,
                                      HashTableFreeEntryFn freeEntryFn);
HashTable *__wrap_HashTable_AllocOnce(HashTable **shared, uint32_t numEntries, int flags,
                                      HashTableFreeEntryFn freeEntryFn)
{
    HashTable *table = __real_HashTable_AllocOnce(shared, numEntries, flags, freeEntryFn);
    if (freeEntryFn == nullptr) { return table; } // the table of the encodings' names
    sBuckets = numEntries;
    sFlags = flags;
    return sTable = table;
}
}

namespace {

constexpr int ALONE = 77;
// The blocks that are kept for a name: an entry with its key, a record, two blocks for its value
// and, after a change, two for the one before.
constexpr ptrdiff_t KEPT = 4, KEPT_AFTER_A_CHANGE = 6;

// Every test uses a variable of its own, which is not set and has never been read.
class PosixEnv : public testing::Test {
protected:
    void TearDown() override { unsetenv(Name()); }
    const char *Name() const { return mName.c_str(); }
    // Sets the variable with the bare call, and reads it.
    const char *Ask(const char *value) const
    {
        setenv(Name(), value, 1);
        return Posix_Getenv(Name());
    }
    ptrdiff_t Added() const { return Allocations::Live() - mBefore; }

private:
    const std::string mName = std::string("PELAGO_\xC3\xA4") +
                              testing::UnitTest::GetInstance()->current_test_info()->name();
    const ptrdiff_t mBefore = Allocations::Live();
};
using PosixGetenv = PosixEnv;
using PosixGetenvDeathTest = PosixEnv;
using PosixSetenv = PosixEnv;
using PosixPutenv = PosixEnv;

// ---- The value

TEST_F(PosixGetenv, GivesTheValue) { EXPECT_STREQ(Ask("caf\xC3\xA9"), "caf\xC3\xA9"); }

TEST_F(PosixGetenv, GivesAnEmptyValue) { EXPECT_STREQ(Ask(""), ""); }

TEST_F(PosixGetenv, GivesALongValue)
{
    const std::string value(100'000, 'x');
    EXPECT_EQ(Ask(value.c_str()), value);
}

TEST_F(PosixGetenv, ReturnsNullForAnUnsetVariable)
{
    errno = ALONE;
    EXPECT_EQ(Posix_Getenv(Name()), nullptr);
    EXPECT_EQ(errno, ALONE);
    EXPECT_EQ(Added(), 0);
}

TEST_F(PosixGetenv, GivesNothingOnceItIsUnset)
{
    Ask("one");
    unsetenv(Name());
    EXPECT_EQ(Posix_Getenv(Name()), nullptr);
}

TEST_F(PosixGetenv, TellsNamesApartByEveryByte)
{
    const std::string upper = std::string(Name()) + "X", lower = std::string(Name()) + "x";
    setenv(upper.c_str(), "upper", 1);
    setenv(lower.c_str(), "lower", 1);
    EXPECT_STREQ(Posix_Getenv(upper.c_str()), "upper");
    EXPECT_STREQ(Posix_Getenv(lower.c_str()), "lower");
    unsetenv(upper.c_str());
    unsetenv(lower.c_str());
}

TEST_F(PosixGetenv, KeepsACopyOfTheName)
{
    setenv(Name(), "one", 1);
    std::string name = Name();
    const char *value = Posix_Getenv(name.c_str());
    name[0] = 'Q';
    EXPECT_EQ(Posix_Getenv(Name()), value);
}

TEST_F(PosixGetenv, LeavesErrnoAloneAllAlong)
{
    for (const char *value : {"one", "one", "two", "three", "four"}) {
        errno = ALONE;
        setenv(Name(), value, 1);
        EXPECT_STREQ(Posix_Getenv(Name()), value);
        EXPECT_EQ(errno, ALONE) << value;
    }
}

// ---- The pointer

TEST_F(PosixGetenv, GivesTheSamePointerForTheSameValue)
{
    const char *value = Ask("one");
    EXPECT_EQ(Posix_Getenv(Name()), value);
    EXPECT_NE(value, getenv(Name())) << "and not the environment's own";
}

TEST(PosixGetenvOfHome, GivesTheSamePointerTwice)
{
    setenv("HOME", "/home/caf\xC3\xA9", 1);
    const char *home = Posix_Getenv("HOME");
    EXPECT_STREQ(home, "/home/caf\xC3\xA9");
    EXPECT_EQ(Posix_Getenv("HOME"), home);
}

TEST_F(PosixGetenv, ReturnsTheSamePointerForARestoredValue)
{
    const char *value = Ask("one");
    EXPECT_EQ(Ask("one"), value);
    unsetenv(Name());
    Posix_Getenv(Name());
    EXPECT_EQ(Ask("one"), value) << "unset is no value";
    EXPECT_EQ(Added(), KEPT);
}

TEST_F(PosixGetenv, GivesTheNewValueAfterAChange)
{
    const char *one = Ask("one");
    const char *two = Ask("two");
    EXPECT_STREQ(two, "two");
    EXPECT_NE(two, one);
    EXPECT_EQ(Posix_Getenv(Name()), two);
}

TEST_F(PosixGetenv, TellsValuesApartByEveryByte)
{
    const std::string many(1000, 'x');
    for (const std::string &value : {std::string("one"), std::string("One"), many + "a", many + "b",
                                     many + "bb", std::string("")}) {
        EXPECT_EQ(std::string(Ask(value.c_str())), value);
    }
}

TEST_F(PosixGetenv, KeepsAValueReadableThroughOneChange)
{
    const char *one = Ask("one");
    const char *two = Ask("two");
    EXPECT_STREQ(one, "one");
    Ask("three");
    EXPECT_STREQ(two, "two");
}

TEST_F(PosixGetenv, GoesBackToAValueThatWasThere)
{
    const char *one = Ask("one");
    Ask("two");
    const char *again = Ask("one");
    EXPECT_STREQ(again, "one");
    EXPECT_NE(again, one) << "that one is the value before the last: it goes with the next change";
    EXPECT_EQ(Posix_Getenv(Name()), again);
}

// ---- The kept blocks

TEST_F(PosixGetenv, KeepsOneCopyOfAnUnchangedValue)
{
    for (int i = 0; i < 10; i++) {
        Ask("one");
    }
    EXPECT_EQ(Added(), KEPT);
}

TEST_F(PosixGetenv, FreesAValueThatHasBeenReplacedTwice)
{
    Ask("one");
    Ask("two");
    EXPECT_EQ(Added(), KEPT_AFTER_A_CHANGE);
    for (int i = 0; i < 1000; i++) {
        Ask(std::to_string(i).c_str());
        EXPECT_EQ(Added(), KEPT_AFTER_A_CHANGE);
    }
}

TEST_F(PosixGetenv, KeepsManyNamesApart)
{
    constexpr int NAMES = 2000; // many times the number of buckets
    std::vector<const char *> values;
    const auto name = [this](int i) { return Name() + std::to_string(i); };
    for (int i = 0; i < NAMES; i++) {
        setenv(name(i).c_str(), std::to_string(i).c_str(), 1);
        values.push_back(Posix_Getenv(name(i).c_str()));
    }
    EXPECT_EQ(Added(), NAMES * KEPT);
    for (int i = 0; i < NAMES; i++) {
        EXPECT_EQ(Posix_Getenv(name(i).c_str()), values[i]);
        EXPECT_EQ(values[i], std::to_string(i));
        unsetenv(name(i).c_str());
    }
}

TEST_F(PosixGetenv, KeepsThemInATableForThreads)
{
    Posix_Getenv(Name());
    EXPECT_EQ(sBuckets, 128u);
    EXPECT_EQ(sFlags, 0x18);
    EXPECT_EQ(sFlags, HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY);
}

TEST_F(PosixGetenvDeathTest, NoRecordIsEverDropped)
{
    Ask("one");
    EXPECT_PANIC(HashTable_Delete(sTable, Name()), "NOT_REACHED lib/misc/posixInt:441\n");
}

// ---- Without memory

// The process ends whichever block is refused: for a first value, for a changed one or for one
// changed again.
TEST_F(PosixGetenvDeathTest, WithoutMemoryEndsTheProcess)
{
    for (const int values : {0, 1, 2, 3}) { // that the variable had before
        for (int i = 0; i < values; i++) {
            Ask(std::to_string(i).c_str());
        }
        setenv(Name(), "new", 1);
        size_t needed = 0;
        const auto count = [&](int status) {
            needed = static_cast<size_t>(WEXITSTATUS(status));
            return WIFEXITED(status);
        };
        EXPECT_EXIT(
            {
                const size_t before = Allocations::Calls();
                Posix_Getenv(Name());
                _exit(static_cast<int>(Allocations::Calls() - before));
            },
            count, "");
        EXPECT_GE(needed, 2u);
        for (size_t granted = 0; granted < needed; granted++) {
            SCOPED_TRACE(granted);
            EXPECT_EXIT(
                {
                    const OutOfMemory memory(granted);
                    Posix_Getenv(Name());
                    _exit(100);
                },
                testing::ExitedWithCode(1), "^Panic: ");
        }
    }
}

// ---- Bytes that are not text

TEST_F(PosixGetenvDeathTest, EndsTheProcessForAnInvalidValue)
{
    setenv(Name(), "caf\xE9", 1);
    EXPECT_PANIC(Posix_Getenv(Name()), "Unicode_AllocWithLength: Couldn't convert invalid buffer "
                                       "[caf\\xE9] from UTF-8 to Unicode.\n");
}

// ---- The form that takes any bytes

TEST_F(PosixGetenv, GivesItsOwnPointerAlsoWhenItTries)
{
    const char *value = Ask("caf\xC3\xA9");
    errno = ALONE;
    EXPECT_EQ(Posix_TryGetenv(Name()), value);
    EXPECT_EQ(errno, ALONE);
    setenv(Name(), "two", 1);
    const char *two = Posix_TryGetenv(Name());
    EXPECT_STREQ(two, "two");
    EXPECT_EQ(Posix_Getenv(Name()), two);
    EXPECT_STREQ(value, "caf\xC3\xA9") << "is readable through one change";
    EXPECT_EQ(Added(), KEPT_AFTER_A_CHANGE);
}

TEST_F(PosixGetenv, KeepsItsValueWhenTryGetenvFails)
{
    const char *value = Ask("one");
    setenv(Name(), "caf\xE9", 1);
    for (int i = 0; i < 3; i++) {
        errno = ALONE;
        EXPECT_EQ(Posix_TryGetenv(Name()), nullptr);
        EXPECT_EQ(errno, EILSEQ);
    }
    EXPECT_EQ(Ask("one"), value);
    EXPECT_EQ(Added(), KEPT);
}

TEST_F(PosixGetenv, TryGetenvSetsNoErrnoForUnsetVariables)
{
    errno = 0;
    EXPECT_EQ(Posix_TryGetenv(Name()), nullptr);
    EXPECT_EQ(errno, 0);
}

// ---- Changing the environment

TEST_F(PosixSetenv, OverwritesOnlyWhenTold)
{
    EXPECT_EQ(Posix_Setenv(Name(), "one", 0), 0);
    EXPECT_STREQ(getenv(Name()), "one");
    EXPECT_EQ(Posix_Setenv(Name(), "two", 0), 0);
    EXPECT_STREQ(getenv(Name()), "one");
    EXPECT_EQ(Posix_Setenv(Name(), "\xC3\xA9", 1), 0);
    EXPECT_STREQ(getenv(Name()), "\xC3\xA9");
    EXPECT_STREQ(Posix_Getenv(Name()), "\xC3\xA9");
}

TEST_F(PosixSetenv, UnsetsWithItsCounterpart)
{
    Posix_Setenv(Name(), "one", 1);
    EXPECT_EQ(Posix_Unsetenv(Name()), 0);
    EXPECT_EQ(getenv(Name()), nullptr);
    EXPECT_EQ(Posix_Unsetenv(Name()), 0) << "of what is not set";
}

TEST_F(PosixPutenv, PutsTheCallersOwnStringIntoTheEnvironment)
{
    static std::string entry = std::string(Name()) + "=one";
    errno = ALONE;
    EXPECT_EQ(Posix_Putenv(entry.data()), 0);
    EXPECT_EQ(errno, ALONE);
    EXPECT_EQ(getenv(Name()), entry.data() + entry.size() - 3);
    EXPECT_EQ(Added(), 0);
    EXPECT_STREQ(Posix_Getenv(Name()), "one");
    entry.back() = 'X';
    EXPECT_STREQ(Posix_Getenv(Name()), "onX");
}

} // namespace
