// scriptArguments_fuzz.cpp -- the share scripts' checks of users' names, shares' names and password
// files.  Each is accepted or refused by plain rules, and no message has a control character.
#include "names.h"
#include "password.h"
#include "report.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

// ---- The rules, written differently than in the product

// Returns the code points of the text; -1 for each byte that is not UTF-8.
std::basic_string<int32_t> Characters(const std::string &text)
{
    std::basic_string<int32_t> characters;
    for (size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        int32_t value = length == 1 ? lead : lead & (0x7F >> length);
        bool isWhole = i + length <= text.size() && (lead < 0x80 || (lead >= 0xC2 && lead <= 0xF4));
        for (size_t k = 1; isWhole && k < length; k++) {
            const auto byte = static_cast<unsigned char>(text[i + k]);
            isWhole = (byte & 0xC0) == 0x80;
            value = value << 6 | (byte & 0x3F);
        }
        static constexpr int32_t LEAST[] = {0, 0, 0x80, 0x800, 0x10000};
        isWhole = isWhole && value >= LEAST[length] && value <= 0x10FFFF &&
                  (value < 0xD800 || value > 0xDFFF);
        characters += isWhole ? value : -1;
        i += isWhole ? length : 1;
    }
    return characters;
}

bool IsUserName(const std::string &name)
{
    static constexpr char FIRST[] = "abcdefghijklmnopqrstuvwxyz_", LATER[] = "0123456789.-";
    if (name.empty() || name.size() > 32 || strchr(FIRST, name[0]) == nullptr) { return false; }
    if (name.find_first_not_of(std::string(FIRST) + LATER) != std::string::npos) { return false; }
    return !(name.size() > 2 && name.compare(0, 2, "s-") == 0 && name[2] >= '0' && name[2] <= '9');
}

bool IsReserved(const std::string &name)
{
    std::string plain;
    for (const char c : name) {
        if (c != ' ') { plain += c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }
    }
    // The small letters of the Kelvin sign and the long s are ASCII.
    for (const auto &[from, to] : {std::pair("\xE2\x84\xAA", "k"), std::pair("\xC5\xBF", "s")}) {
        for (size_t at = plain.find(from); at != std::string::npos; at = plain.find(from)) {
            plain.replace(at, strlen(from), to);
        }
    }
    for (const char *word : {".", "..", "global", "globals", "home", "homes", "printer", "printers",
                             "print$", "ipc$", "admin$", "netlogon", "sysvol"}) {
        if (plain == word) { return true; }
    }
    return false;
}

bool IsShareName(const std::string &name)
{
    size_t units = 0;
    for (const int32_t character : Characters(name)) {
        if (character < 0x20 || character == 0x7F) { return false; }
        if (character < 0x80 && strchr("%<>*?|/\\+=;:\",[]", character) != nullptr) {
            return false;
        }
        units += character > 0xFFFF ? 2 : 1;
    }
    if (units == 0 || units > 80 || name.front() == ' ' || name.back() == ' ') { return false; }
    return name.find("  ") == std::string::npos && !IsReserved(name);
}

// Returns whether a file with these bytes has a password, and stores it.
bool HasPassword(const std::string &bytes, std::string *password)
{
    *password = bytes.substr(0, bytes.size() - (!bytes.empty() && bytes.back() == '\n' ? 1 : 0));
    return !password->empty() && password->size() <= 127 &&
           password->find_first_of(std::string("\n\0", 2)) == std::string::npos;
}

// ---- The product's answers

// Returns whether the check accepts its argument; the reason of a refusal must have no control
// characters.
template <typename Check> bool Accepts(const Check &check)
{
    try {
        check();
        return true;
    } catch (const Failure &failure) {
        for (const char *byte = failure.what(); *byte != '\0'; byte++) {
            if (static_cast<unsigned char>(*byte) < 0x20 || *byte == 0x7F) {
                fprintf(stderr, "a control character in the reason\n");
                abort();
            }
        }
        return false;
    }
}

void Compare(bool ours, bool rule, const char *what)
{
    if (ours != rule) {
        fprintf(stderr, "%s is %s\n", what, ours ? "accepted" : "refused");
        abort();
    }
}

void ComparePasswords(const std::string &bytes)
{
    const int fd = memfd_create("password", MFD_CLOEXEC);
    if (fd < 0 || fchmod(fd, 0600) != 0 ||
        write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        abort();
    }
    std::string ours, rule;
    const bool isRead =
        Accepts([&] { ours = ReadPassword("/proc/self/fd/" + std::to_string(fd)); });
    close(fd);
    Compare(isRead, HasPassword(bytes, &rule), "a password");
    if (isRead && ours != rule) { abort(); }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    Compare(Accepts([&] { CheckUserName(bytes); }), IsUserName(bytes), "a user's name");
    Compare(Accepts([&] { CheckShareName(bytes); }), IsShareName(bytes), "a share's name");
    ComparePasswords(bytes);
    return 0;
}
