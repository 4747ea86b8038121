// pelagoShareTool.cpp -- shares one folder over SMB for one user until the caller writes a line to
// our standard input or closes it, and then restores the previous state.
//
// Standard output is the caller's protocol: it is parsed byte by byte, so every text that goes
// there stays as it is.  Standard error is for people.
#include "diagnostics.h"
#include "location.h"
#include "runScript.h"
#include "unicode.h"
#include "util.h"

#include <SystemConfiguration/SystemConfiguration.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace {

#define SAMBA_PREFS_FILE "/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist"

constexpr int EXIT_USAGE = 2;
constexpr int LINE_SIZE = 80; // bytes of the caller's line that are read, and a NUL

// Parts of the fatal report when a product file has no path: the module and the numbers.
constexpr char SOURCE_PATH[] = "apps/pelagoShareTool/pelagoShareTool";
constexpr int ADD_USER_CHECK = 305;
constexpr int RM_USER_CHECK = 340;
constexpr int ADD_SHARE_CHECK = 377;
constexpr int RM_SHARE_CHECK = 415;

struct Request {
    const char *folderPath;
    const char *shareName;
    const char *username;
    const char *pathPasswordFile;
    const char *access; // passed to the add-share script unchecked
};

// The library has such guards in its internal headers, which a program does not include.
struct FreeBlock {
    void operator()(char *block) const { free(block); }
};
using ScopedPath = std::unique_ptr<char, FreeBlock>;

struct ReleaseObject {
    void operator()(CFTypeRef object) const { CFRelease(object); }
};
template <typename Ref>
using ScopedRef = std::unique_ptr<std::remove_pointer_t<Ref>, ReleaseObject>;

// Replaces the state that a caller may have left and that would break this process.
void SettleProcess()
{
    // A descriptor that the caller closed would be given to the preferences file, and our messages
    // would end up in it.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        if (fcntl(fd, F_GETFD) == -1) {
            open("/dev/null", O_RDWR); // gets the lowest free number, which is fd
        }
    }
    // With SIGCHLD ignored a script's result would be lost.
    signal(SIGCHLD, SIG_DFL);
    // After the caller's death this process must clean up, and not be killed at its next message.
    // A limit on the size of files must make a commit fail, and not kill this process in it.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
}

CFRange FullRange(CFArrayRef array) { return CFRangeMake(0, CFArrayGetCount(array)); }

bool IsArray(CFTypeRef value) { return CFGetTypeID(value) == CFArrayGetTypeID(); }

CFPropertyListRef GetEnabledServices(SCPreferencesRef prefs)
{
    return SCPreferencesGetValue(prefs, CFSTR("EnabledServices"));
}

// Returns whether the SMB service is on; nullopt, after a message, when the value is not an array.
std::optional<bool> IsFileSharingEnabled(SCPreferencesRef prefs)
{
    const CFPropertyListRef services = GetEnabledServices(prefs);
    if (services == nullptr) { return false; }
    if (!IsArray(services)) {
        fprintf(stderr, "%s result of 'EnabledServices' is not of type CFArrayRef\n", __func__);
        return std::nullopt;
    }
    const auto array = static_cast<CFArrayRef>(services);
    return CFArrayContainsValue(array, FullRange(array), CFSTR("disk"));
}

// Stores services and writes the preferences.  Returns false after a message that begins with
// `caller`; `setFailure` is the message for a value that cannot be stored.
bool CommitServices(SCPreferencesRef prefs, CFArrayRef services, const char *caller,
                    const char *setFailure)
{
    if (!SCPreferencesSetValue(prefs, CFSTR("EnabledServices"), services)) {
        fprintf(stderr, "%s: %s\n", caller, setFailure);
        return false;
    }
    if (!SCPreferencesCommitChanges(prefs)) {
        fprintf(stderr, "%s: error while committing preference change to disk\n", caller);
        return false;
    }
    return true;
}

