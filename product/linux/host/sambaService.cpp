// sambaService.cpp -- smbd's processes, clients and cache, and Samba's accounts.
#include "samba.h"

#include "processes.h"
#include "program.h"
#include "report.h"
#include "waiting.h"

#include "hostFile.h"
#include "smbService.h"

#include <set>
#include <unistd.h>

using namespace pelago::platform;

namespace {

constexpr int END_SECONDS = 5;                  // how long connections may take to end
constexpr char LOCK_DIRECTORY[] = "/run/samba"; // Samba's default
constexpr char CACHE_NAME[] = "/gencache.tdb";

// Returns whether smbd may have a connection: smbd starts a process for each, and two helpers,
// which are known by their names.
bool MayServeClients()
{
    for (const std::string &pid : EntriesOf("/proc")) {
        if (!IsNumber(pid) || ProgramOf(pid) != "smbd") { continue; }
        const std::string name = FirstWord(TextOf("/proc/" + pid + "/comm"));
        const bool isHelper = name == "smbd-notifyd" || name == "cleanupd";
        if (!isHelper && ProgramOf(ParentOf(pid)) == "smbd") { return true; }
    }
    return false;
}

// Returns the pids of the smbd processes that serve the user.  Fails when smbstatus does.
std::vector<std::string> ConnectionsOf(const std::string &user)
{
    const Outcome outcome = RunProgram({"smbstatus", "-p", "-u", user});
    if (!outcome.IsSuccess()) { Fail("cannot list sessions: " + OneLine(outcome.output)); }
    std::vector<std::string> pids;
    HostForEachLine(outcome.output, [&](std::string_view line) {
        const std::string pid = FirstWord(line);
        if (IsNumber(pid)) { pids.push_back(pid); }
    });
    return pids;
}

// Returns the inode numbers of the sockets that a process has open.
std::set<std::string> SocketsOf(const std::string &pid)
{
    std::set<std::string> sockets;
    const std::string folder = "/proc/" + pid + "/fd/";
    for (const std::string &fd : EntriesOf(folder)) {
        char target[64];
        const ssize_t size = readlink((folder + fd).c_str(), target, sizeof target);
        constexpr std::string_view BEFORE = "socket:[";
        const std::string_view text(target, size > 0 ? static_cast<size_t>(size) : 0);
        if (text.starts_with(BEFORE) && text.ends_with(']')) {
            sockets.emplace(text.substr(BEFORE.size(), text.size() - BEFORE.size() - 1));
        }
    }
    return sockets;
}

// Returns whether one of the sockets listens.  In the table, /proc/net/tcp, the fourth word of a
// line is the state, 0A for a listening socket, and the tenth the socket's inode number.
bool HasListener(const std::string &table, const std::set<std::string> &sockets)
{
    bool has = false;
    HostForEachLine(table, [&](std::string_view line) {
        std::vector<std::string> words;
        while (line.find_first_not_of(' ') != std::string_view::npos) {
            line.remove_prefix(line.find_first_not_of(' '));
            words.emplace_back(line.substr(0, line.find(' ')));
            line.remove_prefix(words.back().size());
        }
        has = has || (words.size() > 9 && words[3] == "0A" && sockets.contains(words[9]));
    });
    return has;
}

// Returns whether Samba's cache may have an entry for the key.  Samba keeps for a week which number
// belongs to which SID, in a file that holds the keys as text.  A deleted entry may still be in the
// file; then smbd is asked to forget it once more, which does no harm.  True also when the cache
// cannot be read.
bool MayHold(const std::string &cache, const std::string &key)
{
    return cache.empty() || cache.find("IDMAP/" + key + '\0') != std::string::npos;
}

} // namespace

bool CutOffClients(const std::string &share)
{
    const Outcome outcome = RunProgram({"smbcontrol", "--", "smbd", "close-share", share});
    if (outcome.IsSuccess() || !IsSmbdAnswering()) { return true; }
    Say("cannot cut off the clients of " + Quoted(share));
    return false;
}

bool RemoveSambaAccount(const std::string &user)
{
    const Outcome outcome = RunProgram({"pdbedit", "-x", "-u", user});
    if (outcome.IsSuccess() ||
        outcome.output.find("does not exist in the passdb") != std::string::npos) {
        return true;
    }
    Say("cannot remove " + user + " from Samba: " + OneLine(outcome.output));
    return false;
}

// A connection outlives the account and the share.  It acts as the owner of the folder, so only
// smbd knows which user it belongs to.
bool EndConnections(const std::string &user)
{
    if (!MayServeClients()) { return true; }
    const Deadline deadline(END_SECONDS);
    for (;;) {
        const std::vector<std::string> pids = ConnectionsOf(user);
        if (pids.empty()) { return true; }
        if (deadline.IsOver()) {
            Say("sessions of " + user + " do not end");
            return false;
        }
        for (const std::string &pid : pids) {
            RunProgram({"smbcontrol", pid, "shutdown"});
        }
        Pause();
    }
}

bool IsSmbdListening(const SambaConfiguration &configuration)
{
    const std::string file = configuration.Global("pid directory", "/run/samba") + "/smbd.pid";
    const std::string pid = FirstWord(TextOf(file));
    if (!IsNumber(pid) || ProgramOf(pid) != "smbd") { return false; }
    const std::set<std::string> sockets = SocketsOf(pid);
    return HasListener(TextOf("/proc/" + pid + "/net/tcp"), sockets) ||
           HasListener(TextOf("/proc/" + pid + "/net/tcp6"), sockets);
}

bool IsSmbdAnswering() { return RunProgram({"smbcontrol", "-t", "1", "smbd", "ping"}).IsSuccess(); }

void ForgetNumbers(const SambaConfiguration &configuration, const Folder &folder,
                   const std::string &userSid)
{
    const std::string cache =
        TextOf(configuration.Global("lock directory", LOCK_DIRECTORY) + CACHE_NAME);
    const auto forget = [&](const std::string &key, const std::string &id) {
        if (!MayHold(cache, key)) { return; }
        RunProgram({"smbcontrol", "smbd", "idmap", "delete", id});
    };
    const std::string user = std::to_string(folder.uid), group = std::to_string(folder.gid);
    forget("UID2SID/" + user, "UID " + user);
    forget("GID2SID/" + group, "GID " + group);
    forget("SID2XID/" + userSid, userSid);
}

void ForgetUser(const std::string &number, const std::string &sid)
{
    const std::string cache = TextOf(std::string(LOCK_DIRECTORY) + CACHE_NAME);
    const std::string byNumber = "UID2SID/" + number, bySid = "SID2XID/" + sid;
    if (!MayHold(cache, byNumber) && !MayHold(cache, bySid)) { return; }
    std::string reason;
    const bool isWanted = SmbServiceWanted(SMB_PREFERENCES, &reason) == SmbWanted::Yes;
    if (isWanted && IsSmbdListening(SambaConfiguration(""))) {
        // This also deletes the entry of the number.
        RunProgram({"smbcontrol", "smbd", "idmap", "delete", sid});
        return;
    }
    // smbd does not run, or is being stopped, and takes no messages: the file is changed instead.
    for (const std::string &key : {byNumber, bySid}) {
        RunProgram({"net", "cache", "del", "IDMAP/" + key});
    }
}
