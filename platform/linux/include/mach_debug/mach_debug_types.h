/* mach_debug_types.h -- the kernel's zones, its pools of elements of one size. */
#ifndef PELAGO_LINUX_MACH_DEBUG_TYPES_H
#define PELAGO_LINUX_MACH_DEBUG_TYPES_H

#include <stdint.h>

#define MACH_ZONE_NAME_MAX_LEN 80

typedef struct mach_zone_name {
    char mzn_name[MACH_ZONE_NAME_MAX_LEN]; /* NUL-terminated */
} mach_zone_name_t;
typedef mach_zone_name_t *mach_zone_name_array_t;

/* Sizes are in bytes. */
typedef struct mach_zone_info_data {
    uint64_t mzi_count;       /* elements in use */
    uint64_t mzi_cur_size;    /* memory of the zone */
    uint64_t mzi_max_size;    /* always 0, as Linux does not have it */
    uint64_t mzi_elem_size;   /* size of an element, with the kernel's own data about it */
    uint64_t mzi_alloc_size;  /* size by which the zone grows */
    uint64_t mzi_sum_size;    /* always 0 */
    uint64_t mzi_exhaustible; /* always 0 */
    uint64_t mzi_collectable; /* always 0 */
} mach_zone_info_t;
typedef mach_zone_info_t *mach_zone_info_array_t;

#endif /* PELAGO_LINUX_MACH_DEBUG_TYPES_H */
