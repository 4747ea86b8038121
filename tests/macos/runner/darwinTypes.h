// darwinTypes.h -- Darwin's structures that programs share with calls, held to its headers field by
// field.
#pragma once

#include "layout.h"

#include <cstdint>
#include <ctime>
#include <sys/stat.h>

// Characters
struct DarwinRuneLocale {
    char magic[8];
    char encoding[32];
    void *functions[2];
    int32_t invalidRune;
    uint32_t runetype[DARWIN__CACHED_RUNES];
    int32_t maplower[DARWIN__CACHED_RUNES];
    int32_t mapupper[DARWIN__CACHED_RUNES];
    struct {
        int count;
        void *ranges;
    } extensions[3];
    void *variable;
    int variableSize;
    int classCount;
    void *classes;
};
static_assert(sizeof(DarwinRuneLocale) == DARWIN_SIZEOF__RuneLocale);
static_assert(offsetof(DarwinRuneLocale, runetype) == DARWIN_OFFSET__RuneLocale___runetype);
static_assert(offsetof(DarwinRuneLocale, maplower) == DARWIN_OFFSET__RuneLocale___maplower);
static_assert(offsetof(DarwinRuneLocale, mapupper) == DARWIN_OFFSET__RuneLocale___mapupper);

// What both hosts lay out alike
DARWIN_SIZE(timespec, timespec);
DARWIN_FIELD(timespec, timespec, tv_nsec);
DARWIN_SIZE(tm, tm);
DARWIN_FIELD(tm, tm, tm_isdst);
DARWIN_FIELD(tm, tm, tm_gmtoff);
DARWIN_FIELD(tm, tm, tm_zone);

struct DarwinTimeval {
    int64_t tv_sec;
    int32_t tv_usec;
};
DARWIN_SIZE(DarwinTimeval, timeval);
DARWIN_FIELD(DarwinTimeval, timeval, tv_usec);

// Files
struct DarwinStat {
    int32_t st_dev;
    uint16_t st_mode;
    uint16_t st_nlink;
    uint64_t st_ino;
    uint32_t st_uid;
    uint32_t st_gid;
    int32_t st_rdev;
    timespec st_atimespec;
    timespec st_mtimespec;
    timespec st_ctimespec;
    timespec st_birthtimespec;
    int64_t st_size;
    int64_t st_blocks;
    int32_t st_blksize;
    uint32_t st_flags;
    uint32_t st_gen;
    int32_t spare;
    int64_t spares[2];
};
DARWIN_SIZE(DarwinStat, stat);
DARWIN_FIELD(DarwinStat, stat, st_mode);
DARWIN_FIELD(DarwinStat, stat, st_ino);
DARWIN_FIELD(DarwinStat, stat, st_rdev);
DARWIN_FIELD(DarwinStat, stat, st_atimespec);
DARWIN_FIELD(DarwinStat, stat, st_birthtimespec);
DARWIN_FIELD(DarwinStat, stat, st_size);
DARWIN_FIELD(DarwinStat, stat, st_blksize);
DARWIN_FIELD(DarwinStat, stat, st_gen);

// What calls without "$INODE64" fill.
struct DarwinOldStat {
    int32_t st_dev;
    uint32_t st_ino;
    uint16_t st_mode;
    uint16_t st_nlink;
    uint32_t st_uid;
    uint32_t st_gid;
    int32_t st_rdev;
    timespec st_atimespec;
    timespec st_mtimespec;
    timespec st_ctimespec;
    int64_t st_size;
    int64_t st_blocks;
    int32_t st_blksize;
    uint32_t st_flags;
    uint32_t st_gen;
    int32_t spare;
    int64_t spares[2];
};
static_assert(sizeof(DarwinOldStat) == DARWIN_OLD_SIZEOF_stat);
static_assert(offsetof(DarwinOldStat, st_mode) == DARWIN_OLD_OFFSET_stat_st_mode);
static_assert(offsetof(DarwinOldStat, st_mtimespec) == DARWIN_OLD_OFFSET_stat_st_mtimespec);
static_assert(offsetof(DarwinOldStat, st_size) == DARWIN_OLD_OFFSET_stat_st_size);

