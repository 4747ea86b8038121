// bsd_vsnprintf.cpp -- the formatting engine: a format is read once, and each of its conversions
// becomes a field of pieces in the output.
#include "bsd_vsnprintf.h"

#include "diagnostics.h"
#include "formatArguments.h"
#include "formatDigits.h"
#include "formatDirective.h"
#include "formatSink.h"
#include "scoped.h"
#include "str.h"
#include "utf.h"
#include "util.h"

#include <algorithm>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstring>
#include <cwchar>
#include <langinfo.h>
#include <string_view>
#include <strings.h>

using namespace pelago;

namespace {

constexpr char MODULE_PATH[] = "lib/string/bsd_vsnprintf";
constexpr int WCSCONV_LINE = 414; // the check of the UTF converter's answer

constexpr size_t FIRST_CAPACITY = 64; // a growing buffer starts at a multiple of this

constexpr int DEFAULT_PRECISION = 6;
// No double has more digits than 1074, those of the least one's fraction: to ask for more would
// only bring zeros, and the memory for them.
constexpr int64_t MOST_DIGITS = 1074;
constexpr int NO_POINT = 9999; // the converter's position of the point in what is not finite

static_assert(FormatOutput::SCRATCH_SIZE >= BSD_ULTOA_SIZE &&
              FormatOutput::SCRATCH_SIZE >= BSD_EXPONENT_SIZE &&
              FormatOutput::SCRATCH_SIZE >= MB_LEN_MAX);
static_assert(sizeof(wchar_t) == sizeof(uint32_t));

// How numbers are punctuated.  The current locale is only asked when it matters, and for the point
// by the faster of the two ways there are.
class FormatConventions {
public:
    FormatConventions() = default; // the current locale's
    FormatConventions(const char *decimalPoint, char separator, const char *grouping)
        : mDecimalPoint(decimalPoint), mSeparator(separator), mGrouping(Usable(grouping))
    {}

    // Only the first byte is ever printed.
    const char *DecimalPoint()
    {
        if (mDecimalPoint == nullptr) { mDecimalPoint = nl_langinfo(RADIXCHAR); }
        return mDecimalPoint;
    }
    const char *Grouping()
    {
        if (mGrouping == nullptr) {
            const lconv *locale = localeconv();
            mSeparator = *locale->thousands_sep;
            mGrouping = Usable(locale->grouping);
        }
        return mGrouping;
    }
    // Where Grouping() has told of groups.
    const char *Separator() const { return &mSeparator; }

private:
    // Without a separator there is nothing to group with.
    const char *Usable(const char *grouping) const
    {
        const bool usable = grouping != nullptr && *grouping != '\0' && mSeparator != '\0';
        return usable ? grouping : FORMAT_NO_GROUPING;
    }

    const char *mDecimalPoint = nullptr;
    char mSeparator = '\0';
    const char *mGrouping = nullptr;
};

// UTF-8 of a wide string, whole characters of at most precision bytes (-1: all of it),
// NUL-terminated; nullptr without memory.  What is no character becomes what the lenient converter
// makes of it.
char *bsd_wcsconv(const wchar_t *wide, int64_t precision)
{
    const bool limited = precision >= 0;
    const size_t limit = limited ? static_cast<size_t>(precision) : SIZE_MAX;
    // Each character takes at least a byte, so a string that is limited need not be terminated.
    const size_t length = limited ? wcsnlen(wide, limit) : wcslen(wide);
    // Four bytes for each always do, so the target is only full when the limit is reached.
    const size_t capacity = std::min(4 * length, limit);
    char *text = static_cast<char *>(malloc(capacity + 4));
    if (text == nullptr) { return nullptr; }
    const uint32_t *source = reinterpret_cast<const uint32_t *>(wide);
    uint8_t *target = reinterpret_cast<uint8_t *>(text);
    switch (Utf32ToUtf8(&source, source + length, &target, target + capacity, /* lenient */ true)) {
    case UtfResult::Done:
    case UtfResult::SourceCut:
    case UtfResult::TargetFull:
    case UtfResult::Illegal: break;
    default: Panic(UTIL_NOT_IMPLEMENTED_REPORT, MODULE_PATH, WCSCONV_LINE);
    }
    *target = '\0';
    return text;
}

// What of a floating number is before the point, in groups: the leftmost, then so many of a size
// that repeats, then one each of the sizes to its left in the locale's list.
struct FormatGroups {
    int64_t leftmost; // digits
    int64_t repeated = 0;
    const char *size;
    int64_t separators = 0;

