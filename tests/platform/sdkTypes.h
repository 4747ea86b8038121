// sdkTypes.h -- checks the types and numbers in the SDK's headers that callers rely on.  It is
// compiled with the platform layer's headers and, by the build for macOS, with Apple's own.
#ifndef PELAGO_TESTS_PLATFORM_SDKTYPES_H
#define PELAGO_TESTS_PLATFORM_SDKTYPES_H

#include <mach-o/dyld.h>
#include <mach/mach.h>
#include <mach/mach_time.h>
#include <mach_debug/mach_debug_types.h>
#include <sys/mount.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

// Whether CALL has this type.  noexcept makes no difference: the hosts' headers disagree about it
// for their own calls.
template <auto CALL, typename Type>
constexpr bool IS_CALL = std::is_convertible_v<decltype(CALL), Type *>;

static_assert(IS_CALL<sysctl, int(int *, unsigned int, void *, size_t *, void *, size_t)>);
static_assert(IS_CALL<sysctlbyname, int(const char *, void *, size_t *, void *, size_t)>);
static_assert(CTL_HW == 6 && HW_MACHINE == 1 && CTL_MAXNAME == 12);

static_assert(IS_CALL<mach_host_self, unsigned int()>);
static_assert(std::is_same_v<decltype(mach_task_self()), unsigned int>);
static_assert(IS_CALL<host_statistics, int(unsigned int, int, int *, unsigned int *)>);
static_assert(HOST_VM_INFO == 2 && HOST_VM_INFO_COUNT == 15);
static_assert(std::is_same_v<decltype(HOST_VM_INFO_COUNT), unsigned int>);
static_assert(sizeof(vm_statistics_data_t) == 60);
static_assert(offsetof(vm_statistics_data_t, free_count) == 0);
static_assert(offsetof(vm_statistics_data_t, active_count) == 4);
static_assert(offsetof(vm_statistics_data_t, inactive_count) == 8);
static_assert(offsetof(vm_statistics_data_t, wire_count) == 12);
static_assert(offsetof(vm_statistics_data_t, zero_fill_count) == 16);
static_assert(offsetof(vm_statistics_data_t, reactivations) == 20);
static_assert(offsetof(vm_statistics_data_t, pageins) == 24);
static_assert(offsetof(vm_statistics_data_t, pageouts) == 28);
static_assert(offsetof(vm_statistics_data_t, faults) == 32);
static_assert(offsetof(vm_statistics_data_t, cow_faults) == 36);
static_assert(offsetof(vm_statistics_data_t, lookups) == 40);
static_assert(offsetof(vm_statistics_data_t, hits) == 44);
static_assert(offsetof(vm_statistics_data_t, purgeable_count) == 48);
static_assert(offsetof(vm_statistics_data_t, purges) == 52);
static_assert(offsetof(vm_statistics_data_t, speculative_count) == 56);

static_assert(IS_CALL<mach_zone_info, int(unsigned int, mach_zone_name_t **, unsigned int *,
                                          mach_zone_info_t **, unsigned int *)>);
static_assert(sizeof(mach_zone_name_t) == 80 && sizeof(mach_zone_name_t::mzn_name) == 80);
static_assert(sizeof(mach_zone_info_t) == 64);
static_assert(offsetof(mach_zone_info_t, mzi_count) == 0);
static_assert(offsetof(mach_zone_info_t, mzi_cur_size) == 8);
static_assert(offsetof(mach_zone_info_t, mzi_max_size) == 16);
static_assert(offsetof(mach_zone_info_t, mzi_elem_size) == 24);
static_assert(offsetof(mach_zone_info_t, mzi_alloc_size) == 32);
static_assert(offsetof(mach_zone_info_t, mzi_sum_size) == 40);
static_assert(offsetof(mach_zone_info_t, mzi_exhaustible) == 48);
static_assert(offsetof(mach_zone_info_t, mzi_collectable) == 56);
static_assert(IS_CALL<vm_deallocate, int(unsigned int, uintptr_t, uintptr_t)>);
static_assert(std::is_same_v<vm_address_t, uintptr_t> && std::is_same_v<vm_size_t, uintptr_t>);

static_assert(KERN_SUCCESS == 0 && KERN_INVALID_ARGUMENT == 4 && KERN_FAILURE == 5);
static_assert(KERN_RESOURCE_SHORTAGE == 6 && KERN_INVALID_HOST == 22);
static_assert(std::is_same_v<kern_return_t, int>);

static_assert(IS_CALL<mach_absolute_time, uint64_t()>);
static_assert(IS_CALL<mach_timebase_info, int(struct mach_timebase_info *)>);
static_assert(std::is_same_v<decltype(mach_timebase_info_data_t::numer), uint32_t>);
static_assert(sizeof(mach_timebase_info_data_t) == 8);
static_assert(offsetof(mach_timebase_info_data_t, denom) == 4);

static_assert(IS_CALL<_NSGetExecutablePath, int(char *, uint32_t *)>);
static_assert(IS_CALL<issetugid, int()>);
static_assert(IS_CALL<statfs, int(const char *, struct statfs *)>);

#endif // PELAGO_TESTS_PLATFORM_SDKTYPES_H
