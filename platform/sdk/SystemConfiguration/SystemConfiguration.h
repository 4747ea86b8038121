/*
 * SystemConfiguration.h -- the part of Apple's System Configuration that this product calls, and
 * the functions with which its tests check results: a session on a preferences file.
 * CoreFoundation.h says which builds use this header instead of Apple's.
 *
 * When a function fails, SCError() returns the reason; each thread has its own.  Only one thread at
 * a time may use a session.
 */
#ifndef PELAGO_SDK_SYSTEMCONFIGURATION_H
#define PELAGO_SDK_SYSTEMCONFIGURATION_H

#include <CoreFoundation/CoreFoundation.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef const struct __SCPreferences *SCPreferencesRef;

/* The results of SCError(), besides errno values. */
enum {
    kSCStatusOK = 0,
    kSCStatusFailed = 1001,
    kSCStatusInvalidArgument = 1002,
    kSCStatusAccessError = 1003,
    kSCStatusNoKey = 1004,
    kSCStatusKeyExists = 1005,
    kSCStatusLocked = 1006,
    kSCStatusNeedLock = 1007,
    kSCStatusNoPrefsSession = 3001,
    kSCStatusPrefsBusy = 3002,
    kSCStatusNoConfigFile = 3003,
    kSCStatusStale = 3005
};
int SCError(void);

/*
 * Opens a session on the file prefsID (an absolute path); the caller releases it with CFRelease,
 * which also releases its lock.  Nothing is read or locked yet.  For a missing file it returns a
 * session, too, and SCError() is kSCStatusNoConfigFile.  Returns NULL when the file cannot be read.
 */
SCPreferencesRef SCPreferencesCreate(CFAllocatorRef allocator, CFStringRef name,
                                     CFStringRef prefsID);

/*
 * Takes the file's lock, which other processes respect and which ends with its holder.  Only root
 * may take it.  With wait it waits until the lock is free; without, it fails with
 * kSCStatusPrefsBusy when another session holds the lock.  A session that already holds the lock
 * gets kSCStatusLocked.  Fails with kSCStatusStale when another program has changed the file since
 * this session read it; on Linux only if the session has changes that are not committed, since it
 * otherwise reads the file again.
 */
Boolean SCPreferencesLock(SCPreferencesRef prefs, Boolean wait);
Boolean SCPreferencesUnlock(SCPreferencesRef prefs);

/*
 * Returns the value of a key; after the first access it comes from memory.  The session owns it,
 * and may release it at the next set, synchronize, lock or release.  Returns NULL, and SCError() is
 * kSCStatusNoKey, when there is none.
 */
CFPropertyListRef SCPreferencesGetValue(SCPreferencesRef prefs, CFStringRef key);

/* Keeps a reference to value under key until the commit writes it; no lock is needed. */
Boolean SCPreferencesSetValue(SCPreferencesRef prefs, CFStringRef key, CFPropertyListRef value);

/*
 * Writes the changes: the whole file is replaced, or nothing is changed.  Takes the lock, and waits
 * for it, if this session does not hold it.  Returns TRUE, and writes nothing, when there are no
 * changes.
 */
Boolean SCPreferencesCommitChanges(SCPreferencesRef prefs);

/* Drops values and changes; the next access reads the file again. */
void SCPreferencesSynchronize(SCPreferencesRef prefs);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_SDK_SYSTEMCONFIGURATION_H */
