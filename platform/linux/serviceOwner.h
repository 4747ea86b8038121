/*
 * serviceOwner.h -- who switched the SMB service on.
 *
 * The service is on while the array under SERVICE_KEY contains "disk".  A program that adds "disk"
 * is its owner: the file carries the mark of its process (processMark.h) as a record until "disk"
 * is removed.  When the owner has ended without removing it, the next program that changes the
 * preferences treats it as removed.  A "disk" without a record is an administrator's, and stays.
 *
 * For a file without such an array, services is nullptr or the value that is there.  Every function
 * may throw std::bad_alloc.
 */
#ifndef PELAGO_LINUX_SERVICEOWNER_H
#define PELAGO_LINUX_SERVICEOWNER_H

#include "cfTypes.h"

#include <string>

namespace pelago::platform {

constexpr char SERVICE_KEY[] = "EnabledServices";

enum class ServiceOwner {
    Nobody, // the service is off, or on for good
    Runs,
    Dead
};

size_t ServiceCount(CFTypeRef services); // returns how often the array contains "disk"
inline bool ServiceIsOn(CFTypeRef services) { return ServiceCount(services) > 0; }
ServiceOwner ServiceOwnerOf(CFTypeRef services, const std::string &record);

// Returns the record to write when this process changes the number of "disk" in the array from
// before to after; empty for none.
std::string ServiceRecordAfter(size_t before, size_t after, const std::string &recordBefore);

void ServiceAppend(CFMutableArrayRef services);

// Returns a copy without the first "disk", the one that an owner removes at its end.
CFOwned<CFMutableArrayRef> ServiceCopyWithoutFirst(CFArrayRef services);
// Returns a copy without any "disk".
CFOwned<CFMutableArrayRef> ServiceCopyWithoutAny(CFArrayRef services);

} // namespace pelago::platform

#endif /* PELAGO_LINUX_SERVICEOWNER_H */
