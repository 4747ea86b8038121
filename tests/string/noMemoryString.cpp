// Tests of lib/string without memory.
#include "noMemory.h"

#include "bsd_vsnprintf.h"
#include "str.h"

#include <cstdarg>
#include <cstring>
#include <functional>

namespace {

const std::string WORD(300, 'w'); // longer than the first size of the engine's buffer

// ---- The engine

using Engine = int (*)(char **bufp, size_t size, const char *format, va_list arguments);

int Core(char **bufp, size_t size, const char *format, va_list arguments)
{
    return bsd_vsnprintf_core(bufp, "\3", ',', ".", size, format, arguments);
}

int Fill(Engine engine, char **bufp, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = engine(bufp, size, format, arguments);
    va_end(arguments);
    return length;
}

// Formats a number, a wide string and the ninth argument, which is far from the others.
constexpr char FAR_FORMAT[] = "%9$s|%1$f|%2$ls";
const std::string FAR_RESULT = WORD + "|1.500000|wide";

bool Grows(Engine engine)
{
    char *buffer = nullptr;
    const int length = Scarcely([&] {
        return Fill(engine, &buffer, 0, FAR_FORMAT, 1.5, L"wide", 0, 0, 0, 0, 0, 0, WORD.c_str());
    });
    EXPECT_EQ(length, buffer == nullptr ? -1 : static_cast<int>(FAR_RESULT.size()));
    return Gives(FAR_RESULT, buffer);
}

bool Fills(Engine engine)
{
    char buffer[400], *place = buffer;
    const int length = Scarcely([&] {
        return Fill(engine, &place, sizeof buffer, FAR_FORMAT, 1.5, L"wide", 0, 0, 0, 0, 0, 0,
                    WORD.c_str());
    });
    EXPECT_EQ(place, buffer);
    if (length < 0) { return false; }
    EXPECT_EQ(buffer, FAR_RESULT);
    return true;
}

// The engine aborts without the block for the types of this many arguments.
const std::vector<Ending> GROWS{FAILS, ABORTS, FAILS}, FILLS{ABORTS, FAILS};

RUNS_OUT(bsd_vsnprintf, GROWS) { return Grows(bsd_vsnprintf); }

RUNS_OUT_WHEN(bsd_vsnprintf, IntoABuffer, FILLS) { return Fills(bsd_vsnprintf); }

RUNS_OUT_WHEN(bsd_vsnprintf, ByEverFartherPositions, ABORTS, ABORTS, FAILS)
{
    char buffer[8], *place = buffer;
    return Scarcely([&] {
               return Fill(bsd_vsnprintf, &place, sizeof buffer, "%8$d%20$d", 1, 2, 3, 4, 5, 6, 7,
                           8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20);
           }) == 3;
}

NEEDS_NO_MEMORY_WHEN(bsd_vsnprintf, OfNothingSpecialAllocatesNothing)
{
    char buffer[16], *place = buffer;
    return Scarcely([&] {
               return Fill(bsd_vsnprintf, &place, sizeof buffer, "%s %2$x%7$c", "a", 2, 3, 4, 5, 6,
                           '7');
           }) == 4;
}

RUNS_OUT(bsd_vsnprintf_c_locale, GROWS) { return Grows(bsd_vsnprintf_c_locale); }

RUNS_OUT_WHEN(bsd_vsnprintf_c_locale, IntoABuffer, FILLS) { return Fills(bsd_vsnprintf_c_locale); }

RUNS_OUT(bsd_vsnprintf_core, GROWS) { return Grows(Core); }

RUNS_OUT_WHEN(bsd_vsnprintf_core, IntoABuffer, FILLS) { return Fills(Core); }

// ---- The functions that call the engine

// Returns whether a bounded formatter succeeds.  When it fails, it must terminate its buffer.
bool Fits(const std::function<int(char *buffer, size_t size)> &format)
{
    char buffer[16];
    memset(buffer, '#', sizeof buffer);
    const int length = Scarcely([&] { return format(buffer, sizeof buffer); });
    if (length < 0) {
        EXPECT_LT(strnlen(buffer, sizeof buffer), sizeof buffer);
        return false;
    }
    EXPECT_STREQ(buffer, "0.5 wide");
    return true;
}

int FillBuffer(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = Str_Vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

char *Make(decltype(&Str_Vasprintf) make, size_t *lengthOut, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char *text = make(lengthOut, format, arguments);
    va_end(arguments);
    return text;
}

RUNS_OUT(Str_Vsnprintf, FAILS)
{
    return Fits(
        [](char *buffer, size_t size) { return FillBuffer(buffer, size, "%g %ls", 0.5, L"wide"); });
}

RUNS_OUT(Str_Snprintf, FAILS)
{
    return Fits([](char *buffer, size_t size) {
        return Str_Snprintf(buffer, size, "%g %ls", 0.5, L"wide");
    });
}

RUNS_OUT(Str_Sprintf, Panics("lib/string/str:214 Buffer too small\n"))
{
    return Fits([](char *buffer, size_t size) {
        return Str_Sprintf(buffer, size, "%g %ls", 0.5, L"wide");
    });
}

RUNS_OUT(Str_SprintfCLocale, Panics("lib/string/str:177 Buffer too small\n"))
{
    return Fits([](char *buffer, size_t size) {
        return Str_SprintfCLocale(buffer, size, "%g %ls", 0.5, L"wide");
    });
}

RUNS_OUT(Str_Vasprintf, FAILS)
{
    return Builds("0.5 " + WORD, [](size_t *lengthOut) {
        return Make(Str_Vasprintf, lengthOut, "%g %s", 0.5, WORD.c_str());
    });
}

RUNS_OUT(Str_Asprintf, FAILS)
{
    return Builds("0.5 " + WORD, [](size_t *lengthOut) {
        return Str_Asprintf(lengthOut, "%g %s", 0.5, WORD.c_str());
    });
}

RUNS_OUT(Str_SafeVasprintf, Panics("VERIFY lib/string/str:657\n"))
{
    return Builds("0.5 " + WORD, [](size_t *lengthOut) {
        return Make(Str_SafeVasprintf, lengthOut, "%g %s", 0.5, WORD.c_str());
    });
}

RUNS_OUT(Str_SafeAsprintf, Panics("VERIFY lib/string/str:657\n"))
{
    return Builds("0.5 " + WORD, [](size_t *lengthOut) {
        return Str_SafeAsprintf(lengthOut, "%g %s", 0.5, WORD.c_str());
    });
}

NEEDS_NO_MEMORY(Str_Strcpy)
{
    char to[8];
    return Scarcely([&] { return Str_Strcpy(to, "text", sizeof to); }) == to;
}

NEEDS_NO_MEMORY(Str_Strncpy)
{
    char to[8];
    return Scarcely([&] { return Str_Strncpy(to, sizeof to, "text", 2); }) == to;
}

NEEDS_NO_MEMORY(Str_Strcat)
{
    char to[8] = "a";
    return Scarcely([&] { return Str_Strcat(to, "text", sizeof to); }) == to;
}

NEEDS_NO_MEMORY(Str_Strncat)
{
    char to[8] = "a";
    return Scarcely([&] { return Str_Strncat(to, sizeof to, "text", 2); }) == to;
}

NEEDS_NO_MEMORY(Str_Strlen)
{
    return Scarcely([] { return Str_Strlen("text", 9); }) == 4;
}

NEEDS_NO_MEMORY(Str_Strnstr)
{
    const char in[] = "a text";
    return Scarcely([&] { return Str_Strnstr(in, "text", 6); }) == in + 2;
}

NEEDS_NO_MEMORY(Str_ToLower)
{
    char text[] = "A";
    return *Scarcely([&] { return Str_ToLower(text); }) == 'a';
}

NEEDS_NO_MEMORY(Str_ToUpper)
{
    char text[] = "a";
    return *Scarcely([&] { return Str_ToUpper(text); }) == 'A';
}

} // namespace
