/*
 * accounts.h -- users of this host.  One that was made for a share carries a mark in its comment.
 */
#ifndef PELAGO_HOST_ACCOUNTS_H
#define PELAGO_HOST_ACCOUNTS_H

#include <string>
#include <sys/types.h>
#include <vector>

enum class AccountState {
    None,
    Ours, // made for a share
    Taken // somebody's
};
// Of the user of exactly this name.  Fails when the database cannot be read.
AccountState FindAccount(const std::string &user);

// The names of all users that were made for a share.
std::vector<std::string> OurAccounts();

// Fails when the host has a user or a group of the name, or a user whose name Samba holds for the
// same.
void CheckNameIsFree(const std::string &user);

// A number that no user has, and none had for years: files of an earlier user who had it would
// otherwise be this user's.
uid_t NextUserNumber();

// Waits for a program that a killed script has started to change the user database.
void WaitForAccountPrograms();

// Makes a user who cannot log in to the host.  Fails.
void MakeAccount(const std::string &user, uid_t number);
// Removes a user of ours, as soon as no process runs as that user; false after saying why.
bool RemoveAccount(const std::string &user);

#endif // PELAGO_HOST_ACCOUNTS_H
