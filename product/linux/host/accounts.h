/*
 * accounts.h -- reads and changes the user database of this host.  A user that was made for a share
 * is known by the comment in its entry.
 */
#ifndef PELAGO_HOST_ACCOUNTS_H
#define PELAGO_HOST_ACCOUNTS_H

#include <string>
#include <sys/types.h>
#include <vector>

enum class AccountState {
    None, // no user has the name
    Ours, // the user was made for a share
    Taken // the user was not made for a share
};
// Returns the state of the user of exactly this name.  Fails when the database cannot be read.
AccountState FindAccount(const std::string &user);

// Returns the names of all users that were made for a share.
std::vector<std::string> OurAccounts();

// Fails when the host has a user or a group of this name, or a user whose name differs from it only
// in the case of letters: Samba takes the two names for the same.
void CheckNameIsFree(const std::string &user);

// Returns a user number (uid) that no user has, and that was given to nobody for years: the files
// of an earlier user with that number would belong to the new user.  Fails when it cannot note the
// number as used.
uid_t NextUserNumber();

// Waits for the end of a program that changes the user database for a share script: the program
// outlives a script that is killed.  Fails after 60 s.
void WaitForAccountPrograms();

// Makes a user who cannot log in to the host.  Fails with the message of useradd.
void MakeAccount(const std::string &user, uid_t number);
// Removes a user that was made for a share; waits up to 5 s for the user's processes to end.
// Returns false after a message when the user is still there.
bool RemoveAccount(const std::string &user);

#endif // PELAGO_HOST_ACCOUNTS_H
