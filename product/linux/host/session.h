/*
 * session.h -- the commands that the four scripts run, and the removal of what dead sessions left.
 * A command takes the script's arguments.  It returns when its work is done.  AddUser() and
 * AddShare() fail after they have undone what they did, and all four fail with the reason.
 */
#ifndef PELAGO_HOST_SESSION_H
#define PELAGO_HOST_SESSION_H

#include "records.h"

#include <functional>
#include <string>
#include <vector>

using Arguments = std::vector<std::string>;

// USER USER PASSWORD_FILE: makes the user that a share is served to.
void AddUser(const Arguments &arguments);
// USER PASSWORD_FILE FOLDER SHARE ACCESS: serves FOLDER as SHARE to USER alone; ACCESS is rw or ro.
void AddShare(const Arguments &arguments);
// SHARE FOLDER: ends the share and cuts its clients off.
void RemoveShare(const Arguments &arguments);
// USER: ends the connections of the user, and removes the user.
void RemoveUser(const Arguments &arguments);

// The value of the field "samba" of a user's record when Samba's account of the name was not made
// for a share, and so is not to be removed.
inline constexpr char SOMEBODYS[] = "somebody's";

// Takes the lock and calls RemoveRecord().
bool RemoveRecordLocked(const Record &record);
// Removes the user of a record, and Samba's account if it is ours, but not the record.  Returns
// false after a message when something of the user is still there.
bool TakeAwayAccount(const Record &record);
// Each removes the user or the share of a record, and the record.  Returns false after a message
// when something of it is still there.  The record's maker must be this process.
bool TakeAwayUser(const Record &record);
bool TakeAwayShare(const Record &record);

// When to look for users and shares that have our mark but no record, because a boot has removed
// it: until the first complete look after the host started, or always.
enum class Look { OnceForUnrecorded, AlwaysForUnrecorded };
// Removes the users and shares that dead sessions left, and does not touch those of living
// sessions.  Returns false when something is still there.
bool ClearDeadSessions(Look look = Look::OnceForUnrecorded);
// Returns whether the record is meant.
using RecordFilter = std::function<bool(const Record &)>;
// The same, and waits up to 30 s for other processes, such as the switch, to finish with the
// records for which isAwaited returns true.
bool ClearWithOthers(Look look, const RecordFilter &isAwaited);
// The same for a session that begins; isAwaited chooses the records of the names that the session
// wants.  When something is still there it prints a message, but does not fail.
void ClearBeforeSession(const RecordFilter &isAwaited);
// Return whether any record is alive, and whether any is not.
bool IsAnySessionAlive();
bool IsAnySessionDead();

#endif // PELAGO_HOST_SESSION_H
