// daemonizeForTests.h -- starts the program tellState as a daemon.
#ifndef PELAGO_TESTS_MISC_DAEMONIZEFORTESTS_H
#define PELAGO_TESTS_MISC_DAEMONIZEFORTESTS_H

#include "hostinfo.h"

#include "startedPrograms.h"

constexpr unsigned ALL_KEPT = DAEMONIZE_KEEP_CWD | DAEMONIZE_KEEP_SESSION_AND_STDIO;

class Daemonize : public StartedPrograms {
protected:
    static bool Start(unsigned flags = 0, const std::string &pidPath = {},
                      const std::vector<int> &keepFds = {}, const std::string &program = TELL_STATE)
    {
        const char *const args[] = {program.c_str(), nullptr};
        return Hostinfo_Daemonize(program.c_str(), const_cast<char *const *>(args), flags,
                                  pidPath.empty() ? nullptr : pidPath.c_str(), keepFds.data(),
                                  keepFds.size());
    }
    // Returns the result and the messages.
    static Result Tried(unsigned flags, const std::string &pidPath, const std::string &program)
    {
        Listening listening;
        errno = 0;
        const bool started = Start(flags, pidPath, {}, program);
        const int error = started ? 0 : errno;
        return {started, error, listening.Heard()};
    }
    std::string Executable(const std::string &content)
    {
        const std::string path = mFolder.Path() + "/program";
        std::ofstream(path) << content;
        chmod(path.c_str(), 0755);
        return path;
    }
};

inline const std::vector<std::string> NOTHING{"0 r /dev/null", "1 w /dev/null", "2 w /dev/null"};

inline std::vector<std::string> And(std::vector<std::string> list, const std::string &last)
{
    list.push_back(last);
    return list;
}

#endif // PELAGO_TESTS_MISC_DAEMONIZEFORTESTS_H
