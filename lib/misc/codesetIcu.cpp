// codesetIcu.cpp -- conversion between any two encodings that ICU knows.
#include "codesetInt.h"

#include "codeset.h"
#include "diagnostics.h"
#include "util.h"

#include <cstdint>
#include <memory>

#include <unicode/ucnv.h>

namespace pelago {

namespace {

// The checks that end the process.
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

// Opening may warn, of a name that several converters share; only an error leaves none.
Converter CodeSetOpen(const char *codeName)
{
    UErrorCode status = U_ZERO_ERROR;
    return Converter(ucnv_open(codeName, &status));
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

bool CodeSetSetPolicy(UConverter *from, UConverter *to, unsigned policy)
{
    const Callbacks callbacks = CodeSetCallbacks(policy);
    UErrorCode status = U_ZERO_ERROR;
    ucnv_setToUCallBack(from, callbacks.toUnicode, nullptr, nullptr, nullptr, &status);
    ucnv_setFromUCallBack(to, callbacks.fromUnicode, nullptr, nullptr, nullptr, &status);
    return U_SUCCESS(status);
}

bool CodeSetDouble(DynBuf *db)
{
    size_t doubled = 0;
    return !__builtin_add_overflow(db->allocated, db->allocated, &doubled) &&
           DynBuf_Enlarge(db, doubled);
}

} // namespace

bool CodeSetIcuConvertDb(const char *codeIn, const char *bufIn, size_t sizeIn, const char *codeOut,
                         unsigned policy, DynBuf *db)
{
    if (bufIn == nullptr || sizeIn == 0) { return true; }
    const Converter from = CodeSetOpen(codeIn);
    if (!from) { return false; }
    const Converter to = CodeSetOpen(codeOut);
    if (!to) { return false; }
    if (!CodeSetSetPolicy(from.get(), to.get(), policy)) { return false; }

    size_t room = 0;
    if (__builtin_add_overflow(sizeIn, EXTRA_ROOM, &room) || !DynBufMakeRoom(db, room)) {
        return false;
    }
    UChar pivot[PIVOT_UNITS];
    UChar *pivotSource = pivot, *pivotTarget = pivot;
    const char *source = bufIn;
    size_t used = db->size;
    for (;;) {
        UErrorCode status = U_ZERO_ERROR;
        char *target = db->data + used;
        ucnv_convertEx(to.get(), from.get(), &target, db->data + db->allocated, &source,
                       bufIn + sizeIn, pivot, &pivotSource, &pivotTarget, pivot + PIVOT_UNITS,
                       /* reset */ false, /* flush */ true, &status);
        used = static_cast<size_t>(target - db->data);
        if (U_SUCCESS(status)) { break; } // with a warning, when the room was filled exactly
        if (status != U_BUFFER_OVERFLOW_ERROR || !CodeSetDouble(db)) { return false; }
    }
    db->size = used;
    return true;
}

bool CodeSetIcuKnows(const char *codeName) { return CodeSetOpen(codeName) != nullptr; }

bool CodeSetIcuIsValid(const char *buf, size_t size, const char *codeName)
{
    if (size > INT32_MAX) { Panic(UTIL_VERIFY_REPORT, CODESET_MODULE, SIZE_LINE); }
    if (size == 0) { return true; }
    const Converter converter = CodeSetOpen(codeName);
    if (!converter) { Panic(UTIL_VERIFY_REPORT, CODESET_MODULE, OPEN_LINE); }
    UErrorCode status = U_ZERO_ERROR;
    ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr,
                        &status);
    if (U_FAILURE(status)) { Panic(UTIL_VERIFY_REPORT, CODESET_MODULE, CALLBACK_LINE); }
    // Measures without writing: there is no room for the first character of what is valid.
    ucnv_toUChars(converter.get(), nullptr, 0, buf, static_cast<int32_t>(size), &status);
    return status == U_BUFFER_OVERFLOW_ERROR;
}

} // namespace pelago
