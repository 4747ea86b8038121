// codesetConversions.cpp -- the family of conversions: through ICU, or without it.
#include "codeset.h"

#include "codesetInt.h"
#include "codesetUtf.h"
#include "scopedCf.h"
#include "unicode.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace pelago;

namespace {

constexpr char UTF8[] = "UTF-8", UTF16LE[] = "UTF-16LE", UTF16BE[] = "UTF-16BE";

// What every buffer that is handed out ends with: a terminator in any of the Unicode forms.
constexpr char TERMINATOR[4] = {};

// A buffer that is handed out when all that goes into it was done, and freed otherwise.
class CodeSetOutput {
public:
    CodeSetOutput() { DynBuf_Init(&mDb); }
    ~CodeSetOutput() { DynBuf_Destroy(&mDb); }
    CodeSetOutput(const CodeSetOutput &) = delete;
    CodeSetOutput &operator=(const CodeSetOutput &) = delete;

    DynBuf *Db() { return &mDb; }

    bool HandOut(char **bufOut, size_t *sizeOut)
    {
        if (!DynBuf_Append(&mDb, TERMINATOR, sizeof TERMINATOR)) { return false; }
        // What was measured before it was converted has its size already.
        const bool isTight = mDb.allocated - mDb.size <= CODESET_UTF_SLACK;
        if (!isTight && !DynBuf_Trim(&mDb)) { return false; }
        if (sizeOut != nullptr) { *sizeOut = mDb.size - sizeof TERMINATOR; }
        *bufOut = static_cast<char *>(DynBuf_Detach(&mDb));
        return true;
    }

private:
    DynBuf mDb;
};

using CodeSetDecoder = bool (*)(const char *buf, size_t size, DynBuf *db);

// Between two encodings, of which decoder knows without ICU; appended to db.
bool CodeSetConvertDb(const char *codeIn, const char *bufIn, size_t sizeIn, const char *codeOut,
                      CodeSetDecoder decoder, DynBuf *db)
{
    if (CodeSetUsesIcu()) {
        return CodeSetIcuConvertDb(codeIn, bufIn, sizeIn, codeOut, CODESET_INVALID_FAIL, db);
    }
    return bufIn == nullptr || sizeIn == 0 || decoder(bufIn, sizeIn, db);
}

// The same into a new buffer.
bool CodeSetConvert(const char *codeIn, const char *bufIn, size_t sizeIn, const char *codeOut,
                    CodeSetDecoder decoder, char **bufOut, size_t *sizeOut)
{
    CodeSetOutput output;
    return CodeSetConvertDb(codeIn, bufIn, sizeIn, codeOut, decoder, output.Db()) &&
           output.HandOut(bufOut, sizeOut);
}

// UTF-8 is what the current code set is.
bool CodeSetCopy(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
    if (sizeIn == SIZE_MAX) { return false; }
    char *copy = static_cast<char *>(malloc(sizeIn + 1));
    if (copy == nullptr) { return false; }
    if (sizeIn != 0) { memcpy(copy, bufIn, sizeIn); }
    copy[sizeIn] = '\0';
    *bufOut = copy;
    if (sizeOut != nullptr) { *sizeOut = sizeIn; }
    return true;
}

bool CodeSetNormalize(const char *string, CFStringNormalizationForm form, char **bufOut,
                      size_t *sizeOut)
{
    const ScopedCf<CFStringRef> text(
        CFStringCreateWithCString(kCFAllocatorDefault, string, kCFStringEncodingUTF8));
    if (!text) { return false; }
    const ScopedCf<CFMutableStringRef> normal(
        CFStringCreateMutableCopy(kCFAllocatorDefault, 0, text.get()));
    if (!normal) { return false; }
    CFStringNormalize(normal.get(), form);

    const CFIndex room =
        CFStringGetMaximumSizeForEncoding(CFStringGetLength(normal.get()), kCFStringEncodingUTF8) +
        1;
    CodeSetOutput output;
    if (!DynBuf_Enlarge(output.Db(), static_cast<size_t>(room)) ||
        !CFStringGetCString(normal.get(), output.Db()->data, room, kCFStringEncodingUTF8)) {
        return false;
    }
    output.Db()->size = strlen(output.Db()->data);
    return output.HandOut(bufOut, sizeOut);
}

} // namespace

