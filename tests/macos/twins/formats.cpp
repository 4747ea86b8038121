// formats.cpp -- every directive of the formatting engine: alone, by position, and in random
// formats.
#include "twins.h"

#include "bsd_vsnprintf.h"
#include "str.h"

#include <cctype>
#include <cmath>
#include <cstdarg>
#include <utility>

namespace {

struct Convention {
    std::string grouping;
    char separator;
    const char *point;
};

// Records the whole output, and the part that fits into a buffer.
__attribute__((noinline)) void Format(Trial *trial, const Convention &convention, size_t size,
                                      const char *format, ...)
{
    va_list arguments, again;
    va_start(arguments, format);
    va_copy(again, arguments);
    char *grown = nullptr;
    const int length = bsd_vsnprintf_core(&grown, convention.grouping.c_str(), convention.separator,
                                          convention.point, 0, format, arguments);
    trial->AddResult(length);
    trial->TakeResult(grown, length < 0 ? 0 : static_cast<size_t>(length));
    std::string buffer(size, '\0');
    trial->AddResult(Str_Vsnprintf(buffer.data(), size, format, again));
    trial->AddResult(length < 0 ? "" : buffer.c_str());
    va_end(again);
    va_end(arguments);
}

Convention AnyConvention(Numbers &numbers)
{
    static constexpr char SIZES[] = {1, 2, 3, 4, 127};
    Convention convention = {{}, numbers.Of(",. '\xA0"), numbers.OneIn(2) ? "." : ","};
    for (unsigned i = numbers.Below(4); i > 0; i--) {
        convention.grouping += numbers.Of(SIZES);
    }
    return convention;
}

std::string Flags(Numbers &numbers)
{
    return numbers.OneIn(3) ? "" : numbers.Bytes(numbers.Below(5), "-+ #0'");
}

// Formats with width and precision in the format or as arguments.
template <typename Value>
void FormatOne(Numbers &numbers, Trial *trial, const std::string &conversion, Value value,
               int mostPrecision)
{
    const Convention convention = AnyConvention(numbers);
    const size_t size = 1 + numbers.Below(60);
    const int width = static_cast<int>(numbers.Below(60)) - 15;
    const int precision = static_cast<int>(numbers.Below(static_cast<size_t>(mostPrecision))) - 4;
    const std::string start = "<%" + Flags(numbers), end = conversion + ">";
    std::string format;
    const auto tried = [&](auto... values) {
        trial->AddInput(format + " " + std::to_string(width) + " " + std::to_string(precision));
        Format(trial, convention, size, format.c_str(), values...);
    };
    switch (numbers.Below(4)) {
    case 0: format = start + end; return tried(value);
    case 1: format = start + "*.*" + end; return tried(width, precision, value);
    case 2: format = start + ".*" + end; return tried(precision, value);
    default:
        format = start + (width > 0 ? std::to_string(width) : "") +
                 (precision >= 0 ? "." + std::to_string(precision) : ".") + end;
        tried(value);
    }
}

double Number(Numbers &numbers)
{
    switch (numbers.Below(5)) {
    case 0: return static_cast<double>(static_cast<int64_t>(numbers.Integer()));
    case 1: // few digits
        return static_cast<double>(numbers.Below(10'000'000)) / std::pow(10, numbers.Below(8));
    case 2: // half-way between two decimals
        return (numbers.Below(2000) + 0.5) * std::ldexp(1, -static_cast<int>(numbers.Below(12)));
    case 3: {
        static constexpr double SPECIAL[] = {0.0, -0.0, INFINITY, -INFINITY, NAN, 5e-324, 1e308};
        return numbers.Of(SPECIAL);
    }
    default: {
        const uint64_t bits = numbers.Next();
        double value;
        memcpy(&value, &bits, sizeof value);
        return value;
    }
    }
}

// Enough floating values for all registers, and more words than any format uses.
constexpr size_t MOST_WORDS = 64;
template <size_t... Index>
void FormatAll(Trial *trial, const Convention &convention, const std::string &format,
               const uint64_t (&words)[MOST_WORDS], std::index_sequence<Index...> /* each */)
{
    Format(trial, convention, 40, format.c_str(), 0.5, 1.25, 1e100, -3.0, 4e-7, 5.5, 6.0, 7.125,
           words[Index]...);
}

void ShortenNumbers(std::string *format, size_t most)
{
    for (size_t i = 0, digits = 0; i < format->size(); i++) {
        digits = isdigit(static_cast<unsigned char>((*format)[i])) != 0 ? digits + 1 : 0;
        if (digits <= most) { continue; }
        (*format)[i] = 'd';
        digits = 0;
    }
}

} // namespace

