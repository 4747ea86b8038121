/*
 * smbdDaemon.h -- starts and stops smbd: the unit smbd.service where systemd is process 1,
 * otherwise a daemon of our own.
 */
#ifndef PELAGO_HOST_SMBDDAEMON_H
#define PELAGO_HOST_SMBDDAEMON_H

// Each says so when it has something to do, and fails when smbd does not obey in time.
void StartSmbd();
void StopSmbd();

bool IsSystemdHere();

#endif // PELAGO_HOST_SMBDDAEMON_H
