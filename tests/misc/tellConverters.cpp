// tellConverters.cpp -- tellConverters FOLDER_OF_ICU writes a line for each of ICU's converters,
// with digests of its results for bytes and for text, and a line that says whether the program
// holds data of ICU's that converters do not need.
#include "codeset.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <unicode/ucnv.h>
#include <unicode/udata.h>

namespace {

// FNV-1a, the same on every host.
uint64_t Digest(std::string_view bytes, uint64_t digest = 0xCBF29CE484222325)
{
    for (const unsigned char byte : bytes) {
        digest = (digest ^ byte) * 0x100000001B3;
    }
    return digest;
}

constexpr char TEXT[] = "UTF-32LE";
constexpr std::string_view UNASSIGNED("\xFD\xFF\x10", 4); // U+10FFFD, which most encodings lack

std::string Converted(const char *from, const char *to, std::string_view in,
                      unsigned policy = CODESET_INVALID_SKIP)
{
    char *out = nullptr;
    size_t size = 0;
    if (!CodeSet_GenericToGeneric(from, in.data(), in.size(), to, policy, &out, &size)) {
        return "refused";
    }
    std::string converted(out, size);
    free(out);
    return converted;
}

// Returns every byte, and every pair of bytes.
std::string Bytes()
{
    std::string bytes;
    for (unsigned first = 0; first <= 0xFF; ++first) {
        bytes += static_cast<char>(first);
        for (unsigned second = 0; second <= 0xFF; ++second) {
            bytes += static_cast<char>(first);
            bytes += static_cast<char>(second);
        }
    }
    return bytes;
}

// Returns every character of the planes with characters that encodings have.
std::string Text()
{
    std::string text;
    for (uint32_t code = 0; code < 0x30000; ++code) {
        if (code >= 0xD800 && code <= 0xDFFF) { continue; }
        for (unsigned shift = 0; shift < 32; shift += 8) {
            text += static_cast<char>(code >> shift);
        }
    }
    return text;
}

void TellConverter(const char *name, const std::string &bytes, const std::string &text)
{
    uint64_t names = 0;
    UErrorCode status = U_ZERO_ERROR;
    for (uint16_t i = 0; i < ucnv_countAliases(name, &status); ++i) {
        names = Digest(ucnv_getAlias(name, i, &status), names);
    }
    const std::string encoded = Converted(TEXT, name, text);
    const std::string substitute = Converted(TEXT, name, UNASSIGNED, CODESET_INVALID_SUBSTITUTE);
    printf("%s %d", name, status);
    for (const uint64_t digest : {names, Digest(Converted(name, TEXT, bytes)), Digest(encoded),
                                  Digest(Converted(name, TEXT, encoded)), Digest(substitute)}) {
        printf(" %" PRIx64, digest);
    }
    printf("\n");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) { return 2; }
    CodeSet_Init(argv[1]);
    UErrorCode status = U_ZERO_ERROR;
    udata_close(udata_open(nullptr, "res", "root", &status));
    puts(U_SUCCESS(status) ? "all data" : "data of converters");
    const std::string bytes = Bytes(), text = Text();
    for (int32_t i = 0; i < ucnv_countAvailable(); ++i) {
        TellConverter(ucnv_getAvailableName(i), bytes, text);
    }
    return fflush(stdout) == 0 ? 0 : 1;
}
