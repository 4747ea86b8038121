// lockFile.cpp -- opens lock files and takes their locks with flock().
#include "lockFile.h"

#include "report.h"
#include "waiting.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace pelago::platform;

OwnedFd OpenLock(const char *path)
{
    constexpr mode_t ROOT_ONLY = S_IRUSR | S_IWUSR;
    struct stat status;
    if (lstat(path, &status) == 0 &&
        (status.st_uid != 0 || status.st_mode != (S_IFREG | ROOT_ONLY))) {
        unlink(path);
    }
    OwnedFd lock(open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, ROOT_ONLY));
    if (!lock.IsOpen()) { Fail(std::string("cannot open ") + path + ": " + strerror(errno)); }
    return lock;
}

bool TakeLock(const OwnedFd &lock) { return flock(lock.Get(), LOCK_EX | LOCK_NB) == 0; }

OwnedFd HoldLock(const char *path, int seconds, const std::string &holder)
{
    OwnedFd lock = OpenLock(path);
    if (!WaitUntil(seconds, [&] { return TakeLock(lock); })) {
        Fail(holder + " has not ended within " + std::to_string(seconds) + " s");
    }
    return lock;
}
