// files.cpp -- files, folders, descriptors.
#include "../darwinTypes.h"
#include "../refuse.h"
#include "../rows.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <utime.h>

namespace {

// The flags besides the access modes, which are the same three numbers on both hosts.
constexpr Pair OPEN_FLAGS[] = {PAIR(O_APPEND),    PAIR(O_CLOEXEC),  PAIR(O_CREAT),
                               PAIR(O_DIRECTORY), PAIR(O_EXCL),     PAIR(O_NOCTTY),
                               PAIR(O_NOFOLLOW),  PAIR(O_NONBLOCK), PAIR(O_TRUNC)};
constexpr Pair COMMANDS[] = {PAIR(F_DUPFD), PAIR(F_DUPFD_CLOEXEC), PAIR(F_GETFD),
                             PAIR(F_SETFD), PAIR(F_GETFL),         PAIR(F_SETFL),
                             PAIR(F_GETLK), PAIR(F_SETLK),         PAIR(F_SETLKW)};
constexpr Pair LOCK_TYPES[] = {PAIR(F_RDLCK), PAIR(F_UNLCK), PAIR(F_WRLCK)};
constexpr Pair FLOCKS[] = {PAIR(LOCK_SH), PAIR(LOCK_EX), PAIR(LOCK_NB), PAIR(LOCK_UN)};
constexpr Pair PROTECTIONS[] = {PAIR(PROT_READ), PAIR(PROT_WRITE), PAIR(PROT_EXEC)};
constexpr Pair MAPPINGS[] = {PAIR(MAP_SHARED), PAIR(MAP_PRIVATE), PAIR(MAP_FIXED), PAIR(MAP_ANON),
                             PAIR(MAP_NORESERVE)};
constexpr Pair AT_FLAGS[] = {PAIR(AT_SYMLINK_NOFOLLOW), PAIR(AT_REMOVEDIR)};
constexpr Pair MOUNTS[] = {{ST_RDONLY, DARWIN_MNT_RDONLY}};
const Pair PATH_LIMITS[] = {
#include "pathconf.inc"
};

static_assert(DARWIN_O_RDONLY == O_RDONLY && DARWIN_O_WRONLY == O_WRONLY &&
              DARWIN_O_RDWR == O_RDWR && DARWIN_O_ACCMODE == O_ACCMODE);
static_assert(DARWIN_R_OK == R_OK && DARWIN_W_OK == W_OK && DARWIN_X_OK == X_OK &&
              DARWIN_F_OK == F_OK);
static_assert(DARWIN_SEEK_SET == SEEK_SET && DARWIN_SEEK_CUR == SEEK_CUR &&
              DARWIN_SEEK_END == SEEK_END);
static_assert(DARWIN_S_IFMT == S_IFMT && DARWIN_S_IFIFO == S_IFIFO && DARWIN_S_IFCHR == S_IFCHR &&
              DARWIN_S_IFDIR == S_IFDIR && DARWIN_S_IFBLK == S_IFBLK && DARWIN_S_IFREG == S_IFREG &&
              DARWIN_S_IFLNK == S_IFLNK && DARWIN_S_IFSOCK == S_IFSOCK);
static_assert(DARWIN_DT_DIR == DT_DIR && DARWIN_DT_REG == DT_REG && DARWIN_DT_LNK == DT_LNK);

int OpenFlags(const char *call, int darwin)
{
    return (darwin & O_ACCMODE) | HostFlags(call, OPEN_FLAGS, darwin & ~O_ACCMODE);
}

int HostFolder(int darwin) { return darwin == DARWIN_AT_FDCWD ? AT_FDCWD : darwin; }

int Open(const char *path, int darwinFlags, ...)
{
    const int flags = OpenFlags("open", darwinFlags);
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, darwinFlags);
        mode = static_cast<mode_t>(va_arg(arguments, int));
        va_end(arguments);
    }
    const HandOnErrno handOn;
    return open(path, flags, mode);
}

int OpenAt(int folder, const char *path, int darwinFlags, int mode)
{
    const int flags = OpenFlags("openat", darwinFlags);
    const HandOnErrno handOn;
    return openat(HostFolder(folder), path, flags, static_cast<mode_t>(mode));
}

