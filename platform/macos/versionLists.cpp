// versionLists.cpp -- every macOS has property lists of its version.
#include <versionLists.h>

namespace pelago::platform {

bool Host_HasVersionLists() { return true; }

} // namespace pelago::platform
