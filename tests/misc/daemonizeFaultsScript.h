// daemonizeFaultsScript.h -- scripts which calls fail in a process that daemonizes.
#ifndef PELAGO_TESTS_MISC_DAEMONIZEFAULTSSCRIPT_H
#define PELAGO_TESTS_MISC_DAEMONIZEFAULTSSCRIPT_H

#include "hostinfo.h"

#include "allocations.h"
#include "startedPrograms.h"
#include "unicode.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

enum Role { CALLER, CHILD, DAEMON };
enum Way { FAILS, IS_SHORT, RETURNS_ZERO, KILLS, WORKS };

struct Fault {
    Role role;
    std::string call; // "": any call
    int error = 0;
    Way way = FAILS;
    int ordinal = 1;                   // among the process's calls of that name
    std::function<void()> before = {}; // runs before the fault
};

struct Script {
    std::vector<Fault> faults;
    Role role = CALLER;
    std::map<std::string, int> calls{}; // this process's counts by name; "": all calls
    pid_t child = -1;                   // the process between the caller and the daemon
    int pipeEnd = -1;                   // the end that the execution must close
};
inline std::optional<Script> sScript; // nullopt while the test's own calls are made

constexpr unsigned KEPT = DAEMONIZE_KEEP_SESSION_AND_STDIO; // keeps the daemon's messages visible

class DaemonizeFaults : public StartedPrograms {
protected:
    // The first conversion fills caches, which are no leak.
    static void SetUpTestSuite() { free(Unicode_GetAllocBytes("a", STRING_ENCODING_DEFAULT)); }

    // Returns the result under the script.  In the messages, names replace the numbers and the
    // paths.
    Result Tried(const std::vector<Fault> &faults, unsigned flags = KEPT, bool withPidFile = true,
                 const std::string &program = TELL_STATE, const std::vector<int> &keepFds = {})
    {
        const std::string pidPath = PidPath();
        const char *const args[] = {program.c_str(), nullptr};
        Listening listening;
        const ptrdiff_t live = Allocations::Live();
        sScript = Script{faults};
        errno = 0;
        const bool started = Hostinfo_Daemonize(program.c_str(), const_cast<char *const *>(args),
                                                flags, withPidFile ? pidPath.c_str() : nullptr,
                                                keepFds.data(), keepFds.size());
        const int error = started ? 0 : errno;
        mScript = *sScript;
        sScript.reset();
        EXPECT_EQ(mScript.role, CALLER);
        std::string said = listening.Heard();
        EXPECT_EQ(Allocations::Live(), live);
        Replace(&said, "Child " + std::to_string(mScript.child) + " ", "Child CHILD ");
        Replace(&said, " fd " + std::to_string(mScript.pipeEnd) + ",", " fd PIPE,");
        Replace(&said, pidPath, "PIDFILE");
        Replace(&said, program, "PROGRAM");
        return {started, error, said};
    }
    bool HasPidFile() const { return std::filesystem::exists(PidPath()); }

    Script mScript; // the caller's copy after the call

private:
    static void Replace(std::string *text, const std::string &from, const std::string &to)
    {
        for (size_t at = 0; (at = text->find(from, at)) != std::string::npos; at += to.size()) {
            text->replace(at, from.size(), to);
        }
    }
};

#endif // PELAGO_TESTS_MISC_DAEMONIZEFAULTSSCRIPT_H
