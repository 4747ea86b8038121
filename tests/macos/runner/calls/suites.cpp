// suites.cpp -- calls of GoogleTest, the C++ library and the suites that the product does not make.
#include "../darwinTypes.h"
#include "../refuse.h"
#include "../rows.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <linux/futex.h>
#include <new>
#include <regex.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr Pair REGEX_FLAGS[] = {PAIR(REG_EXTENDED), PAIR(REG_ICASE), PAIR(REG_NOSUB),
                                PAIR(REG_NEWLINE)};
constexpr Pair MATCH_FLAGS[] = {PAIR(REG_NOTBOL), PAIR(REG_NOTEOL)};

// ---- Regular expressions: the host's is in a block of its own

struct Regex {
    int magic;
    size_t groups;
    const char *end;
    regex_t *host;
};
DARWIN_SIZE(Regex, regex_t);
static_assert(offsetof(Regex, groups) == DARWIN_OFFSET_regex_t_re_nsub);
static_assert(offsetof(Regex, host) == DARWIN_OFFSET_regex_t_re_g);
struct Match {
    int64_t start, end;
};
DARWIN_SIZE(Match, regmatch_t);
static_assert(REG_NOMATCH == DARWIN_REG_NOMATCH);

int Compile(Regex *regex, const char *pattern, int flags)
{
    *regex = {};
    regex->host = new regex_t;
    const int error = regcomp(regex->host, pattern, HostFlags("regcomp", REGEX_FLAGS, flags));
    regex->groups = regex->host->re_nsub;
    return error;
}

int Execute(const Regex *regex, const char *text, size_t count, Match *matches, int flags)
{
    std::vector<regmatch_t> host(count);
    const int error =
        regexec(regex->host, text, count, host.data(), HostFlags("regexec", MATCH_FLAGS, flags));
    for (size_t i = 0; error == 0 && i < count; i++) {
        matches[i] = {host[i].rm_so, host[i].rm_eo};
    }
    return error;
}

void Free(Regex *regex)
{
    regfree(regex->host);
    delete regex->host;
    regex->host = nullptr;
}

// ---- Waiting for a word, which the C++ library does in its own way

constexpr uint32_t COMPARE_AND_WAIT = 1, COMPARE_AND_WAIT64 = 5, OPERATION = 0xFF, WAKE_ALL = 0x100;

uint32_t Operation(const char *call, uint32_t operation)
{
    if ((operation & OPERATION) != COMPARE_AND_WAIT &&
        (operation & OPERATION) != COMPARE_AND_WAIT64) {
        Refuse("%s: operation %u is not known", call, operation);
    }
    return operation;
}

// The lower 4 of 8 bytes are enough, because the waiting thread checks the value again.
int WaitForWord(uint32_t operation, void *word, uint64_t value, uint32_t microseconds)
{
    Operation("__ulock_wait", operation);
    const timespec time = {microseconds / 1'000'000, microseconds % 1'000'000 * 1000L};
    const HandOnErrno handOn;
    return static_cast<int>(syscall(SYS_futex, word, FUTEX_WAIT, static_cast<uint32_t>(value),
                                    microseconds == 0 ? nullptr : &time));
}

int WakeForWord(uint32_t operation, void *word, uint64_t /* value */)
{
    const int most = (Operation("__ulock_wake", operation) & WAKE_ALL) != 0 ? INT32_MAX : 1;
    const HandOnErrno handOn;
    return static_cast<int>(syscall(SYS_futex, word, FUTEX_WAKE, most));
}

// ---- Threads, as GoogleTest counts them before it forks

