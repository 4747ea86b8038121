/*
 * records.h -- a record for each user and each share that the scripts make.
 *
 * Records lie in /run/pelago, which a boot empties.  A record is written before its user or share
 * is made, and removed after that is gone, so whatever a killed script has made can be found.  A
 * record names two processes:
 *
 * The session is the process that started the script: the tool.  The session ends with the process.
 *
 * The maker is the script that is making or removing the user or share at this moment.  The record
 * of a complete user or share has no maker.
 *
 * A record is alive while its maker runs, or, if it has no maker, while its session runs.  The user
 * or share of a record that is not alive was left behind, and is to be removed.
 */
#ifndef PELAGO_HOST_RECORDS_H
#define PELAGO_HOST_RECORDS_H

#include "processMark.h"

#include "hostFile.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

// The lock under which one script at a time reads or changes the records; held until the end of the
// block.  Do not run a program of the host, or look at a folder to share, while it is held: others
// would have to wait for that.
class RecordsLock {
public:
    RecordsLock(); // makes the folders; fails when that fails, or after 60 s without the lock

private:
    pelago::platform::OwnedFd mFd;
};

enum class RecordKind { User, Share };

struct Record {
    RecordKind kind;
    std::string id; // of a user: the user's name; of a share: the name of the record's folder
    std::map<std::string, std::string> fields;
    std::optional<pelago::platform::ProcessMark> session, maker;

    // Returns the field's value; empty when there is no such field.
    std::string Get(const std::string &field) const;
    // Returns whether the record is alive, as defined above.
    bool IsAlive() const;
    // Returns whether the maker runs although the session has ended: the maker is removing what the
    // session left, or is a script of the session and will undo its own work.
    bool IsInHand() const;
    // Returns why others may not touch a record that is alive, as the end of the sentence
    // "the user alice is ...".
    std::string Holding() const;
    // Returns whether the process is the record's session.
    bool IsOf(const pelago::platform::ProcessMark &process) const { return session == process; }
    // Returns the name of the user; of a share: of the user that it is served to.
    std::string User() const;
    // Returns whether this is the record of a share whose name Samba takes for this one: letters
    // may differ in case.  Fails for a name that is not UTF-8.
    bool IsShareNamed(const std::string &share) const;

    // Returns the path of the record's file.
    std::string Path() const;
    // Of a share: returns the path that smbd is given, a link to the folder that is shared.
    std::string LinkPath() const;
};

// The functions from here to RemoveRecord() are called with the lock held.

// Returns all records of the kind.  One whose file cannot be read has no fields and no processes,
// and so is not alive.
std::vector<Record> ReadRecords(RecordKind kind);
// Returns the user's record; nullopt when there is none.
std::optional<Record> FindUserRecord(const std::string &user);
// Returns the record for which IsShareNamed() holds; nullopt when there is none.
std::optional<Record> FindShareRecord(const std::string &share);
// Replaces the record's file as a whole.  Fails when that fails.
void WriteRecord(const Record &record);
// Makes a folder for the record of a new share, and in it a link to target, the folder that is
// shared.  Returns the record, whose file is not written yet.  Fails when that fails.
Record MakeShareRecord(const std::string &target);

// Makes the folder of a share's record again after a boot has removed it.  Fails when that fails.
void RemakeShareFolder(const std::string &id);

// Removes the record's file, and what MakeShareRecord() made.  Returns false after a message when
// something is left of them.
bool RemoveRecord(const Record &record);

// Returns whether nobody, since the host started, has removed all that earlier sessions left.
bool IsFirstLook();
// Notes that somebody has.  Fails when that cannot be noted.
void NoteFirstLook();

// Returns the id of the share's record whose LinkPath() the path is; empty for any other path.
std::string IdOfSharePath(const std::string &path);

// Fails while the package is being removed: nobody would remove what a session makes now.
void CheckIsOpen();

// Returns the process that started this script.  Fails when that process has ended already.
pelago::platform::ProcessMark CallerSession();

#endif // PELAGO_HOST_RECORDS_H
