// sambaConfiguration.cpp -- reads testparm's output, and makes and verifies a share.
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
    const char *value;   // in the share; nullptr: the request's own
    const char *builtIn; // Samba's own, which testparm leaves out
};

// Everything that decides who gets in, as whom, with what rights, and whether links are followed:
// else the share would have the host's defaults, which may widen it or make it useless.
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
    // A file that the client writes would be run as the folder's owner.
    {"magic script", "", ""},
};

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

// Of a protocol's name, such as SMB2_02 or NT1: whether it is older than SMB 2.
bool IsBeforeSmb2(const std::string &protocol)
{
    const std::string name = SmallLetters(protocol);
    return !name.starts_with("smb2") && !name.starts_with("smb3") && name != "default";
}

// testparm prints "off" as "No".
bool CanEncrypt(const SambaConfiguration &configuration)
{
    const std::string ciphers =
        configuration.Global("server smb3 encryption algorithms", "AES-128-GCM");
    return SmallLetters(configuration.Global("server max protocol", "SMB3")).starts_with("smb3") &&
           !IsSameValue(configuration.Global("server smb encrypt", "default"), "No") &&
           SmallLetters(ciphers).find("aes") != std::string::npos;
}

// Calls visit with each name of a list, as Samba separates them.
template <typename Visit> void ForEachName(std::string_view names, const Visit &visit)
{
    constexpr char SEPARATORS[] = " \t\r\n,;\\";
    size_t end = 0;
    for (size_t begin; (begin = names.find_first_not_of(SEPARATORS, end)) != names.npos;) {
        end = std::min(names.find_first_of(SEPARATORS, begin), names.size());
        visit(std::string(names.substr(begin, end - begin)));
    }
}

// Whether a file that maps clients' names to the host's would map this one.  A line has the host's
// name, "=" and the names of clients; after a backslash at its end it goes on in the next.
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
                        // A group, "@...", may hold anybody.
                        isMapped = isMapped || IsSameValue(name, user) ||
                                   name.find_first_of("*@+&\"") != std::string::npos;
                    });
    });
    return isMapped;
}

std::string ShareText(const ShareRequest &request)
{
    std::string text = '[' + request.name + "]\n";
    for (const Setting &setting : SETTINGS) {
        text += std::string(setting.name) + " = " + ValueFor(setting, request) + '\n';
    }
    return text;
}

// What a share is found by.  smb.conf may hold names that are no UTF-8; these are compared as they
// are.
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
    // Its remarks are for people, and stand between the sections' lines without a tab.
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
    // The name as an argument matters, for without it the import would replace every share of the
    // host.
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
        // What is not printed is as in [global], or as Samba has it built in.
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