void Integers(Numbers &numbers, Trial *trial)
{
    static const char *const SIZES[] = {"",  "hh", "h", "l", "ll",  "q",  "L",
                                        "j", "t",  "z", "Z", "I64", "I32"};
    const std::string size = numbers.OneIn(3) ? "" : numbers.Of(SIZES);
    const std::string letter(1, "diuoxXDOUpc%"[numbers.Below(12)]);
    const uint64_t value = numbers.Integer();
    trial->AddInput(std::to_string(value));
    FormatOne(numbers, trial, letter == "c" ? letter : size + letter, value, 40);
}

void Floats(Numbers &numbers, Trial *trial)
{
    const std::string letter(1, "eEfFgGa"[numbers.Below(7)]);
    const double value = Number(numbers);
    const int most = numbers.OneIn(30) ? 700 : 30;
    uint64_t bits;
    memcpy(&bits, &value, sizeof bits);
    trial->AddInput(std::to_string(bits));
    if (numbers.OneIn(6)) {
        FormatOne(numbers, trial, "L" + letter, static_cast<long double>(value), most);
    } else {
        FormatOne(numbers, trial, letter, value, most);
    }
}

void Texts(Numbers &numbers, Trial *trial)
{
    const std::string text = numbers.OneIn(2) ? AnyText(numbers, numbers.Below(20))
                                              : numbers.AnyBytes(numbers.Below(40));
    trial->AddInput(text);
    if (numbers.OneIn(2)) {
        const char *given = numbers.OneIn(50) ? nullptr : text.c_str();
        return FormatOne(numbers, trial, "s", given, 24);
    }
    std::wstring wide;
    for (unsigned i = numbers.Below(12); i > 0; i--) {
        wide += static_cast<wchar_t>(1 + (numbers.Next() >> (40 + numbers.Below(24))));
        trial->AddInput(std::to_string(wide.back()));
    }
    if (numbers.OneIn(3)) { // what the "C" locale makes of 0x80 to 0xFF is the C library's
        const wint_t letter = numbers.OneIn(2) ? numbers.Below(0x80) : 0x100 + numbers.Below(9999);
        trial->AddInput(std::to_string(letter));
        return FormatOne(numbers, trial, numbers.OneIn(2) ? "lc" : "C", letter, 24);
    }
    FormatOne(numbers, trial, numbers.OneIn(2) ? "ls" : "S", wide.c_str(), 24);
}

void Positions(Numbers &numbers, Trial *trial)
{
    static const char *const CONVERSIONS[] = {
        "%1$d",     "%2$llx",  "%3$.3f",   "%4$s",   "%1$-*5$d|", "%3$*5$.*6$e",
        "%4$.*6$s", "%2$+lld", "%3$g",     "%1$05u", "%4$12s",    "%2$*6$llo",
        " and ",    "%%",      "%7$lc",    "%8$ls",  "%9$hhd",    "%3$F",
        "%1$'d",    "%2$'lld", "%8$.*5$S", "%9$zu",  "%1$#x",     "%-9$10p"};
    std::string format = numbers.OneIn(2) ? "%1$d%2$lld%3$e%4$s%5$d%6$d%7$lc%8$ls%9$zu" : "%9$ld";
    const bool areAllNamed = format[1] == '1';
    for (unsigned i = numbers.Below(9); i > 0; i--) {
        format += areAllNamed ? numbers.Of(CONVERSIONS) : "%2$d%9$*3$ld";
    }
    const int first = static_cast<int>(numbers.Integer());
    const auto second = static_cast<long long>(numbers.Integer());
    const double third = Number(numbers);
    const int width = static_cast<int>(numbers.Below(30)) - 10;
    const int precision = static_cast<int>(numbers.Below(20)) - 2;
    const wint_t letter = 0x20 + numbers.Below(0x5F);
    const size_t last = numbers.Integer();
    trial->AddInput(format + " " + std::to_string(first) + " " + std::to_string(second) + " " +
                    std::to_string(last));
    const Convention convention = AnyConvention(numbers);
    if (areAllNamed) {
        Format(trial, convention, 50, format.c_str(), first, second, third, "some text", width,
               precision, letter, L"wide \x20AC", last);
    } else {
        Format(trial, convention, 50, format.c_str(), first, first, width, first, first, first,
               first, first, last);
    }
}

// Random formats without pointers and with few positions.
void AnyFormats(Numbers &numbers, Trial *trial)
{
    const bool hasPositions = numbers.OneIn(3);
    const std::string choices = hasPositions ? "%%%%%%diuoxX123456789$$$$-+ #0'.*hlLqjtzZIc"
                                             : "%%%%%%diuoxXDOUeEfFgGacp019-+ #0'.*hlqjtzZI64y";
    std::string format = numbers.Bytes(numbers.Below(30), choices);
    ShortenNumbers(&format, hasPositions ? 1 : 3);
    uint64_t words[MOST_WORDS];
    for (uint64_t &word : words) {
        word = numbers.Below(40);
    }
    trial->AddInput(format);
    FormatAll(trial, AnyConvention(numbers), format, words, std::make_index_sequence<MOST_WORDS>());
}
