// addShare.cpp -- serves one folder to one user.
#include "session.h"

#include "accounts.h"
#include "folder.h"
#include "names.h"
#include "processes.h"
#include "report.h"
#include "samba.h"
#include "waiting.h"

#include <unistd.h>

using namespace pelago::platform;

namespace {

constexpr int SMBD_SECONDS = 10; // how long smbd may take to listen

// The arguments of the script; given is the folder's path as the caller spells it.
struct Wish {
    std::string user, given, share;
    bool isReadOnly;
};

// Returns the user's record.  Fails unless a script of the same session has made the user.
Record FindUser(const std::string &user, const ProcessMark &session)
{
    const RecordsLock lock;
    const AccountState account = FindAccount(user);
    if (account == AccountState::None) { Fail("there is no user " + user); }
    const std::optional<Record> record = FindUserRecord(user);
    if (account == AccountState::Taken || !record || record->maker) {
        Fail("the user " + user + " was not made for a share");
    }
    if (!record->IsOf(session)) {
        Fail("the user " + user + " belongs to another session" +
             (record->IsAlive() ? " that runs" : ""));
    }
    return *record;
}

void CheckHost(const SambaConfiguration &configuration, const std::string &user)
{
    for (const std::string &obstacle : HostObstacles(configuration, user)) {
        Fail(obstacle);
    }
}

// Fails when there is a user share of the same name: Samba would serve it after ours has ended.
void CheckUserShares(const SambaConfiguration &configuration, const std::string &share)
{
    const std::string folder = configuration.Global("usershare path", "/var/lib/samba/usershares");
    for (const std::string &entry : EntriesOf(folder)) {
        if (IsUtf8(entry) && Folded(entry) == Folded(share)) {
            Fail("the share " + Quoted(share) + " exists already as a user share");
        }
    }
}

// Fails when the share exists.  Removes one that a session left without a record.
void CheckNameIsFree(const SambaConfiguration &configuration, const std::string &share)
{
    const std::string id = IdOfSharePath(configuration.PathOf(share));
    if (!id.empty()) {
        Say("removing the share " + Quoted(share) + " of a session that has ended");
        if (!DeleteRegistryShare(share) || !CutOffClients(share)) {
            Fail("cannot replace the share " + Quoted(share));
        }
    } else if (configuration.Find(share) != nullptr) {
        Fail("the share " + Quoted(share) + " exists already");
    }
    CheckUserShares(configuration, share);
}

// The share while it is being made; the destructor removes it again unless Keep() was called.
class NewShare {
public:
    NewShare(const Wish &wish, const Folder &folder, const ProcessMark &session);
    ~NewShare();
    NewShare(const NewShare &) = delete;
    NewShare &operator=(const NewShare &) = delete;
    void Make(const SambaConfiguration &configuration, const std::string &userSid);
    void Keep(const std::string &caller);

private:
    void WaitForSmbd(const SambaConfiguration &configuration) const;

