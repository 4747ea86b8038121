// versionLists.cpp -- every macOS has property lists of the system's version.
#include <versionLists.h>

namespace pelago::platform {

bool Host_HasVersionLists() { return true; }

} // namespace pelago::platform
