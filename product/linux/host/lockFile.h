/*
 * lockFile.h -- files of root's that one process at a time holds.
 * A lock is held for as long as its descriptor, or a copy of it in a started program, is open.
 */
#ifndef PELAGO_HOST_LOCKFILE_H
#define PELAGO_HOST_LOCKFILE_H

#include "hostFile.h"

#include <string>

// Makes and opens the file; one that others than root could open, and so hold, is replaced.  Fails
// when that cannot be.
pelago::platform::OwnedFd OpenLock(const char *path);

// Returns whether the lock is now ours, without waiting.
bool TakeLock(const pelago::platform::OwnedFd &lock);

// Opens the file and waits for its lock.  Fails when the lock is still held after that many
// seconds; the failure names the holder, as in "another look has not ended within 120 s".
pelago::platform::OwnedFd HoldLock(const char *path, int seconds, const std::string &holder);

#endif // PELAGO_HOST_LOCKFILE_H
