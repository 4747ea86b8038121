// sambaConfiguration.cpp -- parses testparm's output, and makes and verifies shares.
#include "samba.h"

#include "names.h"
#include "program.h"
#include "report.h"

#include "hostFile.h"

#include <algorithm>
#include <array>
#include <strings.h>

using namespace pelago::platform;

namespace {

struct Setting {
    const char *name;
    const char *value;   // its value in the share; nullptr: it depends on the request
    const char *builtIn; // Samba's default, which testparm does not print
};

// All settings that decide who may connect, as which user, with what rights, and which links are
// followed.  A setting that is not set here would have the host's default, which may admit others
// or make the share useless.
constexpr Setting SETTINGS[] = {
    {"path", nullptr, ""},
    {"valid users", nullptr, ""},
    {"force user", nullptr, ""},
    {"read only", nullptr, "yes"},
    {"force group", "", ""},
    {"invalid users", "", ""},
    {"admin users", "", ""},
    {"read list", "", ""},
    {"write list", "", ""},
    {"available", "yes", "yes"},
    {"guest ok", "no", "no"},
    {"guest only", "no", "no"},
    {"administrative share", "no", "no"},
    {"printable", "no", "no"},
    {"max connections", "0", "0"},
    {"server smb encrypt", "required", "default"},
    {"follow symlinks", "yes", "yes"},
    {"wide links", "no", "no"},
    {"msdfs root", "no", "no"},
    {"msdfs proxy", "", ""},
    {"vfs objects", "", ""},
    {"create mask", "0744", "0744"},
    {"directory mask", "0755", "0755"},
    {"force create mode", "0000", "0000"},
    {"force directory mode", "0000", "0000"},
    {"inherit permissions", "no", "no"},
    {"inherit acls", "no", "no"},
    {"inherit owner", "no", "no"},
    {"acl group control", "no", "no"},
    {"acl check permissions", "yes", "yes"},
    {"dos filemode", "no", "no"},
    {"force unknown acl user", "no", "no"},
    {"preexec", "", ""},
    {"postexec", "", ""},
    {"root preexec", "", ""},
    {"root postexec", "", ""},
    {"preexec close", "no", "no"},
    {"root preexec close", "no", "no"},
    // It would run a file that the client has written, as the folder's owner.
    {"magic script", "", ""},
};

// Returns the value that the share must have.
std::string ValueFor(const Setting &setting, const ShareRequest &request)
{
    if (setting.value != nullptr) { return setting.value; }
    const std::string name = setting.name;
    if (name == "path") { return request.path; }
    if (name == "valid users") { return request.userSid; }
    if (name == "force user") { return request.owner; }
    return request.isReadOnly ? "yes" : "no";
}

std::string SmallLetters(std::string_view text)
{
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](unsigned char c) { return tolower(c); });
    return result;
}

std::string_view Trimmed(std::string_view text)
{
    const size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) { return {}; }
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

bool IsSameValue(const std::string &one, const std::string &other)
{
    return strcasecmp(one.c_str(), other.c_str()) == 0;
}

// Returns whether the protocol of this name, such as SMB2_02 or NT1, is older than SMB 2.
bool IsBeforeSmb2(const std::string &protocol)
{
    const std::string name = SmallLetters(protocol);
    return !name.starts_with("smb2") && !name.starts_with("smb3") && name != "default";
}

// Returns whether [global] lets Samba encrypt connections.  testparm prints "off" as "No".
bool CanEncrypt(const SambaConfiguration &configuration)
{
    const std::string ciphers =
        configuration.Global("server smb3 encryption algorithms", "AES-128-GCM");
    return SmallLetters(configuration.Global("server max protocol", "SMB3")).starts_with("smb3") &&
           !IsSameValue(configuration.Global("server smb encrypt", "default"), "No") &&
           SmallLetters(ciphers).find("aes") != std::string::npos;
}

// Calls visit with each name of a list, which is split where Samba splits it.
template <typename Visit> void ForEachName(std::string_view names, const Visit &visit)
{
    constexpr char SEPARATORS[] = " \t\r\n,;\\";
    size_t end = 0;
    for (size_t begin; (begin = names.find_first_not_of(SEPARATORS, end)) != names.npos;) {
        end = std::min(names.find_first_of(SEPARATORS, begin), names.size());
        visit(std::string(names.substr(begin, end - begin)));
    }
}

// Returns whether the file, Samba's "username map", may map this client's name to another user;
// true also when the file cannot be read.  A line holds the host's name, "=" and names of clients;
// it continues on the next line after a backslash at its end.
bool IsMapped(const std::string &file, const std::string &user)
{
    std::string text;
    if (file.empty()) { return false; }
    if (HostReadText(file.c_str(), &text) != 0) { return true; }
    bool isMapped = false;
    HostForEachLine(text, [&](std::string_view line) {
        const std::string_view trimmed = Trimmed(line);
        if (trimmed.starts_with('#') || trimmed.starts_with(';')) { return; }
        const size_t equals = trimmed.find('=');
        ForEachName(equals == trimmed.npos ? trimmed : trimmed.substr(equals + 1),
                    [&](const std::string &name) {
                        // A group, such as "@staff", may contain the user.
                        isMapped = isMapped || IsSameValue(name, user) ||
                                   name.find_first_of("*@+&\"") != std::string::npos;
                    });
    });
    return isMapped;
}

// Returns the share as a section of smb.conf.
std::string ShareText(const ShareRequest &request)
{
    std::string text = '[' + request.name + "]\n";
    for (const Setting &setting : SETTINGS) {
        text += std::string(setting.name) + " = " + ValueFor(setting, request) + '\n';
    }
    return text;
}

