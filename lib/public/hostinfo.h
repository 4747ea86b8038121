/*
 * hostinfo.h -- information about this host, its processor, its clocks and its processes; starting
 * programs and daemons.
 *
 * A char * that is returned is a new string, which the caller releases with free(); a const char *
 * is the library's.  Every function is reentrant and thread-safe, unless it says otherwise.  A
 * failed safe allocation ends the process.
 */
#ifndef PELAGO_HOSTINFO_H
#define PELAGO_HOSTINFO_H

#include "declarations.h"

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

PELAGO_BEGIN_DECLARATIONS

/* ---- The operating system */

/*
 * Returns a number of the kernel's release: index 0 the major, 1 the minor, 2 the micro number, 3
 * the first number in the text after those.  0 for a number that the release lacks, and for any
 * other index.
 *    Hostinfo_OSVersion(1)  gives 6 for "19.6.0"
 *    Hostinfo_OSVersion(3)  gives 18 for "6.1.0-18-amd64"
 * When the kernel has no release, or one that does not begin with a number, the process ends after
 * a Warning(): "NOT_IMPLEMENTED lib/misc/hostinfoPosix:297" and ":318".
 */
int Hostinfo_OSVersion(unsigned int index);

/* Returns the kernel's release, at most 256 bytes of it.  Read once, at the first call of this
 * function or of Hostinfo_OSVersion(). */
const char *Hostinfo_OSVersionString(void);

/*
 * Returns the system's full name: product, version, build, kernel and the kernel's release, or the
 * last two where the others are not known.  Looked up once, at the first call.  NULL after a
 * Warning() when it is not known.
 */
char *Hostinfo_GetOSName(void);
/* Returns the system's short name: "darwin", the kernel's major number and, on 64-bit hardware,
 * "-64".  Looked up and failing as the full name. */
char *Hostinfo_GetOSShortName(void);

/*
 * Returns a line for reports, of fields such as distroVersion='10.15.7' with a blank between them:
 * those of architecture, bitness, buildNumber, distroName, distroVersion, familyName and
 * kernelVersion that the latest look-up found.  architecture is always X86; bitness is 32 for
 * unknown hardware.  A backslash precedes each quote and backslash in a value.  NULL as for the
 * names; "" when a field exceeds 1023 bytes.
 *
 * Not thread-safe until this or one of the names has returned once: when two threads look them up
 * for the first time their fields may be mixed, and a thread that calls this during another's
 * look-up may get "" or part of the line.
 */
char *Hostinfo_GetOSDetailedData(void);

/* Returns 64 or 32, by the name of the hardware; -1 for an unknown name. */
int Hostinfo_GetSystemBitness(void);

/* Returns the host's name; NULL when it has none, or one that is not UTF-8. */
char *Hostinfo_HostName(void);
/* Returns the name that the first successful call found; NULL until then. */
const char *Hostinfo_HostNameCached(void);

/* ---- The processor */

/* What the processor reports in the CPUID leaves 0 and 1. */
typedef struct HostinfoCpuidSummary {
    int vendor;           /* one of the HOSTINFO_CPU_VENDOR_ values */
    uint32_t version;     /* EAX of CPUID leaf 1; the next four are parts of it */
    uint8_t family;       /* bits 8 to 11 */
    uint8_t model;        /* bits 4 to 7 */
    uint8_t stepping;     /* bits 0 to 3 */
    uint8_t type;         /* bits 12 and 13 */
    uint32_t featuresEdx; /* EDX of leaf 1 */
    uint32_t featuresEcx; /* ECX of leaf 1 */
} HostinfoCpuidSummary;

/* Makers of processors. */
enum {
    HOSTINFO_CPU_VENDOR_UNKNOWN = 0,
    HOSTINFO_CPU_VENDOR_INTEL = 2,
    HOSTINFO_CPU_VENDOR_AMD = 3,
    HOSTINFO_CPU_VENDOR_HYGON = 6
};

/* Fills the summary.  False after a Warning() when the processor reports nothing. */
bool Hostinfo_GetCpuid(HostinfoCpuidSummary *summary);

/*
 * Returns those of the CPUID leaves 0, 1, 10, 80000000, 80000001 and 80000008 (hexadecimal) that
 * the processor has: each as its number, a colon, and EAX, EBX, ECX and EDX, all in eight
 * hexadecimal digits, with "-" between two leaves.
 *    00000000:00000016756E65476C65746E49656E69-00000001:...
 * NULL when memory runs out.
 */
char *Hostinfo_GetCpuidDump(void);

/* Returns the number of processors that are running; -1 when it is not known. */
int Hostinfo_NumCPUs(void);

/* Stores the highest clock rate in MHz; cpu is ignored.  False, with *mhz unchanged, when the rate
 * is not known, and when it is 2^31 Hz (2147 MHz) or more, as on most processors: the kernel gives
 * the rate in 32 bits only up to the largest signed number. */
bool Hostinfo_CpuMHz(unsigned int cpu, uint32_t *mhz);

/* Returns the processor's name; NULL when it is not known. */
char *Hostinfo_CpuBrandString(void);
/* Returns the machine's model; NULL when it is not known. */
char *Hostinfo_HardwareModel(void);

