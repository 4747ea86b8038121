// folder.cpp -- walks along the path once, by descriptors, and judges the folder at its end.
#include "folder.h"

#include "names.h"
#include "processes.h"
#include "report.h"

#include "hostFile.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <grp.h>
#include <linux/magic.h>
#include <optional>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace pelago::platform;

namespace {

constexpr uid_t NOBODY = static_cast<uid_t>(-1); // a number that no user has
constexpr int MAX_LINKS = 40;                    // as many as the kernel follows
constexpr mode_t OTHERS_MAY_WRITE = S_IWGRP | S_IWOTH;
// Samba has a group of all its users with this name, and so never finds a user by it.
constexpr char SAMBAS_GROUP[] = "none";

// A folder or a link that decides where the path leads, and who can change it besides root.
struct Waypoint {
    std::string path;
    uid_t uid;            // its owner, or the user who has mounted its file system
    bool othersMayChange; // its mode lets others than its owner change what it holds
    bool isUsersMount;    // a user may have mounted it: others may write to the folder above
};

struct OpenFolder {
    OwnedFd fd;
    std::string name; // empty for the root
    struct stat status;
};

// Returns the names between the slashes, without empty ones.
std::vector<std::string> Components(const std::string &path)
{
    std::vector<std::string> components;
    for (size_t begin = 0; begin < path.size();) {
        const size_t end = std::min(path.find('/', begin), path.size());
        if (end > begin) { components.push_back(path.substr(begin, end - begin)); }
        begin = end + 1;
    }
    return components;
}

// Opens a folder for reading, which makes the kernel mount a file system that is mounted on demand;
// anything else, and a folder that may not be read, with O_PATH.  Does not follow a link.
OwnedFd OpenComponent(int folder, const char *name)
{
    const int fd = openat(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd != -1 || errno == ENOENT) { return OwnedFd(fd); }
    return OwnedFd(openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

// Goes along a path, component by component, and notes each waypoint.
class Walk {
public:
    explicit Walk(const std::string &given) : mGiven(given) {}
    void ToTheEnd();
    const struct stat &Status() const { return mStack.back().status; }
    int Fd() const { return mStack.back().fd.Get(); }
    std::string Path() const;
    const std::vector<Waypoint> &Waypoints() const { return mWaypoints; }

private:
    void Take(const std::string &name);
    void EnterFolder(OwnedFd fd, const std::string &name, const struct stat &status);
    void FollowLink(const OwnedFd &link, const std::string &name, const struct stat &status);
    void Put(const std::string &path);
    [[noreturn]] void FailToOpen() const;

    const std::string &mGiven;
    std::vector<OpenFolder> mStack; // from the root to the folder that the walk has reached
    std::deque<std::string> mAhead; // the components that are left
    std::vector<Waypoint> mWaypoints;
    int mLinks = 0;
};

// Fails with the reason in errno.
void Walk::FailToOpen() const
{
    switch (errno) {
    case ENOENT:
    case ENOTDIR: Fail("not a folder: " + Quoted(mGiven));
    default: Fail("cannot resolve the path: " + Quoted(mGiven) + ": " + strerror(errno));
    }
}

std::string Walk::Path() const
{
    std::string path;
    for (size_t i = 1; i < mStack.size(); i++) {
        path += '/' + mStack[i].name;
    }
    return path.empty() ? "/" : path;
}

// Returns whether a file system is mounted there; also true when the kernel does not say.  Files of
// a file system that a user has mounted may claim any owner, and the user can unmount it again.
bool IsMounted(int fd)
{
    struct statx status;
    return statx(fd, "", AT_EMPTY_PATH, 0, &status) != 0 ||
           (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

// If the folder lies on a file system in user space, returns the user who has mounted it, and who
// therefore decides which owner each file has; NOBODY when that user is not known.  nullopt on any
// other file system.
std::optional<uid_t> Mounter(int fd, const struct stat &status)
{
    struct statfs system;
    if (fstatfs(fd, &system) != 0) { return NOBODY; }
    if (system.f_type != FUSE_SUPER_MAGIC) { return std::nullopt; }
    const std::string device = ' ' + std::to_string(major(status.st_dev)) + ':' +
                               std::to_string(minor(status.st_dev)) + ' ';
    uid_t mounter = NOBODY;
    HostForEachLine(TextOf("/proc/self/mountinfo"), [&](std::string_view line) {
        constexpr std::string_view OPTION = "user_id=";
        const size_t at = line.find(OPTION);
        if (line.find(device) == line.npos || at == line.npos) { return; }
        const char *number = line.data() + at + OPTION.size();
        std::from_chars(number, line.data() + line.size(), mounter);
    });
    return mounter;
}

void Walk::EnterFolder(OwnedFd fd, const std::string &name, const struct stat &status)
{
    const bool isUsersMount =
        !mStack.empty() && (Status().st_mode & OTHERS_MAY_WRITE) != 0 && IsMounted(fd.Get());
    mStack.push_back({std::move(fd), name, status});
    // In a folder with the sticky bit users can rename only what they own.
    const bool others = (status.st_mode & OTHERS_MAY_WRITE) != 0 && (status.st_mode & S_ISVTX) == 0;
    mWaypoints.push_back({Path(), status.st_uid, others, isUsersMount});
    const std::optional<uid_t> mounter = Mounter(Fd(), status);
    if (mounter) { mWaypoints.push_back({Path(), *mounter, others, isUsersMount}); }
}

// A user who may rename files in the folder that holds the link can replace the link.  Where others
// may write to a folder with the sticky bit, the owner of the link can replace it, too.
void Walk::FollowLink(const OwnedFd &link, const std::string &name, const struct stat &status)
{
    if (++mLinks > MAX_LINKS) {
        errno = ELOOP;
        FailToOpen();
    }
    std::string target(PATH_MAX, '\0');
    const ssize_t size = readlinkat(link.Get(), "", target.data(), target.size());
    if (size <= 0) { FailToOpen(); }
    target.resize(static_cast<size_t>(size));
    if ((Status().st_mode & OTHERS_MAY_WRITE) != 0) {
        const std::string folder = Path();
        mWaypoints.push_back(
            {(folder == "/" ? "" : folder) + '/' + name, status.st_uid, false, false});
    }
    Put(target);
}

// Puts the components of the path before those that are left; an absolute path starts at the root.
void Walk::Put(const std::string &path)
{
    if (path.starts_with('/')) { mStack.resize(1); }
    const std::vector<std::string> components = Components(path);
    mAhead.insert(mAhead.begin(), components.begin(), components.end());
}

void Walk::Take(const std::string &name)
{
    if (name == ".") { return; }
    if (name == "..") {
        // Back to the folder that the walk came through, which is noted as a waypoint: ".." on the
        // disk may be another folder by now.
        if (mStack.size() > 1) { mStack.pop_back(); }
        return;
    }
    OwnedFd fd = OpenComponent(Fd(), name.c_str());
    struct stat status;
    if (!fd.IsOpen() || fstat(fd.Get(), &status) != 0) { FailToOpen(); }
    if (S_ISLNK(status.st_mode)) {
        FollowLink(fd, name, status);
    } else if (S_ISDIR(status.st_mode)) {
        EnterFolder(std::move(fd), name, status);
    } else {
        errno = ENOTDIR;
        FailToOpen();
    }
}

void Walk::ToTheEnd()
{
    OwnedFd root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (!root.IsOpen() || fstat(root.Get(), &status) != 0) { FailToOpen(); }
    EnterFolder(std::move(root), "", status);
    Put(mGiven);
    while (!mAhead.empty()) {
        const std::string name = mAhead.front();
        mAhead.pop_front();
        Take(name);
    }
}

// Returns the user that Samba finds for a name: Samba looks for the name in small letters first,
// also beyond ASCII.  nullptr when there is none.
const passwd *FindAsSamba(const std::string &name)
{
    const passwd *found = getpwnam(Folded(name).c_str());
    return found != nullptr ? found : getpwnam(name.c_str());
}

// Sets the owner's name and group.  Fails when Samba cannot act as the owner.
void FindOwner(const std::string &given, Folder *folder)
{
    const passwd *owner = getpwuid(folder->uid);
    if (owner == nullptr) {
        Fail("the owner of the folder, number " + std::to_string(folder->uid) +
             ", is no user of this host: " + Quoted(given));
    }
    folder->owner = owner->pw_name;
    folder->gid = owner->pw_gid;
    const std::string &name = folder->owner;
    // In Samba's configuration such a name would be stripped, expanded or split.
    const bool isOdd = name.find_first_of("%\"\\,;@+&") != std::string::npos ||
                       name.front() == ' ' || name.back() == ' ' || Printable(name) != name ||
                       !IsUtf8(name) || IsSidLike(name) || Folded(name) == SAMBAS_GROUP;
    const passwd *forced = isOdd ? nullptr : FindAsSamba(name);
    if (forced == nullptr || forced->pw_uid != folder->uid) {
        Fail("Samba cannot act as the owner of the folder, " + Quoted(name));
    }
}

// Fails when anybody but root and the folder's owner can change one of the waypoints.
void CheckWay(const std::string &given, const Folder &folder,
              const std::vector<Waypoint> &waypoints)
{
    const Waypoint &last = waypoints.back();
    for (const Waypoint &point : waypoints) {
        // Others may write to the shared folder itself, because smbd follows no link out of it.  A
        // folder of root's is excepted: as root smbd could go anywhere.
        const bool isTheFolder = &point == &last && point.path == folder.path;
        const bool others = point.othersMayChange && (!isTheFolder || folder.uid == 0);
        if ((point.uid != 0 && point.uid != folder.uid) || others || point.isUsersMount) {
            Fail("the folder belongs to " + folder.owner + ", but others can change " +
                 Quoted(point.path) + ": " + Quoted(given));
        }
    }
}

// Returns whether the owner can enter the folder.  A child process tries it with the owner's
// effective user and group.  Its real user stays root: the owner could stop a process of their own,
// and the script would wait for it for ever.
bool OwnerCanEnter(const Folder &folder, int fd)
{
    const pid_t child = fork();
    if (child == -1) { Fail(std::string("cannot start a process: ") + strerror(errno)); }
    if (child == 0) {
        const bool isOwner = initgroups(folder.owner.c_str(), folder.gid) == 0 &&
                             setegid(folder.gid) == 0 && seteuid(folder.uid) == 0;
        // Enters by the path, as smbd does, and checks that this is the folder that was judged.
        struct stat there, judged;
        const bool canEnter = isOwner && chdir(folder.path.c_str()) == 0 &&
                              stat(".", &there) == 0 && fstat(fd, &judged) == 0 &&
                              there.st_dev == judged.st_dev && there.st_ino == judged.st_ino;
        _exit(canEnter ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    int status = -1;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {}
    return status == 0;
}

} // namespace

Folder JudgeFolder(const std::string &given)
{
    if (!given.starts_with('/')) { Fail("the folder's path is not absolute: " + Quoted(given)); }
    if (!IsUtf8(given)) { Fail("the folder's path is not valid UTF-8"); }
    Walk walk(given);
    walk.ToTheEnd();
    Folder folder;
    folder.path = walk.Path();
    folder.uid = walk.Status().st_uid;
    if (!IsUtf8(folder.path)) { Fail("the folder's path is not valid UTF-8"); }
    FindOwner(given, &folder);
    CheckWay(given, folder, walk.Waypoints());
    if (!OwnerCanEnter(folder, walk.Fd())) {
        Fail("the owner of the folder, " + folder.owner + ", cannot enter it: " + Quoted(given));
    }
    return folder;
}
