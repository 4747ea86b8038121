/*
 * report.h -- what the program says to people, and how a command fails.
 */
#ifndef PELAGO_HOST_REPORT_H
#define PELAGO_HOST_REPORT_H

#include <stdexcept>
#include <string>
#include <string_view>

// The name at the start of each message, such as "adduser.sh".
void SetProgramName(std::string name);

// The text with each control character as \xNN: nothing in an argument can begin a line of its own
// or steer a terminal.
std::string Printable(std::string_view text);
// The same in double quotes.
std::string Quoted(std::string_view text);
// What a program has written, on one line: its lines are joined by "; ".
std::string OneLine(std::string_view output);

// Writes "NAME: TEXT" as one line to standard error.  That nobody reads it is no failure.
void Say(std::string_view text);
// Writes the text as one line to the system's log.
void LogToSystem(std::string_view text);

// A command cannot be carried out; what() says why.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};
[[noreturn]] void Fail(const std::string &reason);

// A signal asks the program to end.
struct Interruption {
    int signal;
};
// From now on SIGHUP, SIGINT and SIGTERM are noted instead of ending the process.
void NoteSignals();
// Throws Interruption when one has arrived.
void CheckForSignal();
// For as long as one of these lives, no signal interrupts: something is being undone.
class Uninterrupted {
public:
    Uninterrupted();
    ~Uninterrupted();
    Uninterrupted(const Uninterrupted &) = delete;
    Uninterrupted &operator=(const Uninterrupted &) = delete;

private:
    bool mBefore;
};

#endif // PELAGO_HOST_REPORT_H
