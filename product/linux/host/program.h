/*
 * program.h -- runs the host's own programs: Samba's, and those that change the user database.
 */
#ifndef PELAGO_HOST_PROGRAM_H
#define PELAGO_HOST_PROGRAM_H

#include "hostFile.h"

#include <string>
#include <string_view>
#include <vector>

struct Outcome {
    int status = 0;     // the exit status; 128 and the number of the signal that ended it; 127 when
                        // it could not be started
    std::string output; // what it wrote to both of its output streams
    bool IsSuccess() const { return status == 0; }
};

// A program that runs.  Its standard input is a pipe of ours, so that it can be started before its
// input is known.  One that nobody has waited for is killed, and so is one whose starter is killed,
// unless it keeps a descriptor of ours.
class Program {
public:
    explicit Program(const std::vector<std::string> &arguments, int kept = -1);
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    // Writes the whole of its input, at most 4096 bytes, and closes it.
    void Feed(std::string_view input);
    // Waits for its end, however many signals arrive; then throws Interruption if one has.
    Outcome Wait();

private:
    void Reap(Outcome *outcome);

    pid_t mPid = -1;
    pelago::platform::OwnedFd mInput, mOutput;
};

// Runs a program with this input to its end.
Outcome RunProgram(const std::vector<std::string> &arguments, std::string_view input = {});

// Runs a program that changes the user database to its end, whatever becomes of this process: half
// of its work would be in nobody's hands.  It keeps this descriptor open while it runs.
Outcome RunToItsEnd(const std::vector<std::string> &arguments, int kept);

// Runs a program that leaves a daemon, with nothing of ours open; its output is lost.  Its status.
int RunDaemonStarter(const std::vector<std::string> &arguments);

// The path of a file that lies in the folder of this program.
std::string HostFile(const std::string &name);

#endif // PELAGO_HOST_PROGRAM_H