/* Returns 1 when this process is translated from another processor's instructions, 0 when it is not
 * or the host does not translate, -1 when that is not known. */
int Hostinfo_ProcTranslated(void);

/* ---- Clocks */

/* Returns a monotonic clock's time: nanoseconds since a moment that stays the same throughout the
 * process. */
uint64_t Hostinfo_SystemTimerNS(void);
/* Returns the same time in microseconds, rounded down. */
uint64_t Hostinfo_SystemTimerUS(void);
/* Stores the time of day: microseconds since 1970-01-01 00:00 UTC. */
void Hostinfo_GetTimeOfDay(int64_t *microseconds);

/* Converts x ticks of one rate to (x * mult) >> shift of another, with the product in 128 bits. */
typedef struct HostinfoRateConversion {
    uint32_t mult;  /* the factor times 2^shift */
    uint32_t shift; /* in bits */
} HostinfoRateConversion;

/* Converts x ticks of one rate to ((x * mult) >> shift) + add of another. */
typedef struct HostinfoRateConversionOffset {
    uint32_t mult;  /* the factor times 2^shift */
    uint32_t shift; /* in bits */
    int64_t add;    /* added at the end */
} HostinfoRateConversionOffset;

/*
 * Computes the conversion from one rate to another, with a factor of 32 significant bits; to a rate
 * of 0 the factor is 0.  False, with nothing stored, when fromHz is 0, or when toHz / fromHz,
 * rounded to 32 bits, is 2^32 or more, or less than 2^-32 and not 0.
 *    Hostinfo_RateConversion(3, 125, &conversion)  gives {2796202667, 26}
 */
bool Hostinfo_RateConversion(uint64_t fromHz, uint64_t toHz, HostinfoRateConversion *conversion);

/* Does the same with an offset such that fromBase becomes toBase, or one less by rounding. */
bool Hostinfo_RateConversionOffset(uint64_t fromHz, uint64_t fromBase, uint64_t toHz,
                                   uint64_t toBase, HostinfoRateConversionOffset *conversion);

/* Writes a conversion to Log() in two lines that begin with the prefix and a blank. */
void Hostinfo_LogRateConversion(const char *prefix, uint64_t fromHz, uint64_t toHz,
                                const HostinfoRateConversion *conversion);
/* Does the same for a conversion with an offset. */
void Hostinfo_LogRateConversionOffset(const char *prefix, uint64_t fromHz, uint64_t fromBase,
                                      uint64_t toHz, uint64_t toBase,
                                      const HostinfoRateConversionOffset *conversion);

/* ---- Load and memory */

/* Stores the load average of the last minute in hundredths.  False when the host does not have all
 * three of its load averages. */
bool Hostinfo_GetLoadAverage(uint32_t *hundredths);
/* Writes the three load averages to Log() as "LOADAVG: 0.25 0.16 0.08"; nothing when the host does
 * not have them. */
void Hostinfo_LogLoadAverage(void);
/* Writes this process's sizes in pages to Log(), in the order of /proc/self/statm; nothing on a
 * host without that file. */
void Hostinfo_LogMemUsage(void);

/*
 * Stores, in pages of 4 KiB: in *minSize always 128, in *maxSize the host's memory, or UINT_MAX
 * when it is larger, and in *currentSize how much of it is free.  False after a Warning(), with
 * nothing stored, when this is not known.
 */
bool Hostinfo_GetMemoryInfoInPages(unsigned int *minSize, unsigned int *maxSize,
                                   unsigned int *currentSize);

/* Returns the size in bytes of an element of the kernel's allocation zone of that name; 0 when
 * there is no such zone, and after a Warning() when the kernel gives no answer. */
size_t Hostinfo_GetKernelZoneElemSize(const char *name);

/* ---- This process, its user, other processes */

/*
 * Returns the path by which the running program was started, which need not be its real path.  It
 * stays the same when the file is replaced or removed.  privilege must be 0 or 1, which make no
 * difference.  NULL after a Warning() for any other privilege, and when the path with its NUL
 * exceeds 1024 bytes, which is macOS's own limit.
 */
char *Hostinfo_GetModulePath(uint32_t privilege);

/*
 * Returns the name of the user who runs this process, from the user database.  Where there is no
 * record, or one of more than 1024 bytes, it returns the environment variable "USER", which whoever
 * started the process could set; where that is not set, NULL.  The name is copied byte for byte:
 * it need not be UTF-8, which CodeSet_IsValidUtf8String() of codeset.h checks.
 */
char *Hostinfo_GetUser(void);

/* Whether a process exists. */
typedef enum HostinfoProcessQuery {
    HOSTINFO_PROCESS_QUERY_DEAD = 0,
    HOSTINFO_PROCESS_QUERY_ALIVE = 1,
    HOSTINFO_PROCESS_QUERY_UNKNOWN = 2
} HostinfoProcessQuery;

/* Returns whether there is a process with that number, which must be above 0, of any user. */
HostinfoProcessQuery Hostinfo_QueryProcessExistence(int pid);

