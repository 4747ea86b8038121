// processMark.cpp -- reads from /proc when a process started.
#include "processMark.h"

#include "hostFile.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace pelago::platform {

namespace {

constexpr size_t MAX_FILE_SIZE = 4096; // a stat line and a boot id are far shorter
// The start time's field in /proc/PID/stat, counted from the state, which follows the name and is
// field 0.
constexpr int START_FIELD = 19;

// Reads up to MAX_FILE_SIZE bytes of the file.  Returns 0 or an errno value.
int ReadSmallFile(const char *path, std::string *bytes)
{
    const OwnedFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.IsOpen()) { return errno; }
    bytes->resize(MAX_FILE_SIZE);
    const ssize_t got = HostReadAll(fd.Get(), bytes->data(), bytes->size());
    const int error = got < 0 ? errno : 0;
    bytes->resize(got > 0 ? static_cast<size_t>(got) : 0);
    return error;
}

// Removes the next word, which ends at a blank or a newline, from the text and returns it; empty at
// the end.
std::string_view TakeWord(std::string_view *text)
{
    const size_t begin = text->find_first_not_of(" \n");
    if (begin == std::string_view::npos) { return *text = std::string_view(); }
    const size_t end = std::min(text->find_first_of(" \n", begin), text->size());
    const std::string_view word = text->substr(begin, end - begin);
    text->remove_prefix(end);
    return word;
}

template <typename Number> bool ReadNumber(std::string_view word, Number *number)
{
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), *number);
    return error == std::errc() && end == word.data() + word.size();
}

// Returns the start time in a stat line; nullopt for a process that has ended (a zombie).
std::optional<uint64_t> StartIn(std::string_view stat)
{
    // The name is in parentheses and may contain any bytes, parentheses as well.
    const size_t nameEnd = stat.rfind(')');
    if (nameEnd == std::string_view::npos) { return std::nullopt; }
    std::string_view fields = stat.substr(nameEnd + 1);
    const std::string_view state = TakeWord(&fields);
    if (state.empty() || state == "Z" || state == "X") { return std::nullopt; }
    for (int field = 1; field < START_FIELD; field++) {
        TakeWord(&fields);
    }
    uint64_t start = 0;
    if (!ReadNumber(TakeWord(&fields), &start)) { return std::nullopt; }
    return start;
}

// Does what Of() promises.  *error is 0, or the errno value when a file of the kernel's could not
// be read.
std::optional<ProcessMark> MarkOf(pid_t pid, int *error)
{
    std::string stat, boot;
    *error = ReadSmallFile(("/proc/" + std::to_string(pid) + "/stat").c_str(), &stat);
    if (*error == 0) { *error = ReadSmallFile("/proc/sys/kernel/random/boot_id", &boot); }
    const std::optional<uint64_t> start = StartIn(stat);
    std::string_view text = boot;
    const std::string_view id = TakeWord(&text);
    if (!start || id.empty()) { return std::nullopt; }
    return ProcessMark{pid, *start, std::string(id)};
}

} // namespace

std::optional<ProcessMark> ProcessMark::Of(pid_t pid)
{
    int error = 0;
    return MarkOf(pid, &error);
}

std::optional<ProcessMark> ProcessMark::FromText(std::string_view text)
{
    ProcessMark mark;
    if (!ReadNumber(TakeWord(&text), &mark.pid) || !ReadNumber(TakeWord(&text), &mark.start)) {
        return std::nullopt;
    }
    mark.boot = TakeWord(&text);
    if (mark.pid <= 0 || mark.boot.empty() || !TakeWord(&text).empty()) { return std::nullopt; }
    return mark;
}

std::string ProcessMark::Text() const
{
    return std::to_string(pid) + ' ' + std::to_string(start) + ' ' + boot;
}

bool ProcessMark::IsRunning() const
{
    if (kill(pid, 0) != 0 && errno == ESRCH) { return false; }
    int error = 0;
    const std::optional<ProcessMark> present = MarkOf(pid, &error);
    return error != 0 || present == *this;
}

bool ProcessMark::AnotherOfOurNameRuns()
{
    std::string ours, name;
    if (ReadSmallFile("/proc/self/comm", &ours) != 0) { return true; }
    const std::unique_ptr<DIR, int (*)(DIR *)> processes(opendir("/proc"), closedir);
    if (!processes) { return true; }
    for (;;) {
        errno = 0;
        const dirent *entry = readdir(processes.get());
        if (entry == nullptr) { return errno != 0; }
        pid_t pid = 0;
        if (!ReadNumber(std::string_view(entry->d_name), &pid) || pid == getpid()) { continue; }
        const std::string folder = "/proc/" + std::string(entry->d_name);
        const bool isNamesake =
            ReadSmallFile((folder + "/comm").c_str(), &name) == 0 && name == ours;
        // The owner counts, since any user can give a process any name.
        struct stat status;
        const bool isOurUsers =
            isNamesake && stat(folder.c_str(), &status) == 0 && status.st_uid == geteuid();
        if (isOurUsers && Of(pid)) { return true; }
    }
}

} // namespace pelago::platform
