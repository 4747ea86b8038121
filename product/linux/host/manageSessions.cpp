// manageSessions.cpp -- lists the users and shares of sessions, and ends sessions.
#include "administration.h"

#include "accounts.h"
#include "processes.h"
#include "report.h"
#include "samba.h"
#include "smbService.h"
#include "waiting.h"

#include <algorithm>
#include <csignal>
#include <cstdio>

using namespace pelago::platform;

namespace {

constexpr char TOOL[] = "pelagoShareTool";
constexpr int END_SECONDS = 5; // how long a tool or a script may take to end

std::vector<Record> AllRecords()
{
    const RecordsLock lock;
    std::vector<Record> records = ReadRecords(RecordKind::User);
    for (Record &share : ReadRecords(RecordKind::Share)) {
        records.push_back(std::move(share));
    }
    return records;
}

std::string DescribeState(const Record &record)
{
    const std::string pid = record.session ? std::to_string(record.session->pid) : "?";
    if (record.maker) {
        return record.IsAlive() ? "a script works on it, for " + pid : "half done";
    }
    return record.IsAlive() ? "in use by " + ProgramOf(pid) + ' ' + pid : "left by " + pid;
}

void Show(const Record &record)
{
    const std::string what = record.kind == RecordKind::User
                                 ? "user " + record.id
                                 : "share " + Quoted(record.Get("share")) + " of " +
                                       Quoted(record.Get("folder")) + " for " + record.Get("user") +
                                       " (" + record.Get("access") + ")";
    printf("%s: %s\n", what.c_str(), DescribeState(record).c_str());
}

// Lists the users and shares that have our mark but no record, because a boot has removed it.
void ShowUnrecorded(const std::vector<Record> &records)
{
    const auto isRecorded = [&](RecordKind kind, const std::string &id) {
        return std::ranges::any_of(
            records, [&](const Record &record) { return record.kind == kind && record.id == id; });
    };
    for (const std::string &user : OurAccounts()) {
        if (!isRecorded(RecordKind::User, user)) {
            printf("user %s: left from before the last boot\n", user.c_str());
        }
    }
    const SambaConfiguration configuration = SambaConfiguration::Read();
    for (const std::string &share : configuration.Shares()) {
        const std::string id = IdOfSharePath(configuration.PathOf(share));
        if (!id.empty() && !isRecorded(RecordKind::Share, id)) {
            printf("share %s: left from before the last boot\n", Quoted(share).c_str());
        }
    }
}

void ListSessions()
{
    const std::vector<Record> records = AllRecords();
    for (const Record &record : records) {
        Show(record);
    }
    ShowUnrecorded(records);
}

void Clean()
{
    const auto isAny = [](const Record &) { return true; };
    if (!ClearWithOthers(Look::AlwaysForUnrecorded, isAny)) {
        Fail("something of a dead session is still there");
    }
}

// Ends the tool with a signal: then the tool itself undoes nothing, and its caller sees that a
// signal has ended it.  A session of scripts that are run by hand is a shell, which is not killed.
void EndTool(const ProcessMark &session)
{
    if (!session.IsRunning() || ProgramOf(std::to_string(session.pid)) != TOOL) { return; }
    Say("ending " + std::string(TOOL) + ' ' + std::to_string(session.pid));
    kill(session.pid, SIGTERM);
    if (!WaitUntil(END_SECONDS, [&] { return !session.IsRunning(); })) {
        kill(session.pid, SIGKILL);
        WaitUntil(END_SECONDS, [&] { return !session.IsRunning(); });
    }
}

// Takes the session out of the user's records, so that they are not alive and may be removed.
void Disown(const std::string &user)
{
    const RecordsLock lock;
    for (const RecordKind kind : {RecordKind::User, RecordKind::Share}) {
        for (Record &record : ReadRecords(kind)) {
            // While a script works on a user or share, it belongs to that script.
            if (record.User() != user || record.maker) { continue; }
            record.session.reset();
            WriteRecord(record);
        }
    }
}

// Ends the tool of the user's session and disowns the user's records; returns whether there was
// one.
bool EndSession(const std::string &user)
{
    bool isFound = false;
    for (const Record &record : AllRecords()) {
        if (record.User() != user) { continue; }
        isFound = true;
        if (record.session) { EndTool(*record.session); }
        // A script that the tool has started notices its end, and undoes its own work.
        if (record.maker) {
            WaitUntil(END_SECONDS, [&] { return !record.maker->IsRunning(); });
        }
    }
    Disown(user);
    return isFound;
}

// Switches the SMB service off again if no session is alive and a tool that has ended left it on.
void TakeServiceBack()
{
    std::string reason;
    if (!IsAnySessionAlive() &&
        SmbServiceTakeBack(SMB_PREFERENCES, true, &reason) == SmbChange::Failed) {
        Fail("cannot switch file sharing off again: " + reason);
    }
}

void EndAll()
{
    for (const Record &record : AllRecords()) {
        EndSession(record.User());
    }
    Clean();
    TakeServiceBack();
}

void EndOne(const std::string &user)
{
    if (!EndSession(user)) { Fail("no session has the user " + Quoted(user)); }
    Clean();
    TakeServiceBack();
}

} // namespace

void ManageSessions(const Arguments &arguments)
{
    if (arguments.empty()) { return ListSessions(); }
    if (arguments == Arguments{"--clean"}) {
        Clean();
        return;
    }
    if (arguments == Arguments{"--end-all"}) { return EndAll(); }
    if (arguments.size() == 2 && arguments[0] == "--end") { return EndOne(arguments[1]); }
    Fail("usage: pelago-share-sessions [--clean | --end USER | --end-all]");
}