    const Wish &mWish;
    const Folder &mFolder;
    Record mRecord;
    bool mIsKept = false;
};

NewShare::NewShare(const Wish &wish, const Folder &folder, const ProcessMark &session)
    : mWish(wish), mFolder(folder)
{
    const RecordsLock lock;
    CheckIsOpen();
    const std::optional<Record> present = FindShareRecord(wish.share);
    if (present && present->IsAlive()) {
        Fail("the share " + Quoted(wish.share) + " is " + present->Holding());
    }
    mRecord = MakeShareRecord(folder.path);
    mRecord.session = session;
    mRecord.maker = ProcessMark::Of(getpid());
    mRecord.fields = {{"share", wish.share},
                      {"user", wish.user},
                      {"given", wish.given},
                      {"folder", folder.path},
                      {"access", wish.isReadOnly ? "ro" : "rw"}};
    try {
        WriteRecord(mRecord);
    } catch (const Failure &) {
        RemoveRecord(mRecord);
        throw;
    }
}

NewShare::~NewShare()
{
    if (mIsKept) { return; }
    const Uninterrupted untilItIsUndone;
    try {
        if (TakeAwayShare(mRecord)) { return; }
    } catch (const std::exception &failure) {
        Say(failure.what());
    }
    // Without the link no client can enter a share that could not be removed.
    unlink(mRecord.LinkPath().c_str());
    Say("the share " + Quoted(mWish.share) + " is left behind");
}

void NewShare::WaitForSmbd(const SambaConfiguration &configuration) const
{
    const bool isUp = WaitUntil(SMBD_SECONDS, [&] {
        if (!mRecord.session->IsRunning()) { Fail("the caller has gone"); }
        return IsSmbdListening(configuration);
    });
    if (!isUp) {
        Fail("smbd has not come up within " + std::to_string(SMBD_SECONDS) +
             " s: is pelago-smb-switch running, or smbd itself?  pelago-share-check says what is "
             "missing");
    }
}

void NewShare::Make(const SambaConfiguration &configuration, const std::string &userSid)
{
    const ShareRequest request = {mWish.share, mRecord.LinkPath(), userSid, mFolder.owner,
                                  mWish.isReadOnly};
    ImportShare(request);
    WaitForSmbd(configuration);
    const std::string deviation = Deviation(SambaConfiguration::Read(), request);
    if (!deviation.empty()) {
        Fail("Samba does not show the share " + Quoted(mWish.share) +
             " as it was asked for: " + deviation);
    }
    ForgetNumbers(configuration, mFolder, userSid);
}

void NewShare::Keep(const std::string &caller)
{
    mRecord.maker.reset();
    mRecord.fields["begun"] = "yes";
    mRecord.fields["caller"] = caller;
    {
        const RecordsLock lock;
        if (!mRecord.IsAlive()) { Fail("the caller has gone"); }
        WriteRecord(mRecord);
        mIsKept = true;
    }
    LogToSystem("share " + Quoted(mWish.share) + " of " + Quoted(mFolder.path) + " (" +
                mRecord.Get("access") + ", as " + mFolder.owner + ") begins for " + mWish.user +
                ", asked for by " + caller);
}

// Returns the program and the pid of the tool and of the process that started it, for people.
std::string DescribeCaller(const ProcessMark &session)
{
    const std::string tool = std::to_string(session.pid);
    const std::string starter = ParentOf(tool);
    return ProgramOf(tool) + ' ' + tool + ", which " + ProgramOf(starter) + ' ' + starter +
           " started";
}

Wish WishOf(const Arguments &arguments)
{
    if (arguments.size() != 5) { Fail("usage: addshare.sh USER PASSWORD_FILE FOLDER SHARE rw|ro"); }
    CheckUserName(arguments[0]);
    if (arguments[1].empty()) { Fail("the name of the password file is empty"); }
    CheckShareName(arguments[3]);
    const std::string &access = arguments[4];
    if (access != "rw" && access != "ro") {
        Fail("the access is neither rw nor ro: " + Quoted(access));
    }
    return {arguments[0], arguments[2], arguments[3], access == "ro"};
}

} // namespace

void AddShare(const Arguments &arguments)
{
    const Wish wish = WishOf(arguments);
    const ProcessMark session = CallerSession();
    // Before any lock is taken: the folder may be on a host that answers late, or never.
    const Folder folder = JudgeFolder(wish.given);
    const Record user = FindUser(wish.user, session);
    ClearBeforeSession([&](const Record &record) { return record.IsShareNamed(wish.share); });
    NewShare share(wish, folder, session);
    const SambaConfiguration configuration = SambaConfiguration::Read();
    CheckHost(configuration, wish.user);
    CheckNameIsFree(configuration, wish.share);
    share.Make(configuration, user.Get("sid"));
    share.Keep(DescribeCaller(session));
}
