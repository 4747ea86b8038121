// posixCalls.h -- the wrappers that report failure by their result, each with the call that it
// makes, for the tests that apply to all of them.
#ifndef PELAGO_TESTS_MISC_POSIXCALLS_H
#define PELAGO_TESTS_MISC_POSIXCALLS_H

#include "posix.h"

#include "scopedForTests.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <utime.h>
#include <vector>

constexpr int ALONE = 77; // no call sets errno to this

// ---- The outcome of a call

struct CallOutcome {
    std::string result;
    int error; // errno afterwards
    bool operator==(const CallOutcome &) const = default;
};
inline void PrintTo(const CallOutcome &outcome, std::ostream *out)
{
    *out << outcome.result << ", errno " << outcome.error;
}

// Closes a descriptor that the call returned.
inline CallOutcome Number(long number) { return {std::to_string(number), errno}; }
inline CallOutcome Descriptor(int descriptor)
{
    const int error = errno;
    if (descriptor < 0) { return {std::to_string(descriptor), error}; }
    close(descriptor);
    return {"a descriptor", error};
}
inline CallOutcome Stream(FILE *stream, int (*closes)(FILE *) = fclose)
{
    const int error = errno;
    if (stream == nullptr) { return {"NULL", error}; }
    return {"a stream, closed with " + std::to_string(closes(stream)), error};
}
inline CallOutcome Folder(DIR *folder)
{
    const int error = errno;
    if (folder == nullptr) { return {"NULL", error}; }
    std::string names;
    while (const dirent *entry = readdir(folder)) {
        if (entry->d_name[0] != '.') { names += entry->d_name; }
    }
    closedir(folder);
    return {names, error};
}
inline CallOutcome Kept(const char *text)
{
    const int error = errno;
    return {text == nullptr ? "NULL" : text, error};
}
inline CallOutcome Taken(char *text)
{
    const CallOutcome outcome = Kept(text);
    free(text);
    return outcome;
}

// ---- The bare calls

// Returns the call itself.  A compiler that does not know which call it is lets NULL pass.
template <typename Call> Call *Bare(Call *call)
{
    Call *volatile opaque = call;
    return opaque;
}

// Returns a stream to reopen.  A failed reopening closes the stream, but the block of the stream is
// never freed, so the blocks are kept reachable until the end.
inline FILE *Scratch()
{
    static auto *const streams = new std::vector<FILE *>;
    return streams->emplace_back(tmpfile());
}

inline char *BareReadLink(const char *path)
{
    char target[PATH_MAX];
    const ssize_t length = Bare(readlink)(path, target, sizeof target);
    return length < 0 ? nullptr : strndup(target, static_cast<size_t>(length));
}

inline char *BareMkTemp(const char *pathTemplate)
{
    std::string name = pathTemplate;
    const int file = mkstemp(name.data());
    if (file < 0) { return nullptr; }
    close(file);
    unlink(name.c_str());
    return strdup(name.c_str());
}

// ---- The wrappers

using Texts = const char *const *;
// The calls do not write to the elements.
inline char *Element(const char *text) { return const_cast<char *>(text); }

struct Wrapper {
    const char *name; // without "Posix_"; a wrapper's further rows add "_" and a name
    CallOutcome (*wrapped)(Texts text);
    CallOutcome (*bare)(Texts text);
    std::vector<const char *> bad = {};  // texts that the call fails for
    int error = 0;                       // the error then; 0: it does not fail, or sets no errno
    unsigned nullable = 1;               // a bit for each text that may be NULL in the bare call
    std::vector<const char *> good = {}; // texts that it succeeds for, in a WorkingFolder
    std::string result = "0";            // its result then
    bool (*effect)() = nullptr;          // returns whether the call took effect
    bool isQuiet = true;                 // whether the call then leaves errno alone
};
inline void PrintTo(const Wrapper &wrapper, std::ostream *out) { *out << wrapper.name; }

