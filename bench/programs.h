// programs.h -- programs that are started to be measured.
#ifndef PELAGO_BENCH_PROGRAMS_H
#define PELAGO_BENCH_PROGRAMS_H

#include <string>
#include <sys/types.h>

// Ends the program with status 1 and says what failed; FailCall also says why the system refused
// it.
[[noreturn]] void Fail(const std::string &what);
[[noreturn]] void FailCall(const std::string &what);

// The variable's value, which must be there.
const char *FromEnvironment(const char *variable);

// Descriptors for a program's standard streams; -1 is /dev/null.
struct Streams {
    int input = -1, output = -1, errors = -1;
};

// Starts a program, found along PATH, as a lean caller does: without a copy of itself that would
// count as the program's cost.
pid_t Start(const char *const argv[], Streams streams);

// Waits for the child, which must end with that status, and returns its peak of resident memory in
// KiB.
long Reap(pid_t child, const char *name, int wantedStatus);

#endif // PELAGO_BENCH_PROGRAMS_H
