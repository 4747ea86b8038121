/*
 * posix.h -- the C library's calls for text in UTF-8: files, processes, the environment, users.
 *
 * Each function takes its text in UTF-8, converts it to the host's encoding, makes the C library's
 * call of the same name, releases its own temporaries, and returns the call's result with errno as
 * the call left it.  The call's own manual page says what it does, which errors it has, and what
 * its other arguments are.  Beyond that,
 *
 * - text that the host's encoding cannot represent fails with errno ERANGE, and no call is made.
 *   Where the encoding is UTF-8, as on macOS and Linux, that cannot happen;
 * - text from the host that is not valid in its encoding, which any program can put into a file's
 *   name, a link or a variable, ENDS THE PROCESS without ICU; with ICU the text is altered.  This
 *   concerns Posix_Getenv(), Posix_RealPath(), Posix_ReadLink() and Posix_MkTemp(), and the records
 *   of users and groups.  Each of the four has a form with Try in its name that, with ICU and
 *   without, returns NULL with errno EILSEQ for such text, and NULL with errno ENOMEM when there is
 *   no memory for its result; in all else it is the same function;
 * - NULL for a text is passed to the call as NULL.  Whether that is allowed is up to the call;
 * - a failure is -1 or, where a pointer is returned, NULL;
 * - a Unicode that is returned is the caller's, who releases it with free();
 * - when memory for a text runs out the process ends, as in unicode.h.
 *
 * Each function is as thread-safe as its call.
 */
#ifndef PELAGO_POSIX_H
#define PELAGO_POSIX_H

#include "declarations.h"
#include "unicode.h"

#include <dirent.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

PELAGO_BEGIN_DECLARATIONS

struct group;
struct passwd;
struct stat;
struct statfs;
struct timeval;
struct utimbuf;

/* ---- Files */

/* open().  The mode is read only when the flags contain O_CREAT or, where the host has it,
 * O_TMPFILE. */
int Posix_Open(const char *path, int flags, ...);
/* creat(): opens for writing a file that it makes, or empties when it exists. */
int Posix_Creat(const char *path, mode_t mode);
/* fopen().  The mode is plain ASCII and not converted. */
FILE *Posix_Fopen(const char *path, const char *mode);
/* freopen(), with the mode as in Posix_Fopen(). */
FILE *Posix_Freopen(const char *path, const char *mode, FILE *stream);
/* stat(). */
int Posix_Stat(const char *path, struct stat *buffer);
/* lstat(). */
int Posix_Lstat(const char *path, struct stat *buffer);
/* statfs(); its structure is in <sys/mount.h> on macOS and in <sys/vfs.h> on Linux. */
int Posix_Statfs(const char *path, struct statfs *buffer);
/* access(). */
int Posix_Access(const char *path, int mode);
/* chmod(). */
int Posix_Chmod(const char *path, mode_t mode);
/* chown(). */
int Posix_Chown(const char *path, uid_t owner, gid_t group);
/* lchown(). */
int Posix_Lchown(const char *path, uid_t owner, gid_t group);
/* rename(). */
int Posix_Rename(const char *from, const char *to);
/* unlink(). */
int Posix_Unlink(const char *path);
/* rmdir(). */
int Posix_Rmdir(const char *path);
/* mkdir(). */
int Posix_Mkdir(const char *path, mode_t mode);
/* chdir(). */
int Posix_Chdir(const char *path);
/* opendir(). */
DIR *Posix_OpenDir(const char *path);
/* link(). */
int Posix_Link(const char *from, const char *to);
/* symlink(). */
int Posix_Symlink(const char *target, const char *linkPath);
/* mkfifo(). */
int Posix_Mkfifo(const char *path, mode_t mode);
/* mknod(). */
int Posix_Mknod(const char *path, mode_t mode, dev_t device);
/* truncate(). */
int Posix_Truncate(const char *path, off_t length);
/* utime(). */
int Posix_Utime(const char *path, const struct utimbuf *times);
/* utimes(): times is an array of two, the last access and the last change. */
int Posix_Utimes(const char *path, const struct timeval *times);
/* pathconf(). */
long Posix_Pathconf(const char *path, int name);

/*
 * realpath(): the canonical absolute path.  errno is ENOENT when there is no such file, EINVAL for
 * a NULL path.  A canonical path that is not valid text in the host's encoding, which the name of
 * any folder above can cause, ends the process without ICU; with ICU the result is a different
 * path.  Posix_TryRealPath() does neither.
 */
Unicode Posix_RealPath(const char *path);
/* Posix_RealPath(), but NULL with errno EILSEQ for a path that is not valid text. */
Unicode Posix_TryRealPath(const char *path);

/*
 * readlink(): the link's whole target, however long it is.  A target that is not valid text in the
 * host's encoding ends the process without ICU; with ICU the result is a different target.
 * Posix_TryReadLink() does neither.
 */
Unicode Posix_ReadLink(const char *path);
/* Posix_ReadLink(), but NULL with errno EILSEQ for a target that is not valid text. */
Unicode Posix_TryReadLink(const char *path);

/*
 * mkstemp(), of which only the name is kept: the template with the "XXXXXX" at its end replaced by
 * other characters.  The template must end with at least six X: with fewer, Linux fails with EINVAL
 * and macOS replaces those.  Of more than six X Linux replaces the last six, macOS all.  The file
 * is removed again: the name was unique at the time of the call, but another program may have taken
 * it by the time it is used.  A template that is not valid text ends the process without ICU; with
 * ICU the result is a different name.  Posix_TryMkTemp() does neither.
 */
