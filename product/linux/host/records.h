/*
 * records.h -- what the scripts have made, and for whom: a record for each user and for each share.
 *
 * Records lie in /run/pelago, which a boot empties.  A record is there before what it is about, and
 * goes after it: what a script that was killed has made can always be found.  It says whose it is:
 *
 * The session is the process that started the script, which is the tool.  When it has ended, so has
 * the session.
 *
 * The maker is the script that is just making or removing this.  What is whole has none.
 *
 * A record is alive while its maker runs, or, without one, while its session does.  What belongs to
 * one that is not alive was left behind.
 */
#ifndef PELAGO_HOST_RECORDS_H
#define PELAGO_HOST_RECORDS_H

#include "processMark.h"

#include "hostFile.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

// One script at a time looks at the records or changes them.  Nobody holds this while a program of
// the host's runs, or while a folder is looked at.
class RecordsLock {
public:
    RecordsLock(); // makes the folders; fails when they cannot be had, or the lock not in time

private:
    pelago::platform::OwnedFd mFd;
};

enum class RecordKind { User, Share };

struct Record {
    RecordKind kind;
    std::string id; // of a user, the user's name; of a share, the name of its folder
    std::map<std::string, std::string> fields;
    std::optional<pelago::platform::ProcessMark> session, maker;

    std::string Get(const std::string &field) const;
    bool IsAlive() const;
    // Whether a process is at work on it for nobody: it clears away what a dead session left, or is
    // a script of that session, which undoes what it does.
    bool IsInHand() const;
    // What keeps one that is alive from others, as the end of "the user alice is ...".
    std::string Holding() const;
    bool IsOf(const pelago::platform::ProcessMark &process) const { return session == process; }
    // Of a user, the user's name; of a share, that of the user whom it is for.
    std::string User() const;
    // Whether this is of a share that Samba takes for that of the name, whatever its letters.
    bool IsShareNamed(const std::string &share) const;

    // The file that holds it.
    std::string Path() const;
    // Of a share: what smbd is given for the share's path, a link to the folder.
    std::string LinkPath() const;
};

// Each of these wants the lock held, and fails when the files do not obey.
std::vector<Record> ReadRecords(RecordKind kind);
std::optional<Record> FindUserRecord(const std::string &user);
// By the share's name, whatever its letters.
std::optional<Record> FindShareRecord(const std::string &share);
void WriteRecord(const Record &record);
// A new share's record, with a folder of its own and in that a link to the folder that is shared.
Record MakeShareRecord(const std::string &target);

// Makes the folder of a share's record again, which a boot has taken.
void RemakeShareFolder(const std::string &id);

// Removes the record, and what MakeShareRecord() made; false after saying why.
bool RemoveRecord(const Record &record);

// Whether nobody has looked yet, since the host started, for what earlier sessions left.
bool IsFirstLook();
void NoteFirstLook();

// The record in whose folder a share's path lies: its id; empty for a path that is not ours.
std::string IdOfSharePath(const std::string &path);

// Fails when the package is just being removed: what is made now nobody would take away.
void CheckIsOpen();

// The process that started this script.  Fails when it has ended already.
pelago::platform::ProcessMark CallerSession();

#endif // PELAGO_HOST_RECORDS_H
