// versionLists.h -- whether a host tells its version in property lists.
#ifndef PELAGO_PLATFORM_VERSIONLISTS_H
#define PELAGO_PLATFORM_VERSIONLISTS_H

// Whether the host has property lists of its version, so that it is worth telling when they cannot
// be read.
bool Host_HasVersionLists();

#endif // PELAGO_PLATFORM_VERSIONLISTS_H
