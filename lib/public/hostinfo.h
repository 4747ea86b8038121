/*
 * hostinfo.h -- questions about this host, its processor, its clock and its processes; and starting
 * programs.
 *
 * Strings that are returned as char * are new, and the caller releases them with free(); those
 * returned as const char * are the library's.  Everything is reentrant and thread-safe but for the
 * detailed data and where it says otherwise.  A failed safe allocation ends the process.
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
 * A number of the kernel's release: 0 the major, 1 the minor, 2 the micro number, 3 the first
 * number in whatever follows those; 0 for one that the release does not have, and for any other
 * index.
 *    Hostinfo_OSVersion(1)  gives 6 of "19.6.0"
 *    Hostinfo_OSVersion(3)  gives 18 of "6.1.0-18-amd64"
 * A kernel without a release, or whose release does not begin with a number, ends the process after
 * a Warning: "NOT_IMPLEMENTED lib/misc/hostinfoPosix:297" and ":318".
 */
int Hostinfo_OSVersion(unsigned int index);

/* The kernel's release, as at the first question for it or for a number of it; 256 bytes of it at
 * most. */
const char *Hostinfo_OSVersionString(void);

/*
 * The system's name, as it was at the first call: product, version, build, kernel and kernel's
 * release, or the last two where the system does not tell the others.  NULL after a Warning.
 */
char *Hostinfo_GetOSName(void);
/* The short one: "darwin", the kernel's major number and, on 64-bit hardware, "-64". */
char *Hostinfo_GetOSShortName(void);

/*
 * Fields like distroVersion='10.15.7' with a blank between them, for reports: architecture,
 * bitness, buildNumber, distroName, distroVersion, familyName and kernelVersion, as far as they are
 * known at the latest look-up (architecture is always X86, and bitness 32 for hardware that is not
 * known).  A quote or a backslash in a value has a backslash before it.  NULL as for the names; ""
 * when a field exceeds 1023 bytes.  Two threads that look up the system's names or these for the
 * first time get their fields mixed; one that asks while another is still looking them up may get
 * "" or part of the line.
 */
char *Hostinfo_GetOSDetailedData(void);

/* 64 or 32, by the name of the hardware; -1 for a name that is not known. */
int Hostinfo_GetSystemBitness(void);

/* The host's name; NULL when it has none, or one that is not UTF-8. */
char *Hostinfo_HostName(void);
/* The same as it was at the first call that found one. */
const char *Hostinfo_HostNameCached(void);

/* ---- The processor */

/* What the processor tells of itself in the CPUID leaves 0 and 1. */
typedef struct HostinfoCpuidSummary {
    int vendor;           /* one of HOSTINFO_CPU_VENDOR_... */
    uint32_t version;     /* EAX of CPUID leaf 1; the next four are parts of it */
    uint8_t family;       /* bits 8 to 11 */
    uint8_t model;        /* bits 4 to 7 */
    uint8_t stepping;     /* bits 0 to 3 */
    uint8_t type;         /* bits 12 and 13 */
    uint32_t featuresEdx; /* EDX of leaf 1 */
    uint32_t featuresEcx; /* ECX of leaf 1 */
} HostinfoCpuidSummary;

/* Who made a processor. */
enum {
    HOSTINFO_CPU_VENDOR_UNKNOWN = 0,
    HOSTINFO_CPU_VENDOR_INTEL = 2,
    HOSTINFO_CPU_VENDOR_AMD = 3,
    HOSTINFO_CPU_VENDOR_HYGON = 6
};

/* Fills the summary.  False after a Warning when the processor tells nothing of itself. */
bool Hostinfo_GetCpuid(HostinfoCpuidSummary *summary);

/*
 * The CPUID leaves 0, 1 and 10, and 80000000, 80000001 and 80000008, as far as the processor has
 * them: each as its number, a colon, and EAX, EBX, ECX and EDX, all in eight hexadecimal digits;
 * with "-" between two leaves.
 *    00000000:00000016756E65476C65746E49656E69-00000001:...
 * NULL when memory runs out.
 */
char *Hostinfo_GetCpuidDump(void);

/* How many processors are running; -1 when that is not known. */
int Hostinfo_NumCPUs(void);

/* The highest clock rate in MHz.  The processor's number is not looked at.  False, with *mhz
 * unchanged, when the rate is not known, and when it is 2^31 Hz (2147 MHz) or more, as most
 * processors' is: the rate is read in 32 bits, and the kernel gives no more than a signed number.
 */
bool Hostinfo_CpuMHz(unsigned int cpu, uint32_t *mhz);

