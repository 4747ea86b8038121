// smbdDaemon.cpp -- starts and stops smbd, with systemd or without.
#include "smbdDaemon.h"

#include "processes.h"
#include "program.h"
#include "report.h"
#include "samba.h"
#include "waiting.h"

#include <csignal>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr int SMBD_SECONDS = 15; // how long smbd may take to start, or to end
constexpr char STARTING[] = "starting smbd, for the preferences enable file sharing";
constexpr char STOPPING[] = "stopping smbd, for the preferences do not enable file sharing";

bool IsUnitActive()
{
    return RunProgram({"systemctl", "is-active", "--quiet", "smbd.service"}).IsSuccess();
}

void HaveSystemd(const char *verb)
{
    const Outcome outcome = RunProgram({"systemctl", verb, "smbd.service"});
    if (!outcome.IsSuccess()) {
        Fail(std::string("cannot ") + verb + " smbd: " + OneLine(outcome.output));
    }
}

// Returns the pid in the daemon's pid file if that process is the daemon, else 0: a file that was
// left behind may name any process.
pid_t RunningDaemon(const SambaConfiguration &configuration, const std::string &name)
{
    const std::string folder = configuration.Global("pid directory", "/run/samba");
    const std::string pid = FirstWord(TextOf(folder + '/' + name + ".pid"));
    return IsNumber(pid) && ProgramOf(pid) == name ? atoi(pid.c_str()) : 0;
}

void EndDaemon(pid_t pid, const std::string &name)
{
    kill(pid, SIGTERM); // fails when it has just ended, which is no failure
    const auto isGone = [&] { return ProgramOf(std::to_string(pid)).empty(); };
    if (!WaitUntil(SMBD_SECONDS, isGone)) { Fail("cannot stop " + name); }
}

} // namespace

bool IsSystemdHere() { return access("/run/systemd/system", F_OK) == 0; }

// -D makes smbd leave this process group.  At its end smbd signals its whole process group, and so
// would end this process, too.
void StartSmbd()
{
    if (IsSystemdHere() ? IsUnitActive() : IsSmbdAnswering()) { return; }
    Say(STARTING);
    if (IsSystemdHere()) { return HaveSystemd("start"); }
    if (RunDaemonStarter({"smbd", "-D"}) != 0 || !WaitUntil(SMBD_SECONDS, IsSmbdAnswering)) {
        Fail("cannot start smbd");
    }
}

// Also ends samba-dcerpcd, which smbd starts for clients that list the shares, and does not end.
void StopSmbd()
{
    if (IsSystemdHere()) {
        if (!IsUnitActive()) { return; }
        Say(STOPPING);
        return HaveSystemd("stop");
    }
    const SambaConfiguration configuration = SambaConfiguration::Read();
    for (const char *name : {"smbd", "samba-dcerpcd"}) {
        const pid_t pid = RunningDaemon(configuration, name);
        if (pid == 0) { continue; }
        if (name == std::string("smbd")) { Say(STOPPING); }
        EndDaemon(pid, name);
    }
}
