/* mach.h -- the kernel's statistics, its zones, and memory that it hands out. */
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

/* The numbers of this host and of this process, which the calls below ask for. */
mach_port_t mach_host_self(void);
extern mach_port_t mach_task_self_;
#define mach_task_self() mach_task_self_

typedef integer_t host_flavor_t;
typedef integer_t *host_info_t;
#define HOST_VM_INFO 2

/* In pages of 4 KiB, and events since the host started.  What Linux does not tell is 0. */
struct vm_statistics {
    natural_t free_count;     /* free pages */
    natural_t active_count;   /* used lately */
    natural_t inactive_count; /* not used lately */
    natural_t wire_count;     /* that stay in memory */
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
 * Fills *count numbers at info, a vm_statistics_data_t, and stores how many these are.
 * KERN_INVALID_ARGUMENT for another flavor than HOST_VM_INFO, the only one supplied;
 * KERN_INVALID_HOST for another host than mach_host_self(); KERN_FAILURE when *count is less than
 * 12, or when the host does not tell; KERN_RESOURCE_SHORTAGE without memory.  A *count of 12 to 14
 * leaves out the last of them.
 */
kern_return_t host_statistics(host_t host, host_flavor_t flavor, host_info_t info,
                              mach_msg_type_number_t *count);

/*
 * The names of the kernel's zones and, in the same order, what is known of each: two arrays of the
 * same length, each of which the caller gives back with vm_deallocate().  KERN_INVALID_HOST for
 * another host than mach_host_self(), or when the caller may not know, which is up to root;
 * KERN_RESOURCE_SHORTAGE, or KERN_FAILURE when the kernel does not tell.  Nothing is stored then.
 */
kern_return_t mach_zone_info(mach_port_t host, mach_zone_name_array_t *names,
                             mach_msg_type_number_t *nameCount, mach_zone_info_array_t *infos,
                             mach_msg_type_number_t *infoCount);

/*
 * Gives back all pages that the size bytes from the address touch.  KERN_INVALID_ARGUMENT for
 * another task than mach_task_self() and for a range that ends where there can be no memory.
 */
kern_return_t vm_deallocate(vm_map_t task, vm_address_t address, vm_size_t size);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_LINUX_MACH_MACH_H */
