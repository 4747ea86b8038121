// codesetConversions.cpp -- the public conversions, each through ICU or without it.
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

// Added to every converted text: it terminates text in any of the Unicode forms.
constexpr char TERMINATOR[4] = {};

// A buffer for a result.  It is freed unless HandOut() gives it to the caller.
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
        // A text that was measured before its conversion got a block of the right size.
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

// Converts through ICU or, without it, by the decoder for these two encodings; appends to db.
bool CodeSetDecodeDb(const char *codeIn, const char *bufIn, size_t sizeIn, const char *codeOut,
                     CodeSetDecoder decoder, DynBuf *db)
{
    if (CodeSet_IsIcuInUse()) {
        return CodeSetIcuConvertDb(codeIn, bufIn, sizeIn, codeOut, CODESET_INVALID_FAIL, db) ==
               CODESET_REASON_NONE;
    }
    return bufIn == nullptr || sizeIn == 0 || decoder(bufIn, sizeIn, db);
}

// Does the same into a new buffer.
bool CodeSetDecode(const char *codeIn, const char *bufIn, size_t sizeIn, const char *codeOut,
                   CodeSetDecoder decoder, char **bufOut, size_t *sizeOut)
{
    CodeSetOutput output;
    return CodeSetDecodeDb(codeIn, bufIn, sizeIn, codeOut, decoder, output.Db()) &&
           output.HandOut(bufOut, sizeOut);
}

// Copies text between UTF-8 and the current code set, which is UTF-8.
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

// The next two append the converted text to db, and return the reason for a failure and its place.

CodeSetFailure CodeSetConvertByIcu(const char *codeIn, const char *bufIn, size_t sizeIn,
                                   const char *codeOut, unsigned policy, DynBuf *db)
{
    const CodeSetReason reason = CodeSetIcuConvertDb(codeIn, bufIn, sizeIn, codeOut, policy, db);
    return reason == CODESET_REASON_INVALID ? CodeSetIcuLocate(codeIn, bufIn, sizeIn, codeOut)
                                            : CodeSetFailure{reason, 0};
}

CodeSetFailure CodeSetConvertWithoutIcu(const char *codeIn, const char *bufIn, size_t sizeIn,
                                        const char *codeOut, unsigned policy, DynBuf *db)
{
    if (bufIn == nullptr || sizeIn == 0) { return {CODESET_REASON_NONE, 0}; }
    const StringEncoding encodingIn = Unicode_FindEncoding(codeIn),
                         encodingOut = Unicode_FindEncoding(codeOut),
                         current = Unicode_GetCurrentEncoding();
    if (CodeSetFallbackConvert(encodingIn, bufIn, sizeIn, encodingOut, current, policy, db)) {
        return {CODESET_REASON_NONE, 0};
    }
    return CodeSetFallbackFailure(encodingIn, bufIn, sizeIn, encodingOut, current, policy);
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
    if (CodeSet_IsIcuInUse()) {
        return CodeSetIcuConvertDb(codeIn, bufIn, sizeIn, codeOut, policy, db) ==
               CODESET_REASON_NONE;
    }
    const StringEncoding encodingIn = UnicodeIANALookup(codeIn),
                         encodingOut =
                             strcmp(codeIn, codeOut) == 0 ? encodingIn : UnicodeIANALookup(codeOut);
    return CodeSetFallbackConvert(encodingIn, bufIn, sizeIn, encodingOut,
                                  Unicode_GetCurrentEncoding(), policy, db);
}

bool CodeSet_GenericToGeneric(const char *codeIn, const char *bufIn, size_t sizeIn,
                              const char *codeOut, unsigned policy, char **bufOut, size_t *sizeOut)
{
    CodeSetOutput output;
    return CodeSet_GenericToGenericDb(codeIn, bufIn, sizeIn, codeOut, policy, output.Db()) &&
           output.HandOut(bufOut, sizeOut);
}

bool CodeSet_Convert(const char *codeIn, const char *bufIn, size_t sizeIn, const char *codeOut,
                     unsigned policy, char **bufOut, size_t *sizeOut, CodeSetFailure *failure)
{
    CodeSetOutput output;
    const auto convert = CodeSet_IsIcuInUse() ? CodeSetConvertByIcu : CodeSetConvertWithoutIcu;
    CodeSetFailure found = convert(codeIn, bufIn, sizeIn, codeOut, policy, output.Db());
    if (found.reason == CODESET_REASON_NONE && !output.HandOut(bufOut, sizeOut)) {
        found.reason = CODESET_REASON_NO_MEMORY;
    }
    if (failure != nullptr) { *failure = found; }
    return found.reason == CODESET_REASON_NONE;
}

bool CodeSet_CanConvert(const char *codeIn, const char *codeOut)
{
    if (CodeSet_IsIcuInUse()) { return CodeSetIcuConverts(codeIn, codeOut); }
    return CodeSetFallbackConverts(Unicode_FindEncoding(codeIn), Unicode_FindEncoding(codeOut),
                                   Unicode_GetCurrentEncoding());
}

bool CodeSet_Utf16leToUtf8Db(const char *bufIn, size_t sizeIn, DynBuf *db)
{
    return CodeSetDecodeDb(UTF16LE, bufIn, sizeIn, UTF8, CodeSetUtf16ToUtf8Db, db);
}

bool CodeSet_Utf16leToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
    return CodeSetDecode(UTF16LE, bufIn, sizeIn, UTF8, CodeSetUtf16ToUtf8Db, bufOut, sizeOut);
}

bool CodeSet_Utf8ToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
    return CodeSetDecode(UTF8, bufIn, sizeIn, UTF16LE, CodeSetUtf8ToUtf16Db, bufOut, sizeOut);
}

bool CodeSet_CurrentToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
    return CodeSetDecode(CodeSet_GetCurrentCodeSet(), bufIn, sizeIn, UTF16LE, CodeSetUtf8ToUtf16Db,
                         bufOut, sizeOut);
}

bool CodeSet_Utf16leToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
    return CodeSetDecode(UTF16LE, bufIn, sizeIn, CodeSet_GetCurrentCodeSet(), CodeSetUtf16ToUtf8Db,
                         bufOut, sizeOut);
}

bool CodeSet_Utf16beToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut)
{
    return CodeSetDecode(UTF16BE, bufIn, sizeIn, CodeSet_GetCurrentCodeSet(),
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
    return CodeSet_IsIcuInUse() ? CodeSetIcuKnows(codeName)
                                : Unicode_FindEncoding(codeName) != STRING_ENCODING_UNKNOWN;
}

bool CodeSet_IsValidBuffer(const char *buf, size_t size, const char *codeName)
{
    return CodeSet_IsIcuInUse() ? CodeSetIcuIsValid(buf, size, codeName)
                                : CodeSetFallbackIsValid(buf, size, Unicode_FindEncoding(codeName));
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