int Creat(const char *path, int mode)
{
    const HandOnErrno handOn;
    return creat(path, static_cast<mode_t>(mode));
}

int UnlinkAt(int folder, const char *path, int flags)
{
    const HandOnErrno handOn;
    return unlinkat(HostFolder(folder), path, HostFlags("unlinkat", AT_FLAGS, flags));
}

int ChmodAt(int folder, const char *path, int mode, int flags)
{
    const HandOnErrno handOn;
    return fchmodat(HostFolder(folder), path, static_cast<mode_t>(mode),
                    HostFlags("fchmodat", AT_FLAGS, flags));
}

int OpenTerminal(int flags)
{
    const int host = OpenFlags("posix_openpt", flags);
    const HandOnErrno handOn;
    return posix_openpt(host);
}

int Mprotect(void *address, size_t size, int protection)
{
    const HandOnErrno handOn;
    return mprotect(address, size, HostFlags("mprotect", PROTECTIONS, protection));
}

// The kernel sets this flag on each file that a 64-bit program opens; Darwin has no such flag.
constexpr int LARGE_FILE = 0x8000;

int LockFile(int fd, int command, DarwinFlock &darwin)
{
    struct flock host = {};
    host.l_type = static_cast<short>(HostOption("fcntl", "lock", LOCK_TYPES, darwin.l_type));
    host.l_whence = darwin.l_whence;
    host.l_start = darwin.l_start;
    host.l_len = darwin.l_len;
    const int result = fcntl(fd, command, &host);
    if (result == 0 && command == F_GETLK) {
        for (const Pair &pair : LOCK_TYPES) {
            if (pair.host == host.l_type) { darwin.l_type = static_cast<int16_t>(pair.darwin); }
        }
        darwin.l_pid = host.l_pid;
    }
    return result;
}

int Fcntl(int fd, int darwinCommand, long argument)
{
    const int command = HostOption("fcntl", "command", COMMANDS, darwinCommand);
    const HandOnErrno handOn;
    switch (command) {
    case F_GETFL: {
        const int flags = fcntl(fd, F_GETFL) & ~LARGE_FILE;
        if (errno != 0) { return -1; }
        return (flags & O_ACCMODE) | DarwinFlags("fcntl", OPEN_FLAGS, flags & ~O_ACCMODE);
    }
    case F_SETFL: return fcntl(fd, F_SETFL, OpenFlags("fcntl", static_cast<int>(argument)));
    case F_GETLK:
    case F_SETLK:
    case F_SETLKW: return LockFile(fd, command, *reinterpret_cast<DarwinFlock *>(argument));
    default: return fcntl(fd, command, argument);
    }
}

int Flock(int fd, int operation)
{
    const HandOnErrno handOn;
    return flock(fd, HostFlags("flock", FLOCKS, operation));
}

void *Mmap(void *address, size_t size, int protection, int flags, int fd, int64_t offset)
{
    const HandOnErrno handOn;
    return mmap(address, size, HostFlags("mmap", PROTECTIONS, protection),
                HostFlags("mmap", MAPPINGS, flags), fd, offset);
}

int32_t DarwinDevice(dev_t host) { return static_cast<int32_t>(major(host) << 24 | minor(host)); }

dev_t HostDevice(int32_t darwin)
{
    const auto bits = static_cast<uint32_t>(darwin);
    return makedev(bits >> 24, bits & 0xFFFFFF);
}

template <typename Darwin> void Convert(Darwin &to, const struct stat &from)
{
    to = {};
    to.st_dev = DarwinDevice(from.st_dev);
    to.st_mode = static_cast<uint16_t>(from.st_mode);
    to.st_nlink = static_cast<uint16_t>(from.st_nlink);
    to.st_ino = static_cast<decltype(to.st_ino)>(from.st_ino);
    to.st_uid = from.st_uid;
    to.st_gid = from.st_gid;
    to.st_rdev = DarwinDevice(from.st_rdev);
    to.st_atimespec = from.st_atim;
    to.st_mtimespec = from.st_mtim;
    to.st_ctimespec = from.st_ctim;
    to.st_size = from.st_size;
    to.st_blocks = from.st_blocks;
    to.st_blksize = static_cast<int32_t>(from.st_blksize);
}

