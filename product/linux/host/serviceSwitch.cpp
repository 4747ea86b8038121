// serviceSwitch.cpp -- runs smbd while the system preferences enable file sharing, and removes what
// dead sessions left.
//
// The switch is a process that keeps running.  It watches the folder of the preferences and not the
// file, because each change replaces the file by a new one.  It also watches the folders of the
// records; while there are records, it checks every second whether their processes still run.
#include "administration.h"

#include "lockFile.h"
#include "program.h"
#include "report.h"
#include "session.h"
#include "smbService.h"
#include "smbdDaemon.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <memory>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace pelago::platform;

namespace {

constexpr char FOLDER[] = "/Library/Preferences/SystemConfiguration";
constexpr char FILE_NAME[] = "com.apple.smb.server.plist";
constexpr char LOCK[] = "/run/pelago-smb-switch.lock";
constexpr char RUNNING[] = "/run/pelago-smb-switch.running";
constexpr char USERS[] = "/run/pelago/users";
constexpr char SHARES[] = "/run/pelago/shares";
constexpr int LOCK_SECONDS = 120; // how long to wait for another process that reads the preferences
constexpr int LOOK_MILLISECONDS = 1000;
// How many looks without a session precede taking the service back: a program that has switched the
// service on, or relies on it, makes its user's record a moment later.
constexpr int GRACE_LOOKS = 3;
constexpr int LOOKS_AFTER_FAILURE = 4; // how many looks to skip after a removal has failed
constexpr uint32_t FILE_EVENTS = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE;
constexpr uint32_t FOLDER_GONE = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;

// Returns the lock that the switch holds while it runs.  Fails when another switch has it.
OwnedFd LockRunning()
{
    OwnedFd fd = OpenLock(RUNNING);
    if (!TakeLock(fd)) { Fail("another switch runs"); }
    return fd;
}

// Returns the lock under which one process at a time reads the preferences and starts or stops
// smbd.  Each reads them after it has the lock, so the last one acts on the last change.
OwnedFd LockLooks() { return HoldLock(LOCK, LOCK_SECONDS, "another look"); }

// Starts or stops smbd as the preferences want it.
void SyncSmbd()
{
    const OwnedFd lock = LockLooks();
    std::string reason;
    switch (SmbServiceWanted(SMB_PREFERENCES, &reason)) {
    case SmbWanted::Yes: return StartSmbd();
    case SmbWanted::No: return StopSmbd();
    case SmbWanted::Unknown: Say("the preferences cannot be read; smbd stays as it is: " + reason);
    }
}

// Removes what dead sessions left, in a process of its own.  That process is the maker of the
// records it works on; if it fails, its end makes them dead, and any process may remove them.
bool ClearInAProcess()
{
    const Outcome outcome = RunProgram({"/proc/self/exe", "sessions", "--clean"});
    if (!outcome.output.empty()) { Say(OneLine(outcome.output)); }
    return outcome.IsSuccess();
}

// Switches the service off if the program that switched it on has ended; does not wait for the
// lock.
void TakeServiceBack()
{
    std::string reason;
    const SmbChange change = SmbServiceTakeBack(SMB_PREFERENCES, false, &reason);
    if (change == SmbChange::Done) {
        Say("file sharing is off again: the program that had switched it on has ended");
    } else if (change == SmbChange::Failed) {
        Say("cannot switch file sharing off again: " + reason);
    }
}

// Checks the sessions between two changes of the preferences.
class Sessions {
public:
    void Look();
    // Returns whether to look every second: the end of a process is no event of a watched folder.
    bool NeedLooks() const { return mNeedLooks; }

private:
    void Clear();

