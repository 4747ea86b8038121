/* mach.h -- the kernel's memory statistics, its zones, and the release of their pages. */
#ifndef PELAGO_LINUX_MACH_MACH_H
#define PELAGO_LINUX_MACH_MACH_H

#include <mach/kern_return.h>
#include <mach_debug/mach_debug_types.h>

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned int natural_t;
typedef int integer_t;
typedef natural_t mach_port_name_t;
typedef mach_port_name_t mach_port_t;
typedef mach_port_t host_t;
typedef mach_port_t task_t;
typedef mach_port_t vm_map_t;
typedef natural_t mach_msg_type_number_t;
typedef uintptr_t vm_offset_t;
typedef vm_offset_t vm_address_t;
typedef uintptr_t vm_size_t;

/* The ports of this host and of this process, which the calls below expect. */
mach_port_t mach_host_self(void);
extern mach_port_t mach_task_self_;
#define mach_task_self() mach_task_self_

typedef integer_t host_flavor_t;
typedef integer_t *host_info_t;
#define HOST_VM_INFO 2

/* Memory in pages of 4 KiB, and events since the host started.  Members without a comment are 0:
 * Linux does not count them. */
struct vm_statistics {
    natural_t free_count;     /* free pages */
    natural_t active_count;   /* pages used recently */
    natural_t inactive_count; /* pages not used recently */
    natural_t wire_count;     /* pages that stay in memory */
    natural_t zero_fill_count;
    natural_t reactivations; /* inactive pages that became active */
    natural_t pageins;       /* pages read from disk */
    natural_t pageouts;      /* pages written to disk */
    natural_t faults;        /* page faults */
    natural_t cow_faults;
    natural_t lookups;
    natural_t hits;
    natural_t purgeable_count;
    natural_t purges;
    natural_t speculative_count;
};
typedef struct vm_statistics *vm_statistics_t;
typedef struct vm_statistics vm_statistics_data_t;
#define HOST_VM_INFO_COUNT                                                                         \
    ((mach_msg_type_number_t)(sizeof(vm_statistics_data_t) / sizeof(integer_t)))

/*
 * Stores statistics in the vm_statistics_data_t at info, which has room for *count members, and
 * stores the number of members written in *count.  Older versions of the structure have 12 or 14
 * members; a smaller room than today's receives the largest version that fits.
 * KERN_INVALID_ARGUMENT for another flavor than HOST_VM_INFO; KERN_INVALID_HOST for another host
 * than mach_host_self(); KERN_FAILURE when *count is less than 12, or when /proc/meminfo cannot be
 * read or understood; KERN_RESOURCE_SHORTAGE when memory runs out.
 */
kern_return_t host_statistics(host_t host, host_flavor_t flavor, host_info_t info,
                              mach_msg_type_number_t *count);

/*
 * Returns the names of the kernel's zones and, in the same order, their figures: two arrays of the
 * same length, each of which the caller releases with vm_deallocate().  KERN_INVALID_HOST for
 * another host than mach_host_self(), or when the caller may not read /proc/slabinfo, which root
 * decides; KERN_FAILURE when that file is missing or cannot be understood; KERN_RESOURCE_SHORTAGE
 * when memory runs out.  A call that fails stores nothing.
 */
kern_return_t mach_zone_info(mach_port_t host, mach_zone_name_array_t *names,
                             mach_msg_type_number_t *nameCount, mach_zone_info_array_t *infos,
                             mach_msg_type_number_t *infoCount);

/*
 * Releases all pages that the size bytes at the address touch.  KERN_INVALID_ARGUMENT for another
 * task than mach_task_self(), and for a range that ends beyond the address space.
 */
kern_return_t vm_deallocate(vm_map_t task, vm_address_t address, vm_size_t size);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_LINUX_MACH_MACH_H */
