// format_fuzz.cpp -- compares the engine with the C library on formats that both know, and, with
// any bytes as the format, the engine's output in a buffer with its output in a new block.
#include "bsd_vsnprintf.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <utility>
#include <vector>

namespace {

// Reads values from the input, byte by byte; zeros when the input is used up.
class Input {
public:
    Input(const uint8_t *data, size_t size) : mData(data), mSize(size) {}
    bool IsUsedUp() const { return mSize == 0; }
    unsigned Number(unsigned below) { return Value<uint8_t>() % below; }
    template <typename T> T Value()
    {
        T value = {};
        const size_t size = std::min(mSize, sizeof value);
        memcpy(&value, mData, size);
        mData += size;
        mSize -= size;
        return value;
    }
    std::string Rest() const { return {reinterpret_cast<const char *>(mData), mSize}; }

private:
    const uint8_t *mData;
    size_t mSize;
};

[[noreturn]] void Fail(const char *what, const std::string &format)
{
    fprintf(stderr, "%s: \"%s\"\n", what, format.c_str());
    abort();
}

struct Output {
    int length;
    std::string text;
};

__attribute__((noinline)) Output Ours(size_t size, const char *format, ...)
{
    std::vector<char> buffer(size);
    char *place = size > 0 ? buffer.data() : nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = bsd_vsnprintf(&place, size, format, arguments);
    va_end(arguments);
    Output output = {length, {}};
    if (length >= 0) {
        const size_t there = static_cast<size_t>(length);
        output.text.assign(place, size == 0 ? there : std::min(there, size - 1));
        if (place[output.text.size()] != '\0') { Fail("not terminated", format); }
    }
    if (size == 0) { free(place); }
    return output;
}

// Returns the whole output.  In a buffer of any size, the engine must write the start of that
// output and return the same length.
template <typename... Values>
std::string Whole(Input &input, const std::string &format, Values... values)
{
    const Output grown = Ours(0, format.c_str(), values...);
    const size_t size = 1 + input.Number(64);
    const Output fixed = Ours(size, format.c_str(), values...);
    if (fixed.length != grown.length) { Fail("another length in a buffer", format); }
    if (grown.length >= 0 && fixed.text != grown.text.substr(0, size - 1)) {
        Fail("another text in a buffer", format);
    }
    return grown.text;
}

template <typename... Values>
void Compare(Input &input, const std::string &format, Values... values)
{
    const std::string ours = Whole(input, format, values...);
    std::vector<char> libc(ours.size() + 2);
    const int length = snprintf(libc.data(), libc.size(), format.c_str(), values...);
    if (length != static_cast<int>(ours.size()) || ours != std::string(libc.data(), ours.size())) {
        fprintf(stderr, "%s, not %s\n", ours.c_str(), libc.data());
        Fail("not what the C library prints", format);
    }
}

// ---- One conversion, which both know

std::string Flags(Input &input, const char *allowed)
{
    std::string flags;
    for (unsigned set = input.Number(32); *allowed != '\0'; allowed++, set >>= 1) {
        if (set & 1) { flags += *allowed; }
    }
    return flags;
}

// Puts the width and the precision into the format, or passes them before the value.
template <typename Value>
void CompareOne(Input &input, const std::string &flags, const std::string &letter, int precision,
                Value value)
{
    const int width = static_cast<int>(input.Number(48)) - (input.Number(8) == 0 ? 40 : 0);
    const std::string start = "<%" + flags;
    switch (input.Number(4)) {
    case 0: Compare(input, start + letter + ">", value); break;
    case 1: Compare(input, start + "*.*" + letter + ">", width, precision, value); break;
    case 2: Compare(input, start + "*" + letter + ">", width, value); break;
    default:
        Compare(input,
                start + (width > 0 ? std::to_string(width) : "") +
                    (precision >= 0 ? "." + std::to_string(precision) : "") + letter + ">",
                value);
    }
}

void CompareInteger(Input &input)
{
    const std::string flags = Flags(input, "-+ #0");
    const std::string letter(1, "diuoxX"[input.Number(6)]);
    const int precision = static_cast<int>(input.Number(40)) - 5;
    switch (input.Number(5)) {
    case 0: CompareOne(input, flags, "hh" + letter, precision, input.Value<int>()); break;
    case 1: CompareOne(input, flags, "h" + letter, precision, input.Value<int>()); break;
    case 2: CompareOne(input, flags, letter, precision, input.Value<int>()); break;
    case 3: CompareOne(input, flags, "ll" + letter, precision, input.Value<long long>()); break;
    default: CompareOne(input, flags, "z" + letter, precision, input.Value<size_t>());
    }
}

// The engine rounds "%.0f" in its own way and prints zero and NaN without a sign, and the C
// library's "#" with "g" loses zeros where rounding adds a digit.
void CompareFloating(Input &input)
{
    const double read = input.Value<double>();
    const double value = read == 0 || std::isnan(read) ? std::fabs(read) : read;
    const char letter = "eEfFgG"[input.Number(6)];
    const bool general = letter == 'g' || letter == 'G';
    const std::string flags = Flags(input, general ? "-+ 0" : "-+ 0#");
    int precision = static_cast<int>(input.Number(60)) - 5;
    if ((letter == 'f' || letter == 'F') && precision == 0) { precision = 1; }
    CompareOne(input, flags, std::string(1, letter), precision, value);
}

void CompareString(Input &input)
{
    const int precision = static_cast<int>(input.Number(20)) - 5;
    const std::string text = input.Rest();
    CompareOne(input, Flags(input, "-"), "s", precision, text.c_str());
}

// ---- Several conversions by position, which both know, too

void ComparePositions(Input &input)
{
    const int first = input.Value<int>();
    const long long second = input.Value<long long>();
    const double third = std::fabs(input.Value<double>());
    const int width = static_cast<int>(input.Number(30)) - 10;
    const int precision = 1 + static_cast<int>(input.Number(20));
    const char *text = "some text";
    static const char *const CONVERSIONS[] = {
        "%1$d",    "%2$llx", "%3$.3f", "%4$s",   "%1$-*5$d|", "%3$*5$.*6$e", "%4$.*6$s",
        "%2$+lld", "%3$g",   "%1$05u", "%4$12s", "%2$*6$llo", " and ",       "%%",
    };
    // The C library reads every argument's type from the format, so each is named.
    std::string format = "%1$d%2$lld%3$e%4$s%5$d%6$d";
    while (!input.IsUsedUp() && format.size() < 200) {
        format += CONVERSIONS[input.Number(std::size(CONVERSIONS))];
    }
    Compare(input, format, first, second, third, text, width, precision);
}

// ---- Any bytes as the format

// Returns an address that is a valid pointer to text, wide text and a result, and whose low half is
// a small int.
char *Argument()
{
    static char *sArgument;
    if (sArgument == nullptr) {
        auto *const wanted = reinterpret_cast<void *>(0x7e0000000000);
        void *place =
            mmap(wanted, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (place != wanted) { Fail("no place for the argument", ""); }
        sArgument = static_cast<char *>(place) + 16;
    }
    memcpy(sArgument, "w\0\0\0x\0\0\0\0\0\0", 12);
    return sArgument;
}

// Returns whether the arguments suit the format: its numbers are small, and by position it reads no
// argument as a type that the argument does not have.
bool CanBeServed(const std::string &format)
{
    for (size_t i = 0; i < format.size(); i++) {
        const size_t end = std::min(format.find_first_not_of("0123456789", i), format.size());
        if (end - i > 2) { return false; }
        i = end;
    }
    return format.find('$') == std::string::npos ||
           format.find_first_of("sSnpeEfFgGDOUlLqjtzZI") == std::string::npos;
}

// Passes more arguments than the longest input can read.
template <size_t... Index>
void TryAnyFormat(Input &input, const std::string &format, std::index_sequence<Index...> /* each */)
{
    char *a = Argument();
    const auto argument = [a](size_t) { return a; };
    if (format.find('n') == std::string::npos) {
        Whole(input, format, 0.5, 1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 7.5, argument(Index)...);
    } else { // writes to the block at a, so that a second call would return another text
        Ours(0, format.c_str(), 0.5, 1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 7.5, argument(Index)...);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input(data, std::min<size_t>(size, 60));
    switch (input.Number(5)) {
    case 0: CompareInteger(input); break;
    case 1: CompareFloating(input); break;
    case 2: CompareString(input); break;
    case 3: ComparePositions(input); break;
    default: {
        const std::string format = input.Rest().c_str();
        if (CanBeServed(format)) { TryAnyFormat(input, format, std::make_index_sequence<100>()); }
    }
    }
    return 0;
}