    FormatGroups(int64_t digits, const char *grouping) : leftmost(digits), size(grouping)
    {
        while (*size > 0 && *size != FORMAT_ENDLESS_GROUP && leftmost > *size) {
            leftmost -= *size;
            separators++;
            if (size[1] != '\0') {
                size++;
            } else {
                repeated++;
            }
        }
    }
    // The size of the next group to the right.
    int64_t Next()
    {
        if (repeated > 0) {
            repeated--;
        } else {
            size--;
        }
        return *size;
    }
};

// An integer to be printed.
struct FormatInteger {
    uint64_t magnitude;
    int base = 10;
    std::string_view lead = ""; // its sign or prefix
    const char *digits = FORMAT_LOWER_DIGITS;
};

class FormatEngine {
public:
    FormatEngine(FormatOutput *output, FormatConventions *conventions, const char *format,
                 FormatArguments::List &arguments)
        : mOutput(*output), mConventions(*conventions), mFormat(format),
          mArguments(format, arguments)
    {}

    // Returns the length of the whole output, or -1.
    int Run()
    {
        const char *text = mFormat;
        for (;;) {
            const char *start = text;
            while (*text != '\0' && *text != '%') {
                text++;
            }
            const size_t length = static_cast<size_t>(text - start);
            if (!Count(length)) { return -1; }
            mOutput.Text(start, length);
            if (*text == '\0') { break; }
            FormatDirective directive;
            text = FormatRead(text + 1, &mArguments, &directive);
            if (mArguments.Failed()) { return -1; }
            if (directive.conversion == '\0') { break; }
            if (!Convert(directive, text - 1)) { return -1; }
            if (mOutput.Sink().error) { return -1; } // the rest would be for nothing
        }
        return mOutput.Flush() ? static_cast<int>(mTotal) : -1;
    }

private:
    // letter is where the conversion's stands in the format.
    bool Convert(const FormatDirective &directive, const char *letter)
    {
        FormatInteger integer;
        switch (directive.conversion) {
        case 'd':
        case 'i': integer = Signed(directive); break;
        case 'u': integer = {Unsigned(directive)}; break;
        case 'o': integer = {Unsigned(directive), 8}; break;
        case 'x':
        case 'X': integer = Hexadecimal(directive); break;
        case 'p': integer = Pointer(directive); break;
        case 'c': return Character(directive);
        case 's': return String(directive);
        case 'n': Store(directive); return true;
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G': return Floating(directive);
        default: return Field(directive, letter, 1);
        }
        return Integer(directive, integer);
    }

    // ---- Fields

    // Adds to the length of the output; false when that becomes too large.
    bool Count(uint64_t length)
    {
        if (length > static_cast<uint64_t>(INT_MAX - mTotal)) { return false; }
        mTotal += static_cast<int64_t>(length);
        return true;
    }

    // A field, padded to its width; body writes so many bytes behind the lead, a sign or prefix.
    template <typename Body>
    bool Field(const FormatDirective &directive, std::string_view lead, int64_t bodySize,
               const Body &body, bool zeroesAllowed = true)
    {
        const int64_t size = static_cast<int64_t>(lead.size()) + bodySize;
        const int64_t fill = directive.width - size;
        if (fill <= 0) { // as most are
            if (!Count(static_cast<uint64_t>(size))) { return false; }
            mOutput.Text(lead.data(), lead.size());
            body();
            return true;
        }
        if (!Count(static_cast<uint64_t>(directive.width))) { return false; }
        const bool left = (directive.flags & FORMAT_LEFT) != 0;
        const bool zeroes = zeroesAllowed && (directive.flags & FORMAT_ZEROES);
        if (!left && !zeroes) { mOutput.Blanks(fill); }
        mOutput.Text(lead.data(), lead.size());
        if (!left && zeroes) { mOutput.Zeroes(fill); }
        body();
        if (left) { mOutput.Blanks(fill); }
        return true;
    }

    bool Field(const FormatDirective &directive, const char *text, size_t length)
    {
        return Field(directive, "", static_cast<int64_t>(length),
                     [&] { mOutput.Text(text, length); });
    }

