/*
 * posix.h -- the C library's calls for text in UTF-8: files, processes, the environment, users.
 *
 * Each function takes its text in UTF-8, makes the C library's call of the same name with it in the
 * host's encoding, and returns that call's result with errno as the call left it; all of its own
 * temporaries are gone by then.  What a call means, which errors it gives, and what else it takes
 * and returns, is its manual page's to say.  Beyond that,
 *
 * - text that the host's encoding cannot spell fails with errno ERANGE, and no call is made.  Where
 *   the encoding is UTF-8, as it is on macOS and here, that cannot happen;
 * - bytes of the host's that are no text in its encoding, as any program can put them into a
 *   folder's name, a link or a variable, END THE PROCESS without ICU; with ICU other text is
 *   returned in their place.  This concerns Posix_Getenv(), Posix_RealPath(), Posix_ReadLink() and
 *   Posix_MkTemp(), and the records of users and groups.  Each of the four has a form with Try in
 *   its name that returns NULL with errno EILSEQ instead, with ICU as without, and NULL with errno
 *   ENOMEM without memory for its result.  Otherwise it is the same: no process ends over such
 *   bytes, and other text is never returned;
 * - NULL for a text is handed on as NULL.  Whether that is allowed is up to the call;
 * - a failure is -1 or, where a pointer is returned, NULL;
 * - a Unicode that is returned is the caller's, who releases it with free();
 * - running out of memory for a text ends the process, as in unicode.h.
 *
 * All of them are as thread-safe as the call.
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
/* open() for writing of a file that is made, or emptied when it is there. */
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
/* utimes(): times are two, of the last access and the last change. */
int Posix_Utimes(const char *path, const struct timeval *times);
/* pathconf(). */
long Posix_Pathconf(const char *path, int name);

/*
 * realpath(): the canonical absolute path.  errno is ENOENT when there is no such file, EINVAL for
 * a NULL path.  A path that is no text in the host's encoding, be it by a folder far above, ends
 * the process without ICU; with ICU the result is another path.  Posix_TryRealPath() does neither.
 */
Unicode Posix_RealPath(const char *path);
/* Posix_RealPath(), but NULL with errno EILSEQ for a path that is no text. */
Unicode Posix_TryRealPath(const char *path);

/*
 * readlink(): what the link says, however long that is.  A target that is no text in the host's
 * encoding ends the process without ICU; with ICU the result is another target.
 * Posix_TryReadLink() does neither.
 */
Unicode Posix_ReadLink(const char *path);
/* Posix_ReadLink(), but NULL with errno EILSEQ for a target that is no text. */
Unicode Posix_TryReadLink(const char *path);

/*
 * mkstemp(), but only its name: the template with the "XXXXXX" at its end replaced by other
 * characters.  It has to end with six X at least: with fewer, Linux fails with EINVAL and macOS
 * replaces those.  Of more than six X Linux replaces the last six, macOS all.  The file is gone
 * again, so the name was unique at the moment of the call and need not be any more when it is used.
 * A template that is no text ends the process without ICU; with ICU the result is another name.
 * Posix_TryMkTemp() does neither.
 */
Unicode Posix_MkTemp(const char *pathTemplate);
/* Posix_MkTemp(), but NULL with errno EILSEQ for a template that is no text. */
Unicode Posix_TryMkTemp(const char *pathTemplate);

/* Stands in for a call that a host does not have: -1 with errno ENOSYS, whatever it is given. */
int Posix_Unsupported(const char *path, ...);

/* ---- Processes */

/*
 * execv() and execvp(), with the arguments listed one by one and a NULL of pointer type behind the
 * last.  They return only when they fail: -1, with errno ENOMEM when there is no memory for the
 * list.
 */
int Posix_Execl(const char *path, const char *arg0, ...) __attribute__((sentinel));
/* Posix_Execl() with the search of execvp(). */
int Posix_Execlp(const char *file, const char *arg0, ...) __attribute__((sentinel));
/* execv().  A list ends with NULL; instead of one, NULL is handed on as NULL. */
int Posix_Execv(const char *path, char *const argv[]);
/* execve(), with lists as in Posix_Execv(). */
int Posix_Execve(const char *path, char *const argv[], char *const envp[]);
/* execvp(), with the list as in Posix_Execv(). */
int Posix_Execvp(const char *file, char *const argv[]);
/* system(). */
int Posix_System(const char *command);
/* popen().  The mode is plain ASCII and not converted. */
FILE *Posix_Popen(const char *command, const char *mode);
/* perror().  A message that the host's encoding cannot spell is left out; errno stays as it is. */
void Posix_Perror(const char *message);

/* ---- The environment */

/*
 * getenv().  The value is not to be freed, is the same pointer as long as the variable keeps its
 * value, and stays valid until the variable has changed twice more.  Values are kept for each name
 * that was ever asked for while it was set.  Any number of threads may ask at the same time, as far
 * as the C library allows that; it does not allow a change at the same time.
 *
 * A value that is no text in the host's encoding ends the process without ICU; with ICU the result
 * is another value.  Posix_TryGetenv() does neither.
 */
char *Posix_Getenv(const char *name);
/* Posix_Getenv(), but NULL with errno EILSEQ for a value that is no text.  For a variable that is
 * not set errno stays as it is, so set it to 0 before to know the two apart. */
char *Posix_TryGetenv(const char *name);
/* setenv(). */
int Posix_Setenv(const char *name, const char *value, int overwrite);
/* unsetenv(). */
int Posix_Unsetenv(const char *name);
/* putenv(): the very string, which is not converted, becomes part of the environment. */
int Posix_Putenv(char *string);

/*
 * ---- Users and groups
 *
 * Of a record, the name, the password, the full name (pw_gecos), the home and the shell, and the
 * names of a group's members, are UTF-8.  What else macOS has in a user's record (pw_class,
 * pw_change, pw_expire) is not given: pw_class is NULL, and in the static record the others are 0.
 * Bytes of a record that are no text in the host's encoding end the process without ICU, never in
 * half a record, and so does an unknown encoding; with ICU they are other text.  Whoever has to
 * live with such records, a member's name in Latin-1 for instance, asks the C library itself, which
 * gives the bytes as they are.
 *
 * Posix_Getpwnam(), Posix_Getpwuid(), Posix_Getpwent() and Posix_Getgrnam() return one static
 * record a kind, which belongs to the library: the next call that finds a record frees the strings
 * of the one before.  They are not thread-safe.  NULL with errno as the C library left it is "no
 * such entry" or its failure, and leaves the record as it was.
 *
 * Those with R rewrite the caller's record and buffer, touch nothing else, and return 0 or an error
 * number: the C library's, or ERANGE when the name cannot be spelt (errno is ERANGE then, too) or
 * the buffer is too small for the text in UTF-8.  With an error, *result is NULL.  With 0, *result
 * is the record, or NULL when there is no such entry, which is no error.  The strings are in the
 * buffer from its start; a group's array of members, if it is in the buffer, is behind them.  A
 * buffer that was too small holds part of them; call again with a larger one.
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
 * getgrouplist(): the groups of a user, among them baseGroup, go to groups, at most *count, and how
 * many there are to *count.  -1 when there is no room for all.  On success it is the C library's
 * result: the number of groups on Linux, 0 on macOS.  A name that the host's encoding cannot spell
 * is in no group but baseGroup: errno is ERANGE, *count is 1, and the result 1, or -1 without room.
 */
int Posix_Getgrouplist(const char *user, gid_t baseGroup, gid_t *groups, int *count);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_POSIX_H */
