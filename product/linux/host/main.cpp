// main.cpp -- pelagoHost: the program of the four share scripts, of the switch of the SMB service
// and of the administrator's commands.  The command is the first argument, unless the program is
// started by the name of a command, as by a link of that name.
#include "administration.h"
#include "report.h"
#include "session.h"

#include "closeDescriptors.h"
#include "diagnostics.h"

#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace pelago::platform;

namespace {

struct Command {
    const char *name;       // the first argument
    const char *calledName; // its name in messages, and by which the program may be started
    void (*run)(const Arguments &);
};

constexpr Command COMMANDS[] = {
    {"adduser", "adduser.sh", AddUser},
    {"addshare", "addshare.sh", AddShare},
    {"rmshare", "rmshare.sh", RemoveShare},
    {"rmuser", "rmuser.sh", RemoveUser},
    {"switch", "pelago-smb-switch", SwitchService},
    {"check", "pelago-share-check", CheckHost},
    {"sessions", "pelago-share-sessions", ManageSessions},
    {"service", "pelago-smb-service", ManageService},
};

constexpr int SIGNAL_STATUS = 128;

const Command *FindCommand(const std::string &name, const char *Command::*field)
{
    for (const Command &command : COMMANDS) {
        if (name == command.*field) { return &command; }
    }
    return nullptr;
}

// Returns the command, or nullptr, and the index of its first argument.
std::pair<const Command *, int> ChooseCommand(int argc, char **argv)
{
    const std::string path = argc > 0 ? argv[0] : "";
    if (const Command *own = FindCommand(path.substr(path.rfind('/') + 1), &Command::calledName)) {
        return {own, 1};
    }
    return {argc > 1 ? FindCommand(argv[1], &Command::name) : nullptr, 2};
}

// Keeps the caller's environment, umask and descriptors from changing what programs of root's do: a
// missing standard stream is opened, so that no other file gets its number.  Nothing here reads
// standard input: it belongs to the session's caller, which must not lose a byte of it.
void SettleProcess()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        if (fcntl(fd, F_GETFD) == -1) { open("/dev/null", O_RDWR); } // gets the number fd
    }
    clearenv();
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    setenv("LC_ALL", "C", 1);
    umask(077);
    signal(SIGCHLD, SIG_DFL);
    // A caller that has died leaves a broken pipe; the work goes on without a reader of messages.
    signal(SIGPIPE, SIG_IGN);
    NoteSignals();
}

int Run(int argc, char **argv)
{
    try {
        const auto [command, first] = ChooseCommand(argc, argv);
        if (command == nullptr) { Fail("usage: pelagoHost COMMAND [ARGUMENT...]"); }
        SetProgramName(command->calledName);
        command->run(Arguments(argv + first, argv + argc));
        return EXIT_SUCCESS;
    } catch (const Interruption &interruption) {
        return SIGNAL_STATUS + interruption.signal;
    } catch (const Failure &failure) {
        Say(failure.what());
    } catch (const std::bad_alloc &) {
        Say("out of memory");
    }
    return EXIT_FAILURE;
}

} // namespace

// The functions by which the library prints its messages.
extern "C" void Warning(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    vfprintf(stderr, format, values);
    va_end(values);
}

extern "C" void Log(const char *, ...) {}

extern "C" void Panic(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    vfprintf(stderr, format, values);
    va_end(values);
    exit(EXIT_FAILURE);
}

int main(int argc, char **argv)
{
    SettleProcess();
    return Run(argc, argv);
}
