// preferencesFile.cpp -- locking, loading and replacing one file.
#include "preferencesFile.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <optional>
#include <string_view>
#include <utility>

namespace pelago::platform {

namespace {

constexpr mode_t NEW_FILE_MODE = 0644;
// Only root may lock, and whoever can open the file can lock it.
constexpr mode_t LOCK_FILE_MODE = 0600;
constexpr mode_t PERMISSION_BITS = 07777;
constexpr char RECORD_NAME[] = "user.pelago.service";
constexpr size_t MAX_RECORD_SIZE = 128; // a process's mark has at most 69 bytes

struct Ownership {
    bool isThere; // there is a file to replace
    uid_t user;
    gid_t group;
    mode_t mode;
};

int WriteAll(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) { return errno; }
        if (written > 0) { bytes.remove_prefix(static_cast<size_t>(written)); }
    }
    return 0;
}

std::string FolderOf(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Returns the new file's ownership; nullopt, with errno, when the old file's cannot be read.
std::optional<Ownership> NextOwnership(const char *path)
{
    struct stat status;
    if (stat(path, &status) == 0) {
        return Ownership{true, status.st_uid, status.st_gid, status.st_mode & PERMISSION_BITS};
    }
    if (errno != ENOENT) { return std::nullopt; }
    return Ownership{false, geteuid(), getegid(), NEW_FILE_MODE};
}

// Returns a new file that only its owner can open yet.
OwnedFd MakeNewFile(const char *path)
{
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    OwnedFd fd(open(path, FLAGS, S_IRUSR | S_IWUSR));
    if (fd.IsOpen() || errno != EEXIST) { return fd; }
    // A file at this path was left by a process that was killed.
    if (unlink(path) != 0) { return fd; }
    return OwnedFd(open(path, FLAGS, S_IRUSR | S_IWUSR));
}

std::string ReadRecord(int fd)
{
    char record[MAX_RECORD_SIZE];
    const ssize_t size = fgetxattr(fd, RECORD_NAME, record, sizeof record);
    return size > 0 ? std::string(record, static_cast<size_t>(size)) : std::string();
}

// A failure is ignored: some file systems have no attributes, or no room for one, and a commit must
// not fail for want of a record.
void WriteRecord(int fd, const std::string &record)
{
    if (!record.empty()) { fsetxattr(fd, RECORD_NAME, record.data(), record.size(), 0); }
}

int FillNewFile(OwnedFd *fd, const FileContent &content, const Ownership &ownership,
                FileSignature *signature)
{
    // The owner first: changing it may clear bits of the mode.
    if (fchown(fd->Get(), ownership.user, ownership.group) != 0 ||
        fchmod(fd->Get(), ownership.mode) != 0) {
        return errno;
    }
    const int writeError = WriteAll(fd->Get(), content.bytes);
    if (writeError != 0) { return writeError; }
    WriteRecord(fd->Get(), content.record);
    struct stat status;
    if (fsync(fd->Get()) != 0 || fstat(fd->Get(), &status) != 0) { return errno; }
    *signature = FileSignature::Of(status);
    return fd->Close() == 0 ? 0 : errno;
}

// Writes the content to newPath and renames it to path.
int WriteAndRename(const std::string &newPath, const std::string &path, const FileContent &content,
                   const Ownership &ownership, FileSignature *signature)
{
    OwnedFd fd = MakeNewFile(newPath.c_str());
    if (!fd.IsOpen()) { return errno; }
    FileSignature made;
    int error = FillNewFile(&fd, content, ownership, &made);
    if (error == 0 && rename(newPath.c_str(), path.c_str()) != 0) { error = errno; }
    if (error == 0) {
        *signature = made;
    } else {
        unlink(newPath.c_str());
    }
    return error;
}

// Locks the file; EWOULDBLOCK when another process has locked it and wait is false.
int LockDescriptor(int fd, bool wait)
{
    while (flock(fd, LOCK_EX | (wait ? 0 : LOCK_NB)) != 0) {
        if (errno != EINTR) { return errno; }
    }
    return 0;
}

// Stores whether the path still leads to the file that fd has open.  Returns 0 or an errno value.
int IsSameFile(int fd, const char *path, bool *isSame)
{
    struct stat ours, present;
    *isSame = false;
    if (fstat(fd, &ours) != 0) { return errno; }
    if (stat(path, &present) != 0) { return errno == ENOENT ? 0 : errno; }
    *isSame = ours.st_dev == present.st_dev && ours.st_ino == present.st_ino;
    return 0;
}

// The holder's process id is only for people, so a failure to write it is ignored.  The file of a
// holder that was killed may be longer, so it is truncated; a new file is not, because after a
// truncation some file systems write the file to disk when it is closed.
void WriteHolder(int fd)
{
    char line[32];
    const int size = snprintf(line, sizeof line, "%ld\n", static_cast<long>(getpid()));
    struct stat status;
    if (fstat(fd, &status) == 0 && status.st_size > 0 && ftruncate(fd, 0) != 0) { return; }
    (void)WriteAll(fd, std::string_view(line, static_cast<size_t>(size)));
}

} // namespace

