// shareWhile.cpp -- an example caller: shares a folder for as long as a command runs.
//
//    shareWhile TOOL FOLDER SHARE USER PASSWORD_FILE rw|ro COMMAND [ARG...]
//
// Starts TOOL with a pipe on each of its standard streams, waits for its sharing result, runs
// COMMAND, closes the tool's standard input and reads how the clean-up went.  Everything the tool
// says is shown as it comes, marked with the stream it came from.  Exit status: COMMAND's (1 when a
// signal ended it, 127 when there is no such command) if the tool shared and cleaned up; 1 if it
// did not; 2 for wrong arguments.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

[[noreturn]] void Fail(const char *what)
{
    perror(what);
    exit(1);
}

// Opens /dev/null for each standard stream that is closed: else a pipe of the tool's would get its
// number.
void OpenClosedStreams()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        if (fcntl(fd, F_GETFD) == -1) {
            open("/dev/null", O_RDWR); // gets the lowest free number, which is fd
        }
    }
}

struct Pipe {
    int readEnd, writeEnd;
};

// Both ends close in every program that we start: a command that inherited the tool's standard
// input would keep the share open after we are gone.
Pipe MakePipe()
{
    int ends[2];
    if (pipe(ends) != 0 || fcntl(ends[0], F_SETFD, FD_CLOEXEC) != 0 ||
        fcntl(ends[1], F_SETFD, FD_CLOEXEC) != 0) {
        Fail("pipe");
    }
    return {ends[0], ends[1]};
}

pid_t StartTool(char *const argv[], const Pipe &input, const Pipe &output, const Pipe &errors)
{
    const pid_t tool = fork();
    if (tool == -1) { Fail("fork"); }
    if (tool != 0) { return tool; }
    // Out of reach of the terminal's Ctrl-C: it is to end us, and the closing pipe the share.
    setpgid(0, 0);
    dup2(input.readEnd, STDIN_FILENO);
    dup2(output.writeEnd, STDOUT_FILENO);
    dup2(errors.writeEnd, STDERR_FILENO);
    execv(argv[0], argv);
    perror(argv[0]);
    _exit(1);
}

int ExitStatus(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) == -1) {
        if (errno != EINTR) { Fail("waitpid"); }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

int RunCommand(char *const argv[])
{
    const pid_t command = fork();
    if (command == -1) { Fail("fork"); }
    if (command == 0) {
        signal(SIGPIPE, SIG_DFL); // ignoring it is our way, not the command's
        execvp(argv[0], argv);
        perror(argv[0]);
        _exit(127);
    }
    return ExitStatus(command);
}

// One stream of the tool's, taken apart into lines.
class LineReader {
public:
    LineReader(int fd, const char *mark) : mFd(fd), mMark(mark) {}
    int Fd() const { return mFd; }

    // Reads what is there and shows and hands on each whole line; false at the end of the stream.
    template <typename OnLine> bool Read(OnLine onLine)
    {
        char bytes[4096];
        const ssize_t size = read(mFd, bytes, sizeof bytes);
        if (size < 0 && errno == EINTR) { return true; }
        if (size <= 0) {
            if (!mPending.empty()) { Show(mPending); }
            return false;
        }
        mPending.append(bytes, static_cast<size_t>(size));
        size_t end;
        while ((end = mPending.find('\n')) != std::string::npos) {
            const std::string line = mPending.substr(0, end);
            mPending.erase(0, end + 1);
            Show(line);
            onLine(line);
        }
        return true;
    }

private:
    void Show(const std::string &line) const
    {
        printf("%s| %s\n", mMark, line.c_str());
        fflush(stdout);
    }

    int mFd;
    const char *mMark;
    std::string mPending;
};

// The number at the head of one of the tool's result lines, or -1 for any other line.
int ResultOf(const std::string &line, const char *kind)
{
    char *rest = nullptr;
    const long status = strtol(line.c_str(), &rest, 10);
    return rest != line.c_str() && strncmp(rest, kind, strlen(kind)) == 0 ? static_cast<int>(status)
                                                                          : -1;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 8) {
        fprintf(stderr,
                "usage: shareWhile TOOL FOLDER SHARE USER PASSWORD_FILE rw|ro COMMAND...\n");
        return 2;
    }
    OpenClosedStreams();
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_DFL); // where it is ignored, nobody learns how a child ended
    char *toolArgv[] = {argv[1], argv[2], argv[3], argv[4], argv[5], argv[6], nullptr};
    char *const *command = argv + 7;

    const Pipe input = MakePipe(), output = MakePipe(), errors = MakePipe();
    const pid_t tool = StartTool(toolArgv, input, output, errors);
    close(input.readEnd);
    close(output.writeEnd);
    close(errors.writeEnd);

    int sharingResult = -1, deleteResult = -1, commandStatus = 1;
    std::thread user;
    const auto onLine = [&](const std::string &line) {
        if (const int status = ResultOf(line, " is the sharing result"); status >= 0) {
            sharingResult = status;
            if (status == 0 && !user.joinable()) {
                user = std::thread([&] {
                    commandStatus = RunCommand(command);
                    close(input.writeEnd); // this ends the share
                });
            }
        }
        if (const int status = ResultOf(line, " is the delete share result"); status >= 0) {
            deleteResult = status;
        }
    };

    // Standard error is for people and anybody may write to it; only the other one is the protocol.
    const auto show = [](const std::string &) {};

    LineReader readers[] = {{output.readEnd, "stdout"}, {errors.readEnd, "stderr"}};
    pollfd polls[] = {{readers[0].Fd(), POLLIN, 0}, {readers[1].Fd(), POLLIN, 0}};
    for (int open = 2; open > 0;) {
        if (poll(polls, 2, -1) == -1) {
            if (errno != EINTR) { Fail("poll"); }
            continue;
        }
        for (int i = 0; i < 2; i++) {
            if (polls[i].revents != 0 &&
                !(i == 0 ? readers[i].Read(onLine) : readers[i].Read(show))) {
                polls[i].fd = -1; // poll passes over it
                open--;
            }
        }
    }
    if (user.joinable()) { user.join(); }
    const int toolStatus = ExitStatus(tool);
    const bool shared = sharingResult == 0 && deleteResult == 0 && toolStatus == 0;
    return shared ? commandStatus : 1;
}
