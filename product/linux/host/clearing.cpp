// clearing.cpp -- takes users and shares away, those of dead sessions as well.
#include "session.h"

#include "accounts.h"
#include "report.h"
#include "samba.h"
#include "waiting.h"

#include <algorithm>
#include <unistd.h>

using namespace pelago::platform;

namespace {

constexpr int CLEAR_SECONDS = 30; // how long another process may take to clear something away

// In the log, so that an administrator finds when a share that was begun has ended.
void LogEnd(const Record &record)
{
    if (record.Get("begun").empty()) { return; }
    LogToSystem("share " + Quoted(record.Get("share")) + " of " + Quoted(record.Get("folder")) +
                " (" + record.Get("access") + ") for " + record.Get("user") +
                " has ended, which was asked for by " + record.Get("caller"));
}

enum class Standing { Ours, Gone, Somebodys };

// Whose the share of the record's name is by now.
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
        // The registry may still be there to be asked.
    }
    // A share in the text file may cover ours.
    if (RegistryPath(share) == path) { return Standing::Ours; }
    return isThere ? Standing::Somebodys : Standing::Gone;
}

// Makes this process the maker of each record that is not alive, and returns these.
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

// Makes this process the maker of a record for what has a mark but none; nothing when it has one.
// From then on no script begins anything of the name.
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

// Takes away what a record is about, of which this process is the maker.  When that fails the
// record stays, and is nobody's.
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
    // Half of something is nobody's, though the session lives whose script was to make the whole.
    if (record.IsAlive()) { record.session.reset(); }
    WriteRecord(record);
    return false;
}

bool IsAnyRecord(const RecordFilter &isMeant)
{
    const RecordsLock lock;
    return std::ranges::any_of(ReadRecords(RecordKind::User), isMeant) ||
           std::ranges::any_of(ReadRecords(RecordKind::Share), isMeant);
}

// A boot removes the records.  Users and shares without a record are found by their marks.
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

// The password goes first, so that nobody comes in again; the account, which carries our mark, goes
// last.
bool TakeAwayAccount(const Record &record)
{
    const std::string &user = record.id;
    WaitForAccountPrograms();
    const AccountState state = FindAccount(user);
    // The host's user may have been removed by hand; with its SID the record knows Samba's, too.
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

// A connection that is open still has the share in mind: with the link gone it cannot enter anew,
// and what it has is closed.
bool TakeAwayShare(const Record &record)
{
    const std::string share = record.Get("share");
    const Standing standing = share.empty() ? Standing::Somebodys : StandingOf(record);
    if (standing == Standing::Ours && !DeleteRegistryShare(share)) { return false; }
    unlink(record.LinkPath().c_str());
    // An earlier run may have failed after the share was gone.  Clients of somebody's share stay.
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
    // What another process had in hand is gone by now, or is ours to clear away.
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
