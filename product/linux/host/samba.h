/*
 * samba.h -- Samba's configuration, shares, accounts and clients, read and changed by Samba's own
 * programs.
 */
#ifndef PELAGO_HOST_SAMBA_H
#define PELAGO_HOST_SAMBA_H

#include "folder.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

// ---- The configuration

// Samba's configuration as it reads it now: the text file and the registry's shares.
class SambaConfiguration {
public:
    using Section = std::map<std::string, std::string>; // of a setting's name in small letters

    // Asks testparm; fails when that cannot read it.
    static SambaConfiguration Read();
    // The same from what testparm printed.
    explicit SambaConfiguration(std::string_view text);

    // The value of a setting of [global]; builtIn is Samba's own, which testparm leaves out.
    std::string Global(const std::string &name, const std::string &builtIn) const;
    // The section that Samba takes for the name, whatever its letters; nullptr when there is none.
    const Section *Find(const std::string &share) const;
    // The names of the shares.
    std::vector<std::string> Shares() const;
    // The path of a share; empty when there is no such share, or it has no path.
    std::string PathOf(const std::string &share) const;

private:
    Section mGlobal;
    std::map<std::string, Section> mShares; // by their folded names
    std::vector<std::string> mNames;
};

// What keeps the host from serving a share as it is promised, a sentence each; none when it is
// ready. user is who is to connect, or empty.
std::vector<std::string> HostObstacles(const SambaConfiguration &configuration,
                                       const std::string &user);

// ---- Shares

struct ShareRequest {
    std::string name;
    std::string path;    // where smbd goes
    std::string userSid; // who is let in
    std::string owner;   // whom the client acts as
    bool isReadOnly = true;
};

// Makes the share in the registry, with all its settings at once.  Fails.
void ImportShare(const ShareRequest &request);
// What Samba reads otherwise than the request has it, as text; empty when all is as requested.
std::string Deviation(const SambaConfiguration &configuration, const ShareRequest &request);
// The path of a share in the registry; empty when there is none of the name.  Fails.
std::string RegistryPath(const std::string &share);
// These return false after saying why.
bool DeleteRegistryShare(const std::string &share);
bool CutOffClients(const std::string &share);

// ---- Accounts

// These return false after saying why.
bool RemoveSambaAccount(const std::string &user);
bool EndConnections(const std::string &user);

// ---- smbd

// Whether smbd runs and listens, so that a client can connect.
bool IsSmbdListening(const SambaConfiguration &configuration);
bool IsSmbdAnswering();
// Has smbd forget whom it took the folder's owner and the user for, if it may remember somebody who
// had their numbers before.  The user's SID comes again when a password database is replaced.
void ForgetNumbers(const SambaConfiguration &configuration, const Folder &folder,
                   const std::string &userSid);
// Takes a user who has been removed out of what Samba remembers, if a client of hers has come.
void ForgetUser(const std::string &number, const std::string &sid);

#endif // PELAGO_HOST_SAMBA_H
