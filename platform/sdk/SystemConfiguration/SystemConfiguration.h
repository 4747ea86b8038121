/*
 * SystemConfiguration.h -- the part of Apple's System Configuration that this product calls, and
 * what its tests look at results with: one session on a preferences file.  See CoreFoundation.h
 * beside it for what this header is.
 *
 * Every function that fails says why through SCError(), one value a thread.  A session belongs to
 * one thread at a time.
 */
#ifndef PELAGO_SDK_SYSTEMCONFIGURATION_H
#define PELAGO_SDK_SYSTEMCONFIGURATION_H

#include <CoreFoundation/CoreFoundation.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef const struct __SCPreferences *SCPreferencesRef;

/* What SCError() answers; an errno value stands for itself. */
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
 * which also gives up its lock.  Nothing is read or locked yet.  A missing file is a session too,
 * with SCError() kSCStatusNoConfigFile; NULL when the file may not be read.
 */
SCPreferencesRef SCPreferencesCreate(CFAllocatorRef allocator, CFStringRef name,
                                     CFStringRef prefsID);

/*
 * Takes the file's lock, which other processes respect and which dies with its holder.  Only root
 * may.  With wait it blocks until the lock is free, else an occupied one is kSCStatusPrefsBusy.
 * No nesting: kSCStatusLocked.  kSCStatusStale when the file was changed by somebody else since
 * this session looked (on Linux only with changes that are not committed; without, the session
 * looks again).
 */
Boolean SCPreferencesLock(SCPreferencesRef prefs, Boolean wait);
Boolean SCPreferencesUnlock(SCPreferencesRef prefs);

/*
 * The value of a key, from memory after the first access; it belongs to the session and may die
 * with the next set, synchronize, lock or release.  NULL and kSCStatusNoKey when there is none.
 */
CFPropertyListRef SCPreferencesGetValue(SCPreferencesRef prefs, CFStringRef key);

/* Keeps value itself under key until the commit; no lock is needed. */
Boolean SCPreferencesSetValue(SCPreferencesRef prefs, CFStringRef key, CFPropertyListRef value);

/*
 * Writes the changes: the file is replaced whole or not at all.  Takes the lock for itself,
 * waiting, when this session does not hold it.  TRUE, without writing, when nothing has changed.
 */
Boolean SCPreferencesCommitChanges(SCPreferencesRef prefs);

/* Forgets values and changes; the next access reads the file again. */
void SCPreferencesSynchronize(SCPreferencesRef prefs);

#ifdef __cplusplus
}
#endif

#endif /* PELAGO_SDK_SYSTEMCONFIGURATION_H */
