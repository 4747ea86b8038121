// The user and group database without memory.
#include "noMemory.h"

#include "posix.h"
#include "unicode.h"

#include <grp.h>
#include <pwd.h>
#include <utility>

namespace {

// Both exist on every machine, and both also have a number, zero.
const passwd ROOT = *getpwuid(0);
const group ROOTS = *getgrgid(0);

// How attempts end while the name is converted to the host's encoding, which is UTF-8, and then
// while each of these texts is converted from it.
std::vector<Ending> Named() { return {PANICS}; }
std::vector<Ending> Converting(const std::vector<const char *> &texts)
{
    std::vector<Ending> endings;
    for (const char *text : texts) {
        endings.push_back(Unconverted(text));
    }
    return endings;
}
std::vector<Ending> ConvertingMembers()
{
    std::vector<const char *> members;
    for (char **member = ROOTS.gr_mem; *member != nullptr; member++) {
        members.push_back(*member);
    }
    return Converting(members);
}
std::vector<Ending> operator+(std::vector<Ending> first, const std::vector<Ending> &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::vector<Ending> Passwd()
{
    return Converting({ROOT.pw_passwd, ROOT.pw_dir, ROOT.pw_name, ROOT.pw_gecos, ROOT.pw_shell});
}
std::vector<Ending> PasswdR()
{
    return Converting({ROOT.pw_name, ROOT.pw_passwd, ROOT.pw_gecos, ROOT.pw_dir, ROOT.pw_shell});
}

// Makes an attempt after the names of the encodings have been looked up.
template <typename Attempt> bool Attempts(Attempt attempt)
{
    Unicode_GetCurrentEncoding();
    UnicodeIANALookup("UTF-8");
    const bool succeeded = attempt();
    Unicode_Shutdown();
    return succeeded;
}

// Frees the strings of the record that the library keeps.
void Release(char *&text) { free(std::exchange(text, nullptr)); }
void Release(passwd *record)
{
    Release(record->pw_passwd);
    Release(record->pw_dir);
    Release(record->pw_name);
    Release(record->pw_gecos);
    Release(record->pw_shell);
}
void Release(group *record)
{
    Release(record->gr_passwd);
    Release(record->gr_name);
    for (char **member = record->gr_mem; *member != nullptr; member++) {
        free(*member);
    }
    free(std::exchange(record->gr_mem, nullptr));
}

// For functions that return the library's record.
template <typename Find> bool Keeps(Find find)
{
    return Attempts([&] {
        auto *record = Scarcely(find);
        if (record == nullptr) { return false; }
        Release(record);
        return true;
    });
}

// For functions that fill the caller's record.
template <typename Record, typename Find> bool Fills(Find find)
{
    return Attempts([&] {
        Record record, *result = nullptr;
        std::string buffer(100000, '#');
        return Scarcely([&] { return find(&record, buffer.data(), buffer.size(), &result); }) ==
                   0 &&
               result == &record;
    });
}

RUNS_OUT(Posix_Getpwnam, Named() + Passwd())
{
    return Keeps([] { return Posix_Getpwnam(ROOT.pw_name); });
}

RUNS_OUT(Posix_Getpwuid, Passwd())
{
    return Keeps([] { return Posix_Getpwuid(0); });
}

RUNS_OUT(Posix_Getpwent, Passwd())
{
    return Keeps([] { return Posix_Getpwent(); });
}

NEEDS_NO_MEMORY(Posix_Endpwent)
{
    Scarcely([] {
        Posix_Endpwent();
        return true;
    });
    return true;
}

RUNS_OUT(Posix_Getgrnam, Named() + Converting({ROOTS.gr_passwd, ROOTS.gr_name}) +
                             std::vector<Ending>{PANICS} + ConvertingMembers())
{
    return Keeps([] { return Posix_Getgrnam(ROOTS.gr_name); });
}

RUNS_OUT(Posix_GetpwnamR, Named() + PasswdR())
{
    return Fills<passwd>([](auto... out) { return Posix_GetpwnamR(ROOT.pw_name, out...); });
}

RUNS_OUT(Posix_GetpwuidR, PasswdR())
{
    return Fills<passwd>([](auto... out) { return Posix_GetpwuidR(0, out...); });
}

RUNS_OUT(Posix_GetgrnamR, Named() + Converting({ROOTS.gr_name, ROOTS.gr_passwd}) +
                              std::vector<Ending>{PANICS} + ConvertingMembers())
{
    return Fills<group>([](auto... out) { return Posix_GetgrnamR(ROOTS.gr_name, out...); });
}

RUNS_OUT(Posix_Getgrouplist, PANICS)
{
    return Attempts([] {
        gid_t groups[1000];
        int count = 1000;
        return Scarcely([&] { return Posix_Getgrouplist(ROOT.pw_name, 0, groups, &count); }) >= 0;
    });
}

} // namespace
