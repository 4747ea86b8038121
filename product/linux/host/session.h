/*
 * session.h -- the commands that the four scripts run, and the clearing of what dead sessions left.
 * A command takes the script's arguments; it returns when its promise is kept, and fails with the
 * reason when nothing was changed or all was undone.
 */
#ifndef PELAGO_HOST_SESSION_H
#define PELAGO_HOST_SESSION_H

#include "records.h"

#include <functional>
#include <string>
#include <vector>

using Arguments = std::vector<std::string>;

// USER USER PASSWORD_FILE
void AddUser(const Arguments &arguments);
// USER PASSWORD_FILE FOLDER SHARE ACCESS
void AddShare(const Arguments &arguments);
// SHARE FOLDER
void RemoveShare(const Arguments &arguments);
// USER
void RemoveUser(const Arguments &arguments);

// In the field "samba" of a user's record: the account that Samba has of the name is not ours.
inline constexpr char SOMEBODYS[] = "somebody's";

// RemoveRecord() under the lock.
bool RemoveRecordLocked(const Record &record);
// Removes the user of a record, but not the record; false after a message when the user is still
// there.
bool TakeAwayAccount(const Record &record);
// Removes the user or the share of a record, and the record; false after a message when it is still
// there.  The record's maker must be this process.
bool TakeAwayUser(const Record &record);
bool TakeAwayShare(const Record &record);

// Clears away what dead sessions left; false when something of it is still there.  What belongs to
// a session that lives is not touched.
// What has a mark but no record, since a boot has taken that, is looked for each time, or only the
// first time since the host started.
enum class Look { OnceForUnrecorded, AlwaysForUnrecorded };
bool ClearDeadSessions(Look look = Look::OnceForUnrecorded);
using RecordFilter = std::function<bool(const Record &)>;
// The same, and waits for other processes, such as the switch, that have in hand what is awaited.
bool ClearWithOthers(Look look, const RecordFilter &isAwaited);
// The same for a session that begins, and awaits what has the names that it wants.  What cannot be
// cleared away is said, and is in nobody's way.
void ClearBeforeSession(const RecordFilter &isAwaited);
// Whether any user or share belongs to a session that lives, and whether any was left behind.
bool IsAnySessionAlive();
bool IsAnySessionDead();

#endif // PELAGO_HOST_SESSION_H