template <typename Darwin, auto Call, typename Which> int StatBy(Which which, Darwin *to)
{
    const HandOnErrno handOn;
    struct stat host;
    if (Call(which, &host) != 0) { return -1; }
    Convert(*to, host);
    return 0;
}

int Statfs(const char *path, DarwinStatfs *to)
{
    const HandOnErrno handOn;
    struct statfs host;
    if (statfs(path, &host) != 0) { return -1; }
    *to = {};
    to->f_bsize = static_cast<uint32_t>(host.f_bsize);
    to->f_iosize = static_cast<int32_t>(host.f_bsize);
    to->f_blocks = host.f_blocks;
    to->f_bfree = host.f_bfree;
    to->f_bavail = host.f_bavail;
    to->f_files = host.f_files;
    to->f_ffree = host.f_ffree;
    memcpy(to->f_fsid, &host.f_fsid, sizeof to->f_fsid);
    to->f_type = static_cast<uint32_t>(host.f_type);
    // Programs only check whether the file system is writable.
    to->f_flags = static_cast<uint32_t>(
        DarwinFlags("statfs", MOUNTS, static_cast<int>(host.f_flags) & ST_RDONLY));
    return 0;
}

// Darwin's longest path is shorter.
char *RealPath(const char *path, char *to)
{
    const HandOnErrno handOn;
    char *whole = realpath(path, nullptr);
    if (whole == nullptr) { return nullptr; }
    if (strlen(whole) >= static_cast<size_t>(DARWIN_PATH_MAX)) {
        free(whole);
        errno = ENAMETOOLONG;
        return nullptr;
    }
    if (to == nullptr) { return whole; }
    strcpy(to, whole);
    free(whole);
    return to;
}

