// clearing.cpp -- removes users and shares, also those that dead sessions left.
#include "session.h"

#include "accounts.h"
#include "report.h"
#include "samba.h"
#include "waiting.h"

#include <algorithm>
#include <unistd.h>

using namespace pelago::platform;

namespace {

constexpr int CLEAR_SECONDS = 30; // how long another process may take to remove a user or share

// Writes to the system's log that a share has ended, if its beginning was written there.
void LogEnd(const Record &record)
{
    if (record.Get("begun").empty()) { return; }
    LogToSystem("share " + Quoted(record.Get("share")) + " of " + Quoted(record.Get("folder")) +
                " (" + record.Get("access") + ") for " + record.Get("user") +
                " has ended, which was asked for by " + record.Get("caller"));
}

enum class Standing { Ours, Gone, Somebodys };

// Returns whether the share of this name is still the record's own, has gone, or is another one.
Standing StandingOf(const Record &record)
{
    const std::string share = record.Get("share");
    const std::string path = record.LinkPath();
    bool isThere = true;
    try {
        const SambaConfiguration configuration = SambaConfiguration::Read();
        if (configuration.PathOf(share) == path) { return Standing::Ours; }
        isThere = configuration.Find(share) != nullptr;
    } catch (const Failure &) {
        // testparm has failed; the registry may be readable all the same.
    }
    // A share of the same name in smb.conf hides ours.
    if (RegistryPath(share) == path) { return Standing::Ours; }
    return isThere ? Standing::Somebodys : Standing::Gone;
}

// Makes this process the maker of each record that is not alive, and returns those records.
std::vector<Record> TakeOverDead(RecordKind kind)
{
    const RecordsLock lock;
    std::vector<Record> dead;
    for (Record &record : ReadRecords(kind)) {
        if (record.IsAlive()) { continue; }
        record.maker = ProcessMark::Of(getpid());
        WriteRecord(record);
        dead.push_back(std::move(record));
    }
    return dead;
}

// Writes a record, with this process as its maker, for a user or share that has our mark but no
// record, and returns it; nullopt when there is one.  From then on other scripts refuse the name.
std::optional<Record> ClaimUnrecorded(RecordKind kind, const std::string &id,
                                      const std::string &share)
{
    const RecordsLock lock;
    for (const Record &record : ReadRecords(kind)) {
        if (record.id == id) { return std::nullopt; }
    }
    if (kind == RecordKind::Share && FindShareRecord(share)) { return std::nullopt; }
    Record record{kind, id, {}, {}, ProcessMark::Of(getpid())};
    if (kind == RecordKind::Share) {
        RemakeShareFolder(id);
        record.fields["share"] = share;
    }
    WriteRecord(record);
    return record;
}

// Removes the user or share of a record whose maker is this process, and the record.  When that
// fails the record stays without a maker, and is not alive.
bool Clear(Record record)
{
    bool isDone = false;
    try {
        isDone = record.kind == RecordKind::User ? TakeAwayUser(record) : TakeAwayShare(record);
    } catch (const Failure &failure) {
        Say(failure.what());
    }
    if (isDone) { return true; }
    const RecordsLock lock;
    record.maker.reset();
    // The session may still run; without it the record is dead, and others may remove the rest.
    if (record.IsAlive()) { record.session.reset(); }
    WriteRecord(record);
    return false;
}

// Returns whether isMeant() holds for any record.
bool IsAnyRecord(const RecordFilter &isMeant)
{
    const RecordsLock lock;
    return std::ranges::any_of(ReadRecords(RecordKind::User), isMeant) ||
           std::ranges::any_of(ReadRecords(RecordKind::Share), isMeant);
}

// Removes users and shares that have our mark but no record, because a boot has removed it.
// Returns false when one of them is still there.
bool ClearUnrecorded()
{
    bool isDone = true;
    const SambaConfiguration configuration = SambaConfiguration::Read();
    for (const std::string &share : configuration.Shares()) {
        const std::string id = IdOfSharePath(configuration.PathOf(share));
        if (id.empty()) { continue; }
        const std::optional<Record> record = ClaimUnrecorded(RecordKind::Share, id, share);
        if (!record) { continue; }
        Say("removing the share " + Quoted(share) + " of a session that has ended");
        isDone = Clear(*record) && isDone;
    }
    for (const std::string &user : OurAccounts()) {
        const std::optional<Record> record = ClaimUnrecorded(RecordKind::User, user, "");
        if (!record) { continue; }
        Say("removing the user " + user + " of a session that has ended");
        isDone = Clear(*record) && isDone;
    }
    return isDone;
}

} // namespace

