// versionLists.h -- whether a host has property lists of its version.
#ifndef PELAGO_PLATFORM_VERSIONLISTS_H
#define PELAGO_PLATFORM_VERSIONLISTS_H

namespace pelago::platform {

// Whether the host has property lists of its version, so that it is worth telling when they cannot
// be read.
bool Host_HasVersionLists();

} // namespace pelago::platform

#endif // PELAGO_PLATFORM_VERSIONLISTS_H