int Threads(uint32_t /* task */, uint32_t **list, uint32_t *count)
{
    *count = 0;
    DIR *folder = opendir("/proc/self/task");
    if (folder == nullptr) { Refuse("task_threads: /proc/self/task cannot be read"); }
    while (const dirent *entry = readdir(folder)) {
        if (entry->d_name[0] != '.') { ++*count; }
    }
    closedir(folder);
    // Released by vm_deallocate().
    *list = static_cast<uint32_t *>(mmap(nullptr, *count * sizeof **list, PROT_READ | PROT_WRITE,
                                         MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    return 0;
}

// ---- Programs with their arguments in the call

std::vector<char *> ListOf(const char *first, va_list rest)
{
    std::vector<char *> list = {const_cast<char *>(first)};
    while (list.back() != nullptr) {
        list.push_back(va_arg(rest, char *));
    }
    return list;
}

int Execl(const char *path, const char *first, ...)
{
    va_list rest;
    va_start(rest, first);
    const std::vector<char *> list = ListOf(first, rest);
    va_end(rest);
    const HandOnErrno handOn;
    return execv(path, list.data());
}

int Execlp(const char *file, const char *first, ...)
{
    va_list rest;
    va_start(rest, first);
    const std::vector<char *> list = ListOf(first, rest);
    va_end(rest);
    const HandOnErrno handOn;
    return execvp(file, list.data());
}

int Dprintf(int fd, const char *format, ...)
{
    const HandOnErrno handOn;
    va_list arguments;
    va_start(arguments, format);
    const int length = vdprintf(fd, format, arguments);
    va_end(arguments);
    return length;
}

// ---- Copies of files, through std::filesystem

int CopyFile(int from, int to, const void * /* state */, uint32_t flags)
{
    if (flags != DARWIN_COPYFILE_DATA) { Refuse("fcopyfile: flags %u are not known", flags); }
    const HandOnErrno handOn;
    char bytes[4096];
    ssize_t size;
    while ((size = read(from, bytes, sizeof bytes)) > 0) {
        if (write(to, bytes, static_cast<size_t>(size)) != size) { return -1; }
    }
    return static_cast<int>(size);
}

char sCopyState; // a copy has no state
void *NewCopyState() { return &sCopyState; }
int FreeCopyState(void * /* state */) { return 0; }

// ---- Children that are looked at

struct Siginfo {
    int32_t signal, error, code, pid;
    uint32_t user;
    int32_t status;
    char rest[DARWIN_SIZEOF_siginfo_t - 6 * sizeof(int32_t)];
};
DARWIN_SIZE(Siginfo, siginfo_t);
static_assert(offsetof(Siginfo, pid) == DARWIN_OFFSET_siginfo_t_si_pid);
static_assert(offsetof(Siginfo, status) == DARWIN_OFFSET_siginfo_t_si_status);
static_assert(P_ALL == DARWIN_P_ALL && P_PID == DARWIN_P_PID && P_PGID == DARWIN_P_PGID);

int WaitFor(idtype_t which, id_t id, Siginfo *info, int options)
{
    constexpr Pair OPTIONS[] = {
        {WEXITED, DARWIN_WEXITED}, {WNOWAIT, DARWIN_WNOWAIT}, {WNOHANG, DARWIN_WNOHANG}};
    const HandOnErrno handOn;
    siginfo_t host = {};
    if (waitid(which, id, &host, HostFlags("waitid", OPTIONS, options)) != 0) { return -1; }
    *info = {};
    if (host.si_pid == 0) { return 0; }
    if (host.si_code != CLD_EXITED && host.si_code != CLD_KILLED) {
        Refuse("waitid: code %d is not known", host.si_code);
    }
    const bool isKilled = host.si_code == CLD_KILLED;
    *info = {DarwinSignal(host.si_signo),
             0,
             static_cast<int>(isKilled ? DARWIN_CLD_KILLED : DARWIN_CLD_EXITED),
             host.si_pid,
             host.si_uid,
             isKilled ? DarwinSignal(host.si_status) : host.si_status,
             {}};
    return 0;
}

int Prctl(int option, unsigned long argument)
{
    if (option != PR_SET_CHILD_SUBREAPER) { Refuse("prctl: option %d is not known", option); }
    return prctl(option, argument);
}

const Row ROWS[] = {
    {"__ulock_wait", RowAddress(&WaitForWord)},
    {"__ulock_wake", RowAddress(&WakeForWord)},
    ALIKE_AS(abs, int (*)(int)),
    ALIKE(alarm),
    ALIKE(clearenv),
    {"copyfile_state_alloc", RowAddress(&NewCopyState)},
    {"copyfile_state_free", RowAddress(&FreeCopyState)},
    TRANSLATED(dprintf, Dprintf),
    TRANSLATED(execl, Execl),
    TRANSLATED(execlp, Execlp),
    {"fcopyfile", RowAddress(&CopyFile)},
    WITH_ERRNO(getpriority),
    WITH_ERRNO(memfd_create),
    WITH_ERRNO(mount),
    ALIKE_AS(nextafter, double (*)(double, double)),
    WITH_ERRNO(pause),
    TRANSLATED(prctl, Prctl),
    TRANSLATED(regcomp, Compile),
    TRANSLATED(regexec, Execute),
    TRANSLATED(regfree, Free),
    WITH_ERRNO(setpgid),
    WITH_ERRNO(setpriority),
    WITH_ERRNO(setregid),
    WITH_ERRNO(setreuid),
    TRANSLATED(task_threads, Threads),
    WITH_ERRNO(unshare),
    TRANSLATED(waitid, WaitFor),
};

} // namespace

Rows SuiteRows() { return ROWS; }
