// manageService.cpp -- shows and switches the SMB service in the preferences, by hand.
#include "administration.h"

#include "report.h"
#include "smbService.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace pelago::platform;

namespace {

void ShowStatus()
{
    std::string reason;
    switch (SmbServiceWanted(SMB_PREFERENCES, &reason)) {
    case SmbWanted::No: puts("off"); return;
    case SmbWanted::Unknown: Fail("the preferences cannot be read: " + reason);
    case SmbWanted::Yes: break;
    }
    switch (SmbServiceOwner(SMB_PREFERENCES)) {
    case ServiceOwner::Nobody: puts("on"); return;
    case ServiceOwner::Runs: puts("on, until the session ends that has switched it on"); return;
    case ServiceOwner::Dead: puts("on, left by a session that was killed"); return;
    }
}

// Makes an empty preferences file, which counts as one without settings, if there is none.
void MakeFile()
{
    const std::string path = SMB_PREFERENCES;
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        const std::string folder = path.substr(0, slash);
        if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
            Fail("cannot make " + folder + ": " + strerror(errno));
        }
    }
    const OwnedFd fd(open(SMB_PREFERENCES, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!fd.IsOpen()) { Fail("cannot make " + path + ": " + strerror(errno)); }
}

void Report(SmbChange change, const std::string &reason)
{
    if (change == SmbChange::Busy) { Fail("somebody else is changing the preferences"); }
    if (change == SmbChange::Failed) { Fail("cannot change the preferences: " + reason); }
}

} // namespace

void ManageService(const Arguments &arguments)
{
    umask(022);
    std::string reason;
    const std::string verb = arguments.size() == 1 ? arguments[0] : "";
    if (verb == "status") { return ShowStatus(); }
    if (verb == "init") { return MakeFile(); }
    if (verb == "on") { return Report(SmbServiceSwitchOn(SMB_PREFERENCES, &reason), reason); }
    if (verb == "off") { return Report(SmbServiceSwitchOff(SMB_PREFERENCES, &reason), reason); }
    Fail("usage: pelago-smb-service status | init | on | off");
}
