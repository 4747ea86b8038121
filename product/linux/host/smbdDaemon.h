/*
 * smbdDaemon.h -- starts and stops smbd: as the unit smbd.service where systemd is process 1,
 * otherwise as a daemon that this program starts and ends itself.
 */
#ifndef PELAGO_HOST_SMBDDAEMON_H
#define PELAGO_HOST_SMBDDAEMON_H

// Each does nothing when smbd is already as wanted; otherwise it prints a message first.  Each
// fails when systemctl fails or, without systemd, when smbd has not started or ended within 15 s.
void StartSmbd();
void StopSmbd();

// Returns whether systemd is process 1.
bool IsSystemdHere();

#endif // PELAGO_HOST_SMBDDAEMON_H
