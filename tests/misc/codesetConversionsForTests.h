// codesetConversionsForTests.h -- conversions with and without ICU, with checks of their input and
// output, and the calls that fail on demand.
#ifndef PELAGO_TESTS_MISC_CODESETCONVERSIONSFORTESTS_H
#define PELAGO_TESTS_MISC_CODESETCONVERSIONSFORTESTS_H

#include "codeset.h"

#include "dynbuf.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <unicode/ucnv.h>

using namespace std::string_literals;

inline UErrorCode sToUnicodeFault, sFromUnicodeFault, sConvertFault; // U_ZERO_ERROR: none
inline bool sCopyFault, sCStringFault;
inline std::atomic<int> sConvertCalls, sWarnings;
inline std::atomic<ptrdiff_t> sPivotUnits;

// ---- With and without ICU, switched as programs switch it

class IcuFolder {
public:
    IcuFolder() { std::ofstream(mFolder.Path() + "/icudt44l.dat") << "data"; }
    void Use() const { ASSERT_TRUE(CodeSet_Init(mFolder.Path().c_str())); }

private:
    const TemporaryFolder mFolder;
};

inline void UseIcu() { IcuFolder().Use(); }

enum class Way { Icu, Fallback };

inline void Use(Way way)
{
    if (way == Way::Icu) {
        UseIcu();
    } else {
        CodeSet_DontUseIcu();
    }
}

inline std::string NameOf(Way way) { return way == Way::Icu ? "Icu" : "Fallback"; }

class BothWays : public testing::TestWithParam<Way> {
protected:
    void SetUp() override { Use(GetParam()); }
};

class WithIcu : public testing::Test {
protected:
    void SetUp() override
    {
        UseIcu();
        sConvertCalls = 0;
    }
    void TearDown() override { sToUnicodeFault = sFromUnicodeFault = sConvertFault = U_ZERO_ERROR; }
};
using WithIcuDeathTest = WithIcu;

class WithoutIcu : public testing::Test {
protected:
    void SetUp() override { CodeSet_DontUseIcu(); }
};

// ---- Texts

inline std::string Times(size_t count, const std::string &text)
{
    std::string all;
    for (size_t i = 0; i < count; i++) {
        all += text;
    }
    return all;
}

inline const std::string TEXT_8 = "A\u00e9\u4e2d\U0001F600\0z"s;
inline const std::u16string TEXT_16 = u"A\u00e9\u4e2d\U0001F600\0z"s;

// ---- One conversion, with its checks

using Result = std::optional<std::string>; // nullopt: it failed
inline const Result FAILED = std::nullopt;

using Operation =
    std::function<bool(const char *bufIn, size_t sizeIn, char **out, size_t *sizeOut)>;

// The input at an odd address, in a block that ends with the input, so that a sanitizer detects a
// read after its end.
class OddlyPlaced {
public:
    explicit OddlyPlaced(const std::string &bytes) : mBlock(bytes.size() + 1)
    {
        memcpy(Data(), bytes.data(), bytes.size());
    }
    char *Data() { return mBlock.data() + 1; }

private:
    std::vector<char> mBlock;
};

// Returns the output of the operation, after a check of the zero bytes that follow it.
inline Result Out(const Operation &operation, const std::string &in, size_t zeros = 4)
{
    OddlyPlaced input(in);
    char untouched = 0;
    char *out = &untouched;
    size_t size = 77;
    if (!operation(input.Data(), in.size(), &out, &size)) {
        EXPECT_EQ(out, &untouched) << "nothing is handed out";
        EXPECT_EQ(size, 77);
        return FAILED;
    }
    EXPECT_EQ(std::string(out + size, zeros), std::string(zeros, '\0'));
    const std::string bytes(out, size);
    free(out);
    EXPECT_TRUE(operation(input.Data(), in.size(), &out, nullptr)) << "the size is not wanted";
    EXPECT_EQ(std::string(out, size + zeros), bytes + std::string(zeros, '\0'));
    free(out);
    return bytes;
}

