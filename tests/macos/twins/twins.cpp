// twins.cpp -- prints the library's results for generated inputs, to compare two hosts.
//    twins AREA SEED BLOCKS SIZE       writes a digest of each block; a block has SIZE inputs
//    twins AREA SEED BLOCK SIZE show   writes each input of one block and its result, a line each
//    twins areas                       lists the areas
//    twins differences                 writes the results in which the hosts are known to differ
#include "twins.h"

#include "diagnostics.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

struct Area {
    const char *name;
    void (*run)(Numbers &numbers, Trial *trial);
};
constexpr Area AREAS[] = {
    {"integers", Integers},
    {"floats", Floats},
    {"texts", Texts},
    {"positions", Positions},
    {"anyFormats", AnyFormats},
    {"conversions", Conversions},
    {"conversionsWithoutIcu", ConversionsWithoutIcu},
    {"unicodeStrings", UnicodeStrings},
    {"utfConverters", UtfConverters},
    {"normalization", Normalization},
    {"encodingNames", EncodingNames},
    {"escapes", Escapes},
    {"tables", Tables},
    {"strings", Strings},
    {"addresses", Addresses},
    {"paths", Paths},
    {"expansion", Expansion},
};

std::string sLogged;

void LogMore(const char *format, va_list arguments)
{
    char text[4096];
    vsnprintf(text, sizeof text, format, arguments);
    sLogged += text;
}

Trial TrialOf(const Area &area, uint64_t seed, uint64_t number)
{
    Numbers numbers(Numbers(seed).Next() + number);
    Trial trial;
    area.run(numbers, &trial);
    trial.AddResult(Logged());
    return trial;
}

uint64_t Digest(uint64_t digest, const std::string &text)
{
    for (const char byte : text) {
        digest = (digest ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
    }
    return digest;
}

void WriteDigests(const Area &area, uint64_t seed, uint64_t blocks, uint64_t size)
{
    for (uint64_t block = 0; block < blocks; block++) {
        uint64_t digest = 0xCBF29CE484222325;
        for (uint64_t i = 0; i < size; i++) {
            const Trial trial = TrialOf(area, seed, block * size + i);
            digest = Digest(Digest(digest, trial.input), trial.result);
        }
        printf("%016llx\n", static_cast<unsigned long long>(digest));
    }
}

void WriteEscaped(const std::string &text)
{
    for (const char byte : text) {
        if (byte >= ' ' && byte <= '~' && byte != '\\') {
            putchar(byte);
        } else {
            printf("\\x%02X", static_cast<unsigned char>(byte));
        }
    }
}

void Show(const Area &area, uint64_t seed, uint64_t block, uint64_t size)
{
    for (uint64_t i = 0; i < size; i++) {
        const Trial trial = TrialOf(area, seed, block * size + i);
        WriteEscaped(trial.input);
        fputs("  gives  ", stdout);
        WriteEscaped(trial.result);
        putchar('\n');
    }
}

const Area *AreaOf(const char *name)
{
    for (const Area &area : AREAS) {
        if (strcmp(area.name, name) == 0) { return &area; }
    }
    return nullptr;
}

} // namespace

std::string Logged()
{
    std::string logged;
    logged.swap(sLogged);
    return logged;
}

std::string AnyText(Numbers &numbers, size_t characters)
{
    static constexpr uint32_t FIRSTS[] = {'a',    0x20,   0x80,   0xC0,   0x300,  0x391,   0x410,
                                          0x5D0,  0x900,  0x1100, 0x1E00, 0x2000, 0x3041,  0x4E00,
                                          0xAC00, 0xE000, 0xF900, 0xFF61, 0xFFF0, 0x1F600, 0x20000};
    std::string text;
    for (size_t i = 0; i < characters; i++) {
        uint32_t value = numbers.Of(FIRSTS) + numbers.Below(64);
        if (numbers.OneIn(8)) { value = 1 + numbers.Below(0x10FFFF); }
        if (value >= 0xD800 && value <= 0xDFFF) { value = 0xFFFD; }
        const auto tail = [value](unsigned shift) {
            return static_cast<char>(0x80 | ((value >> shift) & 0x3F));
        };
        if (value < 0x80) {
            text += static_cast<char>(value);
        } else if (value < 0x800) {
            text += {static_cast<char>(0xC0 | (value >> 6)), tail(0)};
        } else if (value < 0x10000) {
            text += {static_cast<char>(0xE0 | (value >> 12)), tail(6), tail(0)};
        } else {
            text += {static_cast<char>(0xF0 | (value >> 18)), tail(12), tail(6), tail(0)};
        }
    }
    return text;
}

extern "C" void Warning(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    LogMore(format, arguments);
    va_end(arguments);
}

extern "C" void Log(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    LogMore(format, arguments);
    va_end(arguments);
}

extern "C" void Panic(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    exit(1);
}

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], "areas") == 0) {
        for (const Area &area : AREAS) {
            puts(area.name);
        }
        return 0;
    }
    if (argc == 2 && strcmp(argv[1], "differences") == 0) {
        WriteDifferences();
        return 0;
    }
    const Area *area = argc < 5 ? nullptr : AreaOf(argv[1]);
    if (area == nullptr) {
        fputs("usage: twins AREA SEED BLOCKS SIZE [show]\n", stderr);
        return 2;
    }
    const auto number = [argv](int i) { return strtoull(argv[i], nullptr, 10); };
    (argc > 5 ? Show : WriteDigests)(*area, number(2), number(3), number(4));
    return 0;
}
