// Expands any text, and compares the result and the log with those of a second implementation,
// which reads byte by byte and calls the user database differently.
#include "util.h"

#include "diagnostics.h"

#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <pwd.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t MOST_PIECES = 100;

std::string sLogged;

void Expect(bool isSo)
{
    if (!isSo) { abort(); }
}

// ---- The environment

struct Setting {
    const char *home; // overrides the home folder unless nullptr
    std::map<std::string, std::string> variables;
};

Setting SettingOf(uint8_t choice)
{
    Setting setting = {nullptr, {{"A", "1"}, {"EMPTY", ""}, {"HOME", "/u"}, {"_N9", "$A~/"}}};
    const auto choose = [&](const char *name, const char *value) {
        if ((choice & 1) != 0) { setting.variables[name] = value; }
        choice >>= 1;
    };
    choose("PID", "number");
    choose("pid", "");
    choose("USER", "somebody");
    choose("uSER", "$A");
    choose("CFFIXED_USER_HOME", "/fixed");
    if ((choice & 1) != 0) { setting.home = (choice & 2) != 0 ? "$A" : "/over"; }
    return setting;
}

void Use(const Setting &setting)
{
    static const char *kept;
    Util_OverrideHomeDir(nullptr);
    free(const_cast<char *>(kept)); // the library does not free it
    kept = Util_OverrideHomeDir(setting.home);
    clearenv();
    for (const auto &[name, value] : setting.variables) {
        setenv(name.c_str(), value.c_str(), 1);
    }
}

// ---- The second implementation

struct Reading {
    std::optional<std::string> text;
    std::string log;
};

bool IsOfName(char byte)
{
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
           (byte >= '0' && byte <= '9') || byte == '_';
}

std::vector<std::string> Pieces(const std::string &text)
{
    enum { TEXT, NAME, TILDE } inside = TEXT;
    std::vector<std::string> pieces;
    for (const char byte : text) {
        const bool isFirst = pieces.empty();
        bool begins = isFirst;
        switch (inside) {
        case TEXT: begins = begins || byte == '$'; break;
        case NAME: begins = begins || !IsOfName(byte); break;
        case TILDE: begins = byte == '/'; break;
        }
        if (begins) {
            inside = byte == '$' ? NAME : byte == '~' && isFirst ? TILDE : TEXT;
            pieces.emplace_back();
        }
        pieces.back() += byte;
    }
    return pieces;
}

struct User {
    std::string name, home;
};

std::optional<User> Find(const std::string &name)
{
    passwd record, *found = nullptr;
    std::vector<char> buffer(65536);
    if (name.empty()) {
        getpwuid_r(getuid(), &record, buffer.data(), buffer.size(), &found);
    } else {
        getpwnam_r(name.c_str(), &record, buffer.data(), buffer.size(), &found);
    }
    if (found == nullptr) { return std::nullopt; }
    return User{record.pw_name, record.pw_dir};
}

std::string Home(const Setting &setting, const std::string &piece, std::string *log)
{
    if (setting.home != nullptr) { return setting.home; }
    const std::string user = piece.substr(1);
    const auto fixed = setting.variables.find("CFFIXED_USER_HOME");
    if (user.empty() && fixed != setting.variables.end()) { return fixed->second; }
    const std::optional<User> found = Find(user);
    if (found) { return found->home; }
    if (user.empty()) {
        *log += "Could not get passwd for current user.\n";
        return setting.variables.at("HOME");
    }
    *log += "Could not get passwd for user '" + user + "'.\n";
    return piece;
}

std::string Value(const Setting &setting, const std::string &name, const std::string &text,
                  std::string *log)
{
    const auto variable = setting.variables.find(name);
    if (variable != setting.variables.end()) { return variable->second; }
    std::string upper;
    for (const char byte : name) {
        upper += static_cast<char>(toupper(static_cast<unsigned char>(byte)));
    }
    if (upper == "PID") { return std::to_string(getpid()); }
    if (upper == "USER") {
        const std::optional<User> own = Find("");
        return own ? own->name : "unknown";
    }
    *log += "Environment variable '" + name + "' not defined in '" + text + "'.\n";
    return "";
}

Reading Read(const Setting &setting, const std::string &text)
{
    const std::vector<std::string> pieces = Pieces(text);
    Reading reading;
    if (pieces.size() > MOST_PIECES) {
        reading.log = "Util_ExpandString: Filename \"" + text + "\" has too many chunks.\n";
        return reading;
    }
    reading.text = "";
    for (const std::string &piece : pieces) {
        if (piece[0] == '~' && &piece == &pieces[0]) {
            *reading.text += Home(setting, piece, &reading.log);
        } else if (piece[0] == '$' && piece.size() > 1) {
            *reading.text += Value(setting, piece.substr(1), text, &reading.log);
        } else {
            *reading.text += piece;
        }
    }
    return reading;
}

} // namespace

extern "C" void Log(const char *format, ...)
{
    va_list arguments, again;
    va_start(arguments, format);
    va_copy(again, arguments);
    std::vector<char> line(static_cast<size_t>(vsnprintf(nullptr, 0, format, arguments)) + 1);
    vsnprintf(line.data(), line.size(), format, again);
    va_end(again);
    va_end(arguments);
    sLogged += line.data();
}
extern "C" void Warning(const char *, ...) { abort(); }
extern "C" void Panic(const char *, ...) { abort(); }

// The first byte of the input chooses the setting; the rest is the text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) { return 0; }
    const Setting setting = SettingOf(data[0]);
    Use(setting);
    const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    const Reading expected = Read(setting, text.c_str());
    sLogged.clear();
    char *expanded = Util_ExpandString(text.c_str());
    Expect((expanded != nullptr) == expected.text.has_value());
    Expect(expanded == nullptr || expanded == *expected.text);
    Expect(sLogged == expected.log);
    free(expanded);
    return 0;
}