Unicode Posix_MkTemp(const char *pathTemplate);
/* Posix_MkTemp(), but NULL with errno EILSEQ for a template that is not valid text. */
Unicode Posix_TryMkTemp(const char *pathTemplate);

/* Stands in for a call that the host lacks: returns -1 with errno ENOSYS. */
int Posix_Unsupported(const char *path, ...);

/* ---- Processes */

/*
 * execl(): the arguments are listed one by one, and a NULL of pointer type follows the last.
 * Returns only when it fails: -1, with errno ENOMEM when there is no memory for the list.
 */
int Posix_Execl(const char *path, const char *arg0, ...) __attribute__((sentinel));
/* execlp(): Posix_Execl() with the search of execvp(). */
int Posix_Execlp(const char *file, const char *arg0, ...) __attribute__((sentinel));
/* execv().  NULL ends the list; a list that is itself NULL is passed to the call as NULL. */
int Posix_Execv(const char *path, char *const argv[]);
/* execve(), with lists as in Posix_Execv(). */
int Posix_Execve(const char *path, char *const argv[], char *const envp[]);
/* execvp(), with the list as in Posix_Execv(). */
int Posix_Execvp(const char *file, char *const argv[]);
/* system(). */
int Posix_System(const char *command);
/* popen().  The mode is plain ASCII and not converted. */
FILE *Posix_Popen(const char *command, const char *mode);
/* perror().  A message that the host's encoding cannot represent is left out.  errno is unchanged.
 */
void Posix_Perror(const char *message);

/* ---- The environment */

/*
 * getenv().  The value must not be freed.  It is the same pointer as long as the variable keeps its
 * value, and stays valid until the variable has changed twice more.  The library keeps a value for
 * each name that was ever found.  Any number of threads may call this at the same time, but as with
 * getenv() no thread may change the environment meanwhile.
 *
 * A value that is not valid text in the host's encoding ends the process without ICU; with ICU the
 * result is a different value.  Posix_TryGetenv() does neither.
 */
char *Posix_Getenv(const char *name);
/* Posix_Getenv(), but NULL with errno EILSEQ for a value that is not valid text.  errno is
 * unchanged when the variable is not set: set errno to 0 before the call to distinguish the two. */
char *Posix_TryGetenv(const char *name);
/* setenv(). */
int Posix_Setenv(const char *name, const char *value, int overwrite);
/* unsetenv(). */
int Posix_Unsetenv(const char *name);
/* putenv(): the string itself, not converted and not copied, becomes part of the environment. */
int Posix_Putenv(char *string);

/*
 * ---- Users and groups
 *
 * These members of a record are text in UTF-8: the name, the password, the full name (pw_gecos),
 * the home and the shell, and the names of a group's members.  The further members that a user's
 * record has on macOS (pw_class, pw_change, pw_expire) are not filled: pw_class is NULL, and in the
 * static record the others are 0.  A record with text that is not valid in the host's encoding ends
 * the process without ICU, and so does an unknown encoding; a record is never half written.  With
 * ICU the text is altered.  A program that must read such records, for instance with a member's
 * name in Latin-1, calls the C library itself, which returns the bytes unchanged.
 *
 * Posix_Getpwnam(), Posix_Getpwuid() and Posix_Getpwent() return one static record,
 * Posix_Getgrnam() another.  They belong to the library: the next call that finds an entry frees
 * the strings of the one before.  These four are not thread-safe.  NULL means that there is no such
 * entry or that the C library failed, with errno as it left it; the record is then as it was.
 *
 * The functions whose names end with R write the caller's record and buffer only, and return 0 or
 * an error number: the C library's; or ERANGE when the name cannot be represented, with errno
 * ERANGE, too; or ERANGE when the buffer is too small for the text in UTF-8.  After an error
 * *result is NULL.  After 0 *result is the record, or NULL when there is no such entry, which is no
 * error.  The strings begin at the start of the buffer; a group's array of members, if it is in the
 * buffer, follows them.  A buffer that was too small holds part of the text; call again with a
 * larger one.
 */

/* getpwnam(). */
struct passwd *Posix_Getpwnam(const char *name);
/* getpwuid(). */
struct passwd *Posix_Getpwuid(uid_t uid);
/* getpwent(): the next entry. */
struct passwd *Posix_Getpwent(void);
/* endpwent(): Posix_Getpwent() begins anew. */
void Posix_Endpwent(void);
/* getgrnam(). */
struct group *Posix_Getgrnam(const char *name);
/* getpwnam_r(). */
int Posix_GetpwnamR(const char *name, struct passwd *record, char *buffer, size_t size,
                    struct passwd **result);
/* getpwuid_r(). */
int Posix_GetpwuidR(uid_t uid, struct passwd *record, char *buffer, size_t size,
                    struct passwd **result);
/* getgrnam_r(). */
int Posix_GetgrnamR(const char *name, struct group *record, char *buffer, size_t size,
                    struct group **result);

/*
 * getgrouplist(): stores the groups of a user, among them baseGroup, in groups, at most *count of
 * them, and their number in *count.  -1 when there is no room for all.  On success it returns what
 * the C library does: the number of groups on Linux, 0 on macOS.  For a name that the host's
 * encoding cannot represent, errno is ERANGE, baseGroup is the only group, and the result is 1, or
 * -1 when there is no room for it.
 */
int Posix_Getgrouplist(const char *user, gid_t baseGroup, gid_t *groups, int *count);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_POSIX_H */
