// checkHost.cpp -- prints whether this host is ready for a session.
#include "administration.h"

#include "folder.h"
#include "program.h"
#include "report.h"
#include "samba.h"
#include "smbService.h"

#include <cstdio>
#include <unistd.h>

using namespace pelago::platform;

namespace {

// Imports Samba's Python bindings from where sambaAccount.py finds them.
constexpr char BINDINGS[] = "import sys; sys.path.insert(0, '/usr/lib/python3/dist-packages'); "
                            "from samba.samba3 import param, passdb";

class Findings {
public:
    void Good(const std::string &what) { printf("ok       %s\n", what.c_str()); }
    void Missing(const std::string &what)
    {
        printf("MISSING  %s\n", what.c_str());
        mMissing++;
    }
    void Note(const std::string &what) { printf("note     %s\n", what.c_str()); }
    int MissingCount() const { return mMissing; }

private:
    int mMissing = 0;
};

void CheckPrograms(Findings *findings)
{
    std::string missing;
    for (const char *name : {"smbd", "net", "pdbedit", "smbpasswd", "smbcontrol", "smbstatus",
                             "testparm", "useradd", "userdel"}) {
        bool isThere = false;
        for (const char *folder : {"/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/"}) {
            isThere = isThere || access((std::string(folder) + name).c_str(), X_OK) == 0;
        }
        if (!isThere) { missing += ' ' + std::string(name); }
    }
    const bool hasBindings =
        RunProgram({"/usr/bin/python3", "-I", "-S", "-B", "-c", BINDINGS}).IsSuccess();
    if (!hasBindings) { missing += " python3-samba"; }
    if (missing.empty()) {
        findings->Good("Samba's programs and Python bindings");
    } else {
        findings->Missing("these programs:" + missing +
                          ".  Install samba, python3-samba and passwd");
    }
}

void CheckSamba(Findings *findings)
{
    try {
        const SambaConfiguration configuration = SambaConfiguration::Read();
        const std::vector<std::string> obstacles = HostObstacles(configuration, "");
        for (const std::string &obstacle : obstacles) {
            findings->Missing(obstacle + ", section [global]");
        }
        if (obstacles.empty()) { findings->Good("Samba can serve shares from its registry"); }
        for (const std::string &share : configuration.Shares()) {
            const SambaConfiguration::Section &section = *configuration.Find(share);
            if (!section.contains("valid users") && share != "homes" &&
                configuration.Global("valid users", "").empty()) {
                findings->Note("the share " + Quoted(share) +
                               " has no \"valid users\": the user of a session can enter it, too");
            }
        }
        if (IsSmbdListening(configuration)) {
            findings->Good("smbd runs");
        } else {
            findings->Note("smbd does not run; the switch starts it for a session");
        }
    } catch (const Failure &failure) {
        findings->Missing(failure.what());
    }
}

void CheckPreferences(Findings *findings)
{
    std::string reason;
    if (access(SMB_PREFERENCES, R_OK) != 0) {
        findings->Missing(std::string(SMB_PREFERENCES) +
                          ".  Make an empty one: pelago-smb-service init");
    } else if (SmbServiceWanted(SMB_PREFERENCES, &reason) == SmbWanted::Unknown) {
        findings->Missing(std::string("preferences that can be read: ") + SMB_PREFERENCES + ": " +
                          reason);
    } else {
        findings->Good("the preferences");
    }
}

void CheckSwitch(Findings *findings)
{
    if (IsSwitchRunning()) {
        findings->Good("the switch runs");
        return;
    }
    findings->Missing(
        "the switch, which runs smbd as the preferences say.  Enable it: systemctl enable --now "
        "pelago-smb-switch.  It stops an smbd that serves others, unless you run before: "
        "pelago-smb-service on");
}

void CheckFolder(const std::string &given, Findings *findings)
{
    try {
        const Folder folder = JudgeFolder(given);
        findings->Good("the folder " + Quoted(folder.path) + ", in which clients act as " +
                       folder.owner);
        if (folder.uid == 0) { findings->Note("in a folder of root's the client is root"); }
    } catch (const Failure &failure) {
        findings->Missing(std::string("a folder that can be shared: ") + failure.what());
    }
}

} // namespace

void CheckHost(const Arguments &arguments)
{
    if (arguments.size() > 1) { Fail("usage: pelago-share-check [FOLDER]"); }
    if (geteuid() != 0) { Fail("only root may do this"); }
    Findings findings;
    CheckPrograms(&findings);
    CheckSamba(&findings);
    CheckPreferences(&findings);
    CheckSwitch(&findings);
    if (!arguments.empty()) { CheckFolder(arguments[0], &findings); }
    if (findings.MissingCount() != 0) {
        fflush(stdout);
        Fail("this host is not ready for a session");
    }
}
