/*
 * preferencesFile.h -- the file of a preferences session: its lock, its bytes, its replacement.
 * Functions return 0 or an errno value, and leave nothing open when they fail.
 * "May throw" means std::bad_alloc; the other functions throw nothing.
 */
#ifndef PELAGO_LINUX_PREFERENCESFILE_H
#define PELAGO_LINUX_PREFERENCESFILE_H

#include "hostFile.h"

#include <sys/stat.h>

#include <string>

namespace pelago::platform {

// Two signatures differ if the file has changed in between.  All zero for a missing file.
struct FileSignature {
    dev_t device = 0;
    ino_t inode = 0;
    time_t seconds = 0;
    long nanoseconds = 0;
    off_t size = 0;
    static FileSignature Of(const struct stat &status);
    static FileSignature OfPath(const char *path); // of the target, if the path is a link
    bool operator==(const FileSignature &other) const = default;
};

// The lock that processes take before they write: an exclusively locked file next to the
// preferences, which Unlock() removes.  When the holder dies, the kernel releases the lock; the
// file then stays, which is harmless.
class LockFile {
public:
    ~LockFile() { Unlock(); }
    // EWOULDBLOCK when another process has the lock and wait is false; a failure changes nothing
    // here.  On a read-only file system every process gets the lock, without a file: none can
    // write.  May throw, before it makes the file.
    int Lock(const std::string &path, bool wait);
    void Unlock();
    bool IsLocked() const { return mIsLocked; }

private:
    std::string mPath;
    OwnedFd mFd; // not open on a read-only file system
    bool mIsLocked = false;
};

// A file's content, and who switched a service on in it (serviceOwner.h): a record in an extended
// attribute, so that both change at once, and a file by which others replace this one has none.
struct FileContent {
    std::string bytes;
    std::string record; // empty for none, or for one that cannot be read
};

// Reads the whole file.  ENOENT for a missing one; EFBIG for more than maxSize bytes; EINVAL for
// anything but a regular file.  The signature is that of the file that was opened; zero when none
// was.  May throw.
int ReadWholeFile(const char *path, size_t maxSize, FileContent *content, FileSignature *signature);

// Replaces or makes the file: durably, whole or not at all, with the owner, group and mode of the
// old file (0644 and the effective ids if there is none).  If the path is a symbolic link, the link
// is replaced.  If the folder cannot be synchronised after the change, tries to restore the old
// content.  Omits a record that the file system does not accept.  May throw, before it changes
// anything.
int ReplaceFile(const std::string &path, const FileContent &content, const FileContent &oldContent,
                FileSignature *signature);

} // namespace pelago::platform

#endif /* PELAGO_LINUX_PREFERENCESFILE_H */
