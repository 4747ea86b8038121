// posix.cpp -- the C library's calls for files and commands, with text in UTF-8.
#include "posix.h"

#include "posixInt.h"

#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <utime.h>

using namespace pelago;

namespace {

// Returns whether open() with these flags may make a file, and so takes a mode.  O_TMPFILE consists
// of several bits, of which O_DIRECTORY is one.
constexpr bool PosixMakesAFile(int flags)
{
#ifdef O_TMPFILE
    if ((flags & O_TMPFILE) == O_TMPFILE) { return true; }
#endif
    return (flags & O_CREAT) != 0;
}

} // namespace

extern "C" int Posix_Open(const char *path, int flags, ...)
{
    int mode = 0; // an int, since a mode_t that is narrower is passed as one
    if (PosixMakesAFile(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, int);
        va_end(arguments);
    }
    return PosixCall(open, HostText(path), flags, mode);
}

extern "C" int Posix_Creat(const char *path, mode_t mode)
{
    return Posix_Open(path, O_WRONLY | O_CREAT | O_TRUNC, mode);
}

extern "C" FILE *Posix_Fopen(const char *path, const char *mode)
{
    return PosixCall(fopen, HostText(path), mode);
}

extern "C" FILE *Posix_Freopen(const char *path, const char *mode, FILE *stream)
{
    return PosixCall(freopen, HostText(path), mode, stream);
}

extern "C" int Posix_Stat(const char *path, struct stat *buffer)
{
    return PosixCall(stat, HostText(path), buffer);
}

extern "C" int Posix_Lstat(const char *path, struct stat *buffer)
{
    return PosixCall(lstat, HostText(path), buffer);
}

extern "C" int Posix_Statfs(const char *path, struct statfs *buffer)
{
    return PosixCall(statfs, HostText(path), buffer);
}

extern "C" int Posix_Access(const char *path, int mode)
{
    return PosixCall(access, HostText(path), mode);
}

extern "C" int Posix_Chmod(const char *path, mode_t mode)
{
    return PosixCall(chmod, HostText(path), mode);
}

extern "C" int Posix_Chown(const char *path, uid_t owner, gid_t group)
{
    return PosixCall(chown, HostText(path), owner, group);
}

extern "C" int Posix_Lchown(const char *path, uid_t owner, gid_t group)
{
    return PosixCall(lchown, HostText(path), owner, group);
}

extern "C" int Posix_Rename(const char *from, const char *to)
{
    const HostText hostFrom(from), hostTo(to);
    return PosixCall(rename, hostFrom, hostTo);
}

extern "C" int Posix_Unlink(const char *path) { return PosixCall(unlink, HostText(path)); }

extern "C" int Posix_Rmdir(const char *path) { return PosixCall(rmdir, HostText(path)); }

extern "C" int Posix_Mkdir(const char *path, mode_t mode)
{
    return PosixCall(mkdir, HostText(path), mode);
}

extern "C" int Posix_Chdir(const char *path) { return PosixCall(chdir, HostText(path)); }

extern "C" DIR *Posix_OpenDir(const char *path) { return PosixCall(opendir, HostText(path)); }

extern "C" int Posix_Link(const char *from, const char *to)
{
    const HostText hostFrom(from), hostTo(to);
    return PosixCall(link, hostFrom, hostTo);
}

extern "C" int Posix_Symlink(const char *target, const char *linkPath)
{
    const HostText hostTarget(target), hostLinkPath(linkPath);
    return PosixCall(symlink, hostTarget, hostLinkPath);
}

extern "C" int Posix_Mkfifo(const char *path, mode_t mode)
{
    return PosixCall(mkfifo, HostText(path), mode);
}

extern "C" int Posix_Mknod(const char *path, mode_t mode, dev_t device)
{
    return PosixCall(mknod, HostText(path), mode, device);
}

extern "C" int Posix_Truncate(const char *path, off_t length)
{
    return PosixCall(truncate, HostText(path), length);
}

extern "C" int Posix_Utime(const char *path, const struct utimbuf *times)
{
    return PosixCall(utime, HostText(path), times);
}

extern "C" int Posix_Utimes(const char *path, const struct timeval *times)
{
    return PosixCall(utimes, HostText(path), times);
}

extern "C" long Posix_Pathconf(const char *path, int name)
{
    return PosixCall(pathconf, HostText(path), name);
}

// Stands in for the calls that a host lacks.
extern "C" int Posix_Unsupported(const char *, ...)
{
    errno = ENOSYS;
    return -1;
}

extern "C" int Posix_System(const char *command) { return PosixCall(system, HostText(command)); }

extern "C" FILE *Posix_Popen(const char *command, const char *mode)
{
    return PosixCall(popen, HostText(command), mode);
}

extern "C" void Posix_Perror(const char *message)
{
    ErrnoSaver keep;
    perror(HostText(message));
}