// Returns the enabled services, nullptr when there are none; nullopt, after a message that begins
// with `caller`, when the value is not an array.
std::optional<CFArrayRef> GetServicesToChange(SCPreferencesRef prefs, const char *caller)
{
    const CFPropertyListRef present = GetEnabledServices(prefs);
    if (present != nullptr && !IsArray(present)) {
        fprintf(stderr, "%s: EnabledServicesKey has unexpected non-array type\n", caller);
        return std::nullopt;
    }
    return static_cast<CFArrayRef>(present);
}

bool EnableFileSharing(SCPreferencesRef prefs)
{
    fprintf(stderr, "Enabling Windows File Sharing.\n");
    const std::optional<CFArrayRef> present = GetServicesToChange(prefs, __func__);
    if (!present) { return false; }
    const ScopedRef<CFMutableArrayRef> services(
        CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks));
    if (!services) {
        fprintf(stderr, "%s: Unable to allocate mutable array for enabled services\n", __func__);
        return false;
    }
    if (*present != nullptr) { CFArrayAppendArray(services.get(), *present, FullRange(*present)); }
    CFArrayAppendValue(services.get(), CFSTR("disk"));
    return CommitServices(prefs, services.get(), __func__, "error while enabling file sharing");
}

bool DisableFileSharing(SCPreferencesRef prefs)
{
    fprintf(stderr, "Disabling Windows File Sharing.\n");
    const std::optional<CFArrayRef> present = GetServicesToChange(prefs, __func__);
    if (!present) { return false; }
    if (*present == nullptr) { return true; }
    const CFIndex disk = CFArrayGetFirstIndexOfValue(*present, FullRange(*present), CFSTR("disk"));
    if (disk == kCFNotFound) { return true; }
    const ScopedRef<CFMutableArrayRef> services(
        CFArrayCreateMutableCopy(kCFAllocatorDefault, 0, *present));
    if (!services) {
        fprintf(stderr, "%s: failed to create mutable copy of ENABLED_SERVICES\n", __func__);
        return false;
    }
    CFArrayRemoveValueAtIndex(services.get(), disk); // a second "disk" has another owner
    return CommitServices(prefs, services.get(), __func__, "error while disabling file sharing");
}

// Switches the SMB service on unless it is on already.  Returns whether it was on before; nullopt,
// after a line to the caller, on failure.
std::optional<bool> EnsureFileSharing(SCPreferencesRef prefs)
{
    const std::optional<bool> wasEnabled = IsFileSharingEnabled(prefs);
    if (!wasEnabled) {
        puts("1 - Unable to determine Windows File Sharing capability");
        return std::nullopt;
    }
    if (!*wasEnabled && !EnableFileSharing(prefs)) {
        puts("1 - Unable to enable Windows File Sharing");
        return std::nullopt;
    }
    return wasEnabled;
}

// Returns the path of a product file.  Ends the process when it has none; `check` is the number in
// the report.
ScopedPath GetProductFile(const char *key, int check)
{
    ScopedPath path(Location_Get(key));
    if (!path) { Panic(UTIL_NOT_IMPLEMENTED_REPORT, SOURCE_PATH, check); }
    return path;
}

bool AddUser(const Request &request)
{
    const ScopedPath script = GetProductFile("shareAddUserFile", ADD_USER_CHECK);
    // The script is given the name twice, on purpose.
    const char *const argv[] = {script.get(), request.username, request.username,
                                request.pathPasswordFile, nullptr};
    if (RunScript(argv) == 0) { return true; }
    fprintf(stderr, "Failed to create user %s\n", request.username);
    printf("1 - failed to create user %s\n", request.username);
    return false;
}

// Returns the script's status.
int AddShare(const Request &request)
{
    fprintf(stderr, "Sharing %s as %s\n", request.folderPath, request.shareName);
    const ScopedPath script = GetProductFile("shareAddShareFile", ADD_SHARE_CHECK);
    const char *const argv[] = {script.get(),
                                request.username,
                                request.pathPasswordFile,
                                request.folderPath,
                                request.shareName,
                                request.access,
                                nullptr};
    const int status = RunScript(argv);
    printf("%d is the sharing result (0=ok). %s\n", status,
           status == 0 ? "Press Enter to delete it and exit:" : "Exiting.");
    fflush(stdout); // the caller waits for this line, and we are about to wait for the caller
    return status;
}

