/*
 * program.h -- runs programs of the host: Samba's, and those that change the user database.
 */
#ifndef PELAGO_HOST_PROGRAM_H
#define PELAGO_HOST_PROGRAM_H

#include "hostFile.h"

#include <string>
#include <string_view>
#include <vector>

struct Outcome {
    int status = 0; // the exit status; 128 plus the number of the signal that ended the program;
                    // 127 when the program could not be started
    std::string output; // all that it wrote to standard output and standard error
    bool IsSuccess() const { return status == 0; }
};

// A running program.  Its standard input is a pipe from this process, so that the program can be
// started before its input is known.  The destructor kills a program that was not waited for.
class Program {
public:
    // kept is a descriptor that the program keeps open, -1 for none.  A program without one is
    // killed when this process is; with one it goes on, and ignores SIGHUP, SIGINT and SIGTERM.
    // Fails when no process can be started.
    explicit Program(const std::vector<std::string> &arguments, int kept = -1);
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    // Writes the whole input and closes the pipe.  At most 4096 bytes: the pipe holds them all, so
    // that the write does not wait for the program.
    void Feed(std::string_view input);
    // Waits for the program's end, even when signals arrive; then throws Interruption if one has.
    Outcome Wait();

private:
    void Reap(Outcome *outcome);

    pid_t mPid = -1;
    pelago::platform::OwnedFd mInput, mOutput;
};

// Runs a program with this input, at most 4096 bytes, and waits for its end.
Outcome RunProgram(const std::vector<std::string> &arguments, std::string_view input = {});

// Runs a program that changes the user database, and waits for its end.  The program also runs to
// its end when this process is killed: nobody could complete a change that is half done.  It keeps
// the descriptor, which is a lock, open while it runs.
Outcome RunToItsEnd(const std::vector<std::string> &arguments, int kept);

// Runs a program that starts a daemon.  The program gets /dev/null for its standard streams, and no
// other descriptor.  Returns its status, as in Outcome.
int RunDaemonStarter(const std::vector<std::string> &arguments);

// Returns the path of a file in the folder of this program's own file.
std::string HostFile(const std::string &name);

#endif // PELAGO_HOST_PROGRAM_H
