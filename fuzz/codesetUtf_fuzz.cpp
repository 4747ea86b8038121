// codesetUtf_fuzz.cpp -- compares every kernel with the converters of lib/string and with ICU's.
// The input is read as UTF-8 and as UTF-16.
#include "codesetUtf.h"
#include "utf.h"

#include <unicode/ustring.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

using namespace pelago;

namespace {

using MaybeText = std::optional<std::string>;

void Require(bool holds)
{
    if (!holds) { abort(); }
}

template <typename Unit> std::vector<Unit> UnitsOf(const std::string &text)
{
    std::vector<Unit> units(text.size() / sizeof(Unit));
    if (!units.empty()) { memcpy(units.data(), text.data(), units.size() * sizeof(Unit)); }
    return units;
}

template <typename Unit> std::string TextOf(const std::vector<Unit> &units, size_t count)
{
    return {reinterpret_cast<const char *>(units.data()), count * sizeof(Unit)};
}

template <typename From, typename To>
MaybeText ByCharacters(UtfResult (*converter)(const From **, const From *, To **, To *, bool),
                       const std::string &text)
{
    const std::vector<From> source = UnitsOf<From>(text);
    std::vector<To> target(3 * source.size());
    const From *from = source.data();
    To *to = target.data();
    if (converter(&from, from + source.size(), &to, to + target.size(), false) != UtfResult::Done) {
        return std::nullopt;
    }
    return TextOf(target, static_cast<size_t>(to - target.data()));
}

template <typename From, typename To, typename Call>
MaybeText ByIcu(Call call, const std::string &text)
{
    const std::vector<From> source = UnitsOf<From>(text);
    std::vector<To> target(3 * source.size() + 1);
    int32_t length = 0;
    UErrorCode error = U_ZERO_ERROR;
    call(target.data(), static_cast<int32_t>(target.size()), &length, source.data(),
         static_cast<int32_t>(source.size()), &error);
    if (U_FAILURE(error)) { return std::nullopt; }
    return TextOf(target, static_cast<size_t>(length));
}

// The source and the result lie in blocks of exactly their sizes, so that a sanitizer reports any
// access outside.
template <typename Measure, typename Convert>
MaybeText ByKernel(Measure measure, Convert convert, const std::string &text)
{
    const std::vector<char> source(text.begin(), text.end());
    size_t needed = 0;
    if (!measure(source.data(), source.size(), &needed)) { return std::nullopt; }
    std::vector<char> target(needed + CODESET_UTF_SLACK);
    convert(source.data(), source.size(), target.data());
    return std::string(target.data(), needed);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string utf8(reinterpret_cast<const char *>(data), size),
        utf16(utf8, 0, size / 2 * 2);
    const MaybeText in16 = ByCharacters(Utf8ToUtf16, utf8), in8 = ByCharacters(Utf16ToUtf8, utf16);
    Require(in16 == ByIcu<char, UChar>(u_strFromUTF8, utf8));
    Require(in8 == ByIcu<UChar, char>(u_strToUTF8, utf16));
    Require(CodeSetUtf8IsValid(utf8.data(), utf8.size()) == in16.has_value());

    for (const CodeSetUtfKernel *kernel : CodeSetUtfKernels()) {
        if (size == 0) { break; }
        Require(kernel->utf8IsValid(utf8.data(), size) == in16.has_value());
        Require(ByKernel(kernel->measureUtf8, kernel->utf8ToUtf16, utf8) == in16);
        if (in16) { Require(ByKernel(kernel->measureUtf16, kernel->utf16ToUtf8, *in16) == utf8); }
        if (utf16.empty()) { continue; }
        Require(ByKernel(kernel->measureUtf16, kernel->utf16ToUtf8, utf16) == in8);
    }
    return 0;
}