    static std::string_view Sign(const FormatDirective &directive, bool negative)
    {
        if (negative) { return "-"; }
        if (directive.flags & FORMAT_PLUS) { return "+"; }
        return directive.flags & FORMAT_BLANK ? " " : "";
    }

    // ---- Integers

    FormatInteger Signed(const FormatDirective &directive)
    {
        int64_t value = 0;
        if (directive.flags & FORMAT_64_BITS) {
            value = mArguments.Take<long>(directive.index);
        } else if (directive.flags & FORMAT_SHORT) {
            value = static_cast<short>(mArguments.Take<int>(directive.index));
        } else if (directive.flags & FORMAT_CHAR) {
            // NOLINTNEXTLINE(bugprone-signed-char-misuse): a number, and its sign is wanted
            value = static_cast<signed char>(mArguments.Take<int>(directive.index));
        } else {
            value = mArguments.Take<int>(directive.index);
        }
        const uint64_t magnitude =
            value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
        return {magnitude, 10, Sign(directive, value < 0)};
    }

    uint64_t Unsigned(const FormatDirective &directive)
    {
        if (directive.flags & FORMAT_64_BITS) {
            return static_cast<uint64_t>(mArguments.Take<long>(directive.index));
        }
        const int value = mArguments.Take<int>(directive.index);
        if (directive.flags & FORMAT_SHORT) { return static_cast<unsigned short>(value); }
        if (directive.flags & FORMAT_CHAR) { return static_cast<unsigned char>(value); }
        return static_cast<unsigned>(value);
    }

    FormatInteger Hexadecimal(const FormatDirective &directive)
    {
        const uint64_t value = Unsigned(directive);
        const bool prefixed = (directive.flags & FORMAT_ALTERNATE) && value != 0;
        if (directive.conversion == 'x') {
            return {value, 16, prefixed ? "0x" : "", FORMAT_LOWER_DIGITS};
        }
        return {value, 16, prefixed ? "0X" : "", FORMAT_UPPER_DIGITS};
    }

    FormatInteger Pointer(const FormatDirective &directive)
    {
        const void *pointer = mArguments.Take<void *>(directive.index);
        return {reinterpret_cast<uintptr_t>(pointer), 16, "", FORMAT_UPPER_DIGITS};
    }

    bool Integer(const FormatDirective &directive, const FormatInteger &integer)
    {
        const bool alternate = (directive.flags & FORMAT_ALTERNATE) != 0;
        const bool grouped = integer.base == 10 && (directive.flags & FORMAT_GROUPED);
        const char *grouping = grouped ? mConventions.Grouping() : FORMAT_NO_GROUPING;
        char *start = nullptr;
        int64_t length = 0;
        if (integer.magnitude != 0 || directive.precision != 0 ||
            (integer.base == 8 && alternate)) {
            char *end = mOutput.Scratch() + FormatOutput::SCRATCH_SIZE;
            start = bsd_ultoa(integer.magnitude, end, integer.base, alternate, integer.digits,
                              grouped, *mConventions.Separator(), grouping);
            length = end - start;
        }
        const int64_t zeroes = std::max<int64_t>(directive.precision - length, 0);
        const auto body = [&] {
            mOutput.Zeroes(zeroes);
            mOutput.Text(start, static_cast<size_t>(length));
        };
        return Field(directive, integer.lead, zeroes + length, body,
                     /* zeroesAllowed */ directive.precision < 0);
    }

    // ---- Text

    bool Character(const FormatDirective &directive)
    {
        const int value = mArguments.Take<int>(directive.index);
        char *text = mOutput.Scratch();
        if (!(directive.flags & FORMAT_LONG)) {
            *text = static_cast<char>(value);
            return Field(directive, text, 1);
        }
        mbstate_t state = {};
        const size_t length = wcrtomb(text, static_cast<wchar_t>(value), &state);
        return length != static_cast<size_t>(-1) && Field(directive, text, length);
    }

    bool String(const FormatDirective &directive)
    {
        const void *value = mArguments.Take<void *>(directive.index);
        const char *text = value == nullptr ? "(null)" : static_cast<const char *>(value);
        const bool wide = (directive.flags & FORMAT_LONG) != 0;
        ScopedFree<char> converted;
        if (wide && value != nullptr) {
            converted.reset(bsd_wcsconv(static_cast<const wchar_t *>(value), directive.precision));
            if (!converted) { return false; }
            text = converted.get();
        }
        const size_t length = directive.precision < 0
                                  ? strlen(text)
                                  : strnlen(text, static_cast<size_t>(directive.precision));
        if (!Field(directive, text, length)) { return false; }
        if (converted && length > 0) { mOutput.Own(converted.release()); }
        return true;
    }