// Returns the key under which a share is found.  A name in smb.conf that is not UTF-8 is its own
// key.
std::string Key(const std::string &share) { return IsUtf8(share) ? Folded(share) : share; }

} // namespace

SambaConfiguration::SambaConfiguration(std::string_view text)
{
    Section *section = nullptr;
    HostForEachLine(text, [&](std::string_view line) {
        if (line.starts_with('[') && line.ends_with(']')) {
            const std::string name(line.substr(1, line.size() - 2));
            const bool isGlobal = name == "global";
            section = isGlobal ? &mGlobal : &mShares[Key(name)];
            if (!isGlobal) { mNames.push_back(name); }
            return;
        }
        const size_t equals = line.find(" =");
        if (section == nullptr || !line.starts_with('\t') || equals == std::string_view::npos) {
            return;
        }
        (*section)[SmallLetters(line.substr(1, equals - 1))] = Trimmed(line.substr(equals + 2));
    });
}

SambaConfiguration SambaConfiguration::Read()
{
    // The output also holds remarks for people; the parser skips them, as they begin without a tab.
    const Outcome outcome = RunProgram({"testparm", "-s"});
    if (!outcome.IsSuccess()) {
        Fail("cannot read Samba's configuration: " + OneLine(outcome.output));
    }
    return SambaConfiguration(outcome.output);
}

std::string SambaConfiguration::Global(const std::string &name, const std::string &builtIn) const
{
    const auto found = mGlobal.find(name);
    return found == mGlobal.end() ? builtIn : found->second;
}

const SambaConfiguration::Section *SambaConfiguration::Find(const std::string &share) const
{
    const auto found = mShares.find(Key(share));
    return found == mShares.end() ? nullptr : &found->second;
}

std::vector<std::string> SambaConfiguration::Shares() const { return mNames; }

std::string SambaConfiguration::PathOf(const std::string &share) const
{
    const Section *section = Find(share);
    const auto path = section ? section->find("path") : Section::const_iterator();
    return section == nullptr || path == section->end() ? std::string() : path->second;
}

std::vector<std::string> HostObstacles(const SambaConfiguration &configuration,
                                       const std::string &user)
{
    std::vector<std::string> obstacles;
    const auto global = [&](const char *name, const char *builtIn) {
        return configuration.Global(name, builtIn);
    };
    const auto forbid = [&](bool isSo, const char *sentence) {
        if (isSo) { obstacles.emplace_back(sentence); }
    };
    forbid(
        !IsSameValue(global("registry shares", "no"), "yes"),
        "Samba does not serve shares from its registry: set \"registry shares = yes\" in smb.conf");
    forbid(
        IsBeforeSmb2(global("server min protocol", "SMB2_02")),
        "Samba lets in clients of SMB 1, which cannot be held to the share's rules: set \"server "
        "min protocol = SMB2\" in smb.conf");
    forbid(
        !CanEncrypt(configuration),
        "Samba cannot encrypt what it sends: take \"server max protocol\", \"server smb encrypt\" "
        "and \"server smb3 encryption algorithms\" out of smb.conf");
    forbid(IsSameValue(global("ntlm auth", ""), "disabled"),
           "Samba lets no user of this host log in: take \"ntlm auth = disabled\" out of smb.conf");
    forbid(!global("root directory", "").empty() && global("root directory", "") != "/",
           "Samba works in a root directory of its own: take \"root directory\" out of smb.conf");
    forbid(!global("username map script", "").empty() ||
               (!user.empty() && IsMapped(global("username map", ""), user)),
           "Samba maps the user to another one: see \"username map\" in smb.conf");
    return obstacles;
}

void ImportShare(const ShareRequest &request)
{
    // The name must be an argument: without it the import replaces every share of the host.
    const Outcome outcome =
        RunProgram({"net", "conf", "import", "/dev/stdin", "--", request.name}, ShareText(request));
    if (!outcome.IsSuccess()) {
        Fail("Samba did not take the share " + Quoted(request.name) + ": " +
             OneLine(outcome.output));
    }
}

std::string Deviation(const SambaConfiguration &configuration, const ShareRequest &request)
{
    const SambaConfiguration::Section *section = configuration.Find(request.name);
    if (section == nullptr) { return "it is not there"; }
    size_t known = 0;
    for (const Setting &setting : SETTINGS) {
        // A setting that is not printed has its value from [global], or Samba's default.
        const auto found = section->find(setting.name);
        const std::string value = found == section->end()
                                      ? configuration.Global(setting.name, setting.builtIn)
                                      : found->second;
        known += found != section->end();
        const std::string wanted = ValueFor(setting, request);
        if (!IsSameValue(value, wanted)) {
            return setting.name + std::string(" is ") + Quoted(value) + " instead of " +
                   Quoted(wanted);
        }
    }
    return known == section->size() ? "" : "it has settings that were not asked for";
}

std::string RegistryPath(const std::string &share)
{
    const Outcome outcome = RunProgram({"net", "conf", "showshare", "--", share});
    if (outcome.IsSuccess()) {
        const std::string path = SambaConfiguration(outcome.output).PathOf(share);
        return path.empty() ? "none" : path;
    }
    if (outcome.output.find("SBC_ERR_NO_SUCH_SERVICE") != std::string::npos) { return ""; }
    Fail("cannot read Samba's registry: " + OneLine(outcome.output));
}

bool DeleteRegistryShare(const std::string &share)
{
    const Outcome outcome = RunProgram({"net", "conf", "delshare", "--", share});
    if (outcome.IsSuccess()) { return true; }
    Say("cannot remove the share " + Quoted(share) + ": " + OneLine(outcome.output));
    return false;
}
