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

// Samba's configuration as Samba reads it now: smb.conf and the registry's shares.
class SambaConfiguration {
public:
    using Section = std::map<std::string, std::string>; // by the setting's name in small letters

    // Reads it with testparm; fails when testparm does.
    static SambaConfiguration Read();
    // Parses the output of testparm.
    explicit SambaConfiguration(std::string_view text);

    // Returns the value of a setting of [global], or builtIn when testparm does not print it.
    // builtIn is Samba's default: testparm leaves out settings that have it.
    std::string Global(const std::string &name, const std::string &builtIn) const;
    // Returns the share's section, also when the name's letters differ in case; nullptr when there
    // is none.
    const Section *Find(const std::string &share) const;
    // Returns the names of all shares.
    std::vector<std::string> Shares() const;
    // Returns the path of a share; empty when there is no such share, or it has no path.
    std::string PathOf(const std::string &share) const;

private:
    Section mGlobal;
    std::map<std::string, Section> mShares; // by their folded names
    std::vector<std::string> mNames;
};

// Returns a sentence for each setting that keeps Samba from serving a share as promised; none when
// there is no such setting.  user is the user who is to connect, or empty.
std::vector<std::string> HostObstacles(const SambaConfiguration &configuration,
                                       const std::string &user);

// ---- Shares

struct ShareRequest {
    std::string name;
    std::string path;    // what smbd serves: the record's link to the folder
    std::string userSid; // the only user who may connect
    std::string owner;   // the user as whom the client acts
    bool isReadOnly = true;
};

// Makes the share in Samba's registry, with all its settings at once.  Fails when Samba refuses it.
void ImportShare(const ShareRequest &request);
// Compares the share that Samba reads with the request, and returns the first difference, for
// people; empty when there is none.
std::string Deviation(const SambaConfiguration &configuration, const ShareRequest &request);
// Returns the path of a share in the registry, "none" for a share without a path, and an empty text
// when there is no such share.  Fails when the registry cannot be read.
std::string RegistryPath(const std::string &share);
// Removes the share from the registry; false after a message when that fails.
bool DeleteRegistryShare(const std::string &share);
// Has smbd close its clients' connections to the share; false after a message when an smbd that
// answers does not.
bool CutOffClients(const std::string &share);

// ---- Accounts

// Removes the user from Samba's password database, where the user may be missing; false after a
// message when that fails.
bool RemoveSambaAccount(const std::string &user);
// Ends all connections of the user; false after a message when one remains after 5 s.  Fails when
// they cannot be listed.
bool EndConnections(const std::string &user);

// ---- smbd

// Returns whether smbd runs and listens, so that a client can connect.
bool IsSmbdListening(const SambaConfiguration &configuration);
// Returns whether smbd answers Samba's own messages within 1 s.
bool IsSmbdAnswering();
// Removes from smbd's cache which SIDs belong to the numbers of the folder's owner and group, and
// which number to the user's SID: they may have been somebody else's before.  A SID is given again
// after the password database was replaced.
void ForgetNumbers(const SambaConfiguration &configuration, const Folder &folder,
                   const std::string &userSid);
// Removes the number and the SID of a removed user from Samba's cache, which holds them only if a
// client of that user has connected.
void ForgetUser(const std::string &number, const std::string &sid);

#endif // PELAGO_HOST_SAMBA_H