extern "C" {

bool CodeSet_GenericToGenericDb(const char *codeIn, const char *bufIn, size_t sizeIn,
                                const char *codeOut, unsigned policy, DynBuf *db)
{
    const auto convert = CodeSetUsesIcu() ? CodeSetIcuConvertDb : CodeSetFallbackConvertDb;
    return convert(codeIn, bufIn, sizeIn, codeOut, policy, db);
}

bool CodeSet_GenericToGeneric(const char *codeIn, const char *bufIn, size_t sizeIn,
                              const char *codeOut, unsigned policy, char **bufOut, size_t *sizeOut)
{
    CodeSetOutput output;
    return CodeSet_GenericToGenericDb(codeIn, bufIn, sizeIn, codeOut, policy, output.Db()) &&
           output.HandOut(bufOut, sizeOut);
}

bool CodeSet_Utf16leToUtf8Db(const char *bufIn, size_t sizeIn, DynBuf *db)
{
    return CodeSetConvertDb(UTF16LE, bufIn, sizeIn, UTF8, CodeSetUtf16ToUtf8Db, db);
}

bool CodeSet_Utf16leToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
    return CodeSetConvert(UTF16LE, bufIn, sizeIn, UTF8, CodeSetUtf16ToUtf8Db, bufOut, sizeOut);
}

bool CodeSet_Utf8ToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
    return CodeSetConvert(UTF8, bufIn, sizeIn, UTF16LE, CodeSetUtf8ToUtf16Db, bufOut, sizeOut);
}

bool CodeSet_CurrentToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
    return CodeSetConvert(CodeSet_GetCurrentCodeSet(), bufIn, sizeIn, UTF16LE, CodeSetUtf8ToUtf16Db,
                          bufOut, sizeOut);
}

bool CodeSet_Utf16leToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
    return CodeSetConvert(UTF16LE, bufIn, sizeIn, CodeSet_GetCurrentCodeSet(), CodeSetUtf16ToUtf8Db,
                          bufOut, sizeOut);
}

bool CodeSet_Utf16beToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
    return CodeSetConvert(UTF16BE, bufIn, sizeIn, CodeSet_GetCurrentCodeSet(),
                          CodeSetUtf16beToUtf8Db, bufOut, sizeOut);
}

bool CodeSet_Utf8ToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
    return CodeSetCopy(bufIn, sizeIn, bufOut, sizeOut);
}

bool CodeSet_CurrentToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
    return CodeSetCopy(bufIn, sizeIn, bufOut, sizeOut);
}

bool CodeSet_Utf8FormDToUtf8FormC(const char *string, size_t, char **bufOut, size_t *sizeOut)
{
    return CodeSetNormalize(string, kCFStringNormalizationFormC, bufOut, sizeOut);
}

bool CodeSet_Utf8FormCToUtf8FormD(const char *string, size_t, char **bufOut, size_t *sizeOut)
{
    return CodeSetNormalize(string, kCFStringNormalizationFormD, bufOut, sizeOut);
}

bool CodeSet_Validate(const char *codeName)
{
    return CodeSetUsesIcu() ? CodeSetIcuKnows(codeName)
                            : UnicodeIANALookup(codeName) != STRING_ENCODING_UNKNOWN;
}

bool CodeSet_IsValidBuffer(const char *buf, size_t size, const char *codeName)
{
    return CodeSetUsesIcu() ? CodeSetIcuIsValid(buf, size, codeName)
                            : CodeSetFallbackIsValid(buf, size, UnicodeIANALookup(codeName));
}

bool CodeSet_IsValidUtf8(const char *buf, size_t size) { return CodeSetUtf8IsValid(buf, size); }

bool CodeSet_IsValidUtf8String(const char *string)
{
    return CodeSetUtf8IsValid(string, strlen(string));
}

bool CodeSet_IsValidUtf8NoNul(const char *buf, size_t size)
{
    return (size == 0 || memchr(buf, '\0', size) == nullptr) && CodeSetUtf8IsValid(buf, size);
}

} // extern "C"