#define PELAGO_BOTH(outcome, wrapper, call, ...)                                                   \
    .wrapped = [](Texts text) { return outcome(wrapper(__VA_ARGS__)); },                           \
    .bare = [](Texts text) { return outcome(Bare(call)(__VA_ARGS__)); }

// Names with characters beyond ASCII.
inline constexpr char FILE_NAME[] = "file \xC3\xA9";
inline constexpr char FOLDER_NAME[] = "folder \xE2\x82\xAC";
inline constexpr char FULL_NAME[] = "full \xC3\xB1"; // a folder, with a file of the file's name
inline constexpr char LINK_NAME[] = "link \xC3\xB6";
inline constexpr char NEW_NAME[] = "new \xC3\xBC\xF0\x9F\x90\xA7";
inline constexpr char VARIABLE[] = "PELAGO_\xC3\xA4";
inline constexpr char MISSING[] = "missing/\xC3\xA9";

// The working folder of a test.  It holds a file of two lines, two folders, and a link to the file.
class WorkingFolder {
public:
    WorkingFolder()
    {
        std::filesystem::current_path(mFolder.Path());
        std::ofstream(FILE_NAME) << "one\ntwo\n";
        std::filesystem::permissions(FILE_NAME, std::filesystem::perms(0640));
        std::filesystem::create_directory(FOLDER_NAME);
        std::filesystem::create_directory(FULL_NAME);
        std::ofstream(std::filesystem::path(FULL_NAME) / FILE_NAME);
        std::filesystem::create_symlink(FILE_NAME, LINK_NAME);
        setenv(VARIABLE, "value \xC3\xA9", 1);
    }
    ~WorkingFolder()
    {
        unsetenv(VARIABLE);
        std::filesystem::current_path("/");
    }
    const std::string &Path() const { return mFolder.Path(); }

private:
    TemporaryFolder mFolder;
};

inline struct stat sStatus;
inline struct statfs sStatfs;

inline bool SizeIs(const char *path, uintmax_t size)
{
    return std::filesystem::is_regular_file(std::filesystem::symlink_status(path)) &&
           std::filesystem::file_size(path) == size;
}
inline struct stat StatusOf(const char *path)
{
    struct stat status;
    EXPECT_EQ(lstat(path, &status), 0);
    return status;
}
inline bool IsOf(const struct stat &status, const char *path)
{
    const struct stat own = StatusOf(path);
    return status.st_ino == own.st_ino && status.st_dev == own.st_dev &&
           status.st_mode == own.st_mode && status.st_size == own.st_size;
}
inline std::string ValueOf(const char *name)
{
    const char *value = getenv(name);
    return value == nullptr ? "(unset)" : value;
}

inline const utimbuf OLD_TIMES = {1000, 2000};
inline const timeval OLD_TIMEVALS[2] = {{1000, 250000}, {2000, 500000}};
// Returns whether the file has the times 1000 and 2000 seconds, plus these nanoseconds.
inline bool HasOldTimes(long ofAccess, long ofChange)
{
    const struct stat status = StatusOf(FILE_NAME);
    return status.st_atim.tv_sec == 1000 && status.st_atim.tv_nsec == ofAccess &&
           status.st_mtim.tv_sec == 2000 && status.st_mtim.tv_nsec == ofChange;
}

