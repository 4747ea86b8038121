// format_bench.cpp -- compares Str_Snprintf and Str_Asprintf with other functions that format text.
#include "str.h"
#include "workloads.h"

#include <absl/strings/str_format.h>
#include <fmt/format.h>
#include <fmt/printf.h>
#include <glib.h>

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <langinfo.h>
#include <pthread.h>
#include <string>
#include <tuple>

#define STB_SPRINTF_IMPLEMENTATION
#define STB_SPRINTF_STATIC
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#include <stb/stb_sprintf.h>
#pragma GCC diagnostic pop

// The compiler must not know the formats: they come at run time, as any format may.
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace {

constexpr size_t SIZE = 8192;
char sBuffer[SIZE]; // every contender writes here

constexpr char GLIBC[] = "glibc", STB[] = "stb", FMT_SPRINTF[] = "fmt::sprintf",
               FMT_FORMAT[] = "fmt::format_to_n", ABSL[] = "absl";
constexpr char FMT_FORMAT_HEAP[] = "fmt::format", G_STRDUP[] = "g_strdup_printf";

// ---- Into a buffer

// Hides the values from the compiler in each call.
template <typename Call, typename... Values>
std::function<void(size_t)> WithValues(Call call, std::tuple<Values...> values)
{
    return Repeat([call, values] {
        return std::apply([&](auto... value) { return call(Opaque(value)...); }, values);
    });
}

// Returns the text that a contender writes into the buffer.
std::string Output(const std::function<void(size_t)> &run)
{
    memset(sBuffer, '#', SIZE);
    run(1);
    return sBuffer;
}

bool AreSame(const std::function<void(size_t)> &ours, const std::vector<Rival> &rivals)
{
    const std::string expected = Output(ours);
    bool same = true;
    for (const Rival &rival : rivals) {
        const std::string output = Output(rival.run);
        if (output == expected) { continue; }
        fprintf(stderr, "%s writes \"%s\", not \"%s\"\n", rival.name, output.c_str(),
                expected.c_str());
        same = false;
    }
    return same;
}

// absl and fmt::format_to_n check their formats at compile time, so their calls come as functions.
template <typename Absl, typename Fmt, typename... Values>
void IntoBuffer(const char *name, const char *format, bool isPositional, std::vector<Goal> goals,
                Absl absl, Fmt fmt, std::tuple<Values...> values, std::vector<Rival> more = {})
{
    const auto ours = WithValues(
        [format](auto... value) { return Str_Snprintf(sBuffer, SIZE, Opaque(format), value...); },
        values);
    std::vector<Rival> rivals = {
        {GLIBC,
         WithValues(
             [format](auto... value) { return snprintf(sBuffer, SIZE, Opaque(format), value...); },
             values)},
        {FMT_SPRINTF, WithValues(
                          [format](auto... value) {
                              const std::string text = fmt::sprintf(Opaque(format), value...);
                              // The others write into the buffer, too: that is the work here.
                              memcpy(sBuffer, text.c_str(), text.size() + 1);
                              return text.size();
                          },
                          values)},
        {FMT_FORMAT, WithValues(
                         [fmt](auto... value) {
                             char *end = fmt(sBuffer, value...);
                             *end = '\0';
                             return end - sBuffer;
                         },
                         values)},
        {ABSL, WithValues([absl](auto... value) { return absl(sBuffer, value...); }, values)},
    };
    if (!isPositional) { // stb has no such formats
        rivals.push_back({STB, WithValues(
                                   [format](auto... value) {
                                       return stbsp_snprintf(sBuffer, SIZE, Opaque(format),
                                                             value...);
                                   },
                                   values)});
    }
    rivals.insert(rivals.end(), more.begin(), more.end());
    const bool same = AreSame(ours, rivals);
    Workload(name, std::move(goals), ours, std::move(rivals), same);
}

// A row whose formats are literals; fmt's own format is in another language.
#define INTO_BUFFER(name, percents, braces, isPositional, goals, values, ...)                      \
    IntoBuffer(                                                                                    \
        name, percents, isPositional, goals,                                                       \
        [](char *to, auto... value) { return absl::SNPrintF(to, SIZE, percents, value...); },      \
        [](char *to, auto... value) {                                                              \
            return fmt::format_to_n(to, SIZE - 1, braces, value...).out;                           \
        },                                                                                         \
        values __VA_OPT__(, ) __VA_ARGS__)

using Goals = std::vector<Goal>;

// No peer that reads the format at run time may be faster; fmt reads the format at compile time.
Goals Readers(bool isPositional = false)
{
    Goals goals = {{GLIBC, 1.0}, {ABSL, 1.0}, {FMT_FORMAT, 1.25}};
    if (!isPositional) { goals.push_back({STB, 1.0}); }
    return goals;
}

// For floating numbers, the peers that print every digit exactly, which stb does not.
constexpr char LIMIT[] = "limit: call, list, lock, digits, copy";
Goals ExactReaders() { return {{GLIBC, 1.3}, {ABSL, 1.3}, {FMT_FORMAT, 1.3}, {LIMIT, 1.5}}; }

// Does the least work for a positive floating number here: copies the C library's digits under a
// lock, and writes them around the locale's point.  The exponent has two digits.
char *PutDigits(char *to, char letter, int precision, double value)
{
    static pthread_mutex_t sLock = PTHREAD_MUTEX_INITIALIZER;
    int point = 0, sign = 0;
    pthread_mutex_lock(&sLock);
    const char *converted = letter == 'f' ? fcvt(value, precision, &point, &sign)
                                          : ecvt(value, precision + (letter == 'e'), &point, &sign);
    char *text = strdup(converted);
    pthread_mutex_unlock(&sLock);
    const size_t whole = letter == 'e' ? 1 : static_cast<size_t>(point);
    memcpy(to, text, whole);
    to[whole] = *nl_langinfo(RADIXCHAR);
    const size_t rest = strlen(text + whole);
    memcpy(to + whole + 1, text + whole, rest);
    to += whole + 1 + rest;
    free(text);
    if (letter != 'e') { return to; }
    memcpy(to, "e+", 2);
    return std::to_chars(to + 2, to + 4, point - 1).ptr;
}

// Does the least work for a format here: a call with a list of arguments, which a second function
// reads by the format.  There are no flags, widths, sizes and limits, and few conversions.
[[gnu::noinline]] int LeastOfList(char *to, const char *format, va_list list)
{
    char *at = to;
    for (; *format != '\0'; format++) {
        if (*format != '%') {
            *at++ = *format;
            continue;
        }
        int precision = 6;
        if (*++format == '.') {
            for (precision = 0; *++format >= '0' && *format <= '9';) {
                precision = 10 * precision + *format - '0';
            }
        }
        at = *format == 'd' ? std::to_chars(at, at + 11, va_arg(list, int)).ptr
                            : PutDigits(at, *format, precision, va_arg(list, double));
    }
    *at = '\0';
    return static_cast<int>(at - to);
}

[[gnu::noinline]] int Least(char *to, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    const int length = LeastOfList(to, format, list);
    va_end(list);
    return length;
}

template <typename... Values>
Rival Limit(const char *name, const char *format, std::tuple<Values...> values)
{
    return {name,
            WithValues([format](auto... value) { return Least(sBuffer, Opaque(format), value...); },
                       values),
            false};
}

// Converts a number alone: no format is read.
Rival ToChars(double value, std::chars_format style, int precision)
{
    return {"std::to_chars alone", Repeat([=] {
                const auto end =
                    std::to_chars(sBuffer, sBuffer + SIZE, Opaque(value), style, precision);
                *end.ptr = '\0';
                return end.ptr;
            }),
            false};
}

// ---- Into new text

// Returns the text that the call makes: a std::string, or a block, which is then freed.
template <typename Call, typename... Values>
std::string Made(Call call, const std::tuple<Values...> &values)
{
    auto text = std::apply(call, values);
    const std::string taken = text;
    if constexpr (std::is_pointer_v<decltype(text)>) { free(text); }
    return taken;
}

template <typename Call, typename... Values>
std::function<void(size_t)> Making(Call call, std::tuple<Values...> values)
{
    return Repeat([call, values] {
        auto text = std::apply([&](auto... value) { return call(Opaque(value)...); }, values);
        asm volatile("" : : "m"(text) : "memory");
        if constexpr (std::is_pointer_v<decltype(text)>) { free(text); }
    });
}

template <typename Absl, typename Fmt, typename... Values>
void IntoNewText(const char *name, const char *format, Goals goals, Absl absl, Fmt fmt,
                 std::tuple<Values...> values, std::vector<Rival> more = {})
{
    const auto ours = [format](auto... value) {
        size_t length = 0; // requested, since asprintf returns it, too
        return Str_Asprintf(&length, Opaque(format), value...);
    };
    const std::string expected = Made(ours, values);
    bool same = true;
    std::vector<Rival> rivals;
    const auto add = [&](const char *rival, auto call) {
        same = same && Made(call, values) == expected;
        rivals.push_back({rival, Making(call, values)});
    };
    add(GLIBC, [format](auto... value) {
        char *text = nullptr;
        return asprintf(&text, Opaque(format), value...) < 0 ? nullptr : text;
    });
    add(G_STRDUP, [format](auto... value) { return g_strdup_printf(Opaque(format), value...); });
    add(FMT_SPRINTF, [format](auto... value) { return fmt::sprintf(Opaque(format), value...); });
    add(FMT_FORMAT_HEAP, fmt);
    add(ABSL, absl);
    rivals.insert(rivals.end(), more.begin(), more.end());
    Workload(name, std::move(goals), Making(ours, values), std::move(rivals), same);
}

// Makes a text of one string in a block that starts with 64 bytes and grows once.
char *MakeInTwoBlocks(const char *text)
{
    void *first = Opaque(malloc(64));
    const size_t length = strlen(text);
    char *block = static_cast<char *>(malloc(length / 64 * 64 + 64));
    free(first);
    memcpy(block, text, length + 1);
    return block;
}

#define INTO_NEW_TEXT(name, percents, braces, goals, values, ...)                                  \
    IntoNewText(                                                                                   \
        name, percents, goals, [](auto... value) { return absl::StrFormat(percents, value...); },  \
        [](auto... value) { return fmt::format(braces, value...); },                               \
        values __VA_OPT__(, ) __VA_ARGS__)

// ---- The workloads

constexpr char FOLDER[] = "/opt/products/Pelago1.app";               // 25 bytes
constexpr char FILE_BELOW[] = "/Contents/Library/shares/adduser.sh"; // 35
static_assert(sizeof FOLDER == 26 && sizeof FILE_BELOW == 36);

void Texts()
{
    INTO_BUFFER("%s%s, two paths", "%s%s", "{}{}", false, Readers(),
                std::tuple(FOLDER, FILE_BELOW));
    INTO_BUFFER("the PID-path message", "%s: Unable to write process %d to its file %s.\n",
                "{}: Unable to write process {} to its file {}.\n", false, Readers(),
                std::tuple("HostinfoDaemonize", 31415, "/var/run/pelago/shareTool.pid"));
    INTO_BUFFER("%2$s %1$s", "%2$s %1$s", "{1} {0}", true, Readers(true),
                std::tuple("first", "second"));
    static const std::string page(4096, 'p');
    static constexpr char STRLEN_AND_MEMCPY[] = "limit: strlen and memcpy";
    Goals goals = Readers();
    goals.push_back({STRLEN_AND_MEMCPY, 1.12});
    INTO_BUFFER("%s of 4 KiB", "%s", "{}", false, goals, std::tuple(page.c_str()),
                {{STRLEN_AND_MEMCPY, Repeat([] {
                      const char *text = Opaque(page.c_str());
                      const size_t length = strlen(text);
                      memcpy(sBuffer, text, length + 1);
                      return length;
                  }),
                  false}});
}

void Integers()
{
    static constexpr char CALL[] = "limit: call, list, std::to_chars";
    Goals goals = Readers();
    goals.push_back({CALL, 1.5});
    INTO_BUFFER("%d", "%d", "{}", false, goals, std::tuple(-1234567),
                {Limit(CALL, "%d", std::tuple(-1234567))});
    INTO_BUFFER("%08X:%08X%08X%08X%08X-", "%08X:%08X%08X%08X%08X-",
                "{:08X}:{:08X}{:08X}{:08X}{:08X}-", false, Readers(),
                std::tuple(0x1F2E3D4CU, 0xDEADBEEFU, 0x42U, 0x12345678U, 0xFFFFFFFFU));
    INTO_BUFFER("%5d|%-10s|%u", "%5d|%-10s|%u", "{:5}|{:<10}|{}", false, Readers(),
                std::tuple(42, "alice", 4000000000U));
    INTO_BUFFER("%lld, 19 digits", "%lld", "{}", false, Readers(),
                std::tuple(1234567890123456789LL));
}

void Floats()
{
    INTO_BUFFER("%.2f %.2f %.2f", "%.2f %.2f %.2f", "{:.2f} {:.2f} {:.2f}", false, ExactReaders(),
                std::tuple(3.14159, 1234.5678, 99.999),
                {Limit(LIMIT, "%.2f %.2f %.2f", std::tuple(3.14159, 1234.5678, 99.999))});
    INTO_BUFFER("%f", "%f", "{:.6f}", false, ExactReaders(), std::tuple(1234.5678),
                {ToChars(1234.5678, std::chars_format::fixed, 6),
                 Limit(LIMIT, "%f", std::tuple(1234.5678))});
    INTO_BUFFER("%g", "%g", "{:.6g}", false, ExactReaders(), std::tuple(1234.5678),
                {ToChars(1234.5678, std::chars_format::general, 6),
                 Limit(LIMIT, "%g", std::tuple(1234.5678))});
    INTO_BUFFER("%e", "%e", "{:.6e}", false, ExactReaders(), std::tuple(6.02214076e23),
                {ToChars(6.02214076e23, std::chars_format::scientific, 6),
                 Limit(LIMIT, "%e", std::tuple(6.02214076e23))});
    INTO_BUFFER("%.15g", "%.15g", "{:.15g}", false, ExactReaders(), std::tuple(3.14159265358979312),
                {ToChars(3.14159265358979312, std::chars_format::general, 15),
                 Limit(LIMIT, "%.15g", std::tuple(3.14159265358979312))});
}

void NewTexts()
{
    static const std::string text(200, 't');
    static constexpr char TWO_BLOCKS[] = "limit: two blocks";
    INTO_NEW_TEXT("%s of 200 bytes, new text", "%s", "{}",
                  (Goals{{nullptr, 1.2}, {TWO_BLOCKS, 1.5}}), std::tuple(text.c_str()),
                  {{TWO_BLOCKS, Making(MakeInTwoBlocks, std::tuple(text.c_str())), false}});
    INTO_NEW_TEXT("%s%s, new text", "%s%s", "{}{}", (Goals{{nullptr, 0.8}}),
                  std::tuple(FOLDER, FILE_BELOW));
}

} // namespace

int main(int argc, char **argv)
{
    Texts();
    Integers();
    Floats();
    NewTexts();
    GeometricMean("all fifteen", {GLIBC, 0.45});
    return RunWorkloads(argc, argv);
}
