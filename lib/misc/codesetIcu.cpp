// codesetIcu.cpp -- conversion between any two encodings that ICU knows.
#include "codesetInt.h"

#include "codeset.h"
#include "diagnostics.h"
#include "util.h"

#include <algorithm>
#include <cstdint>
#include <memory>

#include <unicode/ucnv.h>
#include <unicode/utf16.h>

namespace pelago {

namespace {

// The numbers of the checks that end the process.
constexpr int POLICY_LINE = 988;
constexpr int SIZE_LINE = 1700;
constexpr int OPEN_LINE = 1723;
constexpr int CALLBACK_LINE = 1725;

constexpr size_t PIVOT_UNITS = 1024;
constexpr size_t EXTRA_ROOM = 4;

struct CloseConverter {
    void operator()(UConverter *converter) const noexcept { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, CloseConverter>;

CodeSetReason CodeSetReasonOf(UErrorCode status)
{
    switch (status) {
    case U_MEMORY_ALLOCATION_ERROR: return CODESET_REASON_NO_MEMORY;
    case U_INVALID_CHAR_FOUND:
    case U_TRUNCATED_CHAR_FOUND:
    case U_ILLEGAL_CHAR_FOUND:
    case U_ILLEGAL_ESCAPE_SEQUENCE:
    case U_UNSUPPORTED_ESCAPE_SEQUENCE: return CODESET_REASON_INVALID;
    default: return CODESET_REASON_ICU;
    }
}

// Opens a converter.  With some names ICU opens one and stores a warning (several converters share
// the name); after an error there is no converter.
CodeSetReason CodeSetOpen(const char *codeName, Converter *converter)
{
    UErrorCode status = U_ZERO_ERROR;
    converter->reset(ucnv_open(codeName, &status));
    if (*converter) { return CODESET_REASON_NONE; }
    return status == U_MEMORY_ALLOCATION_ERROR ? CODESET_REASON_NO_MEMORY : CODESET_REASON_UNKNOWN;
}

struct Converters {
    Converter from, to;
};

CodeSetReason CodeSetOpenBoth(const char *codeIn, const char *codeOut, Converters *converters)
{
    const CodeSetReason reason = CodeSetOpen(codeIn, &converters->from);
    return reason == CODESET_REASON_NONE ? CodeSetOpen(codeOut, &converters->to) : reason;
}

struct Callbacks {
    UConverterToUCallback toUnicode;
    UConverterFromUCallback fromUnicode;
};

Callbacks CodeSetCallbacks(unsigned policy)
{
    switch (policy) {
    case CODESET_INVALID_FAIL: return {UCNV_TO_U_CALLBACK_STOP, UCNV_FROM_U_CALLBACK_STOP};
    case CODESET_INVALID_SUBSTITUTE:
        return {UCNV_TO_U_CALLBACK_SUBSTITUTE, UCNV_FROM_U_CALLBACK_SUBSTITUTE};
    case CODESET_INVALID_SKIP: return {UCNV_TO_U_CALLBACK_SKIP, UCNV_FROM_U_CALLBACK_SKIP};
    default: Panic(UTIL_NOT_IMPLEMENTED_REPORT, CODESET_MODULE, POLICY_LINE);
    }
}

UErrorCode CodeSetSetPolicy(const Converters &converters, unsigned policy)
{
    const Callbacks callbacks = CodeSetCallbacks(policy);
    UErrorCode status = U_ZERO_ERROR;
    ucnv_setToUCallBack(converters.from.get(), callbacks.toUnicode, nullptr, nullptr, nullptr,
                        &status);
    ucnv_setFromUCallBack(converters.to.get(), callbacks.fromUnicode, nullptr, nullptr, nullptr,
                          &status);
    return status;
}

bool CodeSetDouble(DynBuf *db)
{
    size_t doubled = 0;
    return !__builtin_add_overflow(db->allocated, db->allocated, &doubled) &&
           DynBuf_Enlarge(db, doubled);
}

// Returns the end of what one call of ICU can take: its sizes have 32 bits.
template <typename Char> Char *CodeSetLimit(Char *from, Char *end)
{
    return from + std::min<size_t>(static_cast<size_t>(end - from), INT32_MAX);
}

// Converts into db's free space, and enlarges db as needed.  *used is the number of bytes in use,
// before and after; db->size is left to the caller.
CodeSetReason CodeSetRun(const Converters &converters, const char *source, size_t size, DynBuf *db,
                         size_t *used)
{
    UChar pivot[PIVOT_UNITS];
    UChar *pivotSource = pivot, *pivotTarget = pivot;
    const char *end = source + size;
    for (;;) {
        UErrorCode status = U_ZERO_ERROR;
        const char *sourceLimit = CodeSetLimit(source, end);
        char *target = db->data + *used, *room = db->data + db->allocated;
        const char *targetLimit = CodeSetLimit(target, room);
        ucnv_convertEx(converters.to.get(), converters.from.get(), &target, targetLimit, &source,
                       sourceLimit, pivot, &pivotSource, &pivotTarget, pivot + PIVOT_UNITS,
                       /* reset */ false, /* flush */ sourceLimit == end ? 1 : 0, &status);
        *used = static_cast<size_t>(target - db->data);
        // U_SUCCESS() includes the warning that the result filled the room exactly.
        if (U_SUCCESS(status) && sourceLimit == end) { return CODESET_REASON_NONE; }
        if (U_SUCCESS(status)) { continue; }
        if (status != U_BUFFER_OVERFLOW_ERROR) { return CodeSetReasonOf(status); }
        if (targetLimit == room && !CodeSetDouble(db)) { return CODESET_REASON_NO_MEMORY; }
    }
}

// Returns whether the encoding has the character: converts it into a buffer that nobody reads.
bool CodeSetHas(UConverter *to, UChar32 character)
{
    UChar units[U16_MAX_LENGTH];
    int32_t count = 0;
    U16_APPEND_UNSAFE(units, count, character);
    const UChar *unit = units;
    char bytes[UCNV_GET_MAX_BYTES_FOR_STRING(U16_MAX_LENGTH, 16)], *target = bytes;
    UErrorCode status = U_ZERO_ERROR;
    // Half of a surrogate pair would wait for the other half, which does not come.
    ucnv_fromUnicode(to, &target, bytes + sizeof bytes, &unit, units + count, nullptr,
                     /* flush */ U_IS_SURROGATE(character), &status);
    return U_SUCCESS(status);
}

// Returns the start of the sequence on which the converter stopped after it had read the bytes from
// `before` to `at`.  Bytes that switch to another set of characters may precede the sequence.  Some
// converters do not keep the sequence; then this is `before`.
const char *CodeSetInvalidAt(const UConverter *from, const char *before, const char *at)
{
    char bytes[INT8_MAX];
    int8_t size = sizeof bytes;
    UErrorCode status = U_ZERO_ERROR;
    ucnv_getInvalidChars(from, bytes, &size, &status);
    return U_SUCCESS(status) && size > 0 && size <= at - before ? at - size : before;
}

} // namespace

CodeSetReason CodeSetIcuConvertDb(const char *codeIn, const char *bufIn, size_t sizeIn,
                                  const char *codeOut, unsigned policy, DynBuf *db)
{
    if (bufIn == nullptr || sizeIn == 0) { return CODESET_REASON_NONE; }
    Converters converters;
    const CodeSetReason opened = CodeSetOpenBoth(codeIn, codeOut, &converters);
    if (opened != CODESET_REASON_NONE) { return opened; }
    const UErrorCode status = CodeSetSetPolicy(converters, policy);
    if (U_FAILURE(status)) { return CodeSetReasonOf(status); }

    size_t room = 0, end = 0;
    if (__builtin_add_overflow(sizeIn, EXTRA_ROOM, &room) ||
        __builtin_add_overflow(db->size, room, &end)) {
        return CODESET_REASON_TOO_LONG;
    }
    if (!DynBufMakeRoom(db, room)) { return CODESET_REASON_NO_MEMORY; }
    size_t used = db->size;
    const CodeSetReason reason = CodeSetRun(converters, bufIn, sizeIn, db, &used);
    if (reason == CODESET_REASON_NONE) { db->size = used; }
    return reason;
}

CodeSetFailure CodeSetIcuLocate(const char *codeIn, const char *bufIn, size_t sizeIn,
                                const char *codeOut)
{
    Converters converters;
    const CodeSetReason opened = CodeSetOpenBoth(codeIn, codeOut, &converters);
    if (opened != CODESET_REASON_NONE) { return {opened, 0}; }
    CodeSetSetPolicy(converters, CODESET_INVALID_FAIL);

    const char *at = bufIn, *character = bufIn, *end = bufIn + sizeIn;
    for (;;) {
        const char *before = at;
        UErrorCode status = U_ZERO_ERROR;
        const UChar32 value =
            ucnv_getNextUChar(converters.from.get(), &at, CodeSetLimit(at, end), &status);
        if (at != before) { character = before; } // else it is from the same bytes as the last one
        if (status == U_INDEX_OUTOFBOUNDS_ERROR && at == end) { return {CODESET_REASON_ICU, 0}; }
        if (status == U_INDEX_OUTOFBOUNDS_ERROR) { continue; }
        if (U_FAILURE(status)) {
            return {
                CodeSetReasonOf(status),
                static_cast<size_t>(CodeSetInvalidAt(converters.from.get(), before, at) - bufIn)};
        }
        if (!CodeSetHas(converters.to.get(), value)) {
            return {CODESET_REASON_LACKING, static_cast<size_t>(character - bufIn)};
        }
    }
}

bool CodeSetIcuConverts(const char *codeIn, const char *codeOut)
{
    Converters converters;
    return CodeSetOpenBoth(codeIn, codeOut, &converters) == CODESET_REASON_NONE;
}

bool CodeSetIcuKnows(const char *codeName)
{
    Converter converter;
    return CodeSetOpen(codeName, &converter) == CODESET_REASON_NONE;
}

bool CodeSetIcuIsValid(const char *buf, size_t size, const char *codeName)
{
    if (size > INT32_MAX) { Panic(UTIL_VERIFY_REPORT, CODESET_MODULE, SIZE_LINE); }
    if (size == 0) { return true; }
    Converter converter;
    if (CodeSetOpen(codeName, &converter) != CODESET_REASON_NONE) {
        Panic(UTIL_VERIFY_REPORT, CODESET_MODULE, OPEN_LINE);
    }
    UErrorCode status = U_ZERO_ERROR;
    ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr,
                        &status);
    if (U_FAILURE(status)) { Panic(UTIL_VERIFY_REPORT, CODESET_MODULE, CALLBACK_LINE); }
    // Measures without writing: any valid text overflows a buffer of size 0.
    ucnv_toUChars(converter.get(), nullptr, 0, buf, static_cast<int32_t>(size), &status);
    return status == U_BUFFER_OVERFLOW_ERROR;
}

} // namespace pelago
