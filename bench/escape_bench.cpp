// Escapes and unescapes, and compares the library with its peers.  The texts are letters with one
// special byte in every 16, whose position in its 16 varies.
#include "escape.h"
#include "workloads.h"

#include <cstdlib>
#include <cstring>
#include <glib.h>
#include <memory>
#include <random>
#include <string>

namespace {

using Text = std::shared_ptr<const std::string>;

Text Sample(size_t size, char special)
{
    std::mt19937 random(7);
    std::string text;
    while (text.size() < size) {
        text += static_cast<char>('a' + random() % 26);
    }
    for (size_t i = 0; i + 16 <= size; i += 16) {
        text[i + random() % 16] = special;
    }
    return std::make_shared<const std::string>(text);
}

std::string Taken(char *text)
{
    const std::string taken = text;
    free(text);
    return taken;
}

// The bytes that g_uri_escape_string() escapes, and those that g_strescape() does.
struct ByteSets {
    int uri[256], backslash[256];
    ByteSets()
    {
        for (int byte = 0; byte < 256; byte++) {
            const bool isPlain = byte < 128 && (g_ascii_isalnum(byte) || strchr("-._~", byte));
            uri[byte] = byte == 0 || !isPlain;
            backslash[byte] = byte < ' ' || byte > '~' || byte == '"' || byte == '\\';
        }
    }
} const SETS;

void Size(const std::string &name, size_t size, double sh, double uri, double backslash,
          double undo)
{
    static std::vector<std::unique_ptr<std::string>> names;
    const auto title = [&](const char *what) {
        names.push_back(std::make_unique<std::string>(what + name));
        return names.back()->c_str();
    };
    const Text quotes = Sample(size, '\''), blanks = Sample(size, ' '),
               backslashes = Sample(size, '\\');

    const auto ourSh = [=] { return Escape_Sh(quotes->data(), quotes->size(), nullptr); };
    const auto glibSh = [=] { return g_shell_quote(quotes->c_str()); };
    // The peer escapes a quote differently; a shell reads both as the same text.
    gchar *word = g_shell_unquote(Taken(ourSh()).c_str(), nullptr);
    Workload(title("Escape_Sh"), {{"g_shell_quote", sh}}, Repeat([=] { free(ourSh()); }),
             {{"g_shell_quote", Repeat([=] { g_free(glibSh()); })}},
             word != nullptr && Taken(word) == *quotes);

    const auto ourUri = [=] {
        return Escape_Do('%', SETS.uri, blanks->data(), blanks->size(), nullptr);
    };
    const auto glibUri = [=] { return g_uri_escape_string(blanks->c_str(), nullptr, FALSE); };
    const std::string escaped = Taken(ourUri());
    Workload(title("Escape_Do, percent"), {{"g_uri_escape_string", uri}},
             Repeat([=] { free(ourUri()); }),
             {{"g_uri_escape_string", Repeat([=] { g_free(glibUri()); })}},
             escaped == Taken(glibUri()));

    const auto ourHex = [=] {
        return Escape_Do('\\', SETS.backslash, backslashes->data(), backslashes->size(), nullptr);
    };
    const auto glibHex = [=] { return g_strescape(backslashes->c_str(), nullptr); };
    // The peer doubles a backslash, so this compares the unescaped texts.
    const std::string hex = Taken(ourHex());
    Workload(title("Escape_Do, backslash"), {{"g_strescape", backslash}},
             Repeat([=] { free(ourHex()); }), {{"g_strescape", Repeat([=] { g_free(glibHex()); })}},
             Taken(Escape_Undo('\\', hex.data(), hex.size(), nullptr)) == *backslashes &&
                 Taken(g_strcompress(Taken(glibHex()).c_str())) == *backslashes);

    const Text in = std::make_shared<const std::string>(escaped);
    const auto ourUndo = [=] { return Escape_Undo('%', in->data(), in->size(), nullptr); };
    const auto glibUndo = [=] { return g_uri_unescape_string(in->c_str(), nullptr); };
    Workload(title("Escape_Undo"), {{"g_uri_unescape_string", undo}},
             Repeat([=] { free(ourUndo()); }),
             {{"g_uri_unescape_string", Repeat([=] { g_free(glibUndo()); })}},
             Taken(ourUndo()) == *blanks && Taken(glibUndo()) == *blanks);
}

} // namespace

int main(int argc, char **argv)
{
    Size(", 64 B", 64, 0.6, 0.6, 0.6, 0.6);
    Size(", 4 KiB", 4096, 0.2, 0.3, 0.5, 0.3);
    return RunWorkloads(argc, argv);
}