/* The processor's name; NULL when it is not known. */
char *Hostinfo_CpuBrandString(void);
/* The machine's model; NULL when it is not known. */
char *Hostinfo_HardwareModel(void);

/* 1 when this process is translated from another processor's instructions, 0 when it is not or the
 * host does not translate, -1 when that cannot be told. */
int Hostinfo_ProcTranslated(void);

/* ---- Clocks */

/* A monotonic clock: nanoseconds since some moment, the same one throughout a process. */
uint64_t Hostinfo_SystemTimerNS(void);
/* The same in microseconds, rounded down. */
uint64_t Hostinfo_SystemTimerUS(void);
/* Microseconds since 1970-01-01 00:00 UTC. */
void Hostinfo_GetTimeOfDay(int64_t *microseconds);

/* x of one rate is (x * mult) >> shift of the other, with the product in 128 bits. */
typedef struct HostinfoRateConversion {
    uint32_t mult;  /* the factor */
    uint32_t shift; /* by how many bits it is too large */
} HostinfoRateConversion;

/* x is ((x * mult) >> shift) + add. */
typedef struct HostinfoRateConversionOffset {
    uint32_t mult;  /* the factor */
    uint32_t shift; /* by how many bits it is too large */
    int64_t add;    /* what is added at the end */
} HostinfoRateConversionOffset;

/*
 * The factor between two rates, exact to 32 bits; to a rate of 0 it is 0.  False, with nothing
 * stored, when toHz / fromHz is (rounded to 32 bits) 2^32 or more, or less than 2^-32 and not 0, or
 * when fromHz is 0.
 *    Hostinfo_RateConversion(3, 125, &conversion)  gives {2796202667, 26}
 */
bool Hostinfo_RateConversion(uint64_t fromHz, uint64_t toHz, HostinfoRateConversion *conversion);

/* The same with an offset, from rounded values: fromBase becomes toBase, or one less. */
bool Hostinfo_RateConversionOffset(uint64_t fromHz, uint64_t fromBase, uint64_t toHz,
                                   uint64_t toBase, HostinfoRateConversionOffset *conversion);

/* Tells a conversion to Log() in two lines that begin with the prefix and a blank. */
void Hostinfo_LogRateConversion(const char *prefix, uint64_t fromHz, uint64_t toHz,
                                const HostinfoRateConversion *conversion);
/* The same of one with an offset. */
void Hostinfo_LogRateConversionOffset(const char *prefix, uint64_t fromHz, uint64_t fromBase,
                                      uint64_t toHz, uint64_t toBase,
                                      const HostinfoRateConversionOffset *conversion);

/* ---- Load and memory */

/* A hundred times the load average of the last minute.  False when the host does not tell all three
 * of its averages. */
bool Hostinfo_GetLoadAverage(uint32_t *hundredths);
/* Tells the three averages to Log() as "LOADAVG: 0.25 0.16 0.08"; nothing when there are none. */
void Hostinfo_LogLoadAverage(void);
/* Tells this process's sizes in pages to Log(), in the order of /proc/self/statm; nothing on a host
 * that has no such file. */
void Hostinfo_LogMemUsage(void);

/*
 * In pages of 4 KiB: 128, the host's memory (UINT_MAX when it has more than that), and how much of
 * it is free.  False after a Warning, with nothing stored, when that is not known.
 */
bool Hostinfo_GetMemoryInfoInPages(unsigned int *minSize, unsigned int *maxSize,
                                   unsigned int *currentSize);

/* The size in bytes of an element of the kernel's zone of that very name; 0 when there is none, and
 * after a Warning when the kernel does not tell. */
size_t Hostinfo_GetKernelZoneElemSize(const char *name);

/* ---- This process, its user, other processes */

/*
 * The path that the running program was started by, not necessarily its real path.  It stays the
 * same when the file is replaced or removed.  privilege is 0 or 1, which are the same here.  NULL
 * after a Warning when privilege is anything else, or when the path with its NUL exceeds 1024
 * bytes, which is macOS's own limit.
 */
char *Hostinfo_GetModulePath(uint32_t privilege);

/*
 * The name of the user who runs this process; else, and for a record of the user database that
 * exceeds 1024 bytes, what "USER" in the environment says, which is up to whoever started the
 * process; else NULL.  In the host's own bytes, whichever they are: where these are not UTF-8, the
 * result is not either, and no process ends over it.  CodeSet_IsValidUtf8String() of codeset.h
 * tells whether it is.
 */
char *Hostinfo_GetUser(void);

/* What is known of a process. */
typedef enum HostinfoProcessQuery {
    HOSTINFO_PROCESS_QUERY_DEAD = 0,
    HOSTINFO_PROCESS_QUERY_ALIVE = 1,
    HOSTINFO_PROCESS_QUERY_UNKNOWN = 2
} HostinfoProcessQuery;

