// tellState.cpp -- a program that reports the state in which it was started.  It writes "name
// value" for each item, followed by a NUL, to standard output, or to the file that the environment
// variable TELL_STATE names; the file appears under that name when it is complete.  With TELL_STAY,
// the program then runs until it is killed, at most half a minute.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr unsigned STAY_SECONDS = 30;

std::string sReport;

void Tell(const std::string &name, const std::string &value)
{
    sReport += name + " " + value + '\0';
}

const char *Access(int fd)
{
    switch (fcntl(fd, F_GETFL) & O_ACCMODE) {
    case O_RDONLY: return "r";
    case O_WRONLY: return "w";
    default: return "rw";
    }
}

// Writes "fd 3 w /tmp/x" for each open descriptor.
void TellDescriptors()
{
    DIR *folder = opendir("/proc/self/fd");
    while (const dirent *entry = readdir(folder)) {
        const int fd = atoi(entry->d_name);
        if (entry->d_name[0] == '.' || fd == dirfd(folder)) { continue; }
        char target[4096] = {};
        if (readlinkat(dirfd(folder), entry->d_name, target, sizeof target - 1) < 0) { abort(); }
        Tell("fd", std::string(entry->d_name) + " " + Access(fd) + " " + target);
    }
    closedir(folder);
}

void TellSignals()
{
    FILE *status = fopen("/proc/self/status", "r");
    char line[256];
    while (fgets(line, sizeof line, status) != nullptr) {
        line[strcspn(line, "\n")] = '\0';
        if (strncmp(line, "SigIgn:\t", 8) == 0) { Tell("ignored", line + 8); }
        if (strncmp(line, "SigBlk:\t", 8) == 0) { Tell("blocked", line + 8); }
    }
    fclose(status);
}

void TellTimers()
{
    for (const int timer : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
        itimerval value;
        if (getitimer(timer, &value) != 0) { abort(); }
        if (timerisset(&value.it_value) || timerisset(&value.it_interval)) {
            Tell("timer", std::to_string(timer));
        }
    }
}

void TellLimit(const std::string &name, decltype(RLIMIT_AS) resource)
{
    rlimit limit;
    if (getrlimit(resource, &limit) != 0) { abort(); }
    Tell(name, std::to_string(limit.rlim_cur) + " " + std::to_string(limit.rlim_max));
}

// Writes "limit 7 1024 4096" for each limit that has no name of its own in the report.
void TellOtherLimits()
{
    for (int resource = 0; resource < static_cast<int>(RLIM_NLIMITS); resource++) {
        if (resource == static_cast<int>(RLIMIT_AS) || resource == static_cast<int>(RLIMIT_RSS)) {
            continue;
        }
        rlimit limit;
        if (getrlimit(static_cast<decltype(RLIMIT_AS)>(resource), &limit) != 0) { abort(); }
        Tell("limit", std::to_string(resource) + " " + std::to_string(limit.rlim_cur) + " " +
                          std::to_string(limit.rlim_max));
    }
}

bool Write(FILE *file)
{
    return file != nullptr && fwrite(sReport.data(), 1, sReport.size(), file) == sReport.size() &&
           fclose(file) == 0;
}

bool Report()
{
    const char *path = getenv("TELL_STATE");
    if (path == nullptr) { return Write(stdout); }
    const std::string unfinished = std::string(path) + ".unfinished";
    return Write(fopen(unfinished.c_str(), "w")) && rename(unfinished.c_str(), path) == 0;
}

} // namespace

int main(int argc, char **argv)
{
    TellDescriptors(); // before the program opens descriptors that stay open
    TellSignals();
    TellTimers();
    for (int i = 0; i < argc; i++) {
        Tell("argument", argv[i]);
    }
    for (char **variable = environ; *variable != nullptr; variable++) {
        Tell("variable", *variable);
    }
    char folder[4096];
    Tell("cwd", getcwd(folder, sizeof folder));
    Tell("pid", std::to_string(getpid()));
    Tell("session", std::to_string(getsid(0)));
    Tell("group", std::to_string(getpgrp()));
    Tell("mask", std::to_string(umask(0)));
    Tell("priority", std::to_string(getpriority(PRIO_PROCESS, 0)));
    const int terminal = open("/dev/tty", O_RDWR | O_CLOEXEC);
    Tell("terminal", terminal == -1 ? "none" : "there");
    if (terminal != -1) { close(terminal); }
    TellLimit("addressSpace", RLIMIT_AS);
    TellLimit("residentSet", RLIMIT_RSS);
    TellOtherLimits();

    if (!Report()) { return 1; }
    if (getenv("TELL_STAY") != nullptr) {
        alarm(STAY_SECONDS);
        pause();
    }
    return 0;
}
