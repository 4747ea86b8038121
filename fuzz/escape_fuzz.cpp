// Escapes any bytes, and reads them back.
#include "escape.h"

#include "scoped.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace pelago;

namespace {

// Frees the result and returns its text, which must be terminated.
std::string Taken(char *text, size_t size)
{
    const ScopedFree<char> block(text);
    if (!block || block.get()[size] != '\0') { abort(); }
    return std::string(block.get(), size);
}
std::string Taken(char *text) { return Taken(text, strlen(text)); }

void Expect(bool isTrue)
{
    if (!isTrue) { abort(); }
}

void ExpectHexUndone(char escByte, const std::string &in)
{
    int set[256] = {};
    set[static_cast<uint8_t>(escByte)] = 1;
    for (const char byte : in.substr(0, in.size() / 4)) {
        set[static_cast<uint8_t>(byte)] = -1;
    }
    size_t size = 0;
    char *text = Escape_Do(escByte, set, in.data(), in.size(), &size);
    const std::string escaped = Taken(text, size);
    text = Escape_Undo(escByte, escaped.data(), escaped.size(), &size);
    // If the escape byte is a hexadecimal digit, it also occurs in escapes, and undoing is
    // ambiguous.
    if (strchr("0123456789ABCDEF", escByte) == nullptr || escByte == '\0') {
        Expect(Taken(text, size) == in);
    } else {
        Taken(text, size);
    }
    text = Escape_Undo(escByte, in.data(), in.size(), &size);
    Expect(Taken(text, size).size() <= in.size());
}

// Expects the text that Escape_Sh() returns to be one word, which a shell reads as the input.
void ExpectOneWord(const std::string &in)
{
    size_t size = 0;
    char *text = Escape_Sh(in.data(), in.size(), &size);
    std::string word;
    char quote = '\0';
    for (const char byte : Taken(text, size)) {
        if (quote == '\0') {
            Expect(byte == '\'' || byte == '"');
            quote = byte;
        } else if (byte == quote) {
            quote = '\0';
        } else {
            Expect(quote == '\'' || byte == '\'');
            word += byte;
        }
    }
    Expect(quote == '\0' && word == in);
}

void ExpectLineEnds(const std::string &in)
{
    std::string wanted;
    for (size_t i = 0; i < in.size(); i++) {
        if (in[i] != '\r' || i + 1 == in.size() || in[i + 1] != '\n') { wanted += in[i]; }
    }
    size_t size = 0;
    char *text = Escape_AnsiToUnix(in.data(), in.size(), &size);
    Expect(Taken(text, size) == wanted);
}

void ExpectBackslashesUndone(const std::string &string)
{
    const std::string escaped = Taken(Escape_Comma(string.c_str()));
    Expect(Taken(Escape_Unescape('\\', escaped.c_str())) == string);
    Expect(Escape_Strchr('\\', escaped.c_str(), ',') == nullptr);
    size_t size = 0;
    char *text = Escape_BRE(string.data(), string.size(), &size);
    Expect(Taken(Escape_Unescape('\\', Taken(text, size).c_str())) == string);
    std::string changed = string;
    Expect(Escape_UnescapeCString(changed.data()) == '\0');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) { return 0; }
    const std::string in(reinterpret_cast<const char *>(data) + 1, size - 1);
    ExpectHexUndone(static_cast<char>(data[0]), in);
    ExpectOneWord(in);
    ExpectLineEnds(in);
    ExpectBackslashesUndone(in.c_str());
    return 0;
}