/* Whether there is a process of that number, which is above 0, one's own or another user's. */
HostinfoProcessQuery Hostinfo_QueryProcessExistence(int pid);

/*
 * Runs a program, which is searched for as execvp() does, with the NULL-terminated arguments, the
 * first of which is its own name.  It starts with default actions of the signals 1 to 32 (those
 * that are blocked stay so), without timers, with the soft limit of its address space raised to the
 * hard one, and with no open descriptor below the limit on open files but 0 to 2 and those in
 * keepFds.
 *
 * With wait, returns how it ended, as waitpid() tells it (a program that could not be started exits
 * with 127), or 0 when this process has its children reaped without being told.  Without, 0 as soon
 * as the child is made; reaping it is up to the caller.  -1 with errno when there is no child, or
 * waiting failed; 1 for a NULL path.
 */
int Hostinfo_Execute(const char *path, char *const *args, bool wait, const int *keepFds,
                     size_t numKeepFds);

/* What Hostinfo_Daemonize() is to do otherwise than usual: any of these, or'ed. */
enum {
    DAEMONIZE_KEEP_CWD = 1,               /* do not change to "/" */
    DAEMONIZE_KEEP_SESSION_AND_STDIO = 2, /* no new session; descriptors 0 to 2 stay as they are */
    DAEMONIZE_EXIT_PARENT = 4,            /* on success end this process with _exit(0) */
    DAEMONIZE_LOCK_PIDFILE = 8            /* the daemon holds a lock on the PID file as it runs */
};

/*
 * Starts the program at path as a daemon: not a child of this process, in a session of its own
 * without a terminal, in "/", with /dev/null as its standard descriptors, with default actions of
 * the signals 1 to 32 and no signal blocked, without timers, with the soft limit of its
 * address space raised to the hard one, and with no other open descriptor below the limit on open
 * files but those in keepFds, unless they are close-on-exec.  args are its NULL-terminated
 * arguments, the first of which is its own name; path and args are UTF-8.  A relative path is
 * looked for from the daemon's folder.
 *
 * pidPath, unless it is NULL, is a file for the daemon's process number, which is made with mode
 * 0644 or overwritten, and reaches the disk before the program is started.  With
 * DAEMONIZE_LOCK_PIDFILE it is locked first (flock(), exclusively), and stays open and locked in
 * the daemon: while that lives, another attempt fails at once and leaves the file as it is.
 *
 * The lock is the open file's, and lasts until its last descriptor is closed.  The daemon has it as
 * the lowest number above 2 that was free in this process, and not close-on-exec, or it would not
 * have come through the exec.  SO WHATEVER THE DAEMON STARTS INHERITS THE LOCK, and keeps it when
 * the daemon has died; but not what it starts with Hostinfo_Execute() or Hostinfo_Daemonize().  A
 * daemon that starts programs otherwise first finds the descriptor and marks it:
 *    struct stat pidFile, other;
 *    for (int fd = 3; stat(pidPath, &pidFile) == 0 && fd < getdtablesize(); fd++) {
 *        if (fstat(fd, &other) == 0 && other.st_dev == pidFile.st_dev &&
 *            other.st_ino == pidFile.st_ino) {
 *            fcntl(fd, F_SETFD, FD_CLOEXEC);
 *        }
 *    }
 * A child that executes no program closes it.
 *
 * Nobody removes the PID file of a daemon that was started: without the lock it says nothing, and
 * the next daemon overwrites it.  A daemon that wants it gone unlinks it as the last thing it does,
 * as long as it has the lock.
 *
 * True when the program has been started.  False, after Warnings, with errno set to the failing
 * call's: ENOENT, EACCES or ENOEXEC when the program cannot be executed, EWOULDBLOCK when the PID
 * file is locked, ECHILD when the process in between was killed or told its failure itself, ERANGE
 * for text that the host's encoding cannot spell.  Then the PID file is removed again, unless it is
 * locked or could not be opened: such a one stays as it is.  A daemon that is killed in the moment
 * before the program starts counts as started.
 *
 * A program that is to become a daemon itself starts itself with an argument that says so:
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
 * For a process with one thread: it forks twice.  A SIGCHLD that comes meanwhile is delivered at
 * the end; but where that signal is ignored, another child that ends meanwhile has to be waited
 * for.
 */
bool Hostinfo_Daemonize(const char *path, char *const *args, unsigned int flags,
                        const char *pidPath, const int *keepFds, size_t numKeepFds);

PELAGO_END_DECLARATIONS

#endif /* PELAGO_HOSTINFO_H */