bool RemoveRecordLocked(const Record &record)
{
    const RecordsLock lock;
    return RemoveRecord(record);
}

// Samba's account goes first, so that nobody can log in with its password any more.  The host's
// user, which has our mark, goes last.
bool TakeAwayAccount(const Record &record)
{
    const std::string &user = record.id;
    WaitForAccountPrograms();
    const AccountState state = FindAccount(user);
    // The host's user was removed by hand.  The record has the SID of Samba's account, so that
    // account is ours.
    if (state == AccountState::None && !record.Get("sid").empty()) {
        return RemoveSambaAccount(user) && EndConnections(user);
    }
    if (state != AccountState::Ours) { return true; }
    const bool isSambasOurs = record.Get("samba") != SOMEBODYS;
    if (isSambasOurs && !RemoveSambaAccount(user)) { return false; }
    if (!EndConnections(user) || !RemoveAccount(user)) { return false; }
    const std::string number = record.Get("uid"), sid = record.Get("sid");
    if (!number.empty() && !sid.empty()) { ForgetUser(number, sid); }
    return true;
}

bool TakeAwayUser(const Record &record)
{
    return TakeAwayAccount(record) && RemoveRecordLocked(record);
}

// An open connection still knows the share.  Without the link it cannot enter the share again, and
// what it has open is closed.
bool TakeAwayShare(const Record &record)
{
    const std::string share = record.Get("share");
    const Standing standing = share.empty() ? Standing::Somebodys : StandingOf(record);
    if (standing == Standing::Ours && !DeleteRegistryShare(share)) { return false; }
    unlink(record.LinkPath().c_str());
    // Also when the share has gone: an earlier run may have failed just after that.  Clients of a
    // share of the same name that is not ours stay connected.
    if (standing != Standing::Somebodys && !CutOffClients(share)) { return false; }
    if (!RemoveRecordLocked(record)) { return false; }
    LogEnd(record);
    return true;
}

bool ClearDeadSessions(Look look)
{
    bool isDone = true;
    for (const RecordKind kind : {RecordKind::Share, RecordKind::User}) {
        for (const Record &record : TakeOverDead(kind)) {
            isDone = Clear(record) && isDone;
        }
    }
    if (look == Look::OnceForUnrecorded && !IsFirstLook()) { return isDone; }
    isDone = ClearUnrecorded() && isDone;
    if (isDone) { NoteFirstLook(); }
    return isDone;
}

bool ClearWithOthers(Look look, const RecordFilter &isAwaited)
{
    const auto isInHand = [&](const Record &record) {
        return isAwaited(record) && record.IsInHand();
    };
    const bool isDone = ClearDeadSessions(look);
    const bool isFree = WaitUntil(CLEAR_SECONDS, [&] { return !IsAnyRecord(isInHand); });
    // What another process was removing is gone by now, or left for this one.
    return isDone && isFree && ClearDeadSessions(look);
}

void ClearBeforeSession(const RecordFilter &isAwaited)
{
    try {
        if (ClearWithOthers(Look::OnceForUnrecorded, isAwaited)) { return; }
    } catch (const Failure &failure) {
        Say(failure.what());
    }
    Say("something of an earlier session is still there");
}

bool IsAnySessionAlive() { return IsAnyRecord(std::mem_fn(&Record::IsAlive)); }
bool IsAnySessionDead() { return IsAnyRecord(std::not_fn(std::mem_fn(&Record::IsAlive))); }