/*
 * Runs a program, searched for as by execvp(), with NULL-terminated arguments, the first of which
 * is its own name.  It starts with default actions for the signals 1 to 32 (blocked signals stay
 * blocked), without timers, and with the soft limit of its address space raised to the hard limit.
 * Its descriptors 0 to 2 are this process's; of the others below the limit on open files only those
 * in keepFds stay open.
 *
 * When wait is true it returns the program's status, as waitpid() stores it; that of a program that
 * could not be started is exit status 127; and 0 where this process ignores SIGCHLD or has
 * SA_NOCLDWAIT set for it, so that the status is lost.  When wait is false it returns 0 as soon as
 * the child exists, and the caller reaps it.  -1 with errno when no child could be made or waiting
 * failed; 1 when path is NULL.
 */
int Hostinfo_Execute(const char *path, char *const *args, bool wait, const int *keepFds,
                     size_t numKeepFds);

/* Flags of Hostinfo_Daemonize(), to be or'ed. */
enum {
    DAEMONIZE_KEEP_CWD = 1,               /* do not change to "/" */
    DAEMONIZE_KEEP_SESSION_AND_STDIO = 2, /* no new session; descriptors 0 to 2 stay as they are */
    DAEMONIZE_EXIT_PARENT = 4,            /* on success end this process with _exit(0) */
    DAEMONIZE_LOCK_PIDFILE = 8            /* the daemon keeps a lock on the PID file */
};

/*
 * Starts the program at path as a daemon: not a child of this process, in a session of its own
 * without a terminal, in "/", with /dev/null as its standard descriptors, with default actions for
 * the signals 1 to 32 and no signal blocked, without timers, and with the soft limit of its address
 * space raised to the hard limit.  Of the other descriptors below the limit on open files only
 * those in keepFds stay open, unless they are close-on-exec.  args are its NULL-terminated
 * arguments, the first of which is its own name; path and args are UTF-8.  A relative path starts
 * from the daemon's folder.
 *
 * pidPath may be NULL.  Otherwise it names a file that receives the daemon's process number, in
 * decimal with a newline; the file is made with mode 0644 or overwritten, and is on the disk before
 * the program starts.  With DAEMONIZE_LOCK_PIDFILE the file is first locked (flock(), exclusively),
 * and stays open and locked in the daemon: while the daemon lives, another attempt fails at once
 * and leaves the file as it is.
 *
 * The lock belongs to the open file, and lasts until the last descriptor of it is closed.  The
 * daemon's descriptor is the lowest number above 2 that was free in this process, and it is not
 * close-on-exec, for the daemon itself got it through an exec.  SO WHATEVER THE DAEMON STARTS
 * INHERITS THE LOCK, and keeps it when the daemon has died, unless the daemon starts it with
 * Hostinfo_Execute() or Hostinfo_Daemonize().  A daemon that starts programs in other ways first
 * finds the descriptor and marks it:
 *    struct stat pidFile, other;
 *    for (int fd = 3; stat(pidPath, &pidFile) == 0 && fd < getdtablesize(); fd++) {
 *        if (fstat(fd, &other) == 0 && other.st_dev == pidFile.st_dev &&
 *            other.st_ino == pidFile.st_ino) {
 *            fcntl(fd, F_SETFD, FD_CLOEXEC);
 *        }
 *    }
 * A child process that runs no other program closes the descriptor.
 *
 * The library does not remove the PID file of a daemon that was started: where the file is not
 * locked its number means nothing, and the next daemon overwrites it.  A daemon that wants the file
 * removed unlinks it as its last act, while it still has the lock.
 *
 * True when the program was started; whether it is ready to serve, the daemon itself must report.
 * False, after Warnings, with the errno of the call that failed: ENOENT, EACCES or ENOEXEC when the
 * program cannot be executed; EWOULDBLOCK when the PID file is locked; ECHILD when the intermediate
 * process was killed, or failed and has reported that by a Warning(); ERANGE for text that the
 * host's encoding cannot represent.  The PID file is then removed, unless it is locked or could not
 * be opened.  A daemon that is killed just before the program starts counts as started.
 *
 * A program that is to become a daemon itself starts itself with an argument:
 *    int main(int argc, char **argv)
 *    {
 *        if (argc == 2 && strcmp(argv[1], "--daemon") == 0) { return Serve(); }
 *        char *self = Hostinfo_GetModulePath(0);
 *        char *const args[] = {self, "--daemon", NULL};
 *        const bool isStarted = self != NULL && Hostinfo_Daemonize(self, args,
 *            DAEMONIZE_LOCK_PIDFILE, "/run/served.pid", NULL, 0);
 *        free(self);
 *        return isStarted ? 0 : 1;
 *    }
 *
 * Call it from a process with one thread, for it forks twice.  A SIGCHLD that arrives during the
 * call is delivered at its end.  Where SIGCHLD is ignored, another child that ends during the call
 * is not reaped by the system, and the caller must wait for it.
 */
bool Hostinfo_Daemonize(const char *path, char *const *args, unsigned int flags,
                        const char *pidPath, const int *keepFds, size_t numKeepFds);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_HOSTINFO_H */
