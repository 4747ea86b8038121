// versionLists.cpp -- every macOS has property lists of its version.
#include <versionLists.h>

bool Host_HasVersionLists() { return true; }
