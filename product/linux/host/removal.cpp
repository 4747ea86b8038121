// removal.cpp -- the commands that end a share and remove its user.
#include "session.h"

#include "accounts.h"
#include "names.h"
#include "program.h"
#include "report.h"
#include "samba.h"

#include <unistd.h>

using namespace pelago::platform;

namespace {

void MakeOurselvesTheMaker(Record *record)
{
    record->maker = ProcessMark::Of(getpid());
    WriteRecord(*record);
}

// Fails when the record is alive and belongs to another session; what names it in the message.
void CheckIsOurs(const Record &record, const ProcessMark &session, const std::string &what)
{
    if (!record.IsAlive() || record.IsOf(session)) { return; }
    if (record.IsInHand()) { Fail(what + " is " + record.Holding()); }
    Fail(what + " belongs to another session that runs");
}

// Makes this process the maker of the share's record and returns the record; nullopt when there is
// none.  Fails when the share belongs to another session, and when it serves another folder.
std::optional<Record> TakeShareRecord(const std::string &share, const std::string &given)
{
    const ProcessMark session = CallerSession();
    const RecordsLock lock;
    std::optional<Record> record = FindShareRecord(share);
    if (!record) { return std::nullopt; }
    CheckIsOurs(*record, session, "the share " + Quoted(share));
    if (record->Get("given") != given) {
        Fail("the share " + Quoted(share) + " serves another folder than " + Quoted(given));
    }
    MakeOurselvesTheMaker(&*record);
    return record;
}

// Removes a share without a record, which is from before the last boot.  Fails for a share that was
// not made here.
void RemoveUnrecorded(const std::string &share)
{
    const std::string path = RegistryPath(share);
    if (!path.empty()) {
        if (IdOfSharePath(path).empty()) {
            Fail("the share " + Quoted(share) + " was not made by addshare.sh");
        }
        if (!DeleteRegistryShare(share) || !CutOffClients(share)) {
            Fail("the share " + Quoted(share) + " is left behind");
        }
        return;
    }
    // A share of this name in smb.conf is not ours; its clients are not cut off.
    const bool isSomebodys = SambaConfiguration::Read().Find(share) != nullptr;
    if (!isSomebodys && !CutOffClients(share)) { Fail("its clients are not cut off"); }
    Say("there is no share " + Quoted(share) + " any more");
}

// Returns whether Samba has an account of the name.  Fails when that cannot be read.
bool IsKnownToSamba(const std::string &user)
{
    const Outcome outcome = RunProgram({"pdbedit", "-L", "-u", user});
    if (outcome.IsSuccess()) { return true; }
    if (outcome.output.find("Username not found") != std::string::npos) { return false; }
    Fail("cannot read Samba's password database: " + OneLine(outcome.output));
}

// Makes this process the maker of the user's record, which is made if it is missing, and returns
// it.  Fails when the user belongs to another session.
Record TakeUserRecord(const std::string &user)
{
    const ProcessMark session = CallerSession();
    const RecordsLock lock;
    Record record = FindUserRecord(user).value_or(Record{RecordKind::User, user, {}, {}, {}});
    CheckIsOurs(record, session, "the user " + user);
    MakeOurselvesTheMaker(&record);
    return record;
}

} // namespace

void RemoveShare(const Arguments &arguments)
{
    if (arguments.size() != 2) { Fail("usage: rmshare.sh SHARE FOLDER"); }
    const std::string &share = arguments[0], &given = arguments[1];
    CheckShareName(share);
    if (given.empty()) { Fail("the folder's path is empty"); }
    const std::optional<Record> record = TakeShareRecord(share, given);
    if (!record) { return RemoveUnrecorded(share); }
    if (!TakeAwayShare(*record)) { Fail("the share " + Quoted(share) + " is left behind"); }
}

void RemoveUser(const Arguments &arguments)
{
    if (arguments.size() != 1) { Fail("usage: rmuser.sh USER"); }
    const std::string &user = arguments[0];
    CheckUserName(user);
    const AccountState account = FindAccount(user);
    if (account == AccountState::Taken) { Fail("the user " + user + " was not made for a share"); }
    const Record record = TakeUserRecord(user);
    if (account == AccountState::None && record.Get("sid").empty() && IsKnownToSamba(user)) {
        RemoveRecordLocked(record);
        Fail("Samba knows a user " + user + " that was not made for a share");
    }
    if (!TakeAwayUser(record)) { Fail("the user " + user + " is left behind"); }
    if (account == AccountState::None) { Say("there is no user " + user + " any more"); }
}
