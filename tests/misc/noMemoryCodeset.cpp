// Conversions without memory, with ICU and without it.
#include "noMemory.h"

#include "codeset.h"
#include "scarceNew.h"
#include "unicode.h"

#include <fstream>

#include <unicode/putil.h>

namespace {

using namespace std::string_literals;

enum class Way { Icu, Fallback };

void Use(Way way)
{
    const TemporaryFolder folder;
    if (way == Way::Icu) { std::ofstream(folder.Path() + "/icudt44l.dat") << "data"; }
    CodeSet_Init(folder.Path().c_str());
}

// The caches that ICU fills on first use are no leak.
class UsedIcu : public testing::Environment {
    void SetUp() override
    {
        Use(Way::Icu);
        EXPECT_TRUE(CodeSet_Validate("UTF-16LE")); // reads ICU's table of names
        char *composed = nullptr;
        EXPECT_TRUE(CodeSet_Utf8FormDToUtf8FormC("e", 1, &composed, nullptr));
        free(composed);
        u_setDataDirectory(nullptr);
        CodeSet_DontUseIcu();
    }
};
const testing::Environment *const USED_ICU = testing::AddGlobalTestEnvironment(new UsedIcu);

// Runs the deed with or without ICU, after the names of the encodings have been looked up.
template <typename Deed> bool On(Way way, Deed deed)
{
    Use(way);
    for (const char *name : {"UTF-8", "UTF-16LE", "UTF-16BE", "ASCII"}) {
        UnicodeIANALookup(name);
    }
    const bool succeeded = deed();
    Unicode_Shutdown();
    u_setDataDirectory(nullptr); // releases ICU's copy
    return succeeded;
}

const std::string LONG(5000, 'x'), LONG_BE = Times(5000, "\0x"s), LONG_LE = Times(5000, "x\0"s);

// For functions that return a block.
template <typename Convert> bool HandsOut(Way way, const std::string &expected, Convert convert)
{
    return On(way, [&] {
        char *out = nullptr;
        size_t size = 77;
        const bool succeeded = Scarcely([&] { return convert(&out, &size); });
        EXPECT_EQ(succeeded, out != nullptr);
        EXPECT_EQ(size, succeeded ? expected.size() : 77);
        if (succeeded) { EXPECT_EQ(std::string(out, size), expected); }
        free(out);
        return succeeded;
    });
}

// For functions that append to a buffer.
template <typename Convert> bool Appends(Way way, const std::string &expected, Convert convert)
{
    return On(way, [&] {
        DynBuf db;
        DynBuf_Init(&db);
        EXPECT_TRUE(DynBuf_Append(&db, "before", 6));
        const bool succeeded = Scarcely([&] { return convert(&db); });
        EXPECT_EQ(std::string(db.data, db.size), "before" + (succeeded ? expected : ""));
        DynBuf_Destroy(&db);
        return succeeded;
    });
}

// Tests a function that converts `in` and returns `expected`, with ICU and without it.
#define HANDS_OUT(function, in, expected)                                                          \
    RUNS_OUT(function, FAILS)                                                                      \
    {                                                                                              \
        return HandsOut(Way::Icu, expected, [](char **out, size_t *size) {                         \
            return function((in).data(), (in).size(), out, size);                                  \
        });                                                                                        \
    }                                                                                              \
    RUNS_OUT_WHEN(function, WithoutIcu, FAILS)                                                     \
    {                                                                                              \
        return HandsOut(Way::Fallback, expected, [](char **out, size_t *size) {                    \
            return function((in).data(), (in).size(), out, size);                                  \
        });                                                                                        \
    }

HANDS_OUT(CodeSet_Utf16leToUtf8, LONG_LE, LONG)
HANDS_OUT(CodeSet_Utf8ToUtf16le, LONG, LONG_LE)
HANDS_OUT(CodeSet_CurrentToUtf16le, LONG, LONG_LE)
HANDS_OUT(CodeSet_Utf16leToCurrent, LONG_LE, LONG)
HANDS_OUT(CodeSet_Utf16beToCurrent, LONG_BE, LONG)
HANDS_OUT(CodeSet_Utf8ToCurrent, LONG, LONG)
HANDS_OUT(CodeSet_CurrentToUtf8, LONG, LONG)
// The normal forms also need the host's strings, which are allocated with new.
#define NORMALIZES(function, in, expected)                                                         \
    RUNS_OUT(function, FAILS)                                                                      \
    {                                                                                              \
        return HandsOut(Way::Icu, expected, [](char **out, size_t *size) {                         \
            const ScarceNew andNew;                                                                \
            return function((in).c_str(), 0, out, size);                                           \
        });                                                                                        \
    }

const std::string COMPOSED = Times(100, "\u00e9"), DECOMPOSED = Times(100, "e\u0301");
NORMALIZES(CodeSet_Utf8FormDToUtf8FormC, DECOMPOSED, COMPOSED)
NORMALIZES(CodeSet_Utf8FormCToUtf8FormD, COMPOSED, DECOMPOSED)

RUNS_OUT(CodeSet_Utf16leToUtf8Db, FAILS)
{
    return Appends(Way::Icu, LONG, [](DynBuf *db) {
        return CodeSet_Utf16leToUtf8Db(LONG_LE.data(), LONG_LE.size(), db);
    });
}

RUNS_OUT_WHEN(CodeSet_Utf16leToUtf8Db, WithoutIcu, FAILS)
{
    return Appends(Way::Fallback, LONG, [](DynBuf *db) {
        return CodeSet_Utf16leToUtf8Db(LONG_LE.data(), LONG_LE.size(), db);
    });
}

RUNS_OUT(CodeSet_GenericToGeneric, FAILS)
{
    return HandsOut(Way::Icu, LONG_LE, [](char **out, size_t *size) {
        return CodeSet_GenericToGeneric("UTF-8", LONG.data(), LONG.size(), "UTF-16LE", 0, out,
                                        size);
    });
}

RUNS_OUT_WHEN(CodeSet_GenericToGeneric, WithoutIcu, FAILS)
{
    return HandsOut(Way::Fallback, LONG + "\xef\xbf\xbd", [](char **out, size_t *size) {
        return CodeSet_GenericToGeneric("ASCII", (LONG + "\xff").data(), LONG.size() + 1, "UTF-8",
                                        CODESET_INVALID_SUBSTITUTE, out, size);
    });
}

// The terminator is the first byte that does not fit into the block.
RUNS_OUT_WHEN(CodeSet_GenericToGeneric, ForTheTerminator, FAILS)
{
    static const std::string TEXT(DYNBUF_FIRST_ALLOCATION - 1, 'x');
    return HandsOut(Way::Fallback, TEXT, [](char **out, size_t *size) {
        return CodeSet_GenericToGeneric("ASCII", TEXT.data(), TEXT.size(), "UTF-8", 0, out, size);
    });
}

// The failure reports a lack of memory.
bool ConvertsOrTells(Way way, const char *codeIn, const std::string &in)
{
    return HandsOut(way, LONG, [&](char **out, size_t *size) {
        CodeSetFailure failure = {CODESET_REASON_ICU, 1};
        const bool succeeded = CodeSet_Convert(codeIn, in.data(), in.size(), "UTF-8",
                                               CODESET_INVALID_FAIL, out, size, &failure);
        EXPECT_EQ(failure.reason, succeeded ? CODESET_REASON_NONE : CODESET_REASON_NO_MEMORY);
        EXPECT_EQ(failure.offset, 0);
        return succeeded;
    });
}

RUNS_OUT(CodeSet_Convert, FAILS) { return ConvertsOrTells(Way::Icu, "UTF-16LE", LONG_LE); }
RUNS_OUT_WHEN(CodeSet_Convert, WithoutIcu, FAILS)
{
    return ConvertsOrTells(Way::Fallback, "UTF-16LE", LONG_LE);
}
RUNS_OUT_WHEN(CodeSet_Convert, WithoutIcuOfUtf16be, FAILS)
{
    return ConvertsOrTells(Way::Fallback, "UTF-16BE", LONG_BE);
}
RUNS_OUT_WHEN(CodeSet_Convert, WithoutIcuOfAscii, FAILS)
{
    return ConvertsOrTells(Way::Fallback, "ASCII", LONG);
}

RUNS_OUT(CodeSet_GenericToGenericDb, FAILS)
{
    return Appends(Way::Icu, LONG_LE, [](DynBuf *db) {
        return CodeSet_GenericToGenericDb("UTF-8", LONG.data(), LONG.size(), "UTF-16LE", 0, db);
    });
}

RUNS_OUT_WHEN(CodeSet_GenericToGenericDb, WithoutIcu, FAILS)
{
    return Appends(Way::Fallback, LONG, [](DynBuf *db) {
        return CodeSet_GenericToGenericDb("UTF-16BE", LONG_BE.data(), LONG_BE.size(), "UTF-8", 0,
                                          db);
    });
}

RUNS_OUT_WHEN(CodeSet_GenericToGenericDb, WithoutIcuInOneEncoding, FAILS)
{
    return Appends(Way::Fallback, LONG_BE, [](DynBuf *db) {
        return CodeSet_GenericToGenericDb("UTF-16BE", LONG_BE.data(), LONG_BE.size(), "UTF-16BE", 0,
                                          db);
    });
}

// The bytes appended before the refused block are removed, too.
RUNS_OUT_WHEN(CodeSet_GenericToGenericDb, WithoutIcuFromAscii, FAILS)
{
    static const std::string TEXT = "a\xff" + LONG;
    return Appends(Way::Fallback, "a\xef\xbf\xbd" + LONG, [](DynBuf *db) {
        return CodeSet_GenericToGenericDb("ASCII", TEXT.data(), TEXT.size(), "UTF-8",
                                          CODESET_INVALID_SUBSTITUTE, db);
    });
}

// ---- Validity

RUNS_OUT(CodeSet_Validate, FAILS)
{
    return On(Way::Icu, [] { return Scarcely([] { return CodeSet_Validate("UTF-8"); }); });
}

RUNS_OUT(CodeSet_CanConvert, FAILS)
{
    return On(Way::Icu,
              [] { return Scarcely([] { return CodeSet_CanConvert("UTF-16LE", "UTF-8"); }); });
}

NEEDS_NO_MEMORY_WHEN(CodeSet_CanConvert, WithoutIcuOfNamesThatAreKept)
{
    return On(Way::Fallback,
              [] { return Scarcely([] { return CodeSet_CanConvert("UTF-16LE", "UTF-8"); }); });
}

NEEDS_NO_MEMORY(CodeSet_IsIcuInUse)
{
    return On(Way::Icu, [] { return Scarcely([] { return CodeSet_IsIcuInUse(); }); });
}

NEEDS_NO_MEMORY_WHEN(CodeSet_Validate, WithoutIcuOfANameThatIsKept)
{
    return On(Way::Fallback, [] { return Scarcely([] { return CodeSet_Validate("UTF-8"); }); });
}

RUNS_OUT(CodeSet_IsValidBuffer, Panics("VERIFY lib/misc/codeset:1723\n"))
{
    return On(Way::Icu, [] {
        return Scarcely([] { return CodeSet_IsValidBuffer(LONG.data(), LONG.size(), "UTF-8"); });
    });
}

NEEDS_NO_MEMORY_WHEN(CodeSet_IsValidBuffer, WithoutIcu)
{
    return On(Way::Fallback, [] {
        return Scarcely([] { return CodeSet_IsValidBuffer(LONG.data(), LONG.size(), "UTF-8"); });
    });
}

NEEDS_NO_MEMORY_WHEN(CodeSet_IsValidBuffer, WithoutIcuInUtf16)
{
    return On(Way::Fallback, [] {
        return Scarcely(
            [] { return CodeSet_IsValidBuffer(LONG_BE.data(), LONG_BE.size(), "UTF-16BE"); });
    });
}

NEEDS_NO_MEMORY(CodeSet_IsValidUtf8)
{
    return Scarcely([] { return CodeSet_IsValidUtf8(LONG.data(), LONG.size()); });
}

NEEDS_NO_MEMORY(CodeSet_IsValidUtf8String)
{
    return Scarcely([] { return CodeSet_IsValidUtf8String(LONG.c_str()); });
}

NEEDS_NO_MEMORY(CodeSet_IsValidUtf8NoNul)
{
    return Scarcely([] { return CodeSet_IsValidUtf8NoNul(LONG.data(), LONG.size()); });
}

NEEDS_NO_MEMORY(CodeSet_GetCurrentCodeSet)
{
    return Scarcely([] { return CodeSet_GetCurrentCodeSet(); }) == "UTF-8"s;
}

} // namespace