    void Store(const FormatDirective &directive)
    {
        void *place = mArguments.Take<void *>(directive.index);
        const int total = static_cast<int>(mTotal);
        if (directive.flags & FORMAT_64_BITS) {
            *static_cast<int64_t *>(place) = total;
        } else if (directive.flags & FORMAT_SHORT) {
            *static_cast<short *>(place) = static_cast<short>(total);
        } else if (directive.flags & FORMAT_CHAR) {
            *static_cast<signed char *>(place) = static_cast<signed char>(total);
        } else {
            *static_cast<int *>(place) = total;
        }
    }

    // ---- Floating numbers

    bool Floating(const FormatDirective &directive)
    {
        // A long double's digits would need a converter of their own, which no C library has.
        double value = directive.flags & FORMAT_WIDE
                           ? static_cast<double>(mArguments.Take<long double>(directive.index))
                           : mArguments.Take<double>(directive.index);
        const char letter = static_cast<char>(directive.conversion | 0x20); // in lower case
        int64_t precision = directive.precision < 0 ? DEFAULT_PRECISION : directive.precision;
        int64_t digits = precision; // to ask for
        if (letter == 'e') { digits = precision + 1; }
        if (letter == 'g' && precision == 0) { digits = precision = 1; }
        if (letter == 'f' && precision == 0) {
            // Halves away from zero.  The digit behind the point is a zero, and goes with the
            // others.
            value = round(value);
            digits = 1;
        }
        FormatDecimal decimal = bsd_cvt(letter == 'f' ? FORMAT_FRACTION : FORMAT_SIGNIFICANT,
                                        static_cast<int>(std::min(digits, MOST_DIGITS)), value);
        if (!decimal.text) { return false; }
        const bool done = Spelt(decimal) ? NotFinite(directive, decimal)
                                         : Finite(directive, letter, precision, decimal);
        if (done) { mOutput.Own(decimal.text.release()); }
        return done;
    }

    static bool Spelt(const FormatDecimal &decimal)
    {
        const char *text = decimal.text.get();
        if (decimal.point == NO_POINT) { return true; }
        if (*text >= '0' && *text <= '9') { return false; } // which nearly all are
        return strcasecmp(text, "-inf") == 0 || strcasecmp(text, "inf") == 0 ||
               strcasecmp(text, "nan") == 0;
    }

    // An infinity's sign comes in the text or as a sign of its own, as the C library likes.  What
    // is not a number has none: "inf", "-inf" and "nan" are all that there is.  The bit in the
    // sign's place says nothing of how it came about: on x86-64 0.0 / 0.0 has it set.
    bool NotFinite(const FormatDirective &directive, const FormatDecimal &decimal)
    {
        char *text = decimal.text.get();
        const bool hasSign = *text == '-' || decimal.sign != 0;
        text += *text == '-';
        const bool negative = hasSign && strcasecmp(text, "nan") != 0;
        const bool lower = directive.conversion >= 'a';
        lower ? Str_ToLower(text) : Str_ToUpper(text);
        const size_t length = strlen(text);
        const auto body = [&] { mOutput.Text(text, length); };
        return Field(directive, Sign(directive, negative), static_cast<int64_t>(length), body,
                     /* zeroesAllowed */ false);
    }

    bool Finite(const FormatDirective &directive, char letter, int64_t precision,
                const FormatDecimal &decimal)
    {
        if (letter == 'f') { return Fixed(directive, precision, decimal); }
        if (letter == 'e') { return Exponential(directive, precision, decimal); }
        // Without "#" as many digits as there are, so that no zeros stand at the end.
        const bool fixed = decimal.point >= -3 && decimal.point <= precision;
        const int64_t digits =
            directive.flags & FORMAT_ALTERNATE ? precision : decimal.end - decimal.text.get();
        return fixed ? Fixed(directive, std::max<int64_t>(digits - decimal.point, 0), decimal)
                     : Exponential(directive, digits - 1, decimal);
    }

