/*
 * smbService.h -- the SMB service in a preferences file: whether it is wanted, who switched it on,
 * and switching it by hand.  It is wanted while the array EnabledServices holds "disk".
 *
 * What fails leaves the file as it was and gives the reason as a text without a newline.  Every
 * function here may throw std::bad_alloc, before anything is changed.
 */
#ifndef PELAGO_LINUX_SMBSERVICE_H
#define PELAGO_LINUX_SMBSERVICE_H

#include "serviceOwner.h"

#include <string>

namespace pelago::platform {

constexpr char SMB_PREFERENCES[] =
    "/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist";

enum class SmbWanted { No, Yes, Unknown };
// Unknown, with the reason, for a file that cannot be understood; No for a missing or empty one.
SmbWanted SmbServiceWanted(const std::string &path, std::string *reason);

// Nobody for a file that cannot be understood, too.
ServiceOwner SmbServiceOwner(const std::string &path);

enum class SmbChange {
    None, // there was nothing to change
    Done,
    Busy, // somebody else has the lock
    Failed
};

// Takes out the "disk" of a program that has ended, as it would have done itself; None for any
// other owner.  The lock is asked for only when there is something to do, and waited for only with
// wait.
SmbChange SmbServiceTakeBack(const std::string &path, bool wait, std::string *reason);

// Switches the service on for good: no program's end takes it back.  The owner that runs will take
// one "disk" out, so there are two then.  Makes a missing file.
SmbChange SmbServiceSwitchOn(const std::string &path, std::string *reason);

// Takes out every "disk", whosever it is.
SmbChange SmbServiceSwitchOff(const std::string &path, std::string *reason);

} // namespace pelago::platform

#endif /* PELAGO_LINUX_SMBSERVICE_H */