    int mIdleLooks = 0; // consecutive looks with the service's owner dead and no session alive
    int mLooksToSkip = 0;
    bool mNeedLooks = false;
};

// Removes what dead sessions left.  After a failure it tries again after LOOKS_AFTER_FAILURE looks.
void Sessions::Clear()
{
    if (mLooksToSkip > 0) {
        mLooksToSkip--;
    } else if (!ClearInAProcess()) {
        mLooksToSkip = LOOKS_AFTER_FAILURE;
    }
}

void Sessions::Look()
{
    const bool isFirst = IsFirstLook();
    if (isFirst || IsAnySessionDead()) { Clear(); }
    const ServiceOwner owner = SmbServiceOwner(SMB_PREFERENCES);
    const bool isIdle = owner == ServiceOwner::Dead && !IsAnySessionAlive();
    mIdleLooks = isIdle ? mIdleLooks + 1 : 0;
    // At the first look after a boot no program can be about to make a user.
    if (isIdle && (isFirst || mIdleLooks >= GRACE_LOOKS)) { TakeServiceBack(); }
    mNeedLooks =
        owner != ServiceOwner::Nobody || IsAnySessionAlive() || IsAnySessionDead() || IsFirstLook();
}

// Watches the folders of the preferences and of the records.
class Watch {
public:
    Watch();
    // Waits for an event, with needLooks for one second at most.  Returns whether the preferences
    // may have changed.
    bool Wait(bool needLooks);
    // Returns whether a folder of the records was removed or replaced, and must be watched anew.
    bool IsBlind() const { return mIsBlind; }

private:
    void Add(const char *folder, uint32_t events, int *descriptor);
    bool ReadEvents();

    OwnedFd mFd{inotify_init1(IN_CLOEXEC | IN_NONBLOCK)};
    int mPreferences = -1, mUsers = -1, mShares = -1;
    bool mIsBlind = false;
};

void Watch::Add(const char *folder, uint32_t events, int *descriptor)
{
    *descriptor = inotify_add_watch(mFd.Get(), folder, events | IN_ONLYDIR);
    if (*descriptor == -1) { Fail(std::string("cannot watch ") + folder + ": " + strerror(errno)); }
}

Watch::Watch()
{
    Add(FOLDER, FILE_EVENTS | FOLDER_GONE, &mPreferences);
    Add(USERS, IN_MOVED_TO | IN_CREATE | FOLDER_GONE, &mUsers);
    Add(SHARES, IN_CREATE | FOLDER_GONE, &mShares);
}

// Reads all events that have arrived; returns whether the preferences may have changed.
bool Watch::ReadEvents()
{
    alignas(inotify_event) char buffer[64 * (sizeof(inotify_event) + NAME_MAX + 1)];
    bool isChanged = false;
    ssize_t size;
    while ((size = read(mFd.Get(), buffer, sizeof buffer)) > 0) {
        for (ssize_t at = 0; at < size;) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
            at += static_cast<ssize_t>(sizeof *event + event->len);
            const bool isGone = (event->mask & FOLDER_GONE) != 0;
            if (isGone && event->wd == mPreferences) { Fail(std::string(FOLDER) + " is gone"); }
            mIsBlind = mIsBlind || isGone;
            const bool isLost = (event->mask & IN_Q_OVERFLOW) != 0;
            const bool isFile =
                event->wd == mPreferences && event->len != 0 && strcmp(event->name, FILE_NAME) == 0;
            isChanged = isChanged || isLost || isFile;
        }
    }
    return isChanged;
}

bool Watch::Wait(bool needLooks)
{
    pollfd poller = {mFd.Get(), POLLIN, 0};
    poll(&poller, 1, needLooks ? LOOK_MILLISECONDS : -1);
    CheckForSignal();
    return ReadEvents();
}

// Makes the folders of the records if they are missing, and watches.  Call it before the first
// look, so that no change is missed.
std::unique_ptr<Watch> StartWatch()
{
    const RecordsLock makesTheFolders;
    return std::make_unique<Watch>();
}

void WatchForEver()
{
    [[maybe_unused]] const OwnedFd running = LockRunning();
    std::unique_ptr<Watch> watch = StartWatch();
    Sessions sessions;
    bool isChanged = true;
    for (;;) {
        if (watch->IsBlind()) { watch = StartWatch(); }
        // Before smbd starts: after a boot no client must reach what a dead session left.
        sessions.Look();
        if (isChanged) { SyncSmbd(); }
        isChanged = watch->Wait(sessions.NeedLooks());
    }
}

} // namespace

bool IsSwitchRunning() { return !TakeLock(OpenLock(RUNNING)); }

void SwitchService(const Arguments &arguments)
{
    umask(022); // for smbd
    if (arguments == Arguments{"--once"}) { return SyncSmbd(); }
    if (!arguments.empty()) { Fail("usage: pelagoHost switch [--once]"); }
    try {
        WatchForEver();
    } catch (const Interruption &interruption) {
        // SIGTERM is how the service is stopped, and so no failure.
        if (interruption.signal != SIGTERM) { throw; }
    }
}
