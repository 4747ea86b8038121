// hostCalls.cpp -- makes one of the host's calls that take or return text, through the library or
// directly.
//
// hostCalls                    the names, one a line
// hostCalls NAME wrapped|bare  makes that call in a folder of its own; prints its result, its
//                              errno, and how many descriptors it left open
//
// Calls access() for "/begin" before the call and for "/end" after it, which mark the call's own
// system calls in a trace.
#include "posixCalls.h"

#include <dirent.h>
#include <functional>
#include <grp.h>
#include <pwd.h>

namespace {

CallOutcome User(const passwd *user)
{
    const int error = errno;
    return {user == nullptr ? "NULL" : user->pw_name + std::string(" ") + user->pw_dir, error};
}
CallOutcome Team(const group *team)
{
    const int error = errno;
    return {team == nullptr ? "NULL" : team->gr_name, error};
}

// A call that fills the caller's record; found formats its result.
template <typename Record, typename Key>
CallOutcome Filled(int (*call)(Key, Record *, char *, size_t, Record **), Key key,
                   CallOutcome (*found)(const Record *))
{
    Record record = {}, *result = nullptr;
    char buffer[4096];
    const int error = call(key, &record, buffer, sizeof buffer, &result);
    return {std::to_string(error) + " " + found(result).result, errno};
}

CallOutcome Groups(int (*call)(const char *, gid_t, gid_t *, int *))
{
    gid_t groups[64];
    int count = 64;
    const int result = call("root", 0, groups, &count);
    return {std::to_string(result) + " of " + std::to_string(count), errno};
}

// The file's name differs at each run, so it is not printed.
CallOutcome Made(char *name)
{
    const CallOutcome outcome = Taken(name);
    return {outcome.result == "NULL" ? "NULL" : "a name", outcome.error};
}

// Success if a name was made, even if the file is missing.
char *QuietMkTemp()
{
    const int before = errno;
    char *name = BareMkTemp("nameXXXXXX");
    if (name != nullptr) { errno = before; }
    return name;
}

struct Call {
    std::string name;
    std::function<CallOutcome()> wrapped, bare;
};

std::vector<Call> Calls()
{
    std::vector<Call> calls = {
        {"Getpwnam", [] { return User(Posix_Getpwnam("daemon")); },
         [] { return User(getpwnam("daemon")); }},
        {"GetpwnamOfNobody", [] { return User(Posix_Getpwnam("x")); },
         [] { return User(getpwnam("x")); }},
        {"Getpwuid", [] { return User(Posix_Getpwuid(1)); }, [] { return User(getpwuid(1)); }},
        {"Getpwent", [] { return User(Posix_Getpwent()); }, [] { return User(getpwent()); }},
        {"Getgrnam", [] { return Team(Posix_Getgrnam("daemon")); },
         [] { return Team(getgrnam("daemon")); }},
        {"GetpwnamR", [] { return Filled(Posix_GetpwnamR, "daemon", User); },
         [] { return Filled(getpwnam_r, "daemon", User); }},
        {"GetpwuidR", [] { return Filled(Posix_GetpwuidR, uid_t{1}, User); },
         [] { return Filled(getpwuid_r, uid_t{1}, User); }},
        {"GetgrnamR", [] { return Filled(Posix_GetgrnamR, "daemon", Team); },
         [] { return Filled(getgrnam_r, "daemon", Team); }},
        {"Getgrouplist", [] { return Groups(Posix_Getgrouplist); },
         [] { return Groups(getgrouplist); }},
        {"MkTempThatIsMade", [] { return Made(Posix_MkTemp("nameXXXXXX")); },
         [] { return Made(QuietMkTemp()); }},
    };
    for (const Wrapper &row : Wrappers()) {
        const auto texts = row.good.empty() ? row.bad : row.good;
        calls.push_back({row.name, [=] { return row.wrapped(texts.data()); },
                         [=] { return row.bare(texts.data()); }});
    }
    return calls;
}

long OpenDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<Call> calls = Calls();
    if (argc != 3) {
        for (const Call &call : calls) {
            puts(call.name.c_str());
        }
        return 0;
    }
    const WorkingFolder folder;
    for (const Call &call : calls) {
        if (call.name != argv[1]) { continue; }
        const auto &make = strcmp(argv[2], "wrapped") == 0 ? call.wrapped : call.bare;
        const long before = OpenDescriptors();
        access("/begin", F_OK);
        errno = ALONE;
        const CallOutcome outcome = make();
        access("/end", F_OK);
        printf("%s, errno %d, %ld left open\n", outcome.result.c_str(), outcome.error,
               OpenDescriptors() - before);
        return 0;
    }
    fprintf(stderr, "hostCalls: there is no call of this name: %s\n", argv[1]);
    return 2;
}
