/*
 * report.h -- messages for people, failures, and signals.
 * "Fails", in the comments of this program, means: throws Failure.
 */
#ifndef PELAGO_HOST_REPORT_H
#define PELAGO_HOST_REPORT_H

#include <stdexcept>
#include <string>
#include <string_view>

// Sets the name at the start of each message, such as "adduser.sh".
void SetProgramName(std::string name);

// Returns the text with each control character as \xNN, so that nothing in an argument can begin a
// new line or control a terminal.
std::string Printable(std::string_view text);
// Returns the same in double quotes; a double quote in the text becomes \x22.
std::string Quoted(std::string_view text);
// Returns the output of a program as one line: its lines, without the empty ones, joined by "; ".
std::string OneLine(std::string_view output);

// Writes "NAME: TEXT" as one line to standard error; an error of the write is ignored.
void Say(std::string_view text);
// Writes the text as one line to the system's log.
void LogToSystem(std::string_view text);

// A command cannot be carried out; what() is the reason, for people.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// Throws Failure.
[[noreturn]] void Fail(const std::string &reason);

// Thrown after a signal that is to end the program.
struct Interruption {
    int signal;
};
// From now on SIGHUP, SIGINT and SIGTERM are noted and do not end the process.  Those that the
// caller has set to be ignored stay ignored.
void NoteSignals();
// Throws Interruption when a signal was noted, unless an Uninterrupted exists.
void CheckForSignal();
// While one of these exists, CheckForSignal() does not throw, so that undoing is not interrupted.
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