// Returns all rows, in the order of the header.
inline std::vector<Wrapper> Wrappers()
{
    namespace fs = std::filesystem;
    return {
        {.name = "Open",
         PELAGO_BOTH(Descriptor, Posix_Open, open, text[0], O_RDONLY),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {FILE_NAME},
         .result = "a descriptor"},
        {.name = "Open_ToCreate",
         PELAGO_BOTH(Descriptor, Posix_Open, open, text[0], O_WRONLY | O_CREAT | O_EXCL, 04604),
         .bad = {FILE_NAME},
         .error = EEXIST,
         .good = {NEW_NAME},
         .result = "a descriptor",
         .effect = [] { return StatusOf(NEW_NAME).st_mode == (S_IFREG | 04604); }},
        {.name = "Creat",
         PELAGO_BOTH(Descriptor, Posix_Creat, creat, text[0], 04604),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {NEW_NAME},
         .result = "a descriptor",
         .effect = [] { return StatusOf(NEW_NAME).st_mode == (S_IFREG | 04604); }},
        {.name = "Creat_OfAnExistingFile",
         PELAGO_BOTH(Descriptor, Posix_Creat, creat, text[0], 0604),
         .bad = {FOLDER_NAME},
         .error = EISDIR,
         .good = {FILE_NAME},
         .result = "a descriptor",
         .effect =
             [] {
                 return SizeIs(FILE_NAME, 0) && StatusOf(FILE_NAME).st_mode == (S_IFREG | 0640);
             }},
        {.name = "Fopen",
         PELAGO_BOTH(Stream, Posix_Fopen, fopen, text[0], "wx"),
         .bad = {FILE_NAME},
         .error = EEXIST,
         .good = {NEW_NAME},
         .result = "a stream, closed with 0",
         .effect = [] { return SizeIs(NEW_NAME, 0); }},
        {.name = "Freopen",
         PELAGO_BOTH(Stream, Posix_Freopen, freopen, text[0], "w", Scratch()),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {NEW_NAME},
         .result = "a stream, closed with 0",
         .effect = [] { return SizeIs(NEW_NAME, 0); }},
        {.name = "Stat",
         PELAGO_BOTH(Number, Posix_Stat, stat, text[0], &sStatus),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {LINK_NAME},
         .effect = [] { return IsOf(sStatus, FILE_NAME); }},
        {.name = "Lstat",
         PELAGO_BOTH(Number, Posix_Lstat, lstat, text[0], &sStatus),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {LINK_NAME},
         .effect = [] { return IsOf(sStatus, LINK_NAME); }},
        {.name = "Statfs",
         PELAGO_BOTH(Number, Posix_Statfs, statfs, text[0], &sStatfs),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {FILE_NAME},
         .effect =
             [] {
                 struct statfs own;
                 return statfs(FILE_NAME, &own) == 0 && own.f_type == sStatfs.f_type &&
                        own.f_bsize == sStatfs.f_bsize && own.f_blocks == sStatfs.f_blocks;
             }},
        {.name = "Access",
         PELAGO_BOTH(Number, Posix_Access, access, text[0], R_OK | W_OK),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {FILE_NAME}},
        {.name = "Access_OfAFileThatIsNoProgram",
         PELAGO_BOTH(Number, Posix_Access, access, text[0], X_OK),
         .bad = {FILE_NAME},
         .error = EACCES,
         .good = {FOLDER_NAME}},
        {.name = "Chmod",
         PELAGO_BOTH(Number, Posix_Chmod, chmod, text[0], 05604),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {FILE_NAME},
         .effect = [] { return StatusOf(FILE_NAME).st_mode == (S_IFREG | 05604); }},
        {.name = "Chown",
         PELAGO_BOTH(Number, Posix_Chown, chown, text[0], getuid(), getgid()),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {FILE_NAME},
         .effect =
             [] {
                 const struct stat status = StatusOf(FILE_NAME);
                 return status.st_uid == getuid() && status.st_gid == getgid();
             }},
        {.name = "Lchown",
         PELAGO_BOTH(Number, Posix_Lchown, lchown, text[0], getuid(), getgid()),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {LINK_NAME},
         .effect =
             [] {
                 const struct stat status = StatusOf(LINK_NAME);
                 return status.st_uid == getuid() && status.st_gid == getgid();
             }},
        {.name = "Rename",
         PELAGO_BOTH(Number, Posix_Rename, rename, text[0], text[1]),
         .bad = {MISSING, FILE_NAME},
         .error = ENOENT,
         .nullable = 3,
         .good = {FILE_NAME, NEW_NAME},
         .effect = [] { return SizeIs(NEW_NAME, 8) && !fs::exists(FILE_NAME); }},
        {.name = "Unlink",
         PELAGO_BOTH(Number, Posix_Unlink, unlink, text[0]),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {FILE_NAME},
         .effect = [] { return !fs::exists(FILE_NAME); }},
        {.name = "Rmdir",
         PELAGO_BOTH(Number, Posix_Rmdir, rmdir, text[0]),
         .bad = {FILE_NAME},
         .error = ENOTDIR,
         .good = {FOLDER_NAME},
         .effect = [] { return !fs::exists(FOLDER_NAME); }},
        {.name = "Mkdir",
         PELAGO_BOTH(Number, Posix_Mkdir, mkdir, text[0], 01705),
         .bad = {FOLDER_NAME},
         .error = EEXIST,
         .good = {NEW_NAME},
         .effect = [] { return StatusOf(NEW_NAME).st_mode == (S_IFDIR | 01705); }},
        {.name = "Chdir",
         PELAGO_BOTH(Number, Posix_Chdir, chdir, text[0]),
         .bad = {FILE_NAME},
         .error = ENOTDIR,
         .good = {FOLDER_NAME},
         .effect = [] { return fs::current_path().filename() == FOLDER_NAME; }},
        {.name = "OpenDir",
         PELAGO_BOTH(Folder, Posix_OpenDir, opendir, text[0]),
         .bad = {FILE_NAME},
         .error = ENOTDIR,
         .nullable = 0,
         .good = {FULL_NAME},
         .result = FILE_NAME},
        {.name = "Link",
         PELAGO_BOTH(Number, Posix_Link, link, text[0], text[1]),
         .bad = {FILE_NAME, LINK_NAME},
         .error = EEXIST,
         .nullable = 3,
         .good = {FILE_NAME, NEW_NAME},
         .effect = [] { return IsOf(StatusOf(NEW_NAME), FILE_NAME); }},
        {.name = "Symlink",
         PELAGO_BOTH(Number, Posix_Symlink, symlink, text[0], text[1]),
         .bad = {FILE_NAME, LINK_NAME},
         .error = EEXIST,
         .nullable = 3,
         .good = {MISSING, NEW_NAME},
         .effect = [] { return fs::read_symlink(NEW_NAME) == MISSING; }},
        {.name = "Mkfifo",
         PELAGO_BOTH(Number, Posix_Mkfifo, mkfifo, text[0], 04604),
         .bad = {FILE_NAME},
         .error = EEXIST,
         .good = {NEW_NAME},
         .effect = [] { return StatusOf(NEW_NAME).st_mode == (S_IFIFO | 04604); }},
        {.name = "Mknod",
         PELAGO_BOTH(Number, Posix_Mknod, mknod, text[0], S_IFIFO | 04604, 0),
         .bad = {FILE_NAME},
         .error = EEXIST,
         .good = {NEW_NAME},
         .effect = [] { return StatusOf(NEW_NAME).st_mode == (S_IFIFO | 04604); }},
        {.name = "Truncate",
         PELAGO_BOTH(Number, Posix_Truncate, truncate, text[0], 5),
         .bad = {FOLDER_NAME},
         .error = EISDIR,
         .good = {FILE_NAME},
         .effect = [] { return SizeIs(FILE_NAME, 5); }},
        {.name = "Utime",
         PELAGO_BOTH(Number, Posix_Utime, utime, text[0], &OLD_TIMES),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {FILE_NAME},
         .effect = [] { return HasOldTimes(0, 0); }},
        {.name = "Utimes",
         PELAGO_BOTH(Number, Posix_Utimes, utimes, text[0], OLD_TIMEVALS),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {FILE_NAME},
         .effect = [] { return HasOldTimes(250'000'000, 500'000'000); }},
        {.name = "Pathconf",
         PELAGO_BOTH(Number, Posix_Pathconf, pathconf, text[0], _PC_LINK_MAX),
         .bad = {MISSING},
         .error = ENOENT,
         .good = {FILE_NAME},
         .result = std::to_string(pathconf("/tmp", _PC_LINK_MAX))},
        {.name = "RealPath",
         .wrapped = [](Texts text) { return Taken(Posix_RealPath(text[0])); },
         .bare = [](Texts text) { return Taken(Bare(realpath)(text[0], nullptr)); },
         .bad = {MISSING},
         .error = ENOENT,
         .good = {"/dev/./null"},
         .result = "/dev/null",
         .isQuiet = false},
        {.name = "ReadLink",
         .wrapped = [](Texts text) { return Taken(Posix_ReadLink(text[0])); },
         .bare = [](Texts text) { return Taken(BareReadLink(text[0])); },
         .bad = {FILE_NAME},
         .error = EINVAL,
         .good = {LINK_NAME},
         .result = FILE_NAME},
        {.name = "MkTemp",
         .wrapped = [](Texts text) { return Taken(Posix_MkTemp(text[0])); },
         .bare = [](Texts text) { return Taken(BareMkTemp(text[0])); },
         .bad = {"missing/\xC3\xA9XXXXXX"},
         .error = ENOENT,
         .nullable = 0},
        {.name = "TryRealPath",
         .wrapped = [](Texts text) { return Taken(Posix_TryRealPath(text[0])); },
         .bare = [](Texts text) { return Taken(Bare(realpath)(text[0], nullptr)); },
         .bad = {MISSING},
         .error = ENOENT,
         .good = {"/dev/./null"},
         .result = "/dev/null",
         .isQuiet = false},
        {.name = "TryReadLink",
         .wrapped = [](Texts text) { return Taken(Posix_TryReadLink(text[0])); },
         .bare = [](Texts text) { return Taken(BareReadLink(text[0])); },
         .bad = {FILE_NAME},
         .error = EINVAL,
         .good = {LINK_NAME},
         .result = FILE_NAME},
        {.name = "TryMkTemp",
         .wrapped = [](Texts text) { return Taken(Posix_TryMkTemp(text[0])); },
         .bare = [](Texts text) { return Taken(BareMkTemp(text[0])); },
         .bad = {"missing/\xC3\xA9XXXXXX"},
         .error = ENOENT,
         .nullable = 0},
        {.name = "Execl",
         .wrapped =
             [](Texts text) { return Number(Posix_Execl(text[0], text[1], text[2], nullptr)); },
         .bare = [](Texts text) { return Number(Bare(execl)(text[0], text[1], text[2], nullptr)); },
         .bad = {MISSING, "a", "b"},
         .error = ENOENT,
         .nullable = 7},
        {.name = "Execlp",
         .wrapped =
             [](Texts text) { return Number(Posix_Execlp(text[0], text[1], text[2], nullptr)); },
         .bare =
             [](Texts text) { return Number(Bare(execlp)(text[0], text[1], text[2], nullptr)); },
         .bad = {MISSING, "a", "b"},
         .error = ENOENT,
         .nullable = 6},
        {.name = "Execv",
         .wrapped =
             [](Texts text) {
                 char *argv[] = {Element(text[1]), Element(text[2]), nullptr};
                 return Number(Posix_Execv(text[0], argv));
             },
         .bare =
             [](Texts text) {
                 char *argv[] = {Element(text[1]), Element(text[2]), nullptr};
                 return Number(Bare(execv)(text[0], argv));
             },
         .bad = {MISSING, "a", "b"},
         .error = ENOENT,
         .nullable = 7},
        {.name = "Execve",
         .wrapped =
             [](Texts text) {
                 char *argv[] = {Element(text[1]), Element(text[2]), nullptr};
                 char *envp[] = {Element(text[3]), Element(text[4]), nullptr};
                 return Number(Posix_Execve(text[0], argv, envp));
             },
         .bare =
             [](Texts text) {
                 char *argv[] = {Element(text[1]), Element(text[2]), nullptr};
                 char *envp[] = {Element(text[3]), Element(text[4]), nullptr};
                 return Number(Bare(execve)(text[0], argv, envp));
             },
         .bad = {MISSING, "a", "b", "C=c", "D=d"},
         .error = ENOENT,
         .nullable = 31},
        {.name = "Execvp",
         .wrapped =
             [](Texts text) {
                 char *argv[] = {Element(text[1]), Element(text[2]), nullptr};
                 return Number(Posix_Execvp(text[0], argv));
             },
         .bare =
             [](Texts text) {
                 char *argv[] = {Element(text[1]), Element(text[2]), nullptr};
                 return Number(Bare(execvp)(text[0], argv));
             },
         .bad = {MISSING, "a", "b"},
         .error = ENOENT,
         .nullable = 6},
        {.name = "System",
         PELAGO_BOTH(Number, Posix_System, system, text[0]),
         .bad = {"exit 3"},
         .good = {"printf x >'new \xC3\xBC\xF0\x9F\x90\xA7'; exit 3"},
         .result = "768",
         .effect = [] { return SizeIs(NEW_NAME, 1); }},
        {.name = "Popen",
         .wrapped = [](Texts text) { return Stream(Posix_Popen(text[0], "r"), pclose); },
         .bare = [](Texts text) { return Stream(Bare(popen)(text[0], "r"), pclose); },
         .bad = {"exit 3"},
         .nullable = 0,
         .good = {"printf x >'new \xC3\xBC\xF0\x9F\x90\xA7'; exit 3"},
         .result = "a stream, closed with 768",
         .effect = [] { return SizeIs(NEW_NAME, 1); }},
        {.name = "Getenv",
         .wrapped = [](Texts text) { return Kept(Posix_Getenv(text[0])); },
         .bare = [](Texts text) { return Kept(Bare(getenv)(text[0])); },
         .bad = {MISSING},
         .nullable = 0,
         .good = {VARIABLE},
         .result = "value \xC3\xA9"},
        {.name = "TryGetenv",
         .wrapped = [](Texts text) { return Kept(Posix_TryGetenv(text[0])); },
         .bare = [](Texts text) { return Kept(Bare(getenv)(text[0])); },
         .bad = {MISSING},
         .nullable = 0,
         .good = {VARIABLE},
         .result = "value \xC3\xA9"},
        {.name = "Setenv",
         PELAGO_BOTH(Number, Posix_Setenv, setenv, text[0], text[1], 1),
         .bad = {"a=b", "c"},
         .error = EINVAL,
         .good = {VARIABLE, FILE_NAME},
         .effect = [] { return ValueOf(VARIABLE) == FILE_NAME; }},
        {.name = "Setenv_OnlyWhenUnset",
         PELAGO_BOTH(Number, Posix_Setenv, setenv, text[0], text[1], 0),
         .bad = {"", "c"},
         .error = EINVAL,
         .good = {VARIABLE, FILE_NAME},
         .effect = [] { return ValueOf(VARIABLE) == "value \xC3\xA9"; }},
        {.name = "Unsetenv",
         PELAGO_BOTH(Number, Posix_Unsetenv, unsetenv, text[0]),
         .bad = {"a=b"},
         .error = EINVAL,
         .good = {VARIABLE},
         .effect = [] { return ValueOf(VARIABLE) == "(unset)"; }},
    };
}

// Returns the expected outcome of the wrapper for its good texts when errno is ALONE.
inline CallOutcome SuccessOf(const Wrapper &wrapper)
{
    errno = ALONE;
    return {wrapper.result, wrapper.isQuiet ? ALONE : wrapper.bare(wrapper.good.data()).error};
}

inline const auto WRAPPER_NAME = [](const auto &row) { return std::string(row.param.name); };

#endif // PELAGO_TESTS_MISC_POSIXCALLS_H
