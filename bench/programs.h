// programs.h -- starts programs and measures them.
#ifndef PELAGO_BENCH_PROGRAMS_H
#define PELAGO_BENCH_PROGRAMS_H

#include <string>
#include <sys/types.h>

// Prints what failed and ends the program with status 1; FailCall also prints the text of errno.
[[noreturn]] void Fail(const std::string &what);
[[noreturn]] void FailCall(const std::string &what);

// Returns the variable's value; ends the program if it is not set.
const char *FromEnvironment(const char *variable);

// Descriptors for a program's standard streams; -1 is /dev/null.
struct Streams {
    int input = -1, output = -1, errors = -1;
};

// Starts a program, found along PATH, without forking a copy of this process, whose cost would
// count as the program's.
pid_t Start(const char *const argv[], Streams streams);

// Waits for the child, which must end with that status, and returns its peak resident memory in
// KiB.
long Reap(pid_t child, const char *name, int wantedStatus);

#endif // PELAGO_BENCH_PROGRAMS_H
