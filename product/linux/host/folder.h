/*
 * folder.h -- judges the folder that is to be shared.
 *
 * The client acts as the folder's owner.  Whoever could put another folder in its place, or in that
 * of a folder or a link on the way to it, could lend himself that owner's rights.
 */
#ifndef PELAGO_HOST_FOLDER_H
#define PELAGO_HOST_FOLDER_H

#include <string>
#include <sys/types.h>

struct Folder {
    std::string path; // absolute, and without links; only root and the owner can change its meaning
    std::string owner; // the owner's user name, by which Samba finds this same user
    uid_t uid = 0;
    gid_t gid = 0; // the owner's primary group
};

// Walks the path as it was given, one component at a time, each opened without following it. Fails,
// with the reason, for a path that is not absolute, not UTF-8 or does not lead to a folder, for an
// owner that Samba cannot act as, and when anybody but root and the owner could change the way.
Folder JudgeFolder(const std::string &given);

#endif // PELAGO_HOST_FOLDER_H
