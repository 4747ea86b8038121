/*
 * administration.h -- the commands for an administrator, and the switch.  Each takes its arguments;
 * it fails with the reason.
 */
#ifndef PELAGO_HOST_ADMINISTRATION_H
#define PELAGO_HOST_ADMINISTRATION_H

#include "session.h"

// [--once]: runs smbd as the preferences say, and clears what dead sessions left, until SIGTERM.
// With --once, the former, once.
void SwitchService(const Arguments &arguments);
bool IsSwitchRunning();

// [FOLDER]: writes to standard output what a session needs of this host, and of the folder, and
// what of it is missing.  Fails when something is.
void CheckHost(const Arguments &arguments);

// No arguments: lists what sessions have made.  --clean: clears away what dead ones left.
// --end USER, --end-all: ends one session, or all, the tool's process included.
void ManageSessions(const Arguments &arguments);

// status | init | on | off: the SMB service in the preferences.
void ManageService(const Arguments &arguments);

#endif // PELAGO_HOST_ADMINISTRATION_H
