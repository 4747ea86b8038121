/*
 * administration.h -- the switch, and the commands for an administrator.  Each takes the arguments
 * of its command line, and fails with the reason.
 */
#ifndef PELAGO_HOST_ADMINISTRATION_H
#define PELAGO_HOST_ADMINISTRATION_H

#include "session.h"

// No arguments: until SIGTERM, runs smbd while the preferences enable file sharing, and removes
// what dead sessions left.  --once: starts or stops smbd once, as the preferences want it, and
// returns.
void SwitchService(const Arguments &arguments);
// Returns whether a process of the switch runs.
bool IsSwitchRunning();

// [FOLDER]: prints which requirements of a session this host meets and which it lacks, and whether
// FOLDER can be shared.  Fails when anything is missing.
void CheckHost(const Arguments &arguments);

// No arguments: lists the users and shares that sessions have made.  --clean: removes those of dead
// sessions.  --end USER, --end-all: ends the session of that user, or all sessions, and kills the
// tool's process.
void ManageSessions(const Arguments &arguments);

// status | init | on | off: prints whether the preferences enable the SMB service, makes an empty
// preferences file if there is none, or switches the service on for good, or off.
void ManageService(const Arguments &arguments);

#endif // PELAGO_HOST_ADMINISTRATION_H
