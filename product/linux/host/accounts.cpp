// accounts.cpp -- the user database, read by the C library and changed by the host's own programs.
#include "accounts.h"

#include "lockFile.h"
#include "names.h"
#include "processes.h"
#include "program.h"
#include "report.h"
#include "waiting.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace pelago::platform;

namespace {

constexpr char COMMENT[] = "Pelago share user";
constexpr char ACCOUNTS_LOCK[] = "/run/pelago/accounts.lock";
constexpr int LOCK_SECONDS = 60;
constexpr int END_SECONDS = 5; // how long processes of the user may take to end

// The range of numbers lies above those that systemd gives to containers, and below 2^31.
constexpr uid_t FIRST_NUMBER = 1879048192;
constexpr uid_t LAST_NUMBER = 2147483646;
// A new number is at least FIRST_NUMBER plus the seconds since this time.  So a number comes again
// after eight years at the earliest, when the range is used up, even if MEMORY is lost.
constexpr time_t FIRST_SECOND = 1767225600; // 2026-01-01
constexpr char MEMORY_FOLDER[] = "/var/lib/pelago";
constexpr char MEMORY[] = "/var/lib/pelago/lastUserNumber"; // the last number that was given
// Debian's group "nogroup", which must own no file.
constexpr gid_t NOBODYS_GROUP = 65534;

// The exit statuses of userdel for a user that does not exist, and for one who runs processes.
constexpr int NO_SUCH_USER = 6, IN_USE = 8;

// Call it after a search that found nothing, with errno 0 before it.  Fails when the search failed.
void CheckSearch(const char *database)
{
    if (errno == 0 || errno == ENOENT || errno == ESRCH) { return; }
    Fail(std::string("cannot read the ") + database + " database: " + strerror(errno));
}

// Calls visit for each user of the host.
template <typename Visit> void ForEachAccount(const Visit &visit)
{
    setpwent();
    // errno at the end is not checked: a source of users that does not answer may have set it.
    while (const passwd *entry = getpwent()) {
        visit(*entry);
    }
    endpwent();
}

// Waits for the lock; returns false on an error.
bool Lock(int file)
{
    while (flock(file, LOCK_EX) != 0) {
        if (errno != EINTR) { return false; }
    }
    return true;
}

// Returns the last number that was given to a user; 0 when it is not known.
uid_t LastNumber(int file)
{
    char text[32] = "";
    if (pread(file, text, sizeof text - 1, 0) <= 0) { return 0; }
    return static_cast<uid_t>(strtoul(text, nullptr, 10));
}

// Returns the next free number.
uid_t NumberAfter(uid_t last, time_t now)
{
    constexpr time_t span = time_t{LAST_NUMBER} - FIRST_NUMBER + 1;
    const auto byTime =
        FIRST_NUMBER + static_cast<uid_t>(std::max<time_t>(now - FIRST_SECOND, 0) % span);
    // True after the clock was set back, and when several users are made within one second.  A
    // last number that is nearer to the end of the range does not count: the time has begun again
    // at the start of the range.
    const bool isAhead = last >= byTime && last - byTime < LAST_NUMBER - last;
    uid_t number = isAhead ? last + 1 : byTime;
    while (getpwuid(number) != nullptr) {
        number = number == LAST_NUMBER ? FIRST_NUMBER : number + 1;
    }
    return number;
}

// The lock on changes of the user database by share scripts.  The program that makes the change
// inherits it, because the program may outlive its script.
OwnedFd LockAccounts()
{
    return HoldLock(ACCOUNTS_LOCK, LOCK_SECONDS, "another change of the user database");
}

} // namespace

void WaitForAccountPrograms() { LockAccounts(); }

AccountState FindAccount(const std::string &user)
{
    errno = 0;
    const passwd *entry = getpwnam(user.c_str());
    if (entry != nullptr) {
        return strcmp(entry->pw_gecos, COMMENT) == 0 ? AccountState::Ours : AccountState::Taken;
    }
    CheckSearch("user");
    return AccountState::None;
}

std::vector<std::string> OurAccounts()
{
    std::vector<std::string> users;
    ForEachAccount([&](const passwd &entry) {
        if (strcmp(entry.pw_gecos, COMMENT) == 0) { users.emplace_back(entry.pw_name); }
    });
    return users;
}

void CheckNameIsFree(const std::string &user)
{
    if (FindAccount(user) != AccountState::None) { Fail("the user " + user + " exists already"); }
    errno = 0;
    if (getgrnam(user.c_str()) != nullptr) { Fail("the group " + user + " exists already"); }
    CheckSearch("group");
    ForEachAccount([&](const passwd &entry) {
        if (strcasecmp(entry.pw_name, user.c_str()) != 0) { return; }
        Fail("the user " + Quoted(entry.pw_name) + " exists already, and Samba would hold " + user +
             " for the same");
    });
}

uid_t NextUserNumber()
{
    if (mkdir(MEMORY_FOLDER, S_IRWXU) != 0 && errno != EEXIST) {
        Fail(std::string("cannot make ") + MEMORY_FOLDER + ": " + strerror(errno));
    }
    const OwnedFd file(open(MEMORY, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file.IsOpen() || !Lock(file.Get())) {
        Fail(std::string("cannot open ") + MEMORY + ": " + strerror(errno));
    }
    const uid_t number = NumberAfter(LastNumber(file.Get()), time(nullptr));
    const std::string text = std::to_string(number) + '\n';
    if (pwrite(file.Get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        Fail(std::string("cannot write ") + MEMORY + ": " + strerror(errno));
    }
    return number;
}

void MakeAccount(const std::string &user, uid_t number)
{
    const OwnedFd lock = LockAccounts();
    const Outcome outcome = RunToItsEnd(
        {"useradd", "--system", "--no-log-init", "--no-create-home", "--home-dir", "/nonexistent",
         "--shell", "/usr/sbin/nologin", "--no-user-group", "--gid", std::to_string(NOBODYS_GROUP),
         "--uid", std::to_string(number), "--comment", COMMENT, "--", user},
        lock.Get());
    if (!outcome.IsSuccess()) {
        Fail("cannot make the user " + user + ": " + OneLine(outcome.output));
    }
}

bool RemoveAccount(const std::string &user)
{
    const Deadline deadline(END_SECONDS);
    for (;;) {
        const Outcome outcome = RunToItsEnd({"userdel", "--", user}, LockAccounts().Get());
        if (outcome.IsSuccess() || outcome.status == NO_SUCH_USER) { return true; }
        if (outcome.status != IN_USE || deadline.IsOver()) {
            Say("cannot remove the user " + user + ": " + OneLine(outcome.output));
            return false;
        }
        Pause();
    }
}
