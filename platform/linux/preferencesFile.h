/*
 * preferencesFile.h -- the file behind a preferences session: its lock, its bytes, its replacement.
 * Functions answer 0 or an errno value, and leave nothing open when they fail.
 * Those that say so may throw std::bad_alloc.
 */
#ifndef PELAGO_LINUX_PREFERENCESFILE_H
#define PELAGO_LINUX_PREFERENCESFILE_H

#include "hostFile.h"

#include <sys/stat.h>

#include <string>

namespace pelago::platform {

// Tells whether a file has changed.  All zero for a missing file.
struct FileSignature {
    dev_t device = 0;
    ino_t inode = 0;
    time_t seconds = 0;
    long nanoseconds = 0;
    off_t size = 0;
    static FileSignature Of(const struct stat &status);
    static FileSignature OfPath(const char *path); // of the target, when it is a link
    bool operator==(const FileSignature &other) const = default;
};

// The lock that processes take before they write: an exclusively locked file beside the
// preferences, which is removed when the lock is given back.  It dies with its holder; the file of
// a holder that was killed stays and does no harm.
class LockFile {
public:
    ~LockFile() { Unlock(); }
    // EWOULDBLOCK when it is taken and wait is false; a failure changes nothing here.  On a
    // read-only file system everybody gets the lock, without a file: nobody can write.
    int Lock(const std::string &path, bool wait);
    void Unlock();
    bool IsLocked() const { return mIsLocked; }

private:
    std::string mPath;
    OwnedFd mFd; // not open on a read-only file system
    bool mIsLocked = false;
};

// What a file holds, and who switched a service on in it (serviceOwner.h): a record in an extended
// attribute, so that both change at once and a file that others put in its place has none.
struct FileContent {
    std::string bytes;
    std::string record; // empty for none, or for one that cannot be read
};

// The whole file.  ENOENT for a missing one; EFBIG for more than maxSize bytes; EINVAL for anything
// that is not a regular file.  The signature is that of what was opened, zero when nothing was.
// May throw.
int ReadWholeFile(const char *path, size_t maxSize, FileContent *content, FileSignature *signature);

// Replaces the file, or makes it: durably, whole or not at all, with the owner, group and mode of
// the present one (0644 and the effective ids when there is none).  A symbolic link is replaced
// itself.  If the folder cannot be made durable after the change, the old content is put back as
// well as that goes.  A record that the file system does not take is left out.  May throw, before
// anything is changed.
int ReplaceFile(const std::string &path, const FileContent &content, const FileContent &oldContent,
                FileSignature *signature);

} // namespace pelago::platform

#endif /* PELAGO_LINUX_PREFERENCESFILE_H */