// Darwin replaces every X at the end, this host the last six.
int Mkstemp(char *path)
{
    constexpr char LETTERS[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    const HandOnErrno handOn;
    const size_t length = strlen(path);
    size_t first = length;
    while (first > 0 && path[first - 1] == 'X') {
        first--;
    }
    for (;;) {
        for (size_t i = first; i < length; i++) {
            path[i] = LETTERS[arc4random_uniform(sizeof LETTERS - 1)];
        }
        const int fd = open(path, O_RDWR | O_CREAT | O_EXCL, 0600);
        if (fd != -1 || errno != EEXIST || first == length) { return fd; }
        errno = 0;
    }
}

int Mknod(const char *path, int mode, int device)
{
    const HandOnErrno handOn;
    return mknod(path, static_cast<mode_t>(mode & 0xFFFF), HostDevice(device));
}

int Utime(const char *path, const DarwinUtimbuf *times)
{
    const HandOnErrno handOn;
    if (times == nullptr) { return utime(path, nullptr); }
    const utimbuf host = {times->actime, times->modtime};
    return utime(path, &host);
}

int Utimes(const char *path, const DarwinTimeval *times)
{
    const HandOnErrno handOn;
    if (times == nullptr) { return utimes(path, nullptr); }
    const timeval host[] = {{times[0].tv_sec, times[0].tv_usec},
                            {times[1].tv_sec, times[1].tv_usec}};
    return utimes(path, host);
}

long Pathconf(const char *path, int name)
{
    constexpr int LAST_NAME = 100; // Darwin has no higher one
    if (name > LAST_NAME) { return Fail(DARWIN_EINVAL); }
    const HandOnErrno handOn;
    return pathconf(path, HostOption("pathconf", "name", PATH_LIMITS, name));
}

// The folder owns the entry that readdir() returns, until the next call.
struct Folder {
    DIR *host;
    DarwinDirent entry;
};

Folder *Opendir(const char *path)
{
    const HandOnErrno handOn;
    DIR *host = opendir(path);
    return host == nullptr ? nullptr : new Folder{host, {}};
}

Folder *OpenFolder(int fd)
{
    const HandOnErrno handOn;
    DIR *host = fdopendir(fd);
    return host == nullptr ? nullptr : new Folder{host, {}};
}

DarwinDirent *Readdir(Folder *folder)
{
    const HandOnErrno handOn;
    const dirent *entry = readdir(folder->host);
    if (entry == nullptr) { return nullptr; }
    DarwinDirent &to = folder->entry;
    to = {};
    to.d_ino = entry->d_ino;
    to.d_reclen = sizeof to;
    to.d_type = entry->d_type;
    to.d_namlen = static_cast<uint16_t>(strlen(entry->d_name));
    memcpy(to.d_name, entry->d_name, to.d_namlen + 1);
    return &to;
}

int Closedir(Folder *folder)
{
    const HandOnErrno handOn;
    const int result = closedir(folder->host);
    delete folder;
    return result;
}

const Row ROWS[] = {
    WITH_ERRNO(access),
    WITH_ERRNO(chdir),
    WITH_ERRNO(chmod),
    WITH_ERRNO(chown),
    WITH_ERRNO(close),
    {"closedir", RowAddress(&Closedir)},
    TRANSLATED(creat, Creat),
    WITH_ERRNO(dup),
    WITH_ERRNO(dup2),
    WITH_ERRNO(fchdir),
    WITH_ERRNO(fchmod),
    TRANSLATED(fchmodat, ChmodAt),
    WITH_ERRNO(fchown),
    TRANSLATED(fcntl, Fcntl),
    {"fdopendir$INODE64", RowAddress(&OpenFolder)},
    TRANSLATED(flock, Flock),
    {"fstat", RowAddress(&StatBy<DarwinOldStat, &fstat, int>)},
    {"fstat$INODE64", RowAddress(&StatBy<DarwinStat, &fstat, int>)},
    WITH_ERRNO(fsync),
    WITH_ERRNO(ftruncate),
    WITH_ERRNO(getcwd),
    WITH_ERRNO(grantpt),
    WITH_ERRNO(isatty),
    WITH_ERRNO(lchown),
    WITH_ERRNO(link),
    WITH_ERRNO(lseek),
    {"lstat", RowAddress(&StatBy<DarwinOldStat, &lstat, const char *>)},
    {"lstat$INODE64", RowAddress(&StatBy<DarwinStat, &lstat, const char *>)},
    WITH_ERRNO(mkdir),
    WITH_ERRNO(mkdtemp),
    WITH_ERRNO(mkfifo),
    TRANSLATED(mknod, Mknod),
    TRANSLATED(mkstemp, Mkstemp),
    TRANSLATED(mmap, Mmap),
    TRANSLATED(mprotect, Mprotect),
    WITH_ERRNO(munmap),
    TRANSLATED(open, Open),
    TRANSLATED(openat, OpenAt),
    {"opendir$INODE64", RowAddress(&Opendir)},
    TRANSLATED(pathconf, Pathconf),
    WITH_ERRNO(pipe),
    TRANSLATED(posix_openpt, OpenTerminal),
    WITH_ERRNO(pread),
    WITH_ERRNO(ptsname),
    WITH_ERRNO(pwrite),
    WITH_ERRNO(read),
    {"readdir$INODE64", RowAddress(&Readdir)},
    WITH_ERRNO(readlink),
    {"realpath$DARWIN_EXTSN", RowAddress(&RealPath)},
    WITH_ERRNO(rename),
    WITH_ERRNO(rmdir),
    {"stat", RowAddress(&StatBy<DarwinOldStat, &stat, const char *>)},
    {"stat$INODE64", RowAddress(&StatBy<DarwinStat, &stat, const char *>)},
    {"statfs$INODE64", RowAddress(&Statfs)},
    WITH_ERRNO(symlink),
    WITH_ERRNO(truncate),
    ALIKE(umask),
    WITH_ERRNO(unlink),
    TRANSLATED(unlinkat, UnlinkAt),
    WITH_ERRNO(unlockpt),
    TRANSLATED(utime, Utime),
    TRANSLATED(utimes, Utimes),
    WITH_ERRNO(write),
};

} // namespace

Rows FileRows() { return ROWS; }
