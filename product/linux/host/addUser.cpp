// addUser.cpp -- makes the user that a share is served to.
#include "session.h"

#include "accounts.h"
#include "names.h"
#include "password.h"
#include "program.h"
#include "report.h"

#include "hostFile.h"

#include <fcntl.h>
#include <unistd.h>

using namespace pelago::platform;

namespace {

constexpr int EXISTS_ALREADY = 3; // exit status of sambaAccount.py: Samba has the account already
constexpr size_t RANDOM_BYTES = 32;

// The user while it is being made; the destructor removes it again unless Keep() was called.
class NewUser {
public:
    NewUser(const std::string &name, const ProcessMark &session);
    ~NewUser();
    NewUser(const NewUser &) = delete;
    NewUser &operator=(const NewUser &) = delete;
    void Make(const std::string &password);
    void Keep();

private:
    void MakeSambaAccount(Program *helper, const std::string &password);
    void Write() const;

    Record mRecord;
    bool mIsKept = false;
};

// Writes the record, from which other scripts see that the name is in use.
NewUser::NewUser(const std::string &name, const ProcessMark &session)
    : mRecord{RecordKind::User, name, {}, session, ProcessMark::Of(getpid())}
{
    const RecordsLock lock;
    CheckIsOpen();
    const std::optional<Record> present = FindUserRecord(name);
    if (present && present->IsAlive()) { Fail("the user " + name + " is " + present->Holding()); }
    WriteRecord(mRecord);
}

NewUser::~NewUser()
{
    if (mIsKept) { return; }
    const Uninterrupted untilItIsUndone;
    try {
        if (TakeAwayUser(mRecord)) { return; }
    } catch (const std::exception &failure) {
        Say(failure.what());
    }
    Say("the user " + mRecord.id + " is left behind");
}

// Returns 64 random letters.
std::string RandomPassword()
{
    const OwnedFd source(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    unsigned char bytes[RANDOM_BYTES];
    if (HostReadAll(source.Get(), reinterpret_cast<char *>(bytes), sizeof bytes) !=
        static_cast<ssize_t>(sizeof bytes)) {
        Fail("cannot read /dev/urandom");
    }
    std::string password;
    for (const unsigned char byte : bytes) {
        password += static_cast<char>('a' + byte % 16);
        password += static_cast<char>('a' + byte / 16);
    }
    return password;
}

// The helper accepts only UTF-8.  For other bytes it sets a random password, which smbpasswd then
// replaces.
void NewUser::MakeSambaAccount(Program *helper, const std::string &password)
{
    const bool isText = IsUtf8(password);
    helper->Feed(isText ? password : RandomPassword());
    const Outcome outcome = helper->Wait();
    if (outcome.status == EXISTS_ALREADY) {
        mRecord.fields["samba"] = SOMEBODYS;
        Write();
        Fail("Samba knows a user " + mRecord.id + " already");
    }
    const size_t sid = outcome.output.rfind("S-1-");
    if (!outcome.IsSuccess() || sid == std::string::npos) {
        Fail("cannot make Samba's account for " + mRecord.id + ": " + OneLine(outcome.output));
    }
    mRecord.fields["sid"] = OneLine(outcome.output.substr(sid));
    if (isText) { return; }
    const Outcome set =
        RunProgram({"smbpasswd", "-s", mRecord.id}, password + '\n' + password + '\n');
    if (!set.IsSuccess()) {
        Fail("cannot set the password of " + mRecord.id + ": " + OneLine(set.output));
    }
}

void NewUser::Make(const std::string &password)
{
    // Started first: Python loads Samba's libraries while the user is made.
    Program helper({"/usr/bin/python3", "-I", "-S", "-B", HostFile("sambaAccount.py"), mRecord.id});
    const uid_t number = NextUserNumber();
    mRecord.fields["uid"] = std::to_string(number);
    MakeAccount(mRecord.id, number);
    MakeSambaAccount(&helper, password);
}

void NewUser::Write() const
{
    const RecordsLock lock;
    WriteRecord(mRecord);
}

void NewUser::Keep()
{
    const RecordsLock lock;
    mRecord.maker.reset();
    if (!mRecord.IsAlive()) { Fail("the caller has gone"); }
    WriteRecord(mRecord);
    mIsKept = true;
}

// Removes a user that an earlier session left without a record.  The name's record is ours now.
void RemoveLeftover(const std::string &name)
{
    if (FindAccount(name) != AccountState::Ours) { return; }
    Say("taking over the user " + name + " from a session that has ended");
    if (!TakeAwayAccount({RecordKind::User, name, {}, {}, {}})) {
        Fail("cannot take over the user " + name);
    }
}

} // namespace

void AddUser(const Arguments &arguments)
{
    if (arguments.size() != 3) { Fail("usage: adduser.sh USER USER PASSWORD_FILE"); }
    const std::string &name = arguments[0];
    CheckUserName(name);
    if (name != arguments[1]) {
        Fail("the two user names differ: " + Quoted(name) + " and " + Quoted(arguments[1]));
    }
    const std::string password = ReadPassword(arguments[2]);
    const ProcessMark session = CallerSession();
    ClearBeforeSession([&](const Record &record) { return record.User() == name; });
    NewUser user(name, session);
    RemoveLeftover(name);
    CheckNameIsFree(name);
    user.Make(password);
    user.Keep();
}
