// versionLists.cpp -- Linux has property lists of the system's version if somebody made them.
#include <versionLists.h>

#include <unistd.h>

namespace pelago::platform {

// No distribution has these lists.  If an administrator made their folder, they are meant to be
// read.
bool Host_HasVersionLists() { return access("/System/Library/CoreServices", F_OK) == 0; }

} // namespace pelago::platform
