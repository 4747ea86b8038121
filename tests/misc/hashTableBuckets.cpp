// Which bucket a key is in, and how the key's case affects that.
#include "hashTable.h"

#include "hashTableForTests.h"
#include "scopedTable.h"

#include <algorithm>
#include <bit>
#include <random>
#include <set>
#include <string>
#include <vector>

// What the wrapped tolower() returns for '_'; '_' means the real result.
static int sLowerUnderscore = '_';
static bool sLoweredASignedByte;

extern "C" {
int __real_tolower(int byte);
int __wrap_tolower(int byte)
{
    sLoweredASignedByte |= byte < 0;
    return byte == '_' ? sLowerUnderscore : __real_tolower(byte);
}
}

namespace {

// ---- Which bucket: the library's computation, one byte and one fold at a time ----

uint32_t PlainStringHash(const std::string &key)
{
    uint32_t hash = 0;
    for (const char byte : key) {
        hash = std::rotl(hash ^ static_cast<unsigned char>(byte), 5);
    }
    return hash;
}

uint32_t PlainIntHash(uint64_t key) { return static_cast<uint32_t>(key >> 32 ^ key) * 48271U; }

uint32_t PlainFold(uint32_t hash, uint32_t numBits)
{
    const uint32_t mask = ~(~uint32_t{0} << numBits);
    while (hash > mask) {
        hash = (hash >> numBits) ^ (hash & mask);
    }
    return hash;
}

TEST(PlainHash, GivesTheKnownBucket)
{
    EXPECT_EQ(PlainStringHash("a"), 3104u);
    EXPECT_EQ(PlainFold(3104, 7), 56u);
}

// Returns the order of a walk over these keys, inserted in this order, with these hashes.
template <typename Key>
std::vector<Key> WalkOrder(const std::vector<Key> &keys, const std::vector<uint32_t> &hashes,
                           uint32_t numBits)
{
    std::vector<std::pair<uint32_t, size_t>> places;
    for (size_t i = 0; i < keys.size(); i++) {
        places.emplace_back(PlainFold(hashes[i], numBits), keys.size() - i); // the latest first
    }
    std::sort(places.begin(), places.end());
    std::vector<Key> ordered;
    for (const auto &[bucket, fromTheEnd] : places) {
        ordered.push_back(keys[keys.size() - fromTheEnd]);
    }
    return ordered;
}

std::string RandomString(std::mt19937 &random, size_t length)
{
    std::string text;
    while (text.size() < length) {
        text += static_cast<char>(1 + random() % 255);
    }
    return text;
}

std::vector<std::string> RandomStrings(std::mt19937 &random, size_t count)
{
    std::set<std::string> texts;
    while (texts.size() < count) {
        texts.insert(RandomString(random, random() % 70));
    }
    std::vector<std::string> shuffled(texts.begin(), texts.end());
    std::shuffle(shuffled.begin(), shuffled.end(), random);
    return shuffled;
}

class HashTableBuckets : public testing::TestWithParam<uint32_t> {
protected:
    std::mt19937 mRandom{GetParam()};
    const uint32_t mNumBits = GetParam();
    const uint32_t mNumEntries = 1U << mNumBits;
};

TEST_P(HashTableBuckets, AreThePlainOnesForStrings)
{
    const std::vector<std::string> keys = RandomStrings(mRandom, 3000);
    std::vector<uint32_t> hashes;
    const ScopedTable table = MakeTable(mNumEntries, HASH_STRING_KEY);
    for (const std::string &key : keys) {
        hashes.push_back(PlainStringHash(key));
        HashTable_Insert(table.get(), key.c_str(), nullptr);
    }
    EXPECT_TRUE(StringKeys(table) == WalkOrder(keys, hashes, mNumBits));
}

TEST_P(HashTableBuckets, AreThePlainOnesForIntegers)
{
    std::set<const void *> distinct;
    while (distinct.size() < 3000) {
        const uint64_t key = uint64_t{mRandom()} << 32 | mRandom();
        distinct.insert(IntKey(key >> mRandom() % 64));
    }
    const std::vector<const void *> keys(distinct.begin(), distinct.end());
    std::vector<uint32_t> hashes;
    const ScopedTable table = MakeTable(mNumEntries, HASH_INT_KEY);
    for (const void *key : keys) {
        hashes.push_back(PlainIntHash(reinterpret_cast<uintptr_t>(key)));
        HashTable_Insert(table.get(), key, nullptr);
    }
    EXPECT_TRUE(Keys(table) == WalkOrder(keys, hashes, mNumBits));
}

TEST_P(HashTableBuckets, AreThePlainOnesForCaselessStrings)
{
    std::vector<std::string> keys;
    std::vector<uint32_t> hashes;
    const ScopedTable table = MakeTable(mNumEntries, HASH_ISTRING_KEY | HASH_FLAG_COPYKEY);
    for (const std::string &key : RandomStrings(mRandom, 1000)) {
        if (!HashTable_Insert(table.get(), key.c_str(), nullptr)) { continue; }
        std::string lowered = key;
        for (char &byte : lowered) {
            byte = static_cast<char>(__real_tolower(static_cast<unsigned char>(byte)));
        }
        keys.push_back(key);
        hashes.push_back(PlainStringHash(lowered));
    }
    EXPECT_TRUE(StringKeys(table) == WalkOrder(keys, hashes, mNumBits));
}

INSTANTIATE_TEST_SUITE_P(NumBits, HashTableBuckets, testing::Range(1U, 21U));

// Returns the number of the key's bucket: how many keys precede it in a table with a key in each of
// the 128 buckets.
size_t BucketOf128(int keyType, const char *key)
{
    const ScopedTable table = MakeTable(128, keyType | HASH_FLAG_COPYKEY);
    std::set<uint32_t> taken;
    for (int i = 0; taken.size() < 128; i++) {
        const std::string filler = "filler" + std::to_string(i);
        if (taken.insert(PlainFold(PlainStringHash(filler), 7)).second) {
            HashTable_Insert(table.get(), filler.c_str(), nullptr);
        }
    }
    HashTable_Insert(table.get(), key, nullptr);
    const std::vector<std::string> keys = StringKeys(table);
    return static_cast<size_t>(std::find(keys.begin(), keys.end(), key) - keys.begin());
}

TEST(HashTable, PutsTheLetterAIntoBucket56Of128)
{
    EXPECT_EQ(BucketOf128(HASH_STRING_KEY, "a"), 56u);
}

TEST(HashTable, PutsTheEmptyStringIntoTheFirstBucket)
{
    EXPECT_EQ(BucketOf128(HASH_STRING_KEY, ""), 0u);
    EXPECT_EQ(BucketOf128(HASH_ISTRING_KEY, ""), 0u);
}

TEST(HashTable, HashesCaselessKeysAlikeInBothCases)
{
    EXPECT_EQ(BucketOf128(HASH_ISTRING_KEY, "UTF-8"), BucketOf128(HASH_ISTRING_KEY, "utf-8"));
    EXPECT_NE(BucketOf128(HASH_STRING_KEY, "UTF-8"), BucketOf128(HASH_STRING_KEY, "utf-8"));
}

TEST(HashTable, TellsStringsOfOneHashApart)
{
    ASSERT_EQ(PlainStringHash("aA"), PlainStringHash("`a"));
    const ScopedTable table = MakeTable(128, HASH_STRING_KEY);
    HashTable_Insert(table.get(), "aA", Value(1));
    EXPECT_EQ(At(table, "`a"), ABSENT);
    HashTable_Insert(table.get(), "`a", Value(2));
    EXPECT_EQ(At(table, "aA"), 1u);
}

// ---- Case ----

TEST(HashTable, TellsStringsApartByTheirCase)
{
    const ScopedTable table = MakeTable(128, HASH_STRING_KEY);
    EXPECT_TRUE(HashTable_Insert(table.get(), "UTF-8", Value(1)));
    EXPECT_TRUE(HashTable_Insert(table.get(), "utf-8", Value(2)));
    EXPECT_EQ(At(table, "UTF-8"), 1u);
}

TEST(HashTable, MatchesCaselessKeysInAnyCase)
{
    const ScopedTable table = MakeTable(128, HASH_ISTRING_KEY);
    EXPECT_TRUE(HashTable_Insert(table.get(), "UTF-8", Value(1)));
    EXPECT_FALSE(HashTable_Insert(table.get(), "utf-8", Value(2)));
    EXPECT_EQ(At(table, "uTf-8"), 1u);
}

TEST(HashTable, LowersByTheLocale)
{
    sLowerUnderscore = 'q';
    EXPECT_EQ(BucketOf128(HASH_ISTRING_KEY, "a_b"), BucketOf128(HASH_STRING_KEY, "aqb"));
    sLowerUnderscore = '_';
    EXPECT_EQ(BucketOf128(HASH_ISTRING_KEY, "a_b"), BucketOf128(HASH_STRING_KEY, "a_b"));
}

TEST(HashTable, StopsHashingAtAByteLoweredToZero)
{
    sLowerUnderscore = 0;
    EXPECT_EQ(BucketOf128(HASH_ISTRING_KEY, "ab_cd"), BucketOf128(HASH_STRING_KEY, "ab"));
    sLowerUnderscore = '_';
}

TEST(HashTable, LowersBytesAsUnsigned)
{
    sLoweredASignedByte = false;
    EXPECT_EQ(BucketOf128(HASH_ISTRING_KEY, "\xC3\xFF\x80"),
              BucketOf128(HASH_STRING_KEY, "\xC3\xFF\x80"));
    EXPECT_FALSE(sLoweredASignedByte);
}

} // namespace
