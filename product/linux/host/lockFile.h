/*
 * lockFile.h -- lock files of root's.  One process at a time holds a lock.
 * A lock is held while its descriptor is open, or a copy of it in a program that was started.
 */
#ifndef PELAGO_HOST_LOCKFILE_H
#define PELAGO_HOST_LOCKFILE_H

#include "hostFile.h"

#include <string>

// Opens the file, and makes it if it is missing.  A file that others than root could open, and so
// lock, is replaced.  Fails when the file cannot be opened.
pelago::platform::OwnedFd OpenLock(const char *path);

// Tries to take the lock without waiting; returns whether this process holds it now.
bool TakeLock(const pelago::platform::OwnedFd &lock);

// Opens the file and waits for its lock.  Fails when the lock is not free after that many seconds;
// the message names the holder, as in "another look has not ended within 120 s".
pelago::platform::OwnedFd HoldLock(const char *path, int seconds, const std::string &holder);

#endif // PELAGO_HOST_LOCKFILE_H
