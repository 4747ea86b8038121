// Converts any bytes between any two of the library's encodings.  With ICU the result must be that
// of ICU's own two steps over the whole text; without, that of the converters of lib/string.
//
// The first three bytes of the input choose the encodings and the policy; the rest is the text.
#include "codeset.h"
#include "unicode.h"
#include "utf.h"

#include "../tests/unicode/encodingList.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

#include <unicode/ucnv.h>

using namespace pelago;

namespace {

using Result = std::optional<std::string>; // nullopt after a failure

void Require(bool isSo)
{
    if (!isSo) { abort(); }
}

struct Encoding {
    StringEncoding value;
    const char *name;
};

const std::vector<Encoding> &Supported()
{
    static const std::vector<Encoding> encodings = [] {
        std::vector<Encoding> all;
#define ADD(value, constant, name, isSupported, ...)                                               \
    if (isSupported) { all.push_back({UnicodeIANALookup(name), name}); } // some share a name
        ENCODINGS(ADD)
#undef ADD
        return all;
    }();
    return encodings;
}

bool IsUnicodeForm(StringEncoding encoding)
{
    return encoding == STRING_ENCODING_UTF_8 || encoding == STRING_ENCODING_UTF_16LE ||
           encoding == STRING_ENCODING_UTF_16BE || encoding == STRING_ENCODING_UTF_32LE ||
           encoding == STRING_ENCODING_UTF_32BE;
}

// ---- Ours

struct IcuFolder {
    std::string path = std::filesystem::temp_directory_path() / "codesetFuzzXXXXXX";
    IcuFolder()
    {
        Require(mkdtemp(path.data()) != nullptr);
        std::ofstream(path + "/icudt44l.dat") << "data";
    }
    ~IcuFolder() { std::filesystem::remove_all(path); }
};

template <typename Operation> Result Taken(Operation operation)
{
    char *out = nullptr;
    size_t size = 0;
    if (!operation(&out, &size)) {
        Require(out == nullptr && size == 0);
        return std::nullopt;
    }
    Require(memcmp(out + size, "\0\0\0\0", 4) == 0);
    const std::string bytes(out, size);
    free(out);
    return bytes;
}

Result Convert(const char *codeIn, const std::string &in, const char *codeOut, unsigned policy)
{
    const Result taken = Taken([&](char **out, size_t *size) {
        return CodeSet_GenericToGeneric(codeIn, in.data(), in.size(), codeOut, policy, out, size);
    });

    // The other form has the same result, and appends it.
    const std::string before = "before";
    DynBuf db;
    DynBuf_Init(&db);
    Require(DynBuf_Append(&db, before.data(), before.size()));
    const bool done =
        CodeSet_GenericToGenericDb(codeIn, in.data(), in.size(), codeOut, policy, &db);
    Require(done == taken.has_value());
    Require(std::string(db.data, db.size) == before + taken.value_or(""));
    DynBuf_Destroy(&db);
    return taken;
}

// The form that reports the reason has the same result, and the text before the reported place
// converts.
void CheckFailure(const Encoding &from, const Encoding &to, const std::string &in, unsigned policy)
{
    CodeSetFailure failure = {CODESET_REASON_ICU, SIZE_MAX};
    const Result taken = Taken([&](char **out, size_t *size) {
        return CodeSet_Convert(from.name, in.data(), in.size(), to.name, policy, out, size,
                               &failure);
    });
    Require(taken == Convert(from.name, in, to.name, policy));
    Require(taken.has_value() == (failure.reason == CODESET_REASON_NONE));
    const bool hasPlace =
        failure.reason == CODESET_REASON_INVALID || failure.reason == CODESET_REASON_LACKING;
    Require(hasPlace ? failure.offset < in.size() : failure.offset == 0);
    Require(taken || in.empty() || hasPlace || !CodeSet_CanConvert(from.name, to.name));
    if (hasPlace && IsUnicodeForm(from.value)) {
        Require(Convert(from.name, in.substr(0, failure.offset), to.name, policy).has_value());
    }
}

// ---- ICU's two steps

struct Converter {
    UErrorCode error = U_ZERO_ERROR;
    UConverter *converter;
    explicit Converter(const char *name) : converter(ucnv_open(name, &error))
    {
        Require(U_SUCCESS(error));
        error = U_ZERO_ERROR;
    }
    Converter(const Converter &) = delete;
    Converter &operator=(const Converter &) = delete;
    ~Converter() { ucnv_close(converter); }
};

std::optional<std::u16string> IcuDecoded(const char *codeIn, const std::string &in, unsigned policy)
{
    constexpr UConverterToUCallback CALLBACKS[] = {
        UCNV_TO_U_CALLBACK_STOP, UCNV_TO_U_CALLBACK_SUBSTITUTE, UCNV_TO_U_CALLBACK_SKIP};
    Converter from(codeIn);
    ucnv_setToUCallBack(from.converter, CALLBACKS[policy], nullptr, nullptr, nullptr, &from.error);
    std::u16string units(8 * in.size() + 64, u'\0');
    UChar *end = units.data();
    const char *source = in.data();
    ucnv_toUnicode(from.converter, &end, units.data() + units.size(), &source,
                   in.data() + in.size(), nullptr, /* flush */ true, &from.error);
    Require(from.error != U_BUFFER_OVERFLOW_ERROR);
    if (U_FAILURE(from.error)) { return std::nullopt; }
    units.resize(static_cast<size_t>(end - units.data()));
    return units;
}

Result IcuEncoded(const std::u16string &units, const char *codeOut, unsigned policy)
{
    constexpr UConverterFromUCallback CALLBACKS[] = {
        UCNV_FROM_U_CALLBACK_STOP, UCNV_FROM_U_CALLBACK_SUBSTITUTE, UCNV_FROM_U_CALLBACK_SKIP};
    Converter to(codeOut);
    ucnv_setFromUCallBack(to.converter, CALLBACKS[policy], nullptr, nullptr, nullptr, &to.error);
    std::string bytes(16 * units.size() + 64, '\0');
    char *end = bytes.data();
    const UChar *source = units.data();
    ucnv_fromUnicode(to.converter, &end, bytes.data() + bytes.size(), &source,
                     units.data() + units.size(), nullptr, /* flush */ true, &to.error);
    Require(to.error != U_BUFFER_OVERFLOW_ERROR);
    if (U_FAILURE(to.error)) { return std::nullopt; }
    bytes.resize(static_cast<size_t>(end - bytes.data()));
    return bytes;
}

void CheckThroughIcu(const Encoding &from, const Encoding &to, const std::string &in,
                     unsigned policy)
{
    const Result ours = Convert(from.name, in, to.name, policy);
    const auto decoded = IcuDecoded(from.name, in, policy);
    if (in.empty()) {
        Require(ours == "");
    } else {
        Require(ours == (decoded ? IcuEncoded(*decoded, to.name, policy) : std::nullopt));
    }
    // Without repairs the text converts back, in encodings with one spelling for each character.
    if (ours && policy == CODESET_INVALID_FAIL && IsUnicodeForm(from.value) &&
        IsUnicodeForm(to.value)) {
        Require(Convert(to.name, *ours, from.name, CODESET_INVALID_FAIL) == in);
    }
    if (policy == CODESET_INVALID_FAIL) {
        Require(CodeSet_IsValidBuffer(in.data(), in.size(), from.name) ==
                (in.empty() || (decoded && !decoded->empty())));
    }
}

// ---- The converters of lib/string

template <typename From, typename To>
using UtfConverter = UtfResult (*)(const From **, const From *, To **, To *, bool);

template <typename From, typename To>
Result Utf(UtfConverter<From, To> converter, const std::string &in)
{
    if (in.size() % sizeof(From) != 0) { return std::nullopt; }
    std::vector<From> source(in.size() / sizeof(From));
    if (!in.empty()) { memcpy(source.data(), in.data(), in.size()); }
    std::vector<To> target(3 * source.size() + 1);
    const From *from = source.data();
    To *end = target.data();
    if (converter(&from, source.data() + source.size(), &end, target.data() + target.size(),
                  false) != UtfResult::Done) {
        return std::nullopt;
    }
    return std::string(reinterpret_cast<const char *>(target.data()),
                       static_cast<size_t>(end - target.data()) * sizeof(To));
}

std::string Swapped(std::string in)
{
    for (size_t i = 0; i + 1 < in.size(); i += 2) {
        std::swap(in[i], in[i + 1]);
    }
    return in;
}

Result AsciiToUtf8(const std::string &in, unsigned policy)
{
    std::string out;
    for (const char byte : in) {
        if (static_cast<unsigned char>(byte) < 0x80) {
            out += byte;
        } else if (policy == CODESET_INVALID_FAIL) {
            return std::nullopt;
        } else if (policy == CODESET_INVALID_SUBSTITUTE) {
            out += "\xef\xbf\xbd";
        }
    }
    return out;
}

// Returns the text in UTF-8; nullopt for invalid text, which only ASCII's conversion repairs.
Result ToUtf8(StringEncoding from, const std::string &in, unsigned policy)
{
    switch (from) {
    case STRING_ENCODING_UTF_8: return Utf(Utf8ToUtf16, in) ? Result(in) : std::nullopt;
    case STRING_ENCODING_UTF_16LE: return Utf(Utf16ToUtf8, in);
    case STRING_ENCODING_UTF_16BE: return Utf(Utf16ToUtf8, Swapped(in));
    case STRING_ENCODING_ASCII: return AsciiToUtf8(in, policy);
    default: return std::nullopt;
    }
}

Result Expected(StringEncoding from, StringEncoding to, const std::string &in, unsigned policy)
{
    if (in.empty()) { return in; }
    const bool isRead = IsUnicodeForm(from) || from == STRING_ENCODING_ASCII;
    const bool isOther = from == STRING_ENCODING_UTF_32LE || from == STRING_ENCODING_UTF_32BE;
    if (from == to) {
        const bool isValid =
            !isRead || isOther || ToUtf8(from, in, CODESET_INVALID_FAIL).has_value();
        return isValid ? Result(in) : std::nullopt;
    }
    if (to == STRING_ENCODING_UTF_8) { return ToUtf8(from, in, policy); }
    if (from == STRING_ENCODING_UTF_8 && to == STRING_ENCODING_UTF_16LE) {
        return Utf(Utf8ToUtf16, in);
    }
    return std::nullopt;
}

void CheckWithoutIcu(const Encoding &from, const Encoding &to, const std::string &in,
                     unsigned policy)
{
    const Result ours = Convert(from.name, in, to.name, policy);
    Require(ours == Expected(from.value, to.value, in, policy));
    const bool isKnown =
        from.value <= STRING_ENCODING_UTF_16BE || from.value == STRING_ENCODING_ASCII;
    Require(CodeSet_IsValidBuffer(in.data(), in.size(), from.name) ==
            (in.empty() || (isKnown && ToUtf8(from.value, in, CODESET_INVALID_FAIL).has_value())));
}

// ---- The functions with encodings in their names, the same with ICU and without

void CheckNamed(const std::string &in)
{
    using Named = bool (*)(const char *, size_t, char **, size_t *);
    const auto gives = [&](Named named) {
        return Taken(
            [&](char **out, size_t *size) { return named(in.data(), in.size(), out, size); });
    };
    const Result units = Utf(Utf8ToUtf16, in), text = Utf(Utf16ToUtf8, in);
    Require(gives(CodeSet_Utf8ToUtf16le) == units && gives(CodeSet_CurrentToUtf16le) == units);
    Require(gives(CodeSet_Utf16leToUtf8) == text && gives(CodeSet_Utf16leToCurrent) == text);
    Require(gives(CodeSet_Utf16beToCurrent) == Utf(Utf16ToUtf8, Swapped(in)));
    Require(CodeSet_IsValidUtf8(in.data(), in.size()) == units.has_value());
    Require(CodeSet_IsValidUtf8NoNul(in.data(), in.size()) ==
            (units && in.find('\0') == std::string::npos));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const IcuFolder icu;
    if (size < 3) { return 0; }
    const Encoding &from = Supported()[data[0] % Supported().size()];
    const Encoding &to = Supported()[data[1] % Supported().size()];
    const unsigned policy = data[2] % 3;
    const std::string in(data + 3, data + size);

    CodeSet_Init(icu.path.c_str());
    CheckThroughIcu(from, to, in, policy);
    CheckFailure(from, to, in, policy);
    CheckNamed(in);
    CodeSet_DontUseIcu();
    CheckWithoutIcu(from, to, in, policy);
    CheckFailure(from, to, in, policy);
    CheckNamed(in);
    return 0;
}