using DbOperation = std::function<bool(const char *bufIn, size_t sizeIn, DynBuf *db)>;

// Returns what the operation appends to a buffer that already holds that many bytes.
inline Result Appended(const DbOperation &operation, const std::string &in, size_t there = 5)
{
    OddlyPlaced input(in);
    const std::string before(there, 'b');
    DynBuf db;
    DynBuf_Init(&db);
    EXPECT_TRUE(DynBuf_Append(&db, before.data(), before.size()));
    const bool succeeded = operation(input.Data(), in.size(), &db);
    EXPECT_LE(db.size, db.allocated);
    const std::string all(db.data, db.size);
    DynBuf_Destroy(&db);
    EXPECT_EQ(all.substr(0, there), before);
    if (succeeded) { return all.substr(there); }
    EXPECT_EQ(all.size(), there) << "a failure leaves the size as it was";
    return FAILED;
}

inline Operation Generic(const char *codeIn, const char *codeOut, unsigned policy)
{
    return [=](const char *bufIn, size_t sizeIn, char **out, size_t *size) {
        return CodeSet_GenericToGeneric(codeIn, bufIn, sizeIn, codeOut, policy, out, size);
    };
}

inline DbOperation GenericDb(const char *codeIn, const char *codeOut, unsigned policy)
{
    return [=](const char *bufIn, size_t sizeIn, DynBuf *db) {
        return CodeSet_GenericToGenericDb(codeIn, bufIn, sizeIn, codeOut, policy, db);
    };
}

// Converts with both forms of the generic conversion, whose results must agree.
inline Result Convert(const char *codeIn, const std::string &in, const char *codeOut,
                      unsigned policy = 0)
{
    const Result appended = Appended(GenericDb(codeIn, codeOut, policy), in);
    EXPECT_EQ(Out(Generic(codeIn, codeOut, policy), in), appended);
    return appended;
}

// Returns whether the bytes are valid in the encoding.  They are in a block that ends with them.
inline bool IsValid(const char *codeName, const std::string &bytes)
{
    return CodeSet_IsValidBuffer(OddlyPlaced(bytes).Data(), bytes.size(), codeName);
}

inline const std::vector<std::string> INVALID_8 = {
    "\x80",         "a\xff",    "\xc0\x80",         "\xe4\xb8",         "\xe0\x80\x80",
    "\xed\xa0\x80", "\xf0\x9f", "\xf0\x80\x80\x80", "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80"};
inline const std::vector<std::u16string> INVALID_16 = {u"\xd800"
                                                       u"A",
                                                       u"A\xd800", u"\xdc00", u"\xdc00\xd800",
                                                       u"\xd800\xd800\xdc00"};

inline std::vector<std::string> Invalid16(std::string (*inOrder)(std::u16string_view))
{
    std::vector<std::string> all;
    for (const std::u16string &text : INVALID_16) {
        all.push_back(inOrder(text));
    }
    all.push_back("A");                          // half a unit
    all.push_back(inOrder(u"A") + "B");          // and after a whole one
    all.push_back(inOrder(u"A\xd83d") + "\xde"); // and in a pair
    return all;
}

struct GenericCase {
    const char *name;
    const char *codeIn;
    std::string in;
    const char *codeOut;
    Result byPolicy[3];
};

inline void ExpectByPolicy(const GenericCase &row)
{
    for (unsigned policy = 0; policy < 3; policy++) {
        EXPECT_EQ(Convert(row.codeIn, row.in, row.codeOut, policy), row.byPolicy[policy])
            << row.name << ", policy " << policy;
    }
}

inline const std::string REPLACED = "\xef\xbf\xbd";

#endif // PELAGO_TESTS_MISC_CODESETCONVERSIONSFORTESTS_H
