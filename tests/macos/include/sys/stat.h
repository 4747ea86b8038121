/* stat.h -- with the names that other hosts have for times. */
#ifndef PELAGO_TESTS_MACOS_SYS_STAT_H
#define PELAGO_TESTS_MACOS_SYS_STAT_H

#include_next <sys/stat.h>

#define st_atim st_atimespec
#define st_mtim st_mtimespec

#endif