struct DarwinStatfs {
    uint32_t f_bsize;
    int32_t f_iosize;
    uint64_t f_blocks;
    uint64_t f_bfree;
    uint64_t f_bavail;
    uint64_t f_files;
    uint64_t f_ffree;
    int32_t f_fsid[2];
    uint32_t f_owner;
    uint32_t f_type;
    uint32_t f_flags;
    uint32_t f_fssubtype;
    char f_fstypename[16];
    char f_mntonname[DARWIN_MAXPATHLEN];
    char f_mntfromname[DARWIN_MAXPATHLEN];
    uint32_t spares[8];
};
DARWIN_SIZE(DarwinStatfs, statfs);
DARWIN_FIELD(DarwinStatfs, statfs, f_fsid);
DARWIN_FIELD(DarwinStatfs, statfs, f_flags);
DARWIN_FIELD(DarwinStatfs, statfs, f_fstypename);
DARWIN_FIELD(DarwinStatfs, statfs, f_mntfromname);

struct DarwinDirent {
    uint64_t d_ino;
    uint64_t d_seekoff;
    uint16_t d_reclen;
    uint16_t d_namlen;
    uint8_t d_type;
    char d_name[DARWIN_MAXPATHLEN];
};
DARWIN_SIZE(DarwinDirent, dirent);
DARWIN_FIELD(DarwinDirent, dirent, d_type);
DARWIN_FIELD(DarwinDirent, dirent, d_name);

struct DarwinFlock {
    int64_t l_start;
    int64_t l_len;
    int32_t l_pid;
    int16_t l_type;
    int16_t l_whence;
};
DARWIN_SIZE(DarwinFlock, flock);
DARWIN_FIELD(DarwinFlock, flock, l_pid);
DARWIN_FIELD(DarwinFlock, flock, l_type);

struct DarwinUtimbuf {
    int64_t actime;
    int64_t modtime;
};
DARWIN_SIZE(DarwinUtimbuf, utimbuf);

// Users
struct DarwinPasswd {
    char *pw_name;
    char *pw_passwd;
    uint32_t pw_uid;
    uint32_t pw_gid;
    int64_t pw_change;
    char *pw_class;
    char *pw_gecos;
    char *pw_dir;
    char *pw_shell;
    int64_t pw_expire;
};
DARWIN_SIZE(DarwinPasswd, passwd);
DARWIN_FIELD(DarwinPasswd, passwd, pw_change);
DARWIN_FIELD(DarwinPasswd, passwd, pw_class);
DARWIN_FIELD(DarwinPasswd, passwd, pw_gecos);
DARWIN_FIELD(DarwinPasswd, passwd, pw_expire);

// Processes
struct DarwinUtsname {
    char sysname[256];
    char nodename[256];
    char release[256];
    char version[256];
    char machine[256];
};
DARWIN_SIZE(DarwinUtsname, utsname);
DARWIN_FIELD(DarwinUtsname, utsname, machine);

struct DarwinSigaction {
    void *handler;
    uint32_t sa_mask;
    int32_t sa_flags;
};
DARWIN_SIZE(DarwinSigaction, sigaction);
DARWIN_FIELD(DarwinSigaction, sigaction, sa_mask);
DARWIN_FIELD(DarwinSigaction, sigaction, sa_flags);
static_assert(DARWIN_SIZEOF_sigset_t == sizeof(uint32_t));

struct DarwinRlimit {
    uint64_t rlim_cur;
    uint64_t rlim_max;
};
DARWIN_SIZE(DarwinRlimit, rlimit);

struct DarwinItimerval {
    DarwinTimeval it_interval;
    DarwinTimeval it_value;
};
DARWIN_SIZE(DarwinItimerval, itimerval);
DARWIN_FIELD(DarwinItimerval, itimerval, it_value);

struct DarwinFdinfo {
    int32_t proc_fd;
    uint32_t proc_fdtype;
};
DARWIN_SIZE(DarwinFdinfo, proc_fdinfo);

// Locales
struct DarwinLconv {
    char *decimal_point, *thousands_sep, *grouping, *int_curr_symbol, *currency_symbol;
    char *mon_decimal_point, *mon_thousands_sep, *mon_grouping, *positive_sign, *negative_sign;
    char int_frac_digits, frac_digits, p_cs_precedes, p_sep_by_space, n_cs_precedes;
    char n_sep_by_space, p_sign_posn, n_sign_posn, int_p_cs_precedes, int_n_cs_precedes;
    char int_p_sep_by_space, int_n_sep_by_space, int_p_sign_posn, int_n_sign_posn;
};
DARWIN_SIZE(DarwinLconv, lconv);
DARWIN_FIELD(DarwinLconv, lconv, negative_sign);
DARWIN_FIELD(DarwinLconv, lconv, n_sign_posn);
DARWIN_FIELD(DarwinLconv, lconv, int_n_cs_precedes);
DARWIN_FIELD(DarwinLconv, lconv, int_p_sep_by_space);