FileSignature FileSignature::Of(const struct stat &status)
{
    return {status.st_dev, status.st_ino, status.st_mtim.tv_sec, status.st_mtim.tv_nsec,
            status.st_size};
}

FileSignature FileSignature::OfPath(const char *path)
{
    struct stat status;
    return stat(path, &status) == 0 ? Of(status) : FileSignature();
}

int LockFile::Lock(const std::string &path, bool wait)
{
    // O_NONBLOCK: if the file is a pipe, open() must not wait for its other end.
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    mPath = path; // first: if memory runs out here, no file is made
    for (;;) {
        OwnedFd fd(open(path.c_str(), FLAGS, LOCK_FILE_MODE));
        if (!fd.IsOpen() && errno != EROFS) { return errno; }
        bool isOurs = !fd.IsOpen(); // on a read-only file system
        if (!isOurs) {
            int error = LockDescriptor(fd.Get(), wait);
            if (error == 0) { error = IsSameFile(fd.Get(), path.c_str(), &isOurs); }
            if (error != 0) { return error; }
        }
        // If the last holder removed the file between our open and our lock, try again.
        if (!isOurs) { continue; }
        if (fd.IsOpen()) { WriteHolder(fd.Get()); }
        mFd = std::move(fd);
        mIsLocked = true;
        return 0;
    }
}

void LockFile::Unlock()
{
    // Removed before it is closed: after that the path may have another holder's file.
    if (mFd.IsOpen()) { unlink(mPath.c_str()); }
    mFd.Close();
    mIsLocked = false;
}

int ReadWholeFile(const char *path, size_t maxSize, FileContent *content, FileSignature *signature)
{
    *signature = FileSignature();
    // O_NONBLOCK: if the file is a pipe, open() must not wait for its other end.
    const OwnedFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.IsOpen()) { return errno; }
    struct stat status;
    if (fstat(fd.Get(), &status) != 0) { return errno; }
    *signature = FileSignature::Of(status);
    if (!S_ISREG(status.st_mode)) { return EINVAL; }
    if (static_cast<size_t>(status.st_size) > maxSize) { return EFBIG; }
    std::string &bytes = content->bytes;
    bytes.resize(static_cast<size_t>(status.st_size));
    const ssize_t got = HostReadAll(fd.Get(), bytes.data(), bytes.size());
    if (got < 0) { return errno; }
    bytes.resize(static_cast<size_t>(got));
    content->record = ReadRecord(fd.Get());
    return 0;
}

int ReplaceFile(const std::string &path, const FileContent &content, const FileContent &oldContent,
                FileSignature *signature)
{
    const std::string newPath = path + "-new";
    const std::optional<Ownership> ownership = NextOwnership(path.c_str());
    if (!ownership) { return errno; }
    // Opened before anything is changed, so that opening cannot fail afterwards.
    const OwnedFd folder(open(FolderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.IsOpen()) { return errno; }
    const int error = WriteAndRename(newPath, path, content, *ownership, signature);
    if (error != 0 || fsync(folder.Get()) == 0) { return error; }
    const int syncError = errno;
    // Callers expect that a failure has changed nothing.
    if (!ownership->isThere) {
        unlink(path.c_str());
        *signature = FileSignature();
    } else {
        WriteAndRename(newPath, path, oldContent, *ownership, signature);
    }
    return syncError;
}

} // namespace pelago::platform