    bool Fixed(const FormatDirective &directive, int64_t fraction, const FormatDecimal &decimal)
    {
        const int64_t point = decimal.point;
        const bool pointed = fraction > 0 || (directive.flags & FORMAT_ALTERNATE);
        FormatGroups groups(point, directive.flags & FORMAT_GROUPED ? mConventions.Grouping()
                                                                    : FORMAT_NO_GROUPING);
        const int64_t size =
            std::max<int64_t>(point, 1) + groups.separators + (pointed ? 1 : 0) + fraction;
        return Field(directive, Sign(directive, decimal.sign != 0), size, [&] {
            if (point <= 0) { mOutput.Zeroes(1); }
            Digits(decimal, 0, groups.leftmost);
            for (int64_t at = groups.leftmost; at < point;) {
                const int64_t count = groups.Next();
                mOutput.Text(mConventions.Separator(), 1);
                Digits(decimal, at, count);
                at += count;
            }
            if (pointed) { mOutput.Text(mConventions.DecimalPoint(), 1); }
            const int64_t zeroes = std::clamp<int64_t>(-point, 0, fraction);
            mOutput.Zeroes(zeroes);
            Digits(decimal, std::max<int64_t>(point, 0), fraction - zeroes);
        });
    }

    bool Exponential(const FormatDirective &directive, int64_t fraction,
                     const FormatDecimal &decimal)
    {
        const bool pointed = fraction > 0 || (directive.flags & FORMAT_ALTERNATE);
        const char letter = directive.conversion >= 'a' ? 'e' : 'E';
        char *exponent = mOutput.Scratch();
        const size_t exponentSize = bsd_exponent(exponent, decimal.point - 1, letter);
        const int64_t size = 1 + (pointed ? 1 : 0) + fraction + static_cast<int64_t>(exponentSize);
        return Field(directive, Sign(directive, decimal.sign != 0), size, [&] {
            Digits(decimal, 0, 1);
            if (pointed) { mOutput.Text(mConventions.DecimalPoint(), 1); }
            Digits(decimal, 1, fraction);
            mOutput.Text(exponent, exponentSize);
        });
    }

    // So many digits from an index on, with zeros for those that the number does not have.
    void Digits(const FormatDecimal &decimal, int64_t from, int64_t count)
    {
        const int64_t there = decimal.end - decimal.text.get();
        const int64_t length = std::clamp<int64_t>(there - from, 0, std::max<int64_t>(count, 0));
        mOutput.Text(decimal.text.get() + from, static_cast<size_t>(length));
        mOutput.Zeroes(count - length);
    }

    FormatOutput &mOutput;
    FormatConventions &mConventions;
    const char *mFormat;
    FormatArguments mArguments;
    int64_t mTotal = 0;
};

int FormatInto(char **bufp, FormatConventions *conventions, size_t size, const char *format,
               va_list arguments)
{
    const bool growable = *bufp == nullptr;
    char *buffer = *bufp;
    if (growable) {
        const size_t wanted = strlen(format) + FIRST_CAPACITY;
        size = *format == '\0' ? 1 : wanted - wanted % FIRST_CAPACITY;
        buffer = static_cast<char *>(malloc(size));
        if (buffer == nullptr) { return -1; }
    }
    FormatOutput output(buffer, size, growable);
    const int length = FormatEngine(&output, conventions, format, arguments).Run();
    const FormatSink &sink = output.Sink();
    if (length < 0) {
        if (growable) { free(sink.buffer); }
        return -1;
    }
    // A buffer of no size has no room for the NUL either.
    if (sink.capacity > 0) { sink.buffer[sink.length] = '\0'; }
    if (growable) { *bufp = sink.buffer; }
    return length;
}

} // namespace

extern "C" int bsd_vsnprintf_core(char **bufp, const char *grouping, char separator,
                                  const char *decimalPoint, size_t size, const char *format,
                                  va_list arguments)
{
    FormatConventions conventions(decimalPoint, separator, grouping);
    return FormatInto(bufp, &conventions, size, format, arguments);
}

extern "C" int bsd_vsnprintf(char **bufp, size_t size, const char *format, va_list arguments)
{
    FormatConventions ofTheLocale;
    return FormatInto(bufp, &ofTheLocale, size, format, arguments);
}

extern "C" int bsd_vsnprintf_c_locale(char **bufp, size_t size, const char *format,
                                      va_list arguments)
{
    return bsd_vsnprintf_core(bufp, nullptr, ',', ".", size, format, arguments);
}
