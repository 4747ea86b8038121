// versionLists.cpp -- whether somebody has put property lists of a version here.
#include <versionLists.h>

#include <unistd.h>

namespace pelago::platform {

// No distribution has them; who makes their folder means them to be read.
bool Host_HasVersionLists() { return access("/System/Library/CoreServices", F_OK) == 0; }

} // namespace pelago::platform