void WaitForCaller()
{
    fprintf(stderr, "Waiting for data or pipe closure to delete share...\n");
    char line[LINE_SIZE];
    if (fgets(line, sizeof line, stdin) != nullptr) {
        fprintf(stderr, "tool deleting share because we received '%s'.", line);
    } else {
        fprintf(stderr, "tool deleting share because pipe was closed.\n");
    }
}

// Returns the script's status.
int RemoveShare(const Request &request)
{
    const ScopedPath script = GetProductFile("shareRmShareFile", RM_SHARE_CHECK);
    const char *const argv[] = {script.get(), request.shareName, request.folderPath, nullptr};
    const int status = RunScript(argv);
    printf("%d is the delete share result (0=success, nonzero=failure).\n", status);
    return status;
}

bool RemoveUser(const Request &request)
{
    const ScopedPath script = GetProductFile("shareRmUserFile", RM_USER_CHECK);
    const char *const argv[] = {script.get(), request.username, nullptr};
    if (RunScript(argv) == 0) { return true; }
    fprintf(stderr, "Failed to delete user %s\n", request.username);
    return false;
}

// Creates the user and the share, waits for the caller, then removes both, and switches the service
// off if it was off before.  The preferences are unlocked meanwhile.  After a share was served they
// are locked again; when that fails, the user and the service stay as they are.  When there was no
// share, the commit takes the lock for itself.  Returns the exit status.
int ServeShare(const Request &request, ScopedRef<SCPreferencesRef> prefs, bool sharingWasEnabled)
{
    int status = EXIT_FAILURE;
    const bool userCreated = AddUser(request);
    if (userCreated) { status = AddShare(request); }
    if (userCreated && status == 0) {
        WaitForCaller();
        status = RemoveShare(request);
        if (!SCPreferencesLock(prefs.get(), true)) {
            prefs.reset();
            fprintf(stderr, "Unable to lock preferences to restore original state\n");
            return EXIT_FAILURE;
        }
    }
    if (!sharingWasEnabled && !DisableFileSharing(prefs.get())) {
        fprintf(stderr, "Unable to disable Windows File Sharing\n");
        status = EXIT_FAILURE;
    }
    if (userCreated && !RemoveUser(request)) { status = EXIT_FAILURE; }
    SCPreferencesUnlock(prefs.get()); // fails without effect when the lock is not held
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    SettleProcess();
    if (argc != 6) {
        // Cut off on purpose: callers match this line byte for byte.
        puts("2 - usage error. pelagoShareTool <folderPath> <shareName> <username> "
             "<pathPasswordFile");
        return EXIT_USAGE;
    }
    const Request request = {argv[1], argv[2], argv[3], argv[4], argv[5]};
    Location_Init("shareTool");
    Unicode_Init();

    if (access(SAMBA_PREFS_FILE, R_OK) != 0) {
        fprintf(stderr, "Samba prefs file %s not found, exiting.\n", SAMBA_PREFS_FILE);
        printf("1 - cannot find Samba preferences file %s.\n", SAMBA_PREFS_FILE);
        return EXIT_FAILURE;
    }
    ScopedRef<SCPreferencesRef> prefs(SCPreferencesCreate(
        kCFAllocatorDefault, CFSTR("pelagoShareTool"), CFSTR(SAMBA_PREFS_FILE)));
    if (!prefs) {
        puts("1 - Failure reported by SCPreferencesCreate");
        return EXIT_FAILURE;
    }
    if (!SCPreferencesLock(prefs.get(), true)) {
        prefs.reset();
        puts("1 - Unable to lock preferences. Are you running as root?");
        return EXIT_FAILURE;
    }
    const std::optional<bool> sharingWasEnabled = EnsureFileSharing(prefs.get());
    SCPreferencesUnlock(prefs.get());
    if (!sharingWasEnabled) { return EXIT_FAILURE; }
    return ServeShare(request, std::move(prefs), *sharingWasEnabled);
}
