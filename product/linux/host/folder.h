/*
 * folder.h -- decides whether a folder may be shared.
 *
 * The client acts as the folder's owner.  A user who could replace the folder, or a folder or a
 * link on the path to it, could have another user's folder shared and act as that user.
 */
#ifndef PELAGO_HOST_FOLDER_H
#define PELAGO_HOST_FOLDER_H

#include <string>
#include <sys/types.h>

struct Folder {
    std::string path;  // absolute, without links; only root and the owner can change where it leads
    std::string owner; // the owner's user name; Samba finds the same user by it
    uid_t uid = 0;
    gid_t gid = 0; // the owner's primary group
};

// Walks the path as it was given, one component at a time, and opens each without following a link.
// Returns the folder at the end.  Fails with the reason when the path is not absolute, not UTF-8 or
// does not end at a folder, when Samba cannot act as the owner, when the owner cannot enter the
// folder, and when anybody but root and the owner could change the path.
Folder JudgeFolder(const std::string &given);

#endif // PELAGO_HOST_FOLDER_H
