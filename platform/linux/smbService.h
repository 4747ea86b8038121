/*
 * smbService.h -- the SMB service in a preferences file: whether it is wanted, who switched it on,
 * and switching it by hand.  It is wanted while the array EnabledServices contains "disk".
 *
 * A call that fails leaves the file unchanged and stores the reason, without a newline, in *reason.
 * Every function may throw std::bad_alloc, before it changes anything.
 */
#ifndef PELAGO_LINUX_SMBSERVICE_H
#define PELAGO_LINUX_SMBSERVICE_H

#include "serviceOwner.h"

#include <string>

namespace pelago::platform {

constexpr char SMB_PREFERENCES[] =
    "/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist";

enum class SmbWanted { No, Yes, Unknown };
// Returns whether the service is wanted: No for a missing or an empty file; Unknown, with the
// reason, for one that cannot be read or understood.
SmbWanted SmbServiceWanted(const std::string &path, std::string *reason);

// Returns the service's owner; Nobody, too, for a file that cannot be read or understood.
ServiceOwner SmbServiceOwner(const std::string &path);

enum class SmbChange {
    None, // there was nothing to change
    Done,
    Busy, // somebody else has the lock
    Failed
};

// Removes the "disk" of a program that has ended, as that program should have done; None for any
// other owner.  Takes the lock only when there is something to remove, and waits for it only when
// wait is true.
SmbChange SmbServiceTakeBack(const std::string &path, bool wait, std::string *reason);

// Switches the service on for good: no program's end switches it off.  When an owner runs, a second
// "disk" is added, since the owner will remove one at its end.  Creates a missing file.
SmbChange SmbServiceSwitchOn(const std::string &path, std::string *reason);

// Removes every "disk", whoever its owner is.
SmbChange SmbServiceSwitchOff(const std::string &path, std::string *reason);

} // namespace pelago::platform

#endif /* PELAGO_LINUX_SMBSERVICE_H */
