// versionLists.h -- the host's property lists that state the system's version.
#ifndef PELAGO_PLATFORM_VERSIONLISTS_H
#define PELAGO_PLATFORM_VERSIONLISTS_H

namespace pelago::platform {

// Returns whether the host has property lists that state the system's version.  Where it has none,
// a failure to read them is not worth a line in the log.
bool Host_HasVersionLists();

} // namespace pelago::platform

#endif // PELAGO_PLATFORM_VERSIONLISTS_H
