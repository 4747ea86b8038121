// users.cpp -- users and groups.
#include "../darwinTypes.h"
#include "../rows.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace {

static_assert(sizeof(group) == DARWIN_SIZEOF_group);
static_assert(offsetof(group, gr_gid) == DARWIN_OFFSET_group_gr_gid);
static_assert(offsetof(group, gr_mem) == DARWIN_OFFSET_group_gr_mem);

char sNoClass[] = "";

DarwinPasswd *Convert(DarwinPasswd &to, const passwd &from)
{
    to = {from.pw_name, from.pw_passwd, from.pw_uid, from.pw_gid,   0,
          sNoClass,     from.pw_gecos,  from.pw_dir, from.pw_shell, 0};
    return &to;
}

template <auto Call, typename... Key> DarwinPasswd *Find(Key... key)
{
    static DarwinPasswd sUser;
    const HandOnErrno handOn;
    const passwd *user = Call(key...);
    return user == nullptr ? nullptr : Convert(sUser, *user);
}

template <auto Call, typename Key>
int FindInto(Key key, DarwinPasswd *to, char *buffer, size_t size, DarwinPasswd **result)
{
    passwd host, *found = nullptr;
    const int error = Call(key, &host, buffer, size, &found);
    *result = found == nullptr ? nullptr : Convert(*to, host);
    return DarwinErrno(error);
}

// Darwin's groups are int, and success is 0, not the count.
int Getgrouplist(const char *user, int group, int *groups, int *count)
{
    const HandOnErrno handOn;
    const int room = *count;
    const int found =
        getgrouplist(user, static_cast<gid_t>(group), reinterpret_cast<gid_t *>(groups), count);
    if (found == -1) { *count = room; }
    return found == -1 ? -1 : 0;
}

const Row ROWS[] = {
    ALIKE(endgrent),
    ALIKE(endpwent),
    WITH_ERRNO(getgrgid),
    WITH_RESULT(getgrgid_r),
    WITH_ERRNO(getgrnam),
    WITH_RESULT(getgrnam_r),
    TRANSLATED(getgrouplist, Getgrouplist),
    WITH_ERRNO(getgroups),
    {"getpwent", RowAddress(&Find<&getpwent>)},
    {"getpwnam", RowAddress(&Find<&getpwnam, const char *>)},
    {"getpwnam_r", RowAddress(&FindInto<&getpwnam_r, const char *>)},
    {"getpwuid", RowAddress(&Find<&getpwuid, uid_t>)},
    {"getpwuid_r", RowAddress(&FindInto<&getpwuid_r, uid_t>)},
    WITH_ERRNO(initgroups),
    ALIKE(setpwent),
};

} // namespace

Rows UserRows() { return ROWS; }
